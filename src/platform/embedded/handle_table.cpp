#include "handle_table.h"

#include <cstdint>

namespace platform::embedded {

namespace {

// Handle value layout: bits 0-1 zero, bits 2-19 slot index + 1, bits 20-30
// the slot's generation. Values stay below 2^31, like Windows handles.
constexpr unsigned kIndexShift = 2;
constexpr unsigned kIndexBits = 18;
constexpr unsigned kGenerationShift = kIndexShift + kIndexBits;
constexpr std::uint32_t kGenerationMask = 0x7FF;

HANDLE Encode(std::size_t index, std::uint32_t generation) {
    const std::uintptr_t value =
        (static_cast<std::uintptr_t>(index + 1) << kIndexShift) |
        (static_cast<std::uintptr_t>(generation & kGenerationMask) << kGenerationShift);
    return reinterpret_cast<HANDLE>(value);
}

bool Decode(HANDLE handle, std::size_t* index, std::uint32_t* generation) {
    const auto value = reinterpret_cast<std::uintptr_t>(handle);
    if (value == 0 || (value & 3) != 0 || value >= (std::uintptr_t{1} << 31)) {
        return false;
    }
    const std::uintptr_t slot = (value >> kIndexShift) & ((std::uintptr_t{1} << kIndexBits) - 1);
    if (slot == 0) {
        return false;
    }
    *index = slot - 1;
    *generation = static_cast<std::uint32_t>(value >> kGenerationShift) & kGenerationMask;
    return true;
}

}  // namespace

static_assert(HandleTable::kChunks * HandleTable::kChunkSlots < (std::size_t{1} << kIndexBits));

DWORD HandleObject::Wait(DWORD /*milliseconds*/) {
    SetLastError(ERROR_INVALID_HANDLE);
    return 0xFFFFFFFF;  // WAIT_FAILED
}

HandleTable& HandleTable::Instance() {
    static HandleTable* table = new HandleTable;  // handles may be closed during exit
    return *table;
}

HandleTable::Slot* HandleTable::SlotAt(std::size_t index) const noexcept {
    const std::size_t chunk = index / kChunkSlots;
    if (chunk >= kChunks) {
        return nullptr;
    }
    Chunk* c = chunks_[chunk].load(std::memory_order_acquire);
    return c == nullptr ? nullptr : &c->slots[index % kChunkSlots];
}

HANDLE HandleTable::Insert(std::shared_ptr<HandleObject> object, DWORD access) {
    std::size_t index = 0;
    {
        std::lock_guard guard(allocLock_);
        if (!free_.empty()) {
            index = free_.back();
            free_.pop_back();
        } else {
            if (used_ >= kChunks * kChunkSlots) {
                SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                return nullptr;
            }
            index = used_;
            const std::size_t chunk = index / kChunkSlots;
            if (chunks_[chunk].load(std::memory_order_relaxed) == nullptr) {
                chunks_[chunk].store(new Chunk, std::memory_order_release);
            }
            ++used_;
        }
    }
    Slot* slot = SlotAt(index);
    std::lock_guard guard(slot->lock);
    slot->object = std::move(object);
    slot->access = access;
    open_.fetch_add(1, std::memory_order_relaxed);
    return Encode(index, slot->generation);
}

HandleRef HandleTable::Lookup(HANDLE handle) const {
    std::size_t index = 0;
    std::uint32_t generation = 0;
    if (!Decode(handle, &index, &generation)) {
        return {};
    }
    Slot* slot = SlotAt(index);
    if (slot == nullptr) {
        return {};
    }
    std::lock_guard guard(slot->lock);
    if (slot->object == nullptr || (slot->generation & kGenerationMask) != generation) {
        return {};
    }
    return HandleRef{slot->object, slot->access};
}

std::shared_ptr<HandleObject> HandleTable::Remove(HANDLE handle) {
    std::size_t index = 0;
    std::uint32_t generation = 0;
    if (!Decode(handle, &index, &generation)) {
        return nullptr;
    }
    Slot* slot = SlotAt(index);
    if (slot == nullptr) {
        return nullptr;
    }
    std::shared_ptr<HandleObject> object;
    {
        std::lock_guard guard(slot->lock);
        if (slot->object == nullptr || (slot->generation & kGenerationMask) != generation) {
            return nullptr;
        }
        object = std::move(slot->object);
        slot->object = nullptr;
        slot->access = 0;
        ++slot->generation;
    }
    open_.fetch_sub(1, std::memory_order_relaxed);
    std::lock_guard guard(allocLock_);
    free_.push_back(static_cast<std::uint32_t>(index));
    return object;
}

std::size_t HandleTable::OpenCount() const {
    return open_.load(std::memory_order_relaxed);
}

}  // namespace platform::embedded
