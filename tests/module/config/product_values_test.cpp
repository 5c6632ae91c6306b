// The product key's values: defaults of an empty key, and values stored
// with a type their reader does not take.
#include "config/product_values.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "config/product_key.h"
#include "ovtest.h"

namespace ovsvc::config {
namespace {

using platform::DWORD;

class ProductValuesTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        platform::RegDeleteTreeW(platform::HKEY_LOCAL_MACHINE, kProductKey);
    }
    void TearDown() override {
        platform::RegDeleteTreeW(platform::HKEY_LOCAL_MACHINE, kProductKey);
        MachineTest::TearDown();
    }
    static void Store(std::u16string_view name, DWORD type, const void* data, DWORD size) {
        platform::UniqueKey key;
        ASSERT_EQ(platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, kProductKey, 0,
                                            platform::KEY_ALL_ACCESS, &key, nullptr),
                  0);
        ASSERT_EQ(platform::RegSetValueExW(key.get(), name, type, data, size), 0);
    }
    static void StoreText(std::u16string_view name, DWORD type, std::u16string text) {
        text.push_back(u'\0');
        if (type == platform::REG_MULTI_SZ) {
            text.append(u"second");
            text.push_back(u'\0');
            text.push_back(u'\0');
        }
        Store(name, type, text.data(), static_cast<DWORD>(text.size() * 2));
    }
    static void StoreDword(std::u16string_view name, DWORD value,
                           DWORD type = platform::REG_DWORD) {
        Store(name, type, &value, sizeof value);
    }
};

// Every reader as text, so one table covers numbers and texts.
const std::map<std::string, std::function<std::u16string()>>& Readers() {
    static const std::map<std::string, std::function<std::u16string()>> readers = {
        {"TimeOutService", [] { return ovtest::U16(std::to_string(TimeOutService())); }},
        {"TimeOutClient", [] { return ovtest::U16(std::to_string(TimeOutClient())); }},
        {"PrinterNameScheme", [] { return PrinterNameScheme(); }},
        {"PrinterPropertyFlags",
         [] { return ovtest::U16(std::to_string(PrinterPropertyFlags())); }},
        {"ForceListenToWTS", [] { return std::u16string(ForceListenToWTS() ? u"1" : u"0"); }},
        {"ListenToWTS", [] { return std::u16string(ListenToWTS() ? u"1" : u"0"); }},
        {"ListenToWTSDeleteCmd", [] { return ListenToWTSDeleteCmd(); }},
        {"ListenToWTSOnDisconnect",
         [] { return std::u16string(ListenToWTSOnDisconnect() ? u"1" : u"0"); }},
        {"ListenToWTSTrys", [] { return ovtest::U16(std::to_string(ListenToWTSTrys())); }},
        {"ListenToWTSTryDelay", [] { return ovtest::U16(std::to_string(ListenToWTSTryDelay())); }},
        {"ListenToWTSCreatCmd", [] { return ListenToWTSCreatCmd(6); }},
        {"ConnectToClient", [] { return ConnectToClient(); }},
        {"Protocol", [] { return Protocol(); }},
        {"PrinterProperties", [] { return ovtest::U16(std::to_string(PrinterProperties())); }},
        {"RightsWin2000",
         [] {
             std::uint32_t v = 0;
             return RightsWin2000(&v) == ReadStatus::kRead ? ovtest::U16(std::to_string(v))
                                                           : std::u16string(u"none");
         }},
    };
    return readers;
}

TEST_F(ProductValuesTest, AnEmptyKeyGivesEveryDefault) {
    const std::map<std::string, std::u16string> defaults = {
        {"TimeOutService", u"5000"},
        {"TimeOutClient", u"120000"},
        {"PrinterNameScheme", u"%P on %S"},
        {"PrinterPropertyFlags", u"65535"},
        {"ForceListenToWTS", u"0"},
        {"ListenToWTS", u"1"},
        {"ListenToWTSDeleteCmd", u"Ovaspool -q -d"},
        {"ListenToWTSOnDisconnect", u"1"},
        {"ListenToWTSTrys", u"20"},
        {"ListenToWTSTryDelay", u"2000"},
        {"ListenToWTSCreatCmd", u"Ovaspool -q"},
        {"ConnectToClient", u"AUTO"},
        {"Protocol", u"TCPIP"},
        {"PrinterProperties", u"1"},
        {"RightsWin2000", u"none"},
    };
    ASSERT_EQ(defaults.size(), Readers().size());
    for (const auto& [name, reader] : Readers()) {
        EXPECT_EQ(reader(), defaults.at(name)) << name;
    }
    EXPECT_FALSE(ReadTraceSettings());
    EXPECT_EQ(ListenToWTSCreatCmd(3), u"Ovaspool -q -s %d");
}

