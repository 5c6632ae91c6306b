// Security descriptors: owner, group and DACL states, and the self-relative
// byte layout they are stored in.
#include <gtest/gtest.h>

#include "ovtest.h"
#include "security_test_support.h"

using namespace platform;
using sectest::kPoison;
using sectest::SidOf;

namespace {

const Sid kAdmins = SidOf(u"S-1-5-32-544");
const Sid kSystem = SidOf(u"S-1-5-18");
const Sid kUser = SidOf(u"S-1-5-21-10-20-30-1001");

DWORD U32At(const std::vector<std::byte>& b, std::size_t at) {
    return std::to_integer<DWORD>(b[at]) | std::to_integer<DWORD>(b[at + 1]) << 8 |
           std::to_integer<DWORD>(b[at + 2]) << 16 | std::to_integer<DWORD>(b[at + 3]) << 24;
}

SecurityDescriptor Initialised() {
    SecurityDescriptor sd;
    EXPECT_TRUE(InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION));
    return sd;
}

SecurityDescriptor Full() {
    SecurityDescriptor sd = Initialised();
    const Acl dacl = sectest::AclOf({{ACCESS_ALLOWED_ACE_TYPE, 0, 0x000F000C, kAdmins},
                                     {ACCESS_ALLOWED_ACE_TYPE, 9, 0x000F0030, kSystem},
                                     {ACCESS_DENIED_ACE_TYPE, 0, 0x8, kUser}});
    EXPECT_TRUE(SetSecurityDescriptorDacl(&sd, true, &dacl, false));
    EXPECT_TRUE(SetSecurityDescriptorOwner(&sd, &kAdmins, false));
    EXPECT_TRUE(SetSecurityDescriptorGroup(&sd, &kSystem, true));
    return sd;
}

TEST(SecurityDescriptor, InitialiseNeedsRevisionOne) {
    SecurityDescriptor sd;
    OVTEST_EXPECT_FAIL(InitializeSecurityDescriptor(&sd, 2), ERROR_UNKNOWN_REVISION);
    bool present = true;
    bool defaulted = true;
    const Acl* dacl = nullptr;
    OVTEST_EXPECT_FAIL(GetSecurityDescriptorDacl(sd, &present, &dacl, &defaulted),
                       ERROR_UNKNOWN_REVISION)
        << "an uninitialised descriptor";
    OVTEST_EXPECT_FAIL(SetSecurityDescriptorOwner(&sd, &kAdmins, false), ERROR_UNKNOWN_REVISION);

    sd = Initialised();
    SECURITY_DESCRIPTOR_CONTROL control = 0xFFFF;
    DWORD revision = 0;
    ASSERT_TRUE(GetSecurityDescriptorControl(sd, &control, &revision));
    EXPECT_EQ(control, 0);
    EXPECT_EQ(revision, 1u);
    EXPECT_EQ(GetSecurityDescriptorLength(sd), 20u);
}

TEST(SecurityDescriptor, DaclAbsentNullEmptyAndDefaulted) {
    SecurityDescriptor sd = Initialised();
    bool present = true;
    bool defaulted = false;
    const Acl* dacl = reinterpret_cast<const Acl*>(&sd);
    OVTEST_ASSERT_QUIET(GetSecurityDescriptorDacl(sd, &present, &dacl, &defaulted));
    EXPECT_FALSE(present);
    EXPECT_EQ(dacl, nullptr);

    // Present and null: grants everybody everything.
    ASSERT_TRUE(SetSecurityDescriptorDacl(&sd, true, nullptr, false));
    ASSERT_TRUE(GetSecurityDescriptorDacl(sd, &present, &dacl, &defaulted));
    EXPECT_TRUE(present);
    EXPECT_EQ(dacl, nullptr);
    EXPECT_FALSE(defaulted);

    // Present and empty: grants nothing; distinct from null.
    Acl empty;
    ASSERT_TRUE(InitializeAcl(&empty, 8, ACL_REVISION));
    ASSERT_TRUE(SetSecurityDescriptorDacl(&sd, true, &empty, true));
    ASSERT_TRUE(GetSecurityDescriptorDacl(sd, &present, &dacl, &defaulted));
    EXPECT_TRUE(present);
    ASSERT_NE(dacl, nullptr);
    EXPECT_EQ(*dacl, empty);
    EXPECT_TRUE(defaulted);
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    DWORD revision = 0;
    ASSERT_TRUE(GetSecurityDescriptorControl(sd, &control, &revision));
    EXPECT_EQ(control, SE_DACL_PRESENT | SE_DACL_DEFAULTED);

    // Removing the DACL again.
    ASSERT_TRUE(SetSecurityDescriptorDacl(&sd, false, &empty, false));
    ASSERT_TRUE(GetSecurityDescriptorDacl(sd, &present, &dacl, &defaulted));
    EXPECT_FALSE(present);
    EXPECT_EQ(dacl, nullptr);

    const Acl invalid;
    OVTEST_EXPECT_FAIL(SetSecurityDescriptorDacl(&sd, true, &invalid, false), ERROR_INVALID_ACL);
}

