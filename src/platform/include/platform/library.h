// Libraries bound at run time: LoadLibraryW, GetProcAddress, FreeLibrary.
//
// The module binds some system functions at run time, as a Windows program
// does with LoadLibrary and GetProcAddress: the session functions of
// "WTSAPI32.DLL", the version checks of "KERNEL32.DLL" and "NTDLL.DLL", and
// the spooler's XcvDataW from "winspool.drv" in the system directory. What
// GetProcAddress answers for an export the platform declares is the
// platform's own function of that name, so GetProcAddressAs types it from
// the platform's declaration and never from a hand-written signature.
//
// The embedded machine knows exactly those four libraries (names compared
// case-insensitively, ".dll" optional; a path must lead to the system
// directory, GetSystemDirectoryW). machine.conf switches for tests:
//   wtsapi32=0                   the library is absent (ERROR_MOD_NOT_FOUND)
//   wtsapi32_missing=A,B         those exports are absent (ERROR_PROC_NOT_FOUND)
//   winspool_missing=A,B         likewise for winspool.drv
//
// On Windows LoadLibraryW loads the real library (the declared ones by a
// bare name from the system directory only), and GetProcAddress answers the
// platform's function only when the real library has the export.
#pragma once

#include <string_view>

#include "platform/error.h"
#include "platform/handle.h"

namespace platform {

struct LibraryObject;  // opaque
// A library loaded at run time (an HMODULE from LoadLibrary on Windows).
using HLIBRARY = LibraryObject*;
using FARPROC = void (*)();

// Null with ERROR_MOD_NOT_FOUND when the library does not exist.
HLIBRARY LoadLibraryW(std::u16string_view fileName);
// Null with ERROR_PROC_NOT_FOUND when the library has no such export.
FARPROC GetProcAddress(HLIBRARY library, std::string_view procName);
// The export typed as the platform's own declaration of it:
// GetProcAddressAs<&WTSEnumerateSessionsW>(library, "WTSEnumerateSessionsW").
template <auto Declared>
decltype(Declared) GetProcAddressAs(HLIBRARY library, std::string_view procName) {
    return reinterpret_cast<decltype(Declared)>(GetProcAddress(library, procName));
}
// False with ERROR_INVALID_HANDLE for a library that is not loaded.
bool FreeLibrary(HLIBRARY library);

struct LibraryTraits {
    using pointer = HLIBRARY;
    static pointer invalid() noexcept { return nullptr; }
    static void close(pointer library) noexcept { FreeLibrary(library); }
};
// The owner of a loaded library: every library the module loads is one.
using UniqueLibrary = UniqueHandle<LibraryTraits>;

}  // namespace platform
