// The machine root on Windows: %OVSVC_ROOT%, or %ProgramData%\ovsvc. It holds
// machine.conf and the event-log file of the embedded machine's layout; the
// settings there change nothing in Windows' own behaviour.
#include "platform/machine.h"
#include "platform/error.h"
#include "platform/text.h"

#include <filesystem>
#include <fstream>
#include <mutex>
#include <vector>

#include "win32_api.h"

namespace platform::machine {

namespace {

std::u16string Environment(const wchar_t* name) {
    std::u16string value(256, u'\0');
    for (;;) {
        const ::DWORD n = ::GetEnvironmentVariableW(name, win32::WideBuffer(value),
                                                    static_cast<::DWORD>(value.size()));
        if (n == 0) {
            return {};
        }
        if (n < value.size()) {
            value.resize(n);
            return value;
        }
        value.resize(n);  // n counts the terminator when the buffer is short
    }
}

std::string DefaultRoot() {
    if (std::u16string root = Environment(L"OVSVC_ROOT"); !root.empty()) {
        return ToUtf8(root);
    }
    std::u16string data = Environment(L"ProgramData");
    if (data.empty()) {
        data = u"C:\\ProgramData";
    }
    return ToUtf8(data + u"\\ovsvc");
}

std::filesystem::path HostPath(const std::string& utf8) {
    return std::filesystem::path(ToUtf16(utf8));
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

std::filesystem::path ConfPath() {
    return HostPath(Root()) / u"machine.conf";
}

}  // namespace

const std::string& Root() {
    State& s = state();
    std::lock_guard lock(s.mutex);
    if (s.root.empty()) {
        platform::LastErrorKeeper keep;
        s.root = DefaultRoot();
        std::error_code ec;
        std::filesystem::create_directories(HostPath(s.root), ec);
    }
    return s.root;
}

std::string RootProblem() {
    platform::LastErrorKeeper keep;
    const std::string root = Root();
    std::error_code ec;
    if (!std::filesystem::exists(HostPath(root), ec)) {
        return "machine root " + root + " cannot be created";
    }
    if (!std::filesystem::is_directory(HostPath(root), ec)) {
        return "machine root " + root + " is not a directory";
    }
    return {};  // Windows keeps its own state elsewhere; the root only holds files of tests
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
    platform::LastErrorKeeper keep;
    s.root = path;
    // Children started later share the machine.
    const std::u16string wide = ToUtf16(path);
    ::SetEnvironmentVariableW(L"OVSVC_ROOT", win32::Wide(wide));
    std::error_code ec;
    std::filesystem::create_directories(HostPath(s.root), ec);
}

void OnRootChange(std::function<void()> hook) {
    State& s = state();
    std::lock_guard lock(s.mutex);
    s.hooks.push_back(std::move(hook));
}

std::optional<std::string> Setting(const std::string& key) {
    platform::LastErrorKeeper keep;
    std::ifstream in(ConfPath());
    std::string line;
    std::optional<std::string> found;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        const auto eq = line.find('=');
        if (eq != std::string::npos && eq == key.size() && line.compare(0, eq, key) == 0) {
            found = line.substr(eq + 1);  // the last assignment wins
        }
    }
    return found;
}

void SetSetting(const std::string& key, const std::string& value) {
    platform::LastErrorKeeper keep;
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
    std::filesystem::path tmp = ConfPath();
    tmp += u".tmp." + ToUtf16(std::to_string(::GetCurrentProcessId()));
    {
        std::ofstream out(tmp, std::ios::trunc | std::ios::binary);
        for (const auto& line : kept) {
            out << line << '\n';
        }
    }
    std::error_code ec;
    std::filesystem::rename(tmp, ConfPath(), ec);
}

std::string EventLogPath() {
    return Root() + "\\eventlog.log";
}

}  // namespace platform::machine
