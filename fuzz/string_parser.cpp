// Splitting arbitrary lines, with the comma list configuration and with
// configurations taken from the input.
#include <cstdlib>

#include "fuzz_input.h"
#include "rules/string_parser.h"

using ovsvc::CStringParser;
using ovsvc::ParserConfig;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::u16string text = ovfuzz::Utf16(data, size);
    CStringParser parser;
    const int n = parser.Split(text, ovsvc::kCommaList);
    std::size_t total = 0;
    for (int i = 0; i < n; ++i) {
        const char16_t* field = parser.GetArg(i);
        if (field == nullptr) {
            std::abort();
        }
        total += std::u16string_view(field).size();
    }
    // A field never holds more characters than the line.
    if (parser.GetArg(n) != nullptr || total > text.size()) {
        std::abort();
    }
    if (text.size() >= 3) {
        ParserConfig config;
        config.separator = text[0];
        config.quote = text[1];
        config.escape = text[2];
        config.collapseSeparators = (text.size() & 1) != 0;
        config.noTrailingEmpty = (text.size() & 2) != 0;
        config.keepQuotes = (text.size() & 4) != 0;
        const int m = parser.Split(std::u16string_view(text).substr(3), config);
        for (int i = 0; i < m; ++i) {
            if (parser.GetArg(i) == nullptr) {
                std::abort();
            }
        }
    }
    return 0;
}
