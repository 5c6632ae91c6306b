// Win32 error numbers and the per-thread last-error value.
//
// Every platform call sets the calling thread's last error, exactly as the
// Win32 call it mirrors would, so module code can log and test the same
// values it would see on Windows.
//
// The Win32 backend includes this header before <windows.h>; the names below
// are macros there, so backend code uses the unqualified Windows macros.
#pragma once

#include <cstdint>

namespace platform {

using DWORD = std::uint32_t;
using LONG = std::int32_t;
using LSTATUS = LONG;
using BOOL = int;

inline constexpr DWORD ERROR_SUCCESS = 0;
inline constexpr DWORD ERROR_INVALID_FUNCTION = 1;
inline constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
inline constexpr DWORD ERROR_PATH_NOT_FOUND = 3;
inline constexpr DWORD ERROR_ACCESS_DENIED = 5;
inline constexpr DWORD ERROR_INVALID_HANDLE = 6;
inline constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
inline constexpr DWORD ERROR_INVALID_DATA = 13;
inline constexpr DWORD ERROR_OUTOFMEMORY = 14;
inline constexpr DWORD ERROR_NOT_SUPPORTED = 50;
inline constexpr DWORD ERROR_FILE_EXISTS = 80;
inline constexpr DWORD ERROR_INVALID_PARAMETER = 87;
inline constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122;
inline constexpr DWORD ERROR_INVALID_NAME = 123;
inline constexpr DWORD ERROR_INVALID_LEVEL = 124;
inline constexpr DWORD ERROR_MOD_NOT_FOUND = 126;
inline constexpr DWORD ERROR_PROC_NOT_FOUND = 127;
inline constexpr DWORD ERROR_DIR_NOT_EMPTY = 145;
inline constexpr DWORD ERROR_BAD_PATHNAME = 161;
inline constexpr DWORD ERROR_ALREADY_EXISTS = 183;
inline constexpr DWORD ERROR_FILENAME_EXCED_RANGE = 206;
inline constexpr DWORD ERROR_MORE_DATA = 234;
inline constexpr DWORD WAIT_TIMEOUT_ERROR = 258;  // ERROR_WAIT_TIMEOUT is WAIT_TIMEOUT in winerror.h
inline constexpr DWORD ERROR_NO_MORE_ITEMS = 259;
inline constexpr DWORD ERROR_INVALID_ADDRESS = 487;
inline constexpr DWORD ERROR_NOACCESS = 998;
inline constexpr DWORD ERROR_SERVICE_ALREADY_RUNNING = 1056;
inline constexpr DWORD ERROR_SERVICE_DATABASE_LOCKED = 1055;
inline constexpr DWORD ERROR_SERVICE_NOT_ACTIVE = 1062;
inline constexpr DWORD ERROR_SERVICE_DOES_NOT_EXIST = 1060;
inline constexpr DWORD ERROR_KEY_DELETED = 1018;
inline constexpr DWORD ERROR_BADDB = 1009;
inline constexpr DWORD ERROR_BADKEY = 1010;
inline constexpr DWORD ERROR_CANTOPEN = 1011;
inline constexpr DWORD ERROR_CANTREAD = 1012;
inline constexpr DWORD ERROR_CANTWRITE = 1013;
inline constexpr DWORD ERROR_REGISTRY_CORRUPT = 1015;
inline constexpr DWORD ERROR_NONE_MAPPED = 1332;
inline constexpr DWORD ERROR_INVALID_SID = 1337;
inline constexpr DWORD ERROR_INVALID_SECURITY_DESCR = 1338;
inline constexpr DWORD ERROR_INVALID_ACL = 1336;
inline constexpr DWORD ERROR_ALLOTTED_SPACE_EXCEEDED = 1344;
inline constexpr DWORD ERROR_INVALID_PRINTER_NAME = 1801;
inline constexpr DWORD ERROR_PRINTER_ALREADY_EXISTS = 1802;
inline constexpr DWORD ERROR_INVALID_PRINTER_COMMAND = 1803;
inline constexpr DWORD ERROR_UNKNOWN_PRINTER_DRIVER = 1797;
inline constexpr DWORD ERROR_UNKNOWN_PORT = 1796;
inline constexpr DWORD ERROR_UNKNOWN_PRINTPROCESSOR = 1798;
inline constexpr DWORD ERROR_PRINTER_DRIVER_IN_USE = 3001;
inline constexpr DWORD ERROR_INVALID_ENVIRONMENT = 1805;
inline constexpr DWORD ERROR_INVALID_PRIORITY = 1800;
inline constexpr DWORD ERROR_INVALID_DATATYPE = 1804;
inline constexpr DWORD ERROR_INVALID_PRINTER_STATE = 1906;
inline constexpr DWORD ERROR_INVALID_SHARENAME = 1215;
inline constexpr DWORD ERROR_TIMEOUT = 1460;
inline constexpr DWORD ERROR_UNKNOWN_PRINT_MONITOR = 3000;

// Last error of the calling thread (GetLastError / SetLastError).
DWORD GetLastError() noexcept;
void SetLastError(DWORD error) noexcept;

// Saves the thread's last error and restores it when the scope ends.
class LastErrorKeeper {
public:
    LastErrorKeeper() noexcept : saved_(GetLastError()) {}
    ~LastErrorKeeper() { SetLastError(saved_); }
    LastErrorKeeper(const LastErrorKeeper&) = delete;
    LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;

private:
    DWORD saved_;
};

}  // namespace platform
