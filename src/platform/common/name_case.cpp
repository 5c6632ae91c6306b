#include <array>
#include <cstdint>

#include "platform/text.h"

namespace platform {

namespace {

struct UpcaseRun {
    std::uint16_t first;
    std::uint16_t last;
    int delta;
    int step;
};

constexpr UpcaseRun kRuns[] = {
#include "upcase_table.inc"
};

// The whole plane as one table, made once (128 KB).
const std::array<char16_t, 0x10000>& Table() {
    static const auto* table = [] {
        auto* t = new std::array<char16_t, 0x10000>;
        for (std::size_t c = 0; c < t->size(); ++c) {
            (*t)[c] = static_cast<char16_t>(c);
        }
        for (const UpcaseRun& run : kRuns) {
            for (int c = run.first; c <= run.last; c += run.step) {
                (*t)[static_cast<std::size_t>(c)] = static_cast<char16_t>(c + run.delta);
            }
        }
        return t;
    }();
    return *table;
}

}  // namespace

char16_t UpcaseChar(char16_t c) noexcept {
    return Table()[c];
}

std::u16string UpcaseName(std::u16string_view name) {
    const auto& table = Table();
    std::u16string upper(name);
    for (char16_t& c : upper) {
        c = table[c];
    }
    return upper;
}

bool NamesEqual(std::u16string_view a, std::u16string_view b) noexcept {
    return a.size() == b.size() && CompareNames(a, b) == 0;
}

int CompareNames(std::u16string_view a, std::u16string_view b) noexcept {
    const auto& table = Table();
    const std::size_t n = a.size() < b.size() ? a.size() : b.size();
    for (std::size_t i = 0; i < n; ++i) {
        const char16_t x = table[a[i]];
        const char16_t y = table[b[i]];
        if (x != y) {
            return x < y ? -1 : 1;
        }
    }
    return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

}  // namespace platform
