// The embedded platform's process and pipe objects behind their handles.
#pragma once

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "handle_table.h"
#include "platform/process.h"

namespace platform::embedded {

// A child process started by this process. Its exit status is collected by
// whichever wait or query sees it end first.
class ProcessObject : public HandleObject {
  public:
    explicit ProcessObject(pid_t pid);
    ~ProcessObject() override;

    DWORD Wait(DWORD milliseconds) override;
    pid_t pid() const noexcept { return pid_; }
    // STILL_ACTIVE while running.
    DWORD ExitCode();
    bool Terminate(DWORD exitCode);

  private:
    bool Reap(bool block);

    pid_t pid_;
    int pidfd_ = -1;
    std::mutex lock_;
    bool ended_ = false;
    DWORD exitCode_ = STILL_ACTIVE;
    bool terminated_ = false;
    DWORD terminateCode_ = 0;
};

// The primary thread of a started process: signalled when the process ends.
class ThreadObject : public HandleObject {
  public:
    explicit ThreadObject(std::shared_ptr<ProcessObject> process)
        : HandleObject(HandleKind::Thread), process_(std::move(process)) {}
    DWORD Wait(DWORD milliseconds) override { return process_->Wait(milliseconds); }

  private:
    std::shared_ptr<ProcessObject> process_;
};

// One end of an anonymous pipe.
class PipeObject : public HandleObject {
  public:
    PipeObject(int fd, bool readEnd) : HandleObject(HandleKind::Pipe), fd_(fd), readEnd_(readEnd) {}
    ~PipeObject() override;

    int fd() const noexcept { return fd_; }
    bool Read(void* buffer, DWORD bytesToRead, DWORD* bytesRead);
    bool Write(const void* buffer, DWORD bytesToWrite, DWORD* bytesWritten);
    bool Peek(DWORD* available);

  private:
    int fd_;
    bool readEnd_;
};

// Whether a handle is an end of an anonymous pipe (ReadFile and WriteFile
// hand those to the two calls below).
bool IsPipe(HANDLE handle);

// ReadFile and WriteFile on a pipe handle; false with ERROR_INVALID_HANDLE
// for a handle that is not a pipe.
bool ReadPipe(HANDLE pipe, void* buffer, DWORD bytesToRead, DWORD* bytesRead);
bool WritePipe(HANDLE pipe, const void* buffer, DWORD bytesToWrite, DWORD* bytesWritten);

// Collects children whose handles were closed while they ran.
void ReapOrphans();

// The account and session a token stands for; false with the last error set
// for a handle that is not a token.
struct ProcessIdentity;
bool IdentityFromToken(HANDLE token, ProcessIdentity* identity);

// The host path of a program as CreateProcess finds it, or empty.
std::string FindProgram(const std::string& name);

// Who a started process runs as.
struct ProcessIdentity {
    bool set = false;
    std::string user;  // for OVSVC_USER
    DWORD sessionId = 0;
};

// Starts `argv` (argv[0] is the program's host path) with the given
// environment, optional directory and standard handles (-1: null device,
// -2: the caller's). `detached` puts it in a session of its own. Returns the
// pid, or -1 with the last error set.
pid_t SpawnProgram(const std::string& path, const std::vector<std::string>& argv,
                   const std::vector<std::string>& environment, const std::string& directory,
                   const int stdFds[3], bool detached);

// The caller's environment with NAME=value entries replaced or added.
std::vector<std::string> EnvironmentWith(const std::vector<std::string>& base,
                                         const std::vector<std::string>& overrides);
std::vector<std::string> CurrentEnvironment();

}  // namespace platform::embedded
