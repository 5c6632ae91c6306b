// The embedded spooler's shared internals: registry layout and helpers, the
// machine-wide lock, open handles, first-use defaults and access checks.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/registry.h"
#include "platform/spooler.h"

namespace platform::registry_store {
class Batch;
}

namespace platform::spool {

inline constexpr char16_t kPrintKey[] = u"SYSTEM\\CurrentControlSet\\Control\\Print";
inline constexpr char16_t kPrintersKey[] = u"SYSTEM\\CurrentControlSet\\Control\\Print\\Printers";
inline constexpr char16_t kDriversKey[] =
    u"SYSTEM\\CurrentControlSet\\Control\\Print\\Environments\\Windows x64\\Drivers\\Version-3";
inline constexpr char16_t kProcessorsKey[] =
    u"SYSTEM\\CurrentControlSet\\Control\\Print\\Environments\\Windows x64\\Print Processors";
inline constexpr char16_t kMonitorsKey[] = u"SYSTEM\\CurrentControlSet\\Control\\Print\\Monitors";
inline constexpr char16_t kShareIndexKey[] =
    u"SYSTEM\\CurrentControlSet\\Control\\Print\\ShareNames";
inline constexpr char16_t kDriverDataKey[] = u"PrinterDriverData";
inline constexpr char16_t kJobsKey[] = u"Jobs";
inline constexpr char16_t kPortInfoValue[] = u"PortInfo";
inline constexpr char16_t kDriverDirectory[] = u"C:\\Windows\\System32\\spool\\drivers\\x64";

// Case-insensitive comparison of names (ASCII and Latin-1 folding, as the
// registry keys are compared).
bool SameName(std::u16string_view a, std::u16string_view b);
std::u16string Join(std::u16string_view a, std::u16string_view b);  // a + "\" + b
std::string ToUtf8(std::u16string_view text);

// ---- the lock ----------------------------------------------------------------

// Holds the machine-wide spooler lock (an advisory lock on a file in the
// machine root) for the current scope; nested scopes on one thread share it.
// Every public call that reads or writes several values takes it first, and
// also makes sure the first-use defaults exist. The registry work of the
// outermost scope is one batch (one transaction), committed when the scope
// ends (before the lock is let go) or by Commit(). A call that writes says
// so (kWrites) and holds the database's write lock for its length; calls
// that only read never keep writers of other processes waiting.
class Lock {
  public:
    enum Work { kReads, kWrites };
    explicit Lock(Work work = kReads);
    ~Lock();
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    // False when the lock file could not be opened or locked.
    [[nodiscard]] bool held() const { return held_; }
    // Keeps the work done so far: ERROR_SUCCESS, or the storage error that
    // lost it. A call that reports success commits first.
    [[nodiscard]] DWORD Commit();

  private:
    int fd_ = -1;
    bool held_ = false;
    bool outer_ = false;
    std::unique_ptr<registry_store::Batch> batch_;
};

// ---- registry helpers --------------------------------------------------------

// The values of one key by name (case-insensitive look-up).
class ValueMap {
  public:
    ValueMap() = default;
    explicit ValueMap(std::vector<RegistryValue> values);
    [[nodiscard]] const RegistryValue* Find(std::u16string_view name) const;
    [[nodiscard]] std::u16string String(std::u16string_view name) const;
    [[nodiscard]] DWORD Dword(std::u16string_view name, DWORD fallback = 0) const;
    [[nodiscard]] std::vector<std::byte> Binary(std::u16string_view name) const;
    [[nodiscard]] std::vector<std::u16string> MultiString(std::u16string_view name) const;
    [[nodiscard]] const std::vector<RegistryValue>& all() const { return values_; }

