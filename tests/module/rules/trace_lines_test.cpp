// The trace lines the rule readers write, word for word.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "channel/token_fields.h"
#include "config/product_key.h"
#include "config/registry_list.h"
#include "ovtest.h"
#include "platform/registry.h"
#include "product_settings.h"
#include "rules/printer_create_list.h"
#include "rules/translation_table.h"
#include "trace/trace.h"

namespace ovsvc {
namespace {

class RuleTraceTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        ovtest::MachineTest::SetUp();
        path_ = ovtest::EnableTrace(root());
        ResetTraceStateForTesting();
    }

    void TearDown() override {
        UnloadTranslationList();
        ResetTraceStateForTesting();
        ovtest::MachineTest::TearDown();
    }

    std::string Trace() const { return ovtest::ReadText(path_); }

    void ExpectLines(const std::vector<std::string>& lines) {
        const std::string trace = Trace();
        for (const std::string& line : lines) {
            EXPECT_NE(trace.find(line), std::string::npos) << "missing: " << line << "\n" << trace;
        }
    }

    std::string path_;
};

TEST_F(RuleTraceTest, LoadingAListWithoutTryRules) {
    {
        platform::UniqueKey key;
        ASSERT_EQ(platform::RegOpenKeyExW(platform::HKEY_LOCAL_MACHINE, kProductKey, 0,
                                          platform::KEY_ALL_ACCESS, &key),
                  0);
        const std::vector<std::u16string> list{u",,,,,,,,,,", u"*,*,*,*,*,true,true,true,true,T,"};
        ASSERT_EQ(WriteStringList(key.get(), u"NameTranslationEx", list), 0);
    }
    ASSERT_EQ(LoadTranslationList(), 1);
    ASSERT_EQ(LoadTranslationList(), 1);
    ExpectLines({"New translation table found.", "RULE: work on <*,*,*,*,*,true,true,true,true,T,>",
                 "RULE: Normal rule detected", "Add TryRule <,,,,,,,,,!P,> at pos 1",
                 "Add TryRule <,,,,,,,,,!C,> at pos 2", "old translation list will be deleted"});
}

TEST_F(RuleTraceTest, FaultyListAndMissingLists) {
    CTranslationTable table;
    EXPECT_EQ(FillTable(&table, std::vector<std::u16string>{u",,,,,,,,,,", u",,,,,,,,,!C,",
                                                            u",,,,,,,,,!P,"}),
              1);
    ExpectLines({"RULE: Try Class Name detected", "RULE: Try Printer Name detected"});
    ASSERT_EQ(LoadTranslationList(), 1);
    ExpectLines({"No translation table found."});
}

TEST_F(RuleTraceTest, TokenFieldErrors) {
    char16_t tag = 0;
    std::u16string value;
    std::uint32_t number = 0;
    std::u16string_view noNumber = u"Pabc:x";
    EXPECT_FALSE(OVASerToken::ParseToken(noNumber, &tag, &value, &number));
    std::u16string_view tooLong = u"P5:abc";
    EXPECT_FALSE(OVASerToken::ParseToken(tooLong, &tag, &value, &number));
    ExpectLines({"sytax error no ':' found", "dwLen <= _tcslen(szRest)"});
}

TEST_F(RuleTraceTest, CreateListRulesAndGroups) {
    CPrinterCreateList list;
    ASSERT_EQ(list.Parse(
                  std::vector<std::u16string>{u"IP,NAME,DEST,USER", u"10.0.0.0/8,pc*,Tmpl,Sales*"}),
              1);
    const std::vector<std::u16string> groups{u"Domain Users", u"Sales EMEA"};
    CPrinterCreateRule request;
    request.SetIP(u"10.2.3.4");
    request.m_strClientName = u"pc1";
    request.m_pGroups = &groups;
    std::u16string destinations[3];
    std::u16string lines[3];
    std::uint32_t count = 3;
    EXPECT_EQ(list.FindCreateRules(&request, destinations, count, lines), 1);
    EXPECT_EQ(list.FindCreateRules(nullptr, destinations, count, lines), 0);
    ExpectLines({"RULE: work on <10.0.0.0/8,pc*,Tmpl,Sales*>",
                 "##########IP=10.0.0.0/8,NAME=pc*,DEST=Tmpl,USER=Sales*",
                 "compare: <Sales*> matches against <Sales EMEA>", "No Groups defined !!!"});
}

}  // namespace
}  // namespace ovsvc
