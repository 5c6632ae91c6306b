// The process-wide handle table of the embedded platform.
//
// Every kernel handle the platform hands out (events, mappings, files,
// processes, threads, pipes, tokens ...) is a slot in this table holding a
// reference-counted HandleObject and the access the handle was granted.
// Backends derive their object type from HandleObject, insert it to get a
// HANDLE, and look it up again by kind. CloseHandle removes the slot; the
// object itself goes away when the last handle (or other holder of its
// shared_ptr) lets go, so its destructor is where a backend releases what
// the handle stood for.
//
// HANDLE values are small multiples of four, never null and never
// INVALID_HANDLE_VALUE; a closed handle's value is not valid again until its
// slot is reused, and reuse changes the value's upper bits, so a stale handle
// fails with ERROR_INVALID_HANDLE instead of reaching the new object.
//
// Look-ups take no process-wide lock: one short per-slot lock guards the
// copy of the reference, so different handles never contend.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/error.h"
#include "platform/handle.h"

namespace platform::embedded {

enum class HandleKind : std::uint32_t {
    Event,
    Mapping,
    File,
    Process,
    Thread,
    Pipe,
    Token,
    Other,
};

class HandleObject {
  public:
    explicit HandleObject(HandleKind kind) noexcept : kind_(kind) {}
    virtual ~HandleObject() = default;
    HandleObject(const HandleObject&) = delete;
    HandleObject& operator=(const HandleObject&) = delete;

    [[nodiscard]] HandleKind kind() const noexcept { return kind_; }

    // WaitForSingleObject on a handle to this object: WAIT_OBJECT_0 when
    // signalled, WAIT_TIMEOUT, or WAIT_FAILED with the last error set. The
    // caller has already checked that the handle grants SYNCHRONIZE. Kinds
    // that cannot be waited on keep this default (WAIT_FAILED,
    // ERROR_INVALID_HANDLE).
    virtual DWORD Wait(DWORD milliseconds);

  private:
    HandleKind kind_;
};

// What a look-up yields: the object and the access of the handle used.
struct HandleRef {
    std::shared_ptr<HandleObject> object;
    DWORD access = 0;
    explicit operator bool() const noexcept { return object != nullptr; }
};

class HandleTable {
  public:
    // The one table of this process.
    static HandleTable& Instance();

    // A new handle for `object` with the given access; nullptr with
    // ERROR_NOT_ENOUGH_MEMORY when the table is full.
    [[nodiscard]] HANDLE Insert(std::shared_ptr<HandleObject> object, DWORD access);

    // The object behind an open handle; empty for anything else (the last
    // error is not touched).
    [[nodiscard]] HandleRef Lookup(HANDLE handle) const;

    // The object behind an open handle of the given kind, cast to the
    // backend's type; empty for other kinds and for invalid handles.
    template <typename T>
    [[nodiscard]] std::shared_ptr<T> LookupAs(HANDLE handle, HandleKind kind,
                                              DWORD* access = nullptr) const {
        HandleRef ref = Lookup(handle);
        if (!ref || ref.object->kind() != kind) {
            return nullptr;
        }
        if (access != nullptr) {
            *access = ref.access;
        }
        return std::static_pointer_cast<T>(std::move(ref.object));
    }

    // Empties the handle's slot and returns the object it held (empty when
    // the handle was not open). The object is released by the caller, outside
    // any table lock.
    [[nodiscard]] std::shared_ptr<HandleObject> Remove(HANDLE handle);

    // Number of open handles, for tests and diagnostics.
    [[nodiscard]] std::size_t OpenCount() const;

    static constexpr std::size_t kChunkSlots = 1024;
    static constexpr std::size_t kChunks = 128;

  private:
    struct Slot {
        mutable std::mutex lock;
        std::shared_ptr<HandleObject> object;
        DWORD access = 0;
        std::uint32_t generation = 0;
    };
    struct Chunk {
        std::array<Slot, kChunkSlots> slots;
    };

    HandleTable() = default;
    Slot* SlotAt(std::size_t index) const noexcept;

    std::array<std::atomic<Chunk*>, kChunks> chunks_{};
    std::mutex allocLock_;  // guards growth and the free list, never look-ups
    std::vector<std::uint32_t> free_;
    std::size_t used_ = 0;  // slots handed out at least once
    std::atomic<std::size_t> open_{0};
};

}  // namespace platform::embedded
