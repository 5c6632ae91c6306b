// The account table: well-known principals, configured users and groups,
// and the two-call look-ups by name and by SID.
#include <gtest/gtest.h>

#include <set>

#include "ovtest.h"
#include "platform/machine.h"
#include "security_test_support.h"

using namespace platform;
using sectest::kPoison;
using sectest::SidOf;

namespace {

class SecurityAccounts : public ovtest::MachineTest {};

// The account table the embedded machine keeps: adding users and groups,
// memberships, deletion and listing.
class SecurityAccountTable : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        ovtest::MachineTest::SetUp();
        OVTEST_EMBEDDED_ONLY("Windows administers its own accounts");
    }
};

struct Named {
    Sid sid;
    std::u16string domain;
    SID_NAME_USE use = SidTypeInvalid;
};

Named LookUp(const std::u16string& name) {
    std::vector<std::byte> sid(SECURITY_MAX_SID_SIZE);
    char16_t domain[64] = {};
    DWORD sidSize = SECURITY_MAX_SID_SIZE;
    DWORD domainLength = 64;
    SID_NAME_USE use = SidTypeInvalid;
    Named out;
    if (LookupAccountNameW(u"", name, sid.data(), &sidSize, domain, &domainLength, &use)) {
        out = {Sid::FromBytes(sid.data(), sidSize), std::u16string(domain, domainLength), use};
    }
    return out;
}

TEST_F(SecurityAccounts, WellKnownNames) {
    const struct {
        const char16_t* name;
        const char16_t* sid;
        const char16_t* domain;
        SID_NAME_USE use;
    } cases[] = {
        {u"NT AUTHORITY\\SYSTEM", u"S-1-5-18", u"NT AUTHORITY", SidTypeWellKnownGroup},
        {u"SYSTEM", u"S-1-5-18", u"NT AUTHORITY", SidTypeWellKnownGroup},
        {u"Everyone", u"S-1-1-0", u"", SidTypeWellKnownGroup},
        {u"CREATOR OWNER", u"S-1-3-0", u"", SidTypeWellKnownGroup},
        {u"BUILTIN\\Administrators", u"S-1-5-32-544", u"BUILTIN", SidTypeAlias},
        {u"builtin\\USERS", u"S-1-5-32-545", u"BUILTIN", SidTypeAlias},
        {u"Power Users", u"S-1-5-32-547", u"BUILTIN", SidTypeAlias},
        {u"Print Operators", u"S-1-5-32-550", u"BUILTIN", SidTypeAlias},
        {u"INTERACTIVE", u"S-1-5-4", u"NT AUTHORITY", SidTypeWellKnownGroup},
        {u"NETWORK", u"S-1-5-2", u"NT AUTHORITY", SidTypeWellKnownGroup},
        {u"Authenticated Users", u"S-1-5-11", u"NT AUTHORITY", SidTypeWellKnownGroup},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(ovtest::U8(c.name));
        const Named n = LookUp(c.name);
        EXPECT_EQ(n.sid, SidOf(c.sid));
        EXPECT_EQ(n.domain, c.domain);
        EXPECT_EQ(n.use, c.use);
    }
}

TEST_F(SecurityAccounts, TheComputersAdministrator) {
    OVTEST_SKIP_UNDER_WINE("it has no built-in Administrator account");
    const Named admin = LookUp(GetComputerNameW() + u"\\Administrator");
    EXPECT_EQ(admin.use, SidTypeUser);
    ASSERT_FALSE(admin.sid.empty());
    EXPECT_EQ(GetSidSubAuthority(admin.sid, GetSidSubAuthorityCount(admin.sid) - 1), 500u);
}

