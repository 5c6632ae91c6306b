// Finding programs, splitting command lines and starting host processes.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "process_internal.h"
#include "wts_internal.h"

extern char** environ;

namespace platform {

namespace embedded {

namespace {

bool IsRunnable(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
}

bool EndsWithExe(std::string_view name) {
    return name.size() > 4 && detail::EqualsIgnoreCase(name.substr(name.size() - 4), ".exe");
}

// The entry of `dir` that Windows would take for `name`, or empty.
std::string MatchInDirectory(const std::string& dir, const std::string& name) {
    if (name.empty()) {
        return {};
    }
    const std::string base = dir.empty() ? std::string(".") : dir;
    if (IsRunnable(base + "/" + name)) {
        return base + "/" + name;
    }
    DIR* d = opendir(base.c_str());
    if (d == nullptr) {
        return {};
    }
    // Preference: the name itself in any case, then with ".exe", then without it.
    std::string found[3];
    while (dirent* e = readdir(d)) {
        const std::string_view entry(e->d_name);
        int rank = -1;
        if (detail::EqualsIgnoreCase(entry, name)) {
            rank = 0;
        } else if (detail::EqualsIgnoreCase(entry, name + ".exe")) {
            rank = 1;
        } else if (EndsWithExe(name) &&
                   detail::EqualsIgnoreCase(entry,
                                            std::string_view(name).substr(0, name.size() - 4))) {
            rank = 2;
        }
        if (rank >= 0 && found[rank].empty() && IsRunnable(base + "/" + std::string(entry))) {
            found[rank] = base + "/" + std::string(entry);
        }
    }
    closedir(d);
    for (const auto& f : found) {
        if (!f.empty()) {
            return f;
        }
    }
    return {};
}

std::string ModuleDirectory() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&FindProgram), &info) != 0 && info.dli_fname != nullptr) {
        std::error_code ec;
        auto path = std::filesystem::canonical(info.dli_fname, ec);
        if (!ec) {
            return path.parent_path().string();
        }
    }
    return {};
}

std::string ProgramDirectory() {
    std::error_code ec;
    auto path = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::string() : path.parent_path().string();
}

DWORD ErrorFromSpawn(int error) {
    switch (error) {
        case ENOENT:
        case ENOTDIR:
            return ERROR_FILE_NOT_FOUND;
        case EACCES:
        case EPERM:
            return ERROR_ACCESS_DENIED;
        case ENOEXEC:
            return 193;  // ERROR_BAD_EXE_FORMAT
        case ENOMEM:
        case EAGAIN:
            return ERROR_NOT_ENOUGH_MEMORY;
        default:
            return ERROR_INVALID_PARAMETER;
    }
}

}  // namespace

std::string FindProgram(const std::string& name) {
    if (name.empty()) {
        return {};
    }
    const bool drive = name.size() >= 2 && name[1] == ':';
    if (drive || name.find('/') != std::string::npos || name.find('\\') != std::string::npos) {
        std::string path = drive ? HostPath(detail::Utf16(name)) : name;
        for (char& c : path) {
            if (c == '\\') {
                c = '/';
            }
        }
        const auto slash = path.rfind('/');
        return MatchInDirectory(path.substr(0, slash == 0 ? 1 : slash), path.substr(slash + 1));
    }
    std::vector<std::string> dirs{ModuleDirectory(), ProgramDirectory()};
    if (const char* env = std::getenv("PATH")) {
        std::string_view rest(env);
        while (true) {
            const auto colon = rest.find(':');
            dirs.emplace_back(rest.substr(0, colon));
            if (colon == std::string_view::npos) {
                break;
            }
            rest.remove_prefix(colon + 1);
        }
    }
    for (const auto& dir : dirs) {
        if (dir.empty()) {
            continue;
        }
        if (auto found = MatchInDirectory(dir, name); !found.empty()) {
            return found;
        }
    }
    return {};
}

std::vector<std::string> CurrentEnvironment() {
    std::vector<std::string> env;
    for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
        env.emplace_back(*e);
    }
    return env;
}

std::vector<std::string> EnvironmentWith(const std::vector<std::string>& base,
                                         const std::vector<std::string>& overrides) {
    std::vector<std::string> env;
    auto nameOf = [](const std::string& entry) { return entry.substr(0, entry.find('=')); };
    for (const auto& entry : base) {
        bool replaced = false;
        for (const auto& o : overrides) {
            replaced = replaced || nameOf(o) == nameOf(entry);
        }
        if (!replaced) {
            env.push_back(entry);
        }
    }
    for (const auto& o : overrides) {
        if (o.find('=') != std::string::npos && o.back() != '=') {
            env.push_back(o);  // "NAME=" removes the variable
        }
    }
    return env;
}

pid_t SpawnProgram(const std::string& path, const std::vector<std::string>& argv,
                   const std::vector<std::string>& environment, const std::string& directory,
                   const int stdFds[3], bool detached) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attr;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attr);
    for (int i = 0; i < 3; ++i) {
        if (stdFds[i] == -1) {
            posix_spawn_file_actions_addopen(&actions, i, "/dev/null", i == 0 ? O_RDONLY : O_WRONLY,
                                             0);
        } else if (stdFds[i] >= 0) {
            posix_spawn_file_actions_adddup2(&actions, stdFds[i], i);
        }
    }
    if (!directory.empty()) {
        posix_spawn_file_actions_addchdir_np(&actions, directory.c_str());
    }
    sigset_t none;
    sigemptyset(&none);
    sigset_t defaults;
    sigemptyset(&defaults);
    for (int sig : {SIGPIPE, SIGTERM, SIGINT, SIGHUP, SIGCHLD, SIGQUIT}) {
        sigaddset(&defaults, sig);
    }
    short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
    if (detached) {
        flags |= POSIX_SPAWN_SETSID;
    }
    posix_spawnattr_setflags(&attr, flags);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);

    std::vector<char*> args;
    for (const auto& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    std::vector<char*> envp;
    for (const auto& e : environment) {
        envp.push_back(const_cast<char*>(e.c_str()));
    }
    envp.push_back(nullptr);

    pid_t pid = -1;
    const int rc = posix_spawn(&pid, path.c_str(), &actions, &attr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    if (rc != 0) {
        SetLastError(ErrorFromSpawn(rc));
        return -1;
    }
    return pid;
}

}  // namespace embedded

std::u16string SearchProgram(std::u16string_view name) {
    const std::string found = embedded::FindProgram(detail::Utf8(name));
    SetLastError(found.empty() ? ERROR_FILE_NOT_FOUND : ERROR_SUCCESS);
    return detail::Utf16(found);
}

}  // namespace platform
