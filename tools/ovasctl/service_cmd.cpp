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

const char* ErrorText(DWORD error) {
    switch (error) {
        case ERROR_ACCESS_DENIED:
            return "access denied: an administrator is needed";
        case ERROR_FILE_NOT_FOUND:
            return "the service program ovaspoolsvc was not found";
        case ERROR_SERVICE_ALREADY_RUNNING:
            return "the service is already running";
        case ERROR_SERVICE_NOT_ACTIVE:
            return "the service is not running";
        case ERROR_SERVICE_REQUEST_TIMEOUT:
            return "the service did not report running in time";
        default:
            return "";
    }
}

int Fail(const std::string& what, DWORD error) {
    const std::string problem = RootProblem();
    std::cerr << "ovasctl: " << what << " failed: error " << error << " "
              << (problem.empty() ? ErrorText(error) : problem) << "\n";
    return 1;
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
        std::printf(
            "{\"service\":\"OvaspoolSvc\",\"state\":\"%s\",\"stateCode\":%u,\"checkPoint\":%u,"
            "\"waitHint\":%u,\"exitCode\":%u,\"serviceExitCode\":%u}\n",
            StateText(status.dwCurrentState), status.dwCurrentState, status.dwCheckPoint,
            status.dwWaitHint, status.dwWin32ExitCode, status.dwServiceSpecificExitCode);
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
            ExitCode() = Fail("open service", rc);
            return;
        }
        if (!StartServiceW(svc.get(), {})) {
            ExitCode() = Fail("start", GetLastError());
            return;
        }
        // Started is not running: the service says so itself once it serves,
        // or stops and says why.
        const SERVICE_STATUS status = WaitWhileStarting(svc.get());
        Print(status, *json);
        if (status.dwCurrentState == SERVICE_STOPPED) {
            std::cerr << "ovasctl: start failed: the service stopped: exit code "
                      << status.dwWin32ExitCode << " (" << ExitText(status) << ")\n";
            ExitCode() = 1;
        } else if (status.dwCurrentState == SERVICE_START_PENDING) {
            ExitCode() = Fail("start", ERROR_SERVICE_REQUEST_TIMEOUT);
        }
    });

    auto* stop = service->add_subcommand("stop", "stop the service");
    stop->add_flag("--json", *json, "JSON output");
    stop->callback([json] {
        UniqueServiceHandle svc;
        if (DWORD rc = Open(SERVICE_STOP | SERVICE_QUERY_STATUS, &svc); rc != 0) {
            ExitCode() = Fail("open service", rc);
            return;
        }
        SERVICE_STATUS status;
        if (!ControlService(svc.get(), SERVICE_CONTROL_STOP, &status)) {
            ExitCode() = Fail("stop", GetLastError());
            return;
        }
        // The stop control only asks; wait until the service reports stopped.
        constexpr DWORD kStopWaitMs = 30000;
        const std::uint64_t deadline = GetTickCount64() + kStopWaitMs;
        while (status.dwCurrentState != SERVICE_STOPPED) {
            if (GetTickCount64() > deadline) {
                ExitCode() = Fail("stop: the service did not stop within 30 s", ERROR_TIMEOUT);
                return;
            }
            Sleep(20);
            if (!QueryServiceStatus(svc.get(), &status)) {
                ExitCode() = Fail("status", GetLastError());
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
            ExitCode() = Fail("open service", rc);
            return;
        }
        SERVICE_STATUS status;
        if (!QueryServiceStatus(svc.get(), &status)) {
            ExitCode() = Fail("status", GetLastError());
            return;
        }
        Print(status, *json);
    });
}

const AddCommands reg{&InstallServiceCommands};

}  // namespace

}  // namespace ovasctl
