// Files with Win32 semantics over the host file system.
//
// A drive path ("C:\dir\file", also "\\?\C:\...") stands for
// <root>/drive_c/dir/file; existing components are found case-insensitively,
// "." and ".." are resolved without leaving the drive, and names with
// characters Windows refuses fail with ERROR_INVALID_NAME. Absolute POSIX
// paths are taken as they are; other relative paths are relative to the
// current directory. Sharing modes are accepted but not enforced: a second
// open of a file always succeeds, as it would with FILE_SHARE_READ |
// FILE_SHARE_WRITE | FILE_SHARE_DELETE.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "handle_table.h"
#include "native_error.h"
#include "platform/kernel.h"
#include "platform/machine.h"
#include "platform/text.h"
#include "process_internal.h"
#include "utf.h"

namespace platform {

namespace embedded {

namespace {

constexpr DWORD kErrorNegativeSeek = 131;
constexpr DWORD kErrorDirectory = 267;

bool SameIgnoringCase(const std::string& a, const std::string& b) {
    return NamesEqual(ToUtf16(a), ToUtf16(b));
}

bool Exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

// The entry of `dir` that matches `name` ignoring case, or `name` itself.
std::string MatchComponent(const std::string& dir, const std::string& name) {
    if (Exists(dir + "/" + name)) {
        return name;
    }
    DIR* d = ::opendir(dir.c_str());
    if (d == nullptr) {
        return name;
    }
    std::string found = name;
    while (dirent* e = ::readdir(d)) {
        if (SameIgnoringCase(e->d_name, name)) {
            found = e->d_name;
            break;
        }
    }
    ::closedir(d);
    return found;
}

bool ValidComponent(std::u16string_view c) {
    for (char16_t ch : c) {
        if (ch < 32 || ch == u'<' || ch == u'>' || ch == u'"' || ch == u'|' || ch == u'?' ||
            ch == u'*' || ch == u':' || ch == u'/') {
            return false;
        }
    }
    return true;
}

// Resolves a Windows path; ERROR_SUCCESS or the error for a malformed one.
DWORD Resolve(std::u16string_view path, std::string* host) {
    if (const auto nul = path.find(u'\0'); nul != std::u16string_view::npos) {
        path = path.substr(0, nul);
    }
    if (path.empty()) {
        return ERROR_PATH_NOT_FOUND;
    }
    if (path.starts_with(u"\\\\?\\")) {
        path.remove_prefix(4);
    }
    const bool drive =
        path.size() >= 2 && path[1] == u':' &&
        ((path[0] >= u'A' && path[0] <= u'Z') || (path[0] >= u'a' && path[0] <= u'z'));
    if (!drive) {
        std::string p = ToUtf8(path);
        if (!p.starts_with('/')) {
            for (char& c : p) {
                if (c == '\\') {
                    c = '/';
                }
            }
        }
        *host = std::move(p);
        return ERROR_SUCCESS;
    }
    std::string base =
        machine::Root() + "/drive_" + static_cast<char>(UpcaseChar(path[0]) - u'A' + u'a');
    ::mkdir(base.c_str(), 0777);
    path.remove_prefix(2);
    std::vector<std::u16string_view> parts;
    while (!path.empty()) {
        const auto sep = path.find_first_of(u"\\/");
        const std::u16string_view part = path.substr(0, sep);
        path = sep == std::u16string_view::npos ? std::u16string_view() : path.substr(sep + 1);
        if (part.empty() || part == u".") {
            continue;
        }
        if (part == u"..") {
            if (!parts.empty()) {
                parts.pop_back();
            }
            continue;
        }
        if (!ValidComponent(part)) {
            return ERROR_INVALID_NAME;
        }
        parts.push_back(part);
    }
    std::string result = base;
    for (const auto& part : parts) {
        result = result + "/" + MatchComponent(result, ToUtf8(part));
    }
    *host = std::move(result);
    return ERROR_SUCCESS;
}

// ERROR_FILE_NOT_FOUND when the parent directory exists, else ERROR_PATH_NOT_FOUND.
DWORD NotFound(const std::string& host) {
    const auto slash = host.rfind('/');
    if (slash == std::string::npos || slash == 0) {
        return ERROR_FILE_NOT_FOUND;
    }
    struct stat st {};
    return (::stat(host.substr(0, slash).c_str(), &st) == 0 && S_ISDIR(st.st_mode))
               ? ERROR_FILE_NOT_FOUND
               : ERROR_PATH_NOT_FOUND;
}

DWORD ErrorFor(int error, const std::string& host) {
    return error == ENOENT ? NotFound(host) : Win32ErrorFromErrno(error);
}

class FileObject final : public HandleObject {
  public:
    explicit FileObject(int fd) : HandleObject(HandleKind::File), fd_(fd) {}
    ~FileObject() override { ::close(fd_); }
    [[nodiscard]] int fd() const noexcept { return fd_; }

