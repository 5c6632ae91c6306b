#include "spooler/printer_acl.h"

#include <algorithm>
#include <span>

#include "common/ovstring.h"
#include "config/product_values.h"
#include "platform/kernel.h"
#include "res/resources.h"
#include "spooler/win_printer.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

using platform::ACCESS_MASK;
using platform::BYTE;
using platform::DWORD;

struct AceSpec {
    ACCESS_MASK mask;
    BYTE flags;
};

struct RightsSet {
    std::int32_t code;
    const char16_t* maskLine;
    std::vector<AceSpec> aces;
    // Bytes the new ACL gets beyond the old one's and one SID per entry.
    DWORD fixedBytes;
};

// What each rights code grants a user, as the printer security page of the
// Windows version offers it.
const std::vector<RightsSet>& RightsSets() {
    static const std::vector<RightsSet> sets = {
        {201, u"Access-Mask for 'Drucken' in WinNT or Win2000...", {{0x00020008, 2}}, 8},
        {202,
         u"Access-Mask for 'Dokumente verwalten' in WinNT...",
         {{0x10000000, 9}, {0x00020000, 2}},
         20},
        {203,
         u"Access-Maske for 'Vollzugriff' in WinNT...",
         {{0x10000000, 9}, {0x000F000C, 2}},
         20},
        {204, u"Access-Mask for 'Drucken' in WinNT or Win2000...", {{0x00020008, 0}}, 8},
        {205,
         u"Access-Maske for 'Dokumente verwalten' in Win2000...",
         {{0x00020000, 10}, {0x000F0010, 9}},
         20},
        {206,
         u"Access-Maske for 'Drucken und Dokumente verwalten' in Win2000...",
         {{0x00020008, 0}, {0x00020000, 10}, {0x000F0030, 9}},
         32},
        {207,
         u"Access-Maske for 'Drucken, Dokumente und Drucker verwalten' in Win2000...",
         {{0x000F000C, 0}, {0x000F0030, 9}},
         20},
        {208,
         u"Access-Maske for 'Drucken und Drucker verwalten' in Win2000...",
         {{0x000F000C, 0}},
         8},
    };
    return sets;
}

const RightsSet* FindRights(std::int32_t code) {
    for (const RightsSet& set : RightsSets()) {
        if (set.code == code) {
            return &set;
        }
    }
    return nullptr;
}

std::int32_t MapRights(DWORD value, std::initializer_list<std::int32_t> byIndex, std::int32_t first,
                       std::int32_t last, std::int32_t invalid) {
    if (value < byIndex.size()) {
        return *(byIndex.begin() + value);
    }
    if (value >= static_cast<DWORD>(first) && value <= static_cast<DWORD>(last)) {
        return static_cast<std::int32_t>(value);
    }
    return invalid;
}

bool IsSystemAccountName(std::u16string_view user) {
    constexpr std::u16string_view kSuffix = u"\\SYSTEM";
    return user.size() > kSuffix.size() &&
           EqualsNoCase(user.substr(user.size() - kSuffix.size()), kSuffix);
}

// The SID of an account name, looked up with the two-call protocol.
bool LookupSid(std::u16string_view user, platform::Sid* sid) {
    DWORD sidSize = 0;
    DWORD domainLength = 0;
    platform::SID_NAME_USE use{};
    if (platform::LookupAccountNameW(u"", user, nullptr, &sidSize, nullptr, &domainLength, &use) ||
        platform::GetLastError() != platform::ERROR_INSUFFICIENT_BUFFER) {
        return false;
    }
    std::vector<std::byte> sidBytes(sidSize);
    std::u16string domain(domainLength, u'\0');
    if (!platform::LookupAccountNameW(u"", user, sidBytes.data(), &sidSize, domain.data(),
                                      &domainLength, &use)) {
        return false;
    }
    *sid = platform::Sid::FromBytes(sidBytes.data(), sidBytes.size());
    return !sid->empty();
}

// "DOMAIN\account" of a SID, looked up with the two-call protocol.
bool LookupName(const platform::Sid& sid, std::u16string* full) {
    DWORD nameLength = 0;
    DWORD domainLength = 0;
    platform::SID_NAME_USE use{};
    if (platform::LookupAccountSidW(u"", sid, nullptr, &nameLength, nullptr, &domainLength, &use) ||
        platform::GetLastError() != platform::ERROR_INSUFFICIENT_BUFFER) {
        return false;
    }
    std::u16string name(nameLength, u'\0');
    std::u16string domain(domainLength, u'\0');
    if (!platform::LookupAccountSidW(u"", sid, name.data(), &nameLength, domain.data(),
                                     &domainLength, &use)) {
        return false;
    }
    name.resize(nameLength);
    domain.resize(domainLength);
    *full = Format(u"%s\\%s", domain, name);
    return true;
}

