// Shared helpers of the spooler contract tests.
//
// The same tests run on the embedded machine (a fresh spooler per test) and
// on Windows, where every test shares the machine's one spooler. So each test
// names its printers, share names, drivers and ports through Name() or Tag(),
// which are unique per test, counts only its own printers, and the fixture
// deletes what the test left behind.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "ovtest.h"
#include "platform/error.h"
#include "platform/spooler.h"
#include "product_settings.h"

namespace spooltest {

using ::ovtest::kPoison;
using ::ovtest::Poison;

// The driver every record names; a fresh embedded machine has it.
inline constexpr char16_t kGenericDriver[] = u"Generic / Text Only";

// ASCII upper case, for case-insensitivity checks.
inline std::u16string Upper(std::u16string text) {
    for (auto& c : text) {
        if (c >= u'a' && c <= u'z') {
            c = static_cast<char16_t>(c - u'a' + u'A');
        }
    }
    return text;
}

inline bool StartsWithNoCase(const std::u16string& text, const std::u16string& prefix) {
    return text.size() >= prefix.size() && Upper(text.substr(0, prefix.size())) == Upper(prefix);
}

// A printer record the machine accepts (the generic driver, a local port,
// the standard print processor and data type).
inline platform::PrinterInfo2 Record(const std::u16string& name) {
    platform::PrinterInfo2 info;
    info.printerName = name;
    info.portName = u"LPT1:";
    info.driverName = kGenericDriver;
    info.printProcessor = u"winprint";
    info.datatype = u"RAW";
    info.attributes = platform::PRINTER_ATTRIBUTE_LOCAL;
    return info;
}

inline platform::PrinterDefaults Access(platform::DWORD desired) {
    platform::PrinterDefaults defaults;
    defaults.desiredAccess = desired;
    return defaults;
}

inline platform::UniquePrinter OpenAll(const std::u16string& name) {
    const auto defaults = Access(platform::PRINTER_ALL_ACCESS);
    return platform::OpenPrinterW(name, &defaults);
}

// Installs the generic driver when the machine lacks it (a Windows machine
// may; Wine's fresh prefix has no driver at all), from placeholder files
// staged in the driver directory where no real ones are.
inline void EnsureGenericDriver() {
    auto drivers = platform::EnumPrinterDriversW(u"", platform::kEnvironmentX64, 6);
    ASSERT_TRUE(drivers.has_value()) << platform::GetLastError();
    for (const auto& driver : *drivers) {
        if (Upper(driver.name) == Upper(kGenericDriver)) {
            return;
        }
    }
    const auto directory = platform::GetPrinterDriverDirectoryW(u"", platform::kEnvironmentX64, 1);
    ASSERT_TRUE(directory.has_value()) << platform::GetLastError();
    platform::DriverInfo6 info;
    info.name = kGenericDriver;
    info.environment = platform::kEnvironmentX64;
    info.driverPath = u"GENTEXT.DLL";
    info.dataFile = u"GENTEXT.GPD";
    info.configFile = u"UNIDRVUI.DLL";
    info.helpFile = u"UNIDRV.HLP";
    info.dependentFiles = {u"UNIDRV.DLL"};
    for (const auto* file : {&info.driverPath, &info.dataFile, &info.configFile, &info.helpFile,
                             &info.dependentFiles[0]}) {
        const auto path = std::filesystem::path(*directory) / *file;
        if (!std::filesystem::exists(path)) {
            std::ofstream(path) << "placeholder";
        }
    }
    ASSERT_TRUE(platform::AddPrinterDriverW(u"", 6, info)) << platform::GetLastError();
}

class SpoolerTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        tag_ = ovtest::U16(ovtest::UniqueName("ovspool"));
        EnsureGenericDriver();
    }
    void TearDown() override {
        DeleteOwnPrinters();
        MachineTest::TearDown();
    }

    // What this test's names start with; no other test's names do.
    const std::u16string& Tag() const { return tag_; }
    // This test's name for a printer, share name or driver called `base`.
    std::u16string Name(std::u16string_view base) const {
        return tag_ + u" " + std::u16string(base);
    }
    // A name of exactly `length` characters that is this test's.
    std::u16string NameOfLength(std::size_t length) const {
        const auto name = Name(u"");
        return name + std::u16string(length > name.size() ? length - name.size() : 0, u'n');
    }

    // Adds a printer and closes the handle; fails the test when it cannot.
    void AddPrinter(const std::u16string& name) {
        auto printer = platform::AddPrinterW(u"", Record(name));
        ASSERT_TRUE(printer) << "AddPrinterW failed: " << platform::GetLastError();
    }
    // Adds a printer and opens it with every right.
    platform::UniquePrinter AddAndOpen(const std::u16string& name) {
        AddPrinter(name);
        return OpenAll(name);
    }
    // A printer's record at level 2; fails the test when it cannot be read.
    static platform::PrinterInfo2 Read(platform::HANDLE printer) {
        platform::PrinterInfo2 info;
        EXPECT_TRUE(platform::GetPrinterW(printer, &info)) << platform::GetLastError();
        return info;
    }
    // The printers of this test, as the spooler lists them.
    std::vector<platform::PrinterInfo2> OwnPrinters() {
        std::vector<platform::PrinterInfo2> own;
        auto all = platform::EnumPrintersW(platform::PRINTER_ENUM_LOCAL, u"", 2);
        EXPECT_TRUE(all.has_value()) << platform::GetLastError();
        if (all) {
            for (auto& printer : *all) {
                if (StartsWithNoCase(printer.printerName, tag_)) {
                    own.push_back(std::move(printer));
                }
            }
        }
        return own;
    }
    std::size_t PrinterCount() { return OwnPrinters().size(); }

    // Best effort: a test may have locked its printer against this process.
    void DeleteOwnPrinters() {
        if (tag_.empty()) {
            return;
        }
        for (const auto& printer : OwnPrinters()) {
            auto handle = OpenAll(printer.printerName);
            if (handle) {
                platform::SetPrinterW(handle.get(), platform::PRINTER_CONTROL_PURGE);
                platform::DeletePrinter(handle.get());
            }
        }
    }

  private:
    std::u16string tag_;
};

}  // namespace spooltest
