// ProcessIdToSessionId: a process's session is the one it was started in.
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "platform/wts.h"
#include "wts_internal.h"

namespace platform {

bool ProcessIdToSessionId(DWORD processId, DWORD* sessionId) {
    if (sessionId == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (processId == GetCurrentProcessId()) {
        *sessionId = GetCurrentSessionId();
        SetLastError(ERROR_SUCCESS);
        return true;
    }
    const auto pid = static_cast<pid_t>(processId);
    if (pid <= 0 || (kill(pid, 0) != 0 && errno == ESRCH)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    // The environment a process started with carries its session. A process
    // caught in the middle of starting its program shows none yet.
    std::string env;
    for (int attempt = 0; attempt < 200 && env.empty(); ++attempt) {
        if (attempt > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::ifstream in("/proc/" + std::to_string(processId) + "/environ", std::ios::binary);
        if (!in) {
            SetLastError(kill(pid, 0) != 0 ? ERROR_INVALID_PARAMETER : ERROR_ACCESS_DENIED);
            return false;
        }
        env.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    DWORD id = 0;
    constexpr std::string_view kName = "OVSVC_SESSION_ID=";
    std::size_t start = 0;
    while (start < env.size()) {
        std::size_t end = env.find('\0', start);
        if (end == std::string::npos) {
            end = env.size();
        }
        std::string_view entry(env.data() + start, end - start);
        if (entry.substr(0, kName.size()) == kName) {
            id = detail::ParseDword(entry.substr(kName.size())).value_or(0);
        }
        start = end + 1;
    }
    *sessionId = id;
    SetLastError(ERROR_SUCCESS);
    return true;
}

}  // namespace platform
