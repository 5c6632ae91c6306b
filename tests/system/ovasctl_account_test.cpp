// ovasctl account, run as a separate program against the test's machine.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ovtest.h"
#include "platform/security.h"

using namespace platform;

namespace {

class OvasctlAccountTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        OVTEST_EMBEDDED_ONLY(
            "ovasctl account administers the account table of an embedded machine");
        MachineTest::SetUp();
    }
    int Run(const std::vector<std::string>& args) {
        auto process = ovtest::Process::Start(ovtest::BinDir() + "/ovasctl", args);
        const int code = process.Wait(std::chrono::seconds(60));
        out_ = process.output();
        return code;
    }
    bool Has(const std::string& text) const { return out_.find(text) != std::string::npos; }
    std::string out_;
};

TEST_F(OvasctlAccountTest, AddGroupsAndUsersThenList) {
    ASSERT_EQ(Run({"account", "add", "CORP\\Staff", "--is-group"}), 0) << out_;
    EXPECT_TRUE(Has("Added group CORP\\Staff S-1-5-21-")) << out_;
    ASSERT_EQ(Run({"account", "add", "CORP\\alice", "--group", "CORP\\Staff", "--group",
                   "BUILTIN\\Power Users"}),
              0)
        << out_;
    ASSERT_EQ(Run({"account", "add", "bob", "--json"}), 0) << out_;
    EXPECT_TRUE(Has("\"domain\":\"OVDOMAIN\",\"name\":\"bob\",\"type\":\"user\"")) << out_;

    // The tool wrote the table the platform reads.
    admin::Account alice;
    ASSERT_TRUE(admin::FindAccountByName(u"CORP\\alice", &alice));
    EXPECT_EQ(alice.memberOf,
              (std::vector<std::u16string>{u"CORP\\Staff", u"BUILTIN\\Power Users"}));

    ASSERT_EQ(Run({"account", "list"}), 0) << out_;
    EXPECT_TRUE(Has("NT AUTHORITY\\SYSTEM")) << out_;
    EXPECT_TRUE(Has("S-1-5-32-544")) << out_;
    EXPECT_TRUE(Has("CORP\\Staff, BUILTIN\\Power Users")) << out_;
    EXPECT_LT(out_.find("BUILTIN\\Administrators"), out_.find("CORP\\alice"))
        << "well-known accounts first";

    ASSERT_EQ(Run({"account", "list", "--json"}), 0) << out_;
    EXPECT_EQ(out_.front(), '[');
    EXPECT_TRUE(Has("\"name\":\"Everyone\"")) << out_;
    EXPECT_TRUE(Has("\"groups\":[\"CORP\\\\Staff\",\"BUILTIN\\\\Power Users\"]")) << out_;
}

TEST_F(OvasctlAccountTest, RefusalsExplainThemselves) {
    ASSERT_EQ(Run({"account", "add", "CORP\\alice"}), 0) << out_;
    EXPECT_EQ(Run({"account", "add", "corp\\ALICE"}), 1);
    EXPECT_TRUE(Has("the user exists already (error 1316)")) << out_;
    EXPECT_EQ(Run({"account", "add", "CORP\\bob", "--group", "CORP\\Nobody"}), 1);
    EXPECT_TRUE(Has("no such group (error 1319)")) << out_;
    EXPECT_EQ(Run({"account", "add", "CORP\\a*b"}), 1);
    EXPECT_TRUE(Has("invalid account name (error 123)")) << out_;
    admin::Account bob;
    EXPECT_FALSE(admin::FindAccountByName(u"CORP\\bob", &bob)) << "nothing added on a refusal";
}

}  // namespace
