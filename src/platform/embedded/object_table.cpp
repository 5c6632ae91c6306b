#include "object_table.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <random>
#include <sstream>
#include <unordered_map>

#include "native_error.h"
#include "platform/machine.h"

namespace platform::embedded {

namespace {

constexpr std::uint64_t kMagic = 0x4f56534f424a5431ULL;  // "OVSOBJT1"
constexpr std::uint32_t kVersion = 1;
constexpr std::uint32_t kBuckets = 1024;

struct HolderEntry {
    std::int32_t pid;
    std::uint32_t next;  // index + 1
    std::uint64_t startTime;
    std::uint32_t count;
    std::uint32_t unused;
};

struct TableHeader {
    std::uint64_t magic;
    std::uint32_t version;
    std::uint32_t liveObjects;
    std::uint64_t tableId;
    char bootId[48];
    pthread_mutex_t lock;
    std::uint32_t buckets[kBuckets];  // index + 1 of the first entry of each chain
    std::uint32_t freeObjects;        // index + 1
    std::uint32_t freeHolders;        // index + 1
    std::uint32_t objectsUsed;        // entries ever handed out
    std::uint32_t holdersUsed;
};

struct TableLayout {
    TableHeader header;
    ObjectEntry objects[kMaxObjects];
    HolderEntry holders[kMaxHolders];
};

std::string ReadBootId() {
    std::ifstream in("/proc/sys/kernel/random/boot_id");
    std::string id;
    std::getline(in, id);
    return id;
}

// Start time of a process in clock ticks since boot; 0 when it is gone or a
// zombie. When /proc does not show the process (a hidden /proc of another
// user), a process that still accepts signals counts as alive with an
// unknown start time, kUnknownStart.
constexpr std::uint64_t kUnknownStart = ~std::uint64_t{0};

std::uint64_t ProcessStartTime(int pid) {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
    std::ifstream in(path);
    std::string line;
    if (!std::getline(in, line)) {
        return (::kill(pid, 0) == 0 || errno == EPERM) ? kUnknownStart : 0;
    }
    const auto close = line.rfind(')');
    if (close == std::string::npos) {
        return 0;
    }
    std::istringstream fields(line.substr(close + 1));
    std::string state;
    fields >> state;
    if (state == "Z" || state == "X" || state == "x") {
        return 0;
    }
    std::string skip;
    for (int i = 0; i < 18 && fields >> skip; ++i) {
    }
    std::uint64_t start = 0;
    fields >> start;
    return start;
}

struct Self {
    int pid;
    std::uint64_t startTime;
};

Self CurrentProcess() {
    static std::atomic<int> cachedPid{0};
    static std::atomic<std::uint64_t> cachedStart{0};
    const int pid = getpid();
    if (cachedPid.load() != pid) {  // first use, or a forked child
        cachedStart.store(ProcessStartTime(pid));
        cachedPid.store(pid);
    }
    return {pid, cachedStart.load()};
}

std::uint64_t HashName(std::uint32_t scope, std::u16string_view name) {
    std::uint64_t h = 0xcbf29ce484222325ULL;
    auto mix = [&h](std::uint32_t v) {
        for (int i = 0; i < 4; ++i) {
            h ^= (v >> (8 * i)) & 0xFF;
            h *= 0x100000001b3ULL;
        }
    };
    mix(scope);
    for (char16_t c : name) {
        mix(c);
    }
    return h;
}

class FileDescriptor {
  public:
    explicit FileDescriptor(int fd) noexcept : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    [[nodiscard]] int get() const noexcept { return fd_; }

  private:
    int fd_;
};

}  // namespace

// The table of one root, mapped into this process.
class SharedTable {
  public:
    SharedTable(TableLayout* layout, std::string root) noexcept
        : layout_(layout), root_(std::move(root)) {}
    ~SharedTable() { munmap(layout_, sizeof(TableLayout)); }
    SharedTable(const SharedTable&) = delete;
    SharedTable& operator=(const SharedTable&) = delete;

    static std::shared_ptr<SharedTable> Open(const std::string& root, DWORD* error);

    TableHeader& header() noexcept { return layout_->header; }
    ObjectEntry& object(std::uint32_t index) noexcept { return layout_->objects[index]; }
    HolderEntry& holder(std::uint32_t index) noexcept { return layout_->holders[index]; }

    std::string SegmentName(std::uint32_t index, std::uint32_t generation) {
        char name[80];
        std::snprintf(name, sizeof name, "/ovsvc-%016llx-%u-%u",
                      static_cast<unsigned long long>(header().tableId), index, generation);
        return name;
    }

