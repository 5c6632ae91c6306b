// ACEs and ACLs in their binary layout, with Windows' size rules.
#include <algorithm>

#include "../common/security_bytes.h"
#include "platform/security.h"

namespace platform {

namespace {

using layout::CountAces;
using layout::EndOfAces;
using layout::ReadU16;
using layout::ValidAclBytes;

constexpr DWORD kMaxAclSize = 0xFFFC;
constexpr DWORD kMinAclRevision = layout::kMinAclRevision;
constexpr DWORD kMaxAclRevision = layout::kMaxAclRevision;

DWORD AclSizeField(const Acl& acl) {
    return ReadU16(acl.bytes(), 2);
}
DWORD AceCountField(const Acl& acl) {
    return ReadU16(acl.bytes(), 4);
}

std::size_t AceOffset(const Acl& acl, DWORD index) {
    std::size_t at = kAclHeaderSize;
    for (DWORD i = 0; i < index; ++i) {
        at += ReadU16(acl.bytes(), at + 2);
    }
    return at;
}

bool AddTypedAce(Acl* acl, DWORD revision, BYTE type, DWORD flags, ACCESS_MASK mask,
                 const Sid& sid) {
    if (acl == nullptr || !IsValidAcl(*acl)) {
        SetLastError(ERROR_INVALID_ACL);
        return false;
    }
    if (revision < kMinAclRevision || revision > kMaxAclRevision) {
        SetLastError(ERROR_REVISION_MISMATCH);
        return false;
    }
    if (!IsValidSid(sid)) {
        return false;
    }
    if ((flags & ~static_cast<DWORD>(VALID_INHERIT_FLAGS)) != 0) {
        SetLastError(ERROR_INVALID_FLAGS);
        return false;
    }
    const Ace ace = MakeAce(type, static_cast<BYTE>(flags), mask, sid);
    return AddAce(acl, revision, MAXDWORD, ace.raw);
}

}  // namespace

bool InitializeAcl(Acl* acl, DWORD size, DWORD revision) {
    if (acl == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (size < kAclHeaderSize) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return false;
    }
    if (revision < kMinAclRevision || revision > kMaxAclRevision || size > kMaxAclSize + 3) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    // Windows keeps ACLs DWORD-aligned: the declared size is rounded up.
    const DWORD rounded = (size + 3) & ~DWORD{3};
    if (rounded > kMaxAclSize) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    std::vector<std::byte>& bytes = acl->mutable_bytes();
    bytes.assign(rounded, std::byte{0});
    bytes[0] = static_cast<std::byte>(revision);
    layout::WriteU16(bytes, 2, static_cast<std::uint16_t>(rounded));
    return true;
}

bool IsValidAcl(const Acl& acl) noexcept {
    if (acl.empty() || !ValidAclBytes(acl.bytes()) || AclSizeField(acl) != acl.size()) {
        SetLastError(ERROR_INVALID_ACL);
        return false;
    }
    return true;
}

bool GetAclInformation(const Acl& acl, ACL_SIZE_INFORMATION* info) {
    if (info == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (!IsValidAcl(acl)) {
        return false;
    }
    const auto inUse = static_cast<DWORD>(EndOfAces(acl.bytes()));
    info->AceCount = AceCountField(acl);
    info->AclBytesInUse = inUse;
    info->AclBytesFree = AclSizeField(acl) - inUse;
    return true;
}

bool GetAclInformation(const Acl& acl, ACL_REVISION_INFORMATION* info) {
    if (info == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (!IsValidAcl(acl)) {
        return false;
    }
    info->AclRevision = std::to_integer<DWORD>(acl.data()[0]);
    return true;
}

bool GetAce(const Acl& acl, DWORD index, Ace* ace) {
    if (ace == nullptr || !IsValidAcl(acl)) {
        SetLastError(ace == nullptr ? ERROR_INVALID_PARAMETER : ERROR_INVALID_ACL);
        return false;
    }
    if (index >= AceCountField(acl)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    const std::size_t at = AceOffset(acl, index);
    const std::span<const std::byte> bytes = acl.bytes();
    Ace out;
    out.Header.AceType = std::to_integer<BYTE>(bytes[at]);
    out.Header.AceFlags = std::to_integer<BYTE>(bytes[at + 1]);
    out.Header.AceSize = ReadU16(bytes, at + 2);
    out.raw.assign(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                   bytes.begin() + static_cast<std::ptrdiff_t>(at + out.Header.AceSize));
    if (out.Header.AceType <= SYSTEM_AUDIT_ACE_TYPE && out.Header.AceSize >= kAceFixedSize) {
        out.Mask = layout::ReadU32(bytes, at + 4);
        out.sid = Sid::FromBytes(std::span<const std::byte>(out.raw).subspan(kAceFixedSize));
    }
    *ace = std::move(out);
    return true;
}

bool AddAce(Acl* acl, DWORD revision, DWORD startingIndex, std::span<const std::byte> aces) {
    if (acl == nullptr || !IsValidAcl(*acl)) {
        SetLastError(ERROR_INVALID_ACL);
        return false;
    }
    if (revision < kMinAclRevision || revision > kMaxAclRevision) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    const long added = CountAces(aces);
    if (added < 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    std::vector<std::byte>& bytes = acl->mutable_bytes();
    const std::size_t end = EndOfAces(bytes);
    const DWORD count = AceCountField(*acl);
    if (end + aces.size() > bytes.size() || count + static_cast<DWORD>(added) > 0xFFFF) {
        SetLastError(ERROR_ALLOTTED_SPACE_EXCEEDED);
        return false;
    }
    const DWORD index = std::min(startingIndex, count);
    const std::size_t at = AceOffset(*acl, index);
    // Shift the ACEs from `at` up and copy the new ones in.
    std::copy_backward(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                       bytes.begin() + static_cast<std::ptrdiff_t>(end),
                       bytes.begin() + static_cast<std::ptrdiff_t>(end + aces.size()));
    std::copy(aces.begin(), aces.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
    layout::WriteU16(bytes, 4, static_cast<std::uint16_t>(count + static_cast<DWORD>(added)));
    if (revision > std::to_integer<DWORD>(bytes[0])) {
        bytes[0] = static_cast<std::byte>(revision);
    }
    return true;
}

bool AddAce(Acl* acl, DWORD revision, DWORD startingIndex, const Ace& ace) {
    return AddAce(acl, revision, startingIndex, std::span<const std::byte>(ace.raw));
}

bool DeleteAce(Acl* acl, DWORD index) {
    if (acl == nullptr || !IsValidAcl(*acl)) {
        SetLastError(ERROR_INVALID_ACL);
        return false;
    }
    const DWORD count = AceCountField(*acl);
    if (index >= count) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    std::vector<std::byte>& bytes = acl->mutable_bytes();
    const std::size_t end = EndOfAces(bytes);
    const std::size_t at = AceOffset(*acl, index);
    const std::size_t size = ReadU16(bytes, at + 2);
    std::copy(bytes.begin() + static_cast<std::ptrdiff_t>(at + size),
              bytes.begin() + static_cast<std::ptrdiff_t>(end),
              bytes.begin() + static_cast<std::ptrdiff_t>(at));
    std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(end - size),
              bytes.begin() + static_cast<std::ptrdiff_t>(end), std::byte{0});
    layout::WriteU16(bytes, 4, static_cast<std::uint16_t>(count - 1));
    return true;
}

bool AddAccessAllowedAce(Acl* acl, DWORD revision, ACCESS_MASK mask, const Sid& sid) {
    return AddTypedAce(acl, revision, ACCESS_ALLOWED_ACE_TYPE, 0, mask, sid);
}

bool AddAccessAllowedAceEx(Acl* acl, DWORD revision, DWORD flags, ACCESS_MASK mask,
                           const Sid& sid) {
    return AddTypedAce(acl, revision, ACCESS_ALLOWED_ACE_TYPE, flags, mask, sid);
}

bool AddAccessDeniedAce(Acl* acl, DWORD revision, ACCESS_MASK mask, const Sid& sid) {
    return AddTypedAce(acl, revision, ACCESS_DENIED_ACE_TYPE, 0, mask, sid);
}

bool AddAccessDeniedAceEx(Acl* acl, DWORD revision, DWORD flags, ACCESS_MASK mask, const Sid& sid) {
    return AddTypedAce(acl, revision, ACCESS_DENIED_ACE_TYPE, flags, mask, sid);
}

bool SetAceFlags(Acl* acl, DWORD index, BYTE flags) {
    if (acl == nullptr || !IsValidAcl(*acl)) {
        SetLastError(ERROR_INVALID_ACL);
        return false;
    }
    if (index >= AceCountField(*acl)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    acl->mutable_bytes()[AceOffset(*acl, index) + 1] = std::byte{flags};
    return true;
}

}  // namespace platform