  private:
    int fd_;
};

std::shared_ptr<FileObject> LookupFile(HANDLE handle, DWORD* access) {
    auto file = HandleTable::Instance().LookupAs<FileObject>(handle, HandleKind::File, access);
    if (!file) {
        SetLastError(ERROR_INVALID_HANDLE);
    }
    return file;
}

}  // namespace

}  // namespace embedded

UniqueFile CreateFileW(std::u16string_view path, DWORD desiredAccess, DWORD /*shareMode*/,
                       DWORD creationDisposition, DWORD /*flagsAndAttributes*/) {
    using namespace embedded;
    if (creationDisposition < CREATE_NEW || creationDisposition > TRUNCATE_EXISTING ||
        (creationDisposition == TRUNCATE_EXISTING && (desiredAccess & GENERIC_WRITE) == 0)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return UniqueFile();
    }
    std::string host;
    if (DWORD error = Resolve(path, &host); error != ERROR_SUCCESS) {
        SetLastError(error);
        return UniqueFile();
    }
    const bool reads = (desiredAccess & GENERIC_READ) != 0;
    const bool writes = (desiredAccess & (GENERIC_WRITE | FILE_APPEND_DATA)) != 0;
    int flags = O_CLOEXEC | (reads && writes ? O_RDWR : writes ? O_WRONLY : O_RDONLY);
    if ((desiredAccess & GENERIC_WRITE) == 0 && (desiredAccess & FILE_APPEND_DATA) != 0) {
        flags |= O_APPEND;
    }
    int fd = -1;
    DWORD success = ERROR_SUCCESS;
    switch (creationDisposition) {
        case CREATE_NEW:
            fd = ::open(host.c_str(), flags | O_CREAT | O_EXCL, 0666);
            break;
        case CREATE_ALWAYS:
        case OPEN_ALWAYS:
            fd = ::open(host.c_str(), flags | O_CREAT | O_EXCL, 0666);
            if (fd < 0 && errno == EEXIST) {
                success = ERROR_ALREADY_EXISTS;
                fd = ::open(host.c_str(),
                            flags | (creationDisposition == CREATE_ALWAYS ? O_TRUNC : 0));
            }
            break;
        case OPEN_EXISTING:
            fd = ::open(host.c_str(), flags);
            break;
        default:  // TRUNCATE_EXISTING
            fd = ::open(host.c_str(), flags | O_TRUNC);
            break;
    }
    if (fd < 0) {
        const int error = errno;
        SetLastError(error == EEXIST ? ERROR_FILE_EXISTS : ErrorFor(error, host));
        return UniqueFile();
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
        ::close(fd);
        SetLastError(ERROR_ACCESS_DENIED);  // directories are not opened as files
        return UniqueFile();
    }
    HANDLE h = HandleTable::Instance().Insert(std::make_shared<FileObject>(fd), desiredAccess);
    if (h == nullptr) {
        return UniqueFile();
    }
    SetLastError(success);
    return UniqueFile(h);
}

bool ReadFile(HANDLE file, void* buffer, DWORD bytesToRead, DWORD* bytesRead) {
    using namespace embedded;
    if (IsPipe(file)) {
        return ReadPipe(file, buffer, bytesToRead, bytesRead);
    }
    if (bytesRead != nullptr) {
        *bytesRead = 0;
    }
    DWORD access = 0;
    auto object = LookupFile(file, &access);
    if (!object) {
        return false;
    }
    if ((access & GENERIC_READ) == 0) {
        SetLastError(ERROR_ACCESS_DENIED);
        return false;
    }
    if (buffer == nullptr && bytesToRead != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    DWORD total = 0;
    auto* out = static_cast<char*>(buffer);
    while (total < bytesToRead) {
        const ssize_t n = ::read(object->fd(), out + total, bytesToRead - total);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            SetLastErrorFromErrno();
            return false;
        }
        if (n == 0) {
            break;  // end of file: success with fewer bytes
        }
        total += static_cast<DWORD>(n);
    }
    if (bytesRead != nullptr) {
        *bytesRead = total;
    }
    return true;
}

bool WriteFile(HANDLE file, const void* buffer, DWORD bytesToWrite, DWORD* bytesWritten) {
    using namespace embedded;
    if (IsPipe(file)) {
        return WritePipe(file, buffer, bytesToWrite, bytesWritten);
    }
    if (bytesWritten != nullptr) {
        *bytesWritten = 0;
    }
    DWORD access = 0;
    auto object = LookupFile(file, &access);
    if (!object) {
        return false;
    }
    if ((access & (GENERIC_WRITE | FILE_APPEND_DATA)) == 0) {
        SetLastError(ERROR_ACCESS_DENIED);
        return false;
    }
    if (buffer == nullptr && bytesToWrite != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    DWORD total = 0;
    const auto* in = static_cast<const char*>(buffer);
    while (total < bytesToWrite) {
        const ssize_t n = ::write(object->fd(), in + total, bytesToWrite - total);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            SetLastErrorFromErrno();
            if (bytesWritten != nullptr) {
                *bytesWritten = total;
            }
            return false;
        }
        total += static_cast<DWORD>(n);
    }
    if (bytesWritten != nullptr) {
        *bytesWritten = total;
    }
    return true;
}

DWORD SetFilePointer(HANDLE file, LONG distance, LONG* distanceHigh, DWORD moveMethod) {
    using namespace embedded;
    DWORD access = 0;
    auto object = LookupFile(file, &access);
    if (!object) {
        return INVALID_SET_FILE_POINTER;
    }
    const int whence = moveMethod == FILE_BEGIN     ? SEEK_SET
                       : moveMethod == FILE_CURRENT ? SEEK_CUR
                       : moveMethod == FILE_END     ? SEEK_END
                                                    : -1;
    if (whence < 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_SET_FILE_POINTER;
    }
    std::int64_t offset = distance;
    if (distanceHigh != nullptr) {
        offset = static_cast<std::int64_t>(
            (static_cast<std::uint64_t>(static_cast<std::uint32_t>(*distanceHigh)) << 32) |
            static_cast<std::uint32_t>(distance));
    }
    const off_t current = ::lseek(object->fd(), 0, SEEK_CUR);
    const off_t end = whence == SEEK_END ? ::lseek(object->fd(), 0, SEEK_END) : 0;
    ::lseek(object->fd(), current, SEEK_SET);
    const std::int64_t from = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? current : end;
    const std::int64_t target = from + offset;
    if (target < 0) {
        SetLastError(kErrorNegativeSeek);
        return INVALID_SET_FILE_POINTER;
    }
    if (distanceHigh == nullptr && target > 0xFFFFFFFELL) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_SET_FILE_POINTER;
    }
    if (::lseek(object->fd(), static_cast<off_t>(target), SEEK_SET) < 0) {
        SetLastErrorFromErrno();
        return INVALID_SET_FILE_POINTER;
    }
    if (distanceHigh != nullptr) {
        *distanceHigh = static_cast<LONG>(static_cast<std::uint64_t>(target) >> 32);
    }
    SetLastError(ERROR_SUCCESS);
    return static_cast<DWORD>(static_cast<std::uint64_t>(target) & 0xFFFFFFFFu);
}

