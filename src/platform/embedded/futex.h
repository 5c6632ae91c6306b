// Futex calls on words that may live in memory shared between processes
// (the shared variants, never FUTEX_PRIVATE_FLAG).
#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>

namespace platform::embedded {

// Sleeps while *word == expected, at most `timeout` (nullptr: no limit).
// Returns 0 when woken, or the errno (EAGAIN, ETIMEDOUT, EINTR).
inline int FutexWait(std::uint32_t* word, std::uint32_t expected, const timespec* timeout) {
    const long r = ::syscall(SYS_futex, word, FUTEX_WAIT, expected, timeout, nullptr, 0);
    return r == 0 ? 0 : errno;
}

inline void FutexWake(std::uint32_t* word, int count) {
    ::syscall(SYS_futex, word, FUTEX_WAKE, count, nullptr, nullptr, 0);
}

inline void FutexWakeAll(std::uint32_t* word) {
    FutexWake(word, INT_MAX);
}

}  // namespace platform::embedded
