#include "rules/wildcard.h"

#include "common/ovstring.h"

namespace ovsvc {

bool WildcardMatch(std::u16string_view pattern, std::u16string_view value) noexcept {
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
        if (p < plen && (pattern[p] == u'?' || FoldCase(pattern[p]) == FoldCase(value[v]))) {
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
