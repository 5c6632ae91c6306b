// Names of created printers and the port monitor's name format.
#include <gtest/gtest.h>

#include "config/product_key.h"
#include "create/naming_scheme.h"
#include "create/win_port.h"
#include "ovtest.h"
#include "platform/machine.h"
#include "platform/registry.h"
#include "platform/spooler.h"

namespace ovsvc {
namespace {

class NamingTest : public ovtest::MachineTest {
  protected:
    static void SetScheme(platform::DWORD type, std::u16string text) {
        platform::UniqueKey key;
        ASSERT_EQ(platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, kProductKey, 0,
                                            platform::KEY_ALL_ACCESS, &key, nullptr),
                  0);
        text.push_back(u'\0');
        ASSERT_EQ(platform::RegSetValueExW(key.get(), u"PrinterNameScheme", type, text.data(),
                                           static_cast<platform::DWORD>(text.size() * 2)),
                  0);
    }
};

TEST_F(NamingTest, DisplayNamesFollowTheScheme) {
    struct Case {
        const char16_t* client;
        std::u16string display;
    };
    for (const Case& c :
         {Case{u"\\\\PC1\\HP 4", u"HP 4 on PC1"}, Case{u"\\\\PC1\\", u" on PC1"},
          Case{u"\\\\PC1", u"\\\\PC1"}, Case{u"HP 4", u"HP 4"}, Case{u"\\\\", u"\\\\"}}) {
        EXPECT_EQ(ApplyPrinterNameScheme(c.client), c.display) << ovtest::U8(c.client);
    }
    SetScheme(platform::REG_SZ, u"%S-%P%");
    EXPECT_EQ(ApplyPrinterNameScheme(u"\\\\PC1\\HP 4"), u"PC1-HP 4%");
    SetScheme(platform::REG_SZ, u"%%%Q%P");
    EXPECT_EQ(ApplyPrinterNameScheme(u"\\\\PC1\\HP 4"), u"%%QHP 4");
    SetScheme(platform::REG_DWORD, u"ab");
    EXPECT_EQ(ApplyPrinterNameScheme(u"\\\\PC1\\HP 4"), u"");
}

TEST(PrinterNameFormat, PlaceholdersIdsAndEdges) {
    struct Case {
        const char16_t* format;
        std::int32_t id;
        const char16_t* user;
        std::u16string name;
    };
    const Case cases[] = {
        {u"%A:%I#%N", 3, u"DOM\\jo", u"PC1:3#HP 4 on PC1"},
        {u"%A:%I#%N", 0, u"DOM\\jo", u"PC1#HP 4 on PC1"},
        {u"%A:%I#%N", -1, u"DOM\\jo", u"PC1#HP 4 on PC1"},
        {u"%I%N", 0, u"", u"HP 4 on PC1"},
        {u"%U-%N", 1, u"DOM\\jo smith", u"jo-HP 4 on PC1"},
        {u"%U-%N", 1, u"nodomain", u"-HP 4 on PC1"},
        {u"%Q", 1, u"", u"%Q"},
        {u"%", 1, u"", u"%"},
        {u"a%%b%", 1, u"", u"a%b%"},
        {u"", 1, u"", u""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(FormatPrinterName(c.format, u"PC1", c.id, u"HP 4 on PC1", c.user), c.name)
            << ovtest::U8(c.format) << " id " << c.id;
    }
}

TEST_F(NamingTest, PortListsReportTheirMonitorsFormat) {
    OVTEST_EMBEDDED_ONLY("ports with chosen monitor answers");
    for (const auto& [port, info] : {std::pair{u"P1:", u"Protocol=3\nOVASScheme=%A#%N"},
                                     {u"P2:", u"Protocol=3\nOVASScheme=%A#%N\n"},
                                     {u"P3:", u"OVASScheme=%N-%I\nProtocol=1"},
                                     {u"P4:", u"Protocol=3\n"}}) {
        platform::PrinterDefaults admin;
        admin.desiredAccess = platform::SERVER_ACCESS_ADMINISTER;
        ASSERT_TRUE(platform::AddMonitorW(u"", u"Orvelle Port", u"ovmon.dll") ||
                    platform::GetLastError() == platform::ERROR_ALREADY_EXISTS);
        const platform::UniquePrinter xcv =
            platform::OpenPrinterW(u",XcvMonitor Orvelle Port", &admin);
        ASSERT_TRUE(xcv);
        const std::u16string portText(port);
        platform::DWORD status = 0;
        platform::DWORD needed = 0;
        platform::XcvDataW(xcv.get(), u"AddPort", portText.c_str(),
                           static_cast<platform::DWORD>((portText.size() + 1) * 2), nullptr, 0,
                           &needed, &status);
        std::u16string input = portText + u'\0' + std::u16string(info) + u'\0';
        platform::XcvDataW(xcv.get(), u"SetPortInfo", input.data(),
                           static_cast<platform::DWORD>(input.size() * 2), nullptr, 0, &needed,
                           &status);
        ASSERT_EQ(status, 0u);
    }
    WinPort winPort;
    struct Case {
        const char16_t* list;
        std::int32_t result;
        std::u16string format;
    };
    const Case cases[] = {
        {u"P1:", 0, u"%A#%N"},        {u"P1:,P2:", 0, u"%A#%N"},
        {u"P1:,P3:", 0, u"%A#%N"},  // different formats: the first one stays
        {u"P1:,", 0, u"%A#%N"},       {u"", 0, u""},
        {u"P4:", -20, u"%A:%I#%N"},  // no format reported: the default, and a failure
        {u"NOPE:", -20, u"%A:%I#%N"}, {u"P1:,NOPE:", -20, u"%A#%N"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(winPort.TestAllPortInPortList(c.list), c.result) << ovtest::U8(c.list);
        EXPECT_EQ(winPort.Format(), c.format) << ovtest::U8(c.list);
    }
}

// The link binds XcvDataW from the spooler's library at run time; without it
// (or on NT 4.0, whose monitor module the machine lacks) no port has a format.
TEST_F(NamingTest, WithoutTheSpoolersXcvDataNoPortHasAFormat) {
    OVTEST_EMBEDDED_ONLY("switches of the embedded machine");
    for (const auto& [setting, value] :
         {std::pair{"winspool_missing", "XcvDataW"}, {"os_version", "4.0.1381"}}) {
        platform::machine::SetSetting(setting, value);
        OMComm link;
        EXPECT_EQ(link.OpenMonitor(), 6u) << setting;
        platform::DWORD needed = 1;
        EXPECT_EQ(link.GetPortInfo(u"P1:", nullptr, 0, &needed), 1u) << setting;
        EXPECT_EQ(needed, 0u);
        WinPort winPort;
        EXPECT_EQ(winPort.TestAllPortInPortList(u"P1:"), -20) << setting;
        platform::machine::SetSetting(setting, "");
    }
    EXPECT_EQ(GetOSClass(), 0);  // 6.1, the machine's default
}

}  // namespace
}  // namespace ovsvc
