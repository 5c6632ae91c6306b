// The service control manager of the embedded machine: one service,
// OvaspoolSvc, whose process is recorded in the machine root.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

#include "native_error.h"
#include "platform/machine.h"
#include "platform/scm.h"
#include "process_internal.h"
#include "scm_internal.h"
#include "wts_internal.h"

namespace platform {

struct ServiceObject {
    bool manager = false;
    DWORD access = 0;
};

struct ServiceLockObject {
    int fd = -1;
};

struct ServiceStatusObject {
    LPHANDLER_FUNCTION handler = nullptr;
};

namespace {

constexpr char kServiceName[] = "OvaspoolSvc";
constexpr char kServiceProgram[] = "ovaspoolsvc";
constexpr DWORD kStopWaitHint = 30000;
constexpr DWORD kStartWaitHint = 30000;

// Granted to every caller; anything else needs an administrator.
constexpr DWORD kManagerUserRights =
    SC_MANAGER_CONNECT | SC_MANAGER_ENUMERATE_SERVICE | SC_MANAGER_QUERY_LOCK_STATUS | READ_CONTROL;
constexpr DWORD kServiceUserRights = SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS |
                                     SERVICE_ENUMERATE_DEPENDENTS | SERVICE_INTERROGATE |
                                     SERVICE_USER_DEFINED_CONTROL | READ_CONTROL;

// The open handles of each kind, so that a stale or foreign pointer is
// refused instead of being used.
template <typename T>
struct Handles {
    std::mutex lock;
    std::set<const T*> open;
};

template <typename T>
Handles<T>& TheHandles() {
    static auto* h = new Handles<T>;
    return *h;
}

template <typename T>
T* Track(T* object) {
    Handles<T>& h = TheHandles<T>();
    std::lock_guard lock(h.lock);
    h.open.insert(object);
    return object;
}

template <typename T>
bool IsOpen(const T* object) {
    Handles<T>& h = TheHandles<T>();
    std::lock_guard lock(h.lock);
    return object != nullptr && h.open.count(object) != 0;
}

template <typename T>
bool Untrack(const T* object) {
    Handles<T>& h = TheHandles<T>();
    std::lock_guard lock(h.lock);
    return object != nullptr && h.open.erase(object) != 0;
}

std::string ServiceDir() {
    std::string dir = machine::Root() + "/services";
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    return dir;
}

std::string ServiceFile(const char* suffix) {
    return ServiceDir() + "/" + kServiceName + suffix;
}

struct ProcessState {
    bool exists = false;
    bool ended = false;                // a zombie, waiting to be collected
    unsigned long long startTime = 0;  // clock ticks since boot
};

ProcessState ReadProcessState(pid_t pid) {
    ProcessState st;
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line)) {
        return st;
    }
    const auto paren = line.rfind(')');
    if (paren == std::string::npos || paren + 2 > line.size()) {
        return st;
    }
    std::istringstream fields(line.substr(paren + 2));
    std::string state;
    fields >> state;
    std::string skip;
    for (int i = 0; i < 18; ++i) {  // fields 4 .. 21
        fields >> skip;
    }
    fields >> st.startTime;
    st.exists = true;
    st.ended = state == "Z" || state == "X";
    return st;
}

struct PidRecord {
    pid_t pid = 0;
    unsigned long long startTime = 0;
};

bool ReadPidRecord(PidRecord* record) {
    std::ifstream in(ServiceFile(".pid"));
    return static_cast<bool>(in >> record->pid >> record->startTime) && record->pid > 0;
}

bool WriteFileAtomically(const std::string& path, const std::string& text) {
    const std::string tmp = path + ".tmp." + std::to_string(getpid());
    {
        std::ofstream out(tmp, std::ios::trunc);
        out << text;
        out.flush();
        if (!out) {
            return false;
        }
    }
    std::error_code ec;
    std::filesystem::rename(tmp, path, ec);
    return !ec;
}

std::string StatusLine(pid_t pid, const SERVICE_STATUS& status) {
    std::ostringstream text;
    text << pid << ' ' << status.dwCurrentState << ' ' << status.dwCheckPoint << ' '
         << status.dwWaitHint << ' ' << status.dwWin32ExitCode << ' ' << status.dwControlsAccepted
         << ' ' << status.dwServiceSpecificExitCode << '\n';
    return text.str();
}

