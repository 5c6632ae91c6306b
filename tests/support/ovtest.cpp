#include "ovtest.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "platform/machine.h"
#include "platform/text.h"

extern char** environ;

namespace ovtest {

namespace {

std::map<std::string, ChildMain>& Children() {
    static std::map<std::string, ChildMain> children;
    return children;
}

std::string SelfPath() {
    std::error_code ec;
    auto p = std::filesystem::read_symlink("/proc/self/exe", ec);
    return p.string();
}

}  // namespace

ChildRegistrar::ChildRegistrar(const char* name, ChildMain main) {
    Children()[name] = main;
}

int RunChildIfRequested(int argc, char** argv) {
    if (argc < 2 || std::strncmp(argv[1], "--child=", 8) != 0) {
        return -1;
    }
    const std::string name = argv[1] + 8;
    auto it = Children().find(name);
    if (it == Children().end()) {
        std::fprintf(stderr, "unknown child '%s'\n", name.c_str());
        return 99;
    }
    std::vector<std::string> args(argv + 2, argv + argc);
    return it->second(args);
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

Process Process::StartChild(const std::string& name, const std::vector<std::string>& args,
                            const std::vector<std::string>& env) {
    std::vector<std::string> all{"--child=" + name};
    all.insert(all.end(), args.begin(), args.end());
    return Start(SelfPath(), all, env);
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

void Process::Kill(int signal) {
    if (pid_ > 0) {
        ::kill(pid_, signal);
    }
}

std::string Process::output() const {
    std::ifstream in(outputPath_);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string BinDir() {
    return std::filesystem::path(SelfPath()).parent_path().string();
}

std::string MakeTempDir(const std::string& prefix) {
    std::string templ = std::filesystem::temp_directory_path().string() + "/" + prefix + "XXXXXX";
    char* made = mkdtemp(templ.data());
    return made != nullptr ? std::string(made) : std::string();
}

std::string UniqueName(const std::string& base) {
    static std::atomic<int> counter{0};
    return base + "-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
}

void MachineTest::SetUp() {
    root_ = MakeTempDir("ovsvc-test-");
    ASSERT_FALSE(root_.empty());
    platform::machine::UseRoot(root_);
}

void MachineTest::TearDown() {
    if (HasFailure()) {
        std::fprintf(stderr, "machine root kept: %s\n", root_.c_str());
        return;
    }
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
}

std::u16string U16(const std::string& text) {
    return platform::ToUtf16(text);
}

std::string U8(const std::u16string& text) {
    return platform::ToUtf8(text);
}

}  // namespace ovtest
