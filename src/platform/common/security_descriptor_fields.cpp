// Security descriptors as the platform's value type: reading and setting
// their owner, group and DACL, and parsing the self-relative bytes stored
// with objects. Parsing checks every offset and size against the bytes
// given, so damaged stored descriptors are refused rather than read past.
#include "platform/security.h"
#include "security_bytes.h"

namespace platform {

namespace {

using layout::ReadU16;
using layout::ReadU32;

bool Initialised(const SecurityDescriptor* sd) {
    if (sd == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (sd->revision != SECURITY_DESCRIPTOR_REVISION) {
        SetLastError(ERROR_UNKNOWN_REVISION);
        return false;
    }
    return true;
}

bool DaclPresent(const SecurityDescriptor& sd) {
    return (sd.control & SE_DACL_PRESENT) != 0;
}

void SetFlag(SecurityDescriptor* sd, SECURITY_DESCRIPTOR_CONTROL flag, bool on) {
    if (on) {
        sd->control |= flag;
    } else {
        sd->control &= static_cast<SECURITY_DESCRIPTOR_CONTROL>(~flag);
    }
}

// The SID or ACL stored at `offset` of a self-relative descriptor.
bool ReadSidAt(std::span<const std::byte> bytes, DWORD offset, std::optional<Sid>* sid) {
    if (offset == 0) {
        sid->reset();
        return true;
    }
    if (offset < kSelfRelativeHeaderSize || offset >= bytes.size()) {
        return false;
    }
    Sid parsed = Sid::FromBytes(bytes.subspan(offset));
    if (parsed.empty()) {
        return false;
    }
    *sid = std::move(parsed);
    return true;
}

bool ReadAclAt(std::span<const std::byte> bytes, DWORD offset, std::optional<Acl>* acl) {
    if (offset == 0) {
        acl->reset();
        return true;
    }
    if (offset < kSelfRelativeHeaderSize || offset >= bytes.size()) {
        return false;
    }
    Acl parsed = Acl::FromBytes(bytes.subspan(offset));
    if (parsed.empty()) {
        return false;
    }
    *acl = std::move(parsed);
    return true;
}

}  // namespace

bool GetSecurityDescriptorControl(const SecurityDescriptor& sd,
                                  SECURITY_DESCRIPTOR_CONTROL* control, DWORD* revision) {
    if (control == nullptr || revision == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    *revision = sd.revision;
    if (!Initialised(&sd)) {
        return false;
    }
    *control = sd.control;
    return true;
}

bool GetSecurityDescriptorDacl(const SecurityDescriptor& sd, bool* present, const Acl** dacl,
                               bool* defaulted) {
    if (present == nullptr || dacl == nullptr || defaulted == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (!Initialised(&sd)) {
        return false;
    }
    *present = DaclPresent(sd);
    if (*present) {
        *dacl = sd.dacl ? &*sd.dacl : nullptr;
        *defaulted = (sd.control & SE_DACL_DEFAULTED) != 0;
    } else {
        // Windows leaves the other outputs alone when there is no DACL.
        *dacl = nullptr;
    }
    return true;
}

bool SetSecurityDescriptorDacl(SecurityDescriptor* sd, bool present, const Acl* dacl,
                               bool defaulted) {
    if (!Initialised(sd)) {
        return false;
    }
    if (!present) {
        SetFlag(sd, SE_DACL_PRESENT, false);
        sd->dacl.reset();
        return true;
    }
    if (dacl != nullptr && !IsValidAcl(*dacl)) {
        return false;
    }
    SetFlag(sd, SE_DACL_PRESENT, true);
    if (dacl != nullptr) {
        sd->dacl = *dacl;
    } else {
        sd->dacl.reset();
    }
    SetFlag(sd, SE_DACL_DEFAULTED, defaulted);
    return true;
}

bool GetSecurityDescriptorOwner(const SecurityDescriptor& sd, const Sid** owner, bool* defaulted) {
    if (owner == nullptr || defaulted == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (!Initialised(&sd)) {
        return false;
    }
    *owner = sd.owner ? &*sd.owner : nullptr;
    *defaulted = (sd.control & SE_OWNER_DEFAULTED) != 0;
    return true;
}

bool SetSecurityDescriptorOwner(SecurityDescriptor* sd, const Sid* owner, bool defaulted) {
    if (!Initialised(sd)) {
        return false;
    }
    if (owner != nullptr && !IsValidSid(*owner)) {
        return false;
    }
    sd->owner = owner != nullptr ? std::optional<Sid>(*owner) : std::nullopt;
    SetFlag(sd, SE_OWNER_DEFAULTED, defaulted);
    return true;
}

bool GetSecurityDescriptorGroup(const SecurityDescriptor& sd, const Sid** group, bool* defaulted) {
    if (group == nullptr || defaulted == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (!Initialised(&sd)) {
        return false;
    }
    *group = sd.group ? &*sd.group : nullptr;
    *defaulted = (sd.control & SE_GROUP_DEFAULTED) != 0;
    return true;
}

bool SetSecurityDescriptorGroup(SecurityDescriptor* sd, const Sid* group, bool defaulted) {
    if (!Initialised(sd)) {
        return false;
    }
    if (group != nullptr && !IsValidSid(*group)) {
        return false;
    }
    sd->group = group != nullptr ? std::optional<Sid>(*group) : std::nullopt;
    SetFlag(sd, SE_GROUP_DEFAULTED, defaulted);
    return true;
}

bool MakeAbsoluteSD(std::span<const std::byte> bytes, SecurityDescriptor* sd) {
    if (sd == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (bytes.size() < kSelfRelativeHeaderSize ||
        std::to_integer<DWORD>(bytes[0]) != SECURITY_DESCRIPTOR_REVISION) {
        SetLastError(ERROR_INVALID_SECURITY_DESCR);
        return false;
    }
    const SECURITY_DESCRIPTOR_CONTROL control = ReadU16(bytes, 2);
    if ((control & SE_SELF_RELATIVE) == 0) {
        SetLastError(ERROR_BAD_DESCRIPTOR_FORMAT);
        return false;
    }
    SecurityDescriptor out;
    out.revision = SECURITY_DESCRIPTOR_REVISION;
    out.control = static_cast<SECURITY_DESCRIPTOR_CONTROL>(control & ~SE_SELF_RELATIVE);
    const bool ok =
        ReadSidAt(bytes, ReadU32(bytes, 4), &out.owner) &&
        ReadSidAt(bytes, ReadU32(bytes, 8), &out.group) &&
        ((control & SE_SACL_PRESENT) == 0 || ReadAclAt(bytes, ReadU32(bytes, 12), &out.sacl)) &&
        ((control & SE_DACL_PRESENT) == 0 || ReadAclAt(bytes, ReadU32(bytes, 16), &out.dacl));
    if (!ok) {
        SetLastError(ERROR_INVALID_SECURITY_DESCR);
        return false;
    }
    *sd = std::move(out);
    return true;
}

bool IsValidSelfRelativeSecurityDescriptor(std::span<const std::byte> bytes) noexcept {
    SecurityDescriptor sd;
    try {
        return MakeAbsoluteSD(bytes, &sd);
    } catch (...) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return false;
    }
}

}  // namespace platform
