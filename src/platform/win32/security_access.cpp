// Access checks with advapi32's AccessCheck against an absolute Windows
// descriptor built from the platform's value.
#include <memory>

#include "platform/security.h"
#include "security_native.h"
#include "win32_api.h"

namespace platform {

namespace {

::GENERIC_MAPPING Native(const platform::GENERIC_MAPPING& mapping) {
    ::GENERIC_MAPPING out{};
    out.GenericRead = mapping.GenericRead;
    out.GenericWrite = mapping.GenericWrite;
    out.GenericExecute = mapping.GenericExecute;
    out.GenericAll = mapping.GenericAll;
    return out;
}

// Room for the privileges an access check may report.
struct PrivilegeBuffer {
    alignas(
        ::PRIVILEGE_SET) BYTE bytes[sizeof(::PRIVILEGE_SET) + 8 * sizeof(::LUID_AND_ATTRIBUTES)];
};

}  // namespace

void MapGenericMask(ACCESS_MASK* mask, const platform::GENERIC_MAPPING& mapping) noexcept {
    if (mask == nullptr) {
        return;
    }
    ::GENERIC_MAPPING native = Native(mapping);
    ::DWORD value = *mask;
    ::MapGenericMask(&value, &native);
    *mask = static_cast<ACCESS_MASK>(value);
}

bool AccessCheck(const SecurityDescriptor& sd, HANDLE token, ACCESS_MASK desiredAccess,
                 const platform::GENERIC_MAPPING& mapping, platform::PRIVILEGE_SET* privileges,
                 DWORD* privilegesLength, ACCESS_MASK* grantedAccess, bool* accessStatus) {
    if (grantedAccess == nullptr || accessStatus == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (!IsValidSecurityDescriptor(sd)) {
        return false;
    }
    if (privilegesLength != nullptr &&
        (privileges == nullptr || *privilegesLength < sizeof(platform::PRIVILEGE_SET))) {
        *privilegesLength = sizeof(platform::PRIVILEGE_SET);
        ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return false;
    }
    // Windows insists on an owner and a group; a descriptor without them
    // gets the NULL SID, which no token holds, so nobody gains the owner's
    // implicit rights.
    win32::NativeDescriptor native;
    if (!native.Build(sd, true)) {
        return false;
    }
    ::GENERIC_MAPPING nativeMapping = Native(mapping);
    auto buffer = std::make_unique<PrivilegeBuffer>();
    ::DWORD length = sizeof buffer->bytes;
    ::DWORD granted = 0;
    BOOL status = FALSE;
    if (!::AccessCheck(native.get(), token, desiredAccess, &nativeMapping,
                       reinterpret_cast<::PPRIVILEGE_SET>(buffer->bytes), &length, &granted,
                       &status)) {
        return false;
    }
    if (privileges != nullptr && privilegesLength != nullptr) {
        const auto* set = reinterpret_cast<const ::PRIVILEGE_SET*>(buffer->bytes);
        privileges->PrivilegeCount = set->PrivilegeCount;
        privileges->Control = set->Control;
    }
    *grantedAccess = status ? static_cast<ACCESS_MASK>(granted) : 0;
    *accessStatus = status != FALSE;
    return true;
}

bool CheckCurrentProcessAccess(const SecurityDescriptor& sd, ACCESS_MASK desiredAccess,
                               const platform::GENERIC_MAPPING& mapping,
                               ACCESS_MASK* grantedAccess) {
    if (!IsValidSecurityDescriptor(sd)) {
        return false;
    }
    UniqueToken process;
    UniqueToken identification;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY | TOKEN_DUPLICATE, &process) ||
        !DuplicateToken(process.get(), TOKEN_QUERY, &identification)) {
        return false;
    }
    MapGenericMask(&desiredAccess, mapping);
    ACCESS_MASK granted = 0;
    bool status = false;
    if (!AccessCheck(sd, identification.get(), desiredAccess, mapping, nullptr, nullptr, &granted,
                     &status)) {
        return false;
    }
    if (grantedAccess != nullptr) {
        *grantedAccess = granted;
    }
    return status;
}

}  // namespace platform
