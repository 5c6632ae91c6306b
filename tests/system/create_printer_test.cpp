// A client printer becomes a server printer: the service finds the template
// through the translation table, names the printer by the port monitor's
// format and the naming scheme, and records the session; a second session
// shares the printer; logoffs take it away again.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
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

class CreatePrinterTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        OVTEST_EMBEDDED_ONLY("needs the embedded account table and ovasctl spool administration");
        channeltest::ResetProductKey();
        trace_ = channeltest::EnableTrace(root());
        channeltest::SetProductDword(u"RightsWin2000", 1);
        ASSERT_TRUE(ovtest::EnsureUsers({u"OVDOMAIN\\ann", u"OVDOMAIN\\bob"}));
        const std::string failed =
            channeltest::SetUpRelayTemplate({"*,*,*,*,PCL,true,true,true,true,Relay,",
                                             "*,*,*,*,NET,true,true,true,true,\\\\srv\\q,"});
        ASSERT_TRUE(failed.empty()) << failed;
    }
    static CtlResult Add(const std::string& printer, const std::string& cls,
                         const std::string& session, const std::string& user,
                         const std::string& flags = "0") {
        return Ctl({"call", "add", "--printer", printer, "--class", cls, "--client", "PC1", "--id",
                    "3", "--session", session, "--user", user, "--computer", "PC1", "--flags",
                    flags});
    }
    std::string trace_;
};

