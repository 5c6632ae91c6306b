// Fitting a create request's printer properties into the request area.
#pragma once

#include "channel/shm.h"

namespace ovsvc {

// Drops trailing property lists (trays, papers, resolutions) that would not
// fit into kMaxPropertiesBytes, measuring in bytes; drops all properties
// when even the first list does not fit. A request whose length is exactly
// kMaxPropertiesBytes, or whose lists cannot be told apart, is left as it is.
void TrimProperties(ClientRequest* request);

}  // namespace ovsvc
