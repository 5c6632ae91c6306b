#include "native_error.h"

#include <cerrno>

namespace platform::embedded {

namespace {
constexpr DWORD kErrorTooManyOpenFiles = 4;
constexpr DWORD kErrorSharingViolation = 32;
constexpr DWORD kErrorDiskFull = 112;
constexpr DWORD kErrorNotSameDevice = 17;
}  // namespace

DWORD Win32ErrorFromErrno(int error) noexcept {
    switch (error) {
        case 0:
            return ERROR_SUCCESS;
        case ENOENT:
            return ERROR_FILE_NOT_FOUND;
        case ENOTDIR:
            return ERROR_PATH_NOT_FOUND;
        case EACCES:
        case EPERM:
        case EROFS:
        case EISDIR:
            return ERROR_ACCESS_DENIED;
        case EBADF:
            return ERROR_INVALID_HANDLE;
        case ENOMEM:
            return ERROR_NOT_ENOUGH_MEMORY;
        case EMFILE:
        case ENFILE:
            return kErrorTooManyOpenFiles;
        case EBUSY:
        case ETXTBSY:
            return kErrorSharingViolation;
        case ENOSPC:
        case EFBIG:
            return kErrorDiskFull;
        case EEXIST:
            return ERROR_ALREADY_EXISTS;
        case ENOTEMPTY:
            return ERROR_DIR_NOT_EMPTY;
        case ENAMETOOLONG:
            return ERROR_FILENAME_EXCED_RANGE;
        case EINVAL:
            return ERROR_INVALID_PARAMETER;
        case ELOOP:
            return ERROR_INVALID_NAME;
        case EXDEV:
            return kErrorNotSameDevice;
        default:
            return ERROR_INVALID_FUNCTION;
    }
}

DWORD SetLastErrorFromErrno() noexcept {
    const DWORD error = Win32ErrorFromErrno(errno);
    SetLastError(error);
    return error;
}

}  // namespace platform::embedded
