// The service killed in the middle of a create, a release and a repair
// (machine.conf "fault.<Operation>=1:kill" ends it at that spooler call),
// restarted, and a repair run: afterwards every live session's printer
// exists with the session in its Location and its user in the ACL, no
// autocreated printer is left without sessions, and the template survives.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "autocreated_printers.h"
#include "channel_support.h"
#include "ovtest.h"
#include "platform/spooler.h"

namespace {

using namespace std::chrono_literals;
using channeltest::Ctl;
using channeltest::CtlResult;

class CrashTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        OVTEST_EMBEDDED_ONLY("kills the service at chosen spooler calls of the embedded machine");
        channeltest::ResetProductKey();
        trace_ = channeltest::EnableTrace(root());
        channeltest::SetProductDword(u"RightsWin2000", 1);
        channeltest::SetProductDword(u"TimeOutService", 1000);
        channeltest::SetProductDword(u"TimeOutClient", 3000);  // a dead service is seen soon
        ASSERT_TRUE(ovtest::EnsureUsers({u"OVDOMAIN\\ann", u"OVDOMAIN\\bob"}));
        const std::string failed =
            channeltest::SetUpRelayTemplate({"*,*,*,*,*,true,true,true,true,Relay,"});
        ASSERT_TRUE(failed.empty()) << failed;
    }

    void CrashAt(const std::string& operation) {
        std::ofstream(root() + "/machine.conf", std::ios::app)
            << "fault." << operation << "=1:kill\n";
    }
    void NoCrash() { std::filesystem::remove(root() + "/machine.conf"); }

    static CtlResult Logon(const std::string& id, const std::string& user,
                           const std::string& client) {
        return Ctl({"session", "logon", "--id", id, "--user", user, "--client", client, "--address",
                    "10.0.0.4", "--printer", "name=HP 4,class=PCL,driver=HP,id=2"});
    }

    // The promises the product keeps: `live` maps each live session to its
    // user and its printer.
    static void ExpectConsistent(const std::map<std::uint32_t, std::u16string>& users,
                                 const std::map<std::uint32_t, std::u16string>& printers) {
        EXPECT_TRUE(ovtest::ReadPrinter(u"_#Relay")) << "the template survives";
        const auto all = platform::EnumPrintersW(platform::PRINTER_ENUM_LOCAL, u"", 2);
        ASSERT_TRUE(all);
        for (const auto& p : *all) {
            if (p.comment.rfind(ovtest::kAutocreatedMarker, 0) != 0) {
                continue;
            }
            const auto ids = ovtest::LocationIds(p.location);
            ASSERT_TRUE(ids && !ids->empty()) << ovtest::U8(p.printerName) << " has no sessions";
            for (std::uint32_t id : *ids) {
                EXPECT_TRUE(users.count(id)) << ovtest::U8(p.printerName) << " lists " << id;
            }
        }
        for (const auto& [id, printer] : printers) {
            const auto p = ovtest::ReadPrinter(printer);
            ASSERT_TRUE(p) << ovtest::U8(printer);
            const auto ids = ovtest::LocationIds(p->location);
            ASSERT_TRUE(ids);
            EXPECT_NE(std::find(ids->begin(), ids->end(), id), ids->end()) << id;
            const auto readers = ovtest::PrintingUsers(printer);
            EXPECT_NE(std::find(readers.begin(), readers.end(), users.at(id)), readers.end())
                << ovtest::U8(printer);
        }
    }

    std::string trace_;
};

TEST_F(CrashTest, KilledInCreateReleaseAndRepairTheNextRepairRestoresTheRules) {
    ovtest::Process service = channeltest::StartService();
    const auto restart = [&] {
        EXPECT_NE(service.Wait(10s), 0) << "the service was killed";
        NoCrash();
        service = channeltest::StartService();
        const CtlResult r = Ctl({"call", "repair"});
        EXPECT_NE(r.out.find("result"), std::string::npos) << r.out;
    };
    ASSERT_EQ(Logon("4", "OVDOMAIN\\ann", "ANN-PC").exit, 0);
    ASSERT_EQ(Logon("5", "OVDOMAIN\\bob", "BOB-PC").exit, 0);
    std::map<std::uint32_t, std::u16string> users = {{4, u"OVDOMAIN\\ann"}, {5, u"OVDOMAIN\\bob"}};
    ExpectConsistent(users, {{4, u"ANN-PC:2#HP 4"}, {5, u"BOB-PC:2#HP 4"}});

    // A release killed at the printer's deletion: Location is already empty.
    CrashAt("DeletePrinter");
    EXPECT_EQ(Ctl({"session", "logoff", "--id", "4"}).exit, 0);
    users.erase(4);
    restart();
    EXPECT_FALSE(ovtest::ReadPrinter(u"ANN-PC:2#HP 4"));
    ExpectConsistent(users, {{5, u"BOB-PC:2#HP 4"}});

    // A create killed right after the printer was added, before it was
    // recorded: the logon's client program gets an error.
    CrashAt("SetPrinterW");
    EXPECT_EQ(Logon("6", "OVDOMAIN\\ann", "ANN-PC").exit, 0);
    restart();
    ExpectConsistent(users, {{5, u"BOB-PC:2#HP 4"}});
    users[6] = u"OVDOMAIN\\ann";
    const CtlResult again =
        Ctl({"call", "add", "--printer", "HP 4", "--class", "PCL", "--client", "ANN-PC", "--id",
             "2", "--session", "6", "--user", "OVDOMAIN\\ann", "--computer", "ANN-PC"});
    EXPECT_NE(again.out.find("add: result 0"), std::string::npos) << again.out;
    ExpectConsistent(users, {{5, u"BOB-PC:2#HP 4"}, {6, u"ANN-PC:2#HP 4"}});

    // A repair killed while it deletes the printer of a session that ended
    // while no service ran.
    service.Terminate();
    EXPECT_EQ(service.Wait(10s), 0);
    EXPECT_EQ(Ctl({"session", "logoff", "--id", "5"}).exit, 0);
    users.erase(5);
    service = channeltest::StartService();
    CrashAt("DeletePrinter");
    Ctl({"call", "repair"});
    restart();
    EXPECT_FALSE(ovtest::ReadPrinter(u"BOB-PC:2#HP 4"));
    ExpectConsistent(users, {{6, u"ANN-PC:2#HP 4"}});
    service.Terminate();
    EXPECT_EQ(service.Wait(10s), 0);
}

}  // namespace
