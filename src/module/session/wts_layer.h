// The terminal-services layer: the session functions bound at run time, with
// a single local session simulated where they are missing; the test whether
// terminal-services work should be done at all; and the list of sessions
// that exist.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string_view>
#include <vector>

#include "platform/kernel.h"
#include "platform/wts.h"

namespace ovsvc {

using platform::DWORD;
using platform::HANDLE;

class CWTSAbstractionLayer {
  public:
    // The entries are typed from the platform's declarations of them.
    using PFNQuerySessionInformation = decltype(&platform::WTSQuerySessionInformationW);
    using PFNEnumerateSessions = decltype(&platform::WTSEnumerateSessionsW);
    using PFNEnumerateProcesses = decltype(&platform::WTSEnumerateProcessesW);
    using PFNFreeMemory = decltype(&platform::WTSFreeMemory);
    using PFNWaitSystemEvent = decltype(&platform::WTSWaitSystemEvent);
    using PFNGetActiveConsoleSessionId = decltype(&platform::WTSGetActiveConsoleSessionId);

    CWTSAbstractionLayer() = default;
    CWTSAbstractionLayer(const CWTSAbstractionLayer&) = delete;
    CWTSAbstractionLayer& operator=(const CWTSAbstractionLayer&) = delete;
    virtual ~CWTSAbstractionLayer();

    // true: load the library and resolve its functions; false: release all.
    void InitInstance(bool load);
    void ExitInstance();

    // A new buffer with the information and its size in bytes. Without the
    // library's function a single local session answers.
    bool QuerySessionInformation(HANDLE server, DWORD sessionId, platform::WTS_INFO_CLASS infoClass,
                                 std::vector<std::byte>* buffer, DWORD* bytesReturned);
    // The server's sessions; 0 when the function is missing or fails.
    int EnumerateSessions(HANDLE server, DWORD reserved, DWORD version,
                          std::vector<platform::WTS_SESSION_INFOW>* sessions, DWORD* count);
    void FreeMemory(std::vector<std::byte>* buffer);
    void FreeMemory(std::vector<platform::WTS_SESSION_INFOW>* sessions);
    DWORD GetActiveConsoleSessionId();
    bool IsTerminalServicesLibraryLoaded();
    // Whether the library is loaded now, without checking the system again
    // (so without loading anything).
    bool HoldsLibrary();

  private:
    // Loads when terminal services are enabled, releases when not.
    void Refresh();

    std::recursive_mutex m_lock;
    platform::UniqueLibrary m_hWTSApi32;
    PFNQuerySessionInformation m_pWTSQuerySessionInformation = nullptr;
    PFNEnumerateSessions m_pWTSEnumerateSessions = nullptr;
    PFNEnumerateProcesses m_pWTSEnumerateProcesses = nullptr;
    PFNFreeMemory m_pWTSFreeMemory = nullptr;
    PFNWaitSystemEvent m_pWTSWaitSystemEvent = nullptr;
    platform::UniqueLibrary hXPKernel32;
    PFNGetActiveConsoleSessionId m_pWTSGetActiveConsoleSessionId = nullptr;
};

// The process's layer; it lives until the process ends.
CWTSAbstractionLayer& WTSLayer();

// Whether terminal-services work should be done: forced by the product
// key's ForceListenToWTS, else what the system's suites and its terminal
// server settings say.
bool IsTerminalServicesEnabled();

// Whether the ProductSuite list of the machine names `suite` (exact case).
bool IsSuiteInProductSuite(std::u16string_view suite);

// The trace name of a session state, 15 characters ("undefined" above 9).
std::u16string_view SessionStateName(DWORD state);

// Rebuilds the list of sessions that exist (active or disconnected).
bool RefreshSessionList();
// Whether the last refresh listed the session.
bool IsSessionInList(DWORD sessionId);
// Tests: forget the list, as in a new process.
void ResetSessionListForTesting();

}  // namespace ovsvc
