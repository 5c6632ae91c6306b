// The service control manager: the one service of the machine, OvaspoolSvc.
//
// The embedded service is the program `ovaspoolsvc` (found beside the module,
// then on PATH), started detached as the local system account in session 0.
// Its process id is kept in the machine root (services/OvaspoolSvc.pid), so
// every process of the machine sees the same service; a service process that
// died reads as stopped. The stop control is SIGTERM. The arguments given to
// StartServiceW become the program's command-line arguments; its output goes
// to services/OvaspoolSvc.log. machine.conf "service_program=<path or name>"
// runs another program as the service (for tests). As on Windows, a started
// service reads start pending until its process reports another state
// (RegisterServiceCtrlHandlerW, SetServiceStatus); one that ends without
// reporting stopped reads stopped with ERROR_PROCESS_ABORTED.
//
// Rights beyond connecting, enumerating and querying (SC_MANAGER_LOCK, and
// starting or stopping the service) are granted to administrators only: the
// caller's token must be SYSTEM or a member of BUILTIN\Administrators; others
// get ERROR_ACCESS_DENIED.
//
// On Windows these are the service control manager's own calls, for any
// service, with Windows' rights and errors; the stop control still waits for
// the service to read stopped, as below.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"
#include "platform/handle.h"
#include "platform/kernel.h"

