// Security descriptors: the absolute form kept in memory and the
// self-relative byte layout stored with objects.
#include <cstring>

#include "../common/security_bytes.h"
#include "platform/security.h"

namespace platform {

namespace {

using layout::WriteU16;
using layout::WriteU32;

bool DaclPresent(const SecurityDescriptor& sd) {
    return (sd.control & SE_DACL_PRESENT) != 0;
}
bool SaclPresent(const SecurityDescriptor& sd) {
    return (sd.control & SE_SACL_PRESENT) != 0;
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

}  // namespace platform
