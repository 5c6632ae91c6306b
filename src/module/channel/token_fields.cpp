#include "channel/token_fields.h"

#include <new>

#include "common/format.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

bool IsConversionBlank(char16_t c) {
    return (c >= 0x09 && c <= 0x0D) || c == 0x20;
}

// Reads an unsigned decimal number the way the C library's string to
// unsigned long conversion does with 32-bit longs: leading blanks, an
// optional sign, then digits. *end is where reading stopped (0 when no
// digits were found); an overflow gives the largest number.
std::uint32_t ReadUnsigned(std::u16string_view text, std::size_t* end) {
    std::size_t p = 0;
    while (p < text.size() && IsConversionBlank(text[p])) {
        ++p;
    }
    bool negative = false;
    if (p < text.size() && (text[p] == u'+' || text[p] == u'-')) {
        negative = text[p] == u'-';
        ++p;
    }
    const std::size_t digitsStart = p;
    std::uint64_t value = 0;
    bool overflow = false;
    while (p < text.size() && text[p] >= u'0' && text[p] <= u'9') {
        value = value * 10 + static_cast<std::uint64_t>(text[p] - u'0');
        if (value > 0xFFFFFFFFull) {
            overflow = true;
            value = 0xFFFFFFFFull;
        }
        ++p;
    }
    if (p == digitsStart) {
        *end = 0;
        return 0;
    }
    *end = p;
    if (overflow) {
        return 0xFFFFFFFFu;
    }
    const auto result = static_cast<std::uint32_t>(value);
    return negative ? 0u - result : result;
}

}  // namespace

std::u16string OVASerToken::FormatToken(std::u16string_view tag, std::u16string_view value) {
    // Tag, length and ":" through the formatter; the value is appended as it
    // is, so that any character in it (also a zero) is carried.
    std::u16string field = Format(u"%s%d:", tag, static_cast<std::uint32_t>(value.size()));
    field.append(value);
    return field;
}

std::u16string OVASerToken::FormatTokenNumber(std::u16string_view tag, std::uint32_t number) {
    return FormatToken(tag, Format(u"%d", number));
}

bool OVASerToken::ParseToken(std::u16string_view& rest, char16_t* tag, std::u16string* value,
                             std::uint32_t* number) {
    if (rest.empty()) {
        return false;
    }
    const std::u16string_view afterTag = rest.substr(1);
    std::size_t end = 0;
    const std::uint32_t length = ReadUnsigned(afterTag, &end);
    if (end >= afterTag.size() || afterTag[end] != u':') {
        OVTRACE(ERR | NORM, "sytax error no ':' found");
        return false;
    }
    const std::u16string_view text = afterTag.substr(end + 1);
    if (length > text.size()) {
        TraceCheck("dwLen <= _tcslen(szRest)", __FILE__, __LINE__);
        return false;
    }
    try {
        *value = std::u16string(text.substr(0, length));
    } catch (const std::bad_alloc&) {
        TraceCheck("sz != NULL", __FILE__, __LINE__);
        return false;
    }
    std::size_t numberEnd = 0;
    *number = ReadUnsigned(*value, &numberEnd);
    *tag = rest[0];
    rest = text.substr(length);
    return true;
}

}  // namespace ovsvc
