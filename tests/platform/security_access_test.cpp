// Access checks of a token against a descriptor: NULL, absent and empty
// DACLs, allow and deny order, inheritance-only entries, the owner's
// implicit rights and group membership.
#include <gtest/gtest.h>

#include "ovtest.h"
#include "security_test_support.h"

using namespace platform;
using sectest::AclOf;
using sectest::kPoison;
using sectest::SidOf;

namespace {

// The printer mapping: read, write and execute all mean "use".
constexpr GENERIC_MAPPING kPrinter{0x00020008, 0x00020008, 0x00020008, 0x000F000C};
constexpr ACCESS_MASK kUse = 0x8;
constexpr ACCESS_MASK kAdminister = 0x4;
constexpr ACCESS_MASK kAll = 0x000F000C;
constexpr BYTE A = ACCESS_ALLOWED_ACE_TYPE;
constexpr BYTE D = ACCESS_DENIED_ACE_TYPE;

// Whose token the rules are checked with: a configured account's (alice, in
// CORP\Printing; bob is the other user) on the embedded machine, or the
// calling process's own on every platform (its user and Everyone are held,
// an unrelated domain user is not). The same rules hold for both.
enum class TokenSource { ConfiguredAccount, OwnProcess };

class SecurityAccessCheck : public ovtest::MachineTest,
                            public ::testing::WithParamInterface<TokenSource> {
  protected:
    void SetUp() override {
        ovtest::MachineTest::SetUp();
        if (GetParam() == TokenSource::OwnProcess) {
            UniqueToken process;
            ASSERT_TRUE(
                OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY | TOKEN_DUPLICATE, &process));
            ASSERT_TRUE(GetTokenUserSid(process.get(), &user_));
            // Windows checks access with an impersonation token: a duplicate is one.
            ASSERT_TRUE(DuplicateToken(process.get(), TOKEN_QUERY, &token_));
            stranger_ = SidOf(u"S-1-5-21-10-20-30-1002");
            return;
        }
        OVTEST_EMBEDDED_ONLY("tokens for configured accounts come from the account table");
        ASSERT_TRUE(admin::AddAccount(u"CORP\\Printing", SidTypeGroup, {}, &printing_));
        const std::u16string groups[] = {u"CORP\\Printing"};
        admin::Account alice;
        admin::Account bob;
        ASSERT_TRUE(admin::AddAccount(u"CORP\\alice", SidTypeUser, groups, &alice));
        ASSERT_TRUE(admin::AddAccount(u"CORP\\bob", SidTypeUser, {}, &bob));
        ASSERT_TRUE(admin::CreateTokenForAccount(u"CORP\\alice", 1, &token_));
        ASSERT_TRUE(admin::CreateTokenForAccount(u"CORP\\bob", 2, &strangerToken_));
        user_ = alice.sid;
        stranger_ = bob.sid;
        admin::SetProcessAccount(u"CORP\\alice");
    }
    void TearDown() override {
        if (GetParam() == TokenSource::ConfiguredAccount) {
            admin::SetProcessAccount(u"");
        }
        ovtest::MachineTest::TearDown();
    }

    static SecurityDescriptor With(const Acl* dacl, bool present = true) {
        SecurityDescriptor sd;
        InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION);
        if (present) {
            SetSecurityDescriptorDacl(&sd, true, dacl, false);
        }
        return sd;
    }

    // Granted rights, or 0 when refused (and then the last error is 5).
    static ACCESS_MASK Check(const SecurityDescriptor& sd, HANDLE token, ACCESS_MASK desired) {
        ACCESS_MASK granted = 0xFFFFFFFF;
        bool status = false;
        SetLastError(kPoison);
        EXPECT_TRUE(AccessCheck(sd, token, desired, kPrinter, nullptr, nullptr, &granted, &status));
        if (!status) {
            EXPECT_EQ(granted, 0u);
            EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
        }
        return status ? granted : 0;
    }
    ACCESS_MASK Check(const SecurityDescriptor& sd, ACCESS_MASK desired) const {
        return Check(sd, token_.get(), desired);
    }

    const Sid everyone_ = SidOf(u"S-1-1-0");
    Sid user_;
    Sid stranger_;
    UniqueToken token_;
    UniqueToken strangerToken_;  // configured accounts only
    admin::Account printing_;    // configured accounts only
};