TEST_F(CreatePrinterTest, SessionsGetSharePrinterAndLoseItAtLogoff) {
    ovtest::Process service = channeltest::StartService();
    const std::u16string name = u"PC1:3#HP 4 on PC1";

    CtlResult r = Add("\\\\PC1\\HP 4", "PCL", "5", "OVDOMAIN\\ann");
    EXPECT_NE(r.out.find("add: result 0"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("PC1:3#HP 4 on PC1"), std::string::npos) << r.out;
    auto printer = ovtest::ReadPrinter(name);
    ASSERT_TRUE(printer);
    EXPECT_TRUE(printer->comment.starts_with(ovtest::kAutocreatedMarker));
    EXPECT_EQ(printer->location, u"5;");
    EXPECT_EQ(printer->portName, u"OVAS1:");
    EXPECT_EQ(printer->attributes & platform::PRINTER_ATTRIBUTE_SHARED, 0u) << "not asked to share";
    EXPECT_EQ(ovtest::PrintingUsers(name), (std::vector<std::u16string>{u"OVDOMAIN\\ann"}));

    // The same client printer from another session shares the printer.
    r = Add("\\\\PC1\\HP 4", "PCL", "7", "OVDOMAIN\\bob");
    EXPECT_NE(r.out.find("add: result 0"), std::string::npos) << r.out;
    EXPECT_EQ(ovtest::LocationIds(ovtest::ReadPrinter(name)->location),
              (std::vector<std::uint32_t>{5, 7}));
    EXPECT_EQ(ovtest::PrintingUsers(name),
              (std::vector<std::u16string>{u"OVDOMAIN\\ann", u"OVDOMAIN\\bob"}));
    r = Ctl({"call", "enum", "--raw"});
    EXPECT_NE(r.out.find("R1:2S1:5U12:OVDOMAIN\\annS1:7U12:OVDOMAIN\\bob"), std::string::npos)
        << r.out;

    // Logoffs: ann's session first (bob keeps the printer, ann loses it),
    // then bob's through the create request's delete mode.
    r = Ctl({"call", "del", "--session", "5"});
    EXPECT_NE(r.out.find("del: result 1"), std::string::npos) << r.out;
    EXPECT_EQ(ovtest::PrintingUsers(name), (std::vector<std::u16string>{u"OVDOMAIN\\bob"}));
    r = Add("\\\\PC1\\HP 4", "PCL", "7", "OVDOMAIN\\bob", "8");
    EXPECT_NE(r.out.find("add: result 0"), std::string::npos) << r.out;
    EXPECT_FALSE(ovtest::ReadPrinter(name));

    // Network printers and unknown classes are not created.
    r = Add("Other", "NET", "5", "OVDOMAIN\\ann");
    EXPECT_NE(r.out.find("add: result 222"), std::string::npos) << r.out;
    r = Add("Other", "XYZ", "5", "OVDOMAIN\\ann");
    EXPECT_NE(r.out.find("add: result 221"), std::string::npos) << r.out;
    service.Terminate();
    EXPECT_EQ(service.Wait(10s), 0);
}

// A create whose step fails answers with that step's code. Only a failure
// after the printer was added leaves it, recorded as far as the steps got;
// with the fault gone, creates work again (after a restart where the fault
// was in what the service loads once).
TEST_F(CreatePrinterTest, AFailingStepAnswersWithItsCode) {
    ovtest::Process service = channeltest::StartService();
    struct Case {
        const char* setting;
        const char* value;
        const char* result;
        bool printerStays;
        const char* traced;
    };
    for (const Case& c : {
             Case{"winspool_missing", "XcvDataW", "-20", false,
                  "GetProcAddress(hSpooler, \"XcvDataW\") fehlgeschlagen"},
             Case{"fault.GetPrinterW", "1:8", "-10", false,
                  "Speicher für Pointer 'pPrtInfo2' konnte nicht angefordert werden!"},
             Case{"fault.GetPrinterW", "1:5", "-12", false,
                  "API-Fkt. Get-Printer() schlug fehl (5)!"},
             Case{"fault.LookupAccountNameW", "*:1332", "-17", true, "Set-PrinterACL fails"},
         }) {
        SCOPED_TRACE(std::string(c.setting) + "=" + c.value);
        platform::machine::SetSetting(c.setting, c.value);
        CtlResult r = Add("\\\\PC1\\HP 4", "PCL", "5", "OVDOMAIN\\ann");
        platform::machine::SetSetting(c.setting, "");
        EXPECT_NE(r.out.find(std::string("add: result ") + c.result + "\n"), std::string::npos)
            << r.out;
        EXPECT_EQ(static_cast<bool>(ovtest::ReadPrinter(u"PC1:3#HP 4 on PC1")), c.printerStays);
        EXPECT_NE(channeltest::ReadText(trace_).find(c.traced), std::string::npos);
        if (c.printerStays) {
            EXPECT_EQ(ovtest::ReadPrinter(u"PC1:3#HP 4 on PC1")->location, u"5;");
            r = Ctl({"call", "del", "--session", "5"});
            EXPECT_FALSE(ovtest::ReadPrinter(u"PC1:3#HP 4 on PC1")) << r.out;
        }
        if (c.setting == std::string("winspool_missing")) {
            service.Terminate();
            EXPECT_EQ(service.Wait(10s), 0);
            service = channeltest::StartService();
        }
    }
    const CtlResult r = Add("\\\\PC1\\HP 4", "PCL", "5", "OVDOMAIN\\ann");
    EXPECT_NE(r.out.find("add: result 0"), std::string::npos) << r.out;
    EXPECT_EQ(ovtest::PrintingUsers(u"PC1:3#HP 4 on PC1"),
              (std::vector<std::u16string>{u"OVDOMAIN\\ann"}));
    service.Terminate();
    EXPECT_EQ(service.Wait(10s), 0);
}

// Client input the spooler refuses (a name far too long, characters no
// printer name may hold) is refused whole; properties longer than a request
// carries are left out, and the printer is created without them.
TEST_F(CreatePrinterTest, BadClientInputIsRefusedWholeOrLeftOut) {
    ovtest::Process service = channeltest::StartService();
    const std::string big(70000, 'T');
    struct Case {
        std::string printer;
        std::vector<std::string> extra;
        const char* result;
    };
    const Case cases[] = {
        {std::string(600, 'P'), {}, "-13"},
        {"bad,name", {}, "-13"},
        {"back\\slash", {}, "-13"},
        {"Trays", {"--tray", "*" + big, "--paper", "*9"}, "0"},
        {"Papers", {"--tray", "*Auto", "--paper", "*" + big}, "0"},
    };
    int id = 1;
    for (const Case& c : cases) {
        std::vector<std::string> args = {
            "call",   "add",           "--printer", c.printer,           "--class",
            "PCL",    "--client",      "PC1",       "--session",         "5",
            "--user", "OVDOMAIN\\ann", "--id",      std::to_string(id++)};
        args.insert(args.end(), c.extra.begin(), c.extra.end());
        const CtlResult r = Ctl(args);
        EXPECT_NE(r.out.find(std::string("add: result ") + c.result + "\n"), std::string::npos)
            << c.printer.substr(0, 20) << ": " << r.out.substr(0, 300);
    }
    const auto printers = platform::EnumPrintersW(platform::PRINTER_ENUM_LOCAL, u"", 2);
    ASSERT_TRUE(printers);
    std::vector<std::u16string> names;
    for (const auto& p : *printers) {
        names.push_back(p.printerName);
    }
    EXPECT_EQ(names, (std::vector<std::u16string>{u"PC1:4#Trays", u"PC1:5#Papers", u"_#Relay"}));
    const CtlResult r = Ctl({"call", "enum", "--raw"});
    EXPECT_EQ(r.out.find("PC1:1#"), std::string::npos) << r.out.substr(0, 300);
    EXPECT_EQ(r.out.find("bad,name"), std::string::npos) << r.out;
    service.Terminate();
    EXPECT_EQ(service.Wait(10s), 0);
}

// The whole story of sessions: at logon the client program creates the
// printers of the client machine; the logoff runs its delete command. Two
// users, one of them logged on twice from the same client machine.
TEST_F(CreatePrinterTest, LogonsCreateTheSessionsPrintersAndLogoffsRemoveThem) {
    ovtest::Process service = channeltest::StartService();
    struct Logon {
        const char* id;
        const char* user;
        const char* client;
        const char16_t* printer;
    };
    const Logon logons[] = {{"4", "OVDOMAIN\\ann", "ANN-PC", u"ANN-PC:2#HP 4"},
                            {"5", "OVDOMAIN\\bob", "BOB-PC", u"BOB-PC:2#HP 4"},
                            {"6", "OVDOMAIN\\ann", "ANN-PC", u"ANN-PC:2#HP 4"}};
    for (const Logon& l : logons) {
        const CtlResult r =
            Ctl({"session", "logon", "--id", l.id, "--user", l.user, "--client", l.client,
                 "--address", "10.0.0.4", "--printer", "name=HP 4,class=PCL,driver=HP,id=2",
                 "--printer", "name=Unmapped,class=XYZ,driver=x,id=3"});
        ASSERT_EQ(r.exit, 0) << r.out;
        EXPECT_NE(r.out.find("\"Unmapped\" was not created: the service answered 221"),
                  std::string::npos)
            << r.out;
        EXPECT_TRUE(ovtest::ReadPrinter(l.printer)) << r.out;
    }
    EXPECT_EQ(ovtest::LocationIds(ovtest::ReadPrinter(u"ANN-PC:2#HP 4")->location),
              (std::vector<std::uint32_t>{4, 6}));
    EXPECT_EQ(ovtest::PrintingUsers(u"BOB-PC:2#HP 4"),
              (std::vector<std::u16string>{u"OVDOMAIN\\bob"}));
    // A repair gives a live session's user his access back.
    ASSERT_EQ(Ctl({"spool", "acl", "BOB-PC:2#HP 4"}).exit, 0);
    EXPECT_TRUE(ovtest::PrintingUsers(u"BOB-PC:2#HP 4").empty());
    EXPECT_EQ(Ctl({"call", "repair"}).exit, 0);
    EXPECT_EQ(ovtest::PrintingUsers(u"BOB-PC:2#HP 4"),
              (std::vector<std::u16string>{u"OVDOMAIN\\bob"}));

    // Logoffs: ann's first session leaves her printer to her second one.
    for (const auto& [id, annsLeft, bobsLeft] :
         {std::tuple{"4", true, true}, {"5", true, false}, {"6", false, false}}) {
        const CtlResult r = Ctl({"session", "logoff", "--id", id});
        EXPECT_EQ(r.exit, 0) << r.out;
        EXPECT_EQ(static_cast<bool>(ovtest::ReadPrinter(u"ANN-PC:2#HP 4")), annsLeft) << id;
        EXPECT_EQ(static_cast<bool>(ovtest::ReadPrinter(u"BOB-PC:2#HP 4")), bobsLeft) << id;
    }
    EXPECT_NE(channeltest::ReadText(trace_).find(
                  "WINLOGON: TSEventLogoff: Process <Ovaspool -q -d> ended"),
              std::string::npos);
    service.Terminate();
    EXPECT_EQ(service.Wait(10s), 0);
}

}  // namespace
