#include "object_table.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <utility>

#include "native_error.h"
#include "platform/machine.h"

namespace platform::embedded {

namespace {

constexpr std::uint64_t kMagic = 0x4f56534f424a5431ULL;  // "OVSOBJT1"
constexpr std::uint32_t kVersion = 2;
constexpr std::uint32_t kBuckets = 1024;
// Liveness locks: one byte per pid, far beyond the table's data.
constexpr off_t kLivenessBase = off_t{1} << 40;
constexpr char kSegmentDirectory[] = "/dev/shm";
constexpr char kSegmentPrefix[] = "ovsvc-map-";

struct HolderEntry {
    std::int32_t pid;
    std::uint32_t next;  // index + 1
    std::uint64_t unused;
    std::uint32_t count;
    std::uint32_t unused2;
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

// This process's id, asked of the system once (and again in a forked child).
std::atomic<int> g_selfPid{0};

int SelfPid() {
    int pid = g_selfPid.load(std::memory_order_relaxed);
    if (pid == 0) {
        static const bool hooked = [] {
            pthread_atfork(nullptr, nullptr, [] { g_selfPid.store(0); });
            return true;
        }();
        (void)hooked;
        pid = getpid();
        g_selfPid.store(pid, std::memory_order_relaxed);
    }
    return pid;
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

// Open-file-description locks: held per open file, dropped by the system
// when the last descriptor of that open file closes (at the latest when the
// process ends), never by closing another descriptor of the same file.
bool LockShared(int fd, off_t start, off_t length) {
    struct flock lock {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = start;
    lock.l_len = length;
    return ::fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

// Whether another open file holds a lock on the range (an error counts as
// held: nothing is freed on a doubt).
bool LockedElsewhere(int fd, off_t start, off_t length) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = start;
    lock.l_len = length;
    if (::fcntl(fd, F_OFD_GETLK, &lock) != 0) {
        return true;
    }
    return lock.l_type != F_UNLCK;
}

std::string SegmentName(std::uint64_t tableId, std::uint32_t index, std::uint32_t generation) {
    char name[96];
    std::snprintf(name, sizeof name, "%s%016llx-%u-%u", kSegmentPrefix,
                  static_cast<unsigned long long>(tableId), index, generation);
    return name;
}

std::string SegmentPath(const std::string& name) {
    return std::string(kSegmentDirectory) + "/" + name;
}

// Creates the named segment of `size` bytes, already locked for this
// process, so that no sweep can take it for an orphan. -1 with errno set.
int CreateSegment(const std::string& path, std::uint64_t size) {
    ::unlink(path.c_str());  // a leftover of a table that was reset
    int fd = ::open(kSegmentDirectory, O_TMPFILE | O_RDWR | O_CLOEXEC, 0666);
    if (fd >= 0) {
        char self[64];
        std::snprintf(self, sizeof self, "/proc/self/fd/%d", fd);
        if (::fchmod(fd, 0666) != 0 || ::ftruncate(fd, static_cast<off_t>(size)) != 0 ||
            !LockShared(fd, 0, 0) ||
            ::linkat(AT_FDCWD, self, AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) != 0) {
            const int saved = errno;
            ::close(fd);
            errno = saved;
            return -1;
        }
        return fd;
    }
    // No unnamed files here: named at once, locked a moment later.
    fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) {
        return -1;
    }
    if (::fchmod(fd, 0666) != 0 || ::ftruncate(fd, static_cast<off_t>(size)) != 0 ||
        !LockShared(fd, 0, 0)) {
        const int saved = errno;
        ::close(fd);
        ::unlink(path.c_str());
        errno = saved;
        return -1;
    }
    return fd;
}

int OpenSegment(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    if (fd >= 0 && !LockShared(fd, 0, 0)) {
        const int saved = errno;
        ::close(fd);
        errno = saved;
        return -1;
    }
    return fd;
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
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }

  private:
    int fd_;
};

}  // namespace

void SweepOrphanedSegments() {
    DIR* dir = ::opendir(kSegmentDirectory);
    if (dir == nullptr) {
        return;
    }
    const std::size_t prefixLength = std::strlen(kSegmentPrefix);
    while (const dirent* item = ::readdir(dir)) {
        if (std::strncmp(item->d_name, kSegmentPrefix, prefixLength) != 0) {
            continue;
        }
        const int fd = ::openat(::dirfd(dir), item->d_name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0) {
            continue;
        }
        if (!LockedElsewhere(fd, 0, 0)) {
            ::unlinkat(::dirfd(dir), item->d_name, 0);
        }
        ::close(fd);
    }
    ::closedir(dir);
}

// The table of one root, mapped into this process.
class SharedTable {
  public:
    SharedTable(TableLayout* layout, std::string path) noexcept
        : layout_(layout), path_(std::move(path)) {}
    ~SharedTable() {
        munmap(layout_, sizeof(TableLayout));
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    SharedTable(const SharedTable&) = delete;
    SharedTable& operator=(const SharedTable&) = delete;

    static std::shared_ptr<SharedTable> Open(const std::string& root, DWORD* error);

    TableHeader& header() noexcept { return layout_->header; }
    ObjectEntry& object(std::uint32_t index) noexcept { return layout_->objects[index]; }
    HolderEntry& holder(std::uint32_t index) noexcept { return layout_->holders[index]; }

    std::string SegmentPathOf(std::uint32_t index, std::uint32_t generation) {
        return SegmentPath(SegmentName(header().tableId, index, generation));
    }

    // Makes sure this process has its liveness lock on the table (again
    // after a fork). Not under the table lock.
    DWORD Register();

    // Under the lock.
    std::uint32_t Find(std::uint32_t scope, std::u16string_view name, std::uint64_t hash);
    std::uint32_t AllocateObject();
    std::uint32_t AllocateHolder();
    void FreeObject(std::uint32_t index);
    void AddHolder(std::uint32_t index, int pid);
    void ReleaseHolder(std::uint32_t index, int pid);
    // Drops dead holders of the object up to the first live one (all of
    // them with `all`); frees the object when none is alive. True when it
    // still exists.
    bool DropDeadHolders(std::uint32_t index, int self, bool all);
    void SweepAll(int self);
    void DropRecordsOf(int pid);

  private:
    // Asked of the system each time (one lock test): a holder that died is
    // never taken for alive, so its objects go at once, as on Windows.
    bool Alive(int pid, int self) {
        return pid == self || LockedElsewhere(fd_, kLivenessBase + pid, 1);
    }
    void Unlink(std::uint32_t* link) {
        HolderEntry& r = holder(*link - 1);
        const std::uint32_t k = *link;
        *link = r.next;
        r.next = header().freeHolders;
        header().freeHolders = k;
    }

    TableLayout* layout_;
    std::string path_;
    std::mutex registerLock_;
    int fd_ = -1;
    std::atomic<int> registeredPid_{0};
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
    const std::string path = dir + "/table";
    FileDescriptor fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
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
    auto table = std::make_shared<SharedTable>(layout, path);
    table->fd_ = fd.release();
    if (DWORD e = table->Register(); e != ERROR_SUCCESS) {
        *error = e;
        return nullptr;
    }
    return table;
}

DWORD SharedTable::Register() {
    const int self = SelfPid();
    if (registeredPid_.load(std::memory_order_acquire) == self) {
        return ERROR_SUCCESS;
    }
    std::lock_guard guard(registerLock_);
    if (registeredPid_.load() == self) {
        return ERROR_SUCCESS;
    }
    if (registeredPid_.load() != 0) {
        // A forked child: the inherited open file carries the parent's
        // lock; this process gets an open file of its own.
        const int fd = ::open(path_.c_str(), O_RDWR | O_CLOEXEC);
        if (fd < 0) {
            return Win32ErrorFromErrno(errno);
        }
        ::close(fd_);
        fd_ = fd;
    }
    if (!LockShared(fd_, kLivenessBase + self, 1)) {
        return Win32ErrorFromErrno(errno);
    }
    {
        TableLock lock(header());
        DropRecordsOf(self);  // an earlier process of this pid died holding objects
        SweepAll(self);
    }
    registeredPid_.store(self, std::memory_order_release);
    SweepOrphanedSegments();
    return ERROR_SUCCESS;
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
        ::unlink(SegmentPathOf(index - 1, e.generation).c_str());
    }
    while (e.holderHead != 0) {
        Unlink(&e.holderHead);
    }
    e.type = static_cast<std::uint32_t>(ObjectType::None);
    ++e.generation;
    e.nextInChain = h.freeObjects;
    h.freeObjects = index;
    --h.liveObjects;
}

void SharedTable::AddHolder(std::uint32_t index, int pid) {
    ObjectEntry& e = object(index - 1);
    for (std::uint32_t k = e.holderHead; k != 0; k = holder(k - 1).next) {
        HolderEntry& r = holder(k - 1);
        if (r.pid == pid) {
            ++r.count;
            return;
        }
    }
    const std::uint32_t k = AllocateHolder();  // callers made sure one is free
    HolderEntry& r = holder(k - 1);
    r.pid = pid;
    r.count = 1;
    r.next = e.holderHead;
    e.holderHead = k;
}

void SharedTable::ReleaseHolder(std::uint32_t index, int pid) {
    ObjectEntry& e = object(index - 1);
    for (std::uint32_t* link = &e.holderHead; *link != 0; link = &holder(*link - 1).next) {
        HolderEntry& r = holder(*link - 1);
        if (r.pid == pid) {
            if (--r.count == 0) {
                Unlink(link);
                // The others may all have died without letting go.
                DropDeadHolders(index, pid, false);
            }
            return;
        }
    }
}

bool SharedTable::DropDeadHolders(std::uint32_t index, int self, bool all) {
    ObjectEntry& e = object(index - 1);
    for (std::uint32_t* link = &e.holderHead; *link != 0;) {
        HolderEntry& r = holder(*link - 1);
        if (!Alive(r.pid, self)) {
            Unlink(link);
        } else if (!all) {
            return true;
        } else {
            link = &r.next;
        }
    }
    if (e.holderHead == 0) {
        FreeObject(index);
        return false;
    }
    return true;
}

void SharedTable::SweepAll(int self) {
    const std::uint32_t used = header().objectsUsed;
    for (std::uint32_t i = 1; i <= used; ++i) {
        if (object(i - 1).type != static_cast<std::uint32_t>(ObjectType::None)) {
            DropDeadHolders(i, self, true);
        }
    }
}

void SharedTable::DropRecordsOf(int pid) {
    const std::uint32_t used = header().objectsUsed;
    for (std::uint32_t i = 1; i <= used; ++i) {
        ObjectEntry& e = object(i - 1);
        if (e.type == static_cast<std::uint32_t>(ObjectType::None)) {
            continue;
        }
        for (std::uint32_t* link = &e.holderHead; *link != 0;) {
            if (holder(*link - 1).pid == pid) {
                Unlink(link);
            } else {
                link = &holder(*link - 1).next;
            }
        }
        if (e.holderHead == 0) {
            FreeObject(i);
        }
    }
}

namespace {

struct CurrentState {
    std::mutex mutex;
    std::shared_ptr<SharedTable> table;
    // Every table this process has open, so that going back to a root
    // finds the same one (with this process's records in it) again.
    std::map<std::string, std::weak_ptr<SharedTable>> open;
    bool hooked = false;
};

CurrentState& current() {
    static CurrentState* state = new CurrentState;
    return *state;
}

std::shared_ptr<SharedTable> CurrentTable(DWORD* error) {
    CurrentState& s = current();
    std::shared_ptr<SharedTable> table;
    {
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
            const std::string& root = machine::Root();
            s.table = s.open[root].lock();
            if (!s.table) {
                s.table = SharedTable::Open(root, error);
                s.open[root] = s.table;
                return s.table;
            }
        }
        table = s.table;
    }
    if (DWORD e = table->Register(); e != ERROR_SUCCESS) {  // first use after a fork
        *error = e;
        return nullptr;
    }
    return table;
}

}  // namespace

ObjectRef::ObjectRef(std::shared_ptr<SharedTable> table, std::uint32_t index,
                     std::uint32_t generation) noexcept
    : table_(std::move(table)), index_(index), generation_(generation) {}

ObjectRef::~ObjectRef() {
    TableLock lock(table_->header());
    ObjectEntry& e = table_->object(index_);
    if (e.generation == generation_ && e.type != static_cast<std::uint32_t>(ObjectType::None)) {
        table_->ReleaseHolder(index_ + 1, SelfPid());
    }
}

ObjectEntry& ObjectRef::entry() const noexcept {
    return table_->object(index_);
}

ObjectResult AcquireNamedObject(const ObjectName& name, const ObjectRequest& request) {
    ObjectResult result;
    std::shared_ptr<SharedTable> table = CurrentTable(&result.error);
    if (!table) {
        return result;
    }
    const int self = SelfPid();
    const std::uint64_t hash = HashName(name.scope, name.name);
    TableLock lock(table->header());
    std::uint32_t index = table->Find(name.scope, name.name, hash);
    if (index != 0 && !table->DropDeadHolders(index, self, false)) {
        index = 0;  // every holder had died: the object is gone
    }
    auto holdersFull = [&table] {
        const TableHeader& h = table->header();
        return h.freeHolders == 0 && h.holdersUsed >= kMaxHolders;
    };
    if (index != 0) {
        ObjectEntry& e = table->object(index - 1);
        if (e.type != static_cast<std::uint32_t>(request.type)) {
            result.error = ERROR_INVALID_HANDLE;
            return result;
        }
        if (holdersFull()) {
            table->SweepAll(self);
            if (holdersFull() || e.type != static_cast<std::uint32_t>(request.type)) {
                result.error = ERROR_NOT_ENOUGH_MEMORY;
                return result;
            }
        }
        if (request.type == ObjectType::Mapping) {
            result.segmentFd = OpenSegment(table->SegmentPathOf(index - 1, e.generation));
            if (result.segmentFd < 0) {
                result.error = Win32ErrorFromErrno(errno);
                return result;
            }
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
    auto full = [&table, &holdersFull] {
        const TableHeader& h = table->header();
        return (h.freeObjects == 0 && h.objectsUsed >= kMaxObjects) || holdersFull();
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
        result.segmentFd =
            CreateSegment(table->SegmentPathOf(index - 1, e.generation), request.size);
        if (result.segmentFd < 0) {
            result.error = Win32ErrorFromErrno(errno);
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

std::string SegmentPathPrefix() {
    DWORD error = ERROR_SUCCESS;
    std::shared_ptr<SharedTable> table = CurrentTable(&error);
    if (!table) {
        return {};
    }
    const std::string any = SegmentName(table->header().tableId, 0, 0);
    return SegmentPath(any.substr(0, any.size() - 3));  // without "0-0"
}

}  // namespace platform::embedded
