// ovaspoolsvc: the service host. Runs the module's service loop on the main
// thread until SIGTERM or SIGINT, which ask the loop to stop; exits 0.
#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <thread>

#include "ovsvc.h"
#include "platform/registry.h"

namespace {

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
        OVADLLServiceStoped();
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

}  // namespace

int main() {
    EnsureProductKey();
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    std::thread stopper(WaitForStopSignal, signals);
    OVSERVICE_STATUS status{};
    status.dwServiceType = 0x10;  // a service in its own process
    status.dwCurrentState = 2;    // start pending
    OVADLLRunMain(nullptr, &status);
    pthread_kill(stopper.native_handle(), SIGUSR1);
    stopper.join();
    return 0;
}
