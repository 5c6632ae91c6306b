#include "trace/trace.h"

#include <atomic>
#include <mutex>
#include <string>

#include "common/module_state.h"
#include "common/ovstring.h"
#include "config/product_values.h"
#include "platform/error.h"
#include "platform/kernel.h"
#include "platform/registry.h"
#include "trace/trace_line.h"

namespace ovsvc {

namespace {

// The effective mask: kNotRead until the first line reads the registry,
// 0 once tracing is off for the rest of the process's life.
constexpr std::uint32_t kNotRead = 0xFFFFFFFF;
std::atomic<std::uint32_t> g_level{kNotRead};

void SwitchOff() {
    g_level.store(0, std::memory_order_relaxed);
}

// Serialises open, append and close within the process. Never destroyed, so
// that lines written while the process exits still find it.
std::mutex& WriterLock() {
    static auto* lock = new std::mutex;
    return *lock;
}

// Reads DebugLevel and DebugFile; on any failure tracing goes off for good.
bool ReadConfiguration(std::u16string* path) {
    const std::optional<config::TraceSettings> settings = config::ReadTraceSettings();
    if (!settings) {
        return false;
    }
    *path = settings->file;
    g_level.store(settings->level, std::memory_order_relaxed);
    return true;
}

std::string BuildLine(std::u16string_view text, std::uint32_t code, const void* data,
                      std::int64_t dataLength) {
    platform::SYSTEMTIME now{};
    platform::GetLocalTime(&now);
    const trace::Stamp stamp{
        now.wDay,    now.wMonth,  now.wYear,         now.wHour,
        now.wMinute, now.wSecond, now.wMilliseconds, platform::GetCurrentThreadId()};
    std::string line;
    line.reserve(96 + text.size());
    trace::AppendUtf8Limited(&line, trace::StampPiece(stamp), trace::kStampLimit);
    trace::AppendUtf8Limited(&line, trace::CodePiece(code), trace::kCodeLimit);
    if ((code & 0xFF000000) == RAW) {
        trace::AppendDump(&line, data, dataLength);
    } else {
        std::u16string piece = u": ";
        piece.append(text);
        trace::AppendUtf8Limited(&line, piece, trace::kTextLimit);
    }
    line.append("\r\n");
    return line;
}

// Appends the line to the file; a file that can be neither opened nor
// created switches tracing off.
void AppendToFile(const std::u16string& path, const std::string& line) {
    using namespace platform;
    std::lock_guard lock(WriterLock());
    constexpr DWORD kAccess = FILE_APPEND_DATA | SYNCHRONIZE;
    constexpr DWORD kShare = FILE_SHARE_READ | FILE_SHARE_WRITE;
    UniqueFile file = CreateFileW(path, kAccess, kShare, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL);
    if (!file) {
        file = CreateFileW(path, kAccess, kShare, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL);
    }
    if (!file) {
        SwitchOff();
        return;
    }
    SetFilePointer(file.get(), 0, nullptr, FILE_END);
    DWORD written = 0;
    WriteFile(file.get(), line.data(), static_cast<DWORD>(line.size()), &written);
}

void WriteMessage(std::u16string_view sourceFile, unsigned line, std::uint32_t code,
                  std::u16string_view message) {
    std::u16string text = trace::LocationPrefix(sourceFile, line, fIsService.load());
    text.append(message);
    TraceWrite(text, code, nullptr, 0);
}

}  // namespace

bool TraceEnabled() noexcept {
    return g_level.load(std::memory_order_relaxed) != 0;
}

void TraceWrite(std::u16string_view text, std::uint32_t code, const void* data,
                std::int64_t dataLength) {
    if (!TraceEnabled()) {
        return;
    }
    platform::LastErrorKeeper keep;
    std::u16string path;
    if (!ReadConfiguration(&path)) {
        SwitchOff();
        return;
    }
    if (!trace::PassesFilter(code, g_level.load(std::memory_order_relaxed))) {
        return;
    }
    AppendToFile(path, BuildLine(text, code, data, dataLength));
}

void TraceLogV(std::string_view sourceFile, unsigned line, std::uint32_t code,
               std::u16string_view format, std::span<const FormatArg> args) {
    if (!TraceEnabled()) {
        return;
    }
    platform::LastErrorKeeper keep;
    WriteMessage(ToUtf16(sourceFile), line, code, FormatV(format, args));
}

void TraceCheck(std::string_view expression, std::string_view sourceFile, unsigned line) {
    if (!TraceEnabled()) {
        return;
    }
    platform::LastErrorKeeper keep;
    WriteMessage(ToUtf16(sourceFile), line, ERR | NORM, ToUtf16(expression));
}

void TraceInfoCheck(std::string_view expression, std::string_view sourceFile, unsigned line) {
    if (!TraceEnabled()) {
        return;
    }
    platform::LastErrorKeeper keep;
    WriteMessage(ToUtf16(sourceFile), line, INF | NORM, ToUtf16(expression));
}

void TraceDbgMessage(std::u16string_view sourceFile, unsigned line, std::u16string_view message,
                     std::u16string_view section, std::uint32_t code) {
    if (!TraceEnabled()) {
        return;
    }
    platform::LastErrorKeeper keep;
    if ((code & 0x00FFFFFF) == 0) {
        code |= trace::CategoryOfSection(section);
    }
    WriteMessage(sourceFile, line, code, message);
}

void ResetTraceStateForTesting() {
    g_level.store(kNotRead, std::memory_order_relaxed);
}

}  // namespace ovsvc
