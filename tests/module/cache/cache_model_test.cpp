// A seeded random run of logons, logoffs, crashed sessions, jobs, service
// restarts, repairs and injected spooler failures on shared printers,
// checked after every step against what the product promises:
//   - a printer's Location field lists exactly the sessions its record holds;
//   - every user of a known session of a printer may print to it, and after
//     a repair that knows every user, nobody else may;
//   - after a release or a repair, no printer without sessions and without
//     jobs remains, and no printer lists a session that has gone;
//   - printers that are not autocreated are never changed.
// The run is reproducible from its seed (printed on failure); the length
// comes from OVTEST_MODEL_STEPS (default 300).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <set>

#include "autocreated_printers.h"
#include "cache/printer_cache.h"
#include "common/module_state.h"
#include "config/product_key.h"
#include "ovtest.h"
#include "platform/machine.h"
#include "platform/registry.h"
#include "platform/wts.h"
#include "spooler/printer_acl.h"
#include "spooler/win_printer.h"

namespace ovsvc {
namespace {

constexpr int kSessions = 6;
constexpr int kPrinters = 4;
const std::u16string kUsers[] = {u"OVDOMAIN\\ann", u"OVDOMAIN\\bob", u"OVDOMAIN\\cid"};

std::u16string UserOf(std::uint32_t session) {
    return kUsers[session % 3];
}
std::u16string PrinterName(int p) {
    return u"Shared " + ovtest::U16(std::to_string(p));
}

class CacheModelTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        OVTEST_EMBEDDED_ONLY("needs the embedded account and session tables");
        platform::UniqueKey key;
        ASSERT_EQ(platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, kProductKey, 0,
                                            platform::KEY_ALL_ACCESS, &key, nullptr),
                  0);
        const platform::DWORD rights = 1;
        ASSERT_EQ(platform::RegSetValueExW(key.get(), u"RightsWin2000", platform::REG_DWORD,
                                           &rights, sizeof rights),
                  0);
        ASSERT_TRUE(ovtest::EnsureUsers({std::begin(kUsers), std::end(kUsers)}));
        fIsService = true;
    }
    void TearDown() override {
        fIsService = false;
        MachineTest::TearDown();
    }
};

struct World {
    std::unique_ptr<OVACache> cache;
    std::set<std::uint32_t> live;  // sessions logged on
    std::map<int, int> jobs;       // printer -> jobs queued
};

void Logon(std::uint32_t session) {
    platform::terminal::Session s;
    s.id = session;
    const std::u16string user = UserOf(session);
    s.domainName = u"OVDOMAIN";
    s.userName = user.substr(user.find(u'\\') + 1);
    platform::terminal::Logon(s);
}

// What the create flow does for a session: the printer made or reused, the
// session recorded in the cache and the Location field, the user allowed.
void Create(World& w, int p, std::uint32_t session) {
    const std::u16string name = PrinterName(p);
    std::u16string location;
    std::uint32_t jobs = 0;
    const bool exists = WinPrinter::GetPrinterLocationString(name, &location, &jobs) == 1;
    if (!exists) {
        ASSERT_TRUE(ovtest::AddAutocreatedPrinter(ovtest::PrinterSpec(name, {})));
        location.clear();
    }
    if (w.cache->IsPrinterInList(name) == 0) {
        w.cache->AddPrinterToList(name);
    }
    w.cache->AddSessionIDUserName(name, session, UserOf(session));
    std::u16string merged;
    w.cache->GenLocationString(name, &merged, location);
    WinPrinter::SetPrinterLocationString(name, merged);
    SetPrinterACL(kAclAdd, name, UserOf(session));
}

void QueueJob(int p) {
    const platform::UniquePrinter printer = OpenPrinterFullAccess(PrinterName(p));
    if (printer) {
        platform::DocInfo1 doc;
        doc.documentName = u"model";
        if (platform::StartDocPrinterW(printer.get(), doc) != 0) {
            platform::EndDocPrinter(printer.get());
        }
    }
}

