// The event log on the embedded platform: each entry is one line appended to
// the machine's event-log file and a message to syslog.
//
// Line: "<yyyy-mm-dd hh:mm:ss.mmm>\t<source>\t<type>\t<text>", the text
// being the entry's strings joined by " | ", with backslash, tab, carriage
// return and line feed escaped so that an entry never spans two lines.
// Several processes may append at once: every line is written with one
// write() under an exclusive lock on the file.
#include "platform/eventlog.h"
#include "platform/text.h"

#include <fcntl.h>
#include <sys/file.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <set>

#include "platform/machine.h"

namespace platform {

namespace {

constexpr DWORD RPC_S_SERVER_UNAVAILABLE = 1722;
// Windows' limit on one insertion string, in characters.
constexpr std::size_t kMaxStringChars = 31839;

struct EventSource {
    std::string name;  // UTF-8
};

struct Sources {
    std::mutex mutex;
    std::set<EventSource*> open;
};

Sources& sources() {
    static auto* s = new Sources;
    return *s;
}


void AppendEscaped(std::string* out, std::string_view text) {
    for (char c : text) {
        switch (c) {
            case '\\':
                out->append("\\\\");
                break;
            case '\t':
                out->append("\\t");
                break;
            case '\r':
                out->append("\\r");
                break;
            case '\n':
                out->append("\\n");
                break;
            default:
                out->push_back(c);
        }
    }
}

const char* TypeName(WORD type) {
    switch (type) {
        case EVENTLOG_SUCCESS:
            return "Success";
        case EVENTLOG_ERROR_TYPE:
            return "Error";
        case EVENTLOG_WARNING_TYPE:
            return "Warning";
        case EVENTLOG_INFORMATION_TYPE:
            return "Information";
        case 0x0008:
            return "Audit Success";
        case 0x0010:
            return "Audit Failure";
        default:
            return nullptr;
    }
}

int SyslogPriority(WORD type) {
    switch (type) {
        case EVENTLOG_ERROR_TYPE:
        case 0x0010:
            return LOG_ERR;
        case EVENTLOG_WARNING_TYPE:
            return LOG_WARNING;
        default:
            return LOG_INFO;
    }
}

std::string TimeStamp() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
        1000;
    tm local{};
    localtime_r(&seconds, &local);
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<int>(millis));
    return buffer;
}

// Appends one whole line; false (with the last error set) when the file
// cannot be opened or written.
bool AppendLine(const std::string& line) {
    const std::string path = machine::EventLogPath();
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        SetLastError(errno == ENOENT ? ERROR_PATH_NOT_FOUND : ERROR_ACCESS_DENIED);
        return false;
    }
    ::flock(fd, LOCK_EX);
    std::size_t done = 0;
    bool ok = true;
    while (done < line.size()) {
        const ssize_t n = ::write(fd, line.data() + done, line.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            ok = false;
            break;
        }
        done += static_cast<std::size_t>(n);
    }
    ::flock(fd, LOCK_UN);
    ::close(fd);
    if (!ok) {
        SetLastError(ERROR_CANTWRITE);
    }
    return ok;
}

EventSource* Lookup(HANDLE handle) {
    auto* source = static_cast<EventSource*>(handle);
    return sources().open.count(source) != 0 ? source : nullptr;
}

}  // namespace

HANDLE RegisterEventSourceW(std::u16string_view server, std::u16string_view source) {
    if (!server.empty() && server != u"." && server != u"\\\\.") {
        SetLastError(RPC_S_SERVER_UNAVAILABLE);  // only the local machine has a log
        return nullptr;
    }
    if (source.empty()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    auto* handle = new EventSource{ToUtf8(source)};
    Sources& s = sources();
    std::lock_guard lock(s.mutex);
    s.open.insert(handle);
    SetLastError(ERROR_SUCCESS);
    return handle;
}

bool ReportEventW(HANDLE eventLog, WORD type, WORD category, DWORD eventId, const void* userSid,
                  const std::vector<std::u16string>& strings, const void* rawData,
                  DWORD rawDataSize) {
    (void)category;
    (void)userSid;
    std::string name;
    {
        Sources& s = sources();
        std::lock_guard lock(s.mutex);
        const EventSource* source = Lookup(eventLog);
        if (source == nullptr) {
            SetLastError(ERROR_INVALID_HANDLE);
            return false;
        }
        name = source->name;
    }
    const char* typeName = TypeName(type);
    if (typeName == nullptr || strings.size() > 0xFFFF ||
        (rawDataSize != 0 && rawData == nullptr)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    std::string text;
    for (const auto& s : strings) {
        if (s.size() > kMaxStringChars) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return false;
        }
        if (!text.empty()) {
            text.append(" | ");
        }
        text.append(ToUtf8(s));
    }
    if (strings.empty()) {
        text = "(event " + std::to_string(eventId & 0xFFFF) + ")";
    }
    std::string line = TimeStamp();
    line.push_back('\t');
    AppendEscaped(&line, name);
    line.push_back('\t');
    line.append(typeName);
    line.push_back('\t');
    AppendEscaped(&line, text);
    line.push_back('\n');
    if (!AppendLine(line)) {
        return false;
    }
    std::string escaped;
    AppendEscaped(&escaped, text);
    syslog(LOG_USER | SyslogPriority(type), "%s: %s", name.c_str(), escaped.c_str());
    SetLastError(ERROR_SUCCESS);
    return true;
}

bool DeregisterEventSource(HANDLE eventLog) {
    Sources& s = sources();
    std::lock_guard lock(s.mutex);
    EventSource* source = Lookup(eventLog);
    if (source == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    s.open.erase(source);
    delete source;
    SetLastError(ERROR_SUCCESS);
    return true;
}

}  // namespace platform
