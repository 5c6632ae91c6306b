// The service's memory of autocreated printers, through real processes: the
// service host answers the client calls of ovasctl while the test changes
// sessions and jobs on the same machine.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "autocreated_printers.h"
#include "channel_support.h"
#include "ovtest.h"
#include "platform/wts.h"

namespace {

using namespace std::chrono_literals;
using channeltest::Ctl;
using channeltest::CtlResult;
using channeltest::EnableTrace;
using channeltest::ReadText;
using channeltest::ResetProductKey;
using channeltest::SetProductDword;
using channeltest::StartService;

const std::u16string kAnn = u"OVDOMAIN\\ann";
const std::u16string kBob = u"OVDOMAIN\\bob";

std::vector<std::uint32_t> Ids(const std::u16string& printer) {
    const auto info = ovtest::ReadPrinter(printer);
    if (!info) {
        return {};
    }
    return ovtest::LocationIds(info->location).value_or(std::vector<std::uint32_t>{0xDEAD});
}

void Logon(platform::DWORD id, const std::u16string& user) {
    platform::terminal::Session session;
    session.id = id;
    session.userName = user.substr(user.find(u'\\') + 1);
    session.domainName = u"OVDOMAIN";
    session.clientName = u"ws" + ovtest::U16(std::to_string(id));
    session.clientAddress = u"10.0.0." + ovtest::U16(std::to_string(id));
    ASSERT_EQ(platform::terminal::Logon(session), 0u);
}

class PrinterCacheTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        OVTEST_EMBEDDED_ONLY("needs the embedded account and session tables");
        ResetProductKey();
        trace_ = EnableTrace(root());
        SetProductDword(u"RightsWin2000", 1);
        ASSERT_TRUE(ovtest::EnsureUsers({kAnn, kBob}));
    }
    std::string Trace() const { return ReadText(trace_); }

    std::string trace_;
};

// Printers of the spooler that are not autocreated are never touched.
TEST_F(PrinterCacheTest, ReleaseEnumerateAndDeleteKeepForeignPrintersUnchanged) {
    for (const auto& [id, user] : {std::pair{3u, kAnn}, {5u, kBob}, {7u, kAnn}}) {
        Logon(id, user);
    }
    ASSERT_TRUE(
        ovtest::AddAutocreatedPrinter(ovtest::PrinterSpec(u"HP on ws3", {{3, kAnn}, {5, kBob}})));
    ASSERT_TRUE(ovtest::AddAutocreatedPrinter(ovtest::PrinterSpec(u"Laser on ws7", {{7, kAnn}})));
    // Not autocreated: no marker, the marker in other case, a template.
    ovtest::PrinterSpec foreign(u"Office", {{3, kAnn}});
    foreign.comment = u"office printer";
    ovtest::PrinterSpec lower(u"Lower", {{3, kAnn}});
    lower.comment = u"printer created by ovaspool";
    ovtest::PrinterSpec templ(u"_#Relay", {});
    templ.comment = u"";
    for (const auto* printer : {&foreign, &lower, &templ}) {
        ASSERT_TRUE(ovtest::AddAutocreatedPrinter(*printer));
    }
    const auto before = ovtest::ReadPrinter(u"Office");
    ovtest::Process service = StartService();

    // Users are unknown until a create names them: U0: for every session.
    CtlResult r = Ctl({"call", "enum", "--raw"});
    EXPECT_EQ(r.exit, 0) << r.out;
    EXPECT_NE(r.out.find("text: P9:HP on ws3R1:2S1:3U0:S1:5U0:P12:Laser on ws7R1:1S1:7U0:"),
              std::string::npos)
        << r.out;
    r = Ctl({"call", "--json", "enum"});
    EXPECT_NE(
        r.out.find(
            R"({"printer":"Laser on ws7","references":1,"sessions":[{"session":7,"user":""}]})"),
        std::string::npos)
        << r.out;

    // Session 3 leaves: its id goes from the Location field, the printer
    // stays for session 5, and nobody loses access while users are unknown.
    r = Ctl({"call", "del", "--session", "3"});
    EXPECT_NE(r.out.find("del: result 1"), std::string::npos) << r.out;
    EXPECT_EQ(Ids(u"HP on ws3"), (std::vector<std::uint32_t>{5}));
    EXPECT_EQ(ovtest::PrintingUsers(u"HP on ws3"), (std::vector<std::u16string>{kAnn, kBob}));

    // A job keeps the printer after its last session went: pending, with an
    // empty Location field, until a later release finds the queue empty.
    ASSERT_NE(ovtest::QueueJob(u"HP on ws3", kBob), 0u);
    r = Ctl({"call", "del", "--session", "5"});
    EXPECT_NE(r.out.find("del: result 1"), std::string::npos) << r.out;
    ASSERT_TRUE(ovtest::ReadPrinter(u"HP on ws3"));
    EXPECT_EQ(ovtest::ReadPrinter(u"HP on ws3")->location, u"");
    r = Ctl({"call", "enum"});
    EXPECT_NE(r.out.find("HP on ws3     0"), std::string::npos) << r.out;
    r = Ctl({"call", "del", "--session", "42"});
    EXPECT_TRUE(ovtest::ReadPrinter(u"HP on ws3")) << "jobs still spooling";
    ASSERT_TRUE(ovtest::FinishJobs(u"HP on ws3"));
    r = Ctl({"call", "del", "--session", "42"});
    EXPECT_NE(r.out.find("del: result 0"), std::string::npos) << r.out;
    EXPECT_FALSE(ovtest::ReadPrinter(u"HP on ws3"));

    // Deleting all takes every autocreated printer and nothing else.
    r = Ctl({"call", "del", "--all"});
    EXPECT_NE(r.out.find("del: result 1"), std::string::npos) << r.out;
    EXPECT_FALSE(ovtest::ReadPrinter(u"Laser on ws7"));
    for (const auto* name : {u"Office", u"Lower", u"_#Relay"}) {
        EXPECT_TRUE(ovtest::ReadPrinter(name)) << ovtest::U8(name);
    }
    const auto after = ovtest::ReadPrinter(u"Office");
    ASSERT_TRUE(before && after);
    EXPECT_EQ(after->location, before->location);
    EXPECT_EQ(after->comment, before->comment);
    EXPECT_EQ(after->securityDescriptor, before->securityDescriptor);
    r = Ctl({"call", "enum"});
    EXPECT_EQ(r.out, "PRINTER  REFERENCES  SESSION  USER\n");
    service.Terminate();
    EXPECT_EQ(service.Wait(10s), 0);
}

