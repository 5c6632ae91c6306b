// Files over the Windows file system. Paths are Windows paths as they are;
// sharing modes are Windows' own (enforced). Names holding characters
// Windows refuses in file names fail with ERROR_INVALID_NAME before Windows
// sees them, so that a ':' never opens an alternate data stream.
#include "platform/kernel.h"
#include "platform/text.h"

#include "win32_api.h"

#include "kernel_internal.h"

namespace platform {

namespace {

// The path as Windows takes it, or false with the last error set.
bool WindowsPath(std::u16string_view path, std::u16string* out) {
    *out = std::u16string(path.substr(0, path.find(u'\0')));
    if (out->empty()) {
        ::SetLastError(ERROR_PATH_NOT_FOUND);
        return false;
    }
    if (const DWORD error = win32::CheckPath(*out); error != ERROR_SUCCESS) {
        ::SetLastError(error);
        return false;
    }
    return true;
}

bool CheckFileHandle(HANDLE file) {
    if (win32::IsNoHandle(file)) {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    return true;
}

}  // namespace

UniqueFile CreateFileW(std::u16string_view path, DWORD desiredAccess, DWORD shareMode,
                       DWORD creationDisposition, DWORD flagsAndAttributes) {
    if (creationDisposition < CREATE_NEW || creationDisposition > TRUNCATE_EXISTING ||
        (creationDisposition == TRUNCATE_EXISTING && (desiredAccess & GENERIC_WRITE) == 0)) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return UniqueFile();
    }
    std::u16string windowsPath;
    if (!WindowsPath(path, &windowsPath)) {
        return UniqueFile();
    }
    UniqueFile file(::CreateFileW(win32::Wide(windowsPath), desiredAccess, shareMode, nullptr,
                                  creationDisposition, flagsAndAttributes, nullptr));
    if (file && ::GetLastError() != ERROR_ALREADY_EXISTS) {
        ::SetLastError(ERROR_SUCCESS);
    }
    return file;
}

bool ReadFile(HANDLE file, void* buffer, DWORD bytesToRead, DWORD* bytesRead) {
    if (bytesRead != nullptr) {
        *bytesRead = 0;
    }
    if (!CheckFileHandle(file)) {
        return false;
    }
    if (buffer == nullptr && bytesToRead != 0) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    ::DWORD done = 0;
    const bool ok = ::ReadFile(file, buffer, bytesToRead, &done, nullptr) != FALSE;
    if (bytesRead != nullptr) {
        *bytesRead = static_cast<DWORD>(done);
    }
    return ok;
}

bool WriteFile(HANDLE file, const void* buffer, DWORD bytesToWrite, DWORD* bytesWritten) {
    if (bytesWritten != nullptr) {
        *bytesWritten = 0;
    }
    if (!CheckFileHandle(file)) {
        return false;
    }
    if (buffer == nullptr && bytesToWrite != 0) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    ::DWORD done = 0;
    const bool ok = ::WriteFile(file, buffer, bytesToWrite, &done, nullptr) != FALSE;
    if (bytesWritten != nullptr) {
        *bytesWritten = static_cast<DWORD>(done);
    }
    return ok;
}

DWORD SetFilePointer(HANDLE file, LONG distance, LONG* distanceHigh, DWORD moveMethod) {
    if (!CheckFileHandle(file)) {
        return INVALID_SET_FILE_POINTER;
    }
    ::LONG high = distanceHigh != nullptr ? *distanceHigh : 0;
    ::SetLastError(ERROR_SUCCESS);  // tells a position of 0xFFFFFFFF from a failure
    const ::DWORD low =
        ::SetFilePointer(file, distance, distanceHigh != nullptr ? &high : nullptr, moveMethod);
    if (low == INVALID_SET_FILE_POINTER && ::GetLastError() != ERROR_SUCCESS) {
        return INVALID_SET_FILE_POINTER;
    }
    if (distanceHigh != nullptr) {
        *distanceHigh = static_cast<LONG>(high);
    }
    ::SetLastError(ERROR_SUCCESS);
    return static_cast<DWORD>(low);
}

bool DeleteFileW(std::u16string_view path) {
    std::u16string windowsPath;
    return WindowsPath(path, &windowsPath) && ::DeleteFileW(win32::Wide(windowsPath)) != FALSE;
}

bool CopyFileW(std::u16string_view from, std::u16string_view to, bool failIfExists) {
    std::u16string source;
    std::u16string target;
    return WindowsPath(from, &source) && WindowsPath(to, &target) &&
           ::CopyFileW(win32::Wide(source), win32::Wide(target), failIfExists ? TRUE : FALSE) !=
               FALSE;
}

bool CreateDirectoryW(std::u16string_view path) {
    std::u16string windowsPath;
    return WindowsPath(path, &windowsPath) &&
           ::CreateDirectoryW(win32::Wide(windowsPath), nullptr) != FALSE;
}

bool RemoveDirectoryW(std::u16string_view path) {
    std::u16string windowsPath;
    return WindowsPath(path, &windowsPath) && ::RemoveDirectoryW(win32::Wide(windowsPath)) != FALSE;
}

DWORD GetFileAttributesW(std::u16string_view path) {
    std::u16string windowsPath;
    if (!WindowsPath(path, &windowsPath)) {
        return INVALID_FILE_ATTRIBUTES;
    }
    return static_cast<DWORD>(::GetFileAttributesW(win32::Wide(windowsPath)));
}

std::string HostPath(std::u16string_view path) {
    // On Windows a Windows path is the host's own.
    const std::u16string_view text = path.substr(0, path.find(u'\0'));
    if (text.empty() || win32::CheckPath(text) != ERROR_SUCCESS) {
        return {};
    }
    return ToUtf8(text);
}

}  // namespace platform