    // Under the lock.
    std::uint32_t Find(std::uint32_t scope, std::u16string_view name, std::uint64_t hash);
    std::uint32_t AllocateObject();
    std::uint32_t AllocateHolder();
    void FreeObject(std::uint32_t index);
    void AddHolder(std::uint32_t index, const Self& self);
    void ReleaseHolder(std::uint32_t index, const Self& self);
    void ReclaimDeadHolders(std::uint32_t index, const Self& self,
                            std::unordered_map<int, std::uint64_t>* known);
    void SweepAll(const Self& self);

  private:
    TableLayout* layout_;
    std::string root_;
};

namespace {

class TableLock {
  public:
    explicit TableLock(TableHeader& header) : mutex_(&header.lock) {
        if (pthread_mutex_lock(mutex_) == EOWNERDEAD) {
            pthread_mutex_consistent(mutex_);  // a holder died inside; the data is still usable
        }
    }
    ~TableLock() { pthread_mutex_unlock(mutex_); }
    TableLock(const TableLock&) = delete;
    TableLock& operator=(const TableLock&) = delete;

  private:
    pthread_mutex_t* mutex_;
};

void InitializeTable(TableLayout* layout, const std::string& bootId) {
    TableHeader& h = layout->header;
    std::memset(&h, 0, sizeof h);
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&h.lock, &attr);
    pthread_mutexattr_destroy(&attr);
    std::random_device random;
    h.tableId = (std::uint64_t{random()} << 32) ^ random();
    std::snprintf(h.bootId, sizeof h.bootId, "%s", bootId.c_str());
    h.version = kVersion;
    std::atomic_ref<std::uint64_t>(h.magic).store(kMagic);
}

}  // namespace

