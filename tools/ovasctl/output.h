// What every ovasctl command prints the same way: tables, JSON and failures.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"

namespace ovasctl {

// Left-aligned columns two spaces apart; the first row is the header. Rows
// may be shorter than the header.
void PrintTable(const std::vector<std::vector<std::string>>& rows);

// A JSON string literal (quotes included) for UTF-8 text.
std::string JsonString(std::string_view text);

// One compact JSON object, members in the order added: {"a":"x","n":3}.
class JsonObject {
  public:
    JsonObject& Text(std::string_view key, std::string_view value);
    JsonObject& Number(std::string_view key, std::int64_t value);
    JsonObject& Bool(std::string_view key, bool value);
    // `json` is already JSON (an object, array or literal).
    JsonObject& Raw(std::string_view key, std::string_view json);
    [[nodiscard]] std::string str() const { return "{" + members_ + "}"; }

  private:
    void Key(std::string_view key);
    std::string members_;
};

// [a,b,...] of elements that are already JSON.
std::string JsonArray(const std::vector<std::string>& elements);
// ["a","b"] of UTF-8 texts.
std::string JsonTexts(const std::vector<std::string>& texts);

// The words for a system error code ("access denied", "not found"...), or
// "error" when ovasctl has none; `special` is used instead when not empty
// (a command's own reading of the code).
std::string ErrorText(platform::DWORD error, std::string_view special = {});

// "E_ACCESSDENIED (0x80070005)": the result's name when ovasctl knows it, and
// its hex code.
std::string HResultText(std::int32_t hr);

// Prints "ovasctl <command>: <what>" on stderr, makes ovasctl exit with 1
// and returns 1.
int Fail(std::string_view command, std::string_view what);
// The same for a failed system call: "...: <what>: <words> (error N)". When
// the machine root itself cannot be used, that is said instead of the words.
int Fail(std::string_view command, std::string_view what, platform::DWORD error,
         std::string_view special = {});

}  // namespace ovasctl
