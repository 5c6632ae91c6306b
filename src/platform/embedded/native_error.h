// Host errors translated to Win32 error numbers, in one place.
#pragma once

#include "platform/error.h"

namespace platform::embedded {

// The Win32 error a failed host call's errno stands for.
DWORD Win32ErrorFromErrno(int error) noexcept;

// Sets the thread's last error from errno and returns it.
DWORD SetLastErrorFromErrno() noexcept;

}  // namespace platform::embedded
