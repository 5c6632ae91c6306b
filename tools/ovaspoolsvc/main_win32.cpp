// ovaspoolsvc.exe: the service host on Windows.
//
// Started by the service control manager it runs as the service
// "OvaspoolSvc": the control handler turns stop and shutdown controls into
// the module's stop request, and the host reports running and stopped.
// Started from a console (or with --console) it runs the same loop in the
// foreground until Ctrl+C, Ctrl+Break, or until another program sets the
// event "Local\ovaspoolsvc-stop-<pid>"; it exits 0. When the loop refuses
// to run (another instance serves) or fails, the service reports stopped
// with the loop's error, and in the foreground the host prints one line
// saying why and exits 1.
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <string>
#include <thread>

#include "ovsvc.h"
#include "stop_reason.h"

namespace {

wchar_t g_serviceName[] = L"OvaspoolSvc";
SERVICE_STATUS_HANDLE g_statusHandle = nullptr;
SERVICE_STATUS g_status{};

void ReportState(DWORD state, DWORD waitHint, const OVSERVICE_STATUS* end = nullptr) {
    g_status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    g_status.dwCurrentState = state;
    g_status.dwControlsAccepted =
        state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN : 0;
    g_status.dwWin32ExitCode = end != nullptr ? end->dwWin32ExitCode : NO_ERROR;
    g_status.dwServiceSpecificExitCode = end != nullptr ? end->dwServiceSpecificExitCode : 0;
    g_status.dwWaitHint = waitHint;
    g_status.dwCheckPoint =
        state == SERVICE_RUNNING || state == SERVICE_STOPPED ? 0 : g_status.dwCheckPoint + 1;
    SetServiceStatus(g_statusHandle, &g_status);
}

DWORD WINAPI ControlHandler(DWORD control, DWORD, LPVOID, LPVOID) {
    switch (control) {
        case SERVICE_CONTROL_STOP:
        case SERVICE_CONTROL_SHUTDOWN:
            ReportState(SERVICE_STOP_PENDING, 10000);
            OVADLLServiceStoped();
            return NO_ERROR;
        case SERVICE_CONTROL_INTERROGATE:
            return NO_ERROR;
        default:
            return ERROR_CALL_NOT_IMPLEMENTED;
    }
}

// The product's installer creates the product key; a machine that has had
// no installer gets it here, or the service could not load its table.
void EnsureProductKey() {
    HKEY key = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"Software\\Orvelle\\Ovaspool", 0, nullptr, 0,
                        KEY_ALL_ACCESS, nullptr, &key, nullptr) == ERROR_SUCCESS) {
        RegCloseKey(key);
    }
}

// Runs the loop; the record says why it ended (ovsvc.h). With a status
// handle the loop itself reports running once it serves.
OVSERVICE_STATUS RunLoop(void* statusHandle) {
    OVSERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = SERVICE_START_PENDING;
    OVADLLRunMain(statusHandle, &status);
    return status;
}

std::string Reason(const OVSERVICE_STATUS& status) {
    return ovaspoolsvc::StopReason(status);
}

void WINAPI ServiceMain(DWORD, LPWSTR*) {
    g_statusHandle = RegisterServiceCtrlHandlerExW(g_serviceName, ControlHandler, nullptr);
    if (g_statusHandle == nullptr) {
        return;
    }
    ReportState(SERVICE_START_PENDING, 30000);
    EnsureProductKey();
    const OVSERVICE_STATUS end = RunLoop(g_statusHandle);
    ReportState(SERVICE_STOPPED, 0, &end);
}

BOOL WINAPI ConsoleHandler(DWORD event) {
    if (event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT || event == CTRL_CLOSE_EVENT) {
        OVADLLServiceStoped();
        return TRUE;
    }
    return FALSE;
}

int RunConsole() {
    EnsureProductKey();
    SetConsoleCtrlHandler(ConsoleHandler, TRUE);
    const std::wstring stopName =
        L"Local\\ovaspoolsvc-stop-" + std::to_wstring(GetCurrentProcessId());
    HANDLE stopEvent = CreateEventW(nullptr, TRUE, FALSE, stopName.c_str());
    HANDLE loopEnded = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::thread stopper([stopEvent, loopEnded] {
        HANDLE both[2] = {stopEvent, loopEnded};
        if (WaitForMultipleObjects(2, both, FALSE, INFINITE) == WAIT_OBJECT_0) {
            OVADLLServiceStoped();
        }
    });
    const OVSERVICE_STATUS end = RunLoop(nullptr);
    SetEvent(loopEnded);
    stopper.join();
    CloseHandle(loopEnded);
    CloseHandle(stopEvent);
    if (end.dwWin32ExitCode != NO_ERROR) {
        std::fprintf(stderr, "ovaspoolsvc: the service cannot run: %s\n", Reason(end).c_str());
        return 1;
    }
    return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::wcscmp(argv[i], L"--console") == 0) {
            return RunConsole();
        }
    }
    SERVICE_TABLE_ENTRYW table[] = {{g_serviceName, ServiceMain}, {nullptr, nullptr}};
    if (StartServiceCtrlDispatcherW(table)) {
        return 0;
    }
    if (GetLastError() == ERROR_FAILED_SERVICE_CONTROLLER_CONNECT) {
        return RunConsole();  // not started by the service control manager
    }
    std::fprintf(stderr, "ovaspoolsvc: service dispatcher failed (%lu)\n", GetLastError());
    return 1;
}
