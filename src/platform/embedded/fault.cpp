#include "fault.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <fstream>
#include <map>
#include <mutex>
#include <string>

#include "platform/error.h"
#include "platform/machine.h"

namespace platform::fault {

namespace {

struct Rule {
    unsigned long long nth = 0;  // 0: every call
    DWORD error = 0;
    bool kill = false;  // the process dies at the call instead
    unsigned long long calls = 0;
};

struct Faults {
    std::mutex mutex;
    std::string path;
    struct timespec mtime {};
    off_t size = -1;
    std::map<std::string, Rule, std::less<>> rules;
};

Faults& State() {
    static auto* faults = new Faults;  // used until the process ends
    return *faults;
}

// "N:E" or "*:E"; false for anything else.
bool ParseRule(std::string_view text, Rule* rule) {
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos) {
        return false;
    }
    const std::string_view count = text.substr(0, colon);
    const std::string_view error = text.substr(colon + 1);
    rule->kill = error == "kill";
    if (count != "*") {
        const auto [end, ec] =
            std::from_chars(count.data(), count.data() + count.size(), rule->nth);
        if (ec != std::errc() || end != count.data() + count.size() || rule->nth == 0) {
            return false;
        }
    }
    if (rule->kill) {
        return true;
    }
    const auto [end, ec] = std::from_chars(error.data(), error.data() + error.size(), rule->error);
    return ec == std::errc() && end == error.data() + error.size();
}

void Reload(Faults& f) {
    f.rules.clear();
    std::ifstream in(f.path);
    std::string line;
    constexpr std::string_view kPrefix = "fault.";
    while (std::getline(in, line)) {
        const std::size_t eq = line.find('=');
        if (line.rfind(kPrefix, 0) != 0 || eq == std::string::npos) {
            continue;
        }
        Rule rule;
        if (ParseRule(std::string_view(line).substr(eq + 1), &rule)) {
            f.rules[line.substr(kPrefix.size(), eq - kPrefix.size())] = rule;
        }
    }
}

}  // namespace

bool Inject(std::string_view operation) {
    Faults& f = State();
    std::lock_guard lock(f.mutex);
    const std::string path = machine::Root() + "/machine.conf";
    struct stat st {};
    const bool exists = ::stat(path.c_str(), &st) == 0;
    const off_t size = exists ? st.st_size : -1;
    if (path != f.path || size != f.size || st.st_mtim.tv_sec != f.mtime.tv_sec ||
        st.st_mtim.tv_nsec != f.mtime.tv_nsec) {
        f.path = path;
        f.size = size;
        f.mtime = st.st_mtim;
        Reload(f);
    }
    if (f.rules.empty()) {
        return false;
    }
    const auto it = f.rules.find(operation);
    if (it == f.rules.end()) {
        return false;
    }
    Rule& rule = it->second;
    ++rule.calls;
    if (rule.nth != 0 && rule.calls != rule.nth) {
        return false;
    }
    if (rule.kill) {
        // A crash at this very call, before it changes anything.
        ::kill(::getpid(), SIGKILL);
    }
    SetLastError(rule.error);
    return true;
}

}  // namespace platform::fault
