// Tokens: which account a process runs as, the groups a token carries, the
// two-call reads of token information, and token handles' access rights.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include "ovtest.h"
#include "platform/registry.h"
#include "security_test_support.h"

using namespace platform;
using sectest::kPoison;
using sectest::SidOf;

namespace {

class SecurityToken : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        ovtest::MachineTest::SetUp();
        ovtest::UnsetEnv("OVSVC_USER");
        admin::SetProcessAccount(u"");
    }
    void TearDown() override {
        admin::SetProcessAccount(u"");
        ovtest::MachineTest::TearDown();
    }
};

bool Has(const std::vector<Sid>& sids, const Sid& sid) {
    return std::find(sids.begin(), sids.end(), sid) != sids.end();
}

std::vector<Sid> GroupsOf(HANDLE token) {
    std::vector<Sid> groups;
    EXPECT_TRUE(GetTokenGroupSids(token, &groups));
    return groups;
}

// Groups a token may hold without them granting anything.
constexpr DWORD kUseForDenyOnly = 0x10;

// A token's owner and primary group, read as TOKEN_OWNER and
// TOKEN_PRIMARY_GROUP.
std::pair<Sid, Sid> OwnerAndPrimaryGroup(HANDLE token) {
    alignas(TOKEN_OWNER) std::byte buffer[128];
    DWORD returned = 0;
    EXPECT_TRUE(GetTokenInformation(token, TokenOwner, buffer, sizeof buffer, &returned));
    TOKEN_OWNER owner;
    std::memcpy(&owner, buffer, sizeof owner);
    const Sid ownerSid = Sid::FromBytes(owner.Owner, SECURITY_MAX_SID_SIZE);
    EXPECT_TRUE(GetTokenInformation(token, TokenPrimaryGroup, buffer, sizeof buffer, &returned));
    TOKEN_PRIMARY_GROUP primary;
    std::memcpy(&primary, buffer, sizeof primary);
    return {ownerSid, Sid::FromBytes(primary.PrimaryGroup, SECURITY_MAX_SID_SIZE)};
}

Sid ProcessUser() {
    UniqueToken token;
    Sid user;
    EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token));
    EXPECT_TRUE(GetTokenUserSid(token.get(), &user));
    return user;
}

TEST_F(SecurityToken, ProcessTokenNamesTheProcessAccount) {
    UniqueToken token;
    OVTEST_ASSERT_QUIET(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token));
    Sid user;
    ASSERT_TRUE(GetTokenUserSid(token.get(), &user));
    EXPECT_TRUE(IsValidSid(user));
    std::u16string name;
    ASSERT_TRUE(GetTokenAccountName(token.get(), &name));
    EXPECT_EQ(name, admin::CurrentProcessAccount());
    admin::Account account;
    ASSERT_TRUE(admin::FindAccountBySid(user, &account));
    EXPECT_EQ(account.FullName(), name);
    const std::vector<Sid> groups = GroupsOf(token.get());
    EXPECT_TRUE(Has(groups, SidOf(u"S-1-1-0"))) << "everyone is in Everyone";
    EXPECT_TRUE(Has(groups, SidOf(u"S-1-5-11"))) << "and an authenticated user";
    EXPECT_FALSE(Has(groups, user)) << "the user is not one of its groups";
    for (const Sid& g : groups) {
        EXPECT_EQ(std::count(groups.begin(), groups.end(), g), 1) << "no duplicates";
    }
    if (!ovtest::IsWin32Platform()) {
        // Processes run as local system unless the machine says otherwise.
        EXPECT_EQ(name, u"NT AUTHORITY\\SYSTEM");
        EXPECT_EQ(user, SidOf(u"S-1-5-18"));
        EXPECT_TRUE(Has(groups, SidOf(u"S-1-5-32-544"))) << "system is an administrator";
        EXPECT_FALSE(Has(groups, SidOf(u"S-1-5-32-545")));
    }
}

