#include "common/ovstring.h"

#include "platform/text.h"

namespace ovsvc {

std::string ToUtf8(std::u16string_view text) {
    return platform::ToUtf8(text);
}

std::u16string ToUtf16(std::string_view text) {
    return platform::ToUtf16(text);
}

std::size_t StrLen(const char16_t* text) noexcept {
    if (text == nullptr) {
        return 0;
    }
    std::size_t n = 0;
    while (text[n] != 0) {
        ++n;
    }
    return n;
}

std::u16string_view View(const char16_t* text) noexcept {
    return text == nullptr ? std::u16string_view() : std::u16string_view(text, StrLen(text));
}

char16_t FoldCase(char16_t c) noexcept {
    return platform::UpcaseChar(c);
}

bool EqualsNoCase(std::u16string_view a, std::u16string_view b) noexcept {
    return platform::NamesEqual(a, b);
}

}  // namespace ovsvc