TEST(SecurityDescriptor, OwnerAndGroup) {
    SecurityDescriptor sd = Initialised();
    const Sid* owner = &kSystem;
    bool defaulted = true;
    ASSERT_TRUE(GetSecurityDescriptorOwner(sd, &owner, &defaulted));
    EXPECT_EQ(owner, nullptr);
    EXPECT_FALSE(defaulted);
    ASSERT_TRUE(SetSecurityDescriptorOwner(&sd, &kUser, true));
    ASSERT_TRUE(GetSecurityDescriptorOwner(sd, &owner, &defaulted));
    ASSERT_NE(owner, nullptr);
    EXPECT_EQ(*owner, kUser);
    EXPECT_TRUE(defaulted);
    const Sid* group = nullptr;
    ASSERT_TRUE(SetSecurityDescriptorGroup(&sd, &kAdmins, false));
    ASSERT_TRUE(GetSecurityDescriptorGroup(sd, &group, &defaulted));
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(*group, kAdmins);
    EXPECT_FALSE(defaulted);
    ASSERT_TRUE(SetSecurityDescriptorOwner(&sd, nullptr, false));
    ASSERT_TRUE(GetSecurityDescriptorOwner(sd, &owner, &defaulted));
    EXPECT_EQ(owner, nullptr);

    const Sid bad;
    OVTEST_EXPECT_FAIL(SetSecurityDescriptorGroup(&sd, &bad, false), ERROR_INVALID_SID);
}

TEST(SecurityDescriptor, SelfRelativeLayout) {
    OVTEST_SKIP_UNDER_WINE("MakeSelfRelativeSD stores the owner and group before the ACLs");
    const SecurityDescriptor sd = Full();
    const std::vector<std::byte> bytes = ToSelfRelative(sd);
    const DWORD aclSize = 8 + (8 + 16) + (8 + 12) + (8 + 28);
    ASSERT_EQ(bytes.size(), 20u + aclSize + 16 + 12);
    EXPECT_EQ(GetSecurityDescriptorLength(sd), bytes.size());
    EXPECT_EQ(bytes[0], std::byte{1});
    const DWORD control = std::to_integer<DWORD>(bytes[2]) | std::to_integer<DWORD>(bytes[3]) << 8;
    EXPECT_EQ(control, SE_SELF_RELATIVE | SE_DACL_PRESENT | SE_GROUP_DEFAULTED);
    EXPECT_EQ(U32At(bytes, 16), 20u) << "the DACL comes first after the header";
    EXPECT_EQ(U32At(bytes, 4), 20u + aclSize) << "then the owner";
    EXPECT_EQ(U32At(bytes, 8), 20u + aclSize + 16) << "then the group";
    EXPECT_EQ(U32At(bytes, 12), 0u) << "no SACL";
}