TEST_F(SecurityToken, UserTokenCarriesMembershipsAndStandardGroups) {
    OVTEST_EMBEDDED_ONLY("tokens for configured accounts come from the account table");
    ASSERT_TRUE(admin::AddAccount(u"CORP\\Outer", SidTypeGroup, {}, nullptr));
    const std::u16string outer[] = {u"CORP\\Outer"};
    ASSERT_TRUE(admin::AddAccount(u"CORP\\Inner", SidTypeGroup, outer, nullptr));
    const std::u16string inner[] = {u"CORP\\Inner"};
    admin::Account alice;
    ASSERT_TRUE(admin::AddAccount(u"CORP\\alice", SidTypeUser, inner, &alice));
    admin::Account innerGroup;
    admin::Account outerGroup;
    ASSERT_TRUE(admin::FindAccountByName(u"CORP\\Inner", &innerGroup));
    ASSERT_TRUE(admin::FindAccountByName(u"CORP\\Outer", &outerGroup));

    admin::SetProcessAccount(u"corp\\ALICE");
    UniqueToken token;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token));
    Sid user;
    ASSERT_TRUE(GetTokenUserSid(token.get(), &user));
    EXPECT_EQ(user, alice.sid);
    std::u16string name;
    ASSERT_TRUE(GetTokenAccountName(token.get(), &name));
    EXPECT_EQ(name, u"CORP\\alice");
    const std::vector<Sid> groups = GroupsOf(token.get());
    EXPECT_TRUE(Has(groups, innerGroup.sid));
    EXPECT_TRUE(Has(groups, outerGroup.sid)) << "memberships of groups count too";
    EXPECT_TRUE(Has(groups, SidOf(u"S-1-1-0")));
    EXPECT_TRUE(Has(groups, SidOf(u"S-1-5-32-545")));
    EXPECT_TRUE(Has(groups, SidOf(u"S-1-5-11")));
    EXPECT_TRUE(Has(groups, SidOf(u"S-1-5-4")));
    EXPECT_FALSE(Has(groups, SidOf(u"S-1-5-32-544")));
    EXPECT_EQ(std::count(groups.begin(), groups.end(), SidOf(u"S-1-1-0")), 1) << "no duplicates";
}

TEST_F(SecurityToken, UnknownUserBecomesKnownAtFirstLogon) {
    OVTEST_EMBEDDED_ONLY("tokens for configured accounts come from the account table");
    UniqueToken token;
    ASSERT_TRUE(admin::CreateTokenForAccount(u"CORP\\newcomer", 3, &token));
    admin::Account added;
    ASSERT_TRUE(admin::FindAccountByName(u"CORP\\newcomer", &added));
    EXPECT_EQ(added.use, SidTypeUser);
    Sid user;
    ASSERT_TRUE(GetTokenUserSid(token.get(), &user));
    EXPECT_EQ(user, added.sid);
    // A domain's administrator is an administrator.
    ASSERT_TRUE(admin::CreateTokenForAccount(u"OTHER\\Administrator", 3, &token));
    EXPECT_TRUE(Has(GroupsOf(token.get()), SidOf(u"S-1-5-32-544")));
    SetLastError(kPoison);
    EXPECT_FALSE(admin::CreateTokenForAccount(u"BUILTIN\\Users", 3, &token))
        << "a group is no logon account";
    EXPECT_EQ(GetLastError(), ERROR_NONE_MAPPED);
    OVTEST_EXPECT_FAIL(admin::CreateTokenForAccount(u"bad/name", 3, &token), ERROR_NONE_MAPPED);
}

TEST_F(SecurityToken, TokenUserTwoCallProtocol) {
    UniqueToken token;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token));
    const Sid expected = ProcessUser();
    const DWORD sidSize = GetLengthSid(expected);
    ASSERT_GE(sidSize, 12u);
    DWORD needed = 0;
    OVTEST_EXPECT_FAIL(GetTokenInformation(token.get(), TokenUser, nullptr, 0, &needed),
                       ERROR_INSUFFICIENT_BUFFER);
    ASSERT_EQ(needed, sizeof(TOKEN_USER) + sidSize);

    alignas(TOKEN_USER) std::byte buffer[128];
    DWORD returned = 0;
    OVTEST_EXPECT_FAIL(GetTokenInformation(token.get(), TokenUser, buffer, needed - 1, &returned),
                       ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(returned, needed);
    for (DWORD size : {needed, needed + 1}) {
        std::fill(std::begin(buffer), std::end(buffer), std::byte{0});
        OVTEST_ASSERT_QUIET(GetTokenInformation(token.get(), TokenUser, buffer, size, &returned));
        EXPECT_EQ(returned, needed);
        TOKEN_USER user;
        std::memcpy(&user, buffer, sizeof user);
        ASSERT_GE(static_cast<const std::byte*>(user.User.Sid), buffer);
        ASSERT_LE(static_cast<const std::byte*>(user.User.Sid) + sidSize, buffer + size)
            << "the SID lies inside the caller's buffer";
        EXPECT_EQ(Sid::FromBytes(user.User.Sid, sidSize), expected);
    }
}

