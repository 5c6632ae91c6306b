// Turning fuzzer bytes into the UTF-16 text the parsers read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace ovfuzz {

// Every two bytes are one UTF-16 unit (little-endian); an odd last byte is
// dropped.
inline std::u16string Utf16(const std::uint8_t* data, std::size_t size) {
    std::u16string text(size / 2, u'\0');
    if (!text.empty()) {
        std::memcpy(text.data(), data, text.size() * 2);
    }
    return text;
}

}  // namespace ovfuzz
