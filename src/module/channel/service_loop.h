// The service side of the request channel.
#pragma once

#include <cstdint>

#include "channel/shm.h"

struct OVSERVICE_STATUS;

namespace ovsvc {

// Runs the loop on the calling thread until the stop flag is seen, a wait
// fails or the events cannot be created. Always returns 0; reports running
// through `statusHandle` (when given) and leaves in `status` why it ended
// (see OVADLLRunMain in ovsvc.h).
std::int32_t ServiceLoop(void* statusHandle, OVSERVICE_STATUS* status);

// Asks a running loop to stop (from any thread or process of the machine).
void ServiceStop();

// Runs the handler of the request now in the area and stores its result.
void Dispatch(SHM* area);

}  // namespace ovsvc