TEST_F(SecurityToken, TokenGroupsTwoCallProtocol) {
    UniqueToken token;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token));
    DWORD needed = 0;
    OVTEST_EXPECT_FAIL(GetTokenInformation(token.get(), TokenGroups, nullptr, 0, &needed),
                       ERROR_INSUFFICIENT_BUFFER);
    std::vector<std::max_align_t> storage(needed / sizeof(std::max_align_t) + 2);
    void* buffer = storage.data();
    DWORD returned = 0;
    EXPECT_FALSE(GetTokenInformation(token.get(), TokenGroups, buffer, needed - 1, &returned));
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    ASSERT_TRUE(GetTokenInformation(token.get(), TokenGroups, buffer, needed, &returned));
    const auto* groups = static_cast<const TOKEN_GROUPS*>(buffer);
    const std::vector<Sid> expected = GroupsOf(token.get());
    ASSERT_EQ(groups->GroupCount, expected.size());
    const auto* entries = reinterpret_cast<const SID_AND_ATTRIBUTES*>(
        static_cast<const std::byte*>(buffer) + offsetof(TOKEN_GROUPS, Groups));
    for (DWORD i = 0; i < groups->GroupCount; ++i) {
        EXPECT_EQ(Sid::FromBytes(entries[i].Sid, SECURITY_MAX_SID_SIZE), expected[i]) << i;
        EXPECT_NE(entries[i].Attributes & (SE_GROUP_ENABLED | kUseForDenyOnly), 0u)
            << "enabled, or held only to deny";
    }
    ASSERT_TRUE(GetTokenInformation(token.get(), TokenGroups, buffer, needed + 1, &returned));
    EXPECT_EQ(returned, needed);
}

TEST_F(SecurityToken, ProcessTokenSessionOwnerAndPrimaryGroup) {
    UniqueToken token;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token));
    DWORD session = 0xFFFF;
    DWORD returned = 0;
    OVTEST_ASSERT_QUIET(GetTokenInformation(token.get(), TokenSessionId, &session, 4, &returned));
    EXPECT_EQ(returned, 4u);
    DWORD typed = 0xFFFF;
    ASSERT_TRUE(GetTokenSessionId(token.get(), &typed));
    EXPECT_EQ(typed, session);

    const auto [owner, primary] = OwnerAndPrimaryGroup(token.get());
    EXPECT_TRUE(IsValidSid(owner));
    EXPECT_TRUE(IsValidSid(primary));
}

TEST_F(SecurityToken, FixedSizeInformationAndUnknownClasses) {
    OVTEST_SKIP_UNDER_WINE(
        "a short session-id buffer gives ERROR_INSUFFICIENT_BUFFER and an unknown class "
        "ERROR_INVALID_FUNCTION");
    UniqueToken token;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token));
    DWORD session = 0;
    DWORD returned = 0;
    OVTEST_EXPECT_FAIL(GetTokenInformation(token.get(), TokenSessionId, &session, 3, &returned),
                       24u)
        << "ERROR_BAD_LENGTH for fixed-size information";
    alignas(TOKEN_OWNER) std::byte buffer[128];
    OVTEST_EXPECT_FAIL(GetTokenInformation(token.get(), static_cast<TOKEN_INFORMATION_CLASS>(99),
                                           buffer, sizeof buffer, &returned),
                       ERROR_INVALID_PARAMETER);
}

TEST_F(SecurityToken, LogonTokenSessionOwnerAndPrimaryGroup) {
    OVTEST_EMBEDDED_ONLY("tokens for configured accounts come from the account table");
    UniqueToken token;
    ASSERT_TRUE(admin::CreateTokenForAccount(u"CORP\\hank", 7, &token));
    DWORD session = 0;
    DWORD returned = 0;
    OVTEST_EXPECT_FAIL(GetTokenInformation(token.get(), TokenSessionId, &session, 3, &returned),
                       24u)
        << "ERROR_BAD_LENGTH for fixed-size information";
    ASSERT_TRUE(GetTokenInformation(token.get(), TokenSessionId, &session, 4, &returned));
    EXPECT_EQ(session, 7u);
    EXPECT_EQ(returned, 4u);

    const DWORD nine = 9;
    ASSERT_TRUE(SetTokenInformation(token.get(), TokenSessionId, &nine, sizeof nine));
    ASSERT_TRUE(GetTokenSessionId(token.get(), &session));
    EXPECT_EQ(session, 9u);
    OVTEST_EXPECT_FAIL(SetTokenInformation(token.get(), TokenSessionId, &nine, 2), 24u);

    Sid user;
    ASSERT_TRUE(GetTokenUserSid(token.get(), &user));
    const auto [owner, primary] = OwnerAndPrimaryGroup(token.get());
    EXPECT_EQ(owner, user);
    EXPECT_EQ(primary, SidOf(u"S-1-5-32-545"));
    alignas(TOKEN_OWNER) std::byte buffer[128];
    OVTEST_EXPECT_FAIL(GetTokenInformation(token.get(), static_cast<TOKEN_INFORMATION_CLASS>(99),
                                           buffer, sizeof buffer, &returned),
                       ERROR_INVALID_PARAMETER);
}

