// Named kernel objects shared by every process of one machine root.
//
// The bookkeeping lives in one file, <root>/objects/table, mapped shared by
// each process that uses named objects: a robust process-shared mutex, a hash
// index of names, one entry per object (an event's state words live right in
// it) and holder records (pid, process start time, count) saying which
// processes hold the object. An object is freed when its last holder lets go;
// holders whose process has died are dropped whenever the object is created
// or opened, and from every object when the table runs full. A mapping's
// memory is a POSIX shared-memory segment named after the table's random id,
// unlinked when the object is freed, so two machine roots never share one.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "object_names.h"
#include "platform/error.h"

namespace platform::embedded {

enum class ObjectType : std::uint32_t { None = 0, Event = 1, Mapping = 2 };

inline constexpr std::uint32_t kMaxObjects = 4096;
inline constexpr std::uint32_t kMaxHolders = 16384;

// One object's record in the shared table. Event state words are accessed
// atomically (std::atomic_ref); everything else only under the table lock.
struct alignas(64) ObjectEntry {
    std::uint32_t word;     // event state: tokens (automatic) or set count and signal bit (manual)
    std::uint32_t waiters;  // threads inside a wait on the event
    std::uint32_t type;
    std::uint32_t manualReset;
    std::uint32_t generation;
    std::uint32_t scope;
    std::uint32_t nameLength;
    std::uint32_t nextInChain;  // hash chain or free list, index + 1
    std::uint32_t holderHead;   // index + 1
    std::uint32_t protect;
    std::uint64_t hash;
    std::uint64_t size;
    char16_t name[264];
};

class SharedTable;

// What a create or open asks for.
struct ObjectRequest {
    ObjectType type = ObjectType::None;
    bool create = false;
    bool manualReset = false;
    bool initialState = false;
    std::uint64_t size = 0;
    std::uint32_t protect = 0;
};

// One holder count of this process on a named object. Dropping the last
// reference releases the count; the last count anywhere frees the object.
class ObjectRef {
  public:
    ObjectRef(std::shared_ptr<SharedTable> table, std::uint32_t index,
              std::uint32_t generation) noexcept;
    ~ObjectRef();
    ObjectRef(const ObjectRef&) = delete;
    ObjectRef& operator=(const ObjectRef&) = delete;

    [[nodiscard]] ObjectEntry& entry() const noexcept;
    // Name of the shared-memory segment of a mapping.
    [[nodiscard]] std::string SegmentName() const;

  private:
    std::shared_ptr<SharedTable> table_;
    std::uint32_t index_;
    std::uint32_t generation_;
};

struct ObjectResult {
    std::shared_ptr<ObjectRef> ref;
    bool existed = false;
    int segmentFd = -1;  // a mapping's segment, opened read-write; the caller owns it
    DWORD error = ERROR_SUCCESS;
};

// Creates or opens a named object in the current machine root. Errors:
// ERROR_FILE_NOT_FOUND (open of a name nobody holds), ERROR_INVALID_HANDLE
// (the name belongs to an object of another type), ERROR_NOT_ENOUGH_MEMORY
// (table full), or a host error.
ObjectResult AcquireNamedObject(const ObjectName& name, const ObjectRequest& request);

// Number of live named objects in the current root's table (for tests).
std::uint32_t LiveNamedObjects();

}  // namespace platform::embedded
