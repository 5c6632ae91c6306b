// Printer security: the descriptor a printer gets, levels 3 and 2 with a
// descriptor, the owner, and the access check when a printer is opened.
#include <gtest/gtest.h>

#include <vector>

#include "platform/security.h"
#include "security_test_support.h"
#include "spooler_fixture.h"

namespace {

using namespace platform;
using spooltest::Access;
using spooltest::OpenAll;
using spooltest::Poison;
using Bytes = std::vector<std::byte>;

const Sid kSystem = sectest::SidOf(u"S-1-5-18");
const Sid kAdmins = sectest::SidOf(u"S-1-5-32-544");
const Sid kEveryone = sectest::SidOf(u"S-1-1-0");
const Sid kUser = sectest::SidOf(u"S-1-5-21-1-2-3-1001");
constexpr BYTE A = ACCESS_ALLOWED_ACE_TYPE;

// A self-relative descriptor with the owner and the DACL given (each may be
// absent), and the parts of one read back.
Bytes Descriptor(const Sid* owner, const std::vector<sectest::AceSpec>* dacl) {
    SecurityDescriptor sd;
    EXPECT_TRUE(InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION));
    EXPECT_TRUE(owner == nullptr || SetSecurityDescriptorOwner(&sd, owner, false));
    const Acl acl = dacl != nullptr ? sectest::AclOf(*dacl) : Acl{};
    EXPECT_TRUE(dacl == nullptr || SetSecurityDescriptorDacl(&sd, true, &acl, false));
    return ToSelfRelative(sd);
}

Sid OwnerOf(const Bytes& bytes) {
    SecurityDescriptor sd;
    const Sid* owner = nullptr;
    bool defaulted = false;
    EXPECT_TRUE(MakeAbsoluteSD(bytes, &sd) && GetSecurityDescriptorOwner(sd, &owner, &defaulted));
    return owner != nullptr ? *owner : Sid{};
}

std::vector<Ace> DaclOf(const Bytes& bytes) {
    SecurityDescriptor sd;
    bool present = false;
    bool defaulted = false;
    const Acl* dacl = nullptr;
    EXPECT_TRUE(MakeAbsoluteSD(bytes, &sd) &&
                GetSecurityDescriptorDacl(sd, &present, &dacl, &defaulted));
    return dacl != nullptr ? sectest::AcesOf(*dacl) : std::vector<Ace>{};
}

constexpr char kNoSecurityUnderWine[] =
    "Wine's spooler keeps no security descriptor for a printer (no level 3, none in level 2)";

// The user of this process's token: the creator of the printers it adds.
Sid CreatorSid() {
    UniqueToken token;
    Sid user;
    EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token));
    EXPECT_TRUE(GetTokenUserSid(token.get(), &user));
    return user;
}

class SpoolerSecurity : public spooltest::SpoolerTest {
  protected:
    Bytes SecurityOf(const std::u16string& name) {
        auto printer = OpenAll(name);
        PrinterInfo3 info;
        EXPECT_TRUE(printer && GetPrinterW(printer.get(), &info));
        return info.securityDescriptor;
    }
    void SetSecurity(const std::u16string& name, const Bytes& sd) {
        auto printer = OpenAll(name);
        ASSERT_TRUE(printer);
        ASSERT_TRUE(SetPrinterW(printer.get(), PrinterInfo3{sd}, 0)) << GetLastError();
    }
};

TEST_F(SpoolerSecurity, NewPrinterIsOwnedByItsCreatorAndLetsEveryonePrint) {
    OVTEST_SKIP_UNDER_WINE(kNoSecurityUnderWine);
    AddPrinter(Name(u"Office"));
    const Bytes sd = SecurityOf(Name(u"Office"));
    ASSERT_GE(sd.size(), 20u);
    EXPECT_EQ(sd[0], std::byte{1});
    EXPECT_EQ(std::to_integer<int>(sd[3]) & 0x80, 0x80);  // self-relative
    EXPECT_EQ(std::to_integer<int>(sd[2]) & 0x04, 0x04);  // DACL present
    EXPECT_EQ(OwnerOf(sd), CreatorSid());  // on the embedded machine: the local system
    bool everyonePrints = false;
    bool adminsManage = false;
    for (const auto& ace : DaclOf(sd)) {
        const bool plain = ace.Header.AceType == A && ace.Header.AceFlags == 0;
        everyonePrints |= plain && ace.sid == kEveryone && (ace.Mask & PRINTER_ACCESS_USE) != 0 &&
                          (ace.Mask & PRINTER_ACCESS_ADMINISTER) == 0;
        adminsManage |= plain && ace.sid == kAdmins && ace.Mask == PRINTER_ALL_ACCESS;
    }
    EXPECT_TRUE(everyonePrints);
    EXPECT_TRUE(adminsManage);
}

