// What the logoff starts, however the delete command is configured: the
// configured command line unchanged (of a multi-string the first string), the
// default for a value of the wrong type, nothing when listening is off; and
// a command that cannot be started does not stop the logoff, while the next
// repair removes the printer the ended session left.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "autocreated_printers.h"
#include "channel_support.h"
#include "ovtest.h"

namespace {

using namespace std::chrono_literals;
using channeltest::Ctl;
using channeltest::CtlResult;

constexpr char16_t kPrinter[] = u"ANN-PC:2#HP 4";

class LogoffCommandTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        OVTEST_EMBEDDED_ONLY("needs the embedded session table and ovasctl session");
        channeltest::ResetProductKey();
        trace_ = channeltest::EnableTrace(root());
        channeltest::SetProductDword(u"RightsWin2000", 1);
        ASSERT_TRUE(ovtest::EnsureUsers({u"OVDOMAIN\\ann"}));
        const std::string failed =
            channeltest::SetUpRelayTemplate({"*,*,*,*,*,true,true,true,true,Relay,"});
        ASSERT_TRUE(failed.empty()) << failed;
    }
    std::string trace_;
};

TEST_F(LogoffCommandTest, TheConfiguredCommandRunsAndAFailingOneDoesNotStopTheLogoff) {
    const std::string key = "HKLM\\Software\\Orvelle\\Ovaspool";
    const std::string longCommand = "Ovaspool -q -d" + std::string(986, ' ');
    struct Case {
        const char* what;
        std::vector<std::string> setting;  // ovasctl arguments, or none
        bool printerGoes;
        std::string traced;
    };
    const Case cases[] = {
        {"no value: the default", {}, true, "Process <Ovaspool -q -d> ended"},
        {"a DWORD is not a command: the default",
         {"reg", "set", key, "ListenToWTSDeleteCmd", "dword:00000001"},
         true,
         "Process <Ovaspool -q -d> ended"},
        {"of a multi-string the first string",
         {"reg", "set", key, "ListenToWTSDeleteCmd", "--type", "multi_sz", "Ovaspool -d",
          "NoSuchProgram"},
         true,
         "Process <Ovaspool -d> ended"},
        {"a 1,000-character command line, unchanged",
         {"reg", "set", key, "ListenToWTSDeleteCmd", "--", longCommand},
         true,
         "Process <" + longCommand + "> ended"},
        {"a program that does not exist",
         {"reg", "set", key, "ListenToWTSDeleteCmd", "NoSuchProgram -d"},
         false,
         "WINLOGON: TSEventLogoff: Process <NoSuchProgram -d> cannot be created"},
        {"listening switched off", {"reg", "set", key, "ListenToWTS", "dword:00000000"}, false, ""},
    };
    ovtest::Process service = channeltest::StartService();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Ctl({"reg", "delete", key, "ListenToWTSDeleteCmd"});
        Ctl({"reg", "delete", key, "ListenToWTS"});
        if (!c.setting.empty()) {
            const CtlResult set = Ctl(c.setting);
            ASSERT_EQ(set.exit, 0) << set.out;
        }
        CtlResult r =
            Ctl({"session", "logon", "--id", "4", "--user", "OVDOMAIN\\ann", "--client", "ANN-PC",
                 "--address", "10.0.0.4", "--printer", "name=HP 4,class=PCL,driver=HP,id=2"});
        ASSERT_EQ(r.exit, 0) << r.out;
        ASSERT_TRUE(ovtest::ReadPrinter(kPrinter)) << r.out;

        r = Ctl({"session", "logoff", "--id", "4"});
        EXPECT_EQ(r.exit, 0) << "the logoff goes on whatever the command did: " << r.out;
        EXPECT_NE(static_cast<bool>(ovtest::ReadPrinter(kPrinter)), c.printerGoes);
        if (!c.traced.empty()) {
            EXPECT_NE(channeltest::ReadText(trace_).find(c.traced), std::string::npos);
        }
        // The session is gone either way: a repair removes what it left.
        r = Ctl({"call", "repair"});
        EXPECT_EQ(r.exit, 0) << r.out;
        EXPECT_FALSE(ovtest::ReadPrinter(kPrinter)) << r.out;
    }
    service.Terminate();
    EXPECT_EQ(service.Wait(10s), 0);
}

}  // namespace
