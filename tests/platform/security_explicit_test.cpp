// Merging explicit-access entries into an ACL: the modes, the resulting
// order and size, and trustees given by name.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

#include "ovtest.h"
#include "security_test_support.h"

using namespace platform;
using sectest::AcesOf;
using sectest::AclOf;
using sectest::SidOf;

namespace {

const Sid kAdmins = SidOf(u"S-1-5-32-544");
const Sid kSystem = SidOf(u"S-1-5-18");
const Sid kAlice = SidOf(u"S-1-5-21-10-20-30-1001");
const Sid kBob = SidOf(u"S-1-5-21-10-20-30-1002");

EXPLICIT_ACCESS_W Entry(ACCESS_MODE mode, ACCESS_MASK mask, const Sid& sid, DWORD flags = 0) {
    EXPLICIT_ACCESS_W e;
    e.grfAccessMode = mode;
    e.grfAccessPermissions = mask;
    e.grfInheritance = flags;
    e.Trustee.TrusteeForm = TRUSTEE_IS_SID;
    e.Trustee.sid = sid;
    return e;
}

void ExpectAces(const Acl& acl, const std::vector<sectest::AceSpec>& expected) {
    const std::vector<Ace> aces = AcesOf(acl);
    ASSERT_EQ(aces.size(), expected.size());
    for (std::size_t i = 0; i < aces.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(aces[i].Header.AceType, expected[i].type);
        EXPECT_EQ(aces[i].Header.AceFlags, expected[i].flags);
        EXPECT_EQ(aces[i].Mask, expected[i].mask);
        EXPECT_EQ(aces[i].sid, expected[i].sid);
    }
    ACL_SIZE_INFORMATION info;
    ASSERT_TRUE(GetAclInformation(acl, &info));
    EXPECT_EQ(info.AclBytesFree, 0u) << "the result is sized to fit";
}

constexpr BYTE A = ACCESS_ALLOWED_ACE_TYPE;
constexpr BYTE D = ACCESS_DENIED_ACE_TYPE;

TEST(SecurityExplicitAccess, MergesInWindowsOrder) {
    OVTEST_SKIP_UNDER_WINE(
        "SetEntriesInAclW puts new entries first, keeps old ones as they are and does not merge "
        "a trustee's rights");
    const struct {
        const char* what;
        std::optional<std::vector<sectest::AceSpec>> old;
        std::vector<EXPLICIT_ACCESS_W> entries;
        std::vector<sectest::AceSpec> expected;
    } cases[] = {
        {"denied first, then allowed, then inherited",
         {{{A, 0, 1, kAdmins}, {A, INHERITED_ACE, 2, kSystem}, {A, 0, 4, kAlice}}},
         {Entry(GRANT_ACCESS, 8, kBob), Entry(DENY_ACCESS, 16, kBob)},
         {{D, 0, 16, kBob},
          {A, 0, 1, kAdmins},
          {A, 0, 4, kAlice},
          {A, 0, 8, kBob},
          {A, INHERITED_ACE, 2, kSystem}}},
        {"a grant adds to the ACE of the same flags",
         {{{A, 0, 0x8, kAlice}, {A, 2, 0x20000, kAlice}}},
         {Entry(GRANT_ACCESS, 0x20000, kAlice)},
         {{A, 0, 0x20008, kAlice}, {A, 2, 0x20000, kAlice}}},
        {"other inheritance flags make a separate ACE",
         {{{A, 0, 0x8, kAlice}, {A, 2, 0x20000, kAlice}}},
         {Entry(GRANT_ACCESS, 0x10, kAlice, 9)},
         {{A, 0, 0x8, kAlice}, {A, 2, 0x20000, kAlice}, {A, 9, 0x10, kAlice}}},
        {"set replaces the trustee's ACEs",
         {{{D, 0, 0x4, kAlice}, {A, 0, 0x8, kAlice}, {A, 0, 0x1, kBob}}},
         {Entry(SET_ACCESS, 0xF000C, kAlice)},
         {{A, 0, 0x1, kBob}, {A, 0, 0xF000C, kAlice}}},
        {"revoke drops allowed ACEs only",
         {{{D, 0, 0x4, kAlice}, {A, 0, 0x8, kAlice}, {A, 9, 0x30, kAlice}, {A, 0, 0x1, kBob}}},
         {Entry(REVOKE_ACCESS, 0, kAlice)},
         {{D, 0, 0x4, kAlice}, {A, 0, 0x1, kBob}}},
        {"without an old ACL",
         std::nullopt,
         {Entry(GRANT_ACCESS, 0xF000C, kAdmins), Entry(GRANT_ACCESS, 0xF0030, kAdmins, 9),
          Entry(DENY_ACCESS, 0x8, kBob)},
         {{D, 0, 0x8, kBob}, {A, 0, 0xF000C, kAdmins}, {A, 9, 0xF0030, kAdmins}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const Acl old = c.old ? AclOf(*c.old) : Acl{};
        Acl result;
        OVTEST_EXPECT_STATUS(SetEntriesInAclW(c.entries, c.old ? &old : nullptr, &result),
                             ERROR_SUCCESS);
        ExpectAces(result, c.expected);
    }
}

TEST(SecurityExplicitAccess, EachEntryBecomesAnAce) {
    const EXPLICIT_ACCESS_W entries[] = {Entry(GRANT_ACCESS, 0xF000C, kAdmins),
                                         Entry(GRANT_ACCESS, 0xF0030, kAlice, 9),
                                         Entry(DENY_ACCESS, 0x8, kBob)};
    Acl result;
    SetLastError(sectest::kPoison);
    ASSERT_EQ(SetEntriesInAclW(entries, nullptr, &result), ERROR_SUCCESS);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    const std::vector<Ace> aces = AcesOf(result);
    ASSERT_EQ(aces.size(), 3u);
    // In whatever order: one ACE per entry, with its type, flags, rights and SID.
    const auto count = [&](BYTE type, BYTE flags, ACCESS_MASK mask, const Sid& sid) {
        return std::count_if(aces.begin(), aces.end(), [&](const Ace& ace) {
            return ace.Header.AceType == type && ace.Header.AceFlags == flags && ace.Mask == mask &&
                   ace.sid == sid;
        });
    };
    EXPECT_EQ(count(A, 0, 0xF000C, kAdmins), 1);
    EXPECT_EQ(count(A, 9, 0xF0030, kAlice), 1);
    EXPECT_EQ(count(D, 0, 0x8, kBob), 1);
    ACL_SIZE_INFORMATION info;
    ASSERT_TRUE(GetAclInformation(result, &info));
    EXPECT_EQ(info.AclBytesInUse, 8u + (8 + 16) + (8 + 28) + (8 + 28));
}

TEST(SecurityExplicitAccess, NothingToMerge) {
    // Nothing at all to merge gives no ACL.
    Acl none = AclOf({{A, 0, 1, kAdmins}});
    ASSERT_EQ(SetEntriesInAclW({}, nullptr, &none), ERROR_SUCCESS);
    EXPECT_TRUE(none.empty());
    // An empty old ACL gives an empty, valid one.
    Acl empty;
    ASSERT_TRUE(InitializeAcl(&empty, 64, ACL_REVISION));
    ASSERT_EQ(SetEntriesInAclW({}, &empty, &none), ERROR_SUCCESS);
    EXPECT_EQ(none.size(), 8u);
}

TEST(SecurityExplicitAccess, ErrorsLeaveTheOutputAlone) {
    const Acl old = AclOf({{A, 0, 1, kAdmins}});
    Acl result = old;
    EXPLICIT_ACCESS_W badMode[] = {Entry(static_cast<ACCESS_MODE>(42), 1, kBob)};
    SetLastError(sectest::kPoison);
    EXPECT_EQ(SetEntriesInAclW(badMode, &old, &result), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(result, old);
    EXPLICIT_ACCESS_W badSid[] = {Entry(GRANT_ACCESS, 1, Sid{})};
    EXPECT_EQ(SetEntriesInAclW(badSid, &old, &result), ERROR_INVALID_SID);
    const Acl damaged;
    const EXPLICIT_ACCESS_W fine[] = {Entry(GRANT_ACCESS, 1, kBob)};
    EXPECT_EQ(SetEntriesInAclW(fine, &damaged, &result), ERROR_INVALID_ACL);
    EXPECT_EQ(SetEntriesInAclW(fine, &old, nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(result, old);
}

TEST(SecurityExplicitAccess, UnknownInheritanceFlagsAreRefused) {
    OVTEST_SKIP_UNDER_WINE("SetEntriesInAclW copies any inheritance bits into the ACE");
    const Acl old = AclOf({{A, 0, 1, kAdmins}});
    Acl result = old;
    EXPLICIT_ACCESS_W badFlags[] = {Entry(GRANT_ACCESS, 1, kBob, 0x100)};
    SetLastError(sectest::kPoison);
    EXPECT_EQ(SetEntriesInAclW(badFlags, &old, &result), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(result, old);
}

class SecurityExplicitAccessByName : public ovtest::MachineTest {
  protected:
    static EXPLICIT_ACCESS_W Grant(const char16_t* name) {
        EXPLICIT_ACCESS_W byName;
        byName.grfAccessMode = GRANT_ACCESS;
        byName.grfAccessPermissions = 0xF000C;
        byName.Trustee.TrusteeForm = TRUSTEE_IS_NAME;
        byName.Trustee.name = name;
        return byName;
    }
};

TEST_F(SecurityExplicitAccessByName, TrusteesByAccountName) {
    const EXPLICIT_ACCESS_W entries[] = {Grant(u"BUILTIN\\Administrators")};
    Acl result;
    ASSERT_EQ(SetEntriesInAclW(entries, nullptr, &result), ERROR_SUCCESS);
    ExpectAces(result, {{A, 0, 0xF000C, kAdmins}});
}

TEST_F(SecurityExplicitAccessByName, UnknownTrusteeNames) {
    OVTEST_SKIP_UNDER_WINE("SetEntriesInAclW answers ERROR_INVALID_PARAMETER for unknown names");
    const EXPLICIT_ACCESS_W entries[] = {Grant(u"NOWHERE\\nobody")};
    const Acl before = AclOf({{A, 0, 1, kAdmins}});
    Acl result = before;
    EXPECT_EQ(SetEntriesInAclW(entries, nullptr, &result), ERROR_NONE_MAPPED);
    EXPECT_EQ(result, before);
}

}  // namespace
