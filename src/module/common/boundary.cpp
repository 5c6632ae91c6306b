#include "common/boundary.h"

#include "trace/trace.h"

namespace ovsvc {

void TraceEscapedException(const char* entry, const char* what) noexcept {
    try {
        OVTRACE(ERR | NORM, "%S: %S escaped; the call fails", entry, what);
    } catch (...) {
        // Nothing more can be said without memory.
    }
}

}  // namespace ovsvc
