#include <charconv>
#include "platform/text.h"

#include "wts_internal.h"

namespace platform::detail {

std::string Utf8(std::u16string_view text) {
    return platform::ToUtf8(text);
}

std::u16string Utf16(std::string_view text) {
    return platform::ToUtf16(text);
}

bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
    return NamesEqual(platform::ToUtf16(a), platform::ToUtf16(b));
}

std::optional<DWORD> ParseDword(std::string_view text) noexcept {
    DWORD value = 0;
    const char* end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (text.empty() || ec != std::errc() || ptr != end) {
        return std::nullopt;
    }
    return value;
}

}  // namespace platform::detail
