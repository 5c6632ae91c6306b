// Reading arbitrary token-field texts; every field read must format back to
// a field that reads the same.
#include <cstdlib>

#include "channel/token_fields.h"
#include "fuzz_input.h"

using ovsvc::OVASerToken;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::u16string text = ovfuzz::Utf16(data, size);
    std::u16string_view rest = text;
    char16_t tag = 0;
    std::u16string value;
    std::uint32_t number = 0;
    while (OVASerToken::ParseToken(rest, &tag, &value, &number)) {
        const std::u16string again = OVASerToken::FormatToken(std::u16string_view(&tag, 1), value);
        std::u16string_view view = again;
        char16_t tag2 = 0;
        std::u16string value2;
        std::uint32_t number2 = 0;
        if (!OVASerToken::ParseToken(view, &tag2, &value2, &number2) || tag2 != tag ||
            value2 != value || number2 != number || !view.empty()) {
            std::abort();
        }
    }
    return 0;
}
