// Process-wide state of the module that several subsystems look at.
#pragma once

#include <atomic>

namespace ovsvc {

// True only in the process that runs the service loop; every process starts
// as a client.
inline std::atomic<bool> fIsService{false};

// Whether the management framework accepted the module at load.
inline bool fFrameworkLogin = false;

// The service's printer cache; created by the first request the service
// loop receives and kept until the module unloads.
class OVACache;
inline OVACache* pthePrinterList = nullptr;

// Creates the printer cache if there is none; false when it cannot be made.
bool InitPrinterList();
// Destroys the printer cache, if any.
void DestroyPrinterList();

}  // namespace ovsvc
