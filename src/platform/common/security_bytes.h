// Little helpers for reading and writing Windows' little-endian security
// structures in byte buffers, and the layout checks every backend applies
// before it trusts bytes as a SID or an ACL.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace platform::layout {

inline std::uint16_t ReadU16(std::span<const std::byte> b, std::size_t at) {
    return static_cast<std::uint16_t>(std::to_integer<unsigned>(b[at]) |
                                      (std::to_integer<unsigned>(b[at + 1]) << 8));
}

inline std::uint32_t ReadU32(std::span<const std::byte> b, std::size_t at) {
    return std::to_integer<std::uint32_t>(b[at]) |
           (std::to_integer<std::uint32_t>(b[at + 1]) << 8) |
           (std::to_integer<std::uint32_t>(b[at + 2]) << 16) |
           (std::to_integer<std::uint32_t>(b[at + 3]) << 24);
}

inline void WriteU16(std::span<std::byte> b, std::size_t at, std::uint16_t v) {
    b[at] = static_cast<std::byte>(v & 0xFF);
    b[at + 1] = static_cast<std::byte>(v >> 8);
}

inline void WriteU32(std::span<std::byte> b, std::size_t at, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        b[at + static_cast<std::size_t>(i)] = static_cast<std::byte>((v >> (8 * i)) & 0xFF);
    }
}

inline void AppendU32(std::vector<std::byte>* out, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        out->push_back(static_cast<std::byte>((v >> (8 * i)) & 0xFF));
    }
}

inline constexpr std::size_t kAclHeaderBytes = 8;
inline constexpr unsigned kMinAclRevision = 2;
inline constexpr unsigned kMaxAclRevision = 4;

// Size a SID's header says it has, or 0 when the header is not a SID's or
// the bytes are shorter than that.
inline std::size_t DeclaredSidSize(std::span<const std::byte> bytes) {
    if (bytes.size() < 8) {
        return 0;
    }
    const auto revision = std::to_integer<unsigned>(bytes[0]);
    const auto count = std::to_integer<unsigned>(bytes[1]);
    if (revision != 1 || count > 15) {
        return 0;
    }
    const std::size_t size = 8 + 4 * std::size_t{count};
    return bytes.size() >= size ? size : 0;
}

// Offset just past the ACEs of an ACL (the first free byte), or 0 when the
// ACEs do not fit the ACL's declared size. `acl` holds at least the header.
inline std::size_t EndOfAces(std::span<const std::byte> acl) {
    const std::size_t declared = ReadU16(acl, 2);
    const std::size_t size = declared < acl.size() ? declared : acl.size();
    const std::size_t count = ReadU16(acl, 4);
    std::size_t at = kAclHeaderBytes;
    for (std::size_t i = 0; i < count; ++i) {
        if (at + 4 > size) {
            return 0;
        }
        const std::size_t aceSize = ReadU16(acl, at + 2);
        if (aceSize < 4 || aceSize % 4 != 0 || at + aceSize > size) {
            return 0;
        }
        at += aceSize;
    }
    return at;
}

// Whether `bytes` start with a whole ACL: known revision, declared size
// inside the bytes, ACEs inside the declared size.
inline bool ValidAclBytes(std::span<const std::byte> bytes) {
    if (bytes.size() < kAclHeaderBytes) {
        return false;
    }
    const auto revision = std::to_integer<unsigned>(bytes[0]);
    const std::size_t size = ReadU16(bytes, 2);
    if (revision < kMinAclRevision || revision > kMaxAclRevision || size < kAclHeaderBytes ||
        size > bytes.size()) {
        return false;
    }
    return EndOfAces(bytes.first(size)) != 0;
}

// Checks a run of ACEs back to back; returns how many there are, or -1 when
// one is truncated or has an impossible size.
inline long CountAces(std::span<const std::byte> aces) {
    long count = 0;
    std::size_t at = 0;
    while (at < aces.size()) {
        if (at + 4 > aces.size()) {
            return -1;
        }
        const std::size_t size = ReadU16(aces, at + 2);
        if (size < 4 || size % 4 != 0 || at + size > aces.size()) {
            return -1;
        }
        at += size;
        ++count;
    }
    return count;
}

}  // namespace platform::layout
