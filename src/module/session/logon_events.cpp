#include "session/logon_events.h"

#include <cstring>
#include <vector>

#include "config/product_values.h"
#include "platform/process.h"
#include "session/wts_layer.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

// The session this process runs in, as the terminal-services layer reports
// it; false when it cannot tell.
bool CurrentSessionId(platform::DWORD* sessionId) {
    constexpr platform::DWORD kCurrentSession = 0xFFFFFFFF;
    std::vector<std::byte> buffer;
    platform::DWORD bytes = 0;
    if (!WTSLayer().QuerySessionInformation(nullptr, kCurrentSession, platform::WTSSessionId,
                                            &buffer, &bytes) ||
        bytes < sizeof(platform::DWORD)) {
        return false;
    }
    std::memcpy(sessionId, buffer.data(), sizeof(platform::DWORD));
    return true;
}

}  // namespace

void OnLogoff(platform::HANDLE userToken) {
    if (!config::ListenToWTS()) {
        return;
    }
    RunInSessionContext(userToken, u"TSEventLogoff", config::ListenToWTSDeleteCmd(), true);
}

void RunInSessionContext(platform::HANDLE userToken, std::u16string_view eventName,
                         std::u16string_view commandLine, bool wait) {
    if (!IsTerminalServicesEnabled()) {
        return;
    }
    if (config::ForceListenToWTS()) {
        OVTRACE(INF | NORM, "dwForceWTS == TRUE found, IsTerminalServicesEnabled return TRUE");
    } else if (platform::DWORD sessionId = 0; CurrentSessionId(&sessionId)) {
        const platform::DWORD console = WTSLayer().GetActiveConsoleSessionId();
        if (sessionId == console) {
            OVTRACE(INF | NORM, "Runs under ConsoleSessionID sessionid=%d (no OVAS started)",
                    sessionId);
            return;
        }
        OVTRACE(INF | NORM, "Runs in Session context sessionid=%d (OVAS started), console is %d",
                sessionId, console);
    }
    const platform::STARTUPINFOW startup;
    OVTRACE(INF | NORM, "CreateProcess '%s'", commandLine);
    platform::PROCESS_INFORMATION process;
    if (!platform::CreateProcessAsUserW(userToken, u"", commandLine, nullptr, nullptr, false,
                                        platform::CREATE_NO_WINDOW, nullptr, u"", startup,
                                        &process)) {
        OVTRACE(ERR | NORM, "WINLOGON: %s: Process <%s> cannot be created", eventName, commandLine);
        return;
    }
    OVTRACE(INF | NORM, "WINLOGON: %s: Process <%s>", eventName, commandLine);
    if (wait) {
        platform::WaitForSingleObject(process.hProcess.get(), platform::INFINITE);
        OVTRACE(INF | NORM, "WINLOGON: %s: Process <%s> ended", eventName, commandLine);
    }
}

}  // namespace ovsvc