bool IsAlive(const PidRecord& record) {
    const ProcessState st = ReadProcessState(record.pid);
    if (!st.exists || st.startTime != record.startTime) {
        return false;  // gone, or the id now belongs to another process
    }
    if (st.ended) {
        int status = 0;
        waitpid(record.pid, &status, WNOHANG);  // collected if this process started it
        return false;
    }
    return true;
}

// What the service process reported through SetServiceStatus.
struct Reported {
    pid_t pid = 0;
    SERVICE_STATUS status;
};

bool ReadReported(Reported* r) {
    std::ifstream in(ServiceFile(".status"));
    if (!(in >> r->pid >> r->status.dwCurrentState >> r->status.dwCheckPoint >>
          r->status.dwWaitHint >> r->status.dwWin32ExitCode >> r->status.dwControlsAccepted)) {
        return false;
    }
    in >> r->status.dwServiceSpecificExitCode;  // absent from older records
    return true;
}

struct StopRequest {
    pid_t pid = 0;
    long long whenMs = 0;
};

long long NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

bool ReadStopRequest(pid_t pid, StopRequest* s) {
    std::ifstream in(ServiceFile(".stop"));
    return static_cast<bool>(in >> s->pid >> s->whenMs) && s->pid == pid;
}

SERVICE_STATUS CurrentStatus() {
    SERVICE_STATUS status;
    PidRecord record;
    const bool recorded = ReadPidRecord(&record);
    Reported reported;
    const bool hasReport = recorded && ReadReported(&reported) && reported.pid == record.pid;
    StopRequest stop;
    const bool stopping = recorded && ReadStopRequest(record.pid, &stop);
    if (!recorded || !IsAlive(record)) {
        status.dwCurrentState = SERVICE_STOPPED;
        if (!recorded) {
            status.dwWin32ExitCode = ERROR_SERVICE_NEVER_STARTED;
        } else if (hasReport && reported.status.dwCurrentState == SERVICE_STOPPED) {
            status.dwWin32ExitCode = reported.status.dwWin32ExitCode;
            status.dwServiceSpecificExitCode = reported.status.dwServiceSpecificExitCode;
        } else if (recorded && !stopping) {
            status.dwWin32ExitCode = ERROR_PROCESS_ABORTED;  // ended without being stopped
        }
        return status;
    }
    if (hasReport) {
        status = reported.status;
        status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    } else {
        status.dwCurrentState = SERVICE_RUNNING;
        status.dwControlsAccepted = SERVICE_ACCEPT_STOP;
    }
    if (stopping && status.dwCurrentState != SERVICE_STOP_PENDING) {
        status.dwCurrentState = SERVICE_STOP_PENDING;
        status.dwControlsAccepted = 0;
        status.dwCheckPoint = static_cast<DWORD>((NowMs() - stop.whenMs) / 1000 + 1);
        status.dwWaitHint = kStopWaitHint;
    }
    return status;
}

