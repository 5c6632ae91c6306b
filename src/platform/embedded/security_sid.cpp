// SIDs: binary layout, text form, well-known identifiers.
#include <algorithm>
#include <cstring>

#include "../common/security_bytes.h"
#include "platform/security.h"

namespace platform {

namespace {

using layout::AppendU32;
using layout::DeclaredSidSize;
using layout::ReadU32;

std::vector<std::byte> BuildSid(const SID_IDENTIFIER_AUTHORITY& authority,
                                std::span<const DWORD> subs) {
    std::vector<std::byte> out;
    out.reserve(8 + 4 * subs.size());
    out.push_back(std::byte{SID_REVISION});
    out.push_back(static_cast<std::byte>(subs.size()));
    for (BYTE b : authority.Value) {
        out.push_back(std::byte{b});
    }
    for (DWORD s : subs) {
        AppendU32(&out, s);
    }
    return out;
}

struct WellKnown {
    WELL_KNOWN_SID_TYPE type;
    const char16_t* alias;  // two-letter text alias, or empty
    BYTE authority;
    std::vector<DWORD> subs;
};

const std::vector<WellKnown>& WellKnownTable() {
    static const std::vector<WellKnown> table = {
        {WinNullSid, u"", 0, {SECURITY_NULL_RID}},
        {WinWorldSid, u"WD", 1, {SECURITY_WORLD_RID}},
        {WinLocalSid, u"", 2, {0}},
        {WinCreatorOwnerSid, u"CO", 3, {SECURITY_CREATOR_OWNER_RID}},
        {WinCreatorGroupSid, u"CG", 3, {SECURITY_CREATOR_GROUP_RID}},
        {WinNtAuthoritySid, u"", 5, {}},
        {WinDialupSid, u"", 5, {SECURITY_DIALUP_RID}},
        {WinNetworkSid, u"NU", 5, {SECURITY_NETWORK_RID}},
        {WinBatchSid, u"", 5, {SECURITY_BATCH_RID}},
        {WinInteractiveSid, u"IU", 5, {SECURITY_INTERACTIVE_RID}},
        {WinServiceSid, u"SU", 5, {SECURITY_SERVICE_RID}},
        {WinAnonymousSid, u"AN", 5, {7}},
        {WinAuthenticatedUserSid, u"AU", 5, {SECURITY_AUTHENTICATED_USER_RID}},
        {WinLocalSystemSid, u"SY", 5, {SECURITY_LOCAL_SYSTEM_RID}},
        {WinLocalServiceSid, u"LS", 5, {SECURITY_LOCAL_SERVICE_RID}},
        {WinNetworkServiceSid, u"NS", 5, {SECURITY_NETWORK_SERVICE_RID}},
        {WinBuiltinDomainSid, u"", 5, {SECURITY_BUILTIN_DOMAIN_RID}},
        {WinBuiltinAdministratorsSid,
         u"BA",
         5,
         {SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS}},
        {WinBuiltinUsersSid, u"BU", 5, {SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_USERS}},
        {WinBuiltinGuestsSid, u"BG", 5, {SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_GUESTS}},
        {WinBuiltinPowerUsersSid,
         u"PU",
         5,
         {SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_POWER_USERS}},
        {WinBuiltinPrintOperatorsSid,
         u"PO",
         5,
         {SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_PRINT_OPS}},
        {WinBuiltinRemoteDesktopUsersSid,
         u"RD",
         5,
         {SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_REMOTE_DESKTOP_USERS}},
    };
    return table;
}

Sid FromWellKnown(const WellKnown& w) {
    SID_IDENTIFIER_AUTHORITY authority{{0, 0, 0, 0, 0, w.authority}};
    std::vector<DWORD> subs(w.subs);
    std::vector<std::byte> bytes = BuildSid(authority, subs);
    return Sid::FromBytes(bytes);
}

// Parses an unsigned decimal or "0x" hexadecimal number that fits `max`.
bool ParseNumber(std::u16string_view text, std::uint64_t max, std::uint64_t* value) {
    if (text.empty()) {
        return false;
    }
    unsigned base = 10;
    if (text.size() > 2 && text[0] == u'0' && (text[1] == u'x' || text[1] == u'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    std::uint64_t v = 0;
    for (char16_t c : text) {
        unsigned digit = 0;
        if (c >= u'0' && c <= u'9') {
            digit = static_cast<unsigned>(c - u'0');
        } else if (base == 16 && c >= u'a' && c <= u'f') {
            digit = static_cast<unsigned>(c - u'a' + 10);
        } else if (base == 16 && c >= u'A' && c <= u'F') {
            digit = static_cast<unsigned>(c - u'A' + 10);
        } else {
            return false;
        }
        if (v > (max - digit) / base) {
            return false;
        }
        v = v * base + digit;
    }
    *value = v;
    return true;
}

}  // namespace

bool AllocateAndInitializeSid(const SID_IDENTIFIER_AUTHORITY& authority, BYTE subAuthorityCount,
                              DWORD sub0, DWORD sub1, DWORD sub2, DWORD sub3, DWORD sub4,
                              DWORD sub5, DWORD sub6, DWORD sub7, Sid* sid) {
    if (sid == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (subAuthorityCount > 8) {
        SetLastError(ERROR_INVALID_SID);  // as Windows: at most eight fit its arguments
        return false;
    }
    const DWORD all[8] = {sub0, sub1, sub2, sub3, sub4, sub5, sub6, sub7};
    std::vector<std::byte> bytes =
        BuildSid(authority, std::span<const DWORD>(all, subAuthorityCount));
    *sid = Sid::FromBytes(bytes);
    return true;
}

bool IsValidSid(const Sid& sid) noexcept {
    if (sid.empty() || DeclaredSidSize(sid.bytes()) != sid.size()) {
        SetLastError(ERROR_INVALID_SID);
        return false;
    }
    return true;
}

bool EqualSid(const Sid& a, const Sid& b) noexcept {
    if (a.empty() || b.empty()) {
        SetLastError(ERROR_INVALID_SID);
        return false;
    }
    SetLastError(ERROR_SUCCESS);
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size()) == 0;
}

DWORD GetLengthSid(const Sid& sid) noexcept {
    return static_cast<DWORD>(sid.size());
}

DWORD GetSidSubAuthorityCount(const Sid& sid) noexcept {
    if (sid.empty()) {
        SetLastError(ERROR_INVALID_SID);
        return 0;
    }
    // Windows reports success through the last error: the result alone
    // cannot tell.
    SetLastError(ERROR_SUCCESS);
    return std::to_integer<DWORD>(sid.data()[1]);
}

DWORD GetSidSubAuthority(const Sid& sid, DWORD index) noexcept {
    if (sid.empty() || index >= std::to_integer<DWORD>(sid.data()[1])) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    SetLastError(ERROR_SUCCESS);
    return ReadU32(sid.bytes(), 8 + 4 * std::size_t{index});
}

bool CopySid(DWORD size, void* destination, const Sid& sid) {
    if (!IsValidSid(sid)) {
        return false;
    }
    if (destination == nullptr || size < sid.size()) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return false;
    }
    std::memcpy(destination, sid.data(), sid.size());
    return true;
}

bool ConvertStringSidToSidW(std::u16string_view text, Sid* sid) {
    if (sid == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (text.size() == 2) {
        for (const WellKnown& w : WellKnownTable()) {
            const std::u16string_view alias = w.alias;
            if (!alias.empty() &&
                std::equal(alias.begin(), alias.end(), text.begin(), [](char16_t a, char16_t b) {
                    return a == (b >= u'a' && b <= u'z' ? static_cast<char16_t>(b - 32) : b);
                })) {
                *sid = FromWellKnown(w);
                return true;
            }
        }
        SetLastError(ERROR_INVALID_SID);
        return false;
    }
    if (text.size() < 4 || (text[0] != u'S' && text[0] != u's') || text[1] != u'-') {
        SetLastError(ERROR_INVALID_SID);
        return false;
    }
    std::vector<std::u16string_view> parts;
    std::u16string_view rest = text.substr(2);
    while (true) {
        const std::size_t dash = rest.find(u'-');
        parts.push_back(rest.substr(0, dash));
        if (dash == std::u16string_view::npos) {
            break;
        }
        rest.remove_prefix(dash + 1);
    }
    std::uint64_t revision = 0;
    std::uint64_t authority = 0;
    if (parts.size() < 2 || parts.size() - 2 > SID_MAX_SUB_AUTHORITIES ||
        !ParseNumber(parts[0], 0xFF, &revision) || revision != SID_REVISION ||
        !ParseNumber(parts[1], 0xFFFFFFFFFFFFull, &authority)) {
        SetLastError(ERROR_INVALID_SID);
        return false;
    }
    SID_IDENTIFIER_AUTHORITY auth;
    for (int i = 5; i >= 0; --i) {
        auth.Value[static_cast<std::size_t>(i)] = static_cast<BYTE>(authority & 0xFF);
        authority >>= 8;
    }
    std::vector<DWORD> subs;
    for (std::size_t i = 2; i < parts.size(); ++i) {
        std::uint64_t v = 0;
        if (!ParseNumber(parts[i], 0xFFFFFFFFull, &v)) {
            SetLastError(ERROR_INVALID_SID);
            return false;
        }
        subs.push_back(static_cast<DWORD>(v));
    }
    *sid = Sid::FromBytes(BuildSid(auth, subs));
    return true;
}

bool ConvertSidToStringSidW(const Sid& sid, std::u16string* text) {
    if (text == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (!IsValidSid(sid)) {
        return false;
    }
    *text = sid.ToString();
    return true;
}

bool CreateWellKnownSid(WELL_KNOWN_SID_TYPE type, Sid* sid) {
    if (sid == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    for (const WellKnown& w : WellKnownTable()) {
        if (w.type == type) {
            *sid = FromWellKnown(w);
            return true;
        }
    }
    SetLastError(ERROR_INVALID_PARAMETER);
    return false;
}

bool IsWellKnownSid(const Sid& sid, WELL_KNOWN_SID_TYPE type) noexcept {
    for (const WellKnown& w : WellKnownTable()) {
        if (w.type == type) {
            return FromWellKnown(w) == sid;
        }
    }
    return false;
}

}  // namespace platform