// Sessions that ended without a logoff are found by a repair; a service
// restart rebuilds the same cache from the Location fields.
TEST_F(PrinterCacheTest, RepairDropsVanishedSessionsAndARestartKeepsTheRest) {
    Logon(3, kAnn);
    Logon(5, kBob);
    ASSERT_TRUE(ovtest::AddAutocreatedPrinter(
        ovtest::PrinterSpec(u"Shared", {{3, kAnn}, {5, kBob}, {9, kBob}})));
    ASSERT_TRUE(ovtest::AddAutocreatedPrinter(ovtest::PrinterSpec(u"Gone", {{11, kAnn}})));
    ASSERT_TRUE(ovtest::AddAutocreatedPrinter(ovtest::PrinterSpec(u"Pending", {{13, kAnn}})));
    ASSERT_NE(ovtest::QueueJob(u"Pending", kAnn), 0u);
    ovtest::PrinterSpec garbage(u"Garbage", {{3, kAnn}});
    garbage.location = u"3;x;5;";
    garbage.locationGiven = true;
    ASSERT_TRUE(ovtest::AddAutocreatedPrinter(garbage));
    {
        ovtest::Process service = StartService();
        CtlResult r = Ctl({"call", "enum", "--raw"});
        EXPECT_NE(r.out.find("P7:GarbageR1:0"), std::string::npos) << r.out;
        service.Terminate();
        ASSERT_EQ(service.Wait(10s), 0);
    }
    ovtest::Process service = StartService();
    const CtlResult before = Ctl({"call", "enum", "--raw"});
    EXPECT_NE(before.out.find("P6:SharedR1:3S1:3U0:S1:5U0:S1:9U0:"), std::string::npos)
        << before.out;
    // Sessions 9, 11 and 13 are gone (one change each); "Gone" and
    // "Garbage" are left without sessions and deleted, "Pending" keeps its
    // queued job and stays (one change each).
    CtlResult r = Ctl({"call", "repair"});
    EXPECT_NE(r.out.find("repair: result 6"), std::string::npos) << r.out;
    EXPECT_EQ(Ids(u"Pending"), (std::vector<std::uint32_t>{}));
    EXPECT_EQ(Ids(u"Shared"), (std::vector<std::uint32_t>{3, 5}));
    EXPECT_FALSE(ovtest::ReadPrinter(u"Gone"));
    EXPECT_FALSE(ovtest::ReadPrinter(u"Garbage"));
    EXPECT_NE(Trace().find("error in pLocation <3;x;5;>, abort parsing"), std::string::npos);
    // Only the pending printer, still without sessions, counts again.
    r = Ctl({"call", "repair"});
    EXPECT_NE(r.out.find("repair: result 1"), std::string::npos) << r.out;
    EXPECT_TRUE(ovtest::ReadPrinter(u"Pending"));
    service.Terminate();
    EXPECT_EQ(service.Wait(10s), 0);
}

// The ACL the service keeps is enforced by the spooler.
TEST_F(PrinterCacheTest, OnlyUsersInTheAclMayPrint) {
    ASSERT_TRUE(ovtest::AddAutocreatedPrinter(ovtest::PrinterSpec(u"Private", {{3, kAnn}})));
    EXPECT_NE(ovtest::QueueJob(u"Private", kAnn), 0u);
    const CtlResult r = Ctl({"spool", "job", "add", "Private", "--as", "OVDOMAIN\\bob"});
    EXPECT_NE(r.exit, 0);
    EXPECT_NE(r.out.find("access denied: OVDOMAIN\\bob may not print to \"Private\""),
              std::string::npos)
        << r.out;
}

}  // namespace