TEST_F(SecurityAccounts, RecordsByNameAndBySid) {
    admin::Account users;
    SetLastError(kPoison);
    ASSERT_TRUE(admin::FindAccountByName(u"builtin\\users", &users));
    EXPECT_EQ(users.FullName(), u"BUILTIN\\Users") << "spelled as the system spells it";
    EXPECT_EQ(users.sid, SidOf(u"S-1-5-32-545"));
    EXPECT_EQ(users.use, SidTypeAlias);
    admin::Account system;
    ASSERT_TRUE(admin::FindAccountBySid(SidOf(u"S-1-5-18"), &system));
    EXPECT_EQ(system.FullName(), u"NT AUTHORITY\\SYSTEM");
    admin::Account everyone;
    ASSERT_TRUE(admin::FindAccountByName(u"Everyone", &everyone));
    EXPECT_EQ(everyone.FullName(), u"Everyone") << "no domain";
    EXPECT_EQ(everyone.sid, SidOf(u"S-1-1-0"));

    admin::Account untouched = system;
    OVTEST_EXPECT_FAIL(admin::FindAccountByName(u"NOWHERE\\nobody", &untouched), ERROR_NONE_MAPPED);
    OVTEST_EXPECT_FAIL(admin::FindAccountBySid(SidOf(u"S-1-5-21-9-9-9-4242"), &untouched),
                       ERROR_NONE_MAPPED);
    OVTEST_EXPECT_FAIL(admin::FindAccountBySid(Sid{}, &untouched), ERROR_INVALID_SID);
    EXPECT_EQ(untouched.FullName(), u"NT AUTHORITY\\SYSTEM");
}

TEST_F(SecurityAccounts, TheEmbeddedMachinesNames) {
    OVTEST_EMBEDDED_ONLY("the computer and domain names are machine.conf settings");
    EXPECT_EQ(GetComputerNameW(), u"OVSERVER");
    EXPECT_EQ(DefaultDomainName(), u"OVDOMAIN");
    // An empty name names no account here (Windows answers with a domain).
    DWORD sidSize = 0;
    DWORD domainLength = 0;
    SID_NAME_USE use = SidTypeInvalid;
    OVTEST_EXPECT_FAIL(
        LookupAccountNameW(u"", u"", nullptr, &sidSize, nullptr, &domainLength, &use),
        ERROR_NONE_MAPPED);
}

TEST_F(SecurityAccounts, ComputerName) {
    const std::u16string name = GetComputerNameW();
    ASSERT_FALSE(name.empty());
    EXPECT_LE(name.size(), 15u) << "a NetBIOS name";
    EXPECT_FALSE(DefaultDomainName().empty());
}

TEST_F(SecurityAccounts, AccountAdministrationIsNotOffered) {
    if (!ovtest::IsWin32Platform()) {
        GTEST_SKIP() << "the embedded machine keeps an account table";
    }
    const std::u16string groups[] = {u"BUILTIN\\Users"};
    admin::Account added;
    OVTEST_EXPECT_FAIL(admin::AddAccount(u"OVTEST\\nobody", SidTypeUser, groups, &added),
                       ERROR_NOT_SUPPORTED);
    OVTEST_EXPECT_FAIL(admin::AddGroupMember(u"BUILTIN\\Users", u"NT AUTHORITY\\SYSTEM"),
                       ERROR_NOT_SUPPORTED);
    OVTEST_EXPECT_FAIL(admin::DeleteAccount(u"BUILTIN\\Users"), ERROR_NOT_SUPPORTED);
    std::vector<admin::Account> all;
    OVTEST_EXPECT_FAIL(admin::EnumAccounts(&all), ERROR_NOT_SUPPORTED);
    UniqueToken token;
    OVTEST_EXPECT_FAIL(admin::CreateTokenForAccount(u"NT AUTHORITY\\SYSTEM", 0, &token),
                       ERROR_NOT_SUPPORTED);
    EXPECT_FALSE(token.valid());
    admin::Account users;
    EXPECT_TRUE(admin::FindAccountByName(u"BUILTIN\\Users", &users)) << "look-ups still work";
}

