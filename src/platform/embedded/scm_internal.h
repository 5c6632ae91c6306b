// What the embedded service control manager needs from the security side.
#pragma once

#include <string>

namespace platform::embedded {

// Whether the calling process's token is the local system account or a
// member of BUILTIN\Administrators.
bool CallerIsAdministrator();

// The account name a service process runs as (for OVSVC_USER).
std::string ServiceAccountName();

}  // namespace platform::embedded