TEST_F(SpoolerSecurity, GivenDescriptorIsStoredAsGiven) {
    OVTEST_SKIP_UNDER_WINE(kNoSecurityUnderWine);

    const std::vector<sectest::AceSpec> dacl = {{A, 0, PRINTER_ALL_ACCESS, kSystem},
                                                {A, 0, 0x00020008, kUser},
                                                {A, 9, 0x000F0030, kAdmins}};
    auto info = spooltest::Record(Name(u"Restricted"));
    info.securityDescriptor = Descriptor(&kAdmins, &dacl);
    ASSERT_TRUE(AddPrinterW(u"", info));
    const Bytes sd = SecurityOf(Name(u"Restricted"));
    EXPECT_EQ(OwnerOf(sd), kAdmins);
    const auto read = DaclOf(sd);
    ASSERT_EQ(read.size(), 3u);
    EXPECT_EQ(read[1].sid, kUser);
    EXPECT_EQ(read[1].Mask, 0x00020008u);
    EXPECT_EQ(read[2].Header.AceFlags, 9);
}

TEST_F(SpoolerSecurity, MalformedDescriptorsAreRefused) {
    Bytes truncated = Descriptor(&kSystem, nullptr);
    truncated.resize(truncated.size() - 1);
    Bytes absolute = Descriptor(&kSystem, nullptr);
    absolute[3] = std::byte{0};  // not self-relative
    for (const Bytes& sd : {truncated, absolute, Bytes(8, std::byte{1})}) {
        auto info = spooltest::Record(Name(u"Broken"));
        info.securityDescriptor = sd;
        OVTEST_EXPECT_FAIL(AddPrinterW(u"", info), ERROR_INVALID_SECURITY_DESCR);
    }
    EXPECT_EQ(PrinterCount(), 0u);
    auto printer = AddAndOpen(Name(u"Office"));
    OVTEST_EXPECT_FAIL(SetPrinterW(printer.get(), PrinterInfo3{truncated}, 0),
                       ERROR_INVALID_SECURITY_DESCR);
    OVTEST_EXPECT_FAIL(SetPrinterW(printer.get(), PrinterInfo3{}, 0), ERROR_INVALID_PARAMETER);
}

TEST_F(SpoolerSecurity, DescriptorWithoutOwnerKeepsThePrintersOwner) {
    OVTEST_SKIP_UNDER_WINE(kNoSecurityUnderWine);
    AddPrinter(Name(u"Office"));
    const std::vector<sectest::AceSpec> dacl = {{A, 0, PRINTER_ALL_ACCESS, kAdmins},
                                                {A, 0, 0x20008, kUser}};
    // As an ACL editor writes it back: a DACL only, through the level-2 record.
    auto printer = OpenAll(Name(u"Office"));
    PrinterInfo2 info = Read(printer.get());
    info.securityDescriptor = Descriptor(nullptr, &dacl);
    ASSERT_TRUE(SetPrinterW(printer.get(), info, 0));
    const Bytes sd = SecurityOf(Name(u"Office"));
    EXPECT_EQ(OwnerOf(sd), CreatorSid());
    ASSERT_EQ(DaclOf(sd).size(), 2u);
    EXPECT_EQ(DaclOf(sd)[1].sid, kUser);
}

