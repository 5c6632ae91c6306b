// Stored security descriptors come from the registry: parsing arbitrary bytes
// must never crash, and a descriptor that parses must come back byte-equal
// in meaning through the self-relative form written for it.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "platform/security.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace platform;
    const std::span<const std::byte> bytes(reinterpret_cast<const std::byte*>(data), size);
    SecurityDescriptor sd;
    if (!MakeAbsoluteSD(bytes, &sd)) {
        const DWORD error = GetLastError();
        if (error != ERROR_INVALID_SECURITY_DESCR && error != ERROR_BAD_DESCRIPTOR_FORMAT) {
            std::abort();
        }
        return 0;
    }
    if (!IsValidSecurityDescriptor(sd)) {
        std::abort();
    }
    const std::vector<std::byte> written = ToSelfRelative(sd);
    if (written.size() != GetSecurityDescriptorLength(sd)) {
        std::abort();
    }
    SecurityDescriptor again;
    if (!MakeAbsoluteSD(written, &again) || !(again == sd)) {
        std::abort();
    }
    // Every ACE of the DACL can be read and copied into an ACL of the same size.
    bool present = false;
    bool defaulted = false;
    const Acl* dacl = nullptr;
    if (GetSecurityDescriptorDacl(sd, &present, &dacl, &defaulted) && dacl != nullptr) {
        ACL_SIZE_INFORMATION info;
        Acl copy;
        if (!GetAclInformation(*dacl, &info) ||
            !InitializeAcl(&copy, static_cast<DWORD>(dacl->size()), ACL_REVISION)) {
            std::abort();
        }
        for (DWORD i = 0; i < info.AceCount; ++i) {
            Ace ace;
            if (!GetAce(*dacl, i, &ace) || !AddAce(&copy, ACL_REVISION, MAXDWORD, ace)) {
                std::abort();
            }
        }
    }
    return 0;
}
