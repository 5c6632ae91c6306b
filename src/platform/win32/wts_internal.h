// The terminal-services library as the Win32 backend uses it: WTSAPI32.DLL
// is loaded at run time and its functions resolved by name, never linked, so
// that the module loads on systems without it.
#pragma once

#include "win32_api.h"

namespace platform::win32 {

struct WtsApi {
    decltype(&::WTSEnumerateSessionsW) enumerateSessions = nullptr;
    decltype(&::WTSQuerySessionInformationW) querySessionInformation = nullptr;
    decltype(&::WTSFreeMemory) freeMemory = nullptr;
};

// The process's binding, made on first use and kept until the process ends.
// Null when the library cannot be loaded or lacks one of the functions; the
// thread's last error then says why (ERROR_MOD_NOT_FOUND,
// ERROR_PROC_NOT_FOUND), as LoadLibraryW or GetProcAddress left it.
const WtsApi* BoundWtsApi() noexcept;

}  // namespace platform::win32
