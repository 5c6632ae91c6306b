// Printer security: the descriptor a printer gets, levels 3 and 2 with a
// descriptor, the owner, and the access check when a printer is opened.
#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <tuple>
#include <vector>

#include "platform/security.h"
#include "spooler_fixture.h"

namespace {

using namespace platform;
using spooltest::Access;
using spooltest::OpenAll;
using spooltest::Poison;
using Bytes = std::vector<std::byte>;

// ---- descriptors built and read by hand, in Windows' layout ----------------------

Bytes Sid(std::uint8_t authority, std::initializer_list<std::uint32_t> subs) {
    Bytes sid(8 + 4 * subs.size());
    sid[0] = std::byte{1};
    sid[1] = static_cast<std::byte>(subs.size());
    sid[7] = static_cast<std::byte>(authority);
    std::size_t at = 8;
    for (auto s : subs) {
        std::memcpy(sid.data() + at, &s, 4);
        at += 4;
    }
    return sid;
}

const Bytes kSystem = Sid(5, {18});
const Bytes kAdmins = Sid(5, {32, 544});
const Bytes kEveryone = Sid(1, {0});
const Bytes kUser = Sid(5, {21, 1, 2, 3, 1001});

struct Ace {
    std::uint8_t type;
    std::uint8_t flags;
    std::uint32_t mask;
    Bytes sid;
};

template <typename T>
void Put(Bytes& b, std::size_t at, T v) {
    std::memcpy(b.data() + at, &v, sizeof(T));
}
template <typename T>
T Get(const Bytes& b, std::size_t at) {
    T v{};
    std::memcpy(&v, b.data() + at, sizeof(T));
    return v;
}

void Append(Bytes& to, const Bytes& part) {
    const std::size_t at = to.size();
    to.resize(at + part.size());
    if (!part.empty()) {
        std::memcpy(to.data() + at, part.data(), part.size());
    }
}

// Self-relative: header, then owner (when given), then the DACL (when present).
Bytes Descriptor(const Bytes* owner, const std::vector<Ace>* dacl) {
    Bytes sd(20);
    sd[0] = std::byte{1};
    std::uint16_t control = 0x8000;
    if (owner != nullptr) {
        Put<std::uint32_t>(sd, 4, static_cast<std::uint32_t>(sd.size()));
        Append(sd, *owner);
    }
    if (dacl != nullptr) {
        control |= 0x0004;
        Put<std::uint32_t>(sd, 16, static_cast<std::uint32_t>(sd.size()));
        Bytes acl(8);
        for (const auto& ace : *dacl) {
            Bytes a(8 + ace.sid.size());
            a[0] = std::byte{ace.type};
            a[1] = std::byte{ace.flags};
            Put<std::uint16_t>(a, 2, static_cast<std::uint16_t>(a.size()));
            Put<std::uint32_t>(a, 4, ace.mask);
            std::memcpy(a.data() + 8, ace.sid.data(), ace.sid.size());
            Append(acl, a);
        }
        acl[0] = std::byte{2};
        Put<std::uint16_t>(acl, 2, static_cast<std::uint16_t>(acl.size()));
        Put<std::uint16_t>(acl, 4, static_cast<std::uint16_t>(dacl->size()));
        Append(sd, acl);
    }
    Put<std::uint16_t>(sd, 2, control);
    return sd;
}

Bytes OwnerOf(const Bytes& sd) {
    if (sd.size() < 20) {
        return {};
    }
    const auto at = Get<std::uint32_t>(sd, 4);
    if (at == 0) {
        return {};
    }
    const std::size_t length = 8 + 4 * static_cast<std::size_t>(sd[at + 1]);
    return Bytes(sd.begin() + at, sd.begin() + at + length);
}

std::vector<Ace> DaclOf(const Bytes& sd) {
    std::vector<Ace> aces;
    if (sd.size() < 20) {
        return aces;
    }
    const auto at = Get<std::uint32_t>(sd, 16);
    if ((Get<std::uint16_t>(sd, 2) & 0x0004) == 0 || at == 0) {
        return aces;
    }
    const auto count = Get<std::uint16_t>(sd, at + 4);
    std::size_t ace = at + 8;
    for (std::uint16_t i = 0; i < count; ++i) {
        const auto size = Get<std::uint16_t>(sd, ace + 2);
        aces.push_back({static_cast<std::uint8_t>(sd[ace]), static_cast<std::uint8_t>(sd[ace + 1]),
                        Get<std::uint32_t>(sd, ace + 4),
                        Bytes(sd.begin() + ace + 8, sd.begin() + ace + size)});
        ace += size;
    }
    return aces;
}

constexpr char kNoSecurityUnderWine[] =
    "Wine's spooler keeps no security descriptor for a printer (no level 3, none in level 2)";

// The user of this process's token: the creator of the printers it adds.
Bytes CreatorSid() {
    UniqueToken token;
    platform::Sid user;
    EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token));
    EXPECT_TRUE(GetTokenUserSid(token.get(), &user));
    return Bytes(user.bytes().begin(), user.bytes().end());
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
    EXPECT_EQ(Get<std::uint16_t>(sd, 2) & 0x8004, 0x8004);  // self-relative, DACL present
    EXPECT_EQ(OwnerOf(sd), CreatorSid());  // on the embedded machine: the local system
    bool everyonePrints = false;
    bool adminsManage = false;
    for (const auto& ace : DaclOf(sd)) {
        everyonePrints |= ace.type == 0 && ace.sid == kEveryone && ace.flags == 0 &&
                          (ace.mask & PRINTER_ACCESS_USE) != 0 &&
                          (ace.mask & PRINTER_ACCESS_ADMINISTER) == 0;
        adminsManage |=
            ace.type == 0 && ace.sid == kAdmins && ace.flags == 0 && ace.mask == PRINTER_ALL_ACCESS;
    }
    EXPECT_TRUE(everyonePrints);
    EXPECT_TRUE(adminsManage);
}

