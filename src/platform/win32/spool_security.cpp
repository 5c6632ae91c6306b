// Printer security over winspool: descriptors to and from the platform's
// self-relative bytes, checked before winspool reads them, and owner changes.
#include <cstring>

#include "platform/spooler.h"
#include "spool_records.h"
#include "win32_api.h"

namespace platform {

namespace win32::spool {

namespace {

constexpr std::size_t kHeaderSize = 20;  // SECURITY_DESCRIPTOR_RELATIVE
constexpr std::size_t kAclHeaderSize = 8;

template <typename T>
T Read(const std::vector<std::byte>& bytes, std::size_t offset) {
    T value{};
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return value;
}

// A SID at `offset` (0: none) lies wholly inside the bytes.
bool SidFits(const std::vector<std::byte>& sd, std::uint32_t offset) {
    if (offset == 0) {
        return true;
    }
    if (offset < kHeaderSize || offset + std::size_t{8} > sd.size()) {
        return false;
    }
    const auto count = static_cast<std::size_t>(sd[offset + 1]);
    return sd[offset] == std::byte{1} && count <= SID_MAX_SUB_AUTHORITIES &&
           offset + 8 + 4 * count <= sd.size();
}

// An ACL at `offset` lies inside the bytes and its ACEs inside the ACL.
bool AclFits(const std::vector<std::byte>& sd, std::uint32_t offset) {
    if (offset == 0) {
        return true;  // present but null: grants everything
    }
    if (offset < kHeaderSize || offset + kAclHeaderSize > sd.size()) {
        return false;
    }
    const auto aclSize = Read<std::uint16_t>(sd, offset + 2);
    if (aclSize < kAclHeaderSize || offset + std::size_t{aclSize} > sd.size()) {
        return false;
    }
    const auto count = Read<std::uint16_t>(sd, offset + 4);
    std::size_t at = offset + kAclHeaderSize;
    const std::size_t end = offset + std::size_t{aclSize};
    for (std::uint16_t i = 0; i < count; ++i) {
        if (at + 4 > end) {
            return false;
        }
        const auto aceSize = Read<std::uint16_t>(sd, at + 2);
        if (aceSize < 4 || at + aceSize > end) {
            return false;
        }
        at += aceSize;
    }
    return ::IsValidAcl(reinterpret_cast<::PACL>(const_cast<std::byte*>(sd.data() + offset))) !=
           FALSE;
}

}  // namespace

std::vector<std::byte> SelfRelativeBytes(::PSECURITY_DESCRIPTOR sd) {
    if (sd == nullptr || !::IsValidSecurityDescriptor(sd)) {
        return {};
    }
    ::SECURITY_DESCRIPTOR_CONTROL control = 0;
    ::DWORD revision = 0;
    if (!::GetSecurityDescriptorControl(sd, &control, &revision)) {
        return {};
    }
    if ((control & SE_SELF_RELATIVE) != 0) {
        const auto* start = static_cast<const std::byte*>(sd);
        return std::vector<std::byte>(start, start + ::GetSecurityDescriptorLength(sd));
    }
    ::DWORD size = 0;
    ::MakeSelfRelativeSD(sd, nullptr, &size);
    std::vector<std::byte> out(size);
    if (size == 0 || !::MakeSelfRelativeSD(sd, out.data(), &size)) {
        return {};
    }
    out.resize(size);
    return out;
}

bool DescriptorBytes::Set(const std::vector<std::byte>& sd) {
    buffer_.Resize(0);
    if (sd.empty()) {
        return true;
    }
    const bool fits = [&] {
        if (sd.size() < kHeaderSize || sd[0] != std::byte{SECURITY_DESCRIPTOR_REVISION}) {
            return false;
        }
        const auto control = Read<std::uint16_t>(sd, 2);
        if ((control & SE_SELF_RELATIVE) == 0) {
            return false;
        }
        const bool sacl = (control & SE_SACL_PRESENT) != 0;
        const bool dacl = (control & SE_DACL_PRESENT) != 0;
        return SidFits(sd, Read<std::uint32_t>(sd, 4)) && SidFits(sd, Read<std::uint32_t>(sd, 8)) &&
               (!sacl || AclFits(sd, Read<std::uint32_t>(sd, 12))) &&
               (!dacl || AclFits(sd, Read<std::uint32_t>(sd, 16)));
    }();
    if (!fits) {
        ::SetLastError(ERROR_INVALID_SECURITY_DESCR);
        return false;
    }
    buffer_.Resize(static_cast<::DWORD>(sd.size()));
    std::memcpy(buffer_.data(), sd.data(), sd.size());
    if (!::IsValidSecurityDescriptor(Pointer())) {
        buffer_.Resize(0);
        ::SetLastError(ERROR_INVALID_SECURITY_DESCR);
        return false;
    }
    return true;
}

}  // namespace win32::spool

DWORD SetPrinterOwner(HANDLE printer, const std::vector<std::byte>& ownerSid) {
    // Copied so that the SID is aligned and checked before Windows reads it.
    std::vector<std::uint32_t> sid((ownerSid.size() + 3) / 4);
    if (!ownerSid.empty()) {
        std::memcpy(sid.data(), ownerSid.data(), ownerSid.size());
    }
    const bool valid = ownerSid.size() >= 8 && ownerSid[0] == std::byte{1} &&
                       ownerSid.size() == 8 + 4 * static_cast<std::size_t>(ownerSid[1]) &&
                       ::IsValidSid(sid.data());
    if (!valid) {
        ::SetLastError(ERROR_INVALID_SID);
        return ERROR_INVALID_SID;
    }
    const ::DWORD status = ::SetSecurityInfo(printer, SE_PRINTER, OWNER_SECURITY_INFORMATION,
                                             sid.data(), nullptr, nullptr, nullptr);
    ::SetLastError(status);
    return status;
}

}  // namespace platform
