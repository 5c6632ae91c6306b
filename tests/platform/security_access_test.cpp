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

// Tokens of configured users, alice (in CORP\Printing) and bob.
class SecurityAccessCheck : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        ovtest::MachineTest::SetUp();
        OVTEST_EMBEDDED_ONLY("tokens for configured accounts come from the account table");
        ASSERT_TRUE(AddAccount(u"CORP\\Printing", SidTypeGroup, {}, &printing_));
        const std::u16string groups[] = {u"CORP\\Printing"};
        ASSERT_TRUE(AddAccount(u"CORP\\alice", SidTypeUser, groups, &alice_));
        ASSERT_TRUE(AddAccount(u"CORP\\bob", SidTypeUser, {}, &bob_));
        ASSERT_TRUE(CreateTokenForAccount(u"CORP\\alice", 1, &aliceToken_));
        ASSERT_TRUE(CreateTokenForAccount(u"CORP\\bob", 2, &bobToken_));
    }
    void TearDown() override {
        SetProcessAccount(u"");
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

    Account printing_;
    Account alice_;
    Account bob_;
    UniqueToken aliceToken_;
    UniqueToken bobToken_;
};

TEST_F(SecurityAccessCheck, NullAbsentAndEmptyDacls) {
    EXPECT_EQ(Check(With(nullptr), aliceToken_.get(), kAll), kAll) << "NULL DACL grants all";
    EXPECT_EQ(Check(With(nullptr, false), aliceToken_.get(), kAll), kAll) << "no DACL grants all";
    Acl empty;
    ASSERT_TRUE(InitializeAcl(&empty, 8, ACL_REVISION));
    EXPECT_EQ(Check(With(&empty), aliceToken_.get(), kUse), 0u) << "an empty DACL grants nothing";
    EXPECT_EQ(Check(With(&empty), aliceToken_.get(), 0), 0u) << "not even nothing";
}

TEST_F(SecurityAccessCheck, PrintRightsForOneUserOnly) {
    const Acl dacl = AclOf({{A, 0, 0x00020008, alice_.sid}, {A, 0, kAll, SidOf(u"S-1-5-32-544")}});
    const SecurityDescriptor sd = With(&dacl);
    EXPECT_EQ(Check(sd, aliceToken_.get(), kUse), kUse);
    EXPECT_EQ(Check(sd, aliceToken_.get(), kUse | READ_CONTROL), kUse | READ_CONTROL);
    EXPECT_EQ(Check(sd, aliceToken_.get(), kAll), 0u) << "all of it, or nothing";
    EXPECT_EQ(Check(sd, bobToken_.get(), kUse), 0u);
    UniqueToken system;
    ASSERT_TRUE(CreateTokenForAccount(u"NT AUTHORITY\\SYSTEM", 0, &system));
    EXPECT_EQ(Check(sd, system.get(), kAll), kAll) << "through Administrators";
}

TEST_F(SecurityAccessCheck, DenyTakesEffectInOrder) {
    const Acl denyFirst = AclOf({{D, 0, kUse, alice_.sid}, {A, 0, kAll, SidOf(u"S-1-1-0")}});
    EXPECT_EQ(Check(With(&denyFirst), aliceToken_.get(), kUse), 0u);
    EXPECT_EQ(Check(With(&denyFirst), aliceToken_.get(), kAdminister), kAdminister)
        << "only the denied right is refused";
    EXPECT_EQ(Check(With(&denyFirst), bobToken_.get(), kUse), kUse);
    // A grant before the deny has already given the right.
    const Acl allowFirst = AclOf({{A, 0, kUse, SidOf(u"S-1-1-0")}, {D, 0, kUse, alice_.sid}});
    EXPECT_EQ(Check(With(&allowFirst), aliceToken_.get(), kUse), kUse);
}

TEST_F(SecurityAccessCheck, InheritOnlyEntriesDoNotApply) {
    const Acl dacl = AclOf({{A, OBJECT_INHERIT_ACE | INHERIT_ONLY_ACE, GENERIC_ALL, alice_.sid},
                            {D, CONTAINER_INHERIT_ACE | INHERIT_ONLY_ACE, kUse, bob_.sid},
                            {A, CONTAINER_INHERIT_ACE, kUse, bob_.sid}});
    EXPECT_EQ(Check(With(&dacl), aliceToken_.get(), kUse), 0u);
    EXPECT_EQ(Check(With(&dacl), bobToken_.get(), kUse), kUse);
}

