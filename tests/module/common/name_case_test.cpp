// Windows compares names without regard to case by one upper-case table,
// in every place a name is looked up: registry keys and values, printers,
// accounts and the rules' name patterns.
#include <gtest/gtest.h>

#include "autocreated_printers.h"
#include "ovtest.h"
#include "platform/registry.h"
#include "platform/security.h"
#include "platform/spooler.h"
#include "platform/text.h"
#include "rules/wildcard.h"

namespace ovsvc {
namespace {

struct NamePair {
    std::u16string stored;
    std::u16string asked;
    bool same;
};

const NamePair kPairs[] = {
    {u"printer", u"PRINTER", true},
    {u"café", u"CAFÉ", true},                  // Latin-1
    {u"łódź ÿ", u"ŁÓDŹ Ÿ", true},              // Latin Extended
    {u"σίγμας", u"ΣΊΓΜΑΣ", true},              // Greek, final sigma too
    {u"принтер ё", u"ПРИНТЕР Ё", true},        // Cyrillic
    {u"ｐｒｉｎｔ", u"ＰＲＩＮＴ", true},      // fullwidth
    {u"打印机", u"打印机", true},              // no case
    {u"x\U0001D400y", u"X\U0001D400Y", true},  // a surrogate pair passes unchanged
    {u"straße", u"STRASSE", false},            // no one-to-one upper case
    {u"a1", u"A2", false},
    {u"printer", u"printers", false},
};

TEST(NameCase, TheTableFoldsEveryScriptAndNothingElse) {
    for (const NamePair& p : kPairs) {
        EXPECT_EQ(platform::NamesEqual(p.stored, p.asked), p.same) << ovtest::U8(p.stored);
        EXPECT_EQ(WildcardMatch(p.asked, p.stored), p.same) << ovtest::U8(p.stored);
    }
    EXPECT_EQ(platform::UpcaseChar(u'\u00DF'), u'\u00DF');
    EXPECT_EQ(platform::UpcaseChar(char16_t{0xD835}), char16_t{0xD835});
    EXPECT_LT(platform::CompareNames(u"abc", u"ABD"), 0);
    EXPECT_EQ(platform::CompareNames(u"ÄBC", u"äbc"), 0);
}

class NameCaseMachineTest : public ovtest::MachineTest {};

TEST_F(NameCaseMachineTest, RegistrySpoolerAndAccountsFindNamesInAnyCase) {
    OVTEST_EMBEDDED_ONLY("the embedded machine's own name stores");
    int n = 0;
    for (const NamePair& p : kPairs) {
        const std::u16string tag = ovtest::U16(std::to_string(n++));
        // Registry: a key and a value.
        platform::UniqueKey key;
        ASSERT_EQ(platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE,
                                            u"SOFTWARE\\Case\\" + tag + p.stored, 0,
                                            platform::KEY_ALL_ACCESS, &key, nullptr),
                  0);
        const platform::DWORD one = 1;
        ASSERT_EQ(platform::RegSetValueExW(key.get(), p.stored, platform::REG_DWORD, &one, 4), 0);
        platform::UniqueKey found;
        EXPECT_EQ(platform::RegOpenKeyExW(platform::HKEY_LOCAL_MACHINE,
                                          u"software\\CASE\\" + tag + p.asked, 0,
                                          platform::KEY_READ, &found) == 0,
                  p.same)
            << ovtest::U8(p.stored);
        platform::DWORD type = 0;
        platform::DWORD size = 0;
        EXPECT_EQ(platform::RegQueryValueExW(key.get(), p.asked, &type, nullptr, &size) == 0,
                  p.same)
            << ovtest::U8(p.stored);
        // Spooler: a printer opened by its name in another case.
        ASSERT_TRUE(ovtest::AddAutocreatedPrinter(ovtest::PrinterSpec(tag + p.stored, {})));
        EXPECT_EQ(static_cast<bool>(platform::OpenPrinterW(tag + p.asked)), p.same)
            << ovtest::U8(p.stored);
        // Accounts.
        ASSERT_TRUE(ovtest::EnsureUsers({u"OVDOMAIN\\u" + tag + p.stored}));
        platform::admin::Account account;
        EXPECT_EQ(platform::admin::FindAccountByName(u"ovdomain\\U" + tag + p.asked, &account),
                  p.same)
            << ovtest::U8(p.stored);
    }
}

}  // namespace
}  // namespace ovsvc
