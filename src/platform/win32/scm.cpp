// The service control manager, over Windows' own.
//
// Handles are Windows' SC_HANDLE, SC_LOCK and SERVICE_STATUS_HANDLE values;
// errors are Windows' own. Two calls have a shape of their own: the stop
// control waits (up to 30 s) for the service to read stopped, and the
// control handler a service registers is the platform's one-argument kind.
#include <chrono>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "platform/scm.h"
#include "win32_api.h"

namespace platform {

namespace {

::SC_HANDLE Native(SC_HANDLE handle) {
    return reinterpret_cast<::SC_HANDLE>(handle);
}

SC_HANDLE Platform(::SC_HANDLE handle) {
    return reinterpret_cast<SC_HANDLE>(handle);
}

// A name the Windows API takes: null for empty; false for one with an
// embedded terminator (which would silently name something else).
bool NameArgument(std::u16string_view name, std::u16string* text, const wchar_t** out) {
    if (name.find(u'\0') != std::u16string_view::npos) {
        return false;
    }
    text->assign(name);
    *out = text->empty() ? nullptr : win32::Wide(*text);
    return true;
}

::SERVICE_STATUS ToNative(const SERVICE_STATUS& s) {
    ::SERVICE_STATUS n{};
    n.dwServiceType = s.dwServiceType;
    n.dwCurrentState = s.dwCurrentState;
    n.dwControlsAccepted = s.dwControlsAccepted;
    n.dwWin32ExitCode = s.dwWin32ExitCode;
    n.dwServiceSpecificExitCode = s.dwServiceSpecificExitCode;
    n.dwCheckPoint = s.dwCheckPoint;
    n.dwWaitHint = s.dwWaitHint;
    return n;
}

SERVICE_STATUS FromNative(const ::SERVICE_STATUS& n) {
    SERVICE_STATUS s;
    s.dwServiceType = n.dwServiceType;
    s.dwCurrentState = n.dwCurrentState;
    s.dwControlsAccepted = n.dwControlsAccepted;
    s.dwWin32ExitCode = n.dwWin32ExitCode;
    s.dwServiceSpecificExitCode = n.dwServiceSpecificExitCode;
    s.dwCheckPoint = n.dwCheckPoint;
    s.dwWaitHint = n.dwWaitHint;
    return s;
}

constexpr auto kStopWait = std::chrono::seconds(30);

// Polls until the service reads stopped or the stop wait is over. Leaves
// `status` at the last state read; a handle without the right to query
// leaves it as the stop control answered.
void WaitForStopped(::SC_HANDLE service, ::SERVICE_STATUS* status) {
    const DWORD error = ::GetLastError();
    const auto deadline = std::chrono::steady_clock::now() + kStopWait;
    while (status->dwCurrentState != SERVICE_STOPPED &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ::SERVICE_STATUS now{};
        if (!::QueryServiceStatus(service, &now)) {
            break;
        }
        *status = now;
    }
    ::SetLastError(error);
}

// The Windows handler a registration installs: forwards every control to
// the platform handler it was registered with.
::DWORD WINAPI ForwardControl(::DWORD control, ::DWORD, LPVOID, LPVOID context) {
    (*static_cast<const LPHANDLER_FUNCTION*>(context))(control);
    return NO_ERROR;
}

}  // namespace

SC_HANDLE OpenSCManagerW(std::u16string_view machine, std::u16string_view database,
                         DWORD desiredAccess) {
    std::u16string machineText;
    std::u16string databaseText;
    const wchar_t* machineName = nullptr;
    const wchar_t* databaseName = nullptr;
    if (!NameArgument(machine, &machineText, &machineName) ||
        !NameArgument(database, &databaseText, &databaseName)) {
        ::SetLastError(ERROR_INVALID_NAME);
        return nullptr;
    }
    return Platform(::OpenSCManagerW(machineName, databaseName, desiredAccess));
}

SC_HANDLE OpenServiceW(SC_HANDLE manager, std::u16string_view serviceName, DWORD desiredAccess) {
    std::u16string text;
    const wchar_t* name = nullptr;
    if (!NameArgument(serviceName, &text, &name) || name == nullptr) {
        ::SetLastError(ERROR_INVALID_NAME);
        return nullptr;
    }
    return Platform(::OpenServiceW(Native(manager), name, desiredAccess));
}

bool CloseServiceHandle(SC_HANDLE handle) {
    return ::CloseServiceHandle(Native(handle)) != FALSE;
}

SC_LOCK LockServiceDatabase(SC_HANDLE manager) {
    return static_cast<SC_LOCK>(::LockServiceDatabase(Native(manager)));
}

bool UnlockServiceDatabase(SC_LOCK lock) {
    return ::UnlockServiceDatabase(static_cast<::SC_LOCK>(lock)) != FALSE;
}

bool StartServiceW(SC_HANDLE service, const std::vector<std::u16string>& arguments) {
    std::vector<const wchar_t*> argv;
    argv.reserve(arguments.size());
    for (const auto& argument : arguments) {
        if (argument.find(u'\0') != std::u16string::npos) {
            ::SetLastError(ERROR_INVALID_PARAMETER);
            return false;
        }
        argv.push_back(win32::Wide(argument));
    }
    return ::StartServiceW(Native(service), static_cast<DWORD>(argv.size()),
                           argv.empty() ? nullptr : argv.data()) != FALSE;
}

bool ControlService(SC_HANDLE service, DWORD control, SERVICE_STATUS* status) {
    if (status == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    ::SERVICE_STATUS native = ToNative(*status);
    const bool ok = ::ControlService(Native(service), control, &native) != FALSE;
    if (ok && control == SERVICE_CONTROL_STOP) {
        WaitForStopped(Native(service), &native);
    }
    // Windows fills the status in for some failures too (a service that is
    // not active, a control it does not accept).
    *status = FromNative(native);
    return ok;
}

bool QueryServiceStatus(SC_HANDLE service, SERVICE_STATUS* status) {
    if (status == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    ::SERVICE_STATUS native{};
    if (!::QueryServiceStatus(Native(service), &native)) {
        return false;
    }
    *status = FromNative(native);
    return true;
}

SERVICE_STATUS_HANDLE RegisterServiceCtrlHandlerW(std::u16string_view serviceName,
                                                  LPHANDLER_FUNCTION handler) {
    std::u16string text;
    const wchar_t* name = nullptr;
    if (handler == nullptr || !NameArgument(serviceName, &text, &name) || name == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    // Windows may call the handler until the process ends, so the context
    // holding it is never freed (one small block per registration).
    auto* context = new (std::nothrow) LPHANDLER_FUNCTION(handler);
    if (context == nullptr) {
        ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    ::SERVICE_STATUS_HANDLE h = ::RegisterServiceCtrlHandlerExW(name, ForwardControl, context);
    if (h == nullptr) {
        const DWORD error = ::GetLastError();
        delete context;
        ::SetLastError(error);
        return nullptr;
    }
    return reinterpret_cast<SERVICE_STATUS_HANDLE>(h);
}

bool SetServiceStatus(SERVICE_STATUS_HANDLE handle, const SERVICE_STATUS* status) {
    if (status == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    ::SERVICE_STATUS native = ToNative(*status);
    return ::SetServiceStatus(reinterpret_cast<::SERVICE_STATUS_HANDLE>(handle), &native) != FALSE;
}

}  // namespace platform