TEST_F(SpoolerSecurity, OwnerChangeKeepsTheDacl) {
    OVTEST_SKIP_UNDER_WINE(kNoSecurityUnderWine);
    const auto name = Name(u"_#Template");
    AddPrinter(name);
    const auto before = DaclOf(SecurityOf(name));
    auto printer = OpenAll(name);
    OVTEST_EXPECT_STATUS(
        SetPrinterOwner(printer.get(), Bytes(kAdmins.bytes().begin(), kAdmins.bytes().end())),
        ERROR_SUCCESS);
    const Bytes sd = SecurityOf(name);
    EXPECT_EQ(OwnerOf(sd), kAdmins);
    EXPECT_EQ(DaclOf(sd).size(), before.size());

    Poison();
    EXPECT_EQ(SetPrinterOwner(printer.get(), Bytes(5, std::byte{1})), ERROR_INVALID_SID);
    auto user = OpenPrinterW(name);
    OVTEST_EXPECT_STATUS(
        SetPrinterOwner(user.get(), Bytes(kSystem.bytes().begin(), kSystem.bytes().end())),
        ERROR_ACCESS_DENIED);
}

TEST_F(SpoolerSecurity, OpenIsCheckedAgainstTheDacl) {
    OVTEST_SKIP_UNDER_WINE(kNoSecurityUnderWine);
    const auto name = Name(u"Print Only");
    AddPrinter(name);
    // Only Everyone may print; the caller (system) is not the owner.
    const std::vector<sectest::AceSpec> dacl = {{A, 0, PRINTER_READ, kEveryone}};
    SetSecurity(name, Descriptor(&kUser, &dacl));

    OVTEST_EXPECT_FAIL(OpenAll(name), ERROR_ACCESS_DENIED);
    const auto administer = Access(PRINTER_ACCESS_ADMINISTER);
    OVTEST_EXPECT_FAIL(OpenPrinterW(name, &administer), ERROR_ACCESS_DENIED);

    // Printing, generic read and the default access are granted.
    for (DWORD desired : {DWORD{0}, PRINTER_ACCESS_USE, DWORD{0x80000000}}) {
        const auto defaults = Access(desired);
        Poison();
        auto printer = OpenPrinterW(name, &defaults);
        EXPECT_TRUE(printer) << desired;
        EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
        if (printer) {
            DocInfo1 doc;
            doc.documentName = u"allowed";
            const DWORD job = StartDocPrinterW(printer.get(), doc);
            EXPECT_NE(job, 0u);
            EndDocPrinter(printer.get());
        }
    }
}

TEST_F(SpoolerSecurity, OwnerMayStillReadAndRewriteAnEmptyDacl) {
    OVTEST_SKIP_UNDER_WINE(kNoSecurityUnderWine);
    const auto name = Name(u"Locked");
    AddPrinter(name);
    const std::vector<sectest::AceSpec> none;
    const Sid creator = CreatorSid();
    SetSecurity(name, Descriptor(&creator, &none));
    OVTEST_EXPECT_FAIL(OpenPrinterW(name), ERROR_ACCESS_DENIED);
    const auto control = Access(0x00060000);  // READ_CONTROL | WRITE_DAC
    auto owner = OpenPrinterW(name, &control);
    ASSERT_TRUE(owner);
    PrinterInfo3 info;
    ASSERT_TRUE(GetPrinterW(owner.get(), &info));
    EXPECT_TRUE(DaclOf(info.securityDescriptor).empty());
    const std::vector<sectest::AceSpec> open = {{A, 0, PRINTER_ALL_ACCESS, creator}};
    ASSERT_TRUE(SetPrinterW(owner.get(), PrinterInfo3{Descriptor(nullptr, &open)}, 0));
    EXPECT_TRUE(OpenAll(name));
}

TEST_F(SpoolerSecurity, HandleWithoutReadControlSeesNoDescriptor) {
    OVTEST_SKIP_UNDER_WINE(kNoSecurityUnderWine);
    AddPrinter(Name(u"Office"));
    auto user = OpenPrinterW(Name(u"Office"));
    PrinterInfo2 info = Read(user.get());
    EXPECT_TRUE(info.securityDescriptor.empty());
    PrinterInfo3 level3;
    OVTEST_EXPECT_FAIL(GetPrinterW(user.get(), &level3), ERROR_ACCESS_DENIED);
}

}  // namespace
