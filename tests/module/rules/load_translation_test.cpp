// Loading the service's translation table from the product key, and the
// correction of a faulty stored list.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "config/product_key.h"
#include "config/registry_list.h"
#include "ovtest.h"
#include "platform/registry.h"
#include "rules/translation_table.h"

namespace ovsvc {
namespace {

using platform::DWORD;
using Lines = std::vector<std::u16string>;

constexpr platform::LSTATUS kOk = 0;

class LoadTranslationTest : public ovtest::MachineTest {
  protected:
    void TearDown() override {
        UnloadTranslationList();
        ovtest::MachineTest::TearDown();
    }

    platform::UniqueKey ProductKey() {
        platform::UniqueKey key;
        EXPECT_EQ(platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, kProductKey, 0,
                                            platform::KEY_ALL_ACCESS, &key, nullptr),
                  kOk);
        return key;
    }

    void SetRaw(std::u16string_view name, DWORD type, const void* data, DWORD size) {
        platform::UniqueKey key = ProductKey();
        ASSERT_EQ(platform::RegSetValueExW(key.get(), name, type, data, size), kOk);
    }

    void SetList(std::u16string_view name, const Lines& lines) {
        platform::UniqueKey key = ProductKey();
        ASSERT_EQ(WriteStringList(key.get(), name, lines), kOk);
    }

    platform::RegistryValue Value(std::u16string_view name) {
        platform::UniqueKey key = ProductKey();
        platform::RegistryValue value;
        value.type = platform::REG_NONE;
        if (platform::RegGetValue(key.get(), name, &value) != kOk) {
            value.type = 0xFFFF;  // missing
        }
        return value;
    }

    std::vector<std::u16string> Templates(std::u16string_view printer, std::u16string_view ip) {
        EXPECT_NE(g_pTTable, nullptr);
        if (g_pTTable == nullptr) {
            return {};
        }
        std::array<std::u16string, 3> templates;
        std::array<std::u16string, 3> lines;
        std::uint32_t count = 3;
        g_pTTable->FindRule(MakeTranslationRequest(printer, u"Cls", ip, u"PC", 1, u"Drv"),
                            templates, count, lines, true);
        return {templates.begin(), templates.begin() + count};
    }

