// Thread and process ids, the session, sleeping, clocks and the version of
// the running system.
#include "platform/kernel.h"

#include "win32_api.h"

namespace platform {

DWORD GetCurrentThreadId() noexcept {
    return static_cast<DWORD>(::GetCurrentThreadId());
}

bool SetEnvironmentVariableW(std::u16string_view name, std::u16string_view value) {
    const std::u16string n(name);
    const std::u16string v(value);
    return ::SetEnvironmentVariableW(win32::Wide(n), value.empty() ? nullptr : win32::Wide(v)) !=
           FALSE;
}

DWORD GetCurrentProcessId() noexcept {
    return static_cast<DWORD>(::GetCurrentProcessId());
}

DWORD GetCurrentSessionId() noexcept {
    LastErrorKeeper keep;  // a query of the caller's own session, not a call of its own
    ::DWORD session = 0;
    if (!::ProcessIdToSessionId(::GetCurrentProcessId(), &session)) {
        return 0;
    }
    return static_cast<DWORD>(session);
}

void Sleep(DWORD milliseconds) noexcept {
    ::Sleep(milliseconds);
}

bool SwitchToThread() noexcept {
    return ::SwitchToThread() != FALSE;
}

// Windows' WaitOnAddress reaches only waiters of the same process, and the
// words waited on here live in memory shared with other processes: a waiter
// looks again after a millisecond, and the wakes have nothing to do.
bool WaitOnAddress(const LONG* address, LONG undesired, DWORD milliseconds,
                   DWORD /*key*/) noexcept {
    if (InterlockedRead(address) != undesired) {
        return true;
    }
    if (milliseconds == 0) {
        ::SetLastError(ERROR_TIMEOUT);
        return false;
    }
    ::Sleep(1);
    return true;
}

void WakeByAddressAll(const LONG* /*address*/) noexcept {}

void WakeByAddressKey(const LONG* /*address*/, DWORD /*key*/) noexcept {}

DWORD GetTickCount() noexcept {
    return static_cast<DWORD>(::GetTickCount());
}

std::uint64_t GetTickCount64() noexcept {
    return ::GetTickCount64();
}

void GetLocalTime(SYSTEMTIME* time) noexcept {
    ::SYSTEMTIME now{};
    ::GetLocalTime(&now);
    time->wYear = now.wYear;
    time->wMonth = now.wMonth;
    time->wDayOfWeek = now.wDayOfWeek;
    time->wDay = now.wDay;
    time->wHour = now.wHour;
    time->wMinute = now.wMinute;
    time->wSecond = now.wSecond;
    time->wMilliseconds = now.wMilliseconds;
}

bool GetVersionExW(OSVERSIONINFOEXW* info) {
    if (info == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    ::OSVERSIONINFOEXW system{};
    system.dwOSVersionInfoSize = sizeof(system);
    if (!::GetVersionExW(reinterpret_cast<::OSVERSIONINFOW*>(&system))) {
        return false;
    }
    info->dwMajorVersion = system.dwMajorVersion;
    info->dwMinorVersion = system.dwMinorVersion;
    info->dwBuildNumber = system.dwBuildNumber;
    info->dwPlatformId = system.dwPlatformId;
    info->szCSDVersion = win32::FromWide(system.szCSDVersion);
    info->wServicePackMajor = system.wServicePackMajor;
    info->wServicePackMinor = system.wServicePackMinor;
    info->wSuiteMask = system.wSuiteMask;
    info->wProductType = system.wProductType;
    return true;
}

}  // namespace platform