TEST_F(ProductValuesTest, EachReaderTakesOnlyItsTypes) {
    struct Case {
        const char* name;
        std::function<void()> store;
        std::u16string expected;
    };
    const Case cases[] = {
        {"TimeOutClient", [] { StoreText(u"TimeOutClient", platform::REG_SZ, u"30000"); },
         u"120000"},
        {"TimeOutService", [] { StoreDword(u"TimeOutService", 700, platform::REG_BINARY); },
         u"5000"},
        {"TimeOutService", [] { StoreDword(u"TimeOutService", 700); }, u"700"},
        {"PrinterNameScheme", [] { StoreDword(u"PrinterNameScheme", 1); }, u""},
        {"PrinterNameScheme",
         [] { StoreText(u"PrinterNameScheme", platform::REG_EXPAND_SZ, u"%S-%P %TEMP%"); },
         u"%S-%P %TEMP%"},
        {"PrinterNameScheme",
         [] { StoreText(u"PrinterNameScheme", platform::REG_MULTI_SZ, u"%P at %S"); }, u"%P at %S"},
        {"PrinterPropertyFlags",
         [] { StoreDword(u"PrinterPropertyFlags", 3, platform::REG_BINARY); }, u"3"},
        {"ListenToWTSDeleteCmd", [] { StoreDword(u"ListenToWTSDeleteCmd", 5); }, u"Ovaspool -q -d"},
        {"ListenToWTSDeleteCmd",
         [] { StoreText(u"ListenToWTSDeleteCmd", platform::REG_MULTI_SZ, u"Ovaspool -d"); },
         u"Ovaspool -d"},
        {"Protocol", [] { StoreText(u"Protocol", platform::REG_EXPAND_SZ, u"RDP"); }, u"TCPIP"},
        {"RightsWin2000", [] { StoreDword(u"RightsWin2000", 3, platform::REG_BINARY); }, u"none"},
        {"RightsWin2000", [] { StoreDword(u"RightsWin2000", 3); }, u"3"},
        {"ListenToWTS", [] { StoreDword(u"ListenToWTS", 0); }, u"0"},
    };
    for (const Case& c : cases) {
        platform::RegDeleteTreeW(platform::HKEY_LOCAL_MACHINE, kProductKey);
        c.store();
        EXPECT_EQ(Readers().at(c.name)(), c.expected) << c.name;
    }
}

TEST_F(ProductValuesTest, TracingNeedsALevelAndAFileOfAtMost259Characters) {
    StoreDword(u"DebugLevel", 0xFF000000);
    StoreText(u"DebugFile", platform::REG_SZ, u"C:\\t.log");
    EXPECT_FALSE(ReadTraceSettings()) << "the top byte does not count";
    StoreDword(u"DebugLevel", 0xFF000004);
    ASSERT_TRUE(ReadTraceSettings());
    EXPECT_EQ(ReadTraceSettings()->level, 4u);
    StoreText(u"DebugFile", platform::REG_SZ, u"C:\\" + std::u16string(256, u'x'));
    EXPECT_TRUE(ReadTraceSettings());
    StoreText(u"DebugFile", platform::REG_SZ, u"C:\\" + std::u16string(257, u'x'));
    EXPECT_FALSE(ReadTraceSettings());
    StoreText(u"DebugFile", platform::REG_EXPAND_SZ, u"C:\\t.log");
    EXPECT_FALSE(ReadTraceSettings());
}

}  // namespace
}  // namespace ovsvc::config
