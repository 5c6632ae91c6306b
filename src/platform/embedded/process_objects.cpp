// Process, thread and pipe objects, and the calls on their handles.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <ctime>
#include <thread>

#include "process_internal.h"

namespace platform {

namespace embedded {

namespace {

// Children whose handles were all closed before they ended: reaped later so
// they do not linger as zombies.
struct Orphans {
    std::mutex lock;
    std::vector<pid_t> pids;
};

Orphans& TheOrphans() {
    static auto* orphans = new Orphans;
    return *orphans;
}

DWORD ExitCodeFromStatus(int status) {
    if (WIFEXITED(status)) {
        return static_cast<DWORD>(WEXITSTATUS(status));
    }
    if (WIFSIGNALED(status)) {
        return 128 + static_cast<DWORD>(WTERMSIG(status));
    }
    return 0;
}

}  // namespace

void ReapOrphans() {
    Orphans& o = TheOrphans();
    std::lock_guard lock(o.lock);
    std::erase_if(o.pids, [](pid_t pid) {
        int status = 0;
        const pid_t r = waitpid(pid, &status, WNOHANG);
        return r == pid || (r < 0 && errno == ECHILD);
    });
}

ProcessObject::ProcessObject(pid_t pid) : HandleObject(HandleKind::Process), pid_(pid) {
#ifdef SYS_pidfd_open
    pidfd_ = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (pidfd_ >= 0) {
        fcntl(pidfd_, F_SETFD, FD_CLOEXEC);
    }
#endif
}

ProcessObject::~ProcessObject() {
    if (!Reap(false)) {
        Orphans& o = TheOrphans();
        std::lock_guard lock(o.lock);
        o.pids.push_back(pid_);
    }
    if (pidfd_ >= 0) {
        close(pidfd_);
    }
}

bool ProcessObject::Reap(bool block) {
    std::lock_guard lock(lock_);
    if (ended_) {
        return true;
    }
    int status = 0;
    pid_t r;
    do {
        r = waitpid(pid_, &status, block ? 0 : WNOHANG);
    } while (r < 0 && errno == EINTR);
    if (r == pid_) {
        ended_ = true;
        exitCode_ = terminated_ ? terminateCode_ : ExitCodeFromStatus(status);
    } else if (r < 0) {
        ended_ = true;  // collected elsewhere; its code is lost
        exitCode_ = terminated_ ? terminateCode_ : 0;
    }
    return ended_;
}

DWORD ProcessObject::Wait(DWORD milliseconds) {
    if (Reap(false)) {
        return WAIT_OBJECT_0;
    }
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        DWORD remaining = INFINITE;
        if (milliseconds != INFINITE) {
            const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::steady_clock::now() - start)
                                     .count();
            if (static_cast<std::uint64_t>(elapsed) >= milliseconds) {
                return Reap(false) ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
            }
            remaining = milliseconds - static_cast<DWORD>(elapsed);
        }
        if (pidfd_ >= 0) {
            pollfd p{pidfd_, POLLIN, 0};
            const int slice =
                remaining == INFINITE ? 1000 : static_cast<int>(std::min<DWORD>(remaining, 1000));
            const int r = poll(&p, 1, slice);
            if (r < 0 && errno != EINTR) {
                SetLastError(ERROR_INVALID_HANDLE);
                return WAIT_FAILED;
            }
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(std::min<DWORD>(remaining, 2)));
        }
        if (Reap(false)) {
            return WAIT_OBJECT_0;
        }
    }
}

DWORD ProcessObject::ExitCode() {
    Reap(false);
    std::lock_guard lock(lock_);
    return exitCode_;
}

bool ProcessObject::Terminate(DWORD exitCode) {
    {
        std::lock_guard lock(lock_);
        if (ended_) {
            SetLastError(ERROR_ACCESS_DENIED);  // as for a process that has exited
            return false;
        }
        terminated_ = true;
        terminateCode_ = exitCode;
    }
    kill(pid_, SIGKILL);
    Reap(true);
    SetLastError(ERROR_SUCCESS);
    return true;
}

PipeObject::~PipeObject() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

