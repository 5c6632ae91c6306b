// The system libraries the module binds at run time, and the version checks
// two of them export.
#include <array>
#include <optional>
#include <string>

#include "platform/library.h"
#include "platform/machine.h"
#include "platform/spooler.h"
#include "platform/text.h"
#include "platform/wts.h"
#include "wts_internal.h"

namespace platform {

struct LibraryObject {
    const char* name;  // without ".dll"
    std::vector<std::pair<const char*, FARPROC>> exports;
};

namespace {

template <typename F>
FARPROC Export(F* function) {
    return reinterpret_cast<FARPROC>(function);
}

std::array<LibraryObject, 4>& Libraries() {
    static std::array<LibraryObject, 4> libraries{
        LibraryObject{"wtsapi32",
                      {{"WTSEnumerateSessionsW", Export(&WTSEnumerateSessionsW)},
                       {"WTSQuerySessionInformationW", Export(&WTSQuerySessionInformationW)},
                       {"WTSFreeMemory", Export(&WTSFreeMemory)},
                       {"WTSEnumerateProcessesW", Export(&WTSEnumerateProcessesW)},
                       {"WTSWaitSystemEvent", Export(&WTSWaitSystemEvent)}}},
        LibraryObject{"kernel32",
                      {{"WTSGetActiveConsoleSessionId", Export(&WTSGetActiveConsoleSessionId)},
                       {"ProcessIdToSessionId", Export(&ProcessIdToSessionId)},
                       {"VerifyVersionInfoA", Export(&VerifyVersionInfoA)},
                       {"VerSetConditionMask", Export(&VerSetConditionMask)}}},
        LibraryObject{"ntdll", {{"VerSetConditionMask", Export(&VerSetConditionMask)}}},
        LibraryObject{"winspool", {{"XcvDataW", Export(&XcvDataW)}}},
    };
    return libraries;
}

bool IsWtsApi(const LibraryObject* library) {
    return library == &Libraries()[0];
}

bool IsWinspool(const LibraryObject* library) {
    return library == &Libraries()[3];
}

bool Switch(const char* key, const std::string& value) {
    auto v = machine::Setting(key);
    return v && *v == value;
}

bool ExportDisabled(const char* switchName, std::string_view name) {
    auto list = machine::Setting(switchName);
    if (!list) {
        return false;
    }
    std::size_t start = 0;
    while (start <= list->size()) {
        std::size_t end = list->find(',', start);
        if (end == std::string::npos) {
            end = list->size();
        }
        if (std::string_view(*list).substr(start, end - start) == name) {
            return true;
        }
        start = end + 1;
    }
    return false;
}

bool Compare(DWORD actual, DWORD wanted, std::uint8_t condition) {
    switch (condition) {
        case VER_EQUAL:
            return actual == wanted;
        case VER_GREATER:
            return actual > wanted;
        case VER_GREATER_EQUAL:
            return actual >= wanted;
        case VER_LESS:
            return actual < wanted;
        case VER_LESS_EQUAL:
            return actual <= wanted;
        case VER_AND:
            return (actual & wanted) == wanted;
        case VER_OR:
            return (actual & wanted) != 0;
        default:
            return false;
    }
}

// The library's name without its directory, or nothing when the directory
// is not the system directory (the only one the embedded machine has
// libraries in).
std::optional<std::u16string_view> SystemLibraryName(std::u16string_view fileName) {
    const std::size_t slash = fileName.find_last_of(u"\\/");
    if (slash == std::u16string_view::npos) {
        return fileName;
    }
    const auto system = GetSystemDirectoryW();
    if (!system || !NamesEqual(fileName.substr(0, slash), *system)) {
        return std::nullopt;
    }
    return fileName.substr(slash + 1);
}

}  // namespace

HLIBRARY LoadLibraryW(std::u16string_view fileName) {
    const auto baseName = SystemLibraryName(fileName);
    if (!baseName) {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    std::string name = detail::Utf8(*baseName);
    if (name.size() > 4 &&
        (detail::EqualsIgnoreCase(std::string_view(name).substr(name.size() - 4), ".dll") ||
         detail::EqualsIgnoreCase(std::string_view(name).substr(name.size() - 4), ".drv"))) {
        name.resize(name.size() - 4);
    }
    for (auto& library : Libraries()) {
        if (!detail::EqualsIgnoreCase(name, library.name)) {
            continue;
        }
        if (IsWtsApi(&library) && Switch("wtsapi32", "0")) {
            break;
        }
        // The terminal server's settings exist before any program asks.
        detail::EnsureTerminalServer();
        SetLastError(ERROR_SUCCESS);
        return &library;
    }
    SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
}

FARPROC GetProcAddress(HLIBRARY library, std::string_view procName) {
    if (library == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    for (const auto& [name, function] : library->exports) {
        if (procName == name) {
            if ((IsWtsApi(library) && ExportDisabled("wtsapi32_missing", procName)) ||
                (IsWinspool(library) && ExportDisabled("winspool_missing", procName))) {
                break;
            }
            SetLastError(ERROR_SUCCESS);
            return function;
        }
    }
    SetLastError(ERROR_PROC_NOT_FOUND);
    return nullptr;
}

bool FreeLibrary(HLIBRARY library) {
    if (library == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    SetLastError(ERROR_SUCCESS);
    return true;
}

std::uint64_t VerSetConditionMask(std::uint64_t conditionMask, DWORD typeMask,
                                  std::uint8_t condition) noexcept {
    const std::uint64_t value = condition & 7u;
    if (value == 0) {
        return conditionMask;
    }
    // As Windows does it: one field per call, the highest type bit named,
    // and the condition added by OR (never replacing an earlier one).
    for (DWORD bit = 8; bit-- > 0;) {
        if ((typeMask & (1u << bit)) != 0) {
            return conditionMask | (value << (bit * 3));
        }
    }
    return conditionMask;
}

bool VerifyVersionInfoA(const OSVERSIONINFOEXW* info, DWORD typeMask, std::uint64_t conditionMask) {
    OSVERSIONINFOEXW system;
    if (info == nullptr || !GetVersionExW(&system)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (typeMask == 0 || conditionMask == 0) {
        SetLastError(ERROR_BAD_ARGUMENTS);
        return false;
    }
    const std::pair<DWORD, std::pair<DWORD, DWORD>> fields[] = {
        {VER_MINORVERSION, {system.dwMinorVersion, info->dwMinorVersion}},
        {VER_MAJORVERSION, {system.dwMajorVersion, info->dwMajorVersion}},
        {VER_BUILDNUMBER, {system.dwBuildNumber, info->dwBuildNumber}},
        {VER_PLATFORMID, {system.dwPlatformId, info->dwPlatformId}},
        {VER_SERVICEPACKMINOR, {system.wServicePackMinor, info->wServicePackMinor}},
        {VER_SERVICEPACKMAJOR, {system.wServicePackMajor, info->wServicePackMajor}},
        {VER_SUITENAME, {system.wSuiteMask, info->wSuiteMask}},
        {VER_PRODUCT_TYPE, {system.wProductType, info->wProductType}},
    };
    for (DWORD bit = 0; bit < 8; ++bit) {
        const auto& [type, values] = fields[bit];
        if ((typeMask & type) == 0) {
            continue;
        }
        const auto condition = static_cast<std::uint8_t>((conditionMask >> (bit * 3)) & 7u);
        if (!Compare(values.first, values.second, condition)) {
            SetLastError(ERROR_OLD_WIN_VERSION);
            return false;
        }
    }
    SetLastError(ERROR_SUCCESS);
    return true;
}

}  // namespace platform
