// Printer access for configured users: a user with print rights only may
// queue jobs but not manage the printer; a user the DACL does not name is
// refused; a user may end his own job but not another user's.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/security.h"
#include "spooler_fixture.h"

namespace {

using namespace platform;
using spooltest::Access;
using spooltest::OpenAll;
using spooltest::Poison;

// Acts as an account for the scope; back to the process's own account after.
class ActingAs {
  public:
    explicit ActingAs(const std::u16string& account) { admin::SetProcessAccount(account); }
    ~ActingAs() { admin::SetProcessAccount(u""); }
    ActingAs(const ActingAs&) = delete;
    ActingAs& operator=(const ActingAs&) = delete;
};

class SpoolerAccess : public spooltest::SpoolerTest {
  protected:
    void SetUp() override {
        SpoolerTest::SetUp();
        OVTEST_EMBEDDED_ONLY(
            "adds accounts to the embedded machine's account table and acts as them; a "
            "Windows test program cannot become another user");
        for (const char16_t* name : {u"OVDOMAIN\\jo", u"OVDOMAIN\\ann"}) {
            admin::Account added;
            if (!admin::AddAccount(name, SidTypeUser, {}, &added) &&
                GetLastError() == ERROR_CALL_NOT_IMPLEMENTED) {
                GTEST_SKIP() << "this build has no account table";
            }
            ASSERT_FALSE(added.sid.empty()) << GetLastError();
            sids_.push_back(added.sid);
        }
    }
    void TearDown() override {
        admin::SetProcessAccount(u"");
        SpoolerTest::TearDown();
    }
    // A printer on which SYSTEM and Administrators may do everything and jo
    // may only print.
    void AddPrintOnlyPrinter(const std::u16string& name) {
        Sid system;
        Sid admins;
        ASSERT_TRUE(CreateWellKnownSid(WinLocalSystemSid, &system));
        ASSERT_TRUE(CreateWellKnownSid(WinBuiltinAdministratorsSid, &admins));
        Acl dacl;
        ASSERT_TRUE(InitializeAcl(&dacl, 256, ACL_REVISION));
        ASSERT_TRUE(AddAccessAllowedAce(&dacl, ACL_REVISION, PRINTER_ALL_ACCESS, system));
        ASSERT_TRUE(AddAccessAllowedAce(&dacl, ACL_REVISION, PRINTER_ALL_ACCESS, admins));
        ASSERT_TRUE(AddAccessAllowedAce(&dacl, ACL_REVISION, PRINTER_READ, sids_[0]));
        SecurityDescriptor sd;
        ASSERT_TRUE(InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION));
        ASSERT_TRUE(SetSecurityDescriptorOwner(&sd, &admins, false));
        ASSERT_TRUE(SetSecurityDescriptorDacl(&sd, true, &dacl, false));
        auto info = spooltest::Record(name);
        info.securityDescriptor = ToSelfRelative(sd);
        ASSERT_FALSE(info.securityDescriptor.empty());
        ASSERT_TRUE(AddPrinterW(u"", info)) << GetLastError();
    }
    std::vector<Sid> sids_;
};

TEST_F(SpoolerAccess, PrintOnlyUserQueuesJobsAndOtherUserIsRefused) {
    AddPrintOnlyPrinter(Name(u"Session Printer"));
    {
        ActingAs jo(u"OVDOMAIN\\jo");
        Poison();
        auto printer = OpenPrinterW(Name(u"Session Printer"));
        ASSERT_TRUE(printer);
        EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
        DocInfo1 doc;
        doc.documentName = u"jo's letter";
        const DWORD job = StartDocPrinterW(printer.get(), doc);
        ASSERT_NE(job, 0u);
        EXPECT_TRUE(EndDocPrinter(printer.get()));
        // Printing is all jo may do.
        OVTEST_EXPECT_FAIL(OpenAll(Name(u"Session Printer")), ERROR_ACCESS_DENIED);
    }
    {
        ActingAs ann(u"OVDOMAIN\\ann");
        for (DWORD desired : {DWORD{0}, PRINTER_ACCESS_USE, PRINTER_ALL_ACCESS}) {
            const auto defaults = Access(desired);
            OVTEST_EXPECT_FAIL(OpenPrinterW(Name(u"Session Printer"), &defaults),
                               ERROR_ACCESS_DENIED);
        }
    }
    auto admin = OpenAll(Name(u"Session Printer"));
    auto jobs = EnumJobsW(admin.get(), 0, 10, 1);
    ASSERT_TRUE(jobs && jobs->size() == 1);
    EXPECT_EQ((*jobs)[0].userName, u"OVDOMAIN\\jo");
    EXPECT_EQ((*jobs)[0].document, u"jo's letter");
}

