// Cost of one trace line: with tracing off (the first test of every call),
// with tracing on (registry read, file open, append and close per line),
// and the parts of it measured alone.
//
// Runs on a fresh machine root under /tmp, removed at exit.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "common/format.h"
#include "config/product_key.h"
#include "platform/kernel.h"
#include "platform/machine.h"
#include "platform/registry.h"
#include "trace/trace.h"

namespace {

using namespace ovsvc;

std::string g_root;

// A fresh machine root for this run, made on first use and removed at exit.
void UseFreshMachine() {
    if (!g_root.empty()) {
        return;
    }
    char pattern[] = "/tmp/ovsvc-bench-trace-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        std::abort();
    }
    g_root = pattern;
    platform::machine::UseRoot(g_root);
    std::atexit([] {
        std::error_code ec;
        std::filesystem::remove_all(g_root, ec);
    });
}

void SetLevel(const std::uint32_t* level) {
    UseFreshMachine();
    platform::UniqueKey key;
    platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, kProductKey, 0,
                              platform::KEY_ALL_ACCESS, &key, nullptr);
    if (level == nullptr) {
        platform::RegDeleteValueW(key.get(), u"DebugLevel");
        return;
    }
    platform::RegSetValueExW(key.get(), u"DebugLevel", platform::REG_DWORD, level, sizeof *level);
    const std::string path = g_root + "/bench-trace.log";
    const std::u16string wide(path.begin(), path.end());
    platform::RegSetValueExW(key.get(), u"DebugFile", platform::REG_SZ, wide.c_str(),
                             static_cast<platform::DWORD>((wide.size() + 1) * 2));
}

void TraceOff(benchmark::State& state) {
    SetLevel(nullptr);
    ResetTraceStateForTesting();
    TraceLog("bench.cpp", 1, INF | NORM, u"reads the registry once");
    const std::u16string name = u"Printer on client";
    int i = 0;
    for (auto _ : state) {
        OVTRACE(INF | NORM, "line %d for %s (%s)", ++i, name, std::u16string(u"built?"));
    }
    state.counters["enabled"] = TraceEnabled() ? 1 : 0;
}
BENCHMARK(TraceOff);

void TraceOn(benchmark::State& state) {
    const std::uint32_t level = 0xFF;
    SetLevel(&level);
    ResetTraceStateForTesting();
    const std::u16string name = u"Printer on client";
    int i = 0;
    for (auto _ : state) {
        OVTRACE(INF | NORM, "line %d for %s", ++i, name);
    }
    state.counters["enabled"] = TraceEnabled() ? 1 : 0;
    std::filesystem::remove(g_root + "/bench-trace.log");
}
BENCHMARK(TraceOn);

// Tracing on but the category filtered out: the registry read alone.
void TraceFilteredOut(benchmark::State& state) {
    const std::uint32_t level = CACH;
    SetLevel(&level);
    ResetTraceStateForTesting();
    for (auto _ : state) {
        OVTRACE(INF | NORM, "filtered %d", 1);
    }
}
BENCHMARK(TraceFilteredOut);

// One file append as the writer does it: open, seek to the end, write, close.
void FileAppend(benchmark::State& state) {
    UseFreshMachine();
    const std::string path = g_root + "/bench-append.log";
    const std::u16string wide(path.begin(), path.end());
    const std::string line(90, 'x');
    for (auto _ : state) {
        platform::UniqueFile file =
            platform::CreateFileW(wide, platform::FILE_APPEND_DATA | platform::SYNCHRONIZE,
                                  platform::FILE_SHARE_READ | platform::FILE_SHARE_WRITE,
                                  platform::OPEN_ALWAYS, platform::FILE_ATTRIBUTE_NORMAL);
        platform::SetFilePointer(file.get(), 0, nullptr, platform::FILE_END);
        platform::DWORD written = 0;
        platform::WriteFile(file.get(), line.data(), static_cast<platform::DWORD>(line.size()),
                            &written);
    }
    std::filesystem::remove(path);
}
BENCHMARK(FileAppend);

// Building the message text alone.
void FormatMessage(benchmark::State& state) {
    const std::u16string name = u"Printer on client";
    int i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(Format(u"line %d for %s", ++i, name));
    }
}
BENCHMARK(FormatMessage);

}  // namespace

BENCHMARK_MAIN();
