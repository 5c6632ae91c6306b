// Whether this machine is a terminal server whose sessions the module serves.
#include <cstdint>
#include <cstring>
#include <optional>

#include "config/product_values.h"
#include "platform/registry.h"
#include "session/wts_layer.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

using namespace platform;

constexpr char16_t kTerminalServerKey[] = u"SYSTEM\\CurrentControlSet\\Control\\Terminal Server";
constexpr char16_t kProductOptionsKey[] = u"System\\CurrentControlSet\\Control\\ProductOptions";

// The value as a DWORD, or nullopt when it cannot be read as four bytes.
std::optional<DWORD> ReadDword(std::u16string_view keyPath, std::u16string_view name) {
    UniqueKey key;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, keyPath, 0, KEY_READ, &key) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    DWORD value = 0;
    DWORD size = sizeof value;
    DWORD type = 0;
    if (RegQueryValueExW(key.get(), name, &type, &value, &size) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    return value;
}

bool SuitesAllowTerminalServices() {
    const UniqueLibrary ntdll(LoadLibraryW(u"ntdll.dll"));
    const UniqueLibrary kernel32(LoadLibraryW(u"KERNEL32.DLL"));
    bool result = false;
    auto setMask = ntdll
                       ? GetProcAddressAs<&VerSetConditionMask>(ntdll.get(), "VerSetConditionMask")
                       : nullptr;
    auto verify = kernel32
                      ? GetProcAddressAs<&VerifyVersionInfoA>(kernel32.get(), "VerifyVersionInfoA")
                      : nullptr;
    if (setMask != nullptr && verify != nullptr) {
        const std::uint64_t mask = setMask(0, VER_SUITENAME, VER_AND);
        OSVERSIONINFOEXW wanted;
        wanted.wSuiteMask = VER_SUITE_TERMINAL;
        const bool terminal = verify(&wanted, VER_SUITENAME, mask);
        wanted.wSuiteMask = VER_SUITE_SINGLEUSERTS;
        const bool singleUser = verify(&wanted, VER_SUITENAME, mask);
        if (singleUser && ReadDword(kTerminalServerKey, u"fDenyTSConnections").value_or(0) == 0) {
            result = true;
        } else if (terminal && ReadDword(kTerminalServerKey, u"TSAppCompat").value_or(0) != 0) {
            result = true;
        }
    }
    return result;
}

}  // namespace

bool IsTerminalServicesEnabled() {
    if (config::ForceListenToWTS()) {
        OVTRACE(INF | NORM, "dwForceWTS == TRUE found, IsTerminalServicesEnabled return TRUE");
        return true;
    }
    bool result = false;
    OSVERSIONINFOEXW version;
    if (GetVersionExW(&version) && version.dwPlatformId == VER_PLATFORM_WIN32_NT) {
        result = version.dwMajorVersion < 5 ? IsSuiteInProductSuite(u"Terminal Server")
                                            : SuitesAllowTerminalServices();
    }
    OVTRACE(INF | NORM, "IsTerminalServicesEnabled return %d", result ? 1 : 0);
    return result;
}

bool IsSuiteInProductSuite(std::u16string_view suite) {
    UniqueKey key;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kProductOptionsKey, 0, KEY_READ, &key) != ERROR_SUCCESS) {
        return false;
    }
    DWORD type = 0;
    DWORD size = 0;
    if (RegQueryValueExW(key.get(), u"ProductSuite", &type, nullptr, &size) != ERROR_SUCCESS ||
        size == 0) {
        return false;
    }
    std::u16string list((size + 1) / sizeof(char16_t) + 1, u'\0');
    if (RegQueryValueExW(key.get(), u"ProductSuite", &type, list.data(), &size) != ERROR_SUCCESS ||
        type != REG_MULTI_SZ) {
        return false;
    }
    std::size_t start = 0;
    while (start < list.size() && list[start] != u'\0') {
        const std::size_t end = list.find(u'\0', start);
        if (std::u16string_view(list).substr(start, end - start) == suite) {
            return true;
        }
        start = end + 1;
    }
    return false;
}

}  // namespace ovsvc