namespace platform {

inline constexpr DWORD ERROR_INVALID_SERVICE_CONTROL = 1052;
inline constexpr DWORD ERROR_SERVICE_REQUEST_TIMEOUT = 1053;
inline constexpr DWORD ERROR_DATABASE_DOES_NOT_EXIST = 1065;
inline constexpr DWORD ERROR_FAILED_SERVICE_CONTROLLER_CONNECT = 1063;
inline constexpr DWORD ERROR_SERVICE_SPECIFIC_ERROR = 1066;
inline constexpr DWORD ERROR_PROCESS_ABORTED = 1067;
inline constexpr DWORD ERROR_INVALID_SERVICE_LOCK = 1071;
// The exit code a service that has never run reads with.
inline constexpr DWORD ERROR_SERVICE_NEVER_STARTED = 1077;
inline constexpr DWORD RPC_S_SERVER_UNAVAILABLE = 1722;

// Manager rights.
inline constexpr DWORD SC_MANAGER_CONNECT = 0x0001;
inline constexpr DWORD SC_MANAGER_CREATE_SERVICE = 0x0002;
inline constexpr DWORD SC_MANAGER_ENUMERATE_SERVICE = 0x0004;
inline constexpr DWORD SC_MANAGER_LOCK = 0x0008;
inline constexpr DWORD SC_MANAGER_QUERY_LOCK_STATUS = 0x0010;
inline constexpr DWORD SC_MANAGER_MODIFY_BOOT_CONFIG = 0x0020;
inline constexpr DWORD SC_MANAGER_ALL_ACCESS = 0x000F003F;

// Service rights.
inline constexpr DWORD SERVICE_QUERY_CONFIG = 0x0001;
inline constexpr DWORD SERVICE_CHANGE_CONFIG = 0x0002;
inline constexpr DWORD SERVICE_QUERY_STATUS = 0x0004;
inline constexpr DWORD SERVICE_ENUMERATE_DEPENDENTS = 0x0008;
inline constexpr DWORD SERVICE_START = 0x0010;
inline constexpr DWORD SERVICE_STOP = 0x0020;
inline constexpr DWORD SERVICE_PAUSE_CONTINUE = 0x0040;
inline constexpr DWORD SERVICE_INTERROGATE = 0x0080;
inline constexpr DWORD SERVICE_USER_DEFINED_CONTROL = 0x0100;
inline constexpr DWORD SERVICE_ALL_ACCESS = 0x000F01FF;

// Controls.
inline constexpr DWORD SERVICE_CONTROL_STOP = 1;
inline constexpr DWORD SERVICE_CONTROL_INTERROGATE = 4;

// States.
inline constexpr DWORD SERVICE_STOPPED = 1;
inline constexpr DWORD SERVICE_START_PENDING = 2;
inline constexpr DWORD SERVICE_STOP_PENDING = 3;
inline constexpr DWORD SERVICE_RUNNING = 4;

inline constexpr DWORD SERVICE_WIN32_OWN_PROCESS = 0x10;
inline constexpr DWORD SERVICE_ACCEPT_STOP = 0x1;

struct SERVICE_STATUS {
    DWORD dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    DWORD dwCurrentState = SERVICE_STOPPED;
    DWORD dwControlsAccepted = 0;
    DWORD dwWin32ExitCode = ERROR_SUCCESS;
    DWORD dwServiceSpecificExitCode = 0;
    DWORD dwCheckPoint = 0;
    DWORD dwWaitHint = 0;
};

struct ServiceObject;  // opaque
using SC_HANDLE = ServiceObject*;
struct ServiceLockObject;  // opaque
using SC_LOCK = ServiceLockObject*;

// `machine` empty means this machine (any other name: RPC_S_SERVER_UNAVAILABLE);
// `database` empty or "ServicesActive".
SC_HANDLE OpenSCManagerW(std::u16string_view machine, std::u16string_view database,
                         DWORD desiredAccess);
// Only "OvaspoolSvc" (any case) exists; others: ERROR_SERVICE_DOES_NOT_EXIST.
SC_HANDLE OpenServiceW(SC_HANDLE manager, std::u16string_view serviceName, DWORD desiredAccess);
bool CloseServiceHandle(SC_HANDLE handle);

// One lock per machine, held until unlocked or until its holder ends. A
// second lock, from any process, fails with ERROR_SERVICE_DATABASE_LOCKED;
// a manager handle without SC_MANAGER_LOCK with ERROR_ACCESS_DENIED.
SC_LOCK LockServiceDatabase(SC_HANDLE manager);
bool UnlockServiceDatabase(SC_LOCK lock);

// Starts the service process; ERROR_SERVICE_ALREADY_RUNNING when it runs.
// On the embedded machine a root where the service cannot be recorded fails
// with the file system's error (ERROR_ACCESS_DENIED for a read-only root).
bool StartServiceW(SC_HANDLE service, const std::vector<std::u16string>& arguments);
// SERVICE_CONTROL_STOP: SIGTERM, then waits (up to 30 s) for the process to
// end; `status` reads stopped, or stop-pending if it did not end in time.
// ERROR_SERVICE_NOT_ACTIVE when it is not running. SERVICE_CONTROL_INTERROGATE
// reports the status.
bool ControlService(SC_HANDLE service, DWORD control, SERVICE_STATUS* status);
bool QueryServiceStatus(SC_HANDLE service, SERVICE_STATUS* status);

// ---- inside the service process ----------------------------------------------

struct ServiceStatusObject;  // opaque
using SERVICE_STATUS_HANDLE = ServiceStatusObject*;
using LPHANDLER_FUNCTION = void (*)(DWORD control);

// The handler is called on a thread of its own with SERVICE_CONTROL_STOP when
// the process receives SIGTERM or SIGINT. Null with ERROR_SERVICE_DOES_NOT_EXIST
// for another name, and with ERROR_FAILED_SERVICE_CONTROLLER_CONNECT in a
// process that service control did not start (a program run by hand). On Windows it is called from
// the service's main function (under StartServiceCtrlDispatcherW), and the handler receives every
// control on the dispatcher's thread.
SERVICE_STATUS_HANDLE RegisterServiceCtrlHandlerW(std::u16string_view serviceName,
                                                  LPHANDLER_FUNCTION handler);
// What QueryServiceStatus reports while this process runs.
bool SetServiceStatus(SERVICE_STATUS_HANDLE handle, const SERVICE_STATUS* status);

// ---- owners ------------------------------------------------------------------

struct ServiceHandleTraits {
    using pointer = SC_HANDLE;
    static pointer invalid() noexcept { return nullptr; }
    static void close(pointer h) noexcept { CloseServiceHandle(h); }
};
using UniqueServiceHandle = UniqueHandle<ServiceHandleTraits>;

struct ServiceLockTraits {
    using pointer = SC_LOCK;
    static pointer invalid() noexcept { return nullptr; }
    static void close(pointer h) noexcept { UnlockServiceDatabase(h); }
};
using UniqueServiceLock = UniqueHandle<ServiceLockTraits>;

}  // namespace platform