TEST_F(SpoolerSecurity, GivenDescriptorIsStoredAsGiven) {
    OVTEST_SKIP_UNDER_WINE(kNoSecurityUnderWine);

    const std::vector<Ace> dacl = {{0, 0, PRINTER_ALL_ACCESS, kSystem},
                                   {0, 0, 0x00020008, kUser},
                                   {0, 9, 0x000F0030, kAdmins}};
    auto info = spooltest::Record(Name(u"Restricted"));
    info.securityDescriptor = Descriptor(&kAdmins, &dacl);
    ASSERT_TRUE(AddPrinterW(u"", info));
    const Bytes sd = SecurityOf(Name(u"Restricted"));
    EXPECT_EQ(OwnerOf(sd), kAdmins);
    const auto read = DaclOf(sd);
    ASSERT_EQ(read.size(), 3u);
    EXPECT_EQ(read[1].sid, kUser);
    EXPECT_EQ(read[1].mask, 0x00020008u);
    EXPECT_EQ(read[2].flags, 9);
}

TEST_F(SpoolerSecurity, MalformedDescriptorsAreRefused) {
    Bytes truncated = Descriptor(&kSystem, nullptr);
    truncated.resize(truncated.size() - 1);
    Bytes absolute = Descriptor(&kSystem, nullptr);
    absolute[3] = std::byte{0};  // not self-relative
    for (const Bytes& sd : {truncated, absolute, Bytes(8, std::byte{1})}) {
        auto info = spooltest::Record(Name(u"Broken"));
        info.securityDescriptor = sd;
        Poison();
        EXPECT_FALSE(AddPrinterW(u"", info));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_SECURITY_DESCR);
    }
    EXPECT_EQ(PrinterCount(), 0u);
    AddPrinter(Name(u"Office"));
    auto printer = OpenAll(Name(u"Office"));
    Poison();
    EXPECT_FALSE(SetPrinterW(printer.get(), PrinterInfo3{truncated}, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_SECURITY_DESCR);
    Poison();
    EXPECT_FALSE(SetPrinterW(printer.get(), PrinterInfo3{}, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST_F(SpoolerSecurity, DescriptorWithoutOwnerKeepsThePrintersOwner) {
    OVTEST_SKIP_UNDER_WINE(kNoSecurityUnderWine);
    AddPrinter(Name(u"Office"));
    const std::vector<Ace> dacl = {{0, 0, PRINTER_ALL_ACCESS, kAdmins}, {0, 0, 0x20008, kUser}};
    // As an ACL editor writes it back: a DACL only, through the level-2 record.
    auto printer = OpenAll(Name(u"Office"));
    PrinterInfo2 info;
    ASSERT_TRUE(GetPrinterW(printer.get(), &info));
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
    Poison();
    EXPECT_EQ(SetPrinterOwner(printer.get(), kAdmins), ERROR_SUCCESS);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    const Bytes sd = SecurityOf(name);
    EXPECT_EQ(OwnerOf(sd), kAdmins);
    EXPECT_EQ(DaclOf(sd).size(), before.size());

    Poison();
    EXPECT_EQ(SetPrinterOwner(printer.get(), Bytes(5, std::byte{1})), ERROR_INVALID_SID);
    auto user = OpenPrinterW(name);
    Poison();
    EXPECT_EQ(SetPrinterOwner(user.get(), kSystem), ERROR_ACCESS_DENIED);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
}

TEST_F(SpoolerSecurity, OpenIsCheckedAgainstTheDacl) {
    OVTEST_SKIP_UNDER_WINE(kNoSecurityUnderWine);
    const auto name = Name(u"Print Only");
    AddPrinter(name);
    // Only Everyone may print; the caller (system) is not the owner.
    const std::vector<Ace> dacl = {{0, 0, PRINTER_READ, kEveryone}};
    SetSecurity(name, Descriptor(&kUser, &dacl));

    Poison();
    EXPECT_FALSE(OpenAll(name));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    const auto administer = Access(PRINTER_ACCESS_ADMINISTER);
    Poison();
    EXPECT_FALSE(OpenPrinterW(name, &administer));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);

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
    const std::vector<Ace> none;
    const Bytes creator = CreatorSid();
    SetSecurity(name, Descriptor(&creator, &none));
    Poison();
    EXPECT_FALSE(OpenPrinterW(name));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    const auto control = Access(0x00060000);  // READ_CONTROL | WRITE_DAC
    auto owner = OpenPrinterW(name, &control);
    ASSERT_TRUE(owner);
    PrinterInfo3 info;
    ASSERT_TRUE(GetPrinterW(owner.get(), &info));
    EXPECT_TRUE(DaclOf(info.securityDescriptor).empty());
    const std::vector<Ace> open = {{0, 0, PRINTER_ALL_ACCESS, creator}};
    ASSERT_TRUE(SetPrinterW(owner.get(), PrinterInfo3{Descriptor(nullptr, &open)}, 0));
    EXPECT_TRUE(OpenAll(name));
}

TEST_F(SpoolerSecurity, HandleWithoutReadControlSeesNoDescriptor) {
    OVTEST_SKIP_UNDER_WINE(kNoSecurityUnderWine);
    AddPrinter(Name(u"Office"));
    auto user = OpenPrinterW(Name(u"Office"));
    PrinterInfo2 info;
    ASSERT_TRUE(GetPrinterW(user.get(), &info));
    EXPECT_TRUE(info.securityDescriptor.empty());
    PrinterInfo3 level3;
    Poison();
    EXPECT_FALSE(GetPrinterW(user.get(), &level3));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
}

}  // namespace
