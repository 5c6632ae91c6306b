// Security descriptors over advapi32: initialisation, validity, length and
// the self-relative form are Windows' own, computed on an absolute Windows
// descriptor built from the platform's value.
#include <cstring>

#include "platform/security.h"
#include "security_native.h"
#include "win32_api.h"

namespace platform {

namespace win32 {

namespace {

// Control bits Windows lets a caller set directly; the others follow from
// the parts set below.
constexpr ::SECURITY_DESCRIPTOR_CONTROL kSettableControl =
    SE_DACL_AUTO_INHERIT_REQ | SE_SACL_AUTO_INHERIT_REQ | SE_DACL_AUTO_INHERITED |
    SE_SACL_AUTO_INHERITED | SE_DACL_PROTECTED | SE_SACL_PROTECTED;

bool CopySidPart(const std::optional<Sid>& sid, bool fallback, std::vector<std::byte>* out) {
    if (sid) {
        if (sid->empty()) {
            return false;
        }
        out->assign(sid->bytes().begin(), sid->bytes().end());
    } else if (fallback) {
        Sid nobody;
        if (!CreateWellKnownSid(WinNullSid, &nobody)) {
            return false;
        }
        out->assign(nobody.bytes().begin(), nobody.bytes().end());
    }
    return true;
}

bool CopyAclPart(const std::optional<Acl>& acl, std::vector<std::byte>* out) {
    if (acl) {
        if (NativeAcl(*acl) == nullptr) {
            return false;
        }
        out->assign(acl->bytes().begin(), acl->bytes().end());
    }
    return true;
}

PSID SidOrNull(std::vector<std::byte>& bytes) {
    return bytes.empty() ? nullptr : bytes.data();
}
PACL AclOrNull(std::vector<std::byte>& bytes) {
    return bytes.empty() ? nullptr : reinterpret_cast<PACL>(bytes.data());
}

}  // namespace

bool NativeDescriptor::Build(const SecurityDescriptor& sd, bool fallbackOwnerAndGroup) {
    if (!::InitializeSecurityDescriptor(&sd_, sd.revision)) {
        return false;
    }
    const bool daclPresent = (sd.control & SE_DACL_PRESENT) != 0;
    const bool saclPresent = (sd.control & SE_SACL_PRESENT) != 0;
    if (!CopySidPart(sd.owner, fallbackOwnerAndGroup, &owner_) ||
        !CopySidPart(sd.group, fallbackOwnerAndGroup, &group_) ||
        (daclPresent && !CopyAclPart(sd.dacl, &dacl_)) ||
        (saclPresent && !CopyAclPart(sd.sacl, &sacl_))) {
        ::SetLastError(ERROR_INVALID_SECURITY_DESCR);
        return false;
    }
    if (!::SetSecurityDescriptorOwner(&sd_, SidOrNull(owner_),
                                      (sd.control & SE_OWNER_DEFAULTED) != 0) ||
        !::SetSecurityDescriptorGroup(&sd_, SidOrNull(group_),
                                      (sd.control & SE_GROUP_DEFAULTED) != 0)) {
        return false;
    }
    if (daclPresent && !::SetSecurityDescriptorDacl(&sd_, TRUE, AclOrNull(dacl_),
                                                    (sd.control & SE_DACL_DEFAULTED) != 0)) {
        return false;
    }
    if (saclPresent && !::SetSecurityDescriptorSacl(&sd_, TRUE, AclOrNull(sacl_),
                                                    (sd.control & SE_SACL_DEFAULTED) != 0)) {
        return false;
    }
    const auto extra = static_cast<::SECURITY_DESCRIPTOR_CONTROL>(sd.control & kSettableControl);
    if (extra != 0 && !::SetSecurityDescriptorControl(&sd_, extra, extra)) {
        return false;
    }
    return true;
}

}  // namespace win32

bool InitializeSecurityDescriptor(SecurityDescriptor* sd, DWORD revision) {
    if (sd == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    ::SECURITY_DESCRIPTOR scratch{};
    if (!::InitializeSecurityDescriptor(&scratch, revision)) {
        return false;
    }
    *sd = SecurityDescriptor{};
    sd->revision = scratch.Revision;
    sd->control = scratch.Control;
    return true;
}

bool IsValidSecurityDescriptor(const SecurityDescriptor& sd) noexcept {
    try {
        LastErrorKeeper keep;
        win32::NativeDescriptor native;
        if (native.Build(sd) && ::IsValidSecurityDescriptor(native.get())) {
            return true;
        }
    } catch (...) {
    }
    ::SetLastError(ERROR_INVALID_SECURITY_DESCR);
    return false;
}

namespace {

// The self-relative form Windows makes of `sd`, exactly as long as its parts
// need. Windows sizes the buffer it asks for from the absolute descriptor,
// whose header is larger than the self-relative one on 64-bit Windows (Wine
// even pads the result by the difference), so the exact length is taken
// from the self-relative result itself.
bool SelfRelative(const SecurityDescriptor& sd, std::vector<std::byte>* out) {
    win32::NativeDescriptor native;
    if (!native.Build(sd)) {
        return false;
    }
    ::DWORD length = 0;
    if (::MakeSelfRelativeSD(native.get(), nullptr, &length) ||
        ::GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
        return false;
    }
    std::vector<std::byte> bytes(length);
    if (!::MakeSelfRelativeSD(native.get(), bytes.data(), &length)) {
        return false;
    }
    bytes.resize(::GetSecurityDescriptorLength(bytes.data()));
    *out = std::move(bytes);
    return true;
}

}  // namespace

DWORD GetSecurityDescriptorLength(const SecurityDescriptor& sd) noexcept {
    try {
        LastErrorKeeper keep;
        std::vector<std::byte> bytes;
        return SelfRelative(sd, &bytes) ? static_cast<DWORD>(bytes.size()) : 0;
    } catch (...) {
        return 0;
    }
}

bool MakeSelfRelativeSD(const SecurityDescriptor& sd, void* buffer, DWORD* size) {
    if (size == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (!IsValidSecurityDescriptor(sd)) {
        return false;
    }
    std::vector<std::byte> bytes;
    {
        LastErrorKeeper keep;
        if (!SelfRelative(sd, &bytes)) {
            bytes.clear();
        }
    }
    if (bytes.empty()) {
        ::SetLastError(ERROR_INVALID_SECURITY_DESCR);
        return false;
    }
    const auto needed = static_cast<DWORD>(bytes.size());
    if (buffer == nullptr || *size < needed) {
        *size = needed;
        ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return false;
    }
    std::memcpy(buffer, bytes.data(), bytes.size());
    *size = needed;
    return true;
}

std::vector<std::byte> ToSelfRelative(const SecurityDescriptor& sd) {
    LastErrorKeeper keep;
    std::vector<std::byte> bytes;
    if (!SelfRelative(sd, &bytes)) {
        return {};
    }
    return bytes;
}

}  // namespace platform