    std::string EventLog() {
        std::ifstream in(root() + "/eventlog.log");
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
};

TEST_F(LoadTranslationTest, MissingProductKeyFailsWithEmptyTableAndEvent) {
    EXPECT_EQ(LoadTranslationList(), 0);
    ASSERT_NE(g_pTTable, nullptr);
    EXPECT_EQ(g_pTTable->RuleCount(), 0u);
    if (!ovtest::IsWin32Platform()) {  // Windows' event log is not read back here
        EXPECT_NE(
            EventLog().find("Cannot create registry key or values (fatal error)! Location: 14"),
            std::string::npos)
            << EventLog();
    }
}

TEST_F(LoadTranslationTest, EmptyProductKeyGivesTheTwoTryRules) {
    ProductKey();
    EXPECT_EQ(LoadTranslationList(), 1);
    EXPECT_EQ(Templates(u"lp1", u"1.2.3.4"), (Lines{u"lp1", u"Cls"}));
}

TEST_F(LoadTranslationTest, CurrentFormIsPreferredOverOlderForm) {
    SetList(u"NameTranslationEx", {u",,,,,,,,,,", u"10.0.0.0/8,*,*,*,*,true,true,true,true,PrnA,"});
    SetList(u"NameTranslation", {u"*", u"OldTmpl"});
    EXPECT_EQ(LoadTranslationList(), 1);
    EXPECT_EQ(Templates(u"lp1", u"10.1.1.1"), (Lines{u"PrnA"}));
    EXPECT_EQ(Templates(u"lp1", u"11.1.1.1"), (Lines{u"lp1", u"Cls"}));
}

TEST_F(LoadTranslationTest, CurrentFormOfAnotherTypeIsAnEmptyList) {
    const DWORD number = 5;
    SetRaw(u"NameTranslationEx", platform::REG_DWORD, &number, sizeof number);
    SetList(u"NameTranslation", {u"*", u"OldTmpl"});
    EXPECT_EQ(LoadTranslationList(), 1);
    EXPECT_EQ(Templates(u"lp1", u"1.2.3.4"), (Lines{u"lp1", u"Cls"}));
}

TEST_F(LoadTranslationTest, CurrentFormAsSingleStringIsRead) {
    const std::u16string header = u",,,,,,,,,,";
    SetRaw(u"NameTranslationEx", platform::REG_SZ, header.c_str(),
           static_cast<DWORD>((header.size() + 1) * 2));
    EXPECT_EQ(LoadTranslationList(), 1);
    EXPECT_EQ(g_pTTable->RuleCount(), 2u);
}

TEST_F(LoadTranslationTest, EmptyCurrentFormValue) {
    SetRaw(u"NameTranslationEx", platform::REG_MULTI_SZ, nullptr, 0);
    EXPECT_EQ(LoadTranslationList(), 1);
    EXPECT_EQ(g_pTTable->RuleCount(), 2u);
}

TEST_F(LoadTranslationTest, OlderFormPairs) {
    SetList(u"NameTranslation", {u"HP*", u"Tmpl1"});
    EXPECT_EQ(LoadTranslationList(), 1);
    EXPECT_EQ(Templates(u"HP 5", u""), (Lines{u"Tmpl1"}));
    EXPECT_EQ(Templates(u"Canon", u""), (Lines{u"Canon", u"Cls"}));
}

TEST_F(LoadTranslationTest, ReloadReplacesTheTable) {
    SetList(u"NameTranslation", {u"*", u"First"});
    ASSERT_EQ(LoadTranslationList(), 1);
    EXPECT_EQ(Templates(u"lp", u""), (Lines{u"First"}));
    SetList(u"NameTranslationEx", {u",,,,,,,,,,", u"*,*,*,*,*,true,true,true,true,Second,"});
    ASSERT_EQ(LoadTranslationList(), 1);
    EXPECT_EQ(Templates(u"lp", u""), (Lines{u"Second"}));
}

TEST_F(LoadTranslationTest, FaultyListIsLoadedAsReadAndStoredCorrected) {
    SetList(u"NameTranslationEx", {u",,,H,,,,,,,", u"*,*,*,*,*,true,true,true,true,First,",
                                   u"*,*,broken", u"bad ip,*,*,*,*,true,true,true,true,Dropped,",
                                   u"*,*,*,*,*,true,true,true,true,\"Late, quoted\",x"});
    SetList(u"NameTranslation", {u"*", u"OldTmpl"});
    EXPECT_EQ(LoadTranslationList(), 0);
    // The table holds what was read before the fault, and stays usable.
    EXPECT_EQ(Templates(u"lp", u""), (Lines{u"First"}));

    const Lines expected{u",,,N,,,,,,,", u"*,*,*,*,*,true,true,true,true,First,",
                         u"*,*,*,*,*,true,true,true,true,\"Late, quoted\",x", u",,,,,,,,,!P,",
                         u",,,,,,,,,!C,"};
    const platform::RegistryValue stored = Value(u"NameTranslationEx");
    ASSERT_EQ(stored.type, platform::REG_MULTI_SZ);
    std::u16string bytes(stored.data.size() / 2, u'\0');
    std::memcpy(bytes.data(), stored.data.data(), bytes.size() * 2);
    std::u16string joined;
    for (const auto& line : expected) {
        joined += line;
        joined.push_back(u'\0');
    }
    EXPECT_EQ(bytes, joined);  // one zero after each string, nothing more
    EXPECT_EQ(Value(u"NameTranslation").type, 0xFFFFu);

    // The next load reads the corrected list without a fault.
    EXPECT_EQ(LoadTranslationList(), 1);
    EXPECT_EQ(g_pTTable->RuleCount(), 4u);
    EXPECT_EQ(g_pTTable->Rule(1).m_strTemplate, u"Late, quoted");
}

TEST(StringListData, EndsAtEmptyStringAndTerminatesData) {
    const char16_t raw[] = {u'a', 0, u'b', u'c', 0, 0, u'z', 0};
    const auto* bytes = reinterpret_cast<const std::byte*>(raw);
    EXPECT_EQ(StringListFromData(platform::REG_MULTI_SZ, {bytes, sizeof raw}),
              (Lines{u"a", u"bc"}));
    // Data cut inside a string (an odd last byte is dropped) ends that string.
    EXPECT_EQ(StringListFromData(platform::REG_MULTI_SZ, {bytes, 7}), (Lines{u"a", u"b"}));
    EXPECT_EQ(StringListFromData(platform::REG_SZ, {bytes, 8}), (Lines{u"a", u"bc"}));
    EXPECT_TRUE(StringListFromData(platform::REG_BINARY, {bytes, sizeof raw}).empty());
}

}  // namespace
}  // namespace ovsvc