TEST_F(SecurityAccessCheck, GenericRightsInEntriesAreMapped) {
    const Acl dacl = AclOf({{A, 0, GENERIC_ALL, alice_.sid}});
    EXPECT_EQ(Check(With(&dacl), aliceToken_.get(), kAll), kAll);
    ACCESS_MASK granted = 0;
    bool status = true;
    SetLastError(kPoison);
    EXPECT_FALSE(AccessCheck(With(&dacl), aliceToken_.get(), GENERIC_READ, kPrinter, nullptr,
                             nullptr, &granted, &status));
    EXPECT_EQ(GetLastError(), ERROR_GENERIC_NOT_MAPPED);
}

TEST_F(SecurityAccessCheck, OwnerMayReadAndChangeTheDacl) {
    Acl empty;
    ASSERT_TRUE(InitializeAcl(&empty, 8, ACL_REVISION));
    SecurityDescriptor sd = With(&empty);
    ASSERT_TRUE(SetSecurityDescriptorOwner(&sd, &alice_.sid, false));
    EXPECT_EQ(Check(sd, aliceToken_.get(), READ_CONTROL | WRITE_DAC), READ_CONTROL | WRITE_DAC);
    EXPECT_EQ(Check(sd, aliceToken_.get(), WRITE_OWNER), 0u);
    EXPECT_EQ(Check(sd, aliceToken_.get(), kUse), 0u);
    EXPECT_EQ(Check(sd, bobToken_.get(), READ_CONTROL), 0u);
}

TEST_F(SecurityAccessCheck, GroupMembershipGrants) {
    const Acl dacl = AclOf({{A, 0, kUse, printing_.sid}});
    EXPECT_EQ(Check(With(&dacl), aliceToken_.get(), kUse), kUse);
    EXPECT_EQ(Check(With(&dacl), bobToken_.get(), kUse), 0u);
    const Acl users = AclOf({{A, 0, kUse, SidOf(u"S-1-5-32-545")}});
    EXPECT_EQ(Check(With(&users), bobToken_.get(), kUse), kUse) << "every user is in Users";
}

TEST_F(SecurityAccessCheck, MaximumAllowed) {
    const Acl dacl = AclOf({{D, 0, kAdminister, alice_.sid},
                            {A, 0, kUse | READ_CONTROL, alice_.sid},
                            {A, 0, kAll, printing_.sid}});
    EXPECT_EQ(Check(With(&dacl), aliceToken_.get(), MAXIMUM_ALLOWED), kAll & ~kAdminister);
    EXPECT_EQ(Check(With(&dacl), bobToken_.get(), MAXIMUM_ALLOWED), 0u);
}

TEST_F(SecurityAccessCheck, ArgumentErrors) {
    const SecurityDescriptor sd = With(nullptr);
    ACCESS_MASK granted = 0;
    bool status = false;
    SetLastError(kPoison);
    EXPECT_FALSE(AccessCheck(sd, nullptr, kUse, kPrinter, nullptr, nullptr, &granted, &status));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    SecurityDescriptor uninitialised;
    SetLastError(kPoison);
    EXPECT_FALSE(AccessCheck(uninitialised, aliceToken_.get(), kUse, kPrinter, nullptr, nullptr,
                             &granted, &status));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_SECURITY_DESCR);
    PRIVILEGE_SET privileges;
    DWORD length = 0;
    SetLastError(kPoison);
    EXPECT_FALSE(AccessCheck(sd, aliceToken_.get(), kUse, kPrinter, &privileges, &length, &granted,
                             &status));
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(length, sizeof(PRIVILEGE_SET));
    EXPECT_TRUE(AccessCheck(sd, aliceToken_.get(), kUse, kPrinter, &privileges, &length, &granted,
                            &status));
    EXPECT_TRUE(status);
}