TEST_F(SecurityAccounts, LookupAccountNameSizeProtocol) {
    const std::u16string name = u"NT AUTHORITY\\SYSTEM";  // SID 12 bytes, domain 12 characters
    DWORD sidSize = 0;
    DWORD domainLength = 0;
    SID_NAME_USE use = SidTypeInvalid;
    OVTEST_EXPECT_FAIL(
        LookupAccountNameW(u"", name, nullptr, &sidSize, nullptr, &domainLength, &use),
        ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(sidSize, 12u);
    EXPECT_EQ(domainLength, 13u) << "the size asked for includes the terminator";

    std::vector<std::byte> sid(16, std::byte{0xCC});
    std::u16string domain(16, u'#');
    const auto probe = [&](DWORD sidIn, DWORD domainIn) {
        sidSize = sidIn;
        domainLength = domainIn;
        SetLastError(kPoison);
        return LookupAccountNameW(u"", name, sid.data(), &sidSize, domain.data(), &domainLength,
                                  &use);
    };
    EXPECT_FALSE(probe(11, 13));
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(sidSize, 12u);
    EXPECT_EQ(domainLength, 13u);
    EXPECT_EQ(sid[0], std::byte{0xCC}) << "nothing written on a short buffer";
    EXPECT_FALSE(probe(12, 12)) << "no room for the terminator";
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(sidSize, 12u);
    EXPECT_EQ(domainLength, 13u);
    if (!ovtest::UnderWine()) {  // Wine writes the SID when only the domain is short
        EXPECT_EQ(sid[0], std::byte{0xCC}) << "nothing written on a short buffer";
    }

    ASSERT_TRUE(probe(12, 13));
    EXPECT_EQ(sidSize, 12u);
    EXPECT_EQ(domainLength, 12u) << "on success the length excludes the terminator";
    EXPECT_EQ(domain.substr(0, 13), std::u16string(u"NT AUTHORITY\0", 13));
    EXPECT_EQ(Sid::FromBytes(sid.data(), sidSize), SidOf(u"S-1-5-18"));
    EXPECT_EQ(use, SidTypeWellKnownGroup);

    ASSERT_TRUE(probe(13, 14));
    EXPECT_EQ(sidSize, 12u);
    EXPECT_EQ(domainLength, 12u);
    EXPECT_EQ(sid[12], std::byte{0xCC});
}

TEST_F(SecurityAccounts, LookupAccountSidSizeProtocol) {
    const Sid admins = SidOf(u"S-1-5-32-544");  // "Administrators" (14), "BUILTIN" (7)
    DWORD nameLength = 0;
    DWORD domainLength = 0;
    SID_NAME_USE use = SidTypeInvalid;
    OVTEST_EXPECT_FAIL(
        LookupAccountSidW(u"", admins, nullptr, &nameLength, nullptr, &domainLength, &use),
        ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(nameLength, 15u);
    EXPECT_EQ(domainLength, 8u);

    char16_t name[32];
    char16_t domain[32];
    for (DWORD n : {15u, 16u}) {
        for (DWORD d : {8u, 9u}) {
            nameLength = n;
            domainLength = d;
            SetLastError(kPoison);
            SCOPED_TRACE(testing::Message() << n << "," << d);
            ASSERT_TRUE(
                LookupAccountSidW(u"", admins, name, &nameLength, domain, &domainLength, &use));
            if (!ovtest::UnderWine()) {  // Wine's success sets ERROR_SUCCESS
                EXPECT_EQ(GetLastError(), kPoison);
            }
            EXPECT_EQ(std::u16string(name), u"Administrators");
            EXPECT_EQ(std::u16string(domain), u"BUILTIN");
            EXPECT_EQ(nameLength, 14u) << "on success the lengths exclude the terminator";
            EXPECT_EQ(domainLength, 7u);
            EXPECT_EQ(use, SidTypeAlias);
        }
    }
}

TEST_F(SecurityAccounts, LookupAccountSidWantsRoomForTheTerminators) {
    OVTEST_SKIP_UNDER_WINE("LookupAccountSidW fills buffers without room for the terminator");
    const Sid admins = SidOf(u"S-1-5-32-544");  // "Administrators" (14), "BUILTIN" (7)
    SID_NAME_USE use = SidTypeInvalid;
    char16_t name[32];
    char16_t domain[32];
    const std::pair<DWORD, DWORD> shortOnes[] = {{14, 8}, {15, 7}, {14, 7}, {14, 9}, {16, 7}};
    for (const auto& [n, d] : shortOnes) {
        SCOPED_TRACE(testing::Message() << n << "," << d);
        DWORD nameLength = n;
        DWORD domainLength = d;
        OVTEST_EXPECT_FAIL(
            LookupAccountSidW(u"", admins, name, &nameLength, domain, &domainLength, &use),
            ERROR_INSUFFICIENT_BUFFER);
        EXPECT_EQ(nameLength, 15u);
        EXPECT_EQ(domainLength, 8u);
    }
}

TEST_F(SecurityAccounts, UnknownNamesAndSids) {
    DWORD sidSize = 0;
    DWORD domainLength = 0;
    SID_NAME_USE use = SidTypeInvalid;
    for (const char16_t* name : {u"CORP\\nobody", u"nobody", u"\\", u"BUILTIN\\"}) {
        SCOPED_TRACE(ovtest::U8(name));
        OVTEST_EXPECT_FAIL(
            LookupAccountNameW(u"", name, nullptr, &sidSize, nullptr, &domainLength, &use),
            ERROR_NONE_MAPPED);
    }
    DWORD nameLength = 0;
    OVTEST_EXPECT_FAIL(LookupAccountSidW(u"", SidOf(u"S-1-5-21-9-9-9-4242"), nullptr, &nameLength,
                                         nullptr, &domainLength, &use),
                       ERROR_NONE_MAPPED);
    OVTEST_EXPECT_FAIL(
        LookupAccountSidW(u"", Sid{}, nullptr, &nameLength, nullptr, &domainLength, &use),
        ERROR_INVALID_SID);
    OVTEST_EXPECT_FAIL(LookupAccountNameW(u"\\\\ELSEWHERE", u"SYSTEM", nullptr, &sidSize, nullptr,
                                          &domainLength, &use),
                       1722u)
        << "another machine cannot be reached";
    OVTEST_EXPECT_FAIL(LookupAccountNameW(u"\\\\" + GetComputerNameW(), u"SYSTEM", nullptr,
                                          &sidSize, nullptr, &domainLength, &use),
                       ERROR_INSUFFICIENT_BUFFER)
        << "this machine by name";
}

TEST_F(SecurityAccountTable, ConfiguredUsersAndGroups) {
    admin::Account group;
    ASSERT_TRUE(admin::AddAccount(u"CORP\\Printing", SidTypeGroup, {}, &group));
    EXPECT_EQ(group.use, SidTypeGroup);
    const std::u16string groups[] = {u"CORP\\Printing", u"BUILTIN\\Power Users"};
    admin::Account alice;
    ASSERT_TRUE(admin::AddAccount(u"CORP\\alice", SidTypeUser, groups, &alice));
    admin::Account bob;
    ASSERT_TRUE(admin::AddAccount(u"corp\\bob", SidTypeUser, {}, &bob));

    // Both in one domain: same prefix, RIDs from 1000 on, all different.
    const DWORD count = GetSidSubAuthorityCount(alice.sid);
    ASSERT_EQ(count, 5u);
    EXPECT_EQ(GetSidSubAuthority(alice.sid, 0), 21u);
    for (DWORD i = 0; i + 1 < count; ++i) {
        EXPECT_EQ(GetSidSubAuthority(alice.sid, i), GetSidSubAuthority(bob.sid, i));
    }
    EXPECT_GE(GetSidSubAuthority(alice.sid, 4), 1000u);
    EXPECT_NE(alice.sid, bob.sid);
    EXPECT_NE(alice.sid, group.sid);
    EXPECT_EQ(bob.domain, u"CORP") << "the domain keeps the spelling it was created with";

    const Named found = LookUp(u"CORP\\ALICE");
    EXPECT_EQ(found.sid, alice.sid);
    EXPECT_EQ(found.use, SidTypeUser);
    admin::Account again;
    ASSERT_TRUE(admin::FindAccountBySid(alice.sid, &again));
    EXPECT_EQ(again.FullName(), u"CORP\\alice");
    EXPECT_EQ(again.memberOf,
              (std::vector<std::u16string>{u"CORP\\Printing", u"BUILTIN\\Power Users"}));

    // Without a domain, a name belongs to the default domain.
    admin::Account carol;
    ASSERT_TRUE(admin::AddAccount(u"carol", SidTypeUser, {}, &carol));
    EXPECT_EQ(carol.domain, u"OVDOMAIN");
    EXPECT_EQ(LookUp(u"carol").sid, carol.sid);
    // Local accounts share the machine administrator's domain SID.
    admin::Account local;
    ASSERT_TRUE(admin::AddAccount(u"OVSERVER\\dave", SidTypeUser, {}, &local));
    const Sid machineAdmin = LookUp(u"OVSERVER\\Administrator").sid;
    EXPECT_EQ(GetSidSubAuthority(local.sid, 3), GetSidSubAuthority(machineAdmin, 3));
}

TEST_F(SecurityAccountTable, AddAccountErrors) {
    ASSERT_TRUE(admin::AddAccount(u"CORP\\alice", SidTypeUser, {}, nullptr));
    OVTEST_EXPECT_FAIL(admin::AddAccount(u"CORP\\Alice", SidTypeUser, {}, nullptr),
                       ERROR_USER_EXISTS);
    EXPECT_FALSE(admin::AddAccount(u"CORP\\alice", SidTypeGroup, {}, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_GROUP_EXISTS);
    const std::u16string missing[] = {u"CORP\\NoSuchGroup"};
    EXPECT_FALSE(admin::AddAccount(u"CORP\\bob", SidTypeUser, missing, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_NO_SUCH_GROUP);
    const std::u16string notAGroup[] = {u"CORP\\alice"};
    EXPECT_FALSE(admin::AddAccount(u"CORP\\bob", SidTypeUser, notAGroup, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_NO_SUCH_GROUP);
    EXPECT_EQ(LookUp(u"CORP\\bob").use, SidTypeInvalid) << "a refused account is not added";
    for (const char16_t* bad :
         {u"CORP\\", u"\\bob", u"CORP\\a/b", u"CORP\\a*", u"", u"AVERYLONGDOMAINNAME\\bob"}) {
        SCOPED_TRACE(ovtest::U8(bad));
        OVTEST_EXPECT_FAIL(admin::AddAccount(bad, SidTypeUser, {}, nullptr), ERROR_INVALID_NAME);
    }
    OVTEST_EXPECT_FAIL(admin::AddAccount(u"BUILTIN\\Mine", SidTypeGroup, {}, nullptr),
                       ERROR_ACCESS_DENIED);
    EXPECT_FALSE(admin::AddAccount(u"CORP\\x", SidTypeAlias, {}, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST_F(SecurityAccountTable, MembershipAndDeletion) {
    ASSERT_TRUE(admin::AddAccount(u"CORP\\Staff", SidTypeGroup, {}, nullptr));
    ASSERT_TRUE(admin::AddAccount(u"CORP\\erin", SidTypeUser, {}, nullptr));
    ASSERT_TRUE(admin::AddGroupMember(u"CORP\\Staff", u"CORP\\erin"));
    ASSERT_TRUE(admin::AddGroupMember(u"CORP\\Staff", u"CORP\\erin")) << "twice is harmless";
    admin::Account erin;
    ASSERT_TRUE(admin::FindAccountByName(u"CORP\\erin", &erin));
    EXPECT_EQ(erin.memberOf, std::vector<std::u16string>{u"CORP\\Staff"});
    OVTEST_EXPECT_FAIL(admin::AddGroupMember(u"CORP\\erin", u"CORP\\Staff"), ERROR_NO_SUCH_GROUP);
    EXPECT_FALSE(admin::AddGroupMember(u"CORP\\Staff", u"CORP\\ghost"));
    EXPECT_EQ(GetLastError(), ERROR_NONE_MAPPED);

    ASSERT_TRUE(admin::DeleteAccount(u"CORP\\erin"));
    OVTEST_EXPECT_FAIL(admin::FindAccountByName(u"CORP\\erin", &erin), ERROR_NONE_MAPPED);
    EXPECT_FALSE(admin::DeleteAccount(u"NT AUTHORITY\\SYSTEM"));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_FALSE(admin::DeleteAccount(u"CORP\\erin"));
    EXPECT_EQ(GetLastError(), ERROR_NONE_MAPPED);
}

OVTEST_CHILD(add_accounts) {
    const std::string prefix = args.at(0);
    for (int i = 0; i < 10; ++i) {
        const std::u16string name = ovtest::U16("CORP\\" + prefix + std::to_string(i));
        if (!admin::AddAccount(name, SidTypeUser, {}, nullptr)) {
            return 1;
        }
    }
    return 0;
}

TEST_F(SecurityAccountTable, TwoProcessesAddingAtOnceGetDistinctSids) {
    ASSERT_TRUE(admin::AddAccount(u"CORP\\first", SidTypeUser, {}, nullptr));  // the domain exists
    auto a = ovtest::Process::StartChild("add_accounts", {"a"});
    auto b = ovtest::Process::StartChild("add_accounts", {"b"});
    EXPECT_EQ(a.Wait(), 0) << a.output();
    EXPECT_EQ(b.Wait(), 0) << b.output();
    std::set<std::u16string> sids;
    for (const char* prefix : {"a", "b"}) {
        for (int i = 0; i < 10; ++i) {
            admin::Account acc;
            ASSERT_TRUE(admin::FindAccountByName(
                ovtest::U16(std::string("CORP\\") + prefix + std::to_string(i)), &acc));
            sids.insert(acc.sid.ToString());
        }
    }
    EXPECT_EQ(sids.size(), 20u);
}

}  // namespace
