// Load and unload of the shared library on POSIX systems: the module starts
// when the library is loaded (no loader lock stands in the way here) and is
// taken down when it is unloaded or the process ends.
#include "channel/startup.h"

namespace {

struct ModuleLifetime {
    ModuleLifetime() { ovsvc::EnsureModuleStarted(); }
    ~ModuleLifetime() {
        if (ovsvc::ModuleStarted()) {
            ovsvc::ModuleDetach();
        }
    }
    ModuleLifetime(const ModuleLifetime&) = delete;
    ModuleLifetime& operator=(const ModuleLifetime&) = delete;
};

const ModuleLifetime g_moduleLifetime;

}  // namespace
