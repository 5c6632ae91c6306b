// Named kernel objects shared by every process of one machine root.
//
// The bookkeeping lives in one file, <root>/objects/table, mapped shared by
// each process that uses named objects: a robust process-shared mutex, a hash
// index of names, one entry per object (an event's state words live right in
// it) and holder records (pid, count) saying which processes hold the object.
// An object is freed when its last live holder lets go.
//
// Whether a holder is alive is told by a lock, not by /proc: every process
// that uses a table holds a shared open-file-description lock on the byte
// kLivenessBase + pid of the table file for as long as it lives, and the
// system drops it when the process dies, however it dies. Holders are
// checked where one may have died: when an object is opened or created
// (until one live holder is found), when a holder lets go while others
// remain, and, for every object, when a process first uses the table and
// when the table runs full. A process that starts using a table drops the
// records left under its pid by an earlier process of the same pid.
//
// A mapping's memory is a file in the host's shared-memory directory
// (/dev/shm/ovsvc-map-<table id>-<entry>-<generation>), unlinked when the
// object is freed, so two machine roots never share one. Each process with
// the mapping open holds a shared lock on that file. A file that nobody
// holds a lock on belongs to no live process: every process that first uses
// a table removes such files of every root, so the memory of a machine
// whose last holder was killed, or whose root was deleted, does not outlive
// the next process that starts on any machine. Files are created unnamed,
// locked and only then given their name, so a sweep never sees a new one
// without its lock.
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

  private:
    std::shared_ptr<SharedTable> table_;
    std::uint32_t index_;
    std::uint32_t generation_;
};

struct ObjectResult {
    std::shared_ptr<ObjectRef> ref;
    bool existed = false;
    // A mapping's memory, opened read-write and locked for this process; the
    // caller owns the descriptor and keeps it open while it uses the memory.
    int segmentFd = -1;
    DWORD error = ERROR_SUCCESS;
};

// Creates or opens a named object in the current machine root. Errors:
// ERROR_FILE_NOT_FOUND (open of a name nobody holds), ERROR_INVALID_HANDLE
// (the name belongs to an object of another type), ERROR_NOT_ENOUGH_MEMORY
// (table full), or a host error.
ObjectResult AcquireNamedObject(const ObjectName& name, const ObjectRequest& request);

// Number of live named objects in the current root's table (for tests).
std::uint32_t LiveNamedObjects();

// Host paths of the shared-memory files of the current root's mappings
// (for tests).
std::string SegmentPathPrefix();

// Removes the shared-memory files of mappings that no live process holds,
// of every machine root. Runs when a process first uses a table; callable
// again (tools and tests).
void SweepOrphanedSegments();

}  // namespace platform::embedded
