// The pieces a trace line is made of, as pure functions: the location
// prefix, the level and category texts, the filter, the line's head and the
// hexadecimal dump. The writer (trace.cpp) adds the configuration and the file.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ovsvc::trace {

// Byte limits of the three pieces of a line (after conversion to UTF-8) and
// of one dump row.
inline constexpr std::size_t kStampLimit = 5023;
inline constexpr std::size_t kCodeLimit = 1024;
inline constexpr std::size_t kTextLimit = 5024;
inline constexpr std::size_t kDumpRowLimit = 1024;

// The location prefix "<name><mark><line> _SVC_ " ("_CLIENT_" outside the
// service): the source file's name without directory and extension, then
// "%" for a .cpp file and "%%" for any other.
std::u16string LocationPrefix(std::u16string_view sourceFile, unsigned line, bool isService);

// "INF", "ERR", "WRN", "RAW", or "?" with the level in hexadecimal.
std::u16string LevelText(std::uint32_t code);
// "NOTH", "NORM", "MAIN", "SYNC", "SACL", "CACH" or "????".
std::u16string_view CategoryText(std::uint32_t code);
// Whether a line of this code is written under the effective mask: errors
// and warnings always, every other level only when its category is in it.
bool PassesFilter(std::uint32_t code, std::uint32_t mask);

// The category a line of another program gets from its section label.
std::uint32_t CategoryOfSection(std::u16string_view section);

struct Stamp {
    unsigned day, month, year, hour, minute, second, millisecond;
    std::uint32_t threadId;
};
// "dd.mm.yyyy hh:mm:ss:mmm Id:ttt "
std::u16string StampPiece(const Stamp& stamp);
// "_LVL_/CATG=xxh"
std::u16string CodePiece(std::uint32_t code);

// Appends at most `limit` bytes of `text` in UTF-8 to *out, never splitting
// a character.
void AppendUtf8Limited(std::string* out, std::u16string_view text, std::size_t limit);

// Appends the dump rows of `length` bytes (or "    no data").
void AppendDump(std::string* out, const void* data, std::int64_t length);

}  // namespace ovsvc::trace
