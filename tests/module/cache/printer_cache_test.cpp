// The printer cache, its records and the ACL edits, in the service's own
// process on a fresh machine.
#include <gtest/gtest.h>

#include <cstdio>

#include "autocreated_printers.h"
#include "cache/printer_cache.h"
#include "channel/startup.h"
#include "common/module_state.h"
#include "config/product_key.h"
#include "ovtest.h"
#include "platform/machine.h"
#include "platform/registry.h"
#include "product_settings.h"
#include "spooler/printer_acl.h"
#include "trace/trace.h"

namespace ovsvc {
namespace {

using Ids = std::vector<std::uint32_t>;

// ---- location strings and records ---------------------------------------------------

TEST(LocationString, ParsesIdsAsTheSpoolerStoresThem) {
    struct Case {
        std::u16string text;
        int result;
        SessionIdSet ids;
    };
    const Case cases[] = {
        {u"", 1, {}},
        {u";", 1, {}},
        {u";;7;", 1, {7}},
        {u"3;12;3;", 1, {3, 12}},
        {u" 4;\t5", 1, {4, 5}},
        {u"+5;-1;", 1, {5, 0xFFFFFFFFu}},
        {u"4294967295;99999999999;", 1, {0xFFFFFFFFu}},
        {u"-99999999999;", 1, {0xFFFFFFFFu}},
        {u"3;x;5;", 0, {3}},
        {u"3; ;5;", 0, {3}},
        {u"5 ;", 0, {}},
        {u"+;", 0, {}},
        {u"7;0x10;", 0, {7}},
    };
    for (const Case& c : cases) {
        SessionIdSet ids;
        EXPECT_EQ(OVACache::ParseLocationString(c.text, &ids), c.result) << ovtest::U8(c.text);
        EXPECT_EQ(ids, c.ids) << ovtest::U8(c.text);
    }
}

TEST(PrinterRecord, SessionsUsersTokensAndLocation) {
    OVPrinterInfo record(u"HP4 on ws12");
    std::u16string tokens;
    record.AppendSessionTokens(&tokens);
    EXPECT_EQ(record.GetRefCount(), 0u);
    EXPECT_EQ(tokens, u"");
    record.SetSessionUser(12, u"DOM\\ann");
    record.AppendSessionTokens(&tokens);
    EXPECT_EQ(tokens, u"S2:12U7:DOM\\ann");
    record.SetSessionUser(12, u"DOM\\bob");  // overwrites
    record.SetSessionUser(5, u"DOM\\bob");
    record.RemoveSession(99);  // absent: nothing changes
    EXPECT_EQ(record.GetRefCount(), 2u);
    EXPECT_EQ(record.CountUserSessions(u"DOM\\bob"), 2u);
    EXPECT_EQ(record.CountUserSessions(u"DOM\\BOB"), 0u);
    EXPECT_EQ(record.CountUserSessions(u""), 0u);
    std::u16string location;
    SessionIdSet ids{5, 7};
    record.MergeSessionsInto(&location, &ids);
    SessionIdSet parsed;
    ASSERT_EQ(OVACache::ParseLocationString(location, &parsed), 1);
    EXPECT_EQ(parsed, (SessionIdSet{5, 7, 12}));
    EXPECT_EQ(location.size(), 7u) << "each id once, each followed by ';'";
}

// ---- the cache in the service process ------------------------------------------------

class CacheTest : public ovtest::MachineTest {
  protected:
    const std::u16string ann = u"OVDOMAIN\\ann";
    const std::u16string bob = u"OVDOMAIN\\bob";

    void SetUp() override {
        MachineTest::SetUp();
        OVTEST_EMBEDDED_ONLY("needs the embedded account table");
        path_ = ovtest::EnableTrace(root());
        ovtest::SetProductDword(u"RightsWin2000", 1);
        ResetTraceStateForTesting();
        ASSERT_TRUE(ovtest::EnsureUsers({ann, bob}));
        fIsService = true;
    }
    void TearDown() override {
        fIsService = false;
        ResetTraceStateForTesting();
        MachineTest::TearDown();
    }
    std::string Trace() const { return ovtest::ReadText(path_); }
    // The DACL's entries as "sid mask flags" lines, in order.
    static std::vector<std::string> Entries(const std::u16string& printer) {
        std::vector<std::string> lines;
        platform::SecurityDescriptor sd;
        if (!platform::MakeAbsoluteSD(ovtest::ReadPrinter(printer)->securityDescriptor, &sd) ||
            !sd.dacl) {
            return lines;
        }
        platform::ACL_SIZE_INFORMATION info;
        platform::GetAclInformation(*sd.dacl, &info);
        for (platform::DWORD i = 0; i < info.AceCount; ++i) {
            platform::Ace ace;
            platform::GetAce(*sd.dacl, i, &ace);
            char text[64];
            std::snprintf(text, sizeof text, " %08x %d %d", ace.Mask, ace.Header.AceFlags,
                          ace.Header.AceType);
            lines.push_back(ovtest::U8(ace.sid.ToString()) + text);
        }
        return lines;
    }
    static Ids LocationOf(const std::u16string& printer) {
        return ovtest::LocationIds(ovtest::ReadPrinter(printer)->location).value_or(Ids{0xDEAD});
    }

