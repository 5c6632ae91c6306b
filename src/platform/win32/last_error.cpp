// The platform's last error is the thread's own Win32 last error.
#include "platform/error.h"

#include "win32_api.h"

namespace platform {

DWORD GetLastError() noexcept {
    return static_cast<DWORD>(::GetLastError());
}

void SetLastError(DWORD error) noexcept {
    ::SetLastError(error);
}

}  // namespace platform
