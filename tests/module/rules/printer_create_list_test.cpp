// Validating and evaluating the printer create list.
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "rules/printer_create_list.h"

namespace ovsvc {
namespace {

using Lines = std::vector<std::u16string>;

class CreateListTest : public ::testing::Test {
  protected:
    CPrinterCreateRule Client(std::u16string_view ip, std::u16string_view name) {
        CPrinterCreateRule request;
        request.SetIP(ip);
        request.m_strClientName = std::u16string(name);
        request.m_pGroups = &groups_;
        return request;
    }

    std::vector<std::u16string> Evaluate(const CPrinterCreateRule* request, int* result = nullptr,
                                         std::uint32_t capacity = 3) {
        std::array<std::u16string, 3> destinations{u"old", u"old", u"old"};
        std::array<std::u16string, 3> lines;
        std::uint32_t count = capacity;
        const int r = list_.FindCreateRules(request, destinations, count, lines);
        if (result != nullptr) {
            *result = r;
        }
        lines_.assign(lines.begin(), lines.begin() + count);
        return {destinations.begin(), destinations.begin() + count};
    }

    CPrinterCreateList list_;
    std::vector<std::u16string> groups_{u"Domain Users", u"Sales EMEA"};
    std::vector<std::u16string> lines_;
};

TEST_F(CreateListTest, EmptyListAndHeaderOnlyAreValid) {
    EXPECT_EQ(list_.Parse(Lines{}), 1);
    EXPECT_EQ(list_.Parse(Lines{u"IP"}), 1);  // no rules: the header is not even read
    EXPECT_EQ(list_.RuleCount(), 0u);
}

TEST_F(CreateListTest, HeaderNeedsTwoFieldsWhenRulesFollow) {
    EXPECT_EQ(list_.Parse(Lines{u"IP", u"*,*,T"}), 0);
}

TEST_F(CreateListTest, RuleOfTwoFieldsIsInvalidAndStopsReading) {
    EXPECT_EQ(list_.Parse(Lines{u"IP,NAME,DEST,USER", u"*,*", u"*,*,T"}), 0);
    EXPECT_EQ(list_.RuleCount(), 0u);
}

TEST_F(CreateListTest, BlankDestinationIsInvalidButParsingGoesOn) {
    EXPECT_EQ(list_.Parse(Lines{u"IP,NAME,DEST,USER", u"*,*,  ,x", u"*,*,T,x"}), 0);
    ASSERT_EQ(list_.RuleCount(), 2u);
    EXPECT_EQ(list_.Rule(0).m_dwEnabled, 0u);
    EXPECT_EQ(list_.Rule(1).m_dwEnabled, 1u);
}

TEST_F(CreateListTest, BlankUserOrBadAddressIsInvalid) {
    EXPECT_EQ(list_.Parse(Lines{u"IP,NAME,DEST,USER", u"*,*,T, "}), 0);
    EXPECT_EQ(list_.Parse(Lines{u"IP,NAME,DEST,USER", u"10.1.2.3/8,*,T"}), 0);
}

TEST_F(CreateListTest, FieldsAreTrimmedExceptName) {
    ASSERT_EQ(list_.Parse(Lines{u"IP,NAME,DEST,USER", u" 10.0.0.0/8 , pc* , Tmpl , Sales* "}), 1);
    const auto& rule = static_cast<const CPrinterCreateRule&>(list_.Rule(0));
    EXPECT_EQ(rule.m_strClientName, u" pc* ");
    EXPECT_EQ(rule.m_strTemplate, u"Tmpl");
    EXPECT_EQ(rule.m_strUser, u"Sales*");
    EXPECT_EQ(rule.m_dwIPLow, 0x0A000000u);
}

TEST_F(CreateListTest, AddressAndGroupSelectTheDestination) {
    ASSERT_EQ(list_.Parse(Lines{u"IP,NAME,DEST,USER", u"10.0.0.0/8,*,Tmpl,Sales*"}), 1);
    const CPrinterCreateRule client = Client(u"10.2.3.4", u"PC1");
    EXPECT_EQ(Evaluate(&client), (std::vector<std::u16string>{u"Tmpl"}));
    EXPECT_EQ(lines_, (std::vector<std::u16string>{list_.Rule(0).ToString()}));
    const CPrinterCreateRule outside = Client(u"11.2.3.4", u"PC1");
    EXPECT_TRUE(Evaluate(&outside).empty());
}

TEST_F(CreateListTest, GroupMismatchGivesNothingUnlessUserColumnIsRemoved) {
    ASSERT_EQ(list_.Parse(Lines{u"IP,NAME,DEST,USER", u"10.0.0.0/8,*,Tmpl,Admins"}), 1);
    const CPrinterCreateRule client = Client(u"10.2.3.4", u"PC1");
    int result = -1;
    EXPECT_TRUE(Evaluate(&client, &result).empty());
    EXPECT_EQ(result, 0);

    ASSERT_EQ(list_.Parse(Lines{u"IP,NAME,DEST,H", u"10.0.0.0/8,*,Tmpl,Admins"}), 1);
    EXPECT_EQ(Evaluate(&client), (std::vector<std::u16string>{u"Tmpl"}));
}

TEST_F(CreateListTest, NoGroupListSkipsEveryRule) {
    ASSERT_EQ(list_.Parse(Lines{u"IP,NAME,DEST,H", u"*,*,Tmpl"}), 1);
    CPrinterCreateRule client = Client(u"10.2.3.4", u"PC1");
    client.m_pGroups = nullptr;
    EXPECT_TRUE(Evaluate(&client).empty());
    EXPECT_TRUE(Evaluate(nullptr).empty());
}

TEST_F(CreateListTest, EmptyGroupListWithUserCheckMatchesNothing) {
    ASSERT_EQ(list_.Parse(Lines{u"IP,NAME,DEST,USER", u"*,*,Tmpl,*"}), 1);
    groups_.clear();
    const CPrinterCreateRule client = Client(u"10.2.3.4", u"PC1");
    EXPECT_TRUE(Evaluate(&client).empty());
}

TEST_F(CreateListTest, NameColumnAndItsRemoval) {
    ASSERT_EQ(list_.Parse(Lines{u"IP,NAME,DEST", u"*,pc*,ByName"}), 1);
    const CPrinterCreateRule other = Client(u"1.1.1.1", u"laptop");
    EXPECT_TRUE(Evaluate(&other).empty());
    ASSERT_EQ(list_.Parse(Lines{u"IP,HNAME,DEST", u"*,pc*,ByName"}), 1);
    EXPECT_EQ(Evaluate(&other), (std::vector<std::u16string>{u"ByName"}));
}

TEST_F(CreateListTest, AddressColumnRemoval) {
    ASSERT_EQ(list_.Parse(Lines{u"HIP,NAME", u"10.0.0.0/8,*,Any"}), 1);
    const CPrinterCreateRule client = Client(u"192.168.1.1", u"PC1");
    EXPECT_EQ(Evaluate(&client), (std::vector<std::u16string>{u"Any"}));
}

TEST_F(CreateListTest, EveryApplyingRuleContributesUpToCapacity) {
    ASSERT_EQ(list_.Parse(Lines{u"IP,NAME,DEST,USER", u"*,*,A,*", u"*,*,%LCPRN%,Domain*",
                                u"10.0.0.0/8,*,C,*", u"*,*,D,*"}),
              1);
    const CPrinterCreateRule client = Client(u"10.2.3.4", u"PC1");
    // Destinations are taken as written (no macros).
    EXPECT_EQ(Evaluate(&client), (std::vector<std::u16string>{u"A", u"%LCPRN%", u"C"}));
    EXPECT_EQ(Evaluate(&client, nullptr, 1), (std::vector<std::u16string>{u"A"}));
}

TEST_F(CreateListTest, DashRuleEndsEvaluation) {
    ASSERT_EQ(list_.Parse(Lines{u"IP,NAME,DEST,USER", u"*,*,-", u"*,*,Never"}), 1);
    const CPrinterCreateRule client = Client(u"10.2.3.4", u"PC1");
    int result = 0;
    EXPECT_TRUE(Evaluate(&client, &result).empty());
    EXPECT_EQ(result, 1);
}

TEST_F(CreateListTest, DashAfterDestinationKeepsIt) {
    ASSERT_EQ(list_.Parse(Lines{u"IP,NAME,DEST,USER", u"*,*,First", u"*,*,-", u"*,*,Never"}), 1);
    const CPrinterCreateRule client = Client(u"10.2.3.4", u"PC1");
    EXPECT_EQ(Evaluate(&client), (std::vector<std::u16string>{u"First"}));
}

TEST_F(CreateListTest, DisabledRuleIsSkipped) {
    EXPECT_EQ(list_.Parse(Lines{u"IP,NAME,DEST,USER", u"bad,*,X", u"*,*,Y"}), 0);
    const CPrinterCreateRule client = Client(u"10.2.3.4", u"PC1");
    EXPECT_EQ(Evaluate(&client), (std::vector<std::u16string>{u"Y"}));
}

TEST_F(CreateListTest, PlainTranslationRuleInTheListHasNoUserPattern) {
    ASSERT_EQ(list_.Parse(Lines{u"IP,NAME,DEST,USER", u"*,*,Created,Nobody"}), 1);
    auto plain = std::make_unique<CTranslationRule>();
    plain->m_strTemplate = u"Plain";
    list_.m_poTable.push_back(std::move(plain));
    const CPrinterCreateRule client = Client(u"10.2.3.4", u"PC1");
    EXPECT_EQ(Evaluate(&client), (std::vector<std::u16string>{u"Plain"}));
}

}  // namespace
}  // namespace ovsvc
