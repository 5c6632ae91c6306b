// The Windows headers for the Win32 backend, and the few conversions every
// backend file needs.
//
// Include this after the platform headers: several platform names (such as
// INVALID_HANDLE_VALUE) are macros in <windows.h>, and the platform
// declarations must be parsed before those macros exist.
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef UNICODE
#define UNICODE
#endif
#ifndef _UNICODE
#define _UNICODE
#endif

// clang-format off
#include <windows.h>
#include <winspool.h>
#include <sddl.h>
#include <aclapi.h>
#include <wtsapi32.h>
// clang-format on

#include <cstddef>
#include <string>

// Generic names that <windows.h> maps to their A/W forms and that the
// platform also uses as names of its own.
#undef LoadLibrary

namespace platform::win32 {

static_assert(sizeof(wchar_t) == sizeof(char16_t), "UTF-16 wchar_t expected on Windows");

// The platform's UTF-16 text as the Windows API takes it.
inline const wchar_t* Wide(const std::u16string& text) {
    return reinterpret_cast<const wchar_t*>(text.c_str());
}
inline wchar_t* WideBuffer(std::u16string& text) {
    return reinterpret_cast<wchar_t*>(text.data());
}
// A null pointer for an empty optional name, as many Win32 calls want.
inline const wchar_t* WideOrNull(const std::u16string* text) {
    return text ? Wide(*text) : nullptr;
}

inline std::u16string FromWide(const wchar_t* text) {
    return text ? std::u16string(reinterpret_cast<const char16_t*>(text)) : std::u16string();
}
inline std::u16string FromWide(const wchar_t* text, std::size_t length) {
    return text ? std::u16string(reinterpret_cast<const char16_t*>(text), length)
                : std::u16string();
}

}  // namespace platform::win32

// Registry, resources, event log: the platform's RegGetValue (a whole value
// into a vector) is its own call, not the one <winreg.h> maps to RegGetValueW.
#undef RegGetValue

// Security: the LSA policy calls (after <windows.h>, whose types they use).
#include <ntsecapi.h>