TEST_F(SecurityToken, HandleRightsAndBadHandles) {
    UniqueToken token;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_DUPLICATE, &token));
    DWORD returned = 0;
    OVTEST_EXPECT_FAIL(GetTokenInformation(token.get(), TokenUser, nullptr, 0, &returned),
                       ERROR_ACCESS_DENIED);

    UniqueToken copy;
    ASSERT_TRUE(DuplicateToken(token.get(), TOKEN_QUERY, &copy));
    Sid user;
    ASSERT_TRUE(GetTokenUserSid(copy.get(), &user));
    EXPECT_EQ(user, ProcessUser());
    SetLastError(kPoison);
    EXPECT_FALSE(DuplicateToken(copy.get(), TOKEN_QUERY, &token)) << "copy lacks TOKEN_DUPLICATE";
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);

    HANDLE closed = copy.get();
    copy.reset();
    OVTEST_EXPECT_FAIL(GetTokenUserSid(closed, &user), ERROR_INVALID_HANDLE);
    OVTEST_EXPECT_FAIL(
        OpenProcessToken(reinterpret_cast<HANDLE>(std::uintptr_t{0x1234}), TOKEN_QUERY, &copy),
        ERROR_INVALID_HANDLE);
    OVTEST_EXPECT_FAIL(OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, true, &copy),
                       ERROR_NO_TOKEN)
        << "no thread impersonates";
}

TEST_F(SecurityToken, ChangingTheSessionNeedsTheAdjustRight) {
    OVTEST_SKIP_UNDER_WINE("SetTokenInformation does not check the handle's access");
    UniqueToken token;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_DUPLICATE, &token));
    const DWORD one = 1;
    OVTEST_EXPECT_FAIL(SetTokenInformation(token.get(), TokenSessionId, &one, 4),
                       ERROR_ACCESS_DENIED);
}

// Reports through its exit code whether the process runs as args[0].
OVTEST_CHILD(runs_as) {
    const std::u16string expected = ovtest::U16(args.at(0));
    if (admin::CurrentProcessAccount() != expected) {
        return 1;
    }
    UniqueToken token;
    std::u16string name;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token) ||
        !GetTokenAccountName(token.get(), &name)) {
        return 2;
    }
    return name == expected ? 0 : 3;
}

TEST_F(SecurityToken, ChildrenRunAsTheirSessionsUserOrTheirGivenAccount) {
    OVTEST_EMBEDDED_ONLY("the account a process runs as comes from the session table");
    ASSERT_TRUE(admin::AddAccount(u"CORP\\ivy", SidTypeUser, {}, nullptr));
    UniqueKey key;
    ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, u"SOFTWARE\\OVSvc Embedded\\Sessions\\5", 0,
                              KEY_ALL_ACCESS, &key, nullptr),
              ERROR_SUCCESS);
    const std::u16string domain = u"CORP";
    const std::u16string user = u"ivy";
    RegSetValueExW(key.get(), u"DomainName", REG_SZ, domain.c_str(),
                   static_cast<DWORD>((domain.size() + 1) * 2));
    RegSetValueExW(key.get(), u"UserName", REG_SZ, user.c_str(),
                   static_cast<DWORD>((user.size() + 1) * 2));

    auto inSession = ovtest::Process::StartChild("runs_as", {"CORP\\ivy"}, {"OVSVC_SESSION_ID=5"});
    EXPECT_EQ(inSession.Wait(), 0) << inSession.output();
    auto service =
        ovtest::Process::StartChild("runs_as", {"NT AUTHORITY\\SYSTEM"}, {"OVSVC_SESSION_ID=0"});
    EXPECT_EQ(service.Wait(), 0) << service.output();
    auto noUser =
        ovtest::Process::StartChild("runs_as", {"NT AUTHORITY\\SYSTEM"}, {"OVSVC_SESSION_ID=6"});
    EXPECT_EQ(noUser.Wait(), 0) << noUser.output();
    auto given = ovtest::Process::StartChild("runs_as", {"CORP\\jack"},
                                             {"OVSVC_SESSION_ID=5", "OVSVC_USER=CORP\\jack"});
    EXPECT_EQ(given.Wait(), 0) << given.output();
}

}  // namespace
