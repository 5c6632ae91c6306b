// UTF-16 and UTF-8 conversions for host calls. Unpaired surrogates become
// U+FFFD; invalid UTF-8 bytes become U+FFFD.
#pragma once

#include <string>
#include <string_view>

namespace platform::embedded {

std::string ToUtf8(std::u16string_view text);
std::u16string ToUtf16(std::string_view text);

}  // namespace platform::embedded
