// The one way into the module from outside: every exported function (and
// every COM or WMI entry point) runs its body through RunAtBoundary, which
// starts the module on first use and keeps C++ exceptions from crossing the
// ABI. An escaped exception becomes the failure result the entry point
// gives, and one error line in the trace.
#pragma once

#include <exception>
#include <new>
#include <utility>

#include "channel/startup.h"

namespace ovsvc {

// Writes "<entry>: <what> escaped; the call fails" as an error line; never
// throws itself.
void TraceEscapedException(const char* entry, const char* what) noexcept;

template <typename Result, typename Body>
Result RunAtBoundary(const char* entry, Result failure, Body&& body) noexcept {
    try {
        EnsureModuleStarted();
        return std::forward<Body>(body)();
    } catch (const std::bad_alloc&) {
        TraceEscapedException(entry, "out of memory");
    } catch (const std::exception& e) {
        TraceEscapedException(entry, e.what());
    } catch (...) {
        TraceEscapedException(entry, "an unknown exception");
    }
    return failure;
}

template <typename Body>
void RunAtBoundary(const char* entry, Body&& body) noexcept {
    RunAtBoundary(entry, 0, [&] {
        std::forward<Body>(body)();
        return 0;
    });
}

}  // namespace ovsvc