bool DeleteFileW(std::u16string_view path) {
    using namespace embedded;
    std::string host;
    if (DWORD error = Resolve(path, &host); error != ERROR_SUCCESS) {
        SetLastError(error);
        return false;
    }
    if (::unlink(host.c_str()) != 0) {
        SetLastError(ErrorFor(errno, host));
        return false;
    }
    return true;
}

bool CopyFileW(std::u16string_view from, std::u16string_view to, bool failIfExists) {
    using namespace embedded;
    std::string source;
    std::string target;
    DWORD error = Resolve(from, &source);
    if (error == ERROR_SUCCESS) {
        error = Resolve(to, &target);
    }
    if (error != ERROR_SUCCESS) {
        SetLastError(error);
        return false;
    }
    const int in = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) {
        SetLastError(ErrorFor(errno, source));
        return false;
    }
    struct stat st {};
    if (::fstat(in, &st) != 0 || S_ISDIR(st.st_mode)) {
        ::close(in);
        SetLastError(ERROR_ACCESS_DENIED);
        return false;
    }
    const int out = ::open(target.c_str(),
                           O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | (failIfExists ? O_EXCL : 0),
                           st.st_mode & 0777);
    if (out < 0) {
        const int e = errno;
        ::close(in);
        SetLastError(e == EEXIST ? ERROR_FILE_EXISTS : ErrorFor(e, target));
        return false;
    }
    bool ok = true;
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(in, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            ok = n == 0;
            break;
        }
        for (ssize_t done = 0; ok && done < n;) {
            const ssize_t w = ::write(out, buffer + done, static_cast<std::size_t>(n - done));
            if (w < 0 && errno == EINTR) {
                continue;
            }
            ok = w > 0;
            done += w > 0 ? w : 0;
        }
        if (!ok) {
            break;
        }
    }
    if (!ok) {
        SetLastErrorFromErrno();
    }
    ::close(in);
    if (::close(out) != 0 && ok) {
        SetLastErrorFromErrno();
        ok = false;
    }
    return ok;
}

