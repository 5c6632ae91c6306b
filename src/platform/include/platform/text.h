// UTF-16 <-> UTF-8, for host calls, tools and tests. Unpaired surrogates and
// invalid UTF-8 bytes become U+FFFD; nothing is dropped silently.
//
// Names compared the way Windows compares them without regard to case
// (registry keys and values, printers, accounts, files, resources): each
// UTF-16 unit upper-cased by one table, the simple upper-case mapping of the
// Basic Multilingual Plane (a to A, a-grave to A-grave, Greek, Cyrillic,
// fullwidth ...). Characters without case, those whose upper case is more
// than one character (sharp s) and surrogates stay as they are.
#pragma once

#include <string>
#include <string_view>

namespace platform {

std::string ToUtf8(std::u16string_view text);
std::u16string ToUtf16(std::string_view text);

char16_t UpcaseChar(char16_t c) noexcept;
std::u16string UpcaseName(std::u16string_view name);
bool NamesEqual(std::u16string_view a, std::u16string_view b) noexcept;
// <0, 0 or >0 as the upper-cased names compare unit by unit.
int CompareNames(std::u16string_view a, std::u16string_view b) noexcept;

}  // namespace platform
