// Requests per second through the request channel, with 1, 4 and 16 client
// processes against the real service host, and the CPU the clients burn.
//
//   bench_channel_throughput [requests-per-client=2000] [client counts...]
//
// Each run uses a fresh machine root with tracing off. A client process
// sends repair requests (the service answers them at once), so the numbers
// are the channel's own cost: ticket, five event hand-overs, area copy.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "channel/startup.h"
#include "ovsvc.h"
#include "platform/kernel.h"
#include "platform/machine.h"

namespace {

double Seconds(const timeval& tv) {
    return static_cast<double>(tv.tv_sec) + tv.tv_usec / 1e6;
}

std::string BinDir() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
}

pid_t StartService() {
    const pid_t pid = fork();
    if (pid == 0) {
        const std::string path = BinDir() + "/ovaspoolsvc";
        execl(path.c_str(), path.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    for (int i = 0; i < 5000; ++i) {
        platform::UniqueEvent ack1 =
            platform::OpenEventW(platform::SYNCHRONIZE, false, u"Global\\OVC-Ack1");
        if (ack1) {
            return pid;
        }
        platform::Sleep(2);
    }
    std::fprintf(stderr, "service did not start\n");
    std::exit(1);
}

int RunClient(int requests, platform::HANDLE startGate) {
    ovsvc::ModuleAttach();
    platform::WaitForSingleObject(startGate, platform::INFINITE);
    int failures = 0;
    for (int i = 0; i < requests; ++i) {
        if (OVADLLRepair() != -10) {
            ++failures;
        }
    }
    return failures == 0 ? 0 : 1;
}

struct Result {
    double wallSeconds;
    double clientCpuSeconds;
    int failedClients;
};

Result RunOnce(int clients, int requests) {
    const platform::SecurityAttributes open{.nullDacl = true};
    platform::UniqueEvent gate = platform::CreateEventW(&open, true, false, u"bench-start-gate");
    std::vector<pid_t> pids;
    for (int c = 0; c < clients; ++c) {
        const pid_t pid = fork();
        if (pid == 0) {
            _exit(RunClient(requests, gate.get()));
        }
        pids.push_back(pid);
    }
    platform::Sleep(300);  // every client attached and waiting at the gate
    const auto start = std::chrono::steady_clock::now();
    platform::SetEvent(gate.get());
    Result result{0, 0, 0};
    for (pid_t pid : pids) {
        int status = 0;
        rusage usage{};
        wait4(pid, &status, 0, &usage);
        result.clientCpuSeconds += Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            ++result.failedClients;
        }
    }
    result.wallSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    const int requests = argc > 1 ? std::atoi(argv[1]) : 2000;
    std::vector<int> counts;
    for (int i = 2; i < argc; ++i) {
        counts.push_back(std::atoi(argv[i]));
    }
    if (counts.empty()) {
        counts = {1, 4, 16};
    }
    char root[] = "/tmp/ovsvc-bench-XXXXXX";
    if (mkdtemp(root) == nullptr) {
        return 1;
    }
    platform::machine::UseRoot(root);
    const pid_t service = StartService();

    std::printf("%-8s %-10s %-12s %-14s %-16s\n", "clients", "requests", "req/s", "vs 1 client",
                "client CPU us/req");
    double single = 0;
    for (int clients : counts) {
        const Result r = RunOnce(clients, requests);
        const double total = static_cast<double>(clients) * requests;
        const double rate = total / r.wallSeconds;
        if (single == 0) {
            single = rate;
        }
        std::printf("%-8d %-10.0f %-12.0f %-14.2f %-16.2f%s\n", clients, total, rate, rate / single,
                    r.clientCpuSeconds * 1e6 / total, r.failedClients != 0 ? "  (failures!)" : "");
    }
    kill(service, SIGTERM);
    waitpid(service, nullptr, 0);
    std::filesystem::remove_all(root);
    return 0;
}
