// Requests per second through the request channel, with 1, 4 and 16 client
// processes against the real service host, and the CPU the clients burn.
//
//   bench_channel_throughput [requests-per-client=2000] [client counts...]
//
// Each run uses a fresh machine root with tracing off. A client process
// sends requests with a command code the service has no handler for (it
// answers -1 at once), so the numbers are the channel's own cost: ticket,
// five event hand-overs, area copy. Beside them, measured in the same run:
//   - one request's time in cross-process event round trips (two processes
//     handing a turn back and forth through two named events);
//   - the CPU the clients spend beyond what one client alone spends per
//     request, as a share of one core: what waiting for a turn costs.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "channel/client_sync.h"
#include "channel/startup.h"
#include "ovsvc.h"
#include "platform/kernel.h"
#include "platform/machine.h"

namespace {

constexpr std::uint32_t kNoSuchCommand = 99;

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
    ovsvc::ClientRequest request{};
    request.Command = kNoSuchCommand;
    ovsvc::ReplyBuffer reply;
    for (int i = 0; i < requests; ++i) {
        if (ovsvc::ClientSync(&request, &reply) != ovsvc::kResultUnknownCommand) {
            ++failures;
        }
    }
    return failures == 0 ? 0 : 1;
}

// Microseconds per round trip of a turn handed between two processes
// through two automatic-reset named events.
double EventRoundTripMicros(int rounds) {
    const std::u16string ping = u"Global\\bench-rt-ping";
    const std::u16string pong = u"Global\\bench-rt-pong";
    platform::UniqueEvent pingEvent = platform::CreateEventW(nullptr, false, false, ping);
    platform::UniqueEvent pongEvent = platform::CreateEventW(nullptr, false, false, pong);
    const pid_t child = fork();
    if (child == 0) {
        platform::UniqueEvent myPing = platform::OpenEventW(platform::SYNCHRONIZE, false, ping);
        platform::UniqueEvent myPong =
            platform::OpenEventW(platform::EVENT_MODIFY_STATE, false, pong);
        for (int i = 0; i <= rounds; ++i) {
            if (platform::WaitForSingleObject(myPing.get(), 10000) != platform::WAIT_OBJECT_0) {
                _exit(1);
            }
            platform::SetEvent(myPong.get());
        }
        _exit(0);
    }
    platform::SetEvent(pingEvent.get());  // one round outside the timing
    platform::WaitForSingleObject(pongEvent.get(), 10000);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < rounds; ++i) {
        platform::SetEvent(pingEvent.get());
        platform::WaitForSingleObject(pongEvent.get(), 10000);
    }
    const auto elapsed = std::chrono::steady_clock::now() - start;
    waitpid(child, nullptr, 0);
    return std::chrono::duration<double, std::micro>(elapsed).count() / rounds;
}

struct Result {
    double wallSeconds;
    double clientCpuSeconds;
    double clientSleeps;
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
    Result result{0, 0, 0, 0};
    for (pid_t pid : pids) {
        int status = 0;
        rusage usage{};
        wait4(pid, &status, 0, &usage);
        result.clientCpuSeconds += Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
        result.clientSleeps += static_cast<double>(usage.ru_nvcsw);
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

    const double roundTrip = EventRoundTripMicros(5000);
    std::printf("event round trip between two processes: %.2f us\n", roundTrip);
    std::printf("%-8s %-10s %-10s %-12s %-14s %-18s %-18s %-20s %s\n", "clients", "requests",
                "req/s", "vs 1 client", "us/req", "in round trips", "client CPU us/req",
                "waiting CPU (cores)", "sleeps/req");
    double single = 0;
    double singleCpu = 0;
    for (int clients : counts) {
        const Result r = RunOnce(clients, requests);
        const double total = static_cast<double>(clients) * requests;
        const double rate = total / r.wallSeconds;
        const double cpuPerRequest = r.clientCpuSeconds * 1e6 / total;
        if (single == 0) {
            single = rate;
            singleCpu = cpuPerRequest;
        }
        // The clients' CPU beyond one client's own per request, over the wall time.
        const double waiting =
            std::max(0.0, (cpuPerRequest - singleCpu) * total / 1e6) / r.wallSeconds;
        std::printf("%-8d %-10.0f %-10.0f %-12.2f %-14.1f %-18.1f %-18.2f %-20.3f %.2f%s\n",
                    clients, total, rate, rate / single, 1e6 / rate, 1e6 / rate / roundTrip,
                    cpuPerRequest, waiting, r.clientSleeps / total,
                    r.failedClients != 0 ? "  (failures!)" : "");
    }
    kill(service, SIGTERM);
    waitpid(service, nullptr, 0);
    std::filesystem::remove_all(root);
    return 0;
}