// Checks the promises; returns a description of the first broken one.
std::string Check(World& w, bool afterSweep, bool afterRepair) {
    for (const auto& [name, record] : w.cache->Printers()) {
        const auto info = ovtest::ReadPrinter(name);
        if (!info) {
            continue;  // deleted behind the cache's back: a repair adopts the rest
        }
        const auto ids = ovtest::LocationIds(info->location);
        std::vector<std::uint32_t> cached;
        for (const auto& entry : record->Sessions()) {
            cached.push_back(entry.first);
        }
        if (!ids || *ids != cached) {
            return "Location of " + ovtest::U8(name) + " is '" + ovtest::U8(info->location) +
                   "' but the cache holds " + std::to_string(cached.size()) + " sessions";
        }
        const auto users = ovtest::PrintingUsers(name);
        std::set<std::u16string> expected;
        bool allKnown = true;
        for (const auto& [id, user] : record->Sessions()) {
            allKnown = allKnown && !user.empty();
            if (!user.empty()) {
                expected.insert(user);
                if (std::find(users.begin(), users.end(), user) == users.end()) {
                    return ovtest::U8(user) + " may not print to " + ovtest::U8(name);
                }
            }
        }
        if (afterRepair && allKnown && std::set(users.begin(), users.end()) != expected) {
            return "after a repair " + ovtest::U8(name) + " lets other users print";
        }
        if (afterRepair) {
            for (const std::uint32_t id : cached) {
                if (!w.live.contains(id)) {
                    return ovtest::U8(name) + " still lists gone session " + std::to_string(id);
                }
            }
        }
        if ((afterSweep || afterRepair) && cached.empty() && info->cJobs == 0) {
            return ovtest::U8(name) + " has neither sessions nor jobs but exists";
        }
    }
    return "";
}

void RunModel(unsigned seed, int steps) {
    std::mt19937 random(seed);
    const auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    ovtest::PrinterSpec foreign(u"Office", {{1, kUsers[1]}});
    foreign.comment = u"office printer";
    ASSERT_TRUE(ovtest::AddAutocreatedPrinter(foreign));
    ovtest::PrinterSpec templ(u"_#Relay", {});
    templ.comment = u"";
    ASSERT_TRUE(ovtest::AddAutocreatedPrinter(templ));
    const auto foreignBefore = ovtest::ReadPrinter(u"Office");
    const auto templBefore = ovtest::ReadPrinter(u"_#Relay");

    World w;
    w.cache = std::make_unique<OVACache>();
    for (int step = 0; step < steps; ++step) {
        const int action = pick(10);
        const auto session = static_cast<std::uint32_t>(1 + pick(kSessions));
        const int printer = pick(kPrinters);
        bool sweep = false;
        bool repaired = false;
        std::string what;
        if (action <= 2) {  // a client printer appears in a session
            what = "create";
            if (!w.live.contains(session)) {
                Logon(session);
                w.live.insert(session);
            }
            Create(w, printer, session);
        } else if (action == 3) {  // a clean logoff
            what = "logoff";
            if (pick(4) == 0) {
                platform::machine::SetSetting("fault.SetPrinterW",
                                              std::to_string(1 + pick(3)) + ":5");
                what += " with a failing write";
            }
            w.cache->DeleteSessionPrinters(u"", session);
            platform::machine::SetSetting("fault.SetPrinterW", "");
            platform::terminal::Logoff(session);
            w.live.erase(session);
            sweep = true;
        } else if (action == 4) {  // the session ends without a logoff
            what = "crash";
            platform::terminal::Logoff(session);
            w.live.erase(session);
        } else if (action == 5) {
            what = "job";
            QueueJob(printer);
        } else if (action == 6) {
            what = "jobs end";
            ovtest::FinishJobs(PrinterName(printer));
        } else if (action == 7) {
            what = "restart";
            w.cache.reset();
            w.cache = std::make_unique<OVACache>();
        } else {
            what = "repair";
            w.cache->Repair();
            repaired = true;
        }
        const std::string broken = Check(w, sweep && what == "logoff", repaired);
        ASSERT_EQ(broken, "") << "seed " << seed << ", step " << step << " (" << what << ")";
    }
    const auto foreignAfter = ovtest::ReadPrinter(u"Office");
    const auto templAfter = ovtest::ReadPrinter(u"_#Relay");
    ASSERT_TRUE(foreignAfter && templAfter) << "seed " << seed;
    EXPECT_EQ(foreignAfter->location, foreignBefore->location);
    EXPECT_EQ(foreignAfter->securityDescriptor, foreignBefore->securityDescriptor);
    EXPECT_EQ(templAfter->comment, templBefore->comment);
    EXPECT_EQ(templAfter->securityDescriptor, templBefore->securityDescriptor);
}

TEST_F(CacheModelTest, RandomSessionsJobsRestartsAndFailuresKeepThePromises) {
    const char* stepsText = std::getenv("OVTEST_MODEL_STEPS");
    const int steps = stepsText != nullptr ? std::atoi(stepsText) : 300;
    const char* seedText = std::getenv("OVTEST_MODEL_SEED");
    const unsigned seed = seedText != nullptr
                              ? static_cast<unsigned>(std::strtoul(seedText, nullptr, 10))
                              : std::random_device{}();
    std::printf("model run: seed %u, %d steps\n", seed, steps);
    RunModel(seed, steps);
}

}  // namespace
}  // namespace ovsvc
