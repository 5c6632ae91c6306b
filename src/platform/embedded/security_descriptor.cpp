// Security descriptors: the absolute form kept in memory and the
// self-relative byte layout stored with objects.
#include <cstring>

#include "platform/security.h"
#include "security_bytes.h"

namespace platform {

namespace {

using embedded::ReadU16;
using embedded::ReadU32;
using embedded::WriteU16;
using embedded::WriteU32;

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
bool SaclPresent(const SecurityDescriptor& sd) {
    return (sd.control & SE_SACL_PRESENT) != 0;
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

bool InitializeSecurityDescriptor(SecurityDescriptor* sd, DWORD revision) {
    if (sd == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (revision != SECURITY_DESCRIPTOR_REVISION) {
        SetLastError(ERROR_UNKNOWN_REVISION);
        return false;
    }
    *sd = SecurityDescriptor{};
    sd->revision = SECURITY_DESCRIPTOR_REVISION;
    return true;
}

bool IsValidSecurityDescriptor(const SecurityDescriptor& sd) noexcept {
    const bool ok = sd.revision == SECURITY_DESCRIPTOR_REVISION &&
                    (!sd.owner || IsValidSid(*sd.owner)) && (!sd.group || IsValidSid(*sd.group)) &&
                    (!DaclPresent(sd) || !sd.dacl || IsValidAcl(*sd.dacl)) &&
                    (!SaclPresent(sd) || !sd.sacl || IsValidAcl(*sd.sacl));
    if (!ok) {
        SetLastError(ERROR_INVALID_SECURITY_DESCR);
    }
    return ok;
}

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
        sd->control &= static_cast<SECURITY_DESCRIPTOR_CONTROL>(~SE_DACL_PRESENT);
        sd->dacl.reset();
        return true;
    }
    if (dacl != nullptr && !IsValidAcl(*dacl)) {
        return false;
    }
    sd->control |= SE_DACL_PRESENT;
    if (dacl != nullptr) {
        sd->dacl = *dacl;
    } else {
        sd->dacl.reset();
    }
    if (defaulted) {
        sd->control |= SE_DACL_DEFAULTED;
    } else {
        sd->control &= static_cast<SECURITY_DESCRIPTOR_CONTROL>(~SE_DACL_DEFAULTED);
    }
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
    if (defaulted) {
        sd->control |= SE_OWNER_DEFAULTED;
    } else {
        sd->control &= static_cast<SECURITY_DESCRIPTOR_CONTROL>(~SE_OWNER_DEFAULTED);
    }
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
    if (defaulted) {
        sd->control |= SE_GROUP_DEFAULTED;
    } else {
        sd->control &= static_cast<SECURITY_DESCRIPTOR_CONTROL>(~SE_GROUP_DEFAULTED);
    }
    return true;
}

DWORD GetSecurityDescriptorLength(const SecurityDescriptor& sd) noexcept {
    std::size_t size = kSelfRelativeHeaderSize;
    if (SaclPresent(sd) && sd.sacl) {
        size += sd.sacl->size();
    }
    if (DaclPresent(sd) && sd.dacl) {
        size += sd.dacl->size();
    }
    if (sd.owner) {
        size += sd.owner->size();
    }
    if (sd.group) {
        size += sd.group->size();
    }
    return static_cast<DWORD>(size);
}

bool MakeSelfRelativeSD(const SecurityDescriptor& sd, void* buffer, DWORD* size) {
    if (size == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (!IsValidSecurityDescriptor(sd)) {
        return false;
    }
    const DWORD needed = GetSecurityDescriptorLength(sd);
    if (buffer == nullptr || *size < needed) {
        *size = needed;
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return false;
    }
    std::vector<std::byte> bytes = ToSelfRelative(sd);
    std::memcpy(buffer, bytes.data(), bytes.size());
    *size = needed;
    return true;
}

std::vector<std::byte> ToSelfRelative(const SecurityDescriptor& sd) {
    std::vector<std::byte> out(kSelfRelativeHeaderSize);
    out[0] = std::byte{SECURITY_DESCRIPTOR_REVISION};
    WriteU16(out, 2, static_cast<std::uint16_t>(sd.control | SE_SELF_RELATIVE));
    auto append = [&out](std::span<const std::byte> part, std::size_t field) {
        WriteU32(out, field, static_cast<std::uint32_t>(out.size()));
        out.insert(out.end(), part.begin(), part.end());
    };
    // Windows' order: SACL, DACL, owner, group.
    if (SaclPresent(sd) && sd.sacl) {
        append(sd.sacl->bytes(), 12);
    }
    if (DaclPresent(sd) && sd.dacl) {
        append(sd.dacl->bytes(), 16);
    }
    if (sd.owner) {
        append(sd.owner->bytes(), 4);
    }
    if (sd.group) {
        append(sd.group->bytes(), 8);
    }
    return out;
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
