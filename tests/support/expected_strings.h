// The module's string table as the product shows it: the oracle the
// resource tests compare the built tables against (embedded and DLL alike).
#pragma once

#include <initializer_list>
#include <utility>

namespace ovtest {

inline constexpr std::pair<unsigned, const char*> kExpectedStrings[] = {
    {101, "Printer created by Ovaspool"},
    {104, "Can't create the event!"},
    {106, "Cannot open the 'Ovaspool' registry key (fatal error)!"},
    {107, "Query access rights from registry failed (%d)!"},
    {108, "Cannot create registry key or values (fatal error)!"},
    {109, "Can't create SHM segment."},
    {110, "Can't create mapping of SHM"},
    {111, "No response from client at the acknowledge (fatal error)!"},
    {112, "OvaspoolSvc"},
    {113, "Waiting for single object is failed. Ovaspool service is stopped."},
    {114, "Create \""},
    {115, "\" from \""},
};

// Ids around and between the table's, which must find nothing.
inline constexpr unsigned kAbsentStringIds[] = {0u, 100u, 102u, 103u, 105u, 116u, 65535u};

}  // namespace ovtest