TEST_F(SecurityAccessCheck, CurrentProcessCheckUsesItsAccount) {
    const Acl dacl = AclOf({{A, 0, 0x00020008, alice_.sid}});
    SetProcessAccount(u"CORP\\alice");
    ACCESS_MASK granted = 0;
    EXPECT_TRUE(CheckCurrentProcessAccess(With(&dacl), GENERIC_READ, kPrinter, &granted))
        << "generic rights are mapped first";
    EXPECT_EQ(granted, 0x00020008u);
    EXPECT_FALSE(CheckCurrentProcessAccess(With(&dacl), kAll, kPrinter, &granted));
    SetProcessAccount(u"CORP\\bob");
    SetLastError(kPoison);
    EXPECT_FALSE(CheckCurrentProcessAccess(With(&dacl), kUse, kPrinter, &granted));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
}

// The same rules checked with the calling process's own token, on every
// platform: its user and Everyone are held, an unrelated domain user is not.
class SecurityAccessCheckOwnToken : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        ovtest::MachineTest::SetUp();
        UniqueToken process;
        ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY | TOKEN_DUPLICATE, &process));
        ASSERT_TRUE(GetTokenUserSid(process.get(), &user_));
        // Windows checks access with an impersonation token: a duplicate is one.
        ASSERT_TRUE(DuplicateToken(process.get(), TOKEN_QUERY, &token_));
    }

    static SecurityDescriptor With(const Acl* dacl) {
        SecurityDescriptor sd;
        InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION);
        SetSecurityDescriptorDacl(&sd, true, dacl, false);
        return sd;
    }

    // Granted rights, or 0 when refused (and then the last error is 5).
    ACCESS_MASK Check(const SecurityDescriptor& sd, ACCESS_MASK desired) const {
        ACCESS_MASK granted = 0xFFFFFFFF;
        bool status = false;
        SetLastError(kPoison);
        EXPECT_TRUE(
            AccessCheck(sd, token_.get(), desired, kPrinter, nullptr, nullptr, &granted, &status));
        if (!status) {
            EXPECT_EQ(granted, 0u);
            EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
        }
        return status ? granted : 0;
    }

    const Sid everyone_ = SidOf(u"S-1-1-0");
    const Sid stranger_ = SidOf(u"S-1-5-21-10-20-30-1002");
    Sid user_;
    UniqueToken token_;
};

TEST_F(SecurityAccessCheckOwnToken, NullAndEmptyDacls) {
    EXPECT_EQ(Check(With(nullptr), kAll), kAll) << "NULL DACL grants all";
    SecurityDescriptor none;
    ASSERT_TRUE(InitializeSecurityDescriptor(&none, SECURITY_DESCRIPTOR_REVISION));
    EXPECT_EQ(Check(none, kAll), kAll) << "no DACL grants all";
    Acl empty;
    ASSERT_TRUE(InitializeAcl(&empty, 8, ACL_REVISION));
    EXPECT_EQ(Check(With(&empty), kUse), 0u) << "an empty DACL grants nothing";
}

TEST_F(SecurityAccessCheckOwnToken, UserAndStranger) {
    const Acl mine = AclOf({{A, 0, 0x00020008, user_}});
    EXPECT_EQ(Check(With(&mine), kUse), kUse);
    EXPECT_EQ(Check(With(&mine), kUse | READ_CONTROL), kUse | READ_CONTROL);
    EXPECT_EQ(Check(With(&mine), kAll), 0u) << "all of it, or nothing";
    const Acl theirs = AclOf({{A, 0, kAll, stranger_}});
    EXPECT_EQ(Check(With(&theirs), kUse), 0u);
    const Acl everybody = AclOf({{A, 0, kUse, everyone_}});
    EXPECT_EQ(Check(With(&everybody), kUse), kUse) << "through the Everyone group";
}

TEST_F(SecurityAccessCheckOwnToken, DenyTakesEffectInOrder) {
    const Acl denyFirst = AclOf({{D, 0, kUse, user_}, {A, 0, kAll, everyone_}});
    EXPECT_EQ(Check(With(&denyFirst), kUse), 0u);
    EXPECT_EQ(Check(With(&denyFirst), kAdminister), kAdminister)
        << "only the denied right is refused";
    const Acl allowFirst = AclOf({{A, 0, kUse, everyone_}, {D, 0, kUse, user_}});
    EXPECT_EQ(Check(With(&allowFirst), kUse), kUse) << "a grant before the deny has given it";
    const Acl strangerDenied = AclOf({{D, 0, kUse, stranger_}, {A, 0, kUse, everyone_}});
    EXPECT_EQ(Check(With(&strangerDenied), kUse), kUse);
}

