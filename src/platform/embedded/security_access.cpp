// Access checks of a token against a security descriptor.
#include "platform/security.h"
#include "token_object.h"

namespace platform {

namespace {

constexpr ACCESS_MASK kGenericBits = GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL;

// Rights the descriptor grants the identity, out of `wanted`. Rights an
// earlier ACE denied cannot be granted by a later one.
ACCESS_MASK Grantable(const SecurityDescriptor& sd, const embedded::TokenIdentity& identity,
                      ACCESS_MASK wanted, const GENERIC_MAPPING& mapping) {
    const bool daclPresent = (sd.control & SE_DACL_PRESENT) != 0;
    if (!daclPresent || !sd.dacl) {
        return wanted;  // no DACL, or a NULL DACL: everything
    }
    ACCESS_MASK granted = 0;
    ACCESS_MASK denied = 0;
    if (sd.owner && embedded::HoldsSid(identity, *sd.owner)) {
        granted |= (READ_CONTROL | WRITE_DAC) & wanted;
    }
    ACL_SIZE_INFORMATION info;
    if (!GetAclInformation(*sd.dacl, &info)) {
        return 0;
    }
    for (DWORD i = 0; i < info.AceCount; ++i) {
        Ace ace;
        GetAce(*sd.dacl, i, &ace);
        if ((ace.Header.AceFlags & INHERIT_ONLY_ACE) != 0 || ace.sid.empty() ||
            !embedded::HoldsSid(identity, ace.sid)) {
            continue;
        }
        ACCESS_MASK mask = ace.Mask;
        MapGenericMask(&mask, mapping);
        if (ace.Header.AceType == ACCESS_ALLOWED_ACE_TYPE) {
            granted |= mask & wanted & ~denied;
        } else if (ace.Header.AceType == ACCESS_DENIED_ACE_TYPE) {
            denied |= mask & wanted & ~granted;
        }
    }
    return granted;
}

bool Check(const SecurityDescriptor& sd, const embedded::TokenIdentity& identity,
           ACCESS_MASK desired, const GENERIC_MAPPING& mapping, ACCESS_MASK* grantedAccess,
           bool* accessStatus) {
    const bool maximum = (desired & MAXIMUM_ALLOWED) != 0;
    const ACCESS_MASK everything = mapping.GenericAll | mapping.GenericRead | mapping.GenericWrite |
                                   mapping.GenericExecute | STANDARD_RIGHTS_ALL;
    const ACCESS_MASK asked = desired & ~MAXIMUM_ALLOWED;
    const ACCESS_MASK wanted = maximum ? (asked | everything) : asked;
    const ACCESS_MASK granted = Grantable(sd, identity, wanted, mapping);
    const bool ok = (asked & ~granted) == 0 && (!maximum || granted != 0);
    *grantedAccess = ok ? (maximum ? granted : asked) : 0;
    *accessStatus = ok;
    SetLastError(ok ? ERROR_SUCCESS : ERROR_ACCESS_DENIED);
    return true;
}

}  // namespace

void MapGenericMask(ACCESS_MASK* mask, const GENERIC_MAPPING& mapping) noexcept {
    if (mask == nullptr) {
        return;
    }
    ACCESS_MASK m = *mask;
    if ((m & GENERIC_READ) != 0) {
        m |= mapping.GenericRead;
    }
    if ((m & GENERIC_WRITE) != 0) {
        m |= mapping.GenericWrite;
    }
    if ((m & GENERIC_EXECUTE) != 0) {
        m |= mapping.GenericExecute;
    }
    if ((m & GENERIC_ALL) != 0) {
        m |= mapping.GenericAll;
    }
    *mask = m & ~kGenericBits;
}

bool AccessCheck(const SecurityDescriptor& sd, HANDLE token, ACCESS_MASK desiredAccess,
                 const GENERIC_MAPPING& mapping, PRIVILEGE_SET* privileges, DWORD* privilegesLength,
                 ACCESS_MASK* grantedAccess, bool* accessStatus) {
    if (grantedAccess == nullptr || accessStatus == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    auto object = embedded::TokenFromHandle(token, TOKEN_QUERY);
    if (!object) {
        return false;
    }
    if (!IsValidSecurityDescriptor(sd)) {
        return false;
    }
    if ((desiredAccess & kGenericBits) != 0) {
        SetLastError(ERROR_GENERIC_NOT_MAPPED);
        return false;
    }
    if (privilegesLength != nullptr) {
        if (privileges == nullptr || *privilegesLength < sizeof(PRIVILEGE_SET)) {
            *privilegesLength = sizeof(PRIVILEGE_SET);
            SetLastError(ERROR_INSUFFICIENT_BUFFER);
            return false;
        }
        *privileges = PRIVILEGE_SET{};
    }
    return Check(sd, object->identity(), desiredAccess, mapping, grantedAccess, accessStatus);
}

bool CheckCurrentProcessAccess(const SecurityDescriptor& sd, ACCESS_MASK desiredAccess,
                               const GENERIC_MAPPING& mapping, ACCESS_MASK* grantedAccess) {
    if (!IsValidSecurityDescriptor(sd)) {
        return false;
    }
    DWORD error = ERROR_SUCCESS;
    auto identity = embedded::CurrentProcessIdentity(&error);
    if (!identity) {
        SetLastError(error);
        return false;
    }
    MapGenericMask(&desiredAccess, mapping);
    ACCESS_MASK granted = 0;
    bool status = false;
    Check(sd, *identity, desiredAccess, mapping, &granted, &status);
    if (grantedAccess != nullptr) {
        *grantedAccess = granted;
    }
    return status;
}

}  // namespace platform