bool PipeObject::Read(void* buffer, DWORD bytesToRead, DWORD* bytesRead) {
    if (bytesRead != nullptr) {
        *bytesRead = 0;
    }
    if (!readEnd_) {
        SetLastError(ERROR_ACCESS_DENIED);
        return false;
    }
    if (bytesToRead == 0) {
        SetLastError(ERROR_SUCCESS);
        return true;
    }
    ssize_t n;
    do {
        n = read(fd_, buffer, bytesToRead);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    if (n == 0) {
        SetLastError(ERROR_BROKEN_PIPE);
        return false;
    }
    if (bytesRead != nullptr) {
        *bytesRead = static_cast<DWORD>(n);
    }
    SetLastError(ERROR_SUCCESS);
    return true;
}

bool PipeObject::Write(const void* buffer, DWORD bytesToWrite, DWORD* bytesWritten) {
    if (bytesWritten != nullptr) {
        *bytesWritten = 0;
    }
    if (readEnd_) {
        SetLastError(ERROR_ACCESS_DENIED);
        return false;
    }
    // A reader that went away must give an error, not SIGPIPE.
    sigset_t pipeSet;
    sigset_t old;
    sigemptyset(&pipeSet);
    sigaddset(&pipeSet, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSet, &old);
    DWORD done = 0;
    bool ok = true;
    const auto* bytes = static_cast<const char*>(buffer);
    while (done < bytesToWrite) {
        const ssize_t n = write(fd_, bytes + done, bytesToWrite - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            ok = false;
            if (errno == EPIPE) {
                timespec zero{0, 0};
                sigtimedwait(&pipeSet, nullptr, &zero);
                SetLastError(232);  // ERROR_NO_DATA: the pipe is being closed
            } else {
                SetLastError(ERROR_INVALID_HANDLE);
            }
            break;
        }
        done += static_cast<DWORD>(n);
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    if (bytesWritten != nullptr) {
        *bytesWritten = done;
    }
    if (ok) {
        SetLastError(ERROR_SUCCESS);
    }
    return ok;
}

bool PipeObject::Peek(DWORD* available) {
    if (!readEnd_) {
        SetLastError(ERROR_ACCESS_DENIED);  // the write end has no right to read
        return false;
    }
    int n = 0;
    if (ioctl(fd_, FIONREAD, &n) != 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    // Empty with every write end closed: the pipe is broken, as Windows says.
    pollfd p{fd_, POLLIN, 0};
    if (n == 0 && poll(&p, 1, 0) == 1 && (p.revents & POLLHUP) != 0) {
        SetLastError(ERROR_BROKEN_PIPE);
        return false;
    }
    if (available != nullptr) {
        *available = static_cast<DWORD>(n);
    }
    SetLastError(ERROR_SUCCESS);
    return true;
}

bool IsPipe(HANDLE handle) {
    HandleRef ref = HandleTable::Instance().Lookup(handle);
    return ref && ref.object->kind() == HandleKind::Pipe;
}

bool ReadPipe(HANDLE pipe, void* buffer, DWORD bytesToRead, DWORD* bytesRead) {
    auto p = HandleTable::Instance().LookupAs<PipeObject>(pipe, HandleKind::Pipe);
    if (!p) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    return p->Read(buffer, bytesToRead, bytesRead);
}

bool WritePipe(HANDLE pipe, const void* buffer, DWORD bytesToWrite, DWORD* bytesWritten) {
    auto p = HandleTable::Instance().LookupAs<PipeObject>(pipe, HandleKind::Pipe);
    if (!p) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    return p->Write(buffer, bytesToWrite, bytesWritten);
}

}  // namespace embedded

using embedded::HandleKind;
using embedded::HandleTable;
using embedded::PipeObject;
using embedded::ProcessObject;

bool CreatePipe(UniquePipe* readPipe, UniquePipe* writePipe, const SecurityAttributes*,
                DWORD size) {
    if (readPipe == nullptr || writePipe == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return false;
    }
    if (size > 0) {
        fcntl(fds[1], F_SETPIPE_SZ, static_cast<int>(std::min<DWORD>(size, 1u << 20)));
    }
    auto r = std::make_shared<PipeObject>(fds[0], true);
    auto w = std::make_shared<PipeObject>(fds[1], false);
    constexpr DWORD kPipeAccess = 0x0012019F;  // read, write and synchronize
    UniquePipe readEnd(HandleTable::Instance().Insert(std::move(r), kPipeAccess));
    UniquePipe writeEnd(HandleTable::Instance().Insert(std::move(w), kPipeAccess));
    if (!readEnd || !writeEnd) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return false;
    }
    *readPipe = std::move(readEnd);
    *writePipe = std::move(writeEnd);
    SetLastError(ERROR_SUCCESS);
    return true;
}

bool PeekNamedPipe(HANDLE pipe, DWORD* totalBytesAvailable) {
    auto p = HandleTable::Instance().LookupAs<PipeObject>(pipe, HandleKind::Pipe);
    if (!p) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    return p->Peek(totalBytesAvailable);
}

bool GetExitCodeProcess(HANDLE process, DWORD* exitCode) {
    auto p = HandleTable::Instance().LookupAs<ProcessObject>(process, HandleKind::Process);
    if (!p || exitCode == nullptr) {
        SetLastError(p ? ERROR_INVALID_PARAMETER : ERROR_INVALID_HANDLE);
        return false;
    }
    *exitCode = p->ExitCode();
    SetLastError(ERROR_SUCCESS);
    return true;
}

bool TerminateProcess(HANDLE process, UINT exitCode) {
    DWORD access = 0;
    auto p = HandleTable::Instance().LookupAs<ProcessObject>(process, HandleKind::Process, &access);
    if (!p) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    if ((access & PROCESS_TERMINATE) == 0) {
        SetLastError(ERROR_ACCESS_DENIED);
        return false;
    }
    return p->Terminate(exitCode);
}

DWORD GetProcessId(HANDLE process) {
    auto p = HandleTable::Instance().LookupAs<ProcessObject>(process, HandleKind::Process);
    if (!p) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    SetLastError(ERROR_SUCCESS);
    return static_cast<DWORD>(p->pid());
}

}  // namespace platform
