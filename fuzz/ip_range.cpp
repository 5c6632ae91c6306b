// Reading arbitrary address ranges.
#include <cstdlib>

#include "fuzz_input.h"
#include "rules/ip_range.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::u16string text = ovfuzz::Utf16(data, size);
    ovsvc::CIPRange range;
    range.low = 5;
    range.high = 3;
    if (range.Parse(text)) {
        if (range.low > range.high) {
            std::abort();
        }
    } else if (range.low != 5 || range.high != 3) {
        std::abort();  // a failed parse must leave the range alone
    }
    return 0;
}
