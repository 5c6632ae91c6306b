// Anonymous pipes, exit codes, termination and the caller's account name.
#include "platform/kernel.h"
#include "platform/process.h"

#include "win32_api.h"

#include "kernel_internal.h"

namespace platform {

namespace {

// The current process's pseudo-handle is never a handle a platform call
// handed out: refused rather than acted on (it would terminate the caller).
bool CheckProcessHandle(HANDLE handle) {
    if (win32::IsNoHandle(handle)) {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    return true;
}

}  // namespace

bool CreatePipe(UniquePipe* readPipe, UniquePipe* writePipe, const SecurityAttributes* attributes,
                DWORD size) {
    if (readPipe == nullptr || writePipe == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    win32::Win32SecurityAttributes security;
    if (!security.Build(attributes)) {
        return false;
    }
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    if (!::CreatePipe(&readEnd, &writeEnd, security.get(), size)) {
        return false;
    }
    *readPipe = UniquePipe(readEnd);
    *writePipe = UniquePipe(writeEnd);
    ::SetLastError(ERROR_SUCCESS);
    return true;
}

bool PeekNamedPipe(HANDLE pipe, DWORD* totalBytesAvailable) {
    if (!CheckProcessHandle(pipe)) {
        return false;
    }
    ::DWORD total = 0;
    if (!::PeekNamedPipe(pipe, nullptr, 0, nullptr, &total, nullptr)) {
        return false;
    }
    if (totalBytesAvailable != nullptr) {
        *totalBytesAvailable = static_cast<DWORD>(total);
    }
    ::SetLastError(ERROR_SUCCESS);
    return true;
}

bool GetExitCodeProcess(HANDLE process, DWORD* exitCode) {
    if (!CheckProcessHandle(process)) {
        return false;
    }
    if (exitCode == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    ::DWORD code = 0;
    if (!::GetExitCodeProcess(process, &code)) {
        return false;
    }
    *exitCode = static_cast<DWORD>(code);
    ::SetLastError(ERROR_SUCCESS);
    return true;
}

bool TerminateProcess(HANDLE process, UINT exitCode) {
    if (!CheckProcessHandle(process)) {
        return false;
    }
    // A process that has ended cannot be terminated again: Windows refuses
    // with ERROR_ACCESS_DENIED (Wine would report success).
    if (::WaitForSingleObject(process, 0) == WAIT_OBJECT_0) {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return false;
    }
    return ::TerminateProcess(process, exitCode) != FALSE;
}

DWORD GetProcessId(HANDLE process) {
    if (!CheckProcessHandle(process)) {
        return 0;
    }
    const ::DWORD id = ::GetProcessId(process);
    if (id != 0) {
        ::SetLastError(ERROR_SUCCESS);
    }
    return static_cast<DWORD>(id);
}

bool GetUserNameW(std::u16string* name) {
    if (name == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    std::u16string buffer(64, u'\0');
    for (;;) {
        ::DWORD size = static_cast<::DWORD>(buffer.size());
        if (::GetUserNameW(win32::WideBuffer(buffer), &size)) {
            buffer.resize(size > 0 ? size - 1 : 0);  // the size counts the terminator
            *name = std::move(buffer);
            ::SetLastError(ERROR_SUCCESS);
            return true;
        }
        if (::GetLastError() != ERROR_INSUFFICIENT_BUFFER || size <= buffer.size()) {
            return false;
        }
        buffer.assign(size, u'\0');
    }
}

}  // namespace platform