TEST_F(SecurityAccessCheckOwnToken, InheritOnlyEntriesDoNotApply) {
    const Acl dacl = AclOf({{A, OBJECT_INHERIT_ACE | INHERIT_ONLY_ACE, GENERIC_ALL, user_},
                            {D, CONTAINER_INHERIT_ACE | INHERIT_ONLY_ACE, kAdminister, user_},
                            {A, CONTAINER_INHERIT_ACE, kUse | kAdminister, user_}});
    EXPECT_EQ(Check(With(&dacl), kAll), 0u);
    EXPECT_EQ(Check(With(&dacl), kUse | kAdminister), kUse | kAdminister);
}

TEST_F(SecurityAccessCheckOwnToken, GenericRightsInEntriesAreMapped) {
    const Acl dacl = AclOf({{A, 0, GENERIC_ALL, user_}});
    EXPECT_EQ(Check(With(&dacl), kAll), kAll);
    ACCESS_MASK granted = 0;
    bool status = true;
    SetLastError(kPoison);
    EXPECT_FALSE(AccessCheck(With(&dacl), token_.get(), GENERIC_READ, kPrinter, nullptr, nullptr,
                             &granted, &status));
    EXPECT_EQ(GetLastError(), ERROR_GENERIC_NOT_MAPPED);
}

TEST_F(SecurityAccessCheckOwnToken, OwnerMayReadAndChangeTheDacl) {
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

TEST_F(SecurityAccessCheckOwnToken, MaximumAllowed) {
    const Acl dacl = AclOf(
        {{D, 0, kAdminister, user_}, {A, 0, kUse | READ_CONTROL, user_}, {A, 0, kAll, everyone_}});
    EXPECT_EQ(Check(With(&dacl), MAXIMUM_ALLOWED), kAll & ~kAdminister);
    const Acl theirs = AclOf({{A, 0, kAll, stranger_}});
    EXPECT_EQ(Check(With(&theirs), MAXIMUM_ALLOWED), 0u);
}

TEST_F(SecurityAccessCheckOwnToken, ArgumentErrors) {
    const SecurityDescriptor sd = With(nullptr);
    ACCESS_MASK granted = 0;
    bool status = false;
    SetLastError(kPoison);
    EXPECT_FALSE(AccessCheck(sd, nullptr, kUse, kPrinter, nullptr, nullptr, &granted, &status));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    SecurityDescriptor uninitialised;
    SetLastError(kPoison);
    EXPECT_FALSE(AccessCheck(uninitialised, token_.get(), kUse, kPrinter, nullptr, nullptr,
                             &granted, &status));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_SECURITY_DESCR);
    PRIVILEGE_SET privileges;
    DWORD length = 0;
    SetLastError(kPoison);
    EXPECT_FALSE(
        AccessCheck(sd, token_.get(), kUse, kPrinter, &privileges, &length, &granted, &status));
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(length, sizeof(PRIVILEGE_SET));
    EXPECT_TRUE(
        AccessCheck(sd, token_.get(), kUse, kPrinter, &privileges, &length, &granted, &status));
    EXPECT_TRUE(status);
    EXPECT_EQ(privileges.PrivilegeCount, 0u);
}

TEST_F(SecurityAccessCheckOwnToken, CurrentProcessCheck) {
    const Acl dacl = AclOf({{A, 0, 0x00020008, user_}});
    ACCESS_MASK granted = 0;
    SetLastError(kPoison);
    EXPECT_TRUE(CheckCurrentProcessAccess(With(&dacl), GENERIC_READ, kPrinter, &granted))
        << "generic rights are mapped first";
    EXPECT_EQ(granted, 0x00020008u);
    SetLastError(kPoison);
    EXPECT_FALSE(CheckCurrentProcessAccess(With(&dacl), kAll, kPrinter, &granted));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    const Acl theirs = AclOf({{A, 0, kAll, stranger_}});
    SetLastError(kPoison);
    EXPECT_FALSE(CheckCurrentProcessAccess(With(&theirs), kUse, kPrinter, &granted));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
}

}  // namespace
