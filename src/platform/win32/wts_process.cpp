// ProcessIdToSessionId: the session a process runs in, from Windows.
#include "platform/wts.h"
#include "win32_api.h"

namespace platform {

bool ProcessIdToSessionId(DWORD processId, DWORD* sessionId) {
    if (sessionId == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    ::DWORD id = 0;
    if (!::ProcessIdToSessionId(processId, &id)) {
        return false;
    }
    *sessionId = id;
    return true;
}

}  // namespace platform
