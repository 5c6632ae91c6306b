// Test processes and temporary directories on POSIX hosts.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "../../src/platform/embedded/object_table.h"
#include "ovtest.h"

extern char** environ;

namespace ovtest {

bool IsWin32Platform() {
    return false;
}

bool UnderWine() {
    return false;
}

int CurrentProcessId() {
    return static_cast<int>(getpid());
}

void SetEnv(const std::string& name, const std::string& value) {
    ::setenv(name.c_str(), value.c_str(), 1);
}

void UnsetEnv(const std::string& name) {
    ::unsetenv(name.c_str());
}

std::string SelfPath() {
    std::error_code ec;
    auto p = std::filesystem::read_symlink("/proc/self/exe", ec);
    return p.string();
}

Process::Process(Process&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      status_(other.status_),
      outputPath_(std::move(other.outputPath_)) {}

Process& Process::operator=(Process&& other) noexcept {
    if (this != &other) {
        if (pid_ > 0) {
            Kill();
            Wait(std::chrono::seconds(10));
        }
        pid_ = std::exchange(other.pid_, -1);
        status_ = other.status_;
        outputPath_ = std::move(other.outputPath_);
    }
    return *this;
}

Process::~Process() {
    if (pid_ > 0) {
        Kill();
        Wait(std::chrono::seconds(10));
    }
    if (!outputPath_.empty()) {
        std::error_code ec;
        std::filesystem::remove(outputPath_, ec);
    }
}

Process Process::Start(const std::string& program, const std::vector<std::string>& args,
                       const std::vector<std::string>& env) {
    Process p;
    static std::atomic<int> counter{0};
    p.outputPath_ = std::filesystem::temp_directory_path().string() + "/ovtest-out-" +
                    std::to_string(getpid()) + "-" + std::to_string(counter++);
    std::vector<std::string> argvStore{program};
    argvStore.insert(argvStore.end(), args.begin(), args.end());
    std::vector<char*> argvPtrs;
    for (auto& a : argvStore) {
        argvPtrs.push_back(a.data());
    }
    argvPtrs.push_back(nullptr);
    std::vector<std::string> envStore;
    for (char** e = environ; *e != nullptr; ++e) {
        envStore.emplace_back(*e);
    }
    envStore.insert(envStore.end(), env.begin(), env.end());
    std::vector<char*> envPtrs;
    for (auto& e : envStore) {
        envPtrs.push_back(e.data());
    }
    envPtrs.push_back(nullptr);

    const pid_t pid = fork();
    if (pid == 0) {
        int fd = open(p.outputPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
            close(fd);
        }
        execve(program.c_str(), argvPtrs.data(), envPtrs.data());
        _exit(127);
    }
    p.pid_ = pid;
    return p;
}

int Process::Wait(std::chrono::milliseconds timeout) {
    if (pid_ <= 0) {
        return status_;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        int status = 0;
        const pid_t r = waitpid(pid_, &status, WNOHANG);
        if (r == pid_) {
            pid_ = -1;
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return status_;
        }
        if (r < 0) {
            pid_ = -1;
            status_ = -1;
            return status_;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            Kill();
            waitpid(pid_, &status, 0);
            pid_ = -1;
            status_ = -1;
            return status_;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

bool Process::Running() {
    if (pid_ <= 0) {
        return false;
    }
    int status = 0;
    const pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
        pid_ = -1;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return false;
    }
    return r == 0;
}

void Process::Kill() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
    }
}

void Process::Terminate() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
    }
}

void Process::Suspend() {
    if (pid_ > 0) {
        ::kill(pid_, SIGSTOP);
    }
}

void Process::Resume() {
    if (pid_ > 0) {
        ::kill(pid_, SIGCONT);
    }
}

std::string Process::output() const {
    std::ifstream in(outputPath_);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string MakeTempDir(const std::string& prefix) {
    std::string templ = std::filesystem::temp_directory_path().string() + "/" + prefix + "XXXXXX";
    char* made = mkdtemp(templ.data());
    return made != nullptr ? std::string(made) : std::string();
}

void ReleaseHostLeftovers() {
    // What the next process to start would do anyway.
    platform::embedded::SweepOrphanedSegments();
}

}  // namespace ovtest
