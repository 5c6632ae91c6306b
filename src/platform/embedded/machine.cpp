#include "platform/machine.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <cstdlib>
#include <filesystem>
#include <fstream>
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

std::optional<std::string> Setting(const std::string& key) {
    std::ifstream in(ConfPath());
    std::string line;
    std::optional<std::string> found;
    while (std::getline(in, line)) {
        auto eq = line.find('=');
        if (eq != std::string::npos && line.compare(0, eq, key) == 0 && eq == key.size()) {
            found = line.substr(eq + 1);  // the last assignment wins
        }
    }
    return found;
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
}

std::string EventLogPath() {
    return Root() + "/eventlog.log";
}

}  // namespace platform::machine
