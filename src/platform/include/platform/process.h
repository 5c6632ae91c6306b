// Processes and anonymous pipes, with the Win32 calls' meaning.
//
// A command line is split as Windows programs split theirs (quotes and
// backslashes). Its program name is found as CreateProcess finds it: a name
// with a path is taken as it is ("C:\..." is a path in the machine's drive);
// a bare name is looked for in the module's directory (where libOVSvc and the
// host programs live), then the calling program's directory, then each PATH
// directory, case-insensitively and with ".exe" optional.
//
// A process started as a token's user runs as that account in the token's
// session: the embedded platform hands the child OVSVC_USER and
// OVSVC_SESSION_ID. Processes never have a window (CREATE_NO_WINDOW is
// accepted and changes nothing).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"
#include "platform/handle.h"
#include "platform/kernel.h"

namespace platform {

using UINT = unsigned int;

inline constexpr DWORD STILL_ACTIVE = 259;

inline constexpr DWORD DETACHED_PROCESS = 0x00000008;
inline constexpr DWORD CREATE_NEW_PROCESS_GROUP = 0x00000200;
inline constexpr DWORD CREATE_UNICODE_ENVIRONMENT = 0x00000400;
inline constexpr DWORD CREATE_NO_WINDOW = 0x08000000;
inline constexpr DWORD NORMAL_PRIORITY_CLASS = 0x00000020;

inline constexpr DWORD STARTF_USESHOWWINDOW = 0x00000001;
inline constexpr DWORD STARTF_USESTDHANDLES = 0x00000100;

inline constexpr DWORD PROCESS_TERMINATE = 0x0001;
inline constexpr DWORD PROCESS_QUERY_INFORMATION = 0x0400;
inline constexpr DWORD PROCESS_QUERY_LIMITED_INFORMATION = 0x1000;
inline constexpr DWORD PROCESS_ALL_ACCESS = 0x001FFFFF;

struct STARTUPINFOW {
    DWORD dwFlags = 0;
    WORD wShowWindow = 0;
    // Used with STARTF_USESTDHANDLES when handles are inherited; a missing
    // one reads or writes nothing (the null device).
    HANDLE hStdInput = nullptr;
    HANDLE hStdOutput = nullptr;
    HANDLE hStdError = nullptr;
};

// The startup information this process was started with (the fields above;
// the embedded machine starts every process without a window: all zero).
void GetStartupInfoW(STARTUPINFOW* startup);

struct PROCESS_INFORMATION {
    UniqueProcess hProcess;
    UniqueThread hThread;
    DWORD dwProcessId = 0;
    DWORD dwThreadId = 0;
};

// An anonymous pipe: ReadFile on the read end, WriteFile on the write end
// (and CloseHandle on both). Reading returns what is there, blocking only
// while the pipe is empty; once every write end is closed and the pipe is
// empty, ReadFile fails with ERROR_BROKEN_PIPE. `size` 0 takes the default.
inline constexpr DWORD ERROR_BROKEN_PIPE = 109;
bool CreatePipe(UniquePipe* readPipe, UniquePipe* writePipe, const SecurityAttributes* attributes,
                DWORD size);
// Bytes waiting in a pipe without taking them (PeekNamedPipe's total). Fails
// with ERROR_BROKEN_PIPE once the pipe is empty and every write end is
// closed, and with ERROR_ACCESS_DENIED on a write end.
bool PeekNamedPipe(HANDLE pipe, DWORD* totalBytesAvailable);

// `applicationName` empty: the program is the command line's first word.
// `environment` null: the caller's environment ("NAME=value" entries
// otherwise). `currentDirectory` empty: the caller's. Fails with
// ERROR_FILE_NOT_FOUND when the program cannot be found, ERROR_ACCESS_DENIED
// when it cannot be run, ERROR_INVALID_PARAMETER for an empty command.
bool CreateProcessW(std::u16string_view applicationName, std::u16string_view commandLine,
                    const SecurityAttributes* processAttributes,
                    const SecurityAttributes* threadAttributes, bool inheritHandles,
                    DWORD creationFlags, const std::vector<std::u16string>* environment,
                    std::u16string_view currentDirectory, const STARTUPINFOW& startup,
                    PROCESS_INFORMATION* information);
// The same, as the token's user in the token's session.
bool CreateProcessAsUserW(HANDLE token, std::u16string_view applicationName,
                          std::u16string_view commandLine,
                          const SecurityAttributes* processAttributes,
                          const SecurityAttributes* threadAttributes, bool inheritHandles,
                          DWORD creationFlags, const std::vector<std::u16string>* environment,
                          std::u16string_view currentDirectory, const STARTUPINFOW& startup,
                          PROCESS_INFORMATION* information);

// STILL_ACTIVE while the process runs; then its exit code (a process ended
// by a signal reads 128 + the signal number, as a shell shows it).
bool GetExitCodeProcess(HANDLE process, DWORD* exitCode);
bool TerminateProcess(HANDLE process, UINT exitCode);
DWORD GetProcessId(HANDLE process);
// The name of the account the calling process runs as (GetUserNameW): the
// user part of CurrentProcessAccount() (security.h), e.g. "SYSTEM".
bool GetUserNameW(std::u16string* name);

// Where CreateProcess would find a program (a Windows path or a host path);
// empty with ERROR_FILE_NOT_FOUND when nowhere.
std::u16string SearchProgram(std::u16string_view name);
// The words of a command line, split as CommandLineToArgvW splits them.
std::vector<std::u16string> CommandLineToArgv(std::u16string_view commandLine);

}  // namespace platform
