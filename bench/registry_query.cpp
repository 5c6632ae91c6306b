// Registry cost on the trace path: every trace line opens the product key and
// queries two values. Reports microseconds per operation; run with
// --benchmark_repetitions=N for medians.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/machine.h"
#include "platform/registry.h"

using namespace platform;

namespace {

constexpr char16_t kProduct[] = u"Software\\Orvelle\\Ovaspool";
constexpr char16_t kTraceFile[] = u"C:\\ovsvc\\trace.log";

void Prepare() {
    UniqueKey key;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, kProduct, 0, KEY_ALL_ACCESS, &key, nullptr) != 0) {
        std::abort();
    }
    const DWORD level = 0xff;
    RegSetValueExW(key.get(), u"DebugLevel", REG_DWORD, &level, sizeof level);
    RegSetValueExW(key.get(), u"DebugFile", REG_SZ, kTraceFile, sizeof kTraceFile);
}

// A fresh machine for the run, removed at exit.
struct BenchMachine {
    std::string root = (std::filesystem::temp_directory_path() / "ovsvc-bench-XXXXXX").string();
    BenchMachine() {
        if (mkdtemp(root.data()) == nullptr) {
            std::abort();
        }
        machine::UseRoot(root);
        Prepare();
    }
    ~BenchMachine() {
        machine::UseRoot(root + "-closed");  // drops the connection before the files go
        std::error_code ec;
        std::filesystem::remove_all(root, ec);
        std::filesystem::remove_all(root + "-closed", ec);
    }
};

void UseBenchMachine() {
    static BenchMachine machine;
}

void BM_QueryDword(benchmark::State& state) {
    UseBenchMachine();
    UniqueKey key;
    RegOpenKeyExW(HKEY_LOCAL_MACHINE, kProduct, 0, KEY_READ, &key);
    for (auto _ : state) {
        DWORD type = 0;
        DWORD value = 0;
        DWORD size = sizeof value;
        const LSTATUS rc = RegQueryValueExW(key.get(), u"DebugLevel", &type, &value, &size);
        benchmark::DoNotOptimize(rc);
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_QueryDword)->Unit(benchmark::kMicrosecond);

// What a trace line does: open, the level, the file name, close.
void BM_OpenQueryTwoClose(benchmark::State& state) {
    UseBenchMachine();
    for (auto _ : state) {
        UniqueKey key;
        RegOpenKeyExW(HKEY_LOCAL_MACHINE, kProduct, 0, KEY_READ, &key);
        DWORD value = 0;
        DWORD size = sizeof value;
        RegQueryValueExW(key.get(), u"DebugLevel", nullptr, &value, &size);
        char16_t file[260];
        size = sizeof file;
        RegQueryValueExW(key.get(), u"DebugFile", nullptr, file, &size);
        benchmark::DoNotOptimize(value);
        benchmark::DoNotOptimize(file[0]);
    }
}
BENCHMARK(BM_OpenQueryTwoClose)->Unit(benchmark::kMicrosecond);

// The path when the product key does not exist (tracing never configured).
void BM_OpenMissingKey(benchmark::State& state) {
    UseBenchMachine();
    for (auto _ : state) {
        UniqueKey key;
        const LSTATUS rc =
            RegOpenKeyExW(HKEY_LOCAL_MACHINE, u"Software\\Orvelle\\Absent", 0, KEY_READ, &key);
        benchmark::DoNotOptimize(rc);
    }
}
BENCHMARK(BM_OpenMissingKey)->Unit(benchmark::kMicrosecond);

void BM_SetDword(benchmark::State& state) {
    UseBenchMachine();
    UniqueKey key;
    RegOpenKeyExW(HKEY_LOCAL_MACHINE, kProduct, 0, KEY_ALL_ACCESS, &key);
    DWORD value = 0;
    for (auto _ : state) {
        ++value;
        const LSTATUS rc =
            RegSetValueExW(key.get(), u"TimeOutClient", REG_DWORD, &value, sizeof value);
        benchmark::DoNotOptimize(rc);
    }
}
BENCHMARK(BM_SetDword)->Unit(benchmark::kMicrosecond);

// A full walk over the subkeys of a key, by index, as Win32 code does it.
void BM_EnumSubKeysByIndex(benchmark::State& state) {
    UseBenchMachine();
    const auto count = static_cast<int>(state.range(0));
    UniqueKey parent;
    RegCreateKeyExW(HKEY_LOCAL_MACHINE, u"Software\\Bench\\Many", 0, KEY_ALL_ACCESS, &parent,
                    nullptr);
    for (int i = 0; i < count; ++i) {
        UniqueKey child;
        const std::string name = "Printer " + std::to_string(i);
        RegCreateKeyExW(parent.get(), std::u16string(name.begin(), name.end()), 0, KEY_READ, &child,
                        nullptr);
    }
    for (auto _ : state) {
        char16_t name[256];
        DWORD index = 0;
        for (;; ++index) {
            DWORD length = 256;
            if (RegEnumKeyExW(parent.get(), index, name, &length) != ERROR_SUCCESS) {
                break;
            }
        }
        benchmark::DoNotOptimize(index);
    }
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, u"Software\\Bench");
}
BENCHMARK(BM_EnumSubKeysByIndex)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
