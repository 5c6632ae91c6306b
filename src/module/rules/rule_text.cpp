#include "rules/rule_text.h"

namespace ovsvc {

bool IsBlank(char16_t c) noexcept {
    if ((c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0) {
        return true;
    }
    if (c < 0x1680) {
        return false;
    }
    return c == 0x1680 || (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 ||
           c == 0x202F || c == 0x205F || c == 0x3000;
}

std::u16string_view TrimBlanks(std::u16string_view text) noexcept {
    std::size_t begin = 0;
    std::size_t end = text.size();
    while (begin < end && IsBlank(text[begin])) {
        ++begin;
    }
    while (end > begin && IsBlank(text[end - 1])) {
        --end;
    }
    return text.substr(begin, end - begin);
}

}  // namespace ovsvc
