#include "platform/machine.h"

#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <vector>

namespace platform::machine {

namespace {

std::string DefaultRoot() {
    if (const char* env = std::getenv("OVSVC_ROOT"); env != nullptr && *env != '\0') {
        return env;
    }
    if (const char* xdg = std::getenv("XDG_STATE_HOME"); xdg != nullptr && *xdg != '\0') {
        return std::string(xdg) + "/ovsvc";
    }
    if (geteuid() == 0) {
        return "/var/lib/ovsvc";
    }
    if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') {
        return std::string(home) + "/.local/state/ovsvc";
    }
    return "/tmp/ovsvc";
}

struct State {
    std::mutex mutex;
    std::string root;
    std::vector<std::function<void()>> hooks;
};

State& state() {
    static State* s = new State;  // outlives every static destructor that may still trace
    return *s;
}

// Creates the root if needed, with the folders a Windows machine always has.
void Prepare(const std::string& root) {
    std::error_code ec;
    std::filesystem::create_directories(root + "/drive_c/Windows/Temp", ec);
    if (ec) {
        std::filesystem::create_directories(root, ec);
    }
}

std::string ConfPath() {
    return Root() + "/machine.conf";
}

}  // namespace

const std::string& Root() {
    State& s = state();
    std::lock_guard lock(s.mutex);
    if (s.root.empty()) {
        s.root = DefaultRoot();
        Prepare(s.root);
    }
    return s.root;
}

std::string RootProblem() {
    const std::string root = Root();
    struct stat st {};
    if (::stat(root.c_str(), &st) != 0) {
        return "machine root " + root + " cannot be created: " + std::strerror(errno);
    }
    if (!S_ISDIR(st.st_mode)) {
        return "machine root " + root + " is not a directory";
    }
    const std::string registry = root + "/registry.db";
    if (::access(root.c_str(), W_OK) != 0 ||
        (::access(registry.c_str(), F_OK) == 0 && ::access(registry.c_str(), W_OK) != 0)) {
        return "machine root " + root + " is read-only";
    }
    return {};
}

void UseRoot(const std::string& path) {
    State& s = state();
    std::vector<std::function<void()>> hooks;
    {
        std::lock_guard lock(s.mutex);
        hooks = s.hooks;
    }
    for (auto& hook : hooks) {
        hook();
    }
    std::lock_guard lock(s.mutex);
    s.root = path;
    setenv("OVSVC_ROOT", path.c_str(), 1);  // children started later share the machine
    Prepare(s.root);
}

void OnRootChange(std::function<void()> hook) {
    State& s = state();
    std::lock_guard lock(s.mutex);
    s.hooks.push_back(std::move(hook));
}

namespace {

// machine.conf as last read, kept until the file changes: settings are
// asked for on hot paths (every "Global\" object name), so the file is
// looked at again only when kRecheckNs have passed since the last look (a
// change made by this process is seen at once, one made by another process
// that much later).
constexpr std::int64_t kRecheckNs = 2000000;

struct Conf {
    std::mutex mutex;
    std::string path;
    bool exists = false;
    struct stat st {};
    std::int64_t checkedNs = 0;
    std::map<std::string, std::string, std::less<>> values;
};

std::int64_t NowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

Conf& conf() {
    static Conf* c = new Conf;
    return *c;
}

bool SameFile(const struct stat& a, const struct stat& b) {
    return a.st_ino == b.st_ino && a.st_dev == b.st_dev && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

}  // namespace

std::optional<std::string> Setting(const std::string& key) {
    const std::string path = ConfPath();
    Conf& c = conf();
    std::lock_guard lock(c.mutex);
    const std::int64_t now = NowNs();
    if (path == c.path && now - c.checkedNs < kRecheckNs) {
        if (auto it = c.values.find(key); it != c.values.end()) {
            return it->second;
        }
        return std::nullopt;
    }
    c.checkedNs = now;
    struct stat st {};
    const bool exists = ::stat(path.c_str(), &st) == 0;
    if (path != c.path || exists != c.exists || (exists && !SameFile(st, c.st))) {
        c.path = path;
        c.exists = exists;
        c.st = st;
        c.values.clear();
        std::ifstream in(path);
        std::string line;
        while (std::getline(in, line)) {
            if (auto eq = line.find('='); eq != std::string::npos) {
                c.values[line.substr(0, eq)] = line.substr(eq + 1);  // the last assignment wins
            }
        }
    }
    if (auto it = c.values.find(key); it != c.values.end()) {
        return it->second;
    }
    return std::nullopt;
}

void SetSetting(const std::string& key, const std::string& value) {
    std::vector<std::string> kept;
    {
        std::ifstream in(ConfPath());
        std::string line;
        while (std::getline(in, line)) {
            if (line.rfind(key + "=", 0) != 0) {
                kept.push_back(line);
            }
        }
    }
    kept.push_back(key + "=" + value);
    const std::string tmp = ConfPath() + ".tmp." + std::to_string(getpid());
    {
        std::ofstream out(tmp, std::ios::trunc);
        for (const auto& line : kept) {
            out << line << '\n';
        }
    }
    std::filesystem::rename(tmp, ConfPath());
    Conf& c = conf();
    std::lock_guard lock(c.mutex);
    c.path.clear();  // read again on the next look
}

std::string EventLogPath() {
    return Root() + "/eventlog.log";
}

}  // namespace platform::machine
