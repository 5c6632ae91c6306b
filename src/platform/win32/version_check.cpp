// The version checks KERNEL32 and NTDLL export (VerifyVersionInfoA,
// VerSetConditionMask), with the platform's version record.
#include "platform/kernel.h"
#include "platform/wts.h"

#include "win32_api.h"

namespace platform {

std::uint64_t VerSetConditionMask(std::uint64_t conditionMask, DWORD typeMask,
                                  std::uint8_t condition) noexcept {
    return ::VerSetConditionMask(conditionMask, typeMask, condition);
}

bool VerifyVersionInfoA(const OSVERSIONINFOEXW* info, DWORD typeMask, std::uint64_t conditionMask) {
    if (info == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    ::OSVERSIONINFOEXA wanted{};
    wanted.dwOSVersionInfoSize = sizeof(wanted);
    wanted.dwMajorVersion = info->dwMajorVersion;
    wanted.dwMinorVersion = info->dwMinorVersion;
    wanted.dwBuildNumber = info->dwBuildNumber;
    wanted.dwPlatformId = info->dwPlatformId;
    wanted.wServicePackMajor = info->wServicePackMajor;
    wanted.wServicePackMinor = info->wServicePackMinor;
    wanted.wSuiteMask = info->wSuiteMask;
    wanted.wProductType = info->wProductType;
    // The service-pack text is not compared by any type-mask bit.
    return ::VerifyVersionInfoA(&wanted, typeMask, conditionMask) != FALSE;
}

}  // namespace platform
