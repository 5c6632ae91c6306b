// UTF-16 text helpers shared by every subsystem of the module.
#pragma once

#include <string>
#include <string_view>

namespace ovsvc {

// UTF-8 <-> UTF-16; invalid sequences become U+FFFD.
std::string ToUtf8(std::u16string_view text);
std::u16string ToUtf16(std::string_view text);

// Length of a zero-terminated UTF-16 string; 0 for null.
std::size_t StrLen(const char16_t* text) noexcept;
// The text of a zero-terminated UTF-16 string, or empty for null.
std::u16string_view View(const char16_t* text) noexcept;

// Case-insensitive comparison the way Windows compares names (the
// platform's one upper-case table).
bool EqualsNoCase(std::u16string_view a, std::u16string_view b) noexcept;
char16_t FoldCase(char16_t c) noexcept;

}  // namespace ovsvc
