// Cost of learning which sessions exist (the cache repair does it on each
// run) as the session table grows, and of starting and waiting for a short
// process (what a logoff waits for). Read the growth, not single times:
// --benchmark_repetitions=N gives medians.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/machine.h"
#include "platform/process.h"
#include "platform/wts.h"
#include "session/wts_layer.h"

using namespace platform;

namespace {

std::string g_root;

// A fresh root holding `count` logged-on sessions, half of them disconnected.
void UseTableOf(int count) {
    static int generation = 0;
    const std::string root = g_root + "/t" + std::to_string(generation++);
    machine::UseRoot(root);
    for (int i = 1; i <= count; ++i) {
        terminal::Session s;
        s.id = static_cast<DWORD>(i);
        s.userName = u"user" + std::u16string(1, static_cast<char16_t>(u'a' + i % 26));
        s.clientAddress = u"10.0.0.1";
        if (terminal::Logon(s) != 0) {
            std::abort();
        }
        if (i % 2 == 0) {
            terminal::Disconnect(s.id);
        }
    }
}

void BM_EnumerateSessions(benchmark::State& state) {
    UseTableOf(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        std::vector<WTS_SESSION_INFOW> sessions;
        const bool ok = WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &sessions);
        benchmark::DoNotOptimize(ok);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_EnumerateSessions)
    ->RangeMultiplier(10)
    ->Range(10, 1000)
    ->Unit(benchmark::kMillisecond)
    ->Complexity();

void BM_RefreshSessionList(benchmark::State& state) {
    UseTableOf(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        const bool ok = ovsvc::RefreshSessionList();
        benchmark::DoNotOptimize(ok);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_RefreshSessionList)
    ->RangeMultiplier(10)
    ->Range(10, 1000)
    ->Unit(benchmark::kMillisecond)
    ->Complexity();

void BM_StartAndWaitForProcess(benchmark::State& state) {
    for (auto _ : state) {
        STARTUPINFOW si;
        PROCESS_INFORMATION pi;
        if (!CreateProcessW({}, u"true", nullptr, nullptr, false, CREATE_NO_WINDOW, nullptr, {}, si,
                            &pi)) {
            state.SkipWithError("CreateProcessW failed");
            break;
        }
        WaitForSingleObject(pi.hProcess.get(), INFINITE);
    }
}
BENCHMARK(BM_StartAndWaitForProcess)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    g_root = (std::filesystem::temp_directory_path() / "ovsvc-bench-XXXXXX").string();
    if (mkdtemp(g_root.data()) == nullptr) {
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    machine::UseRoot(g_root + "-closed");
    std::error_code ec;
    std::filesystem::remove_all(g_root, ec);
    std::filesystem::remove_all(g_root + "-closed", ec);
    return 0;
}