TEST_F(SpoolerAccess, UsersEndTheirOwnJobsOnly) {
    AddPrinter(Name(u"Everyone Prints"));  // the default DACL lets Everyone print
    DWORD joJob = 0;
    {
        ActingAs jo(u"OVDOMAIN\\jo");
        auto printer = OpenPrinterW(Name(u"Everyone Prints"));
        ASSERT_TRUE(printer);
        joJob = StartDocPrinterW(printer.get(), DocInfo1{u"mine", u"", u""});
        ASSERT_NE(joJob, 0u);
        EndDocPrinter(printer.get());
    }
    {
        ActingAs ann(u"OVDOMAIN\\ann");
        auto printer = OpenPrinterW(Name(u"Everyone Prints"));
        ASSERT_TRUE(printer);
        OVTEST_EXPECT_FAIL(SetJobW(printer.get(), joJob, JOB_CONTROL_DELETE), ERROR_ACCESS_DENIED);
    }
    {
        ActingAs jo(u"OVDOMAIN\\jo");
        auto printer = OpenPrinterW(Name(u"Everyone Prints"));
        OVTEST_EXPECT_OK(SetJobW(printer.get(), joJob, JOB_CONTROL_DELETE));
    }
}

TEST_F(SpoolerAccess, OrdinaryUsersCannotChangeTheSpoolersSetup) {
    ActingAs jo(u"OVDOMAIN\\jo");
    OVTEST_EXPECT_FAIL(AddPrinterW(u"", spooltest::Record(Name(u"Jo's Printer"))),
                       ERROR_ACCESS_DENIED);
    OVTEST_EXPECT_FAIL(AddMonitorW(u"", u"Jo's Monitor", u"jo.dll"), ERROR_ACCESS_DENIED);
    OVTEST_EXPECT_FAIL(DeletePrinterDriverExW(u"", u"Windows x64", u"Generic / Text Only", 0, 0),
                       ERROR_ACCESS_DENIED);
    auto xcv = OpenPrinterW(u",XcvMonitor Local Port");
    ASSERT_TRUE(xcv);
    const std::u16string port = u"JO1:";
    DWORD status = 0;
    DWORD needed = 0;
    ASSERT_TRUE(XcvDataW(xcv.get(), u"AddPort", port.c_str(),
                         static_cast<DWORD>((port.size() + 1) * 2), nullptr, 0, &needed, &status));
    EXPECT_EQ(status, ERROR_ACCESS_DENIED);
}

TEST_F(SpoolerAccess, PrinterAddedByAnAdministratorIsOwnedByHim) {
    admin::Account boss;
    const std::u16string groups[] = {u"BUILTIN\\Administrators"};
    ASSERT_TRUE(admin::AddAccount(u"OVDOMAIN\\boss", SidTypeUser, groups, &boss)) << GetLastError();
    {
        ActingAs acting(u"OVDOMAIN\\boss");
        AddPrinter(Name(u"Boss's Printer"));
    }
    auto printer = OpenAll(Name(u"Boss's Printer"));
    PrinterInfo3 info;
    ASSERT_TRUE(GetPrinterW(printer.get(), &info));
    SecurityDescriptor sd;
    ASSERT_TRUE(MakeAbsoluteSD(info.securityDescriptor, &sd));
    const Sid* owner = nullptr;
    bool defaulted = true;
    ASSERT_TRUE(GetSecurityDescriptorOwner(sd, &owner, &defaulted));
    ASSERT_NE(owner, nullptr);
    EXPECT_EQ(*owner, boss.sid);
}

}  // namespace
