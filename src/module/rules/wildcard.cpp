#include "rules/wildcard.h"

#include "common/ovstring.h"

namespace ovsvc {

namespace {

// Case-insensitive equality of two characters; plain ASCII is decided here,
// the rest by the module's case folding.
inline bool SameLetter(char16_t a, char16_t b) noexcept {
    if (a == b) {
        return true;
    }
    if (a < 0x80 && b < 0x80) {
        const auto lower = [](char16_t c) {
            return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c + 0x20) : c;
        };
        return lower(a) == lower(b);
    }
    return FoldCase(a) == FoldCase(b);
}

}  // namespace

bool WildcardMatch(std::u16string_view pattern, std::u16string_view value) noexcept {
    if (pattern.size() == 1 && pattern[0] == u'*') {
        return true;
    }
    const std::size_t plen = pattern.size();
    const std::size_t vlen = value.size();
    std::size_t p = 0;
    std::size_t v = 0;
    bool haveStar = false;
    std::size_t afterStar = 0;  // pattern position just behind the last "*"
    std::size_t restart = 0;    // value position the last "*" was tried from
    while (v < vlen) {
        if (p < plen && pattern[p] == u'*') {
            if (p + 1 == plen) {
                return true;
            }
            haveStar = true;
            afterStar = ++p;
            restart = v;
            continue;
        }
        if (p < plen && (pattern[p] == u'?' || SameLetter(pattern[p], value[v]))) {
            ++p;
            ++v;
            continue;
        }
        if (!haveStar) {
            return false;
        }
        p = afterStar;
        v = ++restart;
    }
    while (p < plen && pattern[p] == u'*') {
        ++p;
    }
    return p == plen;
}

}  // namespace ovsvc
