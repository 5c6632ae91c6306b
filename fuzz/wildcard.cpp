// Matching arbitrary values against arbitrary patterns; the input is the
// pattern, a zero unit, then the value.
#include <cstdlib>

#include "fuzz_input.h"
#include "rules/wildcard.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::u16string text = ovfuzz::Utf16(data, size);
    const std::size_t split = text.find(u'\0');
    const std::u16string_view all(text);
    const std::u16string_view pattern = all.substr(0, split);
    const std::u16string_view value =
        split == std::u16string_view::npos ? std::u16string_view() : all.substr(split + 1);
    const bool matched = ovsvc::WildcardMatch(pattern, value);
    // A star matches everything; a value without wildcards matches itself.
    if (!ovsvc::WildcardMatch(u"*", value)) {
        std::abort();
    }
    if (value.find_first_of(u"*?") == std::u16string_view::npos &&
        !ovsvc::WildcardMatch(value, value)) {
        std::abort();
    }
    // Surrounding a pattern with stars never loses a match.
    if (matched) {
        std::u16string wider = u"*";
        wider.append(pattern);
        wider.push_back(u'*');
        if (!ovsvc::WildcardMatch(wider, value)) {
            std::abort();
        }
    }
    return 0;
}
