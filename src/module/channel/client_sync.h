// The client side of the request channel: one request, one reply.
#pragma once

#include <cstdint>

#include "channel/shm.h"

namespace ovsvc {

// Copies a request into the area: strings cut to their fields (255
// characters, the address 15) and always terminated, the properties cut to
// kMaxPropertiesBytes (logged).
void PackRequest(const ClientRequest& request, SHM* area);

// Hands `request` to the service and waits for the reply. Returns the
// service's result or one of the channel's codes (-14, -15, -16, -17).
// `reply` (may be null) receives the reply region. A null request sends
// only the turn (no fields are written).
std::int32_t ClientSync(const ClientRequest* request, ReplyBuffer* reply);

}  // namespace ovsvc