// Appends one access-allowed entry and gives it its flags.
bool AppendAce(platform::Acl* acl, const AceSpec& wanted, const platform::Sid& sid) {
    platform::ACL_SIZE_INFORMATION info;
    return platform::GetAclInformation(*acl, &info) &&
           platform::AddAccessAllowedAce(acl, platform::ACL_REVISION, wanted.mask, sid) &&
           platform::SetAceFlags(acl, info.AceCount, wanted.flags);
}

// The one failure line of AddAccessRights.
int AccessRightsFailed(int step) {
    OVTRACE(ERR | NORM, "WinPrinter::Access-Rights failed LNUMBER=(%d), GetLastError=(%d)", step,
            platform::GetLastError());
    return 0;
}

}  // namespace

std::int32_t QueryAccessRightsFromRegistry() {
    {
        platform::UniqueKey key;
        if (config::OpenProductKey(platform::KEY_READ, &key) != platform::ERROR_SUCCESS) {
            OVTRACE(ERR | NORM, "%s", LoadOwnString(IDS_KEY_OPEN_FAILED));
            return -1;
        }
    }
    platform::OSVERSIONINFOEXW version;
    if (!platform::GetVersionExW(&version)) {
        return -2;
    }
    OVTRACE(INF | NORM, "osvi.dwMajorVersion  = %d", version.dwMajorVersion);
    constexpr DWORD kPlatformNt = 2;
    if (version.dwPlatformId != kPlatformNt) {
        OVTRACE(INF | NORM, "Unknown Plattform: %i", version.dwMajorVersion);
        return -9;
    }
    if (version.dwMajorVersion <= 4) {
        std::uint32_t value = 0;
        if (config::RightsWinNT(&value) != config::ReadStatus::kRead) {
            OVTRACE(ERR | NORM, "%s", LoadOwnString(IDS_RIGHTS_QUERY_FAILED));
            return -3;
        }
        return MapRights(value, {203, 201, 202}, 201, 203, -5);
    }
    if (version.dwMajorVersion <= 6) {
        std::uint32_t value = 0;
        if (config::RightsWin2000(&value) != config::ReadStatus::kRead) {
            OVTRACE(ERR | NORM, "%s", LoadOwnString(IDS_RIGHTS_QUERY_FAILED));
            return -4;
        }
        return MapRights(value, {207, 204, 205, 206, 208}, 204, 208, -8);
    }
    return 0;
}

