// Token fields: the serialisation of structured data into one string that
// crosses a process boundary. A text is a run of fields, each a one-character
// tag, the value's length in decimal, ":" and the value itself, so a value
// may hold any character. Example: P3:abcR1:2.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ovsvc {

class OVASerToken {
  public:
    // One field with the one-character tag `tag` and the value
    // `value`.
    static std::u16string FormatToken(std::u16string_view tag, std::u16string_view value);
    // One field whose value is the decimal text of `number`.
    static std::u16string FormatTokenNumber(std::u16string_view tag, std::uint32_t number);

    // Takes the first field off `rest`. On success yields its tag, its value
    // and the value read as an unsigned decimal number (0 when it does not
    // start with digits). Fails on an empty text (the normal end) and on a
    // malformed field (no ":" after the length, a length beyond the text);
    // `rest` is then left as it was.
    static bool ParseToken(std::u16string_view& rest, char16_t* tag, std::u16string* value,
                           std::uint32_t* number);
};

}  // namespace ovsvc
