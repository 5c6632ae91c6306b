// Waiting on a word: futexes with a key bit each, shared (never
// FUTEX_PRIVATE_FLAG) so that a word in a named mapping reaches waiters in
// every process that maps it.
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>

#include "platform/kernel.h"

namespace platform {

namespace {

std::uint32_t KeyBits(DWORD key) {
    return key == kAnyWakeKey ? FUTEX_BITSET_MATCH_ANY : std::uint32_t{1} << (key % 32);
}

void Wake(const LONG* address, std::uint32_t bits) {
    ::syscall(SYS_futex, const_cast<LONG*>(address), FUTEX_WAKE_BITSET, INT_MAX, nullptr, nullptr,
              bits);
}

}  // namespace

bool WaitOnAddress(const LONG* address, LONG undesired, DWORD milliseconds, DWORD key) noexcept {
    auto* word = const_cast<LONG*>(address);
    if (std::atomic_ref<LONG>(*word).load() != undesired) {
        return true;
    }
    if (milliseconds == 0) {
        SetLastError(ERROR_TIMEOUT);
        return false;
    }
    timespec deadline{};
    const timespec* until = nullptr;
    if (milliseconds != INFINITE) {
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += static_cast<time_t>(milliseconds / 1000);
        deadline.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
        if (deadline.tv_nsec >= 1000000000L) {
            deadline.tv_sec += 1;
            deadline.tv_nsec -= 1000000000L;
        }
        until = &deadline;  // FUTEX_WAIT_BITSET takes an absolute monotonic time
    }
    const long r = ::syscall(SYS_futex, word, FUTEX_WAIT_BITSET,
                             static_cast<std::uint32_t>(undesired), until, nullptr, KeyBits(key));
    if (r != 0 && errno == ETIMEDOUT) {
        SetLastError(ERROR_TIMEOUT);
        return false;
    }
    return true;
}

void WakeByAddressAll(const LONG* address) noexcept {
    Wake(address, FUTEX_BITSET_MATCH_ANY);
}

void WakeByAddressKey(const LONG* address, DWORD key) noexcept {
    Wake(address, KeyBits(key));
}

}  // namespace platform