int AddAccessRights(int mode, const std::vector<std::byte>& oldDescriptor,
                    const std::vector<std::u16string>& users,
                    std::optional<platform::SecurityDescriptor>* newDescriptor) {
    const std::u16string user = users.empty() ? std::u16string() : users.front();
    if (IsSystemAccountName(user)) {
        OVTRACE(INF | SACL, "SYSTEM or Administrators would be added or deleted <%s>", user);
        return 1;
    }
    platform::Sid admins;
    platform::Sid system;
    if (!platform::AllocateAndInitializeSid(
            platform::SECURITY_NT_AUTHORITY, 2, platform::SECURITY_BUILTIN_DOMAIN_RID,
            platform::DOMAIN_ALIAS_RID_ADMINS, 0, 0, 0, 0, 0, 0, &admins)) {
        return AccessRightsFailed(1);
    }
    if (!platform::AllocateAndInitializeSid(platform::SECURITY_NT_AUTHORITY, 1,
                                            platform::SECURITY_LOCAL_SYSTEM_RID, 0, 0, 0, 0, 0, 0,
                                            0, &system)) {
        return AccessRightsFailed(2);
    }
    const std::int32_t nAccessRights = QueryAccessRightsFromRegistry();
    if (nAccessRights < 0) {
        return AccessRightsFailed(3);
    }
    OVTRACE(INF | NORM, "nAccessRights = %d", nAccessRights);
    if (newDescriptor == nullptr) {
        return AccessRightsFailed(4);
    }
    platform::SecurityDescriptor created;

    OVTRACE(INF | SACL, "STEP 1/13: Get SID for current user=<%s>", user);
    platform::Sid userSid;
    if (!LookupSid(user, &userSid)) {
        return AccessRightsFailed(5);
    }
    if (platform::EqualSid(userSid, system) || platform::EqualSid(userSid, admins)) {
        OVTRACE(INF | SACL, "SYSTEM or Administrators would be added or deleted <%s>", user);
        return 1;
    }
    OVTRACE(INF | NORM, "STEP 2/13: Initialize new SD...");
    if (!platform::InitializeSecurityDescriptor(&created, platform::SECURITY_DESCRIPTOR_REVISION)) {
        return AccessRightsFailed(6);
    }
    OVTRACE(INF | NORM, "STEP 3/13: Get DACL from SD...");
    platform::SecurityDescriptor old;
    bool present = false;
    bool defaulted = false;
    const platform::Acl* dacl = nullptr;
    if (!oldDescriptor.empty()) {
        if (!platform::MakeAbsoluteSD(oldDescriptor, &old) ||
            !platform::GetSecurityDescriptorDacl(old, &present, &dacl, &defaulted)) {
            return AccessRightsFailed(7);
        }
    }
    OVTRACE(INF | NORM, "STEP 4/13: Get file ACL size information...");
    platform::ACL_SIZE_INFORMATION sizeInfo;
    sizeInfo.AclBytesInUse = platform::kAclHeaderSize;
    if (dacl != nullptr && !platform::GetAclInformation(*dacl, &sizeInfo)) {
        return AccessRightsFailed(8);
    }
    OVTRACE(INF | NORM, "STEP 5/13: Compute size needed for the new ACL...");
    const RightsSet* rights = FindRights(nAccessRights);
    const DWORD sidLength = platform::GetLengthSid(userSid);
    DWORD size = 0;
    if (rights == nullptr) {
        OVTRACE(ERR | NORM, "ERROR: Illegal nAccessRights = %d!", nAccessRights);
    } else {
        size = sizeInfo.AclBytesInUse + rights->fixedBytes +
               static_cast<DWORD>(rights->aces.size()) * sidLength;
    }
    if (dacl == nullptr) {
        if (rights == nullptr) {
            OVTRACE(ERR | NORM, "ERROR: Illegal nAccessRights = %d!", nAccessRights);
        } else {
            size += 48 + 2 * (platform::GetLengthSid(system) + platform::GetLengthSid(admins));
        }
    }
    OVTRACE(INF | NORM, "STEP 6/13: Allocate memory for new ACL...");
    platform::Acl acl;
    OVTRACE(INF | NORM, "STEP 7/13: Initialize the new ACL...");
    if (!platform::InitializeAcl(&acl, size, platform::ACL_REVISION)) {
        return AccessRightsFailed(9);
    }
    OVTRACE(INF | NORM, "STEP 8/13: If DACL is present, copy it to a new DACL...");
    bool alreadyPresent = false;
    if (present && dacl != nullptr) {
        OVTRACE(INF | NORM, "STEP 9/13: Copy the files ACEs to our new ACL...");
        for (DWORD i = 0; i < sizeInfo.AceCount; ++i) {
            OVTRACE(INF | NORM, "STEP 10/13: Get an ACE...");
            platform::Ace ace;
            if (!platform::GetAce(*dacl, i, &ace)) {
                return AccessRightsFailed(10);
            }
            if (ace.Header.AceType == platform::ACCESS_ALLOWED_ACE_TYPE &&
                platform::EqualSid(ace.sid, userSid)) {
                if (mode == kAclRemove) {
                    continue;
                }
                alreadyPresent = true;
            }
            OVTRACE(INF | NORM, "STEP 11/13: Add the ACE to the new ACL...");
            if (!platform::AddAce(&acl, platform::ACL_REVISION, platform::MAXDWORD, ace)) {
                return AccessRightsFailed(11);
            }
        }
    }
    OVTRACE(INF | NORM, "STEP 12/13: Add the access-allowed ACE to the new DACL...");
    if (mode == kAclAdd) {
        if (dacl == nullptr) {
            if (rights == nullptr) {
                OVTRACE(ERR | NORM, "ERROR: Illegal nAccessRights = %d!", nAccessRights);
            } else {
                const bool nt4 = nAccessRights <= 203;
                const std::vector<std::pair<AceSpec, const platform::Sid*>> defaults =
                    nt4 ? std::vector<std::pair<AceSpec, const platform::Sid*>>{{{0x10000000, 9},
                                                                                 &system},
                                                                                {{0x000F000C, 2},
                                                                                 &system},
                                                                                {{0x10000000, 9},
                                                                                 &admins},
                                                                                {{0x000F000C, 2},
                                                                                 &admins}}
                        : std::vector<std::pair<AceSpec, const platform::Sid*>>{
                              {{0x000F000C, 0}, &admins},
                              {{0x000F0030, 9}, &admins},
                              {{0x000F000C, 0}, &system},
                              {{0x000F0030, 9}, &system}};
                for (const auto& [wanted, sid] : defaults) {
                    if (!AppendAce(&acl, wanted, *sid)) {
                        return AccessRightsFailed(12);
                    }
                }
            }
        }
        if (!alreadyPresent) {
            if (rights == nullptr) {
                OVTRACE(ERR | NORM, "ERROR: Illegal nAccessRights = %d!", nAccessRights);
            } else {
                OVTRACE(INF | NORM, "%s", rights->maskLine);
                for (const AceSpec& wanted : rights->aces) {
                    if (!AppendAce(&acl, wanted, userSid)) {
                        return AccessRightsFailed(13);
                    }
                }
            }
        }
    }
    OVTRACE(INF | NORM, "STEP 13/13: Set our new DACL to the file SD...");
    if (!platform::SetSecurityDescriptorDacl(&created, true, &acl, false)) {
        return AccessRightsFailed(14);
    }
    *newDescriptor = std::move(created);
    return 1;
}

