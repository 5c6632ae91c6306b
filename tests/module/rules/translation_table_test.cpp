// Filling the translation table from its stored forms, writing it back, and
// looking client printers up in it.
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "rules/string_parser.h"
#include "rules/translation_table.h"

namespace ovsvc {
namespace {

using Lines = std::vector<std::u16string>;

constexpr char16_t kHeader[] = u",,,,,,,,,,";

struct Lookup {
    int result = 0;
    std::vector<std::u16string> templates;
    std::vector<std::u16string> ruleLines;
};

Lookup Find(const CTranslationTable& table, const CTranslationRule& request, bool firstOnly = true,
            std::uint32_t capacity = 3) {
    std::array<std::u16string, 3> templates{u"stale", u"stale", u"stale"};
    std::array<std::u16string, 3> lines;
    std::uint32_t count = capacity;
    Lookup out;
    out.result = table.FindRule(request, templates, count, lines, firstOnly);
    EXPECT_LE(count, capacity);
    for (std::uint32_t i = 0; i < count; ++i) {
        out.templates.push_back(templates[i]);
        out.ruleLines.push_back(lines[i]);
    }
    for (std::uint32_t i = count; i < capacity; ++i) {
        EXPECT_TRUE(templates[i].empty()) << "slot " << i << " not emptied";
    }
    return out;
}

CTranslationRule Request(std::u16string_view printer, std::u16string_view ip = u"10.1.1.1",
                         std::u16string_view printerClass = u"Class", std::uint32_t type = 1) {
    return MakeTranslationRequest(printer, printerClass, ip, u"CLIENT1", type, u"Driver X");
}

std::vector<std::uint32_t> Kinds(const CTranslationTable& table) {
    std::vector<std::uint32_t> kinds;
    for (std::uint32_t i = 0; i < table.RuleCount(); ++i) {
        kinds.push_back(table.Rule(i).m_dwKind);
    }
    return kinds;
}

constexpr std::uint32_t N = CTranslationRule::kNormal;
constexpr std::uint32_t P = CTranslationRule::kTryPrinterName;
constexpr std::uint32_t C = CTranslationRule::kTryClassName;

// ---- client type bits ------------------------------------------------------

TEST(ClientTypeBitTest, CodesMapToTheirGroups) {
    for (std::uint32_t code : {0u, 128u}) {
        EXPECT_EQ(ClientTypeBit(code), 1u) << code;
    }
    for (std::uint32_t code : {3u, 147u, 195u}) {
        EXPECT_EQ(ClientTypeBit(code), 2u) << code;
    }
    for (std::uint32_t code : {9u, 10u, 137u}) {
        EXPECT_EQ(ClientTypeBit(code), 4u) << code;
    }
    for (std::uint32_t code : {1u, 2u, 4u, 127u, 129u, 196u, 0xFFFFFFFFu}) {
        EXPECT_EQ(ClientTypeBit(code), 8u) << code;
    }
}

// ---- filling from the current form -------------------------------------------

TEST(FillTableCurrentForm, HeaderOnlyGivesTheTwoTryRulesInOrder) {
    CTranslationTable table;
    EXPECT_EQ(FillTable(&table, Lines{kHeader}), 1);
    EXPECT_EQ(Kinds(table), (std::vector<std::uint32_t>{P, C}));
    EXPECT_EQ(table.Rule(0).m_strTemplate, u"!P");
    EXPECT_EQ(table.Rule(1).m_strTemplate, u"!C");
}

TEST(FillTableCurrentForm, EmptyListGivesTheTwoTryRules) {
    CTranslationTable table;
    EXPECT_EQ(FillTable(&table, Lines{}), 1);
    EXPECT_EQ(Kinds(table), (std::vector<std::uint32_t>{P, C}));
}

TEST(FillTableCurrentForm, ReadsEveryColumnOfARule) {
    CTranslationTable table;
    ASSERT_EQ(FillTable(&table, Lines{kHeader,
                                      u"10.0.0.0/8,cl*,drv*,lp?,cls,true,false,true,false,"
                                      u"  Tmpl A  ,x"}),
              1);
    ASSERT_EQ(table.RuleCount(), 3u);
    const CTranslationRule& rule = table.Rule(0);
    EXPECT_EQ(rule.m_dwKind, N);
    EXPECT_EQ(rule.m_dwEnabled, 1u);
    EXPECT_EQ(rule.m_strIP, u"10.0.0.0/8");
    EXPECT_EQ(rule.m_dwIPLow, 0x0A000000u);
    EXPECT_EQ(rule.m_dwIPHigh, 0x0AFFFFFFu);
    EXPECT_EQ(rule.m_strClientName, u"cl*");
    EXPECT_EQ(rule.m_strDriverName, u"drv*");
    EXPECT_EQ(rule.m_strPrinterName, u"lp?");
    EXPECT_EQ(rule.m_strPrinterClass, u"cls");
    EXPECT_EQ(rule.m_dwClientTypes, 1u | 4u);
    EXPECT_EQ(rule.m_strTemplate, u"Tmpl A");  // trimmed
    EXPECT_EQ(rule.m_dwFlag, 1u);
}

TEST(FillTableCurrentForm, TypeColumnsAreCaseSensitive) {
    CTranslationTable table;
    ASSERT_EQ(FillTable(&table, Lines{kHeader, u"*,*,*,*,*,True,TRUE,true ,true,T,"}), 1);
    EXPECT_EQ(table.Rule(0).m_dwClientTypes, 8u);
}

TEST(FillTableCurrentForm, TenFieldsLeaveTheFlagClear) {
    CTranslationTable table;
    ASSERT_EQ(FillTable(&table, Lines{kHeader, u"*,*,*,*,*,true,true,true,true,T"}), 1);
    EXPECT_EQ(table.Rule(0).m_dwFlag, 0u);
    EXPECT_EQ(table.Rule(0).m_strTemplate, u"T");
}

TEST(FillTableCurrentForm, PresentTryRulesAreNotAddedAgain) {
    CTranslationTable table;
    ASSERT_EQ(FillTable(&table, Lines{kHeader, u",,,,,,,,,!C,", u"*,*,*,*,*,true,true,true,true,T,",
                                      u",,,,,,,,,!P,"}),
              1);
    EXPECT_EQ(Kinds(table), (std::vector<std::uint32_t>{C, N, P}));
}

TEST(FillTableCurrentForm, OnlyTheMissingTryRuleIsAdded) {
    CTranslationTable table;
    ASSERT_EQ(FillTable(&table, Lines{kHeader, u",,,,,,,,,!C,"}), 1);
    EXPECT_EQ(Kinds(table), (std::vector<std::uint32_t>{C, P}));
}

TEST(FillTableCurrentForm, HeaderHRemovesColumns) {
    CTranslationTable table;
    ASSERT_EQ(FillTable(&table, Lines{u"IP,NAME,DRV,xHx,CLS,H,,,,TEMPLATE,FLAG"}), 1);
    EXPECT_EQ(table.m_dwColumnMask, 0xFFFFFFFFu & ~(1u << 3) & ~(1u << 5));
}

TEST(FillTableCurrentForm, LowerCaseHDoesNotRemoveAColumn) {
    CTranslationTable table;
    ASSERT_EQ(FillTable(&table, Lines{u"h,h,h,h,h,h,h,h,h,h,h"}), 1);
    EXPECT_EQ(table.m_dwColumnMask, 0xFFFFFFFFu);
}

TEST(FillTableFaults, ShortHeaderFailsWithoutTryRules) {
    CTranslationTable table;
    EXPECT_EQ(FillTable(&table, Lines{u",,,,,,,,", u"*,*,*,*,*,true,true,true,true,T,"}), 0);
    EXPECT_EQ(table.RuleCount(), 0u);
}

TEST(FillTableFaults, EmptyTemplateDisablesTheRule) {
    CTranslationTable table;
    EXPECT_EQ(FillTable(&table, Lines{kHeader, u"*,*,*,*,*,true,true,true,true,   ,",
                                      u"*,*,*,*,*,true,true,true,true,Good,"}),
              0);
    ASSERT_EQ(Kinds(table), (std::vector<std::uint32_t>{N, N, P, C}));
    EXPECT_EQ(table.Rule(0).m_dwEnabled, 0u);
    EXPECT_EQ(table.Rule(1).m_dwEnabled, 1u);
}

TEST(FillTableFaults, InvalidAddressDisablesTheRule) {
    CTranslationTable table;
    EXPECT_EQ(FillTable(&table, Lines{kHeader, u"10.1.2.3/16,*,*,*,*,true,true,true,true,T,"}), 0);
    EXPECT_EQ(table.Rule(0).m_dwEnabled, 0u);
    EXPECT_EQ(Find(table, Request(u"lp", u"10.1.2.3")).templates,
              (std::vector<std::u16string>{u"lp", u"Class"}));
}

TEST(FillTableFaults, ShortRuleLineStopsReadingButTryRulesAreAdded) {
    CTranslationTable table;
    EXPECT_EQ(FillTable(&table, Lines{kHeader, u"*,*,*,*,*,true,true,true,true,First,",
                                      u"*,*,*,too,short", u"*,*,*,*,*,true,true,true,true,Late,"}),
              0);
    ASSERT_EQ(Kinds(table), (std::vector<std::uint32_t>{N, P, C}));
    EXPECT_EQ(table.Rule(0).m_strTemplate, u"First");
}

// ---- the older form ------------------------------------------------------------

TEST(FillTableOlderForm, PairsGiveNameRulesThenClassRules) {
    CTranslationTable table;
    FillTableFromPairs(&table, Lines{u"HP*", u"Tmpl1"});
    ASSERT_EQ(Kinds(table), (std::vector<std::uint32_t>{N, P, N, C}));
    EXPECT_EQ(table.Rule(0).m_strPrinterName, u"HP*");
    EXPECT_EQ(table.Rule(0).m_strPrinterClass, u"*");
    EXPECT_EQ(table.Rule(0).m_strTemplate, u"Tmpl1");
    EXPECT_EQ(table.Rule(2).m_strPrinterName, u"*");
    EXPECT_EQ(table.Rule(2).m_strPrinterClass, u"HP*");
    EXPECT_EQ(table.Rule(2).m_strTemplate, u"Tmpl1");
}

TEST(FillTableOlderForm, TrailingNameWithoutTemplateIsDropped) {
    CTranslationTable table;
    FillTableFromPairs(&table, Lines{u"A", u"TA", u"B"});
    EXPECT_EQ(Kinds(table), (std::vector<std::uint32_t>{N, P, N, C}));
}

TEST(FillTableOlderForm, ClassRuleFindsPrinterByClass) {
    CTranslationTable table;
    FillTableFromPairs(&table, Lines{u"HP*", u"Tmpl1"});
    // Name does not match, class does: try-name entry first, then the class rule.
    const Lookup hit = Find(table, Request(u"Canon", u"", u"HP Color"));
    EXPECT_EQ(hit.templates, (std::vector<std::u16string>{u"Canon", u"Tmpl1"}));
}

// ---- line form ------------------------------------------------------------------

TEST(RuleLineForm, NormalRuleJoinsElevenColumns) {
    EXPECT_EQ(Request(u"lp1").ToString(),
              u"10.1.1.1,CLIENT1,Driver X,lp1,Class,true,false,false,false,,");
    const CTranslationRule flagged(u"T", u"lp1", u"Class", u"*", u"c", 2 | 8, u"d", 1);
    EXPECT_EQ(flagged.ToString(), u"*,c,d,lp1,Class,false,true,false,true,T,x");
}

TEST(RuleLineForm, TryRules) {
    CTranslationTable table;
    FillTable(&table, Lines{});
    EXPECT_EQ(table.Rule(0).ToString(), u",,,,,,,,,!P,");
    EXPECT_EQ(table.Rule(1).ToString(), u",,,,,,,,,!C,");
}

TEST(RuleLineForm, FieldsWithCommasAndQuotesReadBackUnchanged) {
    const std::u16string texts[] = {u"a,b",     u"say \"hi\"", u"\"",     u",",       u"ends\\",
                                    u"x\\\"y,", u"\\\\srv,p",  u"\"lead", u"tail\\\\"};
    for (const std::u16string& text : texts) {
        CTranslationRule rule;
        rule.m_strIP = text;
        rule.m_strClientName = text;
        rule.m_strPrinterName = text;
        rule.m_strTemplate = text;
        CStringParser parser;
        ASSERT_EQ(parser.Split(rule.ToString(), kCommaList), 10)
            << std::string(text.begin(), text.end());
        EXPECT_EQ(std::u16string(parser.GetArg(0)), text);
        EXPECT_EQ(std::u16string(parser.GetArg(1)), text);
        EXPECT_EQ(std::u16string(parser.GetArg(3)), text);
        EXPECT_EQ(std::u16string(parser.GetArg(9)), text);
    }
}

TEST(RuleLineForm, TableLinesReadBackToTheSameRules) {
    const Lines list{u"H,,,,,H,,,,,", u"10.0.0.0/8,c*,d,\"p,1\",k,true,false,true,false,T1,x",
                     u",,,,,,,,,!C,", u"*,*,*,*,*,false,true,false,true,T2,"};
    CTranslationTable first;
    ASSERT_EQ(FillTable(&first, list), 1);
    const Lines lines = first.ToLines();
    EXPECT_EQ(lines[0], u"N,,,,,N,,,,,");
    CTranslationTable second;
    ASSERT_EQ(FillTable(&second, lines), 1);
    ASSERT_EQ(second.RuleCount(), first.RuleCount());
    for (std::uint32_t i = 0; i < first.RuleCount(); ++i) {
        EXPECT_EQ(second.Rule(i).ToString(), first.Rule(i).ToString());
    }
    // The rewritten header no longer removes columns.
    EXPECT_EQ(second.m_dwColumnMask, 0xFFFFFFFFu);
}

// ---- the corrected list written after a faulty load -------------------------------

TEST(CorrectedListTest, KeepsEveryReadableRuleAroundAShortLine) {
    const Lines corrected =
        CorrectedList(Lines{kHeader, u"*,*,*,*,*,true,true,true,true,First,", u"*,*,*,too,short",
                            u"*,*,*,*,*,true,true,true,true,Late,"});
    EXPECT_EQ(corrected,
              (Lines{kHeader, u"*,*,*,*,*,true,true,true,true,First,",
                     u"*,*,*,*,*,true,true,true,true,Late,", u",,,,,,,,,!P,", u",,,,,,,,,!C,"}));
}

TEST(CorrectedListTest, ShortHeaderKeepsTheRules) {
    const Lines corrected =
        CorrectedList(Lines{u"broken", u"*,*,*,*,*,true,true,true,true,T,", u",,,,,,,,,!C,"});
    EXPECT_EQ(corrected, (Lines{kHeader, u"*,*,*,*,*,true,true,true,true,T,", u",,,,,,,,,!C,",
                                u",,,,,,,,,!P,"}));
}

TEST(CorrectedListTest, FaultyRulesAreDroppedAndTheResultLoadsCleanly) {
    const Lines list{kHeader, u"bad ip,*,*,*,*,true,true,true,true,T,",
                     u"*,*,*,*,*,true,true,true,true, ,", u"*,*,*,*,*,true,true,true,true,Ok,"};
    const Lines corrected = CorrectedList(list);
    EXPECT_EQ(corrected, (Lines{kHeader, u"*,*,*,*,*,true,true,true,true,Ok,", u",,,,,,,,,!P,",
                                u",,,,,,,,,!C,"}));
    CTranslationTable table;
    EXPECT_EQ(FillTable(&table, corrected), 1);
}

// ---- lookup ------------------------------------------------------------------------

class FindRuleTest : public ::testing::Test {
  protected:
    void Load(const Lines& rules) {
        Lines list{kHeader};
        list.insert(list.end(), rules.begin(), rules.end());
        ASSERT_EQ(FillTable(&table_, list), 1);
    }
    CTranslationTable table_;
};

TEST_F(FindRuleTest, FirstMatchingNormalRuleEndsTheSearch) {
    Load({u"10.0.0.0/8,*,*,*,*,true,true,true,true,PrnA,", u"*,*,*,*,*,true,true,true,true,PrnB,"});
    const Lookup inside = Find(table_, Request(u"lp", u"10.1.1.1"));
    EXPECT_EQ(inside.result, 1);
    EXPECT_EQ(inside.templates, (std::vector<std::u16string>{u"PrnA"}));
    EXPECT_EQ(inside.ruleLines,
              (std::vector<std::u16string>{u"10.0.0.0/8,*,*,*,*,true,true,true,true,PrnA,"}));
    EXPECT_EQ(Find(table_, Request(u"lp", u"192.168.0.1")).templates,
              (std::vector<std::u16string>{u"PrnB"}));
}

TEST_F(FindRuleTest, WithoutFirstOnlyEveryMatchCountsUpToCapacity) {
    Load({u"*,*,*,*,*,true,true,true,true,A,", u"*,*,*,*,*,true,true,true,true,B,"});
    EXPECT_EQ(Find(table_, Request(u"lp"), false).templates,
              (std::vector<std::u16string>{u"A", u"B", u"lp"}));
    EXPECT_EQ(Find(table_, Request(u"lp"), false, 2).templates,
              (std::vector<std::u16string>{u"A", u"B"}));
}

TEST_F(FindRuleTest, LeadingTryRuleAddsNameAndGoesOn) {
    Load({u",,,,,,,,,!P,", u"*,*,*,*,*,true,true,true,true,PrnB,"});
    const Lookup hit = Find(table_, Request(u"lp"));
    EXPECT_EQ(hit.templates, (std::vector<std::u16string>{u"lp", u"PrnB"}));
    EXPECT_EQ(hit.ruleLines[0], u",,,,,,,,,!P,");
}

TEST_F(FindRuleTest, NoNormalMatchGivesNameThenClass) {
    Load({u"*,*,*,nomatch,*,true,true,true,true,X,"});
    EXPECT_EQ(Find(table_, Request(u"lp", u"10.1.1.1", u"Generic")).templates,
              (std::vector<std::u16string>{u"lp", u"Generic"}));
}

TEST_F(FindRuleTest, ServerPrinterNameThroughTryRule) {
    Load({});
    EXPECT_EQ(Find(table_, Request(u"\\\\srv\\lp1")).templates,
              (std::vector<std::u16string>{u"lp1 on srv", u"Class"}));
    // A server without a printer part gives no entry for that rule.
    EXPECT_EQ(Find(table_, Request(u"\\\\srv")).templates, (std::vector<std::u16string>{u"Class"}));
}

TEST_F(FindRuleTest, MacrosAreReplaced) {
    Load({u"*,*,*,*,*,true,true,true,true,%LCPRN%_%LPSRV%,"});
    EXPECT_EQ(Find(table_, Request(u"\\\\srv\\lp1")).templates,
              (std::vector<std::u16string>{u"lp1_srv"}));
    EXPECT_EQ(Find(table_, Request(u"LP1")).templates, (std::vector<std::u16string>{u"LP1_"}));
}

TEST_F(FindRuleTest, EveryMacroOccurrenceIsReplacedOnce) {
    Load({u"*,*,*,*,*,true,true,true,true,%LCPRN%-%LCPRN%-%lcprn%,"});
    // A printer named like a macro is not expanded again.
    EXPECT_EQ(Find(table_, Request(u"%LPSRV%")).templates,
              (std::vector<std::u16string>{u"%LPSRV%-%LPSRV%-%lcprn%"}));
}

TEST_F(FindRuleTest, DashRuleEndsTheSearch) {
    Load({u"10.0.0.0/8,*,*,*,*,true,true,true,true,-,", u"*,*,*,*,*,true,true,true,true,B,"});
    const Lookup none = Find(table_, Request(u"lp", u"10.9.9.9"));
    EXPECT_EQ(none.result, 1);
    EXPECT_TRUE(none.templates.empty());
    EXPECT_EQ(Find(table_, Request(u"lp", u"11.0.0.1")).templates,
              (std::vector<std::u16string>{u"B"}));
}

TEST_F(FindRuleTest, DashAfterTryRuleKeepsWhatWasFound) {
    Load({u",,,,,,,,,!P,", u"*,*,*,*,*,true,true,true,true,-,"});
    EXPECT_EQ(Find(table_, Request(u"lp")).templates, (std::vector<std::u16string>{u"lp"}));
}

TEST_F(FindRuleTest, EmptyAddressMatchesOnlyFullRangeRules) {
    Load({u"10.0.0.0/8,*,*,*,*,true,true,true,true,Net,",
          u"0.0.0.0/0,*,*,*,*,true,true,true,true,All,"});
    EXPECT_EQ(Find(table_, Request(u"lp", u"")).templates, (std::vector<std::u16string>{u"All"}));
}

TEST_F(FindRuleTest, RequestRangeMustLieInside) {
    Load({u"10.0.0.0-10.0.0.9,*,*,*,*,true,true,true,true,Low,"});
    EXPECT_EQ(Find(table_, Request(u"lp", u"10.0.0.9")).templates,
              (std::vector<std::u16string>{u"Low"}));
    EXPECT_EQ(Find(table_, Request(u"lp", u"10.0.0.10")).templates,
              (std::vector<std::u16string>{u"lp", u"Class"}));
}

TEST_F(FindRuleTest, ClientTypeMustShareABit) {
    Load({u"*,*,*,*,*,false,true,false,false,Ica,"});
    EXPECT_EQ(Find(table_, Request(u"lp", u"1.1.1.1", u"K", ClientTypeBit(3))).templates,
              (std::vector<std::u16string>{u"Ica"}));
    EXPECT_EQ(Find(table_, Request(u"lp", u"1.1.1.1", u"K", ClientTypeBit(0))).templates,
              (std::vector<std::u16string>{u"lp", u"K"}));
}

TEST_F(FindRuleTest, NameColumnsCompareClientDriverPrinterClass) {
    Load({u"*,cl*,hp*,lp?,cls,true,true,true,true,Hit,"});
    EXPECT_EQ(
        Find(table_, MakeTranslationRequest(u"LP1", u"CLS", u"1.2.3.4", u"CLIENT", 1, u"HP 5"))
            .templates,
        (std::vector<std::u16string>{u"Hit"}));
    EXPECT_NE(
        Find(table_, MakeTranslationRequest(u"LP1", u"CLS", u"1.2.3.4", u"CLIENT", 1, u"Canon"))
            .templates[0],
        u"Hit");
    EXPECT_NE(Find(table_, MakeTranslationRequest(u"LP1", u"CLS", u"1.2.3.4", u"PC", 1, u"HP 5"))
                  .templates[0],
              u"Hit");
}

TEST(FindRuleMask, HeaderHOnPrinterNameIgnoresIt) {
    CTranslationTable table;
    ASSERT_EQ(FillTable(&table, Lines{u",,,H,,,,,,,", u"*,*,*,nomatch,*,true,true,true,true,T,"}),
              1);
    EXPECT_EQ(Find(table, Request(u"lp")).templates, (std::vector<std::u16string>{u"T"}));
}

TEST(FindRuleMask, HeaderHOnFirstTypeColumnSwitchesTypeTestOff) {
    CTranslationTable onFirst;
    ASSERT_EQ(FillTable(&onFirst, Lines{u",,,,,H,,,,,", u"*,*,*,*,*,false,false,false,false,T,"}),
              1);
    EXPECT_EQ(Find(onFirst, Request(u"lp")).templates, (std::vector<std::u16string>{u"T"}));

    CTranslationTable onOthers;
    ASSERT_EQ(
        FillTable(&onOthers, Lines{u",,,,,,H,H,H,,", u"*,*,*,*,*,false,false,false,false,T,"}), 1);
    EXPECT_EQ(Find(onOthers, Request(u"lp")).templates,
              (std::vector<std::u16string>{u"lp", u"Class"}));
}

TEST(FindRuleMask, DisabledRuleNeverMatches) {
    CTranslationTable table;
    FillTable(&table, Lines{kHeader, u"*,*,*,*,*,true,true,true,true, ,"});
    EXPECT_EQ(Find(table, Request(u"lp")).templates,
              (std::vector<std::u16string>{u"lp", u"Class"}));
}

TEST(FindRuleMask, EmptyTableFindsNothing) {
    const CTranslationTable table;
    const Lookup none = Find(table, Request(u"lp"));
    EXPECT_EQ(none.result, 0);
    EXPECT_TRUE(none.templates.empty());
}

TEST(FindRuleMask, ZeroCapacityFindsNothing) {
    CTranslationTable table;
    FillTable(&table, Lines{});
    std::array<std::u16string, 3> templates;
    std::array<std::u16string, 3> lines;
    std::uint32_t count = 0;
    EXPECT_EQ(table.FindRule(Request(u"lp"), templates, count, lines, true), 0);
    EXPECT_EQ(count, 0u);
}

}  // namespace
}  // namespace ovsvc
