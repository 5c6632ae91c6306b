// Matching a value against a name pattern of a rule.
#pragma once

#include <string_view>

namespace ovsvc {

// True when `value` matches `pattern`, ignoring case: "*" stands for any run
// of characters (also none), "?" for any one character, every other
// character for itself.
bool WildcardMatch(std::u16string_view pattern, std::u16string_view value) noexcept;

}  // namespace ovsvc
