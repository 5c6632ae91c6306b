// Events: automatic- and manual-reset, named (in the machine's object table)
// or unnamed (in this process), waited on with futexes.
//
// An automatic-reset event's word counts pending releases. A set adds one
// unless there is already one for every thread waiting plus one that keeps
// the event signalled, and each successful wait takes one away: every set
// releases exactly one waiter, and further sets on a signalled event with
// nobody waiting do not pile up.
//
// A manual-reset event's word holds the signal in bit 0 and a count of sets
// above it. A waiter that sees the count move has been released by a set even
// when the event was reset again before it woke up, as Windows releases every
// thread waiting at the time of the set.
#include <time.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include "futex.h"
#include "handle_table.h"
#include "object_table.h"
#include "platform/kernel.h"

namespace platform {

namespace embedded {

namespace {

constexpr DWORD kGenericRead = 0x80000000;
constexpr DWORD kGenericWrite = 0x40000000;
constexpr DWORD kGenericExecute = 0x20000000;
constexpr DWORD kGenericAll = 0x10000000;
constexpr DWORD kEventQueryState = 0x0001;
constexpr DWORD kStandardRightsRead = READ_CONTROL;

DWORD MapEventAccess(DWORD access) {
    DWORD mapped = access & ~(kGenericRead | kGenericWrite | kGenericExecute | kGenericAll);
    if ((access & kGenericRead) != 0) {
        mapped |= kStandardRightsRead | kEventQueryState;
    }
    if ((access & kGenericWrite) != 0) {
        mapped |= kStandardRightsRead | EVENT_MODIFY_STATE;
    }
    if ((access & kGenericExecute) != 0) {
        mapped |= kStandardRightsRead | SYNCHRONIZE;
    }
    if ((access & kGenericAll) != 0) {
        mapped |= EVENT_ALL_ACCESS;
    }
    return mapped;
}

timespec Now() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t;
}

// Time left until `deadline`, false when it has passed.
bool Remaining(const timespec& deadline, timespec* left) {
    const timespec now = Now();
    long long ns = (static_cast<long long>(deadline.tv_sec) - now.tv_sec) * 1000000000LL +
                   (deadline.tv_nsec - now.tv_nsec);
    if (ns <= 0) {
        return false;
    }
    left->tv_sec = static_cast<time_t>(ns / 1000000000LL);
    left->tv_nsec = static_cast<long>(ns % 1000000000LL);
    return true;
}

}  // namespace

class EventObject final : public HandleObject {
  public:
    // An unnamed event.
    EventObject(bool manualReset, bool initialState)
        : HandleObject(HandleKind::Event),
          localWord_(initialState ? 1 : 0),
          word_(&localWord_),
          waiters_(&localWaiters_),
          manual_(manualReset) {}
    // A named event in the object table.
    explicit EventObject(std::shared_ptr<ObjectRef> ref)
        : HandleObject(HandleKind::Event),
          ref_(std::move(ref)),
          word_(&ref_->entry().word),
          waiters_(&ref_->entry().waiters),
          manual_(ref_->entry().manualReset != 0) {}

    void Set() {
        std::atomic_ref<std::uint32_t> word(*word_);
        std::uint32_t current = word.load();
        if (manual_) {
            do {
                if ((current & 1) != 0) {
                    return;
                }
            } while (!word.compare_exchange_weak(current, (current + 2) | 1));
            if (std::atomic_ref<std::uint32_t>(*waiters_).load() != 0) {
                FutexWakeAll(word_);
            }
            return;
        }
        std::uint32_t waiting = 0;
        do {
            waiting = std::atomic_ref<std::uint32_t>(*waiters_).load();
            if (current >= waiting + 1) {
                return;  // every waiter has its release and the event stays signalled
            }
        } while (!word.compare_exchange_weak(current, current + 1));
        if (waiting != 0) {
            FutexWake(word_, 1);
        }
    }

    void Reset() {
        std::atomic_ref<std::uint32_t> word(*word_);
        if (manual_) {
            word.fetch_and(~std::uint32_t{1});
        } else {
            word.store(0);
        }
    }

    DWORD Wait(DWORD milliseconds) override {
        timespec deadline{};
        if (milliseconds != INFINITE && milliseconds != 0) {
            deadline = Now();
            deadline.tv_sec += static_cast<time_t>(milliseconds / 1000);
            deadline.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
            if (deadline.tv_nsec >= 1000000000L) {
                deadline.tv_sec += 1;
                deadline.tv_nsec -= 1000000000L;
            }
        }
        return manual_ ? WaitManual(milliseconds, deadline) : WaitAutomatic(milliseconds, deadline);
    }

  private:
    // Sleeps on the word while it holds `seen`; false when the time is up.
    bool Sleep(std::uint32_t seen, DWORD milliseconds, const timespec& deadline) {
        timespec left{};
        const timespec* timeout = nullptr;
        if (milliseconds != INFINITE) {
            if (!Remaining(deadline, &left)) {
                return false;
            }
            timeout = &left;
        }
        std::atomic_ref<std::uint32_t> waiters(*waiters_);
        waiters.fetch_add(1);
        FutexWait(word_, seen, timeout);
        waiters.fetch_sub(1);
        return true;
    }

