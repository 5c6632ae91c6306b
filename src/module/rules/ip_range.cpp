#include "rules/ip_range.h"

#include <utility>

#include "rules/rule_text.h"

namespace ovsvc {

namespace {

// Reads an unsigned decimal number the way the C library's "%u" conversion
// does: blanks skipped, an optional sign, at least one digit. A value beyond
// 32 bits reads as the largest number; a negative one wraps.
bool ScanUnsigned(std::u16string_view text, std::size_t* pos, std::uint32_t* value) {
    std::size_t p = *pos;
    while (p < text.size() && IsBlank(text[p])) {
        ++p;
    }
    bool negative = false;
    if (p < text.size() && (text[p] == u'+' || text[p] == u'-')) {
        negative = text[p] == u'-';
        ++p;
    }
    if (p >= text.size() || text[p] < u'0' || text[p] > u'9') {
        return false;
    }
    std::uint64_t v = 0;
    while (p < text.size() && text[p] >= u'0' && text[p] <= u'9') {
        if (v <= 0xFFFFFFFFull) {
            v = v * 10 + static_cast<std::uint64_t>(text[p] - u'0');
        }
        ++p;
    }
    std::uint32_t result = v > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<std::uint32_t>(v);
    if (negative && v <= 0xFFFFFFFFull) {
        result = 0u - result;
    }
    *pos = p;
    *value = result;
    return true;
}

// "%u.%u.%u.%u": four numbers of at most 255 joined by dots.
bool ScanAddress(std::u16string_view text, std::size_t* pos, std::uint32_t* address) {
    std::uint32_t result = 0;
    std::size_t p = *pos;
    for (int octet = 0; octet < 4; ++octet) {
        if (octet > 0) {
            if (p >= text.size() || text[p] != u'.') {
                return false;
            }
            ++p;
        }
        std::uint32_t value = 0;
        if (!ScanUnsigned(text, &p, &value) || value > 255) {
            return false;
        }
        result = (result << 8) | value;
    }
    *pos = p;
    *address = result;
    return true;
}

}  // namespace

bool CIPRange::Parse(std::u16string_view text) {
    const std::u16string_view t = TrimBlanks(text);
    if (t.empty()) {
        return false;
    }
    if (t[0] == u'*') {
        if (t.size() != 1) {
            return false;
        }
        low = 0;
        high = 0xFFFFFFFFu;
        return true;
    }
    std::size_t pos = 0;
    std::uint32_t first = 0;
    if (!ScanAddress(t, &pos, &first)) {
        return false;
    }
    std::uint32_t last = first;
    if (pos < t.size()) {
        const char16_t next = t[pos++];
        if (next == u'-') {
            if (!ScanAddress(t, &pos, &last)) {
                return false;
            }
        } else if (next == u'/') {
            std::uint32_t prefix = 0;
            if (!ScanUnsigned(t, &pos, &prefix) || prefix > 32) {
                return false;
            }
            const std::uint32_t mask = prefix == 0 ? 0u : 0xFFFFFFFFu << (32 - prefix);
            if ((first & ~mask) != 0) {
                return false;
            }
            last = first | ~mask;
        } else {
            return false;
        }
        if (pos != t.size()) {
            return false;
        }
    }
    if (first > last) {
        std::swap(first, last);
    }
    low = first;
    high = last;
    return true;
}

}  // namespace ovsvc
