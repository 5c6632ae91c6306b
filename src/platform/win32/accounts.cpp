// Accounts over advapi32: names and SIDs are looked up in Windows' own
// account databases (well-known principals, BUILTIN, this computer, its
// domain). The account table the embedded machine keeps for tests has no
// Windows counterpart here: adding, changing, deleting and listing accounts
// answer ERROR_NOT_SUPPORTED.
#include <memory>
#include <string>

#include "platform/security.h"
#include "security_native.h"
#include "win32_api.h"

namespace platform {

using admin::Account;

namespace {

// Windows takes no system name as "this computer".
const wchar_t* SystemOrNull(const std::u16string& systemName) {
    return systemName.empty() ? nullptr : win32::Wide(systemName);
}

struct LsaCloser {
    void operator()(void* policy) const noexcept { ::LsaClose(policy); }
};
struct LsaFreer {
    void operator()(void* memory) const noexcept { ::LsaFreeMemory(memory); }
};

// The name and SID of `sid` with the two-call protocol of LookupAccountSidW.
bool LookUpSid(const Sid& sid, Account* account) {
    ::DWORD nameLength = 0;
    ::DWORD domainLength = 0;
    ::SID_NAME_USE use = ::SidTypeUnknown;
    if (::LookupAccountSidW(nullptr, win32::NativeSid(sid), nullptr, &nameLength, nullptr,
                            &domainLength, &use) ||
        ::GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
        return false;
    }
    std::u16string name(nameLength, u'\0');
    std::u16string domain(domainLength, u'\0');
    if (!::LookupAccountSidW(nullptr, win32::NativeSid(sid), win32::WideBuffer(name), &nameLength,
                             win32::WideBuffer(domain), &domainLength, &use)) {
        return false;
    }
    name.resize(nameLength);
    domain.resize(domainLength);
    account->name = std::move(name);
    account->domain = std::move(domain);
    account->sid = sid;
    account->use = static_cast<SID_NAME_USE>(use);
    // Windows keeps memberships in its account databases, not with the
    // look-up; the platform reports none here.
    account->memberOf.clear();
    return true;
}

}  // namespace

std::u16string GetComputerNameW() {
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1] = {};
    ::DWORD length = MAX_COMPUTERNAME_LENGTH + 1;
    if (!::GetComputerNameW(name, &length)) {
        return {};
    }
    return win32::FromWide(name, length);
}

// The domain the computer is a member of; for a computer in a workgroup,
// its own name, which is the domain of its local accounts.
std::u16string DefaultDomainName() {
    LastErrorKeeper keep;
    ::LSA_OBJECT_ATTRIBUTES attributes{};
    ::LSA_HANDLE policy = nullptr;
    if (::LsaOpenPolicy(nullptr, &attributes, POLICY_VIEW_LOCAL_INFORMATION, &policy) != 0) {
        return GetComputerNameW();
    }
    const std::unique_ptr<void, LsaCloser> closePolicy(policy);
    void* info = nullptr;
    if (::LsaQueryInformationPolicy(policy, ::PolicyPrimaryDomainInformation, &info) != 0 ||
        info == nullptr) {
        return GetComputerNameW();
    }
    const std::unique_ptr<void, LsaFreer> freeInfo(info);
    const auto* primary = static_cast<const ::POLICY_PRIMARY_DOMAIN_INFO*>(info);
    if (primary->Sid == nullptr || primary->Name.Buffer == nullptr) {
        return GetComputerNameW();
    }
    return win32::FromWide(primary->Name.Buffer, primary->Name.Length / sizeof(wchar_t));
}

