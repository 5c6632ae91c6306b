// Merging explicit-access entries into an ACL with advapi32's
// SetEntriesInAclW, so the merge and ordering rules are Windows' own.
#include <memory>

#include "platform/security.h"
#include "security_native.h"
#include "win32_api.h"

namespace platform {

namespace {

struct LocalFreeDeleter {
    void operator()(void* block) const noexcept { ::LocalFree(block); }
};

DWORD Merge(std::span<const EXPLICIT_ACCESS_W> entries, const Acl* oldAcl, Acl* newAcl) {
    PACL old = nullptr;
    if (oldAcl != nullptr) {
        old = win32::NativeAcl(*oldAcl);
        if (old == nullptr) {
            return ERROR_INVALID_ACL;
        }
    }
    // Windows keeps pointers to the trustees' SIDs and names: copies that
    // live until the call returns.
    std::vector<std::vector<std::byte>> sids(entries.size());
    std::vector<std::u16string> names(entries.size());
    std::vector<::EXPLICIT_ACCESS_W> native(entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const EXPLICIT_ACCESS_W& entry = entries[i];
        ::EXPLICIT_ACCESS_W& out = native[i];
        out.grfAccessPermissions = entry.grfAccessPermissions;
        out.grfAccessMode = static_cast<::ACCESS_MODE>(entry.grfAccessMode);
        out.grfInheritance = entry.grfInheritance;
        out.Trustee.pMultipleTrustee = nullptr;
        out.Trustee.MultipleTrusteeOperation = ::NO_MULTIPLE_TRUSTEE;
        out.Trustee.TrusteeType = static_cast<::TRUSTEE_TYPE>(entry.Trustee.TrusteeType);
        if (entry.Trustee.TrusteeForm == TRUSTEE_IS_SID) {
            // An empty Sid would reach Windows as a null pointer.
            if (entry.Trustee.sid.empty()) {
                return ERROR_INVALID_SID;
            }
            sids[i].assign(entry.Trustee.sid.bytes().begin(), entry.Trustee.sid.bytes().end());
            out.Trustee.TrusteeForm = ::TRUSTEE_IS_SID;
            out.Trustee.ptstrName = reinterpret_cast<LPWSTR>(sids[i].data());
        } else {
            names[i] = entry.Trustee.name;
            out.Trustee.TrusteeForm = static_cast<::TRUSTEE_FORM>(entry.Trustee.TrusteeForm);
            out.Trustee.ptstrName = win32::WideBuffer(names[i]);
        }
    }
    PACL merged = nullptr;
    const ::DWORD error =
        ::SetEntriesInAclW(static_cast<::ULONG>(native.size()),
                           native.empty() ? nullptr : native.data(), old, &merged);
    const std::unique_ptr<void, LocalFreeDeleter> owned(merged);
    if (error != ERROR_SUCCESS) {
        return static_cast<DWORD>(error);
    }
    if (merged == nullptr) {
        *newAcl = Acl{};  // nothing to merge: Windows gives no ACL
        return ERROR_SUCCESS;
    }
    const auto* bytes = reinterpret_cast<const std::byte*>(merged);
    Acl result = Acl::FromBytes(std::span<const std::byte>(bytes, merged->AclSize));
    if (result.empty()) {
        return ERROR_INVALID_ACL;
    }
    *newAcl = std::move(result);
    return ERROR_SUCCESS;
}

}  // namespace

DWORD SetEntriesInAclW(std::span<const EXPLICIT_ACCESS_W> entries, const Acl* oldAcl, Acl* newAcl) {
    DWORD error = ERROR_INVALID_PARAMETER;
    if (newAcl != nullptr) {
        try {
            error = Merge(entries, oldAcl, newAcl);
        } catch (...) {
            error = ERROR_NOT_ENOUGH_MEMORY;
        }
    }
    ::SetLastError(error);
    return error;
}

}  // namespace platform
