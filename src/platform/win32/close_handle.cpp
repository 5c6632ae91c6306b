#include "platform/handle.h"
#include "platform/kernel.h"

#include "win32_api.h"

#include "kernel_internal.h"

namespace platform {

bool CloseHandle(HANDLE handle) noexcept {
    // INVALID_HANDLE_VALUE is the current process to Windows, and closing it
    // would "succeed"; no platform call hands it out as an open handle.
    if (win32::IsNoHandle(handle)) {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    const ::DWORD before = ::GetLastError();
    if (!::CloseHandle(handle)) {
        return false;
    }
    ::SetLastError(before);  // a successful close leaves the last error as it was
    return true;
}

}  // namespace platform
