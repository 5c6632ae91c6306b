// Page-file-backed file mappings: named ones in the machine's object table
// with their memory in a POSIX shared-memory segment, unnamed ones in a
// memory file of this process. A view keeps its mapping alive after the
// mapping's handle is closed.
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <memory>
#include <mutex>

#include "handle_table.h"
#include "native_error.h"
#include "object_table.h"
#include "platform/kernel.h"

namespace platform {

namespace embedded {

namespace {

constexpr DWORD kErrorMappedAlignment = 1132;
constexpr std::uint64_t kAllocationGranularity = 65536;
constexpr DWORD kGenericRead = 0x80000000;
constexpr DWORD kGenericWrite = 0x40000000;
constexpr DWORD kGenericAll = 0x10000000;

DWORD MapMappingAccess(DWORD access) {
    DWORD mapped = access & ~(kGenericRead | kGenericWrite | kGenericAll);
    if ((access & kGenericRead) != 0) {
        mapped |= READ_CONTROL | FILE_MAP_READ;
    }
    if ((access & kGenericWrite) != 0) {
        mapped |= READ_CONTROL | FILE_MAP_WRITE;
    }
    if ((access & kGenericAll) != 0) {
        mapped |= FILE_MAP_ALL_ACCESS;
    }
    return mapped;
}

}  // namespace

class MappingObject final : public HandleObject {
  public:
    MappingObject(std::shared_ptr<ObjectRef> ref, int fd, std::uint64_t size, DWORD protect)
        : HandleObject(HandleKind::Mapping),
          ref_(std::move(ref)),
          fd_(fd),
          size_(size),
          protect_(protect) {}
    ~MappingObject() override { ::close(fd_); }

    [[nodiscard]] int fd() const noexcept { return fd_; }
    [[nodiscard]] std::uint64_t size() const noexcept { return size_; }
    [[nodiscard]] DWORD protect() const noexcept { return protect_; }

  private:
    std::shared_ptr<ObjectRef> ref_;  // null for an unnamed mapping
    int fd_;
    std::uint64_t size_;
    DWORD protect_;
};

namespace {

struct View {
    std::size_t size;
    std::shared_ptr<MappingObject> mapping;
};

struct Views {
    std::mutex mutex;
    std::map<std::uintptr_t, View> byBase;
};

Views& views() {
    static Views* v = new Views;
    return *v;
}

UniqueMapping InsertMapping(std::shared_ptr<MappingObject> mapping, DWORD access, DWORD error) {
    HANDLE h = HandleTable::Instance().Insert(std::move(mapping), access);
    if (h != nullptr) {
        SetLastError(error);
    }
    return UniqueMapping(h);
}

}  // namespace

}  // namespace embedded

UniqueMapping CreateFileMappingW(const SecurityAttributes* /*attributes*/, DWORD protect,
                                 std::uint64_t maximumSize, std::u16string_view name) {
    using namespace embedded;
    const DWORD pageProtect = protect & 0xFF;
    if ((pageProtect != PAGE_READONLY && pageProtect != PAGE_READWRITE) || maximumSize == 0 ||
        maximumSize >= (std::uint64_t{1} << 62)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return UniqueMapping();
    }
    if (name.empty() || name.front() == u'\0') {
        const int fd = ::memfd_create("ovsvc-mapping", MFD_CLOEXEC);
        if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(maximumSize)) != 0) {
            SetLastErrorFromErrno();
            if (fd >= 0) {
                ::close(fd);
            }
            return UniqueMapping();
        }
        return InsertMapping(std::make_shared<MappingObject>(nullptr, fd, maximumSize, pageProtect),
                             FILE_MAP_ALL_ACCESS, ERROR_SUCCESS);
    }
    ObjectName parsed;
    if (DWORD error = ParseObjectNameHere(name, &parsed); error != ERROR_SUCCESS) {
        SetLastError(error);
        return UniqueMapping();
    }
    ObjectRequest request;
    request.type = ObjectType::Mapping;
    request.create = true;
    request.size = maximumSize;
    request.protect = pageProtect;
    ObjectResult result = AcquireNamedObject(parsed, request);
    if (!result.ref) {
        SetLastError(result.error);
        return UniqueMapping();
    }
    const std::uint64_t size = result.ref->entry().size;
    const DWORD existingProtect = result.ref->entry().protect;
    return InsertMapping(std::make_shared<MappingObject>(std::move(result.ref), result.segmentFd,
                                                         size, existingProtect),
                         FILE_MAP_ALL_ACCESS,
                         result.existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
}