    DWORD WaitAutomatic(DWORD milliseconds, const timespec& deadline) {
        std::atomic_ref<std::uint32_t> word(*word_);
        for (;;) {
            std::uint32_t current = word.load();
            while (current != 0) {
                if (word.compare_exchange_weak(current, current - 1)) {
                    return WAIT_OBJECT_0;
                }
            }
            if (milliseconds == 0 || !Sleep(0, milliseconds, deadline)) {
                DropSurplus();
                return WAIT_TIMEOUT;
            }
        }
    }

    // A waiter that gives up may leave more releases than threads waiting;
    // the event then stays signalled once, not once per departed waiter.
    void DropSurplus() {
        std::atomic_ref<std::uint32_t> word(*word_);
        std::uint32_t current = word.load();
        for (;;) {
            const std::uint32_t waiting = std::atomic_ref<std::uint32_t>(*waiters_).load();
            if (current <= waiting + 1) {
                return;
            }
            if (word.compare_exchange_weak(current, current - 1)) {
                current -= 1;
            }
        }
    }

    DWORD WaitManual(DWORD milliseconds, const timespec& deadline) {
        std::atomic_ref<std::uint32_t> word(*word_);
        const std::uint32_t start = word.load();
        if ((start & 1) != 0) {
            return WAIT_OBJECT_0;
        }
        std::uint32_t current = start;
        for (;;) {
            if (milliseconds == 0 || !Sleep(current, milliseconds, deadline)) {
                return WAIT_TIMEOUT;
            }
            current = word.load();
            if ((current & 1) != 0 || (current >> 1) != (start >> 1)) {
                return WAIT_OBJECT_0;
            }
        }
    }

    std::shared_ptr<ObjectRef> ref_;
    std::uint32_t localWord_ = 0;
    std::uint32_t localWaiters_ = 0;
    std::uint32_t* word_;
    std::uint32_t* waiters_;
    bool manual_;
};

namespace {

std::shared_ptr<EventObject> LookupEvent(HANDLE handle, DWORD needed) {
    DWORD access = 0;
    auto event = HandleTable::Instance().LookupAs<EventObject>(handle, HandleKind::Event, &access);
    if (!event) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    if ((access & needed) != needed) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    return event;
}

UniqueEvent Insert(std::shared_ptr<EventObject> event, DWORD access, DWORD error) {
    HANDLE h = HandleTable::Instance().Insert(std::move(event), access);
    if (h != nullptr) {
        SetLastError(error);
    }
    return UniqueEvent(h);
}

}  // namespace

}  // namespace embedded

UniqueEvent CreateEventW(const SecurityAttributes* /*attributes*/, bool manualReset,
                         bool initialState, std::u16string_view name) {
    using namespace embedded;
    if (name.empty() || name.front() == u'\0') {
        return Insert(std::make_shared<EventObject>(manualReset, initialState), EVENT_ALL_ACCESS,
                      ERROR_SUCCESS);
    }
    ObjectName parsed;
    if (DWORD error = ParseObjectNameHere(name, &parsed); error != ERROR_SUCCESS) {
        SetLastError(error);
        return UniqueEvent();
    }
    ObjectRequest request;
    request.type = ObjectType::Event;
    request.create = true;
    request.manualReset = manualReset;
    request.initialState = initialState;
    ObjectResult result = AcquireNamedObject(parsed, request);
    if (!result.ref) {
        SetLastError(result.error);
        return UniqueEvent();
    }
    return Insert(std::make_shared<EventObject>(std::move(result.ref)), EVENT_ALL_ACCESS,
                  result.existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
}

UniqueEvent OpenEventW(DWORD desiredAccess, bool /*inheritHandle*/, std::u16string_view name) {
    using namespace embedded;
    if (name.empty() || name.front() == u'\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return UniqueEvent();
    }
    ObjectName parsed;
    if (DWORD error = ParseObjectNameHere(name, &parsed); error != ERROR_SUCCESS) {
        SetLastError(error);
        return UniqueEvent();
    }
    ObjectRequest request;
    request.type = ObjectType::Event;
    ObjectResult result = AcquireNamedObject(parsed, request);
    if (!result.ref) {
        SetLastError(result.error);
        return UniqueEvent();
    }
    return Insert(std::make_shared<EventObject>(std::move(result.ref)),
                  MapEventAccess(desiredAccess), ERROR_SUCCESS);
}

bool SetEvent(HANDLE event) {
    auto object = embedded::LookupEvent(event, EVENT_MODIFY_STATE);
    if (!object) {
        return false;
    }
    object->Set();
    return true;
}

bool ResetEvent(HANDLE event) {
    auto object = embedded::LookupEvent(event, EVENT_MODIFY_STATE);
    if (!object) {
        return false;
    }
    object->Reset();
    return true;
}

DWORD WaitForSingleObject(HANDLE object, DWORD milliseconds) {
    using namespace embedded;
    HandleRef ref = HandleTable::Instance().Lookup(object);
    if (!ref) {
        SetLastError(ERROR_INVALID_HANDLE);
        return WAIT_FAILED;
    }
    if (ref.object->kind() == HandleKind::Event && (ref.access & SYNCHRONIZE) == 0) {
        SetLastError(ERROR_ACCESS_DENIED);
        return WAIT_FAILED;
    }
    return ref.object->Wait(milliseconds);
}

}  // namespace platform
