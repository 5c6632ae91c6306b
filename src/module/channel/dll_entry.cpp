// Load and unload of the shared library: runs the module's attach when the
// library is loaded and its detach when it is unloaded or the process ends.
#include "channel/startup.h"

namespace {

struct ModuleLifetime {
    ModuleLifetime() { ovsvc::ModuleAttach(); }
    ~ModuleLifetime() { ovsvc::ModuleDetach(); }
    ModuleLifetime(const ModuleLifetime&) = delete;
    ModuleLifetime& operator=(const ModuleLifetime&) = delete;
};

const ModuleLifetime g_moduleLifetime;

}  // namespace
