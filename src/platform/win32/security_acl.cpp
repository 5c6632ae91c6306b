// ACEs and ACLs over advapi32, so that Windows' own size, revision and
// validity rules apply. The platform's Acl holds the bytes Windows works on
// in place.
#include <algorithm>
#include <cstring>

#include "../common/security_bytes.h"
#include "platform/security.h"
#include "security_native.h"
#include "win32_api.h"

namespace platform {

namespace win32 {

PACL NativeAcl(const Acl& acl) noexcept {
    if (acl.size() < layout::kAclHeaderBytes || layout::ReadU16(acl.bytes(), 2) != acl.size() ||
        !layout::ValidAclBytes(acl.bytes())) {
        return nullptr;
    }
    return reinterpret_cast<PACL>(const_cast<std::byte*>(acl.data()));
}

PACL NativeAcl(Acl* acl) noexcept {
    return acl == nullptr ? nullptr : NativeAcl(*acl);
}

}  // namespace win32

namespace {

using win32::NativeAcl;
using win32::NativeSid;

// The ACL Windows works on, or null with ERROR_INVALID_ACL.
PACL Checked(const Acl* acl) {
    PACL native = acl != nullptr ? NativeAcl(*acl) : nullptr;
    if (native == nullptr) {
        ::SetLastError(ERROR_INVALID_ACL);
    }
    return native;
}

using AddKnownAce = BOOL(WINAPI*)(PACL, ::DWORD, ::DWORD, ::DWORD, PSID);

bool AddTyped(Acl* acl, DWORD revision, DWORD flags, ACCESS_MASK mask, const Sid& sid,
              AddKnownAce add) {
    PACL native = Checked(acl);
    if (native == nullptr) {
        return false;
    }
    if (sid.empty()) {
        ::SetLastError(ERROR_INVALID_SID);
        return false;
    }
    return add(native, revision, flags, mask, NativeSid(sid)) != FALSE;
}

}  // namespace

bool InitializeAcl(Acl* acl, DWORD size, DWORD revision) {
    if (acl == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    // Windows may round the size up to whole DWORDs and writes the header:
    // give it a buffer large enough for both, however small `size` is.
    const std::size_t room = std::max<std::size_t>(
        layout::kAclHeaderBytes, (std::min<std::size_t>(size, 0x10000) + 3) & ~std::size_t{3});
    std::vector<std::byte> bytes(room, std::byte{0});
    if (!::InitializeAcl(reinterpret_cast<PACL>(bytes.data()), size, revision)) {
        return false;
    }
    bytes.resize(layout::ReadU16(bytes, 2), std::byte{0});
    acl->mutable_bytes() = std::move(bytes);
    return true;
}

bool IsValidAcl(const Acl& acl) noexcept {
    PACL native = Checked(&acl);
    if (native == nullptr) {
        return false;
    }
    if (!::IsValidAcl(native)) {
        // Windows reports no reason; the platform names it.
        ::SetLastError(ERROR_INVALID_ACL);
        return false;
    }
    return true;
}

bool GetAclInformation(const Acl& acl, ACL_SIZE_INFORMATION* info) {
    if (info == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    PACL native = Checked(&acl);
    if (native == nullptr) {
        return false;
    }
    ::ACL_SIZE_INFORMATION out{};
    if (!::GetAclInformation(native, &out, sizeof out, ::AclSizeInformation)) {
        return false;
    }
    info->AceCount = out.AceCount;
    info->AclBytesInUse = out.AclBytesInUse;
    info->AclBytesFree = out.AclBytesFree;
    return true;
}

bool GetAclInformation(const Acl& acl, ACL_REVISION_INFORMATION* info) {
    if (info == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    PACL native = Checked(&acl);
    if (native == nullptr) {
        return false;
    }
    ::ACL_REVISION_INFORMATION out{};
    if (!::GetAclInformation(native, &out, sizeof out, ::AclRevisionInformation)) {
        return false;
    }
    info->AclRevision = out.AclRevision;
    return true;
}

bool GetAce(const Acl& acl, DWORD index, Ace* ace) {
    if (ace == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    PACL native = Checked(&acl);
    if (native == nullptr) {
        return false;
    }
    void* found = nullptr;
    if (!::GetAce(native, index, &found)) {
        return false;
    }
    const auto* header = static_cast<const ::ACE_HEADER*>(found);
    const auto* bytes = static_cast<const std::byte*>(found);
    Ace out;
    out.Header.AceType = header->AceType;
    out.Header.AceFlags = header->AceFlags;
    out.Header.AceSize = header->AceSize;
    out.raw.assign(bytes, bytes + header->AceSize);
    if (out.Header.AceType <= SYSTEM_AUDIT_ACE_TYPE && out.Header.AceSize >= kAceFixedSize) {
        out.Mask = layout::ReadU32(out.raw, 4);
        out.sid = Sid::FromBytes(std::span<const std::byte>(out.raw).subspan(kAceFixedSize));
    }
    *ace = std::move(out);
    return true;
}

bool AddAce(Acl* acl, DWORD revision, DWORD startingIndex, std::span<const std::byte> aces) {
    PACL native = Checked(acl);
    if (native == nullptr) {
        return false;
    }
    // Windows walks the run by the ACEs' own sizes; a truncated or zero-sized
    // ACE would make it read past the run or never finish.
    if (layout::CountAces(aces) < 0) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    std::vector<std::byte> run(aces.begin(), aces.end());
    return ::AddAce(native, revision, startingIndex, run.empty() ? nullptr : run.data(),
                    static_cast<::DWORD>(run.size())) != FALSE;
}

bool AddAce(Acl* acl, DWORD revision, DWORD startingIndex, const Ace& ace) {
    return AddAce(acl, revision, startingIndex, std::span<const std::byte>(ace.raw));
}

bool DeleteAce(Acl* acl, DWORD index) {
    PACL native = Checked(acl);
    if (native == nullptr) {
        return false;
    }
    return ::DeleteAce(native, index) != FALSE;
}

bool AddAccessAllowedAce(Acl* acl, DWORD revision, ACCESS_MASK mask, const Sid& sid) {
    PACL native = Checked(acl);
    if (native == nullptr) {
        return false;
    }
    if (sid.empty()) {
        ::SetLastError(ERROR_INVALID_SID);
        return false;
    }
    return ::AddAccessAllowedAce(native, revision, mask, NativeSid(sid)) != FALSE;
}

bool AddAccessAllowedAceEx(Acl* acl, DWORD revision, DWORD flags, ACCESS_MASK mask,
                           const Sid& sid) {
    return AddTyped(acl, revision, flags, mask, sid, &::AddAccessAllowedAceEx);
}

bool AddAccessDeniedAce(Acl* acl, DWORD revision, ACCESS_MASK mask, const Sid& sid) {
    PACL native = Checked(acl);
    if (native == nullptr) {
        return false;
    }
    if (sid.empty()) {
        ::SetLastError(ERROR_INVALID_SID);
        return false;
    }
    return ::AddAccessDeniedAce(native, revision, mask, NativeSid(sid)) != FALSE;
}

bool AddAccessDeniedAceEx(Acl* acl, DWORD revision, DWORD flags, ACCESS_MASK mask, const Sid& sid) {
    return AddTyped(acl, revision, flags, mask, sid, &::AddAccessDeniedAceEx);
}

bool SetAceFlags(Acl* acl, DWORD index, BYTE flags) {
    PACL native = Checked(acl);
    if (native == nullptr) {
        return false;
    }
    void* found = nullptr;
    if (!::GetAce(native, index, &found)) {
        return false;
    }
    static_cast<::ACE_HEADER*>(found)->AceFlags = flags;
    return true;
}

}  // namespace platform