UniqueMapping OpenFileMappingW(DWORD desiredAccess, bool /*inheritHandle*/,
                               std::u16string_view name) {
    using namespace embedded;
    if (name.empty() || name.front() == u'\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return UniqueMapping();
    }
    ObjectName parsed;
    if (DWORD error = ParseObjectNameHere(name, &parsed); error != ERROR_SUCCESS) {
        SetLastError(error);
        return UniqueMapping();
    }
    ObjectRequest request;
    request.type = ObjectType::Mapping;
    ObjectResult result = AcquireNamedObject(parsed, request);
    if (!result.ref) {
        SetLastError(result.error);
        return UniqueMapping();
    }
    const std::uint64_t size = result.ref->entry().size;
    const DWORD protect = result.ref->entry().protect;
    return InsertMapping(
        std::make_shared<MappingObject>(std::move(result.ref), result.segmentFd, size, protect),
        MapMappingAccess(desiredAccess), ERROR_SUCCESS);
}

MappedView MapViewOfFile(HANDLE mapping, DWORD desiredAccess, std::uint64_t offset,
                         std::size_t bytes) {
    using namespace embedded;
    DWORD access = 0;
    auto object =
        HandleTable::Instance().LookupAs<MappingObject>(mapping, HandleKind::Mapping, &access);
    if (!object) {
        SetLastError(ERROR_INVALID_HANDLE);
        return MappedView();
    }
    const bool write = (desiredAccess & FILE_MAP_WRITE) != 0;
    const bool copy = !write && (desiredAccess & FILE_MAP_COPY) != 0;
    const bool read = (desiredAccess & FILE_MAP_READ) != 0;
    if (!write && !copy && !read) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return MappedView();
    }
    const bool handleReads = (access & (FILE_MAP_READ | FILE_MAP_WRITE)) != 0;
    if ((write && ((access & FILE_MAP_WRITE) == 0 || object->protect() != PAGE_READWRITE)) ||
        !handleReads) {
        SetLastError(ERROR_ACCESS_DENIED);
        return MappedView();
    }
    if (offset % kAllocationGranularity != 0) {
        SetLastError(kErrorMappedAlignment);
        return MappedView();
    }
    if (offset >= object->size() || (bytes != 0 && bytes > object->size() - offset)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return MappedView();
    }
    const std::size_t length =
        bytes != 0 ? bytes : static_cast<std::size_t>(object->size() - offset);
    const int prot = (write || copy) ? PROT_READ | PROT_WRITE : PROT_READ;
    void* base = ::mmap(nullptr, length, prot, copy ? MAP_PRIVATE : MAP_SHARED, object->fd(),
                        static_cast<off_t>(offset));
    if (base == MAP_FAILED) {
        SetLastErrorFromErrno();
        return MappedView();
    }
    {
        Views& v = views();
        std::lock_guard guard(v.mutex);
        v.byBase.emplace(reinterpret_cast<std::uintptr_t>(base), View{length, std::move(object)});
    }
    return MappedView(base, length);
}

bool UnmapViewOfFile(const void* base) {
    using namespace embedded;
    const auto address = reinterpret_cast<std::uintptr_t>(base);
    View view{};
    std::uintptr_t start = 0;
    {
        Views& v = views();
        std::lock_guard guard(v.mutex);
        auto it = v.byBase.upper_bound(address);
        if (it == v.byBase.begin()) {
            SetLastError(ERROR_INVALID_ADDRESS);
            return false;
        }
        --it;
        if (address >= it->first + it->second.size) {
            SetLastError(ERROR_INVALID_ADDRESS);
            return false;
        }
        start = it->first;
        view = std::move(it->second);
        v.byBase.erase(it);
    }
    ::munmap(reinterpret_cast<void*>(start), view.size);
    return true;  // the mapping goes away with the view's reference, if it was the last
}

}  // namespace platform
