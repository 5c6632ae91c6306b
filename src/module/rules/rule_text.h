// Small text helpers shared by the rule parsers.
#pragma once

#include <string>
#include <string_view>

namespace ovsvc {

// White space as the wide-character classification sees it (tab to
// carriage return, blank, no-break space and the Unicode blanks).
bool IsBlank(char16_t c) noexcept;

// The text without white space at either end.
std::u16string_view TrimBlanks(std::u16string_view text) noexcept;

}  // namespace ovsvc