// Serialises start, stop and a service process's registration across the
// machine's processes. Without a lock file (a root that cannot be written)
// it holds nothing; error() tells why.
class ControlLock {
  public:
    ControlLock() {
        fd_ = open(ServiceFile(".ctl").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd_ < 0) {
            error_ = embedded::Win32ErrorFromErrno(errno);
            return;
        }
        while (flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    DWORD error() const { return error_; }
    ~ControlLock() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    ControlLock(const ControlLock&) = delete;
    ControlLock& operator=(const ControlLock&) = delete;

  private:
    int fd_ = -1;
    DWORD error_ = ERROR_SUCCESS;
};

ServiceObject* CheckService(SC_HANDLE service, DWORD needed) {
    if (!IsOpen(service) || service->manager) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    if ((service->access & needed) != needed) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    return service;
}

bool StartProcess(const std::vector<std::u16string>& arguments) {
    const auto configured = machine::Setting("service_program");
    const std::string program =
        embedded::FindProgram(configured && !configured->empty() ? *configured : kServiceProgram);
    if (program.empty()) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return false;
    }
    std::vector<std::string> argv{program};
    for (const auto& a : arguments) {
        argv.push_back(detail::Utf8(a));
    }
    const auto env = embedded::EnvironmentWith(
        embedded::CurrentEnvironment(),
        {"OVSVC_ROOT=" + machine::Root(), "OVSVC_USER=" + embedded::ServiceAccountName(),
         "OVSVC_SESSION_ID=0"});
    const int log =
        open(ServiceFile(".log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const int fds[3] = {-1, log >= 0 ? log : -1, log >= 0 ? log : -1};
    std::error_code ec;
    std::filesystem::remove(ServiceFile(".status"), ec);
    std::filesystem::remove(ServiceFile(".stop"), ec);
    const pid_t pid = embedded::SpawnProgram(program, argv, env, {}, fds, true);
    if (log >= 0) {
        close(log);
    }
    if (pid < 0) {
        return false;
    }
    const unsigned long long start = ReadProcessState(pid).startTime;
    // As Windows' service control does, the service reads start pending
    // until its process reports otherwise. (The process cannot report before
    // this: it registers under the control lock its starter holds.)
    SERVICE_STATUS pending;
    pending.dwCurrentState = SERVICE_START_PENDING;
    pending.dwWaitHint = kStartWaitHint;
    if (!WriteFileAtomically(ServiceFile(".pid"),
                             std::to_string(pid) + " " + std::to_string(start) + "\n") ||
        !WriteFileAtomically(ServiceFile(".status"), StatusLine(pid, pending))) {
        const DWORD error = embedded::Win32ErrorFromErrno(errno);
        kill(pid, SIGKILL);  // a service nobody could find or stop
        SetLastError(error != ERROR_SUCCESS ? error : ERROR_ACCESS_DENIED);
        return false;
    }
    return true;
}

}  // namespace

SC_HANDLE OpenSCManagerW(std::u16string_view machineName, std::u16string_view database,
                         DWORD desiredAccess) {
    if (!machineName.empty()) {
        SetLastError(RPC_S_SERVER_UNAVAILABLE);
        return nullptr;
    }
    if (!database.empty() && detail::Utf8(database) != "ServicesActive") {
        SetLastError(ERROR_DATABASE_DOES_NOT_EXIST);
        return nullptr;
    }
    if ((desiredAccess & ~kManagerUserRights) != 0 && !embedded::CallerIsAdministrator()) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    auto* object = Track(new ServiceObject{true, desiredAccess | SC_MANAGER_CONNECT});
    SetLastError(ERROR_SUCCESS);
    return object;
}

SC_HANDLE OpenServiceW(SC_HANDLE manager, std::u16string_view serviceName, DWORD desiredAccess) {
    if (!IsOpen(manager) || !manager->manager) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    if (!detail::EqualsIgnoreCase(detail::Utf8(serviceName), kServiceName)) {
        SetLastError(serviceName.empty() ? ERROR_INVALID_NAME : ERROR_SERVICE_DOES_NOT_EXIST);
        return nullptr;
    }
    if ((desiredAccess & ~kServiceUserRights) != 0 && !embedded::CallerIsAdministrator()) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    auto* object = Track(new ServiceObject{false, desiredAccess});
    SetLastError(ERROR_SUCCESS);
    return object;
}

bool CloseServiceHandle(SC_HANDLE handle) {
    if (!Untrack(handle)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    delete handle;
    SetLastError(ERROR_SUCCESS);
    return true;
}

SC_LOCK LockServiceDatabase(SC_HANDLE manager) {
    if (!IsOpen(manager) || !manager->manager) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    if ((manager->access & SC_MANAGER_LOCK) == 0) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    const int fd =
        open((ServiceDir() + "/database.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    int rc;
    do {
        rc = flock(fd, LOCK_EX | LOCK_NB);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        close(fd);
        SetLastError(ERROR_SERVICE_DATABASE_LOCKED);
        return nullptr;
    }
    auto* lock = Track(new ServiceLockObject{fd});
    SetLastError(ERROR_SUCCESS);
    return lock;
}

bool UnlockServiceDatabase(SC_LOCK lock) {
    if (!Untrack(lock)) {
        SetLastError(ERROR_INVALID_SERVICE_LOCK);
        return false;
    }
    close(lock->fd);
    delete lock;
    SetLastError(ERROR_SUCCESS);
    return true;
}

bool StartServiceW(SC_HANDLE service, const std::vector<std::u16string>& arguments) {
    if (CheckService(service, SERVICE_START) == nullptr) {
        return false;
    }
    ControlLock control;
    PidRecord record;
    if (ReadPidRecord(&record) && IsAlive(record)) {
        SetLastError(ERROR_SERVICE_ALREADY_RUNNING);
        return false;
    }
    if (control.error() != ERROR_SUCCESS) {
        SetLastError(control.error());  // the service could not be recorded
        return false;
    }
    if (!StartProcess(arguments)) {
        return false;
    }
    SetLastError(ERROR_SUCCESS);
    return true;
}

bool ControlService(SC_HANDLE service, DWORD control, SERVICE_STATUS* status) {
    if (status == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (control == SERVICE_CONTROL_INTERROGATE) {
        if (CheckService(service, SERVICE_INTERROGATE) == nullptr) {
            return false;
        }
        *status = CurrentStatus();
        if (status->dwCurrentState == SERVICE_STOPPED) {
            SetLastError(ERROR_SERVICE_NOT_ACTIVE);
            return false;
        }
        SetLastError(ERROR_SUCCESS);
        return true;
    }
    if (control != SERVICE_CONTROL_STOP) {
        if (IsOpen(service)) {
            SetLastError(ERROR_INVALID_SERVICE_CONTROL);
        } else {
            SetLastError(ERROR_INVALID_HANDLE);
        }
        return false;
    }
    if (CheckService(service, SERVICE_STOP) == nullptr) {
        return false;
    }
    PidRecord record;
    {
        ControlLock lock;
        if (!ReadPidRecord(&record) || !IsAlive(record)) {
            *status = CurrentStatus();
            SetLastError(ERROR_SERVICE_NOT_ACTIVE);
            return false;
        }
        WriteFileAtomically(ServiceFile(".stop"),
                            std::to_string(record.pid) + " " + std::to_string(NowMs()) + "\n");
        kill(record.pid, SIGTERM);
    }
    // As on Windows, the call returns once the control is delivered; waiting
    // for the stopped state is the caller's business. A service that has not
    // reported stopping yet reads as stop pending.
    *status = CurrentStatus();
    if (status->dwCurrentState == SERVICE_RUNNING) {
        status->dwCurrentState = SERVICE_STOP_PENDING;
    }
    SetLastError(ERROR_SUCCESS);
    return true;
}

bool QueryServiceStatus(SC_HANDLE service, SERVICE_STATUS* status) {
    if (CheckService(service, SERVICE_QUERY_STATUS) == nullptr) {
        return false;
    }
    if (status == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    *status = CurrentStatus();
    SetLastError(ERROR_SUCCESS);
    return true;
}

// ---- inside the service process ----------------------------------------------

namespace {

int g_controlPipe[2] = {-1, -1};

void OnStopSignal(int) {
    const char c = 1;
    const int saved = errno;
    [[maybe_unused]] auto n = write(g_controlPipe[1], &c, 1);
    errno = saved;
}

}  // namespace

SERVICE_STATUS_HANDLE RegisterServiceCtrlHandlerW(std::u16string_view serviceName,
                                                  LPHANDLER_FUNCTION handler) {
    if (!detail::EqualsIgnoreCase(detail::Utf8(serviceName), kServiceName)) {
        SetLastError(ERROR_SERVICE_DOES_NOT_EXIST);
        return nullptr;
    }
    {
        // Only the process service control started is the service; waits
        // until its starter has recorded it.
        ControlLock control;
        PidRecord record;
        if (!ReadPidRecord(&record) || record.pid != getpid() || !IsAlive(record)) {
            SetLastError(ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
            return nullptr;
        }
    }
    static ServiceStatusObject object;
    static std::once_flag once;
    object.handler = handler;
    std::call_once(once, [] {
        if (pipe2(g_controlPipe, O_CLOEXEC) != 0) {
            return;
        }
        struct sigaction action {};
        action.sa_handler = &OnStopSignal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        sigaction(SIGTERM, &action, nullptr);
        sigaction(SIGINT, &action, nullptr);
        std::thread([] {
            char c = 0;
            while (true) {
                const ssize_t n = read(g_controlPipe[0], &c, 1);
                if (n < 0 && errno == EINTR) {
                    continue;
                }
                if (n <= 0) {
                    return;
                }
                if (object.handler != nullptr) {
                    object.handler(SERVICE_CONTROL_STOP);
                }
            }
        }).detach();
    });
    SetLastError(ERROR_SUCCESS);
    return &object;
}

bool SetServiceStatus(SERVICE_STATUS_HANDLE handle, const SERVICE_STATUS* status) {
    if (handle == nullptr || status == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    if (!WriteFileAtomically(ServiceFile(".status"), StatusLine(getpid(), *status))) {
        embedded::SetLastErrorFromErrno();
        return false;
    }
    SetLastError(ERROR_SUCCESS);
    return true;
}

}  // namespace platform
