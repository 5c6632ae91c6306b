// Who is calling the spooler: the SIDs of the calling process's token and its
// account name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "platform/error.h"

namespace platform::spool {

// A SID's bytes from its identifier authority (the last of its six bytes)
// and sub-authorities.
std::vector<std::byte> SidBytes(std::uint8_t authority,
                                std::initializer_list<DWORD> subAuthorities);

// The token's user SID first, then the SIDs of its groups.
std::vector<std::vector<std::byte>> CallerSids();

// Whether the caller is the local system account or in Administrators: what
// adding printers, drivers, monitors, ports and print processors needs.
bool CallerIsAdministrator();

}  // namespace platform::spool
