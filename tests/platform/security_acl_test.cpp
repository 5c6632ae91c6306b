// ACLs and ACEs: Windows' size rules, the binary layout, and the errors of
// every ACL call.
#include <gtest/gtest.h>

#include "ovtest.h"
#include "security_test_support.h"

using namespace platform;
using sectest::AcesOf;
using sectest::kPoison;
using sectest::SidOf;

namespace {

const Sid kAdmins = SidOf(u"S-1-5-32-544");          // 16 bytes
const Sid kSystem = SidOf(u"S-1-5-18");              // 12 bytes
const Sid kUser = SidOf(u"S-1-5-21-10-20-30-1001");  // 28 bytes

ACL_SIZE_INFORMATION SizeOf(const Acl& acl) {
    ACL_SIZE_INFORMATION info;
    EXPECT_TRUE(GetAclInformation(acl, &info));
    return info;
}

TEST(SecurityAcl, InitializeChecksSizeAndRevision) {
    Acl acl;
    OVTEST_ASSERT_QUIET(InitializeAcl(&acl, 8, ACL_REVISION));
    EXPECT_EQ(acl.size(), 8u);
    EXPECT_EQ(SizeOf(acl).AceCount, 0u);
    EXPECT_EQ(SizeOf(acl).AclBytesInUse, 8u);
    EXPECT_EQ(SizeOf(acl).AclBytesFree, 0u);

    OVTEST_EXPECT_FAIL(InitializeAcl(&acl, 7, ACL_REVISION), ERROR_INSUFFICIENT_BUFFER);
    for (DWORD revision : {0u, 1u, 5u}) {
        SetLastError(kPoison);
        EXPECT_FALSE(InitializeAcl(&acl, 64, revision)) << revision;
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    }
    EXPECT_TRUE(InitializeAcl(&acl, 64, ACL_REVISION_DS));
    EXPECT_TRUE(InitializeAcl(&acl, 0xFFFC, ACL_REVISION));
    EXPECT_EQ(acl.size(), 0xFFFCu);
    SetLastError(kPoison);
    EXPECT_FALSE(InitializeAcl(&acl, 0x10000, ACL_REVISION)) << "larger than an ACL can say";
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(acl.size(), 0xFFFCu) << "a refused ACL changes nothing";
}

TEST(SecurityAcl, SizesAreRoundedUpToWholeDwords) {
    OVTEST_SKIP_UNDER_WINE("InitializeAcl keeps sizes that are not DWORD multiples");
    Acl acl;
    SetLastError(kPoison);
    EXPECT_FALSE(InitializeAcl(&acl, 0xFFFD, ACL_REVISION)) << "rounds past the largest ACL";
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    ASSERT_TRUE(InitializeAcl(&acl, 10, ACL_REVISION));
    EXPECT_EQ(acl.size(), 12u);
    EXPECT_EQ(SizeOf(acl).AclBytesFree, 4u);
}

TEST(SecurityAcl, AceTakesEightBytesPlusItsSid) {
    Acl acl;
    ASSERT_TRUE(InitializeAcl(&acl, 1024, ACL_REVISION));
    ASSERT_TRUE(AddAccessAllowedAce(&acl, ACL_REVISION, 0x00020008, kAdmins));
    EXPECT_EQ(SizeOf(acl).AclBytesInUse, 8u + 8u + 16u);
    ASSERT_TRUE(AddAccessDeniedAce(&acl, ACL_REVISION, 0x8, kSystem));
    ASSERT_TRUE(AddAccessAllowedAceEx(&acl, ACL_REVISION, OBJECT_INHERIT_ACE | INHERIT_ONLY_ACE,
                                      GENERIC_ALL, kUser));
    const ACL_SIZE_INFORMATION info = SizeOf(acl);
    EXPECT_EQ(info.AceCount, 3u);
    EXPECT_EQ(info.AclBytesInUse, 8u + (8 + 16) + (8 + 12) + (8 + 28));
    EXPECT_EQ(info.AclBytesInUse + info.AclBytesFree, 1024u);
}

TEST(SecurityAcl, DeclaredSizeIsAHardLimit) {
    // Room for exactly one ACE for the user: it fits, the next does not.
    const DWORD exact = 8 + 8 + GetLengthSid(kUser);
    Acl acl;
    ASSERT_TRUE(InitializeAcl(&acl, exact, ACL_REVISION));
    OVTEST_ASSERT_QUIET(AddAccessAllowedAce(&acl, ACL_REVISION, 0x8, kUser));
    EXPECT_EQ(SizeOf(acl).AclBytesFree, 0u);

    const Acl before = acl;
    OVTEST_EXPECT_FAIL(AddAccessAllowedAce(&acl, ACL_REVISION, 0x8, kSystem),
                       ERROR_ALLOTTED_SPACE_EXCEEDED);
    EXPECT_EQ(acl, before) << "a refused ACE changes nothing";

    // One DWORD short of the ACE.
    ASSERT_TRUE(InitializeAcl(&acl, exact - 4, ACL_REVISION));
    OVTEST_EXPECT_FAIL(AddAccessAllowedAce(&acl, ACL_REVISION, 0x8, kUser),
                       ERROR_ALLOTTED_SPACE_EXCEEDED);
    EXPECT_EQ(SizeOf(acl).AceCount, 0u);

    // Two ACEs for one SID plus the header: U + 20 + 2L with U = 8 fits exactly.
    ASSERT_TRUE(InitializeAcl(&acl, 8 + 16 + 2 * GetLengthSid(kUser), ACL_REVISION));
    EXPECT_TRUE(AddAccessAllowedAce(&acl, ACL_REVISION, 0x20000, kUser));
    EXPECT_TRUE(AddAccessAllowedAce(&acl, ACL_REVISION, 0xF0010, kUser));
    EXPECT_FALSE(AddAccessDeniedAce(&acl, ACL_REVISION, 0x1, kSystem));
    EXPECT_EQ(GetLastError(), ERROR_ALLOTTED_SPACE_EXCEEDED);
}

TEST(SecurityAcl, GetAceGivesTheBinaryAce) {
    Acl acl;
    ASSERT_TRUE(InitializeAcl(&acl, 256, ACL_REVISION));
    ASSERT_TRUE(
        AddAccessAllowedAceEx(&acl, ACL_REVISION, CONTAINER_INHERIT_ACE, 0x000F000C, kAdmins));
    ASSERT_TRUE(AddAccessDeniedAceEx(&acl, ACL_REVISION, OBJECT_INHERIT_ACE | INHERIT_ONLY_ACE,
                                     0x000F0030, kSystem));
    Ace ace;
    OVTEST_ASSERT_QUIET(GetAce(acl, 1, &ace));
    EXPECT_EQ(ace.Header.AceType, ACCESS_DENIED_ACE_TYPE);
    EXPECT_EQ(ace.Header.AceFlags, 9);
    EXPECT_EQ(ace.Header.AceSize, 20);
    EXPECT_EQ(ace.Mask, 0x000F0030u);
    EXPECT_EQ(ace.sid, kSystem);
    ASSERT_EQ(ace.raw.size(), 20u);
    EXPECT_EQ(ace.raw[0], std::byte{1});
    EXPECT_EQ(ace.raw[1], std::byte{9});
    EXPECT_EQ(ace.raw[2], std::byte{20});
    EXPECT_EQ(ace.raw[4], std::byte{0x30});
    EXPECT_EQ(ace.raw[6], std::byte{0x0F});
    EXPECT_EQ(ace.raw[8], std::byte{1}) << "the SID follows the mask";

    OVTEST_EXPECT_FAIL(GetAce(acl, 2, &ace), ERROR_INVALID_PARAMETER);
    OVTEST_EXPECT_FAIL(GetAce(Acl{}, 0, &ace), ERROR_INVALID_ACL);
}

TEST(SecurityAcl, AddAceCopiesAndInserts) {
    const Acl source = sectest::AclOf(
        {{ACCESS_ALLOWED_ACE_TYPE, 0, 1, kAdmins}, {ACCESS_DENIED_ACE_TYPE, 2, 2, kSystem}});
    Acl copy;
    ASSERT_TRUE(InitializeAcl(&copy, static_cast<DWORD>(source.size()) + 8 + 28, ACL_REVISION));
    for (const Ace& ace : AcesOf(source)) {
        ASSERT_TRUE(AddAce(&copy, ACL_REVISION, MAXDWORD, ace));
    }
    const std::vector<Ace> aces = AcesOf(copy);
    ASSERT_EQ(aces.size(), 2u);
    EXPECT_EQ(aces[0].raw, AcesOf(source)[0].raw);
    EXPECT_EQ(aces[1].raw, AcesOf(source)[1].raw);

    // An index past the end appends.
    Acl more;
    ASSERT_TRUE(InitializeAcl(&more, 128, ACL_REVISION));
    ASSERT_TRUE(AddAce(&more, ACL_REVISION, 0, MakeAce(ACCESS_ALLOWED_ACE_TYPE, 0, 1, kAdmins)));
    ASSERT_TRUE(AddAce(&more, ACL_REVISION, 7, MakeAce(ACCESS_ALLOWED_ACE_TYPE, 0, 2, kSystem)));
    EXPECT_EQ(AcesOf(more)[1].sid, kSystem);

    // Several ACEs back to back in one call.
    std::vector<std::byte> run;
    for (const Ace& ace : AcesOf(source)) {
        run.insert(run.end(), ace.raw.begin(), ace.raw.end());
    }
    ASSERT_TRUE(AddAce(&more, ACL_REVISION, MAXDWORD, run));
    EXPECT_EQ(SizeOf(more).AceCount, 4u);

    SetLastError(kPoison);
    run.pop_back();  // a truncated ACE
    EXPECT_FALSE(AddAce(&more, ACL_REVISION, MAXDWORD, run));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(SizeOf(more).AceCount, 4u);
}

TEST(SecurityAcl, AceFlagsAndRevisionAreChecked) {
    OVTEST_SKIP_UNDER_WINE("AddAccess*Ace accepts unknown ACE flags and ACL revision 1");
    Acl acl;
    ASSERT_TRUE(InitializeAcl(&acl, 128, ACL_REVISION));
    OVTEST_EXPECT_FAIL(AddAccessAllowedAceEx(&acl, ACL_REVISION, 0x40, 1, kAdmins),
                       ERROR_INVALID_FLAGS);
    OVTEST_EXPECT_FAIL(AddAccessAllowedAce(&acl, 1, 1, kAdmins), ERROR_REVISION_MISMATCH);
    EXPECT_EQ(SizeOf(acl).AceCount, 0u);
}

TEST(SecurityAcl, AddAceInsertsAtTheIndex) {
    OVTEST_SKIP_UNDER_WINE("AddAce appends whatever the starting index");
    Acl acl = sectest::AclOf(
        {{ACCESS_ALLOWED_ACE_TYPE, 0, 1, kAdmins}, {ACCESS_DENIED_ACE_TYPE, 2, 2, kSystem}});
    const std::vector<Ace> before = AcesOf(acl);
    Acl roomy;
    ASSERT_TRUE(InitializeAcl(&roomy, static_cast<DWORD>(acl.size()) + 2 * (8 + 28), ACL_REVISION));
    for (const Ace& ace : before) {
        ASSERT_TRUE(AddAce(&roomy, ACL_REVISION, MAXDWORD, ace));
    }
    OVTEST_ASSERT_QUIET(
        AddAce(&roomy, ACL_REVISION, 0, MakeAce(ACCESS_ALLOWED_ACE_TYPE, 0, 3, kUser)));
    ASSERT_TRUE(AddAce(&roomy, ACL_REVISION, 2, MakeAce(ACCESS_DENIED_ACE_TYPE, 0, 4, kUser)));
    const std::vector<Ace> aces = AcesOf(roomy);
    ASSERT_EQ(aces.size(), 4u);
    EXPECT_EQ(aces[0].Mask, 3u) << "index 0 inserts in front";
    EXPECT_EQ(aces[1].raw, before[0].raw);
    EXPECT_EQ(aces[2].Mask, 4u) << "index 2 goes before the ACE that was third";
    EXPECT_EQ(aces[3].raw, before[1].raw);
}

TEST(SecurityAcl, ArgumentErrors) {
    Acl acl;
    ASSERT_TRUE(InitializeAcl(&acl, 128, ACL_REVISION));
    OVTEST_EXPECT_FAIL(AddAccessAllowedAce(&acl, ACL_REVISION, 1, Sid{}), ERROR_INVALID_SID);
    Acl none;
    OVTEST_EXPECT_FAIL(AddAccessDeniedAce(&none, ACL_REVISION, 1, kAdmins), ERROR_INVALID_ACL);
    ACL_SIZE_INFORMATION info;
    OVTEST_EXPECT_FAIL(GetAclInformation(none, &info), ERROR_INVALID_ACL);
    EXPECT_EQ(SizeOf(acl).AceCount, 0u);
}

TEST(SecurityAcl, FlagsAndDeletion) {
    Acl acl = sectest::AclOf({{ACCESS_ALLOWED_ACE_TYPE, 0, 1, kAdmins},
                              {ACCESS_ALLOWED_ACE_TYPE, 0, 2, kSystem},
                              {ACCESS_ALLOWED_ACE_TYPE, 0, 3, kUser}});
    ASSERT_TRUE(SetAceFlags(&acl, 1, OBJECT_INHERIT_ACE | INHERIT_ONLY_ACE));
    EXPECT_EQ(AcesOf(acl)[1].Header.AceFlags, 9);
    OVTEST_EXPECT_FAIL(SetAceFlags(&acl, 3, 0), ERROR_INVALID_PARAMETER);

    ASSERT_TRUE(DeleteAce(&acl, 0));
    const std::vector<Ace> left = AcesOf(acl);
    ASSERT_EQ(left.size(), 2u);
    EXPECT_EQ(left[0].sid, kSystem);
    EXPECT_EQ(left[1].sid, kUser);
    EXPECT_EQ(SizeOf(acl).AclBytesInUse, 8u + 20 + 36);
    OVTEST_EXPECT_FAIL(DeleteAce(&acl, 2), ERROR_INVALID_PARAMETER);
}

TEST(SecurityAcl, FromBytesRefusesDamagedAcls) {
    const Acl acl = sectest::AclOf({{ACCESS_ALLOWED_ACE_TYPE, 0, 1, kAdmins}});
    std::vector<std::byte> bytes(acl.bytes().begin(), acl.bytes().end());
    EXPECT_EQ(Acl::FromBytes(bytes), acl);
    for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
        EXPECT_TRUE(Acl::FromBytes(std::span(bytes).first(cut)).empty()) << cut;
    }
    std::vector<std::byte> badAce = bytes;
    badAce[8 + 2] = std::byte{0x7F};  // ACE size past the ACL
    EXPECT_TRUE(Acl::FromBytes(badAce).empty());
    std::vector<std::byte> badCount = bytes;
    badCount[4] = std::byte{2};  // claims a second ACE
    EXPECT_TRUE(Acl::FromBytes(badCount).empty());
    std::vector<std::byte> badRevision = bytes;
    badRevision[0] = std::byte{9};
    EXPECT_TRUE(Acl::FromBytes(badRevision).empty());
}

}  // namespace
