// Port monitors as data: the configuration handle and XcvData.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "spooler_fixture.h"

namespace {

using namespace platform;
using spooltest::kPoison;
using spooltest::Poison;
using spooltest::Record;

class SpoolerPorts : public spooltest::SpoolerTest {
  protected:
    UniquePrinter OpenMonitor(const std::u16string& monitor) {
        const auto defaults = spooltest::Access(SERVER_ACCESS_ADMINISTER);
        return OpenPrinterW(u",XcvMonitor " + monitor, &defaults);
    }
    // Sends a command whose input is one string, with its terminator.
    static DWORD Send(HANDLE xcv, std::u16string_view command, const std::u16string& input) {
        DWORD status = kPoison;
        DWORD needed = 0;
        EXPECT_TRUE(XcvDataW(xcv, command, input.c_str(),
                             static_cast<DWORD>((input.size() + 1) * sizeof(char16_t)), nullptr, 0,
                             &needed, &status));
        return status;
    }
    // Ports of the local monitor that every machine has (Windows does not
    // always have NUL:).
    static std::vector<std::u16string> LocalPorts() {
        std::vector<std::u16string> ports = {u"LPT1:", u"COM1:", u"FILE:"};
        if (!ovtest::IsWin32Platform()) {
            ports.push_back(u"NUL:");
        }
        return ports;
    }
    static std::u16string Bytes(std::u16string_view a, std::u16string_view b) {
        std::u16string all(a);
        all.push_back(u'\0');
        all += b;
        return all;
    }
};

TEST_F(SpoolerPorts, FreshMachineHasTheLocalPortMonitor) {
    auto monitors = EnumMonitorsW(u"");
    ASSERT_TRUE(monitors.has_value());
    EXPECT_NE(std::find(monitors->begin(), monitors->end(), u"Local Port"), monitors->end());
    auto ports = EnumPortsW(u"", 2);
    ASSERT_TRUE(ports.has_value());
    for (const auto& name : LocalPorts()) {
        const auto port = std::find_if(ports->begin(), ports->end(),
                                       [&](const PortInfo2& p) { return p.portName == name; });
        ASSERT_NE(port, ports->end()) << ovtest::U8(name);
        OVTEST_TODO_WINE("its EnumPortsW names the local monitor \"Local Monitor\"") {
            EXPECT_EQ(port->monitorName, u"Local Port");
        }
    }
    if (!ovtest::IsWin32Platform()) {
        // Windows has ports of other monitors too.
        for (const auto& p : *ports) {
            EXPECT_EQ(p.monitorName, u"Local Port") << ovtest::U8(p.portName);
        }
    }
    OVTEST_EXPECT_FAIL(EnumPortsW(u"", 3).has_value(), ERROR_INVALID_LEVEL);
}

TEST_F(SpoolerPorts, GetPortAnswersSizeFirstThenTheText) {
    OVTEST_EMBEDDED_ONLY(
        "port monitors are data only on the embedded machine; on Windows a monitor is a DLL "
        "answering its own commands, and the local monitor has no GetPort");
    ASSERT_TRUE(AddMonitorW(u"", u"Orvelle Port", u"orvmon.dll"));
    auto xcv = OpenMonitor(u"Orvelle Port");
    ASSERT_TRUE(xcv);
    const std::u16string text = u"Protocol=3\nOVASScheme=%A#%N\n";
    ASSERT_EQ(Send(xcv.get(), u"AddPort", u"OVAS1:"), ERROR_SUCCESS);
    ASSERT_EQ(Send(xcv.get(), u"SetPortInfo", Bytes(u"OVAS1:", text)), ERROR_SUCCESS);

    const std::u16string port = u"OVAS1:";
    const auto inSize = static_cast<DWORD>((port.size() + 1) * sizeof(char16_t));
    const auto size = static_cast<DWORD>((text.size() + 1) * sizeof(char16_t));
    DWORD status = kPoison;
    DWORD needed = 0;
    Poison();
    ASSERT_TRUE(
        XcvDataW(xcv.get(), u"GetPort", port.c_str(), inSize, nullptr, 0, &needed, &status));
    EXPECT_EQ(status, ERROR_MORE_DATA);
    EXPECT_EQ(needed, size);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);

    std::vector<char> out(size + 2, 'x');
    ASSERT_TRUE(XcvDataW(xcv.get(), u"GetPort", port.c_str(), inSize, out.data(), size - 1, &needed,
                         &status));
    EXPECT_EQ(status, ERROR_MORE_DATA);
    EXPECT_EQ(needed, size);
    for (DWORD given : {size, size + 1}) {
        std::fill(out.begin(), out.end(), 'x');
        status = kPoison;
        ASSERT_TRUE(XcvDataW(xcv.get(), u"GetPort", port.c_str(), inSize, out.data(), given,
                             &needed, &status));
        EXPECT_EQ(status, ERROR_SUCCESS);
        EXPECT_EQ(needed, size);
        EXPECT_EQ(std::memcmp(out.data(), text.c_str(), size), 0);
        EXPECT_EQ(out[size], 'x');
    }
}

