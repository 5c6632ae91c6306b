// PostScript drivers generated for one printer each.
#pragma once

#include <string_view>

namespace ovsvc {

// Deletes a generated driver and the files no other driver uses; the
// spooler's status stays the thread's last error. True when it went.
bool DeletePostScriptDriver(std::u16string_view driverName);

}  // namespace ovsvc
