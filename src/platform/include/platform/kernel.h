// Kernel services with Win32 semantics: named events, page-file-backed file
// mappings, waits, recursive locks, interlocked operations, thread and process
// ids, clocks, version information and files.
//
// Names: "Global\" names are machine-wide; "Local\" names and names without a
// prefix belong to the calling process's session. Names are case-sensitive,
// as Windows' object names are. Creating an object that exists returns a
// handle to it and sets ERROR_ALREADY_EXISTS; opening an absent one fails
// with ERROR_FILE_NOT_FOUND. An object lives while any process holds a handle
// (or, for a mapping, a view) on it, also when a holding process died
// without closing.
//
// Name errors: longer than MAX_PATH characters without the prefix
// ERROR_FILENAME_EXCED_RANGE; a backslash after the prefix (an object
// directory that does not exist) ERROR_PATH_NOT_FOUND; a prefix alone
// ERROR_INVALID_NAME; a "Global\" name while the machine's global namespace
// is switched off ERROR_ACCESS_DENIED. Security attributes are accepted and
// every account gets access; the access rights of each handle are enforced
// (SetEvent/ResetEvent need EVENT_MODIFY_STATE, waits need SYNCHRONIZE,
// write views need FILE_MAP_WRITE on a PAGE_READWRITE mapping).
//
// Paths given to the file functions are Windows paths. The embedded platform
// maps a drive path ("C:\dir\file") into the machine root and takes absolute
// POSIX paths as they are. Existing path components are matched ignoring
// case. Sharing modes are accepted but not enforced. On Windows, paths are
// the system's own, sharing modes are enforced and a newly written file
// reports FILE_ATTRIBUTE_ARCHIVE (0x20); names with characters Windows
// refuses in file names (':' after the drive, wildcards, control
// characters) fail with ERROR_INVALID_NAME on both platforms.
//
// On Windows, processes of session 0 have no session namespace of their
// own: there, session names and "Global\" names are the same objects.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/error.h"
#include "platform/handle.h"

namespace platform {

using WORD = std::uint16_t;

class SecurityDescriptor;  // security.h

// The SECURITY_ATTRIBUTES of a create call.
struct SecurityAttributes {
    // A descriptor whose DACL is present and null: every account has full access.
    bool nullDacl = false;
    // An explicit descriptor; when set it is used instead of nullDacl.
    const SecurityDescriptor* descriptor = nullptr;
    bool inheritHandle = false;
};

// Access rights.
inline constexpr DWORD DELETE = 0x00010000;
inline constexpr DWORD READ_CONTROL = 0x00020000;
inline constexpr DWORD SYNCHRONIZE = 0x00100000;
inline constexpr DWORD STANDARD_RIGHTS_REQUIRED = 0x000F0000;
inline constexpr DWORD EVENT_MODIFY_STATE = 0x0002;
inline constexpr DWORD EVENT_ALL_ACCESS = 0x001F0003;
inline constexpr DWORD FILE_MAP_COPY = 0x0001;
inline constexpr DWORD FILE_MAP_WRITE = 0x0002;
inline constexpr DWORD FILE_MAP_READ = 0x0004;
inline constexpr DWORD FILE_MAP_ALL_ACCESS = 0x000F001F;
inline constexpr DWORD PAGE_READONLY = 0x02;
inline constexpr DWORD PAGE_READWRITE = 0x04;

// Wait results and timeouts.
inline constexpr DWORD WAIT_OBJECT_0 = 0;
inline constexpr DWORD WAIT_ABANDONED = 0x80;
inline constexpr DWORD WAIT_TIMEOUT = 258;
inline constexpr DWORD WAIT_FAILED = 0xFFFFFFFF;
inline constexpr DWORD INFINITE = 0xFFFFFFFF;

// Longest object name, in characters, without the namespace prefix.
inline constexpr std::size_t MAX_PATH = 260;

// ---- events ---------------------------------------------------------------

// An empty name makes an unnamed event. Sets ERROR_ALREADY_EXISTS (and returns
// the existing event) when the name is taken by an event; fails with
// ERROR_INVALID_HANDLE when it is taken by another kind of object.
[[nodiscard]] UniqueEvent CreateEventW(const SecurityAttributes* attributes, bool manualReset,
                                       bool initialState, std::u16string_view name);
[[nodiscard]] UniqueEvent OpenEventW(DWORD desiredAccess, bool inheritHandle,
                                     std::u16string_view name);
bool SetEvent(HANDLE event);
bool ResetEvent(HANDLE event);

// WAIT_OBJECT_0 when signalled (an automatic-reset event is reset by the
// wait that consumes it), WAIT_TIMEOUT after `milliseconds` (INFINITE waits
// for ever), WAIT_FAILED with the last error set for a bad handle.
DWORD WaitForSingleObject(HANDLE object, DWORD milliseconds);

// ---- file mappings ----------------------------------------------------------

// Page-file-backed mapping of `maximumSize` bytes. An existing mapping of the
// name is opened instead (ERROR_ALREADY_EXISTS) and keeps its own size.
[[nodiscard]] UniqueMapping CreateFileMappingW(const SecurityAttributes* attributes, DWORD protect,
                                               std::uint64_t maximumSize, std::u16string_view name);
[[nodiscard]] UniqueMapping OpenFileMappingW(DWORD desiredAccess, bool inheritHandle,
                                             std::u16string_view name);

// A mapped view; unmapped when the owner goes away. The view keeps its
// mapping alive even after the mapping's handle is closed.
bool UnmapViewOfFile(const void* base);

struct MappedViewTraits {
    struct pointer {
        void* base = nullptr;
        std::size_t size = 0;
        friend bool operator==(const pointer&, const pointer&) = default;
    };
    static pointer invalid() noexcept { return {}; }
    static void close(pointer view) noexcept { UnmapViewOfFile(view.base); }
};
// A mapped view: its base address and size, unmapped with its owner.
class MappedView : public UniqueHandle<MappedViewTraits> {
  public:
    MappedView() noexcept = default;
    MappedView(void* base, std::size_t size) noexcept : UniqueHandle(pointer{base, size}) {}