TEST(SecurityDescriptor, SelfRelativeRoundTrips) {
    SecurityDescriptor nullDacl = Initialised();
    ASSERT_TRUE(SetSecurityDescriptorDacl(&nullDacl, true, nullptr, false));
    SecurityDescriptor emptyDacl = Initialised();
    Acl empty;
    ASSERT_TRUE(InitializeAcl(&empty, 8, ACL_REVISION));
    ASSERT_TRUE(SetSecurityDescriptorDacl(&emptyDacl, true, &empty, false));
    SecurityDescriptor ownerOnly = Initialised();
    ASSERT_TRUE(SetSecurityDescriptorOwner(&ownerOnly, &kUser, false));
    Acl roomy;  // free space past the ACEs is kept as well
    ASSERT_TRUE(InitializeAcl(&roomy, 200, ACL_REVISION));
    ASSERT_TRUE(AddAccessAllowedAce(&roomy, ACL_REVISION, 8, kUser));
    SecurityDescriptor roomyDacl = Initialised();
    ASSERT_TRUE(SetSecurityDescriptorDacl(&roomyDacl, true, &roomy, false));

    for (const SecurityDescriptor& sd :
         {Full(), Initialised(), nullDacl, emptyDacl, ownerOnly, roomyDacl}) {
        const std::vector<std::byte> bytes = ToSelfRelative(sd);
        SecurityDescriptor back;
        OVTEST_ASSERT_QUIET(MakeAbsoluteSD(bytes, &back));
        EXPECT_EQ(back, sd);
        EXPECT_EQ(ToSelfRelative(back), bytes);
    }
    const std::vector<std::byte> nullBytes = ToSelfRelative(nullDacl);
    EXPECT_EQ(nullBytes.size(), 20u);
    EXPECT_EQ(U32At(nullBytes, 16), 0u) << "a NULL DACL has no offset but keeps the flag";
    SecurityDescriptor back;
    ASSERT_TRUE(MakeAbsoluteSD(nullBytes, &back));
    bool present = false;
    bool defaulted = false;
    const Acl* dacl = &empty;
    ASSERT_TRUE(GetSecurityDescriptorDacl(back, &present, &dacl, &defaulted));
    EXPECT_TRUE(present);
    EXPECT_EQ(dacl, nullptr);
}

TEST(SecurityDescriptor, MakeSelfRelativeSizeProtocol) {
    const SecurityDescriptor sd = Full();
    const DWORD size = GetSecurityDescriptorLength(sd);
    DWORD probe = 0;
    OVTEST_EXPECT_FAIL(MakeSelfRelativeSD(sd, nullptr, &probe), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(probe, size);

    std::vector<std::byte> buffer(size + 1, std::byte{0xCC});
    probe = size - 1;
    OVTEST_EXPECT_FAIL(MakeSelfRelativeSD(sd, buffer.data(), &probe), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(probe, size);
    EXPECT_EQ(buffer[0], std::byte{0xCC});

    probe = size;
    OVTEST_ASSERT_QUIET(MakeSelfRelativeSD(sd, buffer.data(), &probe));
    EXPECT_EQ(std::vector<std::byte>(buffer.begin(), buffer.begin() + size), ToSelfRelative(sd));

    probe = size + 1;
    ASSERT_TRUE(MakeSelfRelativeSD(sd, buffer.data(), &probe));
    EXPECT_EQ(probe, size);
    EXPECT_EQ(buffer[size], std::byte{0xCC});
}

TEST(SecurityDescriptor, DamagedBytesAreRefused) {
    const std::vector<std::byte> good = ToSelfRelative(Full());
    for (std::size_t cut = 0; cut < good.size(); ++cut) {
        SecurityDescriptor sd;
        SetLastError(kPoison);
        EXPECT_FALSE(MakeAbsoluteSD(std::span(good).first(cut), &sd)) << cut;
        EXPECT_EQ(GetLastError(), ERROR_INVALID_SECURITY_DESCR) << cut;
    }
    std::vector<std::byte> absolute = good;
    absolute[3] = std::byte{0};  // SE_SELF_RELATIVE cleared
    SecurityDescriptor sd;
    OVTEST_EXPECT_FAIL(MakeAbsoluteSD(absolute, &sd), ERROR_BAD_DESCRIPTOR_FORMAT);

    std::vector<std::byte> wild = good;
    wild[4] = std::byte{0xF0};  // owner offset far past the end
    wild[5] = std::byte{0xFF};
    EXPECT_FALSE(MakeAbsoluteSD(wild, &sd));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_SECURITY_DESCR);
    std::vector<std::byte> inHeader = good;
    inHeader[16] = std::byte{4};  // DACL offset inside the header
    EXPECT_FALSE(MakeAbsoluteSD(inHeader, &sd));
    std::vector<std::byte> badRevision = good;
    badRevision[0] = std::byte{2};
    EXPECT_FALSE(IsValidSelfRelativeSecurityDescriptor(badRevision));
    EXPECT_TRUE(IsValidSelfRelativeSecurityDescriptor(good));
}

}  // namespace
