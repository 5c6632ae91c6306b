// Thread and process ids, the session, sleeping, clocks and the version the
// machine reports.
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "platform/kernel.h"
#include "platform/machine.h"
#include "platform/text.h"

namespace platform {

namespace {

std::uint64_t Milliseconds(clockid_t clock) {
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<std::uint64_t>(t.tv_sec) * 1000 +
           static_cast<std::uint64_t>(t.tv_nsec) / 1000000;
}

struct Version {
    DWORD major = 6;
    DWORD minor = 1;
    DWORD build = 7601;
};

// "MAJOR.MINOR.BUILD"; anything else leaves the default.
Version ConfiguredVersion() {
    Version v;
    const auto setting = machine::Setting("os_version");
    if (!setting) {
        return v;
    }
    unsigned major = 0;
    unsigned minor = 0;
    unsigned build = 0;
    char rest = 0;
    if (std::sscanf(setting->c_str(), "%u.%u.%u%c", &major, &minor, &build, &rest) == 3) {
        v.major = major;
        v.minor = minor;
        v.build = build;
    }
    return v;
}

}  // namespace

DWORD GetCurrentThreadId() noexcept {
    thread_local const DWORD id = static_cast<DWORD>(::syscall(SYS_gettid));
    return id;
}

bool SetEnvironmentVariableW(std::u16string_view name, std::u16string_view value) {
    const std::string n = ToUtf8(name);
    if (n.empty() || n.find('=') != std::string::npos) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    const int rc =
        value.empty() ? unsetenv(n.c_str()) : setenv(n.c_str(), ToUtf8(value).c_str(), 1);
    if (rc != 0) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return false;
    }
    SetLastError(ERROR_SUCCESS);
    return true;
}

DWORD GetCurrentProcessId() noexcept {
    return static_cast<DWORD>(::getpid());
}

DWORD GetCurrentSessionId() noexcept {
    const char* env = std::getenv("OVSVC_SESSION_ID");
    if (env == nullptr || *env == '\0') {
        return 0;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long id = std::strtoul(env, &end, 10);
    if (errno != 0 || *end != '\0' || id > 0xFFFFFFFEUL) {
        return 0;
    }
    return static_cast<DWORD>(id);
}

void Sleep(DWORD milliseconds) noexcept {
    if (milliseconds == 0) {
        ::sched_yield();
        return;
    }
    if (milliseconds == INFINITE) {
        for (;;) {
            ::pause();
        }
    }
    timespec left{static_cast<time_t>(milliseconds / 1000),
                  static_cast<long>(milliseconds % 1000) * 1000000L};
    while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

bool SwitchToThread() noexcept {
    return ::sched_yield() == 0;
}

DWORD GetTickCount() noexcept {
    return static_cast<DWORD>(Milliseconds(CLOCK_BOOTTIME));
}

std::uint64_t GetTickCount64() noexcept {
    return Milliseconds(CLOCK_BOOTTIME);
}

void GetLocalTime(SYSTEMTIME* time) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    time->wYear = static_cast<WORD>(local.tm_year + 1900);
    time->wMonth = static_cast<WORD>(local.tm_mon + 1);
    time->wDayOfWeek = static_cast<WORD>(local.tm_wday);
    time->wDay = static_cast<WORD>(local.tm_mday);
    time->wHour = static_cast<WORD>(local.tm_hour);
    time->wMinute = static_cast<WORD>(local.tm_min);
    time->wSecond = static_cast<WORD>(local.tm_sec > 59 ? 59 : local.tm_sec);
    time->wMilliseconds = static_cast<WORD>(now.tv_nsec / 1000000);
}

bool GetVersionExW(OSVERSIONINFOEXW* info) {
    if (info == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    const Version v = ConfiguredVersion();
    info->dwMajorVersion = v.major;
    info->dwMinorVersion = v.minor;
    info->dwBuildNumber = v.build;
    info->dwPlatformId = VER_PLATFORM_WIN32_NT;
    const bool servicePack1 = v.major == 6 && v.minor == 1 && v.build == 7601;
    info->szCSDVersion = servicePack1 ? u"Service Pack 1" : u"";
    info->wServicePackMajor = servicePack1 ? 1 : 0;
    info->wServicePackMinor = 0;
    info->wSuiteMask = VER_SUITE_TERMINAL;
    info->wProductType = VER_NT_SERVER;
    return true;
}

}  // namespace platform
