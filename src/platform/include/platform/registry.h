// The registry, with the Win32 calls' meaning and results.
//
// Keys are case-insensitive and kept in one store per machine; each single
// set is atomic and visible to every process at once. The Reg* functions
// return their status (and also leave it as the thread's last error).
//
// Results shared by the calls, as Windows gives them:
//   - a null, closed or unknown handle: ERROR_INVALID_HANDLE;
//   - a key deleted (by anyone) while this handle is open: ERROR_KEY_DELETED;
//   - a sub key path starting with "\": ERROR_BAD_PATHNAME; doubled and
//     trailing separators are ignored; an empty path means the key itself;
//   - a name part longer than kMaxKeyNameLength: ERROR_INVALID_PARAMETER when
//     creating, ERROR_FILE_NOT_FOUND when opening (no such key can exist);
//   - a value name longer than kMaxValueNameLength: ERROR_INVALID_PARAMETER
//     when setting, ERROR_FILE_NOT_FOUND when querying or deleting;
//   - a call the handle's rights do not cover: ERROR_ACCESS_DENIED (query and
//     enumerate values need KEY_QUERY_VALUE, set and delete values
//     KEY_SET_VALUE, enumerate subkeys KEY_ENUMERATE_SUB_KEYS; creating a
//     subkey needs no right on the parent);
//   - names end at an embedded NUL, as C strings do;
//   - the store cannot be read: ERROR_BADDB (damaged), ERROR_CANTOPEN,
//     ERROR_CANTREAD, ERROR_CANTWRITE, ERROR_OUTOFMEMORY.
// Subkeys enumerate in case-insensitive name order, values in the order they
// were first set.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"
#include "platform/handle.h"

namespace platform {

struct RegistryKeyObject;  // opaque, platform-owned
using HKEY = RegistryKeyObject*;
using REGSAM = DWORD;

// Predefined roots, with Windows' handle values. HKEY_CLASSES_ROOT is the
// "SOFTWARE\Classes" subtree of HKEY_LOCAL_MACHINE.
inline HKEY const HKEY_CLASSES_ROOT = reinterpret_cast<HKEY>(std::uintptr_t{0x80000000});
inline HKEY const HKEY_LOCAL_MACHINE = reinterpret_cast<HKEY>(std::uintptr_t{0x80000002});

// Access rights.
inline constexpr REGSAM KEY_QUERY_VALUE = 0x0001;
inline constexpr REGSAM KEY_SET_VALUE = 0x0002;
inline constexpr REGSAM KEY_CREATE_SUB_KEY = 0x0004;
inline constexpr REGSAM KEY_ENUMERATE_SUB_KEYS = 0x0008;
inline constexpr REGSAM KEY_NOTIFY = 0x0010;
inline constexpr REGSAM KEY_WOW64_64KEY = 0x0100;
inline constexpr REGSAM KEY_READ = 0x00020019;
inline constexpr REGSAM KEY_WRITE = 0x00020006;
inline constexpr REGSAM KEY_ALL_ACCESS = 0x000F003F;

// Value types; any other number is stored and returned as given.
inline constexpr DWORD REG_NONE = 0;
inline constexpr DWORD REG_SZ = 1;
inline constexpr DWORD REG_EXPAND_SZ = 2;
inline constexpr DWORD REG_BINARY = 3;
inline constexpr DWORD REG_DWORD = 4;
inline constexpr DWORD REG_MULTI_SZ = 7;
inline constexpr DWORD REG_QWORD = 11;

inline constexpr DWORD REG_OPTION_NON_VOLATILE = 0;
inline constexpr DWORD REG_CREATED_NEW_KEY = 1;
inline constexpr DWORD REG_OPENED_EXISTING_KEY = 2;

// Windows' limits: a key name component of 255 characters, a value name of
// 16383 characters. Longer names fail with the error Windows gives; they are
// never cut.
inline constexpr std::size_t kMaxKeyNameLength = 255;
inline constexpr std::size_t kMaxValueNameLength = 16383;

LSTATUS RegCloseKey(HKEY key);

struct KeyTraits {
    using pointer = HKEY;
    static pointer invalid() noexcept { return nullptr; }
    static void close(pointer key) noexcept { RegCloseKey(key); }
};
// Owner of an open key.
using UniqueKey = UniqueHandle<KeyTraits>;

LSTATUS RegOpenKeyExW(HKEY parent, std::u16string_view subKey, DWORD options, REGSAM access,
                      UniqueKey* result);
// `disposition` (may be null) receives REG_CREATED_NEW_KEY or REG_OPENED_EXISTING_KEY.
LSTATUS RegCreateKeyExW(HKEY parent, std::u16string_view subKey, DWORD options, REGSAM access,
                        UniqueKey* result, DWORD* disposition);
// Deletes a key without subkeys (ERROR_ACCESS_DENIED when it has some).
LSTATUS RegDeleteKeyW(HKEY parent, std::u16string_view subKey);
// Deletes a key's subtree; an empty subKey deletes the key's values and subkeys.
LSTATUS RegDeleteTreeW(HKEY parent, std::u16string_view subKey);

// The two-call protocol: with `data` null only the type and size are
// returned; a buffer shorter than the value gives ERROR_MORE_DATA and the
// needed size in *dataSize. A missing value gives ERROR_FILE_NOT_FOUND.
LSTATUS RegQueryValueExW(HKEY key, std::u16string_view valueName, DWORD* type, void* data,
                         DWORD* dataSize);
LSTATUS RegSetValueExW(HKEY key, std::u16string_view valueName, DWORD type, const void* data,
                       DWORD dataSize);
LSTATUS RegDeleteValueW(HKEY key, std::u16string_view valueName);

// Enumerates values by index, in a stable order; ERROR_NO_MORE_ITEMS past the
// last. `nameLength` is in characters and, as on Windows, counts room for the
// terminator on input and excludes it on output; a short name buffer gives
// ERROR_MORE_DATA.
LSTATUS RegEnumValueW(HKEY key, DWORD index, char16_t* name, DWORD* nameLength, DWORD* type,
                      void* data, DWORD* dataSize);
// Enumerates subkey names by index; ERROR_NO_MORE_ITEMS past the last.
LSTATUS RegEnumKeyExW(HKEY key, DWORD index, char16_t* name, DWORD* nameLength);

// ---- convenience over the calls above (same results) ----------------------

struct RegistryValue {
    std::u16string name;
    DWORD type = REG_NONE;
    std::vector<std::byte> data;
};

// Reads a whole value, whatever its size.
LSTATUS RegGetValue(HKEY key, std::u16string_view valueName, RegistryValue* value);
LSTATUS RegEnumValues(HKEY key, std::vector<RegistryValue>* values);
LSTATUS RegEnumSubKeys(HKEY key, std::vector<std::u16string>* names);

// ---- .reg text files --------------------------------------------------------

// Applies a "Windows Registry Editor Version 5.00" file. The whole file is
// checked before anything is written; on a syntax error nothing changes and
// *error reads "line N: <reason>". Returns ERROR_SUCCESS or ERROR_INVALID_DATA.
LSTATUS RegImportText(std::u16string_view text, std::string* error);
// Writes a key and its subtree in the same format (full key paths with
// "HKEY_LOCAL_MACHINE\" or "HKEY_CLASSES_ROOT\").
LSTATUS RegExportText(HKEY root, std::u16string_view subKey, std::u16string* text);

}  // namespace platform
