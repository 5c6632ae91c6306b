// ovasctl session and service, run as separate programs against the test's
// machine, as an administrator would use them.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "ovtest.h"
#include "platform/machine.h"
#include "platform/wts.h"

using namespace platform;

namespace {

class OvasctlSessionTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        OVTEST_EMBEDDED_ONLY("ovasctl session and service commands administer an embedded machine");
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

TEST_F(OvasctlSessionTest, LogonDisconnectLogoffAndList) {
    ASSERT_EQ(Run({"session", "logon", "--id", "3", "--user", "OVDOMAIN\\alice", "--client",
                   "PC-ALICE", "--address", "192.168.1.31", "--printer",
                   "name=HP LaserJet 4,class=PCL,driver=HP LaserJet 4,id=1,trays=*Auto;Tray 2,"
                   "papers=A4;*Letter,resolutions=*600x600,duplex=1",
                   "--printer", "name=Label,class=RAW,driver=Zebra,id=2"}),
              0)
        << out_;
    ASSERT_EQ(Run({"session", "logon", "--id", "4", "--user", "OVDOMAIN\\bob", "--client", "PC-BOB",
                   "--address", "192.168.1.32"}),
              0)
        << out_;
    ASSERT_EQ(Run({"session", "disconnect", "--id", "4"}), 0) << out_;

    // What the session calls see.
    terminal::Session s;
    ASSERT_EQ(terminal::GetSession(3, &s), ERROR_SUCCESS);
    EXPECT_EQ(s.state, WTSActive);
    EXPECT_EQ(ovtest::U8(s.domainName), "OVDOMAIN");
    EXPECT_EQ(ovtest::U8(s.userName), "alice");
    ASSERT_EQ(s.printers.size(), 2u);
    EXPECT_EQ(ovtest::U8(s.printers[0].name), "HP LaserJet 4");
    EXPECT_EQ(s.printers[0].trays, (std::vector<std::u16string>{u"*Auto", u"Tray 2"}));
    EXPECT_EQ(s.printers[0].papers, (std::vector<std::u16string>{u"A4", u"*Letter"}));
    EXPECT_EQ(s.printers[0].duplex, 1u);
    EXPECT_EQ(s.printers[1].printerId, 2u);
    ASSERT_EQ(terminal::GetSession(4, &s), ERROR_SUCCESS);
    EXPECT_EQ(s.state, WTSDisconnected);

    ASSERT_EQ(Run({"session", "list"}), 0) << out_;
    EXPECT_TRUE(Has("Active")) << out_;
    EXPECT_TRUE(Has("Disconnected")) << out_;
    EXPECT_TRUE(Has("OVDOMAIN\\alice")) << out_;
    EXPECT_TRUE(Has("printer 2: Label (class RAW, driver Zebra)")) << out_;

    ASSERT_EQ(Run({"session", "list", "--json"}), 0) << out_;
    EXPECT_TRUE(
        Has("\"id\":3,\"station\":\"RDP-Tcp#3\",\"state\":\"Active\",\"stateCode\":0,"
            "\"user\":\"alice\",\"domain\":\"OVDOMAIN\""))
        << out_;
    EXPECT_TRUE(Has("\"trays\":[\"*Auto\",\"Tray 2\"]")) << out_;
    EXPECT_TRUE(Has("\"id\":65536,\"station\":\"RDP-Tcp\",\"state\":\"Listen\"")) << out_;

    ASSERT_EQ(Run({"session", "logoff", "--id", "3"}), 0) << out_;
    EXPECT_EQ(terminal::GetSession(3, &s), ERROR_CTX_WINSTATION_NOT_FOUND);
}

TEST_F(OvasctlSessionTest, MistakesExitNonZeroWithAReasonAndChangeNothing) {
    EXPECT_EQ(Run({"session", "logon", "--id", "3", "--user", "alice", "--printer", "class=PCL"}),
              2);
    EXPECT_TRUE(Has("a printer needs name=")) << out_;
    EXPECT_EQ(
        Run({"session", "logon", "--id", "3", "--user", "alice", "--printer", "name=x,id=seven"}),
        2);
    EXPECT_TRUE(Has("not a number: id=seven")) << out_;
    EXPECT_EQ(
        Run({"session", "logon", "--id", "3", "--user", "alice", "--printer", "name=x,size=3"}), 2);
    EXPECT_TRUE(Has("unknown printer field: size")) << out_;
    EXPECT_EQ(Run({"session", "logon", "--id", "3", "--user", "alice", "--address", "10.0.0"}), 1);
    EXPECT_TRUE(Has("error 87")) << out_;
    terminal::Session s;
    EXPECT_EQ(terminal::GetSession(3, &s), ERROR_CTX_WINSTATION_NOT_FOUND);

    EXPECT_EQ(Run({"session", "logoff", "--id", "9"}), 1);
    EXPECT_TRUE(Has("no such session")) << out_;
    ASSERT_EQ(Run({"session", "logon", "--id", "3", "--user", "alice"}), 0) << out_;
    EXPECT_EQ(Run({"session", "logon", "--id", "3", "--user", "eve"}), 1);
    EXPECT_TRUE(Has("another user is logged on")) << out_;
}

TEST_F(OvasctlSessionTest, ServiceStartStatusStop) {
    const std::string host = ovtest::BinDir() + "/ovaspoolsvc";
    if (!std::filesystem::exists(host)) {
        GTEST_SKIP() << "no service host built";
    }
    ASSERT_EQ(Run({"service", "status"}), 0) << out_;
    EXPECT_TRUE(Has("1  STOPPED")) << out_;
    ASSERT_EQ(Run({"service", "start"}), 0) << out_;
    EXPECT_TRUE(Has("RUNNING") || Has("START_PENDING")) << out_;
    EXPECT_EQ(Run({"service", "start"}), 1);
    EXPECT_TRUE(Has("error 1056")) << out_;
    ASSERT_EQ(Run({"service", "status", "--json"}), 0) << out_;
    EXPECT_TRUE(Has("\"service\":\"OvaspoolSvc\"")) << out_;
    ASSERT_EQ(Run({"service", "stop"}), 0) << out_;
    EXPECT_TRUE(Has("1  STOPPED")) << out_;
    EXPECT_TRUE(Has("WIN32_EXIT_CODE    : 0")) << out_;
    EXPECT_EQ(Run({"service", "stop"}), 1);
    EXPECT_TRUE(Has("error 1062")) << out_;
}

TEST_F(OvasctlSessionTest, ServiceControlNeedsAnAdministrator) {
    auto process = ovtest::Process::Start(ovtest::BinDir() + "/ovasctl", {"service", "start"},
                                          {"OVSVC_USER=OVDOMAIN\\bob"});
    EXPECT_EQ(process.Wait(std::chrono::seconds(60)), 1);
    EXPECT_NE(process.output().find("access denied: an administrator is needed (error 5)"), std::string::npos)
        << process.output();
}

}  // namespace