bool LookupAccountNameW(std::u16string_view systemName, std::u16string_view accountName, void* sid,
                        DWORD* sidSize, char16_t* domain, DWORD* domainLength, SID_NAME_USE* use) {
    if (sidSize == nullptr || domainLength == nullptr || use == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    const std::u16string system(systemName);
    const std::u16string name(accountName);
    ::DWORD sidBytes = sid != nullptr ? *sidSize : 0;
    ::DWORD domainChars = domain != nullptr ? *domainLength : 0;
    ::SID_NAME_USE found = ::SidTypeUnknown;
    const BOOL ok = ::LookupAccountNameW(SystemOrNull(system), win32::Wide(name), sid, &sidBytes,
                                         reinterpret_cast<wchar_t*>(domain), &domainChars, &found);
    *sidSize = static_cast<DWORD>(sidBytes);
    *domainLength = static_cast<DWORD>(domainChars);
    if (ok) {
        *use = static_cast<SID_NAME_USE>(found);
    }
    return ok != FALSE;
}

bool LookupAccountSidW(std::u16string_view systemName, const Sid& sid, char16_t* name,
                       DWORD* nameLength, char16_t* domain, DWORD* domainLength,
                       SID_NAME_USE* use) {
    if (nameLength == nullptr || domainLength == nullptr || use == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (sid.empty()) {
        ::SetLastError(ERROR_INVALID_SID);
        return false;
    }
    const std::u16string system(systemName);
    ::DWORD nameChars = name != nullptr ? *nameLength : 0;
    ::DWORD domainChars = domain != nullptr ? *domainLength : 0;
    ::SID_NAME_USE found = ::SidTypeUnknown;
    const BOOL ok = ::LookupAccountSidW(SystemOrNull(system), win32::NativeSid(sid),
                                        reinterpret_cast<wchar_t*>(name), &nameChars,
                                        reinterpret_cast<wchar_t*>(domain), &domainChars, &found);
    *nameLength = static_cast<DWORD>(nameChars);
    *domainLength = static_cast<DWORD>(domainChars);
    if (ok) {
        *use = static_cast<SID_NAME_USE>(found);
    }
    return ok != FALSE;
}

bool admin::FindAccountByName(std::u16string_view accountName, Account* account) {
    if (account == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    const std::u16string name(accountName);
    alignas(::SID) BYTE sid[SECURITY_MAX_SID_SIZE];
    ::DWORD sidBytes = sizeof sid;
    ::DWORD domainChars = 0;
    ::SID_NAME_USE use = ::SidTypeUnknown;
    // A SID never exceeds its maximum size: only the domain needs asking.
    if (::LookupAccountNameW(nullptr, win32::Wide(name), sid, &sidBytes, nullptr, &domainChars,
                             &use) ||
        ::GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
        return false;
    }
    std::u16string domain(domainChars, u'\0');
    sidBytes = sizeof sid;
    if (!::LookupAccountNameW(nullptr, win32::Wide(name), sid, &sidBytes, win32::WideBuffer(domain),
                              &domainChars, &use)) {
        return false;
    }
    // The names as Windows spells them, not as the caller did.
    const Sid found = Sid::FromBytes(sid, sidBytes);
    if (LookUpSid(found, account)) {
        return true;
    }
    domain.resize(domainChars);
    const auto slash = name.find(u'\\');
    account->name = slash == std::u16string::npos ? name : name.substr(slash + 1);
    account->domain = std::move(domain);
    account->sid = found;
    account->use = static_cast<SID_NAME_USE>(use);
    account->memberOf.clear();
    return true;
}

bool admin::FindAccountBySid(const Sid& sid, Account* account) {
    if (account == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (!IsValidSid(sid)) {
        return false;
    }
    return LookUpSid(sid, account);
}

// Listing every account of Windows' databases is not something a look-up
// can do; the listing serves the embedded machine's account table.
bool admin::EnumAccounts(std::vector<Account>* accounts) {
    if (accounts == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    ::SetLastError(ERROR_NOT_SUPPORTED);
    return false;
}

// Windows' accounts are administered by Windows itself; these configure
// the embedded machine's account table for tests and demonstrations.
bool admin::AddAccount(std::u16string_view, SID_NAME_USE, std::span<const std::u16string>,
                       Account*) {
    ::SetLastError(ERROR_NOT_SUPPORTED);
    return false;
}

bool admin::AddGroupMember(std::u16string_view, std::u16string_view) {
    ::SetLastError(ERROR_NOT_SUPPORTED);
    return false;
}

bool admin::DeleteAccount(std::u16string_view) {
    ::SetLastError(ERROR_NOT_SUPPORTED);
    return false;
}

}  // namespace platform