    [[nodiscard]] void* data() const noexcept { return get().base; }
    [[nodiscard]] std::size_t size() const noexcept { return get().size; }
};

// `bytes` 0 maps from `offset` to the end of the mapping. Fails with
// ERROR_ACCESS_DENIED when the access exceeds the handle's, and with
// ERROR_INVALID_PARAMETER when the range lies outside the mapping.
[[nodiscard]] MappedView MapViewOfFile(HANDLE mapping, DWORD desiredAccess, std::uint64_t offset,
                                       std::size_t bytes);

// ---- locks and interlocked operations -------------------------------------

// A recursive lock (CRITICAL_SECTION); usable with std::lock_guard.
class CriticalSection {
  public:
    void lock() { mutex_.lock(); }
    bool try_lock() { return mutex_.try_lock(); }
    void unlock() { mutex_.unlock(); }

  private:
    std::recursive_mutex mutex_;
};

// Atomic on memory shared between processes as well.
inline LONG InterlockedIncrement(LONG* addend) noexcept {
    return std::atomic_ref<LONG>(*addend).fetch_add(1) + 1;
}
inline LONG InterlockedDecrement(LONG* addend) noexcept {
    return std::atomic_ref<LONG>(*addend).fetch_sub(1) - 1;
}
inline LONG InterlockedExchange(LONG* target, LONG value) noexcept {
    return std::atomic_ref<LONG>(*target).exchange(value);
}
inline LONG InterlockedCompareExchange(LONG* target, LONG exchange, LONG comparand) noexcept {
    std::atomic_ref<LONG>(*target).compare_exchange_strong(comparand, exchange);
    return comparand;
}
inline LONG InterlockedRead(const LONG* value) noexcept {
    return std::atomic_ref<LONG>(*const_cast<LONG*>(value)).load();
}

// ---- waiting on a word ---------------------------------------------------------

// A wake key for waiters that any wake of the address reaches.
inline constexpr DWORD kAnyWakeKey = 0xFFFFFFFF;

// WaitOnAddress for a 32-bit word: sleeps while *address still holds
// `undesired`, at most `milliseconds`, until a wake for the address. True when
// woken or when the word no longer holds `undesired` (a waiter may also
// return early without either: callers read the word again); false with
// ERROR_TIMEOUT when the time ran out. A waiter with a `key` other than
// kAnyWakeKey is reached only by WakeByAddressAll and by WakeByAddressKey with
// a key equal to its own modulo 32, so a wake meant for one waiter does not
// rouse the others.
//
// On the embedded machine a word in a named mapping works across processes.
// Windows' own WaitOnAddress only works within one process, so there a
// waiter whose word lives in memory shared with other processes returns
// after about a millisecond and reads the word again.
bool WaitOnAddress(const LONG* address, LONG undesired, DWORD milliseconds,
                   DWORD key = kAnyWakeKey) noexcept;
// Wakes every waiter on the address.
void WakeByAddressAll(const LONG* address) noexcept;
// Wakes the waiters on the address whose key matches (and those without one).
void WakeByAddressKey(const LONG* address, DWORD key) noexcept;

// ---- threads, processes, time ----------------------------------------------

DWORD GetCurrentThreadId() noexcept;
DWORD GetCurrentProcessId() noexcept;

// ---- UUIDs, the system directory, the ANSI code page ---------------------------

// A UUID (GUID) as Windows lays it out.
struct GUID {
    std::uint32_t Data1 = 0;
    std::uint16_t Data2 = 0;
    std::uint16_t Data3 = 0;
    std::uint8_t Data4[8] = {};
    friend bool operator==(const GUID&, const GUID&) = default;
};
inline constexpr long RPC_S_OK = 0;
// A new random (version 4) UUID; RPC_S_OK.
long UuidCreate(GUID* uuid);
// "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}" in upper case, as StringFromGUID2.
std::u16string GuidToString(const GUID& guid);

// "C:\Windows\System32" on the embedded machine (its directory is made on
// first use); the system's own on Windows. Nullopt with the last error set
// when it cannot be told.
std::optional<std::u16string> GetSystemDirectoryW();

// Text in the system's ANSI code page (CP_ACP) as UTF-16: Windows-1252 on
// the embedded machine, the system's code page on Windows. Bytes the code
// page leaves undefined become the code point of the same value, as Windows
// converts them.
inline constexpr unsigned CP_ACP = 0;
std::u16string AnsiToWide(std::string_view bytes);
// The reverse: UTF-16 in the ANSI code page, each character the code page
// lacks as '?' (WideCharToMultiByte's default character).
std::string WideToAnsi(std::u16string_view text);
// Sets (or, with an empty value, removes) one of this process's environment
// variables, seen by programs it starts later. On the embedded machine
// OVSVC_SESSION_ID is the terminal session the process belongs to.
bool SetEnvironmentVariableW(std::u16string_view name, std::u16string_view value);
// The terminal session the calling process runs in.
DWORD GetCurrentSessionId() noexcept;
void Sleep(DWORD milliseconds) noexcept;
// Yields the rest of the thread's time slice (SwitchToThread).
bool SwitchToThread() noexcept;
DWORD GetTickCount() noexcept;
std::uint64_t GetTickCount64() noexcept;

struct SYSTEMTIME {
    WORD wYear;
    WORD wMonth;
    WORD wDayOfWeek;
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
};
void GetLocalTime(SYSTEMTIME* time) noexcept;

inline constexpr DWORD VER_PLATFORM_WIN32_NT = 2;
inline constexpr WORD VER_SUITE_TERMINAL = 0x0010;
inline constexpr WORD VER_SUITE_SINGLEUSERTS = 0x0100;
inline constexpr std::uint8_t VER_NT_WORKSTATION = 1;
inline constexpr std::uint8_t VER_NT_SERVER = 3;

struct OSVERSIONINFOEXW {
    DWORD dwMajorVersion = 0;
    DWORD dwMinorVersion = 0;
    DWORD dwBuildNumber = 0;
    DWORD dwPlatformId = 0;
    std::u16string szCSDVersion;
    WORD wServicePackMajor = 0;
    WORD wServicePackMinor = 0;
    WORD wSuiteMask = 0;
    std::uint8_t wProductType = 0;
};
bool GetVersionExW(OSVERSIONINFOEXW* info);

// ---- files ------------------------------------------------------------------

inline constexpr DWORD GENERIC_READ = 0x80000000;
inline constexpr DWORD GENERIC_WRITE = 0x40000000;
inline constexpr DWORD FILE_APPEND_DATA = 0x0004;
inline constexpr DWORD FILE_SHARE_READ = 0x1;
inline constexpr DWORD FILE_SHARE_WRITE = 0x2;
inline constexpr DWORD FILE_SHARE_DELETE = 0x4;
inline constexpr DWORD CREATE_NEW = 1;
inline constexpr DWORD CREATE_ALWAYS = 2;
inline constexpr DWORD OPEN_EXISTING = 3;
inline constexpr DWORD OPEN_ALWAYS = 4;
inline constexpr DWORD TRUNCATE_EXISTING = 5;
inline constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
inline constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x10;
inline constexpr DWORD INVALID_FILE_ATTRIBUTES = 0xFFFFFFFF;
inline constexpr DWORD FILE_BEGIN = 0;
inline constexpr DWORD FILE_CURRENT = 1;
inline constexpr DWORD FILE_END = 2;
inline constexpr DWORD INVALID_SET_FILE_POINTER = 0xFFFFFFFF;

[[nodiscard]] UniqueFile CreateFileW(std::u16string_view path, DWORD desiredAccess, DWORD shareMode,
                                     DWORD creationDisposition, DWORD flagsAndAttributes);
bool ReadFile(HANDLE file, void* buffer, DWORD bytesToRead, DWORD* bytesRead);
bool WriteFile(HANDLE file, const void* buffer, DWORD bytesToWrite, DWORD* bytesWritten);
DWORD SetFilePointer(HANDLE file, LONG distance, LONG* distanceHigh, DWORD moveMethod);
bool DeleteFileW(std::u16string_view path);
bool CopyFileW(std::u16string_view from, std::u16string_view to, bool failIfExists);
bool CreateDirectoryW(std::u16string_view path);
bool RemoveDirectoryW(std::u16string_view path);
DWORD GetFileAttributesW(std::u16string_view path);
// The host path a Windows path stands for (UTF-8); for tools and tests.
std::string HostPath(std::u16string_view path);

}  // namespace platform