TEST_F(SpoolerPorts, UnknownPortsAndCommandsAnswerAnErrorStatus) {
    OVTEST_EMBEDDED_ONLY(
        "port monitors are data only on the embedded machine; on Windows a monitor is a DLL "
        "answering its own commands, and the local monitor has no GetPort");
    auto xcv = OpenMonitor(u"Local Port");
    ASSERT_TRUE(xcv);
    DWORD status = kPoison;
    DWORD needed = 7;
    const std::u16string port = u"NOPE:";
    Poison();
    EXPECT_TRUE(XcvDataW(xcv.get(), u"GetPort", port.c_str(),
                         static_cast<DWORD>((port.size() + 1) * 2), nullptr, 0, &needed, &status));
    EXPECT_EQ(status, ERROR_UNKNOWN_PORT);
    EXPECT_EQ(needed, 0u);
    // A port of another monitor is unknown to this one.
    ASSERT_TRUE(AddMonitorW(u"", u"Other", u"other.dll"));
    auto other = OpenMonitor(u"Other");
    EXPECT_EQ(Send(other.get(), u"GetPort", u"LPT1:"), ERROR_UNKNOWN_PORT);
    EXPECT_EQ(Send(xcv.get(), u"NoSuchCommand", u"LPT1:"), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(Send(xcv.get(), u"AddPort", u"LPT1:"), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(Send(xcv.get(), u"DeletePort", u"NOPE:"), ERROR_UNKNOWN_PORT);
}

TEST_F(SpoolerPorts, XcvDataNeedsAConfigurationHandle) {
    auto printer = AddAndOpen(Name(u"Office"));
    DWORD status = kPoison;
    DWORD needed = 0;
    OVTEST_EXPECT_FAIL(
        XcvDataW(printer.get(), u"GetPort", u"LPT1:", 12, nullptr, 0, &needed, &status),
        ERROR_INVALID_HANDLE);
    EXPECT_EQ(status, kPoison);
    OVTEST_EXPECT_FAIL(XcvDataW(nullptr, u"GetPort", u"LPT1:", 12, nullptr, 0, &needed, &status),
                       ERROR_INVALID_HANDLE);
}

TEST_F(SpoolerPorts, XcvPortNameOpensItsMonitor) {
    Poison();
    auto xcv = OpenPrinterW(u",XcvPort COM2:");
    ASSERT_TRUE(xcv);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    // The monitor answers for its port: adding it again is refused.
    EXPECT_EQ(Send(xcv.get(), u"AddPort", u"COM2:"), ERROR_ALREADY_EXISTS);
    if (!ovtest::IsWin32Platform()) {
        EXPECT_EQ(Send(xcv.get(), u"GetPort", u"COM2:"), ERROR_MORE_DATA);
    }
}

TEST_F(SpoolerPorts, XcvPortOfAnUnknownPortIsAnUnknownName) {
    OVTEST_SKIP_UNDER_WINE("Wine answers ERROR_UNKNOWN_PORT for a port no monitor has");
    OVTEST_EXPECT_FAIL(OpenPrinterW(u",XcvPort " + Tag() + u":"), ERROR_INVALID_PRINTER_NAME);
}

TEST_F(SpoolerPorts, AddedPortCanCarryPrintersAndDeletedPortCannot) {
    auto xcv = OpenMonitor(u"Local Port");
    ASSERT_TRUE(xcv);
    const auto net5 = Tag() + u"-5:";
    const auto net6 = Tag() + u"-6:";
    ASSERT_EQ(Send(xcv.get(), u"AddPort", net5), ERROR_SUCCESS);
    {
        auto info = Record(Name(u"On NET5"));
        info.portName = net5;
        auto printer = AddPrinterW(u"", info);
        EXPECT_TRUE(printer);
        if (printer) {
            EXPECT_TRUE(DeletePrinter(printer.get()));
        }
    }
    ASSERT_EQ(Send(xcv.get(), u"DeletePort", net5), ERROR_SUCCESS);
    ASSERT_EQ(Send(xcv.get(), u"AddPort", net6), ERROR_SUCCESS);
    ASSERT_EQ(Send(xcv.get(), u"DeletePort", net6), ERROR_SUCCESS);
    OVTEST_SKIP_UNDER_WINE("Wine's AddPrinterW does not check the port");
    auto info = Record(Name(u"On NET6"));
    info.portName = net6;
    OVTEST_EXPECT_FAIL(AddPrinterW(u"", info), ERROR_UNKNOWN_PORT);
}

TEST_F(SpoolerPorts, MonitorNamesAreUnique) {
    // Windows' own error for it (ERROR_PRINT_MONITOR_ALREADY_INSTALLED); the
    // embedded machine answers ERROR_ALREADY_EXISTS.
    const DWORD exists = ovtest::IsWin32Platform() ? DWORD{3006} : ERROR_ALREADY_EXISTS;
    OVTEST_EXPECT_FAIL(AddMonitorW(u"", u"local port", u"x.dll"), exists);
    OVTEST_EXPECT_FAIL(AddMonitorW(u"", u"", u"x.dll"), ERROR_INVALID_PARAMETER);
}

}  // namespace
