#include "session/wts_layer.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "common/ovstring.h"
#include "platform/process.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

using namespace platform;

constexpr DWORD kSimulatedSessionId = 0xFFFFFFFF;

void PutText(std::vector<std::byte>* buffer, DWORD* bytes, std::u16string_view text) {
    buffer->assign((text.size() + 1) * sizeof(char16_t), std::byte{0});
    std::memcpy(buffer->data(), text.data(), text.size() * sizeof(char16_t));
    // The single-session answers give the length in characters.
    *bytes = static_cast<DWORD>(text.size());
}

bool IsNtVersionAtLeast(DWORD major, DWORD minor) {
    OSVERSIONINFOEXW info;
    if (!GetVersionExW(&info) || info.dwPlatformId != VER_PLATFORM_WIN32_NT) {
        return false;
    }
    return info.dwMajorVersion > major ||
           (info.dwMajorVersion == major && info.dwMinorVersion >= minor);
}

}  // namespace

CWTSAbstractionLayer::~CWTSAbstractionLayer() {
    ExitInstance();
}

void CWTSAbstractionLayer::InitInstance(bool load) {
    std::lock_guard lock(m_lock);
    if (!load) {
        ExitInstance();
        return;
    }
    OVTRACE(INF | NORM, "CWTSAbstractionLayer::InitInstance called");
    if (m_hWTSApi32) {
        OVTRACE(INF | NORM, "CWTSAbstractionLayer: Already successful initialized!");
        return;
    }
    m_hWTSApi32.reset(LoadLibraryW(u"WTSAPI32.DLL"));
    OVTRACE(INF | NORM, "HANDLE=%x, %d", reinterpret_cast<std::uintptr_t>(m_hWTSApi32.get()),
            GetLastError());
    if (!m_hWTSApi32) {
        TraceCheck("m_hWTSApi32", __FILE__, __LINE__);
        OVTRACE(INF | NORM, "no Terminal Serices found 'wtsapi32.dll'!");
    } else {
        m_pWTSQuerySessionInformation = GetProcAddressAs<&WTSQuerySessionInformationW>(
            m_hWTSApi32.get(), "WTSQuerySessionInformationW");
        if (m_pWTSQuerySessionInformation == nullptr) {
            TraceCheck("m_pWTSQuerySessionInformation", __FILE__, __LINE__);
        }
        m_pWTSEnumerateSessions =
            GetProcAddressAs<&WTSEnumerateSessionsW>(m_hWTSApi32.get(), "WTSEnumerateSessionsW");
        if (m_pWTSEnumerateSessions == nullptr) {
            TraceCheck("m_pWTSEnumerateSessions", __FILE__, __LINE__);
        }
        m_pWTSEnumerateProcesses =
            GetProcAddressAs<&WTSEnumerateProcessesW>(m_hWTSApi32.get(), "WTSEnumerateProcessesW");
        if (m_pWTSEnumerateProcesses == nullptr) {
            TraceCheck("m_pWTSEnumerateProcesses", __FILE__, __LINE__);
        }
        m_pWTSFreeMemory = GetProcAddressAs<&WTSFreeMemory>(m_hWTSApi32.get(), "WTSFreeMemory");
        if (m_pWTSFreeMemory == nullptr) {
            TraceCheck("m_pWTSFreeMemory", __FILE__, __LINE__);
        }
        m_pWTSWaitSystemEvent =
            GetProcAddressAs<&WTSWaitSystemEvent>(m_hWTSApi32.get(), "WTSWaitSystemEvent");
        if (m_pWTSWaitSystemEvent == nullptr) {
            TraceCheck("m_pWTSWaitSystemEvent", __FILE__, __LINE__);
        }
    }
    if (!hXPKernel32 && IsNtVersionAtLeast(5, 1)) {
        hXPKernel32.reset(LoadLibraryW(u"KERNEL32.DLL"));
        OVTRACE(INF | NORM, "Get Active-ConsoleSessionId hXPKernel32 = %d",
                reinterpret_cast<std::uintptr_t>(hXPKernel32.get()));
        if (hXPKernel32) {
            m_pWTSGetActiveConsoleSessionId = GetProcAddressAs<&WTSGetActiveConsoleSessionId>(
                hXPKernel32.get(), "WTSGetActiveConsoleSessionId");
        }
        OVTRACE(INF | NORM, "Funktion Pointer Active-ConsoleSessionId = %d",
                reinterpret_cast<std::uintptr_t>(m_pWTSGetActiveConsoleSessionId));
    }
}

