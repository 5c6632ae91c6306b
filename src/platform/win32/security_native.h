// What the Win32 security files share: the platform's SID, ACL and
// descriptor values as the pointers the Windows API takes.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "platform/security.h"
#include "win32_api.h"

namespace platform::win32 {

// The SID's bytes as a PSID for calls that only read it; null for an empty
// Sid, which callers refuse before calling Windows.
inline PSID NativeSid(const Sid& sid) noexcept {
    return sid.empty() ? nullptr : const_cast<std::byte*>(sid.data());
}

// The ACL's bytes as a PACL, or null when they are not a whole ACL whose
// declared size is exactly its length (Windows trusts AclSize, so bytes that
// disagree with it must never reach a Windows call).
PACL NativeAcl(const Acl& acl) noexcept;
PACL NativeAcl(Acl* acl) noexcept;

// The SID Windows returned in its own buffer as a platform Sid.
inline Sid SidFromNative(const void* sid) {
    if (sid == nullptr || !::IsValidSid(const_cast<void*>(sid))) {
        return {};
    }
    return Sid::FromBytes(sid, ::GetLengthSid(const_cast<void*>(sid)));
}

// An absolute Windows security descriptor built from the platform's value,
// holding its own copies of the parts it points to.
class NativeDescriptor {
  public:
    NativeDescriptor() = default;
    NativeDescriptor(const NativeDescriptor&) = delete;
    NativeDescriptor& operator=(const NativeDescriptor&) = delete;

    // Builds the descriptor; false with the Windows error (or
    // ERROR_INVALID_SECURITY_DESCR for parts that are not valid) otherwise.
    // `fallbackOwnerAndGroup` supplies the NULL SID (held by no token) for a
    // missing owner or group, for calls that insist on both.
    bool Build(const SecurityDescriptor& sd, bool fallbackOwnerAndGroup = false);
    PSECURITY_DESCRIPTOR get() noexcept { return &sd_; }

  private:
    ::SECURITY_DESCRIPTOR sd_{};
    std::vector<std::byte> owner_;
    std::vector<std::byte> group_;
    std::vector<std::byte> dacl_;
    std::vector<std::byte> sacl_;
};

}  // namespace platform::win32
