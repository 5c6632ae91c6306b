// Process-wide state of the module that several subsystems look at.
#pragma once

#include <atomic>

namespace ovsvc {

// True only in the process that runs the service loop; every process starts
// as a client.
inline std::atomic<bool> fIsService{false};

}  // namespace ovsvc