INSTANTIATE_TEST_SUITE_P(Tokens, SecurityAccessCheck,
                         ::testing::Values(TokenSource::ConfiguredAccount, TokenSource::OwnProcess),
                         [](const ::testing::TestParamInfo<TokenSource>& token) {
                             return token.param == TokenSource::OwnProcess ? "OwnProcess"
                                                                           : "ConfiguredAccount";
                         });

TEST_P(SecurityAccessCheck, NullAbsentAndEmptyDacls) {
    EXPECT_EQ(Check(With(nullptr), kAll), kAll) << "NULL DACL grants all";
    EXPECT_EQ(Check(With(nullptr, false), kAll), kAll) << "no DACL grants all";
    Acl empty;
    ASSERT_TRUE(InitializeAcl(&empty, 8, ACL_REVISION));
    EXPECT_EQ(Check(With(&empty), kUse), 0u) << "an empty DACL grants nothing";
}

TEST_P(SecurityAccessCheck, PrintRightsForOneUserOnly) {
    const Acl mine = AclOf({{A, 0, 0x00020008, user_}});
    EXPECT_EQ(Check(With(&mine), kUse), kUse);
    EXPECT_EQ(Check(With(&mine), kUse | READ_CONTROL), kUse | READ_CONTROL);
    EXPECT_EQ(Check(With(&mine), kAll), 0u) << "all of it, or nothing";
    const Acl theirs = AclOf({{A, 0, kAll, stranger_}});
    EXPECT_EQ(Check(With(&theirs), kUse), 0u);
    const Acl everybody = AclOf({{A, 0, kUse, everyone_}});
    EXPECT_EQ(Check(With(&everybody), kUse), kUse) << "through the Everyone group";
}

TEST_P(SecurityAccessCheck, DenyTakesEffectInOrder) {
    const Acl denyFirst = AclOf({{D, 0, kUse, user_}, {A, 0, kAll, everyone_}});
    EXPECT_EQ(Check(With(&denyFirst), kUse), 0u);
    EXPECT_EQ(Check(With(&denyFirst), kAdminister), kAdminister)
        << "only the denied right is refused";
    const Acl allowFirst = AclOf({{A, 0, kUse, everyone_}, {D, 0, kUse, user_}});
    EXPECT_EQ(Check(With(&allowFirst), kUse), kUse) << "a grant before the deny has given it";
    const Acl strangerDenied = AclOf({{D, 0, kUse, stranger_}, {A, 0, kUse, everyone_}});
    EXPECT_EQ(Check(With(&strangerDenied), kUse), kUse);
}

TEST_P(SecurityAccessCheck, InheritOnlyEntriesDoNotApply) {
    const Acl dacl = AclOf({{A, OBJECT_INHERIT_ACE | INHERIT_ONLY_ACE, GENERIC_ALL, user_},
                            {D, CONTAINER_INHERIT_ACE | INHERIT_ONLY_ACE, kAdminister, user_},
                            {A, CONTAINER_INHERIT_ACE, kUse | kAdminister, user_}});
    EXPECT_EQ(Check(With(&dacl), kAll), 0u);
    EXPECT_EQ(Check(With(&dacl), kUse | kAdminister), kUse | kAdminister);
}

TEST_P(SecurityAccessCheck, GenericRightsInEntriesAreMapped) {
    const Acl dacl = AclOf({{A, 0, GENERIC_ALL, user_}});
    EXPECT_EQ(Check(With(&dacl), kAll), kAll);
    ACCESS_MASK granted = 0;
    bool status = true;
    OVTEST_EXPECT_FAIL(AccessCheck(With(&dacl), token_.get(), GENERIC_READ, kPrinter, nullptr,
                                   nullptr, &granted, &status),
                       ERROR_GENERIC_NOT_MAPPED);
}

TEST_P(SecurityAccessCheck, OwnerMayReadAndChangeTheDacl) {
    Acl empty;
    ASSERT_TRUE(InitializeAcl(&empty, 8, ACL_REVISION));
    SecurityDescriptor sd = With(&empty);
    ASSERT_TRUE(SetSecurityDescriptorOwner(&sd, &user_, false));
    ASSERT_TRUE(SetSecurityDescriptorGroup(&sd, &user_, false));
    EXPECT_EQ(Check(sd, READ_CONTROL | WRITE_DAC), READ_CONTROL | WRITE_DAC);
    EXPECT_EQ(Check(sd, kUse), 0u);
    ASSERT_TRUE(SetSecurityDescriptorOwner(&sd, &stranger_, false));
    EXPECT_EQ(Check(sd, READ_CONTROL), 0u) << "only the owner";
}