int SetPrinterACL(int mode, std::u16string_view printerName, std::u16string_view userName) {
    const auto failed = [](int step) {
        OVTRACE(ERR | NORM, "WinPrinter::Set-PrinterACL failed LNUMBER=(%d), GetLastError=(%d)",
                step, platform::GetLastError());
        return 0;
    };
    const platform::UniquePrinter printer = OpenPrinterFullAccess(printerName);
    if (!printer) {
        OVTRACE(ERR | NORM, "Open-Printer returns false, (internal error!): LastError=%d",
                platform::GetLastError());
        return failed(305);
    }
    PrinterInfo2Buffer record(printer.get());
    if (record.error != 0) {
        platform::SetLastError(record.error);
        return failed(311);
    }
    std::optional<platform::SecurityDescriptor> created;
    if (AddAccessRights(mode, record.info.securityDescriptor, {std::u16string(userName)},
                        &created) == 0) {
        OVTRACE(ERR | NORM, "Setting printer ACL failed!");
        return failed(319);
    }
    OVTRACE(INF | NORM, "Printer ACL set successfully!");
    record.info.securityDescriptor =
        created ? platform::ToSelfRelative(*created) : std::vector<std::byte>();
    const std::uint64_t start = platform::GetTickCount64();
    if (!platform::SetPrinterW(printer.get(), record.info, 0)) {
        OVTRACE(INF | NORM, "SetPrinter fails: LastError %ld!", platform::GetLastError());
        return failed(332);
    }
    OVTRACE(INF | NORM, "SetPrinter duration = %d ms",
            static_cast<std::int32_t>(platform::GetTickCount64() - start));
    return 1;
}

int GetUserNamesFromACL(std::u16string_view printerName, std::vector<std::u16string>* names) {
    const auto failed = [](int step) {
        OVTRACE(ERR | NORM,
                "WinPrinter::Get-UserNamesFormACL failed LNUMBER=(%d), GetLastError=(%d)", step,
                platform::GetLastError());
        return 1;
    };
    const platform::UniquePrinter printer = OpenPrinterFullAccess(printerName);
    if (!printer) {
        OVTRACE(ERR | NORM, "Open-Printer returns false, (internal error!): LastError=%d",
                platform::GetLastError());
        return failed(401);
    }
    const PrinterInfo2Buffer record(printer.get());
    if (record.error != 0) {
        OVTRACE(ERR | NORM, "Get-Printer fails although Open-Printer works!");
        platform::SetLastError(record.error);
        return failed(402);
    }
    platform::SecurityDescriptor descriptor;
    bool present = false;
    bool defaulted = false;
    const platform::Acl* dacl = nullptr;
    if (!record.info.securityDescriptor.empty() &&
        (!platform::MakeAbsoluteSD(record.info.securityDescriptor, &descriptor) ||
         !platform::GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted))) {
        return failed(403);
    }
    if (!present || dacl == nullptr) {
        OVTRACE(ERR | NORM,
                "The security descriptor has a NULL discretionary ACL, cannot been handled!");
        return failed(404);
    }
    platform::ACL_SIZE_INFORMATION info;
    if (!platform::GetAclInformation(*dacl, &info)) {
        return failed(405);
    }
    for (DWORD i = 0; i < info.AceCount; ++i) {
        platform::Ace ace;
        if (!platform::GetAce(*dacl, i, &ace)) {
            return failed(406);
        }
        if (ace.Header.AceType != platform::ACCESS_ALLOWED_ACE_TYPE) {
            continue;
        }
        std::u16string name;
        if (!LookupName(ace.sid, &name)) {
            return failed(407);
        }
        if (std::find(names->begin(), names->end(), name) == names->end()) {
            names->push_back(std::move(name));
        }
    }
    return 1;
}

}  // namespace ovsvc
