// The system libraries the module binds at run time, and the version checks
// two of them export.
//
// Libraries are Windows' own, loaded with LoadLibraryExW. What GetProcAddress
// hands back for an export the platform declares is the platform's function
// of that name (the module calls it with the platform's types), but only when
// the real library has the export, so a system without it still reads as
// ERROR_PROC_NOT_FOUND.
#include <cstring>
#include <string>
#include <string_view>

#include "platform/kernel.h"
#include "platform/wts.h"
#include "win32_api.h"

namespace platform {

namespace {

template <typename F>
FARPROC Export(F* function) {
    return reinterpret_cast<FARPROC>(function);
}

struct KnownExport {
    const char* name;
    FARPROC function;
};

// The platform's versions of the exports the module resolves, per library.
FARPROC PlatformExport(HMODULE module, std::string_view name) {
    static const KnownExport kWtsApi[] = {
        {"WTSEnumerateSessionsW", Export(&WTSEnumerateSessionsW)},
        {"WTSQuerySessionInformationW", Export(&WTSQuerySessionInformationW)},
        {"WTSFreeMemory", Export(&WTSFreeMemory)},
        {"WTSEnumerateProcessesW", Export(&WTSEnumerateProcessesW)},
        {"WTSWaitSystemEvent", Export(&WTSWaitSystemEvent)},
    };
    static const KnownExport kKernel32[] = {
        {"WTSGetActiveConsoleSessionId", Export(&WTSGetActiveConsoleSessionId)},
        {"ProcessIdToSessionId", Export(&ProcessIdToSessionId)},
        {"VerifyVersionInfoA", Export(&VerifyVersionInfoA)},
        {"VerSetConditionMask", Export(&VerSetConditionMask)},
    };
    static const KnownExport kNtdll[] = {
        {"VerSetConditionMask", Export(&VerSetConditionMask)},
    };
    struct Library {
        const wchar_t* name;
        const KnownExport* exports;
        std::size_t count;
    };
    static const Library kLibraries[] = {
        {L"wtsapi32.dll", kWtsApi, std::size(kWtsApi)},
        {L"kernel32.dll", kKernel32, std::size(kKernel32)},
        {L"ntdll.dll", kNtdll, std::size(kNtdll)},
    };
    for (const Library& library : kLibraries) {
        // Not a new reference: only which loaded module this is.
        if (::GetModuleHandleW(library.name) != module) {
            continue;
        }
        for (std::size_t i = 0; i < library.count; ++i) {
            if (name == library.exports[i].name) {
                return library.exports[i].function;
            }
        }
    }
    return nullptr;
}

bool HasPathSeparator(std::u16string_view name) {
    return name.find_first_of(u"\\/:") != std::u16string_view::npos;
}

}  // namespace

HLIBRARY LoadLibraryW(std::u16string_view fileName) {
    if (fileName.empty() || fileName.find(u'\0') != std::u16string_view::npos) {
        ::SetLastError(ERROR_MOD_NOT_FOUND);  // names no library
        return nullptr;
    }
    const std::u16string name(fileName);
    // A bare name is a system library: look for it in the system directory
    // only, never beside the calling program or on PATH.
    const DWORD flags = HasPathSeparator(fileName) ? 0 : LOAD_LIBRARY_SEARCH_SYSTEM32;
    return reinterpret_cast<HLIBRARY>(::LoadLibraryExW(win32::Wide(name), nullptr, flags));
}

FARPROC GetProcAddress(HLIBRARY library, std::string_view procName) {
    if (library == nullptr) {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    if (procName.empty() || procName.find('\0') != std::string_view::npos) {
        ::SetLastError(ERROR_PROC_NOT_FOUND);
        return nullptr;
    }
    const auto module = reinterpret_cast<HMODULE>(library);
    const std::string name(procName);
    const ::FARPROC real = ::GetProcAddress(module, name.c_str());
    if (real == nullptr) {
        return nullptr;
    }
    const DWORD error = ::GetLastError();
    FARPROC mine = PlatformExport(module, procName);
    ::SetLastError(error);
    // Any other export is Windows' own function, with Windows' signature.
    return mine != nullptr ? mine : reinterpret_cast<FARPROC>(real);
}

bool FreeLibrary(HLIBRARY library) {
    if (library == nullptr) {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    return ::FreeLibrary(reinterpret_cast<HMODULE>(library)) != FALSE;
}

std::uint64_t VerSetConditionMask(std::uint64_t conditionMask, DWORD typeMask,
                                  std::uint8_t condition) noexcept {
    return ::VerSetConditionMask(conditionMask, typeMask, condition);
}

bool VerifyVersionInfoA(const OSVERSIONINFOEXW* info, DWORD typeMask, std::uint64_t conditionMask) {
    if (info == nullptr || typeMask == 0 || conditionMask == 0) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    ::OSVERSIONINFOEXA wanted;
    std::memset(&wanted, 0, sizeof wanted);
    wanted.dwOSVersionInfoSize = sizeof wanted;
    wanted.dwMajorVersion = info->dwMajorVersion;
    wanted.dwMinorVersion = info->dwMinorVersion;
    wanted.dwBuildNumber = info->dwBuildNumber;
    wanted.dwPlatformId = info->dwPlatformId;
    wanted.wServicePackMajor = info->wServicePackMajor;
    wanted.wServicePackMinor = info->wServicePackMinor;
    wanted.wSuiteMask = info->wSuiteMask;
    wanted.wProductType = info->wProductType;
    return ::VerifyVersionInfoA(&wanted, typeMask, conditionMask) != FALSE;
}

}  // namespace platform
