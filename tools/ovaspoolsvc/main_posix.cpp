// ovaspoolsvc: the service host. Runs the module's service loop on the main
// thread until SIGTERM or SIGINT, which ask the loop to stop.
//
// Started by service control it is the service OvaspoolSvc: it reports
// start pending, the loop reports running once it serves, and the host
// reports stopped with the loop's reason. Started any other way it runs in
// the foreground and reports nothing. Exits 0 after a stop; when the loop
// refuses to run (another instance serves, the machine root is unusable)
// or fails, prints one line saying why on stderr and exits 1.
#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <string>
#include <thread>

#include "ovsvc.h"
#include "platform/machine.h"
#include "platform/registry.h"
#include "platform/scm.h"
#include "stop_reason.h"

namespace {

platform::SERVICE_STATUS_HANDLE g_statusHandle = nullptr;

void Report(platform::DWORD state, const OVSERVICE_STATUS* end = nullptr) {
    if (g_statusHandle == nullptr) {
        return;
    }
    platform::SERVICE_STATUS status;
    status.dwCurrentState = state;
    if (state == platform::SERVICE_START_PENDING || state == platform::SERVICE_STOP_PENDING) {
        status.dwCheckPoint = 1;
        status.dwWaitHint = 30000;
    }
    if (end != nullptr) {
        status.dwWin32ExitCode = end->dwWin32ExitCode;
        status.dwServiceSpecificExitCode = end->dwServiceSpecificExitCode;
    }
    platform::SetServiceStatus(g_statusHandle, &status);
}

void RequestStop() {
    Report(platform::SERVICE_STOP_PENDING);
    OVADLLServiceStoped();
}

void OnControl(platform::DWORD control) {
    if (control == platform::SERVICE_CONTROL_STOP) {
        RequestStop();
    }
}

// Waits for a stop signal on its own thread, so the stop request runs in an
// ordinary context rather than inside a signal handler.
void WaitForStopSignal(sigset_t signals) {
    int received = 0;
    for (;;) {
        if (sigwait(&signals, &received) != 0) {
            continue;
        }
        if (received == SIGUSR1) {
            return;  // the loop ended by itself
        }
        RequestStop();
    }
}

// The product's installer creates the product key; a fresh embedded machine
// has had no installer, so the host does it. Without the key the service
// would refuse to start (it cannot load its translation table).
void EnsureProductKey() {
    platform::UniqueKey key;
    platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, u"Software\\Orvelle\\Ovaspool", 0,
                              platform::KEY_ALL_ACCESS, &key, nullptr);
}

std::string Reason(const OVSERVICE_STATUS& status) {
    return ovaspoolsvc::StopReason(status);
}

}  // namespace

int main() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    // Refused unless service control started this process.
    g_statusHandle = platform::RegisterServiceCtrlHandlerW(u"OvaspoolSvc", &OnControl);
    Report(platform::SERVICE_START_PENDING);
    EnsureProductKey();

    std::thread stopper(WaitForStopSignal, signals);
    OVSERVICE_STATUS status{};
    status.dwServiceType = platform::SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = platform::SERVICE_START_PENDING;
    OVADLLRunMain(g_statusHandle, &status);
    pthread_kill(stopper.native_handle(), SIGUSR1);
    stopper.join();

    if (status.dwWin32ExitCode == 0) {
        Report(platform::SERVICE_STOPPED, &status);
        return 0;
    }
    std::string line = "ovaspoolsvc: the service cannot run: " + Reason(status);
    if (const std::string problem = platform::machine::RootProblem(); !problem.empty()) {
        line += " (" + problem + ")";
    }
    std::fprintf(stderr, "%s\n", line.c_str());
    std::fflush(stderr);
    Report(platform::SERVICE_STOPPED, &status);
    return 1;
}