std::shared_ptr<SharedTable> SharedTable::Open(const std::string& root, DWORD* error) {
    const std::string dir = root + "/objects";
    ::mkdir(dir.c_str(), 0777);
    FileDescriptor fd(::open((dir + "/table").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    if (fd.get() < 0) {
        *error = Win32ErrorFromErrno(errno);
        return nullptr;
    }
    // Whoever holds the file lock (re)initialises a new or stale table; the
    // lock is released with the descriptor, also when the process dies.
    if (::flock(fd.get(), LOCK_EX) != 0) {
        *error = Win32ErrorFromErrno(errno);
        return nullptr;
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 ||
        (static_cast<std::size_t>(st.st_size) < sizeof(TableLayout) &&
         ::ftruncate(fd.get(), sizeof(TableLayout)) != 0)) {
        *error = Win32ErrorFromErrno(errno);
        return nullptr;
    }
    void* base =
        ::mmap(nullptr, sizeof(TableLayout), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (base == MAP_FAILED) {
        *error = Win32ErrorFromErrno(errno);
        return nullptr;
    }
    auto* layout = static_cast<TableLayout*>(base);
    const std::string bootId = ReadBootId();
    TableHeader& h = layout->header;
    if (std::atomic_ref<std::uint64_t>(h.magic).load() != kMagic || h.version != kVersion ||
        bootId != h.bootId) {
        // New, from another layout, or from before a reboot: nobody can hold these
        // objects. Cutting the file to nothing zeroes it without touching every page.
        if (::ftruncate(fd.get(), 0) != 0 || ::ftruncate(fd.get(), sizeof(TableLayout)) != 0) {
            *error = Win32ErrorFromErrno(errno);
            ::munmap(base, sizeof(TableLayout));
            return nullptr;
        }
        InitializeTable(layout, bootId);
    }
    ::flock(fd.get(), LOCK_UN);
    return std::make_shared<SharedTable>(layout, root);
}

std::uint32_t SharedTable::Find(std::uint32_t scope, std::u16string_view name, std::uint64_t hash) {
    for (std::uint32_t i = header().buckets[hash % kBuckets]; i != 0;
         i = object(i - 1).nextInChain) {
        ObjectEntry& e = object(i - 1);
        if (e.hash == hash && e.scope == scope && e.nameLength == name.size() &&
            std::u16string_view(e.name, e.nameLength) == name) {
            return i;
        }
    }
    return 0;
}

std::uint32_t SharedTable::AllocateObject() {
    TableHeader& h = header();
    if (h.freeObjects != 0) {
        const std::uint32_t i = h.freeObjects;
        h.freeObjects = object(i - 1).nextInChain;
        return i;
    }
    if (h.objectsUsed < kMaxObjects) {
        return ++h.objectsUsed;
    }
    return 0;
}

std::uint32_t SharedTable::AllocateHolder() {
    TableHeader& h = header();
    if (h.freeHolders != 0) {
        const std::uint32_t i = h.freeHolders;
        h.freeHolders = holder(i - 1).next;
        return i;
    }
    if (h.holdersUsed < kMaxHolders) {
        return ++h.holdersUsed;
    }
    return 0;
}

void SharedTable::FreeObject(std::uint32_t index) {
    ObjectEntry& e = object(index - 1);
    TableHeader& h = header();
    for (std::uint32_t* link = &h.buckets[e.hash % kBuckets]; *link != 0;
         link = &object(*link - 1).nextInChain) {
        if (*link == index) {
            *link = e.nextInChain;
            break;
        }
    }
    if (e.type == static_cast<std::uint32_t>(ObjectType::Mapping)) {
        ::shm_unlink(SegmentName(index - 1, e.generation).c_str());
    }
    for (std::uint32_t k = e.holderHead; k != 0;) {
        const std::uint32_t next = holder(k - 1).next;
        holder(k - 1).next = h.freeHolders;
        h.freeHolders = k;
        k = next;
    }
    e.holderHead = 0;
    e.type = static_cast<std::uint32_t>(ObjectType::None);
    ++e.generation;
    e.nextInChain = h.freeObjects;
    h.freeObjects = index;
    --h.liveObjects;
}

void SharedTable::AddHolder(std::uint32_t index, const Self& self) {
    ObjectEntry& e = object(index - 1);
    for (std::uint32_t k = e.holderHead; k != 0; k = holder(k - 1).next) {
        HolderEntry& r = holder(k - 1);
        if (r.pid == self.pid && r.startTime == self.startTime) {
            ++r.count;
            return;
        }
    }
    const std::uint32_t k = AllocateHolder();  // callers made sure one is free
    HolderEntry& r = holder(k - 1);
    r.pid = self.pid;
    r.startTime = self.startTime;
    r.count = 1;
    r.next = e.holderHead;
    e.holderHead = k;
}

void SharedTable::ReleaseHolder(std::uint32_t index, const Self& self) {
    ObjectEntry& e = object(index - 1);
    for (std::uint32_t* link = &e.holderHead; *link != 0; link = &holder(*link - 1).next) {
        HolderEntry& r = holder(*link - 1);
        if (r.pid == self.pid && r.startTime == self.startTime) {
            if (--r.count == 0) {
                const std::uint32_t k = *link;
                *link = r.next;
                r.next = header().freeHolders;
                header().freeHolders = k;
            }
            break;
        }
    }
    if (e.holderHead == 0) {
        FreeObject(index);
    }
}

void SharedTable::ReclaimDeadHolders(std::uint32_t index, const Self& self,
                                     std::unordered_map<int, std::uint64_t>* known) {
    ObjectEntry& e = object(index - 1);
    for (std::uint32_t* link = &e.holderHead; *link != 0;) {
        HolderEntry& r = holder(*link - 1);
        std::uint64_t start = 0;
        if (r.pid == self.pid) {
            start = self.startTime;
        } else if (auto it = known->find(r.pid); it != known->end()) {
            start = it->second;
        } else {
            start = ProcessStartTime(r.pid);
            known->emplace(r.pid, start);
        }
        if (start == 0 || (start != kUnknownStart && start != r.startTime)) {
            const std::uint32_t k = *link;
            *link = r.next;
            r.next = header().freeHolders;
            header().freeHolders = k;
        } else {
            link = &r.next;
        }
    }
    if (e.holderHead == 0) {
        FreeObject(index);
    }
}

void SharedTable::SweepAll(const Self& self) {
    std::unordered_map<int, std::uint64_t> known;
    const std::uint32_t used = header().objectsUsed;
    for (std::uint32_t i = 1; i <= used; ++i) {
        if (object(i - 1).type != static_cast<std::uint32_t>(ObjectType::None)) {
            ReclaimDeadHolders(i, self, &known);
        }
    }
}

namespace {

struct CurrentState {
    std::mutex mutex;
    std::shared_ptr<SharedTable> table;
    bool hooked = false;
};

CurrentState& current() {
    static CurrentState* state = new CurrentState;
    return *state;
}

std::shared_ptr<SharedTable> CurrentTable(DWORD* error) {
    CurrentState& s = current();
    std::lock_guard guard(s.mutex);
    if (!s.hooked) {
        s.hooked = true;
        machine::OnRootChange([] {
            CurrentState& st = current();
            std::lock_guard g(st.mutex);
            st.table.reset();  // objects still open keep their own table alive
        });
    }
    if (!s.table) {
        s.table = SharedTable::Open(machine::Root(), error);
    }
    return s.table;
}

}  // namespace

ObjectRef::ObjectRef(std::shared_ptr<SharedTable> table, std::uint32_t index,
                     std::uint32_t generation) noexcept
    : table_(std::move(table)), index_(index), generation_(generation) {}

ObjectRef::~ObjectRef() {
    TableLock lock(table_->header());
    ObjectEntry& e = table_->object(index_);
    if (e.generation == generation_ && e.type != static_cast<std::uint32_t>(ObjectType::None)) {
        table_->ReleaseHolder(index_ + 1, CurrentProcess());
    }
}

ObjectEntry& ObjectRef::entry() const noexcept {
    return table_->object(index_);
}

std::string ObjectRef::SegmentName() const {
    return table_->SegmentName(index_, generation_);
}

ObjectResult AcquireNamedObject(const ObjectName& name, const ObjectRequest& request) {
    ObjectResult result;
    std::shared_ptr<SharedTable> table = CurrentTable(&result.error);
    if (!table) {
        return result;
    }
    const Self self = CurrentProcess();
    const std::uint64_t hash = HashName(name.scope, name.name);
    TableLock lock(table->header());
    std::unordered_map<int, std::uint64_t> known;
    std::uint32_t index = table->Find(name.scope, name.name, hash);
    if (index != 0) {
        table->ReclaimDeadHolders(index, self, &known);
        index = table->Find(name.scope, name.name, hash);
    }
    if (index != 0) {
        ObjectEntry& e = table->object(index - 1);
        if (e.type != static_cast<std::uint32_t>(request.type)) {
            result.error = ERROR_INVALID_HANDLE;
            return result;
        }
        if (request.type == ObjectType::Mapping) {
            result.segmentFd = ::shm_open(table->SegmentName(index - 1, e.generation).c_str(),
                                          O_RDWR | O_CLOEXEC, 0);
            if (result.segmentFd < 0) {
                result.error = Win32ErrorFromErrno(errno);
                return result;
            }
        }
        if (table->header().freeHolders == 0 && table->header().holdersUsed >= kMaxHolders) {
            table->SweepAll(self);
        }
        if (table->header().freeHolders == 0 && table->header().holdersUsed >= kMaxHolders) {
            if (result.segmentFd >= 0) {
                ::close(result.segmentFd);
                result.segmentFd = -1;
            }
            result.error = ERROR_NOT_ENOUGH_MEMORY;
            return result;
        }
        table->AddHolder(index, self);
        result.existed = true;
        result.ref = std::make_shared<ObjectRef>(table, index - 1, e.generation);
        return result;
    }
    if (!request.create) {
        result.error = ERROR_FILE_NOT_FOUND;
        return result;
    }
    auto full = [&table] {
        const TableHeader& h = table->header();
        return (h.freeObjects == 0 && h.objectsUsed >= kMaxObjects) ||
               (h.freeHolders == 0 && h.holdersUsed >= kMaxHolders);
    };
    if (full()) {
        table->SweepAll(self);
        if (full()) {
            result.error = ERROR_NOT_ENOUGH_MEMORY;
            return result;
        }
    }
    index = table->AllocateObject();
    ObjectEntry& e = table->object(index - 1);
    if (request.type == ObjectType::Mapping) {
        const std::string segment = table->SegmentName(index - 1, e.generation);
        ::shm_unlink(segment.c_str());  // a leftover of a table that was reset
        result.segmentFd = ::shm_open(segment.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (result.segmentFd < 0 ||
            ::ftruncate(result.segmentFd, static_cast<off_t>(request.size)) != 0) {
            result.error = Win32ErrorFromErrno(errno);
            if (result.segmentFd >= 0) {
                ::close(result.segmentFd);
                result.segmentFd = -1;
                ::shm_unlink(segment.c_str());
            }
            e.nextInChain = table->header().freeObjects;
            table->header().freeObjects = index;
            return result;
        }
    }
    std::atomic_ref<std::uint32_t>(e.word).store(request.initialState ? 1 : 0);
    std::atomic_ref<std::uint32_t>(e.waiters).store(0);
    e.type = static_cast<std::uint32_t>(request.type);
    e.manualReset = request.manualReset ? 1 : 0;
    e.scope = name.scope;
    e.nameLength = static_cast<std::uint32_t>(name.name.size());
    std::copy(name.name.begin(), name.name.end(), e.name);
    e.hash = hash;
    e.size = request.size;
    e.protect = request.protect;
    e.holderHead = 0;
    e.nextInChain = table->header().buckets[hash % kBuckets];
    table->header().buckets[hash % kBuckets] = index;
    ++table->header().liveObjects;
    table->AddHolder(index, self);
    result.ref = std::make_shared<ObjectRef>(table, index - 1, e.generation);
    return result;
}

std::uint32_t LiveNamedObjects() {
    DWORD error = ERROR_SUCCESS;
    std::shared_ptr<SharedTable> table = CurrentTable(&error);
    if (!table) {
        return 0;
    }
    TableLock lock(table->header());
    return table->header().liveObjects;
}

}  // namespace platform::embedded
