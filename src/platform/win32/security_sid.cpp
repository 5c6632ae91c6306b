// SIDs over advapi32: creation, comparison, the text form and well-known
// identifiers are Windows' own.
//
// An empty platform Sid stands for "no SID"; calls given one fail with
// ERROR_INVALID_SID before reaching Windows, which would only see a null
// pointer.
#include <algorithm>
#include <memory>

#include "platform/security.h"
#include "security_native.h"
#include "win32_api.h"

namespace platform {

namespace {

using win32::NativeSid;
using win32::SidFromNative;

bool RefuseEmpty(const Sid& sid) {
    if (sid.empty()) {
        ::SetLastError(ERROR_INVALID_SID);
        return true;
    }
    return false;
}

struct FreeSidDeleter {
    void operator()(void* sid) const noexcept { ::FreeSid(sid); }
};
struct LocalFreeDeleter {
    void operator()(void* block) const noexcept { ::LocalFree(block); }
};

}  // namespace

bool AllocateAndInitializeSid(const SID_IDENTIFIER_AUTHORITY& authority, BYTE subAuthorityCount,
                              DWORD sub0, DWORD sub1, DWORD sub2, DWORD sub3, DWORD sub4,
                              DWORD sub5, DWORD sub6, DWORD sub7, Sid* sid) {
    if (sid == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    ::SID_IDENTIFIER_AUTHORITY native{};
    std::copy(authority.Value.begin(), authority.Value.end(), native.Value);
    PSID allocated = nullptr;
    if (!::AllocateAndInitializeSid(&native, subAuthorityCount, sub0, sub1, sub2, sub3, sub4, sub5,
                                    sub6, sub7, &allocated)) {
        return false;
    }
    const std::unique_ptr<void, FreeSidDeleter> owned(allocated);
    *sid = SidFromNative(allocated);
    return true;
}

bool IsValidSid(const Sid& sid) noexcept {
    if (RefuseEmpty(sid)) {
        return false;
    }
    if (!::IsValidSid(NativeSid(sid))) {
        // Windows reports no reason; the platform names it.
        ::SetLastError(ERROR_INVALID_SID);
        return false;
    }
    return true;
}

bool EqualSid(const Sid& a, const Sid& b) noexcept {
    if (RefuseEmpty(a) || RefuseEmpty(b)) {
        return false;
    }
    return ::EqualSid(NativeSid(a), NativeSid(b)) != FALSE;
}

DWORD GetLengthSid(const Sid& sid) noexcept {
    return sid.empty() ? 0 : static_cast<DWORD>(::GetLengthSid(NativeSid(sid)));
}

DWORD GetSidSubAuthorityCount(const Sid& sid) noexcept {
    if (RefuseEmpty(sid)) {
        return 0;
    }
    return *::GetSidSubAuthorityCount(NativeSid(sid));
}

DWORD GetSidSubAuthority(const Sid& sid, DWORD index) noexcept {
    // Windows does not check the index; past the end it would read beyond
    // the SID.
    if (sid.empty() || index >= *::GetSidSubAuthorityCount(NativeSid(sid))) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    return static_cast<DWORD>(*::GetSidSubAuthority(NativeSid(sid), index));
}

bool CopySid(DWORD size, void* destination, const Sid& sid) {
    if (RefuseEmpty(sid)) {
        return false;
    }
    const ::DWORD room = destination != nullptr ? size : 0;
    if (!::CopySid(room, destination, NativeSid(sid))) {
        // The platform promises the reason for a short buffer, which not
        // every Windows implementation leaves.
        if (room < ::GetLengthSid(NativeSid(sid))) {
            ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
        }
        return false;
    }
    return true;
}

bool ConvertStringSidToSidW(std::u16string_view text, Sid* sid) {
    if (sid == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    const std::u16string terminated(text);
    PSID converted = nullptr;
    if (!::ConvertStringSidToSidW(win32::Wide(terminated), &converted)) {
        return false;
    }
    const std::unique_ptr<void, LocalFreeDeleter> owned(converted);
    Sid parsed = SidFromNative(converted);
    if (parsed.empty()) {
        // More sub-authorities than a SID can hold.
        ::SetLastError(ERROR_INVALID_SID);
        return false;
    }
    *sid = std::move(parsed);
    return true;
}

bool ConvertSidToStringSidW(const Sid& sid, std::u16string* text) {
    if (text == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (RefuseEmpty(sid)) {
        return false;
    }
    LPWSTR converted = nullptr;
    if (!::ConvertSidToStringSidW(NativeSid(sid), &converted)) {
        return false;
    }
    const std::unique_ptr<void, LocalFreeDeleter> owned(converted);
    *text = win32::FromWide(converted);
    return true;
}

bool CreateWellKnownSid(WELL_KNOWN_SID_TYPE type, Sid* sid) {
    if (sid == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    alignas(::SID) BYTE buffer[SECURITY_MAX_SID_SIZE];
    ::DWORD size = sizeof buffer;
    if (!::CreateWellKnownSid(static_cast<::WELL_KNOWN_SID_TYPE>(type), nullptr, buffer, &size)) {
        return false;
    }
    *sid = Sid::FromBytes(buffer, size);
    return true;
}

bool IsWellKnownSid(const Sid& sid, WELL_KNOWN_SID_TYPE type) noexcept {
    return !sid.empty() &&
           ::IsWellKnownSid(NativeSid(sid), static_cast<::WELL_KNOWN_SID_TYPE>(type)) != FALSE;
}

}  // namespace platform