    std::string path_;
};

TEST_F(CacheTest, ConsistenceCheckComparesLocationAndRecordAsSets) {
    ASSERT_TRUE(ovtest::AddAutocreatedPrinter(ovtest::PrinterSpec(u"P", {{5, ann}, {3, ann}})));
    OVACache cache;
    std::uint32_t flags = 99;
    EXPECT_EQ(cache.VerifyCacheConsistence(u"P", &flags), 1);
    EXPECT_EQ(flags, 0u);
    cache.Find(u"P")->RemoveSession(5);  // spooler 3;5; cache {3}
    EXPECT_EQ(cache.VerifyCacheConsistence(u"P", &flags), 0);
    EXPECT_EQ(flags & 1u, 1u);
    cache.Find(u"P")->SetSessionUser(5, u"");
    cache.Find(u"P")->SetSessionUser(7, u"");  // spooler 3;5; cache {3,5,7}
    EXPECT_EQ(cache.VerifyCacheConsistence(u"P", &flags), 0);
    EXPECT_EQ(flags, 2u);
    EXPECT_EQ(cache.VerifyCacheConsistence(u"Unknown", &flags), 0);
    EXPECT_NE(Trace().find("discrepance strikes: <3;5;> and <3;5;7;>"), std::string::npos);
    EXPECT_EQ(cache.AddPrinterToList(u"P"), 0);
    EXPECT_EQ(cache.AddPrinterToList(u"p"), 1) << "names differing in case are two printers";
}

// A user keeps access while one of his sessions uses the printer, and
// nobody loses it while some session's user is unknown.
TEST_F(CacheTest, ReleaseShrinksTheAclOnlyForKnownUsersWithoutSessionsLeft) {
    ASSERT_TRUE(ovtest::AddAutocreatedPrinter(
        ovtest::PrinterSpec(u"P", {{3, ann}, {4, ann}, {5, bob}, {6, bob}})));
    OVACache cache;
    for (const auto& [id, user] : {std::pair{3u, ann}, {4u, ann}, {5u, bob}}) {
        cache.AddSessionIDUserName(u"P", id, user);
    }
    EXPECT_EQ(cache.DeletePrinterFromList(u"P", 3), 1);
    EXPECT_EQ(LocationOf(u"P"), (Ids{4, 5, 6}));
    EXPECT_EQ(ovtest::PrintingUsers(u"P"), (std::vector<std::u16string>{ann, bob}));
    EXPECT_EQ(cache.DeletePrinterFromList(u"P", 4), 1);  // session 6 of an unknown user
    EXPECT_EQ(ovtest::PrintingUsers(u"P"), (std::vector<std::u16string>{ann, bob}));
    cache.AddSessionIDUserName(u"P", 6, bob);
    EXPECT_EQ(cache.DeletePrinterFromList(u"P", 5), 1);
    EXPECT_EQ(ovtest::PrintingUsers(u"P"), (std::vector<std::u16string>{ann, bob}));
    EXPECT_EQ(cache.DeletePrinterFromList(u"P", 6), 1);
    EXPECT_FALSE(ovtest::ReadPrinter(u"P")) << "no session, no job: deleted";
    EXPECT_EQ(cache.IsPrinterInList(u"P"), 0);

    ASSERT_TRUE(ovtest::AddAutocreatedPrinter(ovtest::PrinterSpec(u"Q", {{3, ann}, {5, bob}})));
    cache.LoadPrinterList();
    cache.AddSessionIDUserName(u"Q", 3, ann);
    cache.AddSessionIDUserName(u"Q", 5, bob);
    EXPECT_EQ(cache.DeletePrinterFromList(u"Q", 3), 1);
    EXPECT_EQ(ovtest::PrintingUsers(u"Q"), (std::vector<std::u16string>{bob}))
        << "ann's last session went while every user was known";
}

TEST_F(CacheTest, SessionsTheSpoolerAloneListsStayInTheLocationField) {
    ASSERT_TRUE(ovtest::AddAutocreatedPrinter(ovtest::PrinterSpec(u"P", {{3, ann}, {9, bob}})));
    OVACache cache;
    cache.Find(u"P")->RemoveSession(9);
    EXPECT_EQ(cache.DeleteSessionPrinters(u"p", 3), 1u) << "the filter ignores case";
    EXPECT_EQ(LocationOf(u"P"), (Ids{9}));
    EXPECT_EQ(cache.IsPrinterInList(u"P"), 0);
    EXPECT_TRUE(ovtest::ReadPrinter(u"P"));
}

TEST_F(CacheTest, EveryCacheOperationRefusesAClientProcess) {
    ASSERT_TRUE(ovtest::AddAutocreatedPrinter(ovtest::PrinterSpec(u"P", {{3, ann}})));
    OVACache cache;
    fIsService = false;
    EXPECT_EQ(cache.AddPrinterToList(u"Q"), 0);
    EXPECT_EQ(cache.DeletePrinterFromList(u"P", 3), 0);
    EXPECT_EQ(cache.MyEnumPrinters(u""), 0u);
    EXPECT_EQ(cache.Repair(), 0);
    EXPECT_TRUE(ovtest::ReadPrinter(u"P"));
    EXPECT_NE(Trace().find("(\"illegal call\", fIsService)"), std::string::npos);
    fIsService = true;
}

// Failures of single spooler calls, injected through the machine's switch.
TEST_F(CacheTest, ReleaseFailuresLeaveTheSpecifiedState) {
    struct Case {
        const char* fault;
        int result;
        bool sessionKept;  // the record still holds session 3
        Ids location;      // the Location field afterwards
        bool printerExists;
        const char* line;
    };
    const Case cases[] = {
        // The Location write fails: the record is restored, nothing changed.
        {"SetPrinterW=1:5",
         0,
         true,
         {3, 5},
         true,
         "Printer Location String can't be set, local entry will not be removed"},
        // The ACL write fails: the release stands.
        {"SetPrinterW=2:5", 1, false, {5}, true, "(\"ACL not been set\", success)"},
    };
    for (const Case& c : cases) {
        const std::u16string name = ovtest::U16(c.fault).substr(0, 13);
        ASSERT_TRUE(ovtest::AddAutocreatedPrinter(ovtest::PrinterSpec(name, {{3, ann}, {5, bob}})));
        OVACache cache;
        cache.AddSessionIDUserName(name, 3, ann);
        cache.AddSessionIDUserName(name, 5, bob);
        platform::machine::SetSetting(
            std::string("fault.") + std::string(c.fault).substr(0, std::string(c.fault).find('=')),
            std::string(c.fault).substr(std::string(c.fault).find('=') + 1));
        EXPECT_EQ(cache.DeletePrinterFromList(name, 3), c.result) << c.fault;
        platform::machine::SetSetting("fault.SetPrinterW", "");
        EXPECT_EQ(cache.Find(name)->HasSession(3), c.sessionKept) << c.fault;
        EXPECT_EQ(LocationOf(name), c.location) << c.fault;
        EXPECT_NE(Trace().find(c.line), std::string::npos) << c.fault;
    }
    // The printer cannot be deleted: it stays, pending, and goes at the
    // next release once the spooler lets it.
    ASSERT_TRUE(ovtest::AddAutocreatedPrinter(ovtest::PrinterSpec(u"Last", {{8, ann}})));
    OVACache cache;
    platform::machine::SetSetting("fault.DeletePrinter", "1:5");
    EXPECT_EQ(cache.DeleteSessionPrinters(u"", 8), 1u);
    EXPECT_TRUE(ovtest::ReadPrinter(u"Last"));
    EXPECT_NE(Trace().find("Printer can't be deleted, local entry will not be removed"),
              std::string::npos);
    EXPECT_EQ(cache.Find(u"Last")->GetRefCount(), 0u);
    EXPECT_EQ(cache.DeleteSessionPrinters(u"", 42), 0u);
    EXPECT_FALSE(ovtest::ReadPrinter(u"Last"));
    EXPECT_EQ(cache.IsPrinterInList(u"Last"), 0);
}

// Malformed and hostile spooler contents get the specified result and no
// other effect.
TEST_F(CacheTest, HostileLocationsAclsAndMappings) {
    std::u16string many;
    for (int id = 1; id <= 10000; ++id) {
        many += ovtest::U16(std::to_string(id)) + u';';
    }
    ovtest::PrinterSpec crowded(u"Crowded", {});
    crowded.location = many;
    crowded.locationGiven = true;
    ASSERT_TRUE(ovtest::AddAutocreatedPrinter(crowded));
    ovtest::PrinterSpec garbage(u"Garbage", {});
    garbage.location = std::u16string(32768, u'x');
    garbage.locationGiven = true;
    ASSERT_TRUE(ovtest::AddAutocreatedPrinter(garbage));
    ASSERT_TRUE(ovtest::AddAutocreatedPrinter(ovtest::PrinterSpec(u"Vanishing", {{3, ann}})));

    OVACache cache;
    EXPECT_EQ(cache.Find(u"Crowded")->GetRefCount(), 10000u);
    EXPECT_EQ(cache.Find(u"Garbage")->GetRefCount(), 0u);
    EXPECT_EQ(cache.DeleteSessionPrinters(u"", 5000), 1u);
    EXPECT_EQ(LocationOf(u"Crowded").size(), 9999u);
    // A pending printer whose Location field is not empty is left alone.
    EXPECT_TRUE(ovtest::ReadPrinter(u"Garbage"));
    EXPECT_NE(Trace().find("Printer <Garbage> with reference count == zero with non empty "
                           "location string"),
              std::string::npos);

    // Deleted behind the service's back: the release fails and changes
    // nothing; the cache keeps the session until a repair.
    {
        const platform::PrinterDefaults all{u"", std::nullopt, platform::PRINTER_ALL_ACCESS};
        const platform::UniquePrinter printer = platform::OpenPrinterW(u"Vanishing", &all);
        ASSERT_TRUE(printer && platform::DeletePrinter(printer.get()));
    }
    EXPECT_EQ(cache.DeletePrinterFromList(u"Vanishing", 3), 0);
    EXPECT_TRUE(cache.Find(u"Vanishing")->HasSession(3));

    // A client's mapping smaller than the record: the copy is refused.
    const platform::UniqueMapping small =
        platform::CreateFileMappingW(nullptr, platform::PAGE_READWRITE, 64, u"small-enum");
    ASSERT_TRUE(small);
    EXPECT_GT(cache.MyEnumPrinters(u""), 64u);
    EXPECT_EQ(cache.MyEnumPrinters(u"small-enum"), 0xFFFFFFFFu);
    EXPECT_EQ(cache.MyEnumPrinters(u"no-such-mapping"), 0xFFFFFFFFu);
}

// ---- access rights ------------------------------------------------------------------

TEST_F(CacheTest, RightsCodesGiveTheirEntriesOnce) {
    struct Case {
        platform::DWORD value;
        std::size_t userEntries;
    };
    for (const Case c : {Case{1, 1}, Case{3, 3}, Case{0, 2}, Case{4, 1}, Case{207, 2}}) {
        ovtest::SetProductDword(u"RightsWin2000", c.value);
        const std::u16string name = u"R" + ovtest::U16(std::to_string(c.value));
        ASSERT_TRUE(ovtest::AddAutocreatedPrinter(ovtest::PrinterSpec(name, {})));
        const auto before = Entries(name);
        ASSERT_EQ(SetPrinterACL(kAclAdd, name, ann), 1);
        const auto once = Entries(name);
        ASSERT_EQ(SetPrinterACL(kAclAdd, name, ann), 1);
        EXPECT_EQ(Entries(name), once) << "added twice";
        EXPECT_EQ(once.size(), before.size() + c.userEntries) << c.value;
        ASSERT_EQ(SetPrinterACL(kAclRemove, name, ann), 1);
        EXPECT_EQ(Entries(name), before) << c.value;
    }
    // SYSTEM is never touched; a missing or invalid setting changes nothing.
    EXPECT_EQ(SetPrinterACL(kAclRemove, u"R1", u"NT AUTHORITY\\system"), 1);
    ovtest::SetProductDword(u"RightsWin2000", 9);
    EXPECT_EQ(SetPrinterACL(kAclAdd, u"R1", ann), 0);
    EXPECT_EQ(QueryAccessRightsFromRegistry(), -8);
    EXPECT_NE(Trace().find("WinPrinter::Set-PrinterACL failed LNUMBER=(319)"), std::string::npos);
}

TEST_F(CacheTest, APrinterWithoutDaclGetsTheDefaultEntriesAndTheUser) {
    ASSERT_TRUE(ovtest::AddAutocreatedPrinter(ovtest::PrinterSpec(u"Open", {})));
    platform::SecurityDescriptor none;
    platform::InitializeSecurityDescriptor(&none, platform::SECURITY_DESCRIPTOR_REVISION);
    std::optional<platform::SecurityDescriptor> made;
    ASSERT_EQ(AddAccessRights(kAclAdd, platform::ToSelfRelative(none), {ann}, &made), 1);
    ASSERT_TRUE(made && made->dacl);
    platform::ACL_SIZE_INFORMATION info;
    ASSERT_TRUE(platform::GetAclInformation(*made->dacl, &info));
    EXPECT_EQ(info.AceCount, 5u);
    std::vector<std::u16string> names;
    platform::UniquePrinter printer;
    EXPECT_EQ(GetUserNamesFromACL(u"Open", &names), 1);
    EXPECT_EQ(names.size(), 2u) << "SYSTEM and Administrators";
}

}  // namespace
}  // namespace ovsvc
