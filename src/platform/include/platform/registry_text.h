// regedit's text notation: whole .reg files and single value data.
//
// Pure text work, no registry access: RegImportText and RegExportText (in
// registry.h) apply and produce whole files with it, and tools use the value
// notation to show and read single values.
//
// Value data as regedit writes it:
//   "text"            REG_SZ, stored with its terminating NUL; escapes \\ \" \n \r
//   dword:0000002a    REG_DWORD, 1 to 8 hex digits
//   hex:01,02,ff      REG_BINARY
//   hex(N):...        any other type N (hex): hex(2) REG_EXPAND_SZ and hex(7)
//                     REG_MULTI_SZ as UTF-16LE bytes, hex(b) REG_QWORD, hex(0) REG_NONE
//   -                 (in files) delete the value
// Long hex lists continue on the next line after a trailing backslash.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "platform/registry.h"

namespace platform::regtext {

inline constexpr char16_t kHeader5[] = u"Windows Registry Editor Version 5.00";
inline constexpr char16_t kHeader4[] = u"REGEDIT4";

// One instruction of a .reg file, in file order.
struct Entry {
    enum class Kind { CreateKey, DeleteKey, SetValue, DeleteValue };
    Kind kind = Kind::CreateKey;
    int line = 0;           // where it starts (1-based)
    HKEY root = nullptr;    // HKEY_LOCAL_MACHINE or HKEY_CLASSES_ROOT
    std::u16string subKey;  // below root, "\" separated, never empty for DeleteKey
    RegistryValue value;    // SetValue, DeleteValue (name only)
};

// Parses a whole file (a leading byte-order mark is skipped). On error returns
// false with *error "line N: <reason>" and *entries holds no
// useful content.
bool ParseFile(std::u16string_view text, std::vector<Entry>* entries, std::string* error);

// Splits "HKEY_LOCAL_MACHINE\a\b" (or HKLM, HKEY_CLASSES_ROOT, HKCR; any case)
// into its root handle and the path below it. Checks the path: no empty
// component, none longer than kMaxKeyNameLength. Returns false with a reason.
bool SplitKeyPath(std::u16string_view path, HKEY* root, std::u16string* subKey, std::string* error);

// Hex lists are not wrapped when FormatData is given this column.
inline constexpr std::size_t kNoWrap = static_cast<std::size_t>(-1);

// The text after '=' for a value, e.g. dword:000000ff. Strings that would not
// come back byte for byte (no terminator, inner NULs) are written as hex(1).
// `column` is where the data starts on its line: long hex lists are wrapped
// as regedit does (",\" then CR LF and two spaces) unless it is kNoWrap.
std::u16string FormatData(DWORD type, const std::vector<std::byte>& data,
                          std::size_t column = kNoWrap);
// A whole value line: "name"=data or @=data (no line end), wrapped as in files.
std::u16string FormatValueLine(const RegistryValue& value);
// A quoted, escaped name or string: "a\\b".
std::u16string Quote(std::u16string_view text);

// Parses value data in the notation above (one line, no continuation, no
// deletion). Returns false with a reason.
bool ParseData(std::u16string_view text, DWORD* type, std::vector<std::byte>* data,
               std::string* error);

// "REG_SZ", "REG_DWORD" ... or the number for other types.
std::string TypeName(DWORD type);

// UTF-16 strings as the little-endian bytes the registry stores.
std::vector<std::byte> StringBytes(std::u16string_view text, bool terminate);
// Several strings as a REG_MULTI_SZ: each followed by a NUL, plus a final NUL.
std::vector<std::byte> MultiStringBytes(const std::vector<std::u16string>& items);

}  // namespace platform::regtext
