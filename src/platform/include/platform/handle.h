// Move-only owners for platform handles.
//
// One template, one-line aliases per kind. Kinds whose invalid value is null
// and kinds whose invalid value is INVALID_HANDLE_VALUE are separate traits, as
// on Windows. reset() keeps the thread's last error, so a handle closed on an
// error path never hides the error that caused it.
#pragma once

#include <cstdint>
#include <utility>

#include "platform/error.h"

namespace platform {

using HANDLE = void*;
inline const HANDLE INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(~std::uintptr_t{0});

// Closes any kernel handle (event, mapping, file, process, ...).
// Fails with ERROR_INVALID_HANDLE for a handle that is not open.
bool CloseHandle(HANDLE handle) noexcept;

template <typename Traits>
class UniqueHandle {
public:
    using pointer = typename Traits::pointer;

    UniqueHandle() noexcept = default;
    explicit UniqueHandle(pointer value) noexcept : value_(value) {}
    UniqueHandle(UniqueHandle&& other) noexcept : value_(other.release()) {}
    UniqueHandle& operator=(UniqueHandle&& other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    UniqueHandle(const UniqueHandle&) = delete;
    UniqueHandle& operator=(const UniqueHandle&) = delete;
    ~UniqueHandle() { reset(); }

    [[nodiscard]] pointer get() const noexcept { return value_; }
    [[nodiscard]] bool valid() const noexcept { return value_ != Traits::invalid(); }
    explicit operator bool() const noexcept { return valid(); }

    void reset(pointer value = Traits::invalid()) noexcept {
        if (valid()) {
            LastErrorKeeper keep;
            Traits::close(value_);
        }
        value_ = value;
    }
    [[nodiscard]] pointer release() noexcept { return std::exchange(value_, Traits::invalid()); }

private:
    pointer value_ = Traits::invalid();
};

struct NullHandleTraits {
    using pointer = HANDLE;
    static pointer invalid() noexcept { return nullptr; }
    static void close(pointer h) noexcept { CloseHandle(h); }
};

struct FileHandleTraits {
    using pointer = HANDLE;
    static pointer invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void close(pointer h) noexcept { CloseHandle(h); }
};

using UniqueEvent = UniqueHandle<NullHandleTraits>;
using UniqueMapping = UniqueHandle<NullHandleTraits>;
using UniqueProcess = UniqueHandle<NullHandleTraits>;
using UniqueThread = UniqueHandle<NullHandleTraits>;
using UniquePipe = UniqueHandle<NullHandleTraits>;
using UniqueFile = UniqueHandle<FileHandleTraits>;

}  // namespace platform
