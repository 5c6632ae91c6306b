// UTF-16 <-> UTF-8, for host calls, tools and tests. Unpaired surrogates and
// invalid UTF-8 bytes become U+FFFD; nothing is dropped silently.
#pragma once

#include <string>
#include <string_view>

namespace platform {

std::string ToUtf8(std::u16string_view text);
std::u16string ToUtf16(std::string_view text);

}  // namespace platform
