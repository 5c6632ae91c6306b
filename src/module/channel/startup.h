// What every process that loads the module prepares at load and undoes at
// unload: the object names, the shared request area and the cache locks.
#pragma once

#include <string>

#include "channel/shm.h"
#include "platform/kernel.h"

namespace ovsvc {

// Names of the request channel's kernel objects, global or local forms.
struct ObjectNames {
    std::u16string req1;
    std::u16string req2;
    std::u16string req3;
    std::u16string ack1;
    std::u16string ack2Prefix;  // followed by the thread id as 8 lower-case hex digits
    std::u16string shm;
    std::u16string enumPrefix;  // followed by the thread id in decimal
    bool global = true;
};

const ObjectNames& Names();
std::u16string Ack2Name(std::uint32_t threadId);
std::u16string EnumMappingName(std::uint32_t threadId);

// The shared request area of this process, or null when it could not be created.
SHM* SharedArea();

// The two locks of the printer cache (the map and records; location parsing).
platform::CriticalSection& CacheLock();
platform::CriticalSection& LocationParseLock();

// Creates the test event "Global\OVC-TestDummyGlobalEvent"; false when the
// global namespace cannot be used.
bool IsGlobalNamespaceAvailable();
// Creates or opens the shared request area and maps it; failures are logged
// and reported to the event log.
bool CreateSharedMemory();

// Load and unload of the module in a process. Attach picks the names,
// creates the area and logs the module's version; it never fails.
void ModuleAttach();
void ModuleDetach();

// Runs the attach once per process, on the first call a host makes into
// the module (thread-safe; every exported entry point calls it). On Windows
// the attach cannot run inside the library's entry point: it reads the
// registry and the version resource and creates kernel objects, which under
// the loader's lock can deadlock; so the entry point leaves it to the first
// call.
void EnsureModuleStarted();
bool ModuleStarted();
// What an explicit unload may do under the loader's lock: the shared area
// unmapped and closed and the printer cache freed, with nothing traced,
// loaded or read from the registry.
void ModuleReleaseQuietly();

}  // namespace ovsvc
