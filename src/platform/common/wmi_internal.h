// What the backends' provider glue shares with the common framework code.
#pragma once

#include <atomic>

namespace platform {

// Objects handed out by glue factories and still alive.
extern std::atomic<long> g_glueObjects;

}  // namespace platform
