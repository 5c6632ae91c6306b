#include "platform/error.h"

namespace platform {

namespace {
thread_local DWORD t_lastError = ERROR_SUCCESS;
}

DWORD GetLastError() noexcept {
    return t_lastError;
}

void SetLastError(DWORD error) noexcept {
    t_lastError = error;
}

}  // namespace platform
