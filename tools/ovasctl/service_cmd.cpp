// ovasctl service: start, stop and query OvaspoolSvc through service control.
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include "command.h"
#include "platform/scm.h"

namespace ovasctl {

namespace {

using namespace platform;

const char* StateText(DWORD state) {
    switch (state) {
        case SERVICE_STOPPED:
            return "STOPPED";
        case SERVICE_START_PENDING:
            return "START_PENDING";
        case SERVICE_STOP_PENDING:
            return "STOP_PENDING";
        case SERVICE_RUNNING:
            return "RUNNING";
        default:
            return "UNKNOWN";
    }
}

// What the service manager's codes mean to someone starting the product's
// service; other codes get ovasctl's usual words.
const char* ServiceWords(DWORD error) {
    switch (error) {
        case ERROR_ACCESS_DENIED:
            return "access denied: an administrator is needed";
        case ERROR_FILE_NOT_FOUND:
            return "the service program ovaspoolsvc was not found";
        case ERROR_SERVICE_REQUEST_TIMEOUT:
            return "the service did not report running in time";
        default:
            return "";
    }
}

int Fail(const std::string& command, const std::string& what, DWORD error) {
    return ovasctl::Fail("service " + command, what, error, ServiceWords(error));
}

// Why a service stopped, from its exit code.
std::string ExitText(const SERVICE_STATUS& status) {
    switch (status.dwWin32ExitCode) {
        case ERROR_SERVICE_ALREADY_RUNNING:
            return "another instance of the service is already running";
        case ERROR_PROCESS_ABORTED:
            return "its process ended without reporting why";
        case ERROR_SERVICE_SPECIFIC_ERROR:
            return "service-specific error " + std::to_string(status.dwServiceSpecificExitCode) +
                   "; its log says more";
        default:
            return "see the service's log";
    }
}

// Waits while the service reads start pending, as long as its wait hint
// allows (at least 30 s); the status then.
SERVICE_STATUS WaitWhileStarting(SC_HANDLE service) {
    SERVICE_STATUS status;
    QueryServiceStatus(service, &status);
    const std::uint64_t deadline = GetTickCount64() + std::max<DWORD>(status.dwWaitHint, 30000);
    while (status.dwCurrentState == SERVICE_START_PENDING && GetTickCount64() < deadline) {
        Sleep(20);
        if (!QueryServiceStatus(service, &status)) {
            break;
        }
    }
    return status;
}

void Print(const SERVICE_STATUS& status, bool json) {
    if (json) {
        std::cout << JsonObject()
                         .Text("service", "OvaspoolSvc")
                         .Text("state", StateText(status.dwCurrentState))
                         .Number("stateCode", status.dwCurrentState)
                         .Number("checkPoint", status.dwCheckPoint)
                         .Number("waitHint", status.dwWaitHint)
                         .Number("exitCode", status.dwWin32ExitCode)
                         .Number("serviceExitCode", status.dwServiceSpecificExitCode)
                         .str()
                  << std::endl;
        return;
    }
    std::printf("SERVICE_NAME: OvaspoolSvc\n");
    std::printf("        STATE              : %u  %s\n", status.dwCurrentState,
                StateText(status.dwCurrentState));
    std::printf("        WIN32_EXIT_CODE    : %u\n", status.dwWin32ExitCode);
    std::printf("        SERVICE_EXIT_CODE  : %u\n", status.dwServiceSpecificExitCode);
    std::printf("        CHECKPOINT         : %u\n", status.dwCheckPoint);
    std::printf("        WAIT_HINT          : %u\n", status.dwWaitHint);
}

// Opens the service with `access`; 0 or the error.
DWORD Open(DWORD access, UniqueServiceHandle* service) {
    UniqueServiceHandle manager(OpenSCManagerW(u"", u"", SC_MANAGER_CONNECT));
    if (!manager) {
        return GetLastError();
    }
    *service = UniqueServiceHandle(OpenServiceW(manager.get(), u"OvaspoolSvc", access));
    return *service ? 0 : GetLastError();
}

void InstallServiceCommands(CLI::App& app) {
    auto* service = app.add_subcommand("service", "the OvaspoolSvc service");
    service->require_subcommand(1);
    auto json = std::make_shared<bool>(false);

    auto* start = service->add_subcommand("start", "start the service");
    start->add_flag("--json", *json, "JSON output");
    start->callback([json] {
        UniqueServiceHandle svc;
        if (DWORD rc = Open(SERVICE_START | SERVICE_QUERY_STATUS, &svc); rc != 0) {
            Fail("start", "opening OvaspoolSvc", rc);
            return;
        }
        if (!StartServiceW(svc.get(), {})) {
            Fail("start", "starting OvaspoolSvc", GetLastError());
            return;
        }
        // Started is not running: the service says so itself once it serves,
        // or stops and says why.
        const SERVICE_STATUS status = WaitWhileStarting(svc.get());
        Print(status, *json);
        if (status.dwCurrentState == SERVICE_STOPPED) {
            ovasctl::Fail("service start", "the service stopped: exit code " +
                                               std::to_string(status.dwWin32ExitCode) + " (" +
                                               ExitText(status) + ")");
        } else if (status.dwCurrentState == SERVICE_START_PENDING) {
            Fail("start", "starting OvaspoolSvc", ERROR_SERVICE_REQUEST_TIMEOUT);
        }
    });

    auto* stop = service->add_subcommand("stop", "stop the service");
    stop->add_flag("--json", *json, "JSON output");
    stop->callback([json] {
        UniqueServiceHandle svc;
        if (DWORD rc = Open(SERVICE_STOP | SERVICE_QUERY_STATUS, &svc); rc != 0) {
            Fail("stop", "opening OvaspoolSvc", rc);
            return;
        }
        SERVICE_STATUS status;
        if (!ControlService(svc.get(), SERVICE_CONTROL_STOP, &status)) {
            Fail("stop", "stopping OvaspoolSvc", GetLastError());
            return;
        }
        // The stop control only asks; wait until the service reports stopped.
        constexpr DWORD kStopWaitMs = 30000;
        const std::uint64_t deadline = GetTickCount64() + kStopWaitMs;
        while (status.dwCurrentState != SERVICE_STOPPED) {
            if (GetTickCount64() > deadline) {
                Fail("stop", "the service did not stop within 30 s", ERROR_TIMEOUT);
                return;
            }
            Sleep(20);
            if (!QueryServiceStatus(svc.get(), &status)) {
                Fail("stop", "querying OvaspoolSvc", GetLastError());
                return;
            }
        }
        Print(status, *json);
    });

    auto* query = service->add_subcommand("status", "show the service's status");
    query->add_flag("--json", *json, "JSON output");
    query->callback([json] {
        UniqueServiceHandle svc;
        if (DWORD rc = Open(SERVICE_QUERY_STATUS, &svc); rc != 0) {
            Fail("status", "opening OvaspoolSvc", rc);
            return;
        }
        SERVICE_STATUS status;
        if (!QueryServiceStatus(svc.get(), &status)) {
            Fail("status", "querying OvaspoolSvc", GetLastError());
            return;
        }
        Print(status, *json);
    });
}

const AddCommands reg{&InstallServiceCommands};

}  // namespace

}  // namespace ovasctl
