// The service killed in the middle of a create, a release and a repair
// (machine.conf "fault.<Operation>=1:kill" ends it at that spooler call),
// restarted, and a repair run; and each spooler and account operation made
// to fail in turn during each of them: afterwards every live session's
// printer exists with the session in its Location and its user in the ACL,
// no autocreated printer is left without sessions, no generated driver
// without its printer, and the template survives.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "autocreated_printers.h"
#include "channel_support.h"
#include "ovtest.h"
#include "platform/machine.h"
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

    // Generated drivers no printer uses.
    static std::vector<std::u16string> OrphanDrivers() {
        std::vector<std::u16string> orphans;
        const auto drivers = platform::EnumPrinterDriversW(u"", platform::kEnvironmentX64, 6);
        const auto all = platform::EnumPrintersW(platform::PRINTER_ENUM_LOCAL, u"", 2);
        if (!drivers || !all) {
            return {u"(the spooler cannot be read)"};
        }
        for (const auto& d : *drivers) {
            const bool used = std::any_of(all->begin(), all->end(),
                                          [&](const auto& p) { return p.driverName == d.name; });
            if (d.name.starts_with(u"OV PS Driver ") && !used) {
                orphans.push_back(d.name);
            }
        }
        return orphans;
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

// What the service answered in a line "<what>: result N" (or "answered N"
// of the client program); nullopt when no answer came.
std::optional<int> Answer(const std::string& out, const std::string& marker) {
    const std::size_t at = out.find(marker);
    if (at == std::string::npos) {
        return std::nullopt;
    }
    return std::atoi(out.c_str() + at + marker.size());
}

// Each operation fails at every call while one path runs: the path answers
// (a code of its own, no hang, the service keeps running), and once the
// fault is gone the next repair leaves the machine consistent.
TEST_F(CrashTest, EveryFailingOperationInCreateReleaseAndRepairIsRepaired) {
    ASSERT_EQ(Ctl({"setup"}).exit, 0);
    ASSERT_EQ(
        Ctl({"reg", "set", "HKLM\\Software\\Orvelle\\Ovaspool", "NameTranslationEx", "--type",
             "multi_sz", "IP,Client,Driver,Printer,Class,T1,T2,T4,T8,Template,Flag",
             "*,*,*,*,PS,true,true,true,true,OVPS!OVAS1:,", "*,*,*,*,*,true,true,true,true,Relay,"})
            .exit,
        0);
    const std::vector<std::string> printers = {"name=HP 4,class=PCL,driver=HP,id=2",
                                               "name=Office PS,class=PS,driver=PS,id=3"};
    const auto logon = [&](const std::string& id) {
        std::vector<std::string> args = {"session",   "logon",         "--id",     id,
                                         "--user",    "OVDOMAIN\\ann", "--client", "ANN-PC",
                                         "--address", "10.0.0.4"};
        for (const auto& p : printers) {
            args.insert(args.end(), {"--printer", p});
        }
        return Ctl(args);
    };
    const std::set<int> createCodes = {0, 221, 222, -10, -12, -13, -17, -20};
    const char* operations[] = {"OpenPrinterW",       "GetPrinterW",       "SetPrinterW",
                                "AddPrinterW",        "DeletePrinter",     "EnumPrintersW",
                                "SetPrinterDataW",    "AddPrinterDriverW", "DeletePrinterDriverExW",
                                "LookupAccountNameW", "LookupAccountSidW"};
    ovtest::Process service = channeltest::StartService();
    int tried = 0;
    int passed = 0;
    for (const char* operation : operations) {
        for (const std::string path : {"create", "release", "repair"}) {
            SCOPED_TRACE(path + " with " + operation + " failing");
            const auto* result = ::testing::UnitTest::GetInstance()->current_test_info()->result();
            const int failuresBefore = result->total_part_count();
            std::map<std::uint32_t, std::u16string> users;
            std::optional<int> answer;
            if (path == "create") {
                platform::machine::SetSetting(std::string("fault.") + operation, "*:5");
                const CtlResult r = logon("4");
                platform::machine::SetSetting(std::string("fault.") + operation, "");
                // Each printer not created is reported with the answer.
                answer = Answer(r.out, "answered ").value_or(0);
                EXPECT_EQ(r.exit, 0) << r.out;
                EXPECT_TRUE(createCodes.count(*answer)) << r.out;
                users[4] = u"OVDOMAIN\\ann";
            } else if (path == "release") {
                ASSERT_EQ(logon("4").exit, 0);
                platform::machine::SetSetting(std::string("fault.") + operation, "*:5");
                const CtlResult r = Ctl({"call", "del", "--session", "4"});
                platform::machine::SetSetting(std::string("fault.") + operation, "");
                answer = Answer(r.out, "del: result ");
                EXPECT_TRUE(answer) << r.out;
                users[4] = u"OVDOMAIN\\ann";
            } else {
                // Session 4 ends while no service runs; the repair finds it gone.
                ASSERT_EQ(logon("4").exit, 0);
                service.Terminate();
                service.Wait(10s);
                Ctl({"session", "logoff", "--id", "4"});
                service = channeltest::StartService();
                platform::machine::SetSetting(std::string("fault.") + operation, "*:5");
                const CtlResult r = Ctl({"call", "repair"});
                platform::machine::SetSetting(std::string("fault.") + operation, "");
                answer = Answer(r.out, "repair: result ");
                EXPECT_TRUE(answer) << r.out;
            }
            std::printf("fault sweep: %-7s %-22s answered %s\n", path.c_str(), operation,
                        answer ? std::to_string(*answer).c_str() : "nothing");
            EXPECT_TRUE(service.Running()) << "the service survives";
            const CtlResult r = Ctl({"call", "repair"});
            EXPECT_TRUE(Answer(r.out, "repair: result ")) << r.out;
            ExpectConsistent(users, {});
            EXPECT_TRUE(OrphanDrivers().empty());
            ++tried;
            passed += result->total_part_count() == failuresBefore ? 1 : 0;
            Ctl({"session", "logoff", "--id", "4"});
            ExpectConsistent({}, {});
        }
    }
    std::printf("fault sweep: %d (path, operation) pairs tried, %d passed\n", tried, passed);
    EXPECT_EQ(passed, tried);
    service.Terminate();
    EXPECT_EQ(service.Wait(10s), 0);
}

}  // namespace
