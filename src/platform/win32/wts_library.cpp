// The system libraries the module binds at run time.
//
// A library is loaded for real; what GetProcAddress hands out for the
// libraries the platform declares (wtsapi32, kernel32, ntdll, winspool) is the
// platform's own function of that name, with the platform's types, and only
// when the real library exports the name. Other libraries hand out their raw
// exports.
#include <memory>
#include <string>

#include "platform/kernel.h"
#include "platform/library.h"
#include "platform/spooler.h"
#include "platform/wts.h"

#include "win32_api.h"

namespace platform {

struct LibraryObject {
    ::HMODULE module = nullptr;
    const char* known = nullptr;  // the declared library's name, or null
};

namespace {

template <typename F>
FARPROC Export(F* function) {
    return reinterpret_cast<FARPROC>(function);
}

struct Adapter {
    const char* library;
    const char* name;
    FARPROC function;
};

const Adapter* Adapters(std::size_t* count) {
    static const Adapter adapters[] = {
        {"wtsapi32", "WTSEnumerateSessionsW", Export(&WTSEnumerateSessionsW)},
        {"wtsapi32", "WTSQuerySessionInformationW", Export(&WTSQuerySessionInformationW)},
        {"wtsapi32", "WTSFreeMemory", Export(&WTSFreeMemory)},
        {"wtsapi32", "WTSEnumerateProcessesW", Export(&WTSEnumerateProcessesW)},
        {"wtsapi32", "WTSWaitSystemEvent", Export(&WTSWaitSystemEvent)},
        {"kernel32", "WTSGetActiveConsoleSessionId", Export(&WTSGetActiveConsoleSessionId)},
        {"kernel32", "ProcessIdToSessionId", Export(&ProcessIdToSessionId)},
        {"kernel32", "VerifyVersionInfoA", Export(&VerifyVersionInfoA)},
        {"kernel32", "VerSetConditionMask", Export(&VerSetConditionMask)},
        {"ntdll", "VerSetConditionMask", Export(&VerSetConditionMask)},
        {"winspool", "XcvDataW", Export(&XcvDataW)},
    };
    *count = std::size(adapters);
    return adapters;
}

char16_t Lower(char16_t c) {
    return (c >= u'A' && c <= u'Z') ? static_cast<char16_t>(c - u'A' + u'a') : c;
}

// The declared library a file name stands for ("WTSAPI32.DLL", "ntdll" ...).
const char* KnownLibrary(std::u16string_view fileName) {
    if (const auto slash = fileName.find_last_of(u"\\/"); slash != std::u16string_view::npos) {
        fileName.remove_prefix(slash + 1);
    }
    std::u16string name;
    for (const char16_t c : fileName) {
        name.push_back(Lower(c));
    }
    if (name.ends_with(u".dll") || name.ends_with(u".drv")) {
        name.resize(name.size() - 4);
    }
    for (const char* known : {"wtsapi32", "kernel32", "ntdll", "winspool"}) {
        if (name == std::u16string(known, known + std::char_traits<char>::length(known))) {
            return known;
        }
    }
    return nullptr;
}

}  // namespace

HLIBRARY LoadLibraryW(std::u16string_view fileName) {
    const std::u16string name(fileName);
    auto library = std::make_unique<LibraryObject>();
    library->known = KnownLibrary(fileName);
    // The system's own libraries by a bare name come from the system
    // directory only, never from a directory a user could write to.
    const bool bareName = name.find_first_of(u"\\/:") == std::u16string::npos;
    library->module =
        ::LoadLibraryExW(win32::Wide(name), nullptr,
                         library->known != nullptr && bareName ? LOAD_LIBRARY_SEARCH_SYSTEM32 : 0);
    if (library->module == nullptr) {
        return nullptr;  // ERROR_MOD_NOT_FOUND from Windows
    }
    ::SetLastError(ERROR_SUCCESS);
    return library.release();
}

FARPROC GetProcAddress(HLIBRARY library, std::string_view procName) {
    if (library == nullptr) {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    const std::string name(procName);
    const ::FARPROC real = ::GetProcAddress(library->module, name.c_str());
    if (real == nullptr) {
        return nullptr;  // ERROR_PROC_NOT_FOUND from Windows
    }
    if (library->known == nullptr) {
        ::SetLastError(ERROR_SUCCESS);
        return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(real));
    }
    std::size_t count = 0;
    const Adapter* adapters = Adapters(&count);
    for (std::size_t i = 0; i < count; ++i) {
        if (std::string_view(adapters[i].library) == library->known && name == adapters[i].name) {
            ::SetLastError(ERROR_SUCCESS);
            return adapters[i].function;
        }
    }
    // An export the platform does not declare has no platform type to call it by.
    ::SetLastError(ERROR_PROC_NOT_FOUND);
    return nullptr;
}

bool FreeLibrary(HLIBRARY library) {
    if (library == nullptr) {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    const std::unique_ptr<LibraryObject> owned(library);
    return ::FreeLibrary(owned->module) != FALSE;
}

}  // namespace platform