bool CreateDirectoryW(std::u16string_view path) {
    using namespace embedded;
    std::string host;
    if (DWORD error = Resolve(path, &host); error != ERROR_SUCCESS) {
        SetLastError(error);
        return false;
    }
    if (::mkdir(host.c_str(), 0777) != 0) {
        const int e = errno;
        SetLastError(e == ENOENT ? ERROR_PATH_NOT_FOUND : Win32ErrorFromErrno(e));
        return false;
    }
    return true;
}

bool RemoveDirectoryW(std::u16string_view path) {
    using namespace embedded;
    std::string host;
    if (DWORD error = Resolve(path, &host); error != ERROR_SUCCESS) {
        SetLastError(error);
        return false;
    }
    if (::rmdir(host.c_str()) != 0) {
        const int e = errno;
        SetLastError(e == ENOTDIR ? kErrorDirectory : ErrorFor(e, host));
        return false;
    }
    return true;
}

DWORD GetFileAttributesW(std::u16string_view path) {
    using namespace embedded;
    std::string host;
    if (DWORD error = Resolve(path, &host); error != ERROR_SUCCESS) {
        SetLastError(error);
        return INVALID_FILE_ATTRIBUTES;
    }
    struct stat st {};
    if (::stat(host.c_str(), &st) != 0) {
        SetLastError(ErrorFor(errno, host));
        return INVALID_FILE_ATTRIBUTES;
    }
    if (S_ISDIR(st.st_mode)) {
        return FILE_ATTRIBUTE_DIRECTORY;
    }
    constexpr DWORD kReadOnly = 0x1;
    return (st.st_mode & 0222) == 0 ? kReadOnly : FILE_ATTRIBUTE_NORMAL;
}

std::string HostPath(std::u16string_view path) {
    std::string host;
    if (embedded::Resolve(path, &host) != ERROR_SUCCESS) {
        return {};
    }
    return host;
}

}  // namespace platform
