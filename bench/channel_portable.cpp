// The request channel and the cross-process event hand-over, timed through
// the platform layer only, so that the same program measures the embedded
// platform on Linux and a real Win32 implementation (Wine's, or Windows).
//
//   bench_channel_portable [round-trips=20000] [requests-per-client=2000] [client counts...]
//
// Prints one line per measurement:
//   pingpong  <µs per round trip>
//   channel   <clients> <requests per second>
// On the embedded platform run it with OVSVC_ROOT set to a fresh machine
// root (scripts/bench-compare.sh does); it starts the service host found
// beside it, whose tracing is off on a fresh machine.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "ovsvc.h"
#include "platform/kernel.h"
#include "platform/process.h"
#include "platform/text.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr char16_t kPing[] = u"Local\\ovbench-ping";
constexpr char16_t kPong[] = u"Local\\ovbench-pong";
constexpr char16_t kGate[] = u"Local\\ovbench-gate";

// This program, as it was started (argv[0]).
std::u16string g_self;

std::u16string SelfPath() {
    return g_self;
}

std::u16string Quoted(const std::u16string& text) {
    return u"\"" + text + u"\"";
}

platform::UniqueProcess Start(const std::u16string& commandLine) {
    platform::STARTUPINFOW startup;
    platform::PROCESS_INFORMATION info;
    if (!platform::CreateProcessW(u"", commandLine, nullptr, nullptr, false,
                                  platform::CREATE_NO_WINDOW, nullptr, u"", startup, &info)) {
        std::fprintf(stderr, "cannot start %s: error %u\n", platform::ToUtf8(commandLine).c_str(),
                     static_cast<unsigned>(platform::GetLastError()));
        std::exit(1);
    }
    return std::move(info.hProcess);
}

int WaitExit(const platform::UniqueProcess& process) {
    platform::WaitForSingleObject(process.get(), platform::INFINITE);
    platform::DWORD code = 1;
    platform::GetExitCodeProcess(process.get(), &code);
    return static_cast<int>(code);
}

// ---- ping-pong ----------------------------------------------------------------

int PongChild(int roundTrips) {
    platform::UniqueEvent ping = platform::OpenEventW(platform::EVENT_ALL_ACCESS, false, kPing);
    platform::UniqueEvent pong = platform::OpenEventW(platform::EVENT_ALL_ACCESS, false, kPong);
    if (!ping || !pong) {
        return 2;
    }
    for (int i = 0; i < roundTrips; ++i) {
        if (platform::WaitForSingleObject(ping.get(), 10000) != platform::WAIT_OBJECT_0) {
            return 3;
        }
        platform::SetEvent(pong.get());
    }
    return 0;
}

double PingPongMicros(int roundTrips) {
    platform::UniqueEvent ping = platform::CreateEventW(nullptr, false, false, kPing);
    platform::UniqueEvent pong = platform::CreateEventW(nullptr, false, false, kPong);
    platform::UniqueProcess child =
        Start(Quoted(SelfPath()) + u" --pong " + platform::ToUtf16(std::to_string(roundTrips)));
    // One warm-up exchange, so the child's start-up is not timed.
    platform::SetEvent(ping.get());
    platform::WaitForSingleObject(pong.get(), 30000);
    const auto begin = Clock::now();
    for (int i = 1; i < roundTrips; ++i) {
        platform::SetEvent(ping.get());
        if (platform::WaitForSingleObject(pong.get(), 10000) != platform::WAIT_OBJECT_0) {
            std::fprintf(stderr, "ping-pong stalled\n");
            std::exit(1);
        }
    }
    const auto elapsed = std::chrono::duration<double, std::micro>(Clock::now() - begin);
    WaitExit(child);
    return elapsed.count() / (roundTrips - 1);
}

// ---- channel ------------------------------------------------------------------

int ClientChild(int requests) {
    platform::UniqueEvent gate = platform::OpenEventW(platform::SYNCHRONIZE, false, kGate);
    if (!gate) {
        return 2;
    }
    platform::WaitForSingleObject(gate.get(), platform::INFINITE);
    int failures = 0;
    for (int i = 0; i < requests; ++i) {
        // Without a printer cache the service answers a repair at once, so
        // this is the channel's own cost.
        if (OVADLLRepair() != -10) {
            ++failures;
        }
    }
    return failures == 0 ? 0 : 4;
}

bool WaitForService() {
    for (int i = 0; i < 5000; ++i) {
        if (platform::OpenEventW(platform::SYNCHRONIZE, false, u"Global\\OVC-Ack1")) {
            return true;
        }
        platform::Sleep(2);
    }
    return false;
}

double RequestsPerSecond(int clients, int requests) {
    platform::UniqueEvent gate = platform::CreateEventW(nullptr, true, false, kGate);
    std::vector<platform::UniqueProcess> children;
    for (int i = 0; i < clients; ++i) {
        children.push_back(Start(Quoted(SelfPath()) + u" --client " +
                                 platform::ToUtf16(std::to_string(requests))));
    }
    platform::Sleep(300);  // let every client reach the gate
    const auto begin = Clock::now();
    platform::SetEvent(gate.get());
    int failed = 0;
    for (const auto& child : children) {
        failed += WaitExit(child) != 0 ? 1 : 0;
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    if (failed != 0) {
        std::fprintf(stderr, "%d clients failed\n", failed);
        std::exit(1);
    }
    return clients * requests / seconds;
}

int Number(const char* text, int fallback) {
    const int value = text != nullptr ? std::atoi(text) : 0;
    return value > 0 ? value : fallback;
}

}  // namespace

int main(int argc, char** argv) {
    g_self = platform::ToUtf16(argv[0]);
    if (argc == 3 && std::string(argv[1]) == "--pong") {
        return PongChild(Number(argv[2], 1));
    }
    if (argc == 3 && std::string(argv[1]) == "--client") {
        return ClientChild(Number(argv[2], 1));
    }
    const int roundTrips = Number(argc > 1 ? argv[1] : nullptr, 20000);
    const int requests = Number(argc > 2 ? argv[2] : nullptr, 2000);
    std::vector<int> clientCounts;
    for (int i = 3; i < argc; ++i) {
        clientCounts.push_back(Number(argv[i], 1));
    }
    if (clientCounts.empty()) {
        clientCounts = {1, 4, 16};
    }

    std::printf("pingpong %.2f\n", PingPongMicros(roundTrips));
    std::fflush(stdout);

    const std::u16string host = platform::SearchProgram(u"ovaspoolsvc");
    platform::UniqueProcess service = Start(Quoted(host) + u" --console");
    if (!WaitForService()) {
        std::fprintf(stderr, "service did not start\n");
        platform::TerminateProcess(service.get(), 1);
        return 1;
    }
    for (int clients : clientCounts) {
        std::printf("channel %d %.0f\n", clients, RequestsPerSecond(clients, requests));
        std::fflush(stdout);
    }
    platform::TerminateProcess(service.get(), 0);
    WaitExit(service);
    return 0;
}
