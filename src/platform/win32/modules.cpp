// Module handles and file names. A platform HMODULE on Windows is the
// module's real HMODULE.
#include "platform/resources.h"

#include "win32_api.h"

namespace platform {

bool DisableThreadLibraryCalls(HMODULE module) {
    return ::DisableThreadLibraryCalls(reinterpret_cast<::HMODULE>(module)) != FALSE;
}

HMODULE GetModuleHandleW(std::u16string_view fileName) {
    const std::u16string name(fileName);
    ::HMODULE module = ::GetModuleHandleW(name.empty() ? nullptr : win32::Wide(name));
    if (module == nullptr) {
        return nullptr;  // ERROR_MOD_NOT_FOUND from Windows
    }
    ::SetLastError(ERROR_SUCCESS);
    return reinterpret_cast<HMODULE>(module);
}

std::u16string GetModuleFileNameW(HMODULE module) {
    ::HMODULE native = reinterpret_cast<::HMODULE>(module);
    std::u16string path(MAX_PATH, u'\0');
    for (;;) {
        const ::DWORD n = ::GetModuleFileNameW(native, win32::WideBuffer(path),
                                               static_cast<::DWORD>(path.size()));
        if (n == 0) {
            return {};
        }
        if (n < path.size()) {
            path.resize(n);
            ::SetLastError(ERROR_SUCCESS);
            return path;
        }
        path.resize(path.size() * 2);  // cut short: ask again with more room
    }
}

}  // namespace platform
