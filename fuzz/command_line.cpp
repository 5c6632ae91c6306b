// Splitting command lines (the logoff command comes from the registry).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/process.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::u16string line(size / 2, u'\0');
    for (std::size_t i = 0; i < line.size(); ++i) {
        line[i] = static_cast<char16_t>(data[2 * i] | (data[2 * i + 1] << 8));
    }
    const auto words = platform::CommandLineToArgv(line);
    std::size_t total = 0;
    for (const auto& w : words) {
        total += w.size();
    }
    // Every character of a word comes from the line; quotes and escapes only shrink it.
    if (total > line.size()) {
        std::abort();
    }
    const auto start = line.find_first_not_of(u" \t");
    if (start != std::u16string::npos && line[start] == u'"' && !words.empty() &&
        words.front().find(u'"') != std::u16string::npos) {
        std::abort();  // a quoted program name never keeps a quote mark
    }
    return 0;
}
