// Helpers shared by the embedded session, process and service code.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/error.h"

namespace platform::detail {

std::string Utf8(std::u16string_view text);
std::u16string Utf16(std::string_view text);

// File and library names compared as Windows compares names.
bool EqualsIgnoreCase(std::string_view a, std::string_view b);

// Writes the terminal server's registry defaults and the session table's
// built-in sessions the first time a machine root is used for them.
void EnsureTerminalServer();

// Parses a decimal DWORD; nullopt for anything else (signs, blanks, overflow).
std::optional<DWORD> ParseDword(std::string_view text) noexcept;

}  // namespace platform::detail