TEST_P(SecurityAccessCheck, MaximumAllowed) {
    const Acl dacl = AclOf(
        {{D, 0, kAdminister, user_}, {A, 0, kUse | READ_CONTROL, user_}, {A, 0, kAll, everyone_}});
    EXPECT_EQ(Check(With(&dacl), MAXIMUM_ALLOWED), kAll & ~kAdminister);
    const Acl theirs = AclOf({{A, 0, kAll, stranger_}});
    EXPECT_EQ(Check(With(&theirs), MAXIMUM_ALLOWED), 0u);
}

TEST_P(SecurityAccessCheck, ArgumentErrors) {
    const SecurityDescriptor sd = With(nullptr);
    ACCESS_MASK granted = 0;
    bool status = false;
    OVTEST_EXPECT_FAIL(
        AccessCheck(sd, nullptr, kUse, kPrinter, nullptr, nullptr, &granted, &status),
        ERROR_INVALID_HANDLE);
    SecurityDescriptor uninitialised;
    OVTEST_EXPECT_FAIL(AccessCheck(uninitialised, token_.get(), kUse, kPrinter, nullptr, nullptr,
                                   &granted, &status),
                       ERROR_INVALID_SECURITY_DESCR);
    PRIVILEGE_SET privileges;
    DWORD length = 0;
    OVTEST_EXPECT_FAIL(
        AccessCheck(sd, token_.get(), kUse, kPrinter, &privileges, &length, &granted, &status),
        ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(length, sizeof(PRIVILEGE_SET));
    EXPECT_TRUE(
        AccessCheck(sd, token_.get(), kUse, kPrinter, &privileges, &length, &granted, &status));
    EXPECT_TRUE(status);
    EXPECT_EQ(privileges.PrivilegeCount, 0u);
}

// The current process's check uses its account (alice's, or the process's
// own), with generic rights mapped first.
TEST_P(SecurityAccessCheck, CurrentProcessCheck) {
    const Acl dacl = AclOf({{A, 0, 0x00020008, user_}});
    ACCESS_MASK granted = 0;
    SetLastError(kPoison);
    EXPECT_TRUE(CheckCurrentProcessAccess(With(&dacl), GENERIC_READ, kPrinter, &granted));
    EXPECT_EQ(granted, 0x00020008u);
    OVTEST_EXPECT_FAIL(CheckCurrentProcessAccess(With(&dacl), kAll, kPrinter, &granted),
                       ERROR_ACCESS_DENIED);
    const Acl theirs = AclOf({{A, 0, kAll, stranger_}});
    OVTEST_EXPECT_FAIL(CheckCurrentProcessAccess(With(&theirs), kUse, kPrinter, &granted),
                       ERROR_ACCESS_DENIED);
}

// What only configured accounts show: group membership, the other user's
// own token, and the local system through Administrators.
using SecurityAccessCheckAccounts = SecurityAccessCheck;
INSTANTIATE_TEST_SUITE_P(Tokens, SecurityAccessCheckAccounts,
                         ::testing::Values(TokenSource::ConfiguredAccount));

TEST_P(SecurityAccessCheckAccounts, GroupsOtherUsersAndTheSystem) {
    const Acl group = AclOf({{A, 0, kUse, printing_.sid}});
    EXPECT_EQ(Check(With(&group), kUse), kUse);
    EXPECT_EQ(Check(With(&group), strangerToken_.get(), kUse), 0u);
    const Acl users = AclOf({{A, 0, kUse, SidOf(u"S-1-5-32-545")}});
    EXPECT_EQ(Check(With(&users), strangerToken_.get(), kUse), kUse) << "every user is in Users";
    const Acl admins = AclOf({{A, 0, kUse, user_}, {A, 0, kAll, SidOf(u"S-1-5-32-544")}});
    UniqueToken system;
    ASSERT_TRUE(admin::CreateTokenForAccount(u"NT AUTHORITY\\SYSTEM", 0, &system));
    EXPECT_EQ(Check(With(&admins), system.get(), kAll), kAll) << "through Administrators";
    EXPECT_EQ(Check(With(&admins), strangerToken_.get(), kUse), 0u);
}

}  // namespace
