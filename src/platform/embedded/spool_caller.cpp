// The calling process's identity as the spooler sees it.
#include "spool_caller.h"

#include "spool_store.h"

namespace platform::spool {

std::vector<std::vector<std::byte>> CallerSids() {
    // The local system account, a member of Administrators, Everyone and
    // Authenticated Users.
    return {SidBytes(5, {18}), SidBytes(5, {32, 544}), SidBytes(1, {0}), SidBytes(5, {11})};
}

std::u16string CallerName() {
    return u"NT AUTHORITY\\SYSTEM";
}

}  // namespace platform::spool