void CWTSAbstractionLayer::ExitInstance() {
    std::lock_guard lock(m_lock);
    m_hWTSApi32.reset();
    hXPKernel32.reset();
    m_pWTSQuerySessionInformation = nullptr;
    m_pWTSEnumerateSessions = nullptr;
    m_pWTSEnumerateProcesses = nullptr;
    m_pWTSFreeMemory = nullptr;
    m_pWTSWaitSystemEvent = nullptr;
    m_pWTSGetActiveConsoleSessionId = nullptr;
}

void CWTSAbstractionLayer::Refresh() {
    InitInstance(IsTerminalServicesEnabled());
}

bool CWTSAbstractionLayer::QuerySessionInformation(HANDLE server, DWORD sessionId,
                                                   WTS_INFO_CLASS infoClass,
                                                   std::vector<std::byte>* buffer,
                                                   DWORD* bytesReturned) {
    std::lock_guard lock(m_lock);
    Refresh();
    if (buffer == nullptr || bytesReturned == nullptr) {
        return false;
    }
    if (m_pWTSQuerySessionInformation != nullptr) {
        const bool ok = m_pWTSQuerySessionInformation(server, sessionId, infoClass, buffer);
        *bytesReturned = ok ? static_cast<DWORD>(buffer->size()) : 0;
        return ok;
    }
    switch (infoClass) {
        case WTSSessionId:
            buffer->resize(sizeof(DWORD));
            std::memcpy(buffer->data(), &kSimulatedSessionId, sizeof(DWORD));
            *bytesReturned = sizeof(DWORD);
            return true;
        case WTSUserName: {
            std::u16string user;
            GetUserNameW(&user);
            PutText(buffer, bytesReturned, user);
            return true;
        }
        case WTSDomainName: {
            const char* domain = std::getenv("USERDOMAIN");
            PutText(buffer, bytesReturned, ToUtf16(domain != nullptr ? domain : ""));
            return true;
        }
        case WTSClientName:
            PutText(buffer, bytesReturned, u"localhost");
            return true;
        case WTSClientAddress: {
            WTS_CLIENT_ADDRESS address;
            address.AddressFamily = AF_INET;
            address.Address[2] = 127;
            buffer->resize(sizeof address);
            std::memcpy(buffer->data(), &address, sizeof address);
            *bytesReturned = sizeof address;
            return true;
        }
        default:
            return false;
    }
}

int CWTSAbstractionLayer::EnumerateSessions(HANDLE server, DWORD reserved, DWORD version,
                                            std::vector<WTS_SESSION_INFOW>* sessions,
                                            DWORD* count) {
    std::lock_guard lock(m_lock);
    Refresh();
    if (count != nullptr) {
        *count = 0;
    }
    if (m_pWTSEnumerateSessions == nullptr || sessions == nullptr ||
        !m_pWTSEnumerateSessions(server, reserved, version, sessions)) {
        return 0;
    }
    if (count != nullptr) {
        *count = static_cast<DWORD>(sessions->size());
    }
    return 1;
}

void CWTSAbstractionLayer::FreeMemory(std::vector<std::byte>* buffer) {
    std::lock_guard lock(m_lock);
    if (m_pWTSFreeMemory != nullptr) {
        m_pWTSFreeMemory(buffer);
    } else if (buffer != nullptr) {
        std::vector<std::byte>().swap(*buffer);
    }
}

void CWTSAbstractionLayer::FreeMemory(std::vector<WTS_SESSION_INFOW>* sessions) {
    if (sessions != nullptr) {
        std::vector<WTS_SESSION_INFOW>().swap(*sessions);
    }
}

DWORD CWTSAbstractionLayer::GetActiveConsoleSessionId() {
    std::lock_guard lock(m_lock);
    if (m_pWTSGetActiveConsoleSessionId == nullptr) {
        OVTRACE(INF | NORM, "WTSGetActiveConsoleSessionId simulated with 0");
        return 0;
    }
    const DWORD id = m_pWTSGetActiveConsoleSessionId();
    OVTRACE(INF | NORM, "WTSGetActiveConsoleSessionId called with %d", id);
    return id;
}

bool CWTSAbstractionLayer::IsTerminalServicesLibraryLoaded() {
    std::lock_guard lock(m_lock);
    Refresh();
    return static_cast<bool>(m_hWTSApi32);
}

bool CWTSAbstractionLayer::HoldsLibrary() {
    std::lock_guard lock(m_lock);
    return static_cast<bool>(m_hWTSApi32);
}

CWTSAbstractionLayer& WTSLayer() {
    static auto* layer = new CWTSAbstractionLayer;  // outlives late trace calls at exit
    return *layer;
}

}  // namespace ovsvc
