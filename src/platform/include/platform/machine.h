// The emulated machine: where its state lives and its test switches.
//
// All persistent state of one machine lives in one directory, the machine
// root: $OVSVC_ROOT, or $XDG_STATE_HOME/ovsvc, or ~/.local/state/ovsvc, or
// /var/lib/ovsvc for root. It is created on first use.
//
// The root holds:
//   registry.db   the registry (with the spooler's, accounts' and sessions' data)
//   machine.conf  switches, one "key=value" per line (see below)
//   eventlog.log  the event log, one line per entry
//   objects/      bookkeeping of named kernel objects
//   drive_c/      what Windows paths "C:\..." stand for; a new root gets the
//                 folders every Windows machine has (C:\Windows\Temp, ...)
//
// machine.conf keys:
//   global_namespace=0        "Global\" object names are unavailable
//   os_version=MAJOR.MINOR.BUILD   what GetVersionExW reports (default 6.1.7601)
//   wtsapi32=0, wtsapi32_missing=A,B, winspool_missing=A,B
//                             libraries and exports missing (platform/library.h)
//   fault.<Operation>=N:E     the Nth call (from 1) of the platform operation
//                             fails with error E ("*:E": every call); calls are
//                             counted per process since it first saw the line.
//                             "N:kill" kills the process (SIGKILL) at that call
//                             instead, before it changes anything: a crash.
//                             Operations: OpenPrinterW, GetPrinterW, SetPrinterW,
//                             AddPrinterW, DeletePrinter, EnumPrintersW,
//                             SetPrinterDataW, AddPrinterDriverW,
//                             DeletePrinterDriverExW, LookupAccountNameW,
//                             LookupAccountSidW
//
// The process's terminal session is $OVSVC_SESSION_ID (default 0).
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace platform::machine {

// The root directory (UTF-8 host path), created if missing.
const std::string& Root();
// Empty when the root is a directory this process can write; otherwise one
// sentence saying what is wrong with it, naming its path ("machine root
// <path> is read-only", "... is not a directory", "... cannot be created"),
// for programs to show next to an error that has this cause.
std::string RootProblem();
// Switches this process to another root: every cached connection to the old
// one is dropped first. For tests and tools; not thread-safe against other
// platform calls in flight.
void UseRoot(const std::string& path);
// Platform services register a hook that drops their per-root caches.
void OnRootChange(std::function<void()> hook);

std::optional<std::string> Setting(const std::string& key);
void SetSetting(const std::string& key, const std::string& value);

std::string EventLogPath();

}  // namespace platform::machine
