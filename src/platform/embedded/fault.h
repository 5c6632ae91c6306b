// Injected failures: machine.conf can make the Nth call of a named platform
// operation fail with a given error, so that failure paths are tested
// against the real platform rather than a double.
//
//   fault.<Operation>=<N>:<error>   the Nth call (from 1) fails
//   fault.<Operation>=*:<error>     every call fails
//   fault.<Operation>=<N>:kill      the process is killed (SIGKILL) at the Nth
//                                   call, before it changes anything
//
// Calls are counted per process from the moment the process first sees the
// setting; a change of machine.conf starts the counts again. Operations are
// named as the Win32 calls they stand for (SetPrinterW, DeletePrinter ...).
#pragma once

#include <string_view>

namespace platform::fault {

// True when this call of `operation` is to fail; the thread's last error is
// then set to the configured error.
bool Inject(std::string_view operation);

}  // namespace platform::fault
