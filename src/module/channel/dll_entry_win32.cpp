// The library's entry point on Windows. It runs under the loader's lock, so
// it does only what is safe there: the module handle is noted and thread
// notifications are switched off at attach; the module's own start-up (the
// registry, the version resource, the shared area) waits for the first call
// into the module (EnsureModuleStarted). At process exit nothing is done:
// the system takes the memory and handles back, and other threads may
// already be gone. An explicit unload releases the shared area and the
// cache, without tracing, loading a library or reading the registry.
#include "channel/startup.h"
#include "platform/resources.h"

namespace {
constexpr unsigned long kProcessDetach = 0;
constexpr unsigned long kProcessAttach = 1;
}  // namespace

extern "C" int __stdcall DllMain(void* instance, unsigned long reason, void* reserved) {
    if (reason == kProcessAttach) {
        platform::DisableThreadLibraryCalls(static_cast<platform::HMODULE>(instance));
    } else if (reason == kProcessDetach && reserved == nullptr && ovsvc::ModuleStarted()) {
        ovsvc::ModuleReleaseQuietly();
    }
    return 1;
}
