// The byte layouts of SIDs, ACEs and ACLs: building the platform's value
// types from bytes and the SID's text form. Both backends share these; the
// Win32 calls that create and change SIDs and ACLs live in each backend.
#include <cstdio>
#include <string>

#include "platform/security.h"
#include "security_bytes.h"

namespace platform {

namespace {

std::uint64_t AuthorityValue(std::span<const std::byte> sid) {
    std::uint64_t value = 0;
    for (std::size_t i = 2; i < 8; ++i) {
        value = (value << 8) | std::to_integer<std::uint64_t>(sid[i]);
    }
    return value;
}

}  // namespace

Sid Sid::FromBytes(std::span<const std::byte> bytes) {
    Sid sid;
    const std::size_t size = layout::DeclaredSidSize(bytes);
    if (size != 0) {
        sid.bytes_.assign(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
    }
    return sid;
}

Sid Sid::FromBytes(const void* bytes, std::size_t size) {
    if (bytes == nullptr) {
        return {};
    }
    return FromBytes(std::span<const std::byte>(static_cast<const std::byte*>(bytes), size));
}

std::u16string Sid::ToString() const {
    if (bytes_.empty()) {
        return {};
    }
    std::string text = "S-1-";
    const std::uint64_t authority = AuthorityValue(bytes_);
    if (authority >> 32 != 0) {
        char buf[24];
        std::snprintf(buf, sizeof buf, "0x%012llX", static_cast<unsigned long long>(authority));
        text += buf;
    } else {
        text += std::to_string(authority);
    }
    const auto count = std::to_integer<std::size_t>(bytes_[1]);
    for (std::size_t i = 0; i < count; ++i) {
        text += '-';
        text += std::to_string(layout::ReadU32(bytes_, 8 + 4 * i));
    }
    return {text.begin(), text.end()};
}

Ace MakeAce(BYTE type, BYTE flags, ACCESS_MASK mask, const Sid& sid) {
    Ace ace;
    ace.Header.AceType = type;
    ace.Header.AceFlags = flags;
    ace.Header.AceSize = static_cast<std::uint16_t>(kAceFixedSize + sid.size());
    ace.Mask = mask;
    ace.sid = sid;
    ace.raw.resize(ace.Header.AceSize);
    ace.raw[0] = std::byte{type};
    ace.raw[1] = std::byte{flags};
    layout::WriteU16(ace.raw, 2, ace.Header.AceSize);
    layout::WriteU32(ace.raw, 4, mask);
    std::copy(sid.bytes().begin(), sid.bytes().end(), ace.raw.begin() + kAceFixedSize);
    return ace;
}

Acl Acl::FromBytes(std::span<const std::byte> bytes) {
    Acl acl;
    if (layout::ValidAclBytes(bytes)) {
        const std::size_t size = layout::ReadU16(bytes, 2);
        acl.bytes_.assign(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
    }
    return acl;
}

}  // namespace platform
