// Little helpers for reading and writing Windows' little-endian security
// structures in byte buffers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace platform::embedded {

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

}  // namespace platform::embedded