  private:
    std::vector<RegistryValue> values_;
};

// A REG_SZ / REG_EXPAND_SZ value's text without its terminator; empty for other types.
std::u16string AsString(const RegistryValue& value);

LSTATUS OpenKey(std::u16string_view path, REGSAM access, UniqueKey* key);
LSTATUS CreateKey(std::u16string_view path, UniqueKey* key);
LSTATUS ReadValues(HKEY key, ValueMap* values);
LSTATUS ReadSubKeys(std::u16string_view path, std::vector<std::u16string>* names);

LSTATUS WriteString(HKEY key, std::u16string_view name, std::u16string_view value);
LSTATUS WriteDword(HKEY key, std::u16string_view name, DWORD value);
LSTATUS WriteBinary(HKEY key, std::u16string_view name, const std::vector<std::byte>& value);
LSTATUS WriteMultiString(HKEY key, std::u16string_view name,
                         const std::vector<std::u16string>& value);
// Deletes a key under HKLM with everything below it; ERROR_FILE_NOT_FOUND
// when there is no such key.
LSTATUS DeleteKeyTree(std::u16string_view path);
// Copies a key's values and subkeys below `to` (created).
LSTATUS CopyTree(std::u16string_view from, std::u16string_view to);

// ---- open handles --------------------------------------------------------------

enum class HandleKind { Server, Printer, XcvMonitor };

struct HandleState {
    HandleKind kind = HandleKind::Printer;
    std::u16string name;  // printer key name or monitor name
    DWORD granted = 0;
    std::u16string user;  // DOMAIN\account of the opening token
    DWORD currentJob = 0;
};

HANDLE NewHandle(HandleState state);
// A copy of the handle's state; nullopt (ERROR_INVALID_HANDLE set) when not open.
std::optional<HandleState> FindHandle(HANDLE handle);
bool UpdateHandle(HANDLE handle, const HandleState& state);
bool RemoveHandle(HANDLE handle);
// Points every open handle of a renamed printer at its new name.
void RenameHandles(std::u16string_view from, std::u16string_view to);

// ---- defaults, paths ------------------------------------------------------------

// Creates the first-use monitor, ports, print processor and driver once per
// machine root (called by Lock).
void EnsureDefaults();
// The host directory of the driver directory and of the driver store.
std::string DriverDirectoryHost();
std::string DriverStoreHost();
std::u16string DriverStoreDirectory();  // Windows path

// ---- printers (shared by several files) -------------------------------------

// The canonical key name of a printer given by name or share name; nullopt
// when there is none.
std::optional<std::u16string> ResolvePrinter(std::u16string_view nameOrShare,
                                             bool allowShareName = true);
std::u16string PrinterKey(std::u16string_view name);
// Number of queued jobs of a printer.
DWORD CountJobs(std::u16string_view printerKey);
// Drivers and ports that exist.
bool DriverExists(std::u16string_view name);
bool PortExists(std::u16string_view port);
bool PrintProcessorExists(std::u16string_view name);
// Removes a printer's key with its data and jobs.
LSTATUS RemovePrinterKey(std::u16string_view name);

// ---- security ------------------------------------------------------------------

// The caller's account as DOMAIN\name.
std::u16string CallerName();
// The rights of `desired` (generic rights mapped, 0 meaning PRINTER_ACCESS_USE)
// that the descriptor grants the calling process's token. Returns
// ERROR_SUCCESS and *granted, or ERROR_ACCESS_DENIED.
DWORD CheckAccess(const std::vector<std::byte>& descriptor, DWORD desired, DWORD* granted);
// The descriptor a printer gets when it is added without one.
std::vector<std::byte> DefaultPrinterSecurity();
// Whether the bytes are a self-relative descriptor this machine can read.
bool ValidDescriptor(const std::vector<std::byte>& descriptor);
// `current` with the parts `update` has (owner, group, DACL, SACL) taken
// from `update`; empty when either cannot be read.
std::vector<std::byte> MergeDescriptor(const std::vector<std::byte>& current,
                                       const std::vector<std::byte>& update);
// The descriptor with its owner replaced; empty on failure.
std::vector<std::byte> ReplaceOwner(const std::vector<std::byte>& descriptor,
                                    const std::vector<std::byte>& ownerSid);

// Sets `error` as the thread's last error and returns false.
inline bool Fail(DWORD error) {
    SetLastError(error);
    return false;
}
inline bool Succeed() {
    SetLastError(ERROR_SUCCESS);
    return true;
}

}  // namespace platform::spool
