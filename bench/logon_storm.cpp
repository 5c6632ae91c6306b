// Logon and logoff storms through the request channel against the real
// service host: S sessions with P client printers each are created by C
// concurrent client processes, then every session is released again.
//
//   bench_logon_storm [--printers P] [--clients C] [--shared N] [SESSIONS...]
//
// Defaults: 5 printers per session, 8 clients, sessions 50 100 200. With
// --shared N every N sessions of one user share their printers (the same
// client printer names), so a create finds the printer and adds a session.
// Each size runs on a fresh machine root with tracing off. All clients create
// first; when every one has finished, all release. Reported: the printers
// created per second, create and release latency as a client sees it (mean
// and 99th percentile; a release of a session's printers counts per
// printer), and the service's time per created printer (wall time of the
// create phase over the printers, since the service handles one request at
// a time, and likewise for the release phase) with the create cost's growth
// against the first size.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <string>
#include <vector>

#include "channel/startup.h"
#include "ovsvc.h"
#include "platform/kernel.h"
#include "platform/machine.h"
#include "platform/text.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    int printers = 5;
    int clients = 8;
    int shared = 1;
    std::vector<int> sessions;
};

std::string BinDir() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
}

int Run(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str());
}

// The product key, a port of the product's monitor, a template and the users.
bool SetUpMachine(const Options& o, int sessions) {
    const std::string ctl = BinDir() + "/ovasctl";
    const std::string key = "'HKLM\\Software\\Orvelle\\Ovaspool'";
    std::vector<std::string> commands = {
        ctl + " reg set " + key + " RightsWin2000 dword:00000001",
        ctl + " reg set " + key + " NameTranslationEx --type multi_sz " +
            "'IP,Client,Driver,Printer,Class,T1,T2,T4,T8,Template,Flag' " +
            "'*,*,*,*,*,true,true,true,true,Bench,'",
        ctl + " spool port add 'Orvelle Port' OVAS1: --info 'Protocol=3\\nOVASScheme=%A:%I#%N'",
        ctl + " spool template add Bench --driver 'Generic / Text Only' --port OVAS1:",
    };
    for (int user = 0; user < (sessions + o.shared - 1) / o.shared; ++user) {
        commands.push_back(ctl + " account add 'BENCH\\u" + std::to_string(user) + "'");
    }
    for (const auto& c : commands) {
        if (Run(c) != 0) {
            std::fprintf(stderr, "set-up failed: %s\n", c.c_str());
            return false;
        }
    }
    return true;
}

pid_t StartService() {
    const pid_t pid = fork();
    if (pid == 0) {
        const std::string path = BinDir() + "/ovaspoolsvc";
        execl(path.c_str(), path.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    for (int i = 0; i < 5000; ++i) {
        if (platform::OpenEventW(platform::SYNCHRONIZE, false, u"Global\\OVC-Ack1")) {
            return pid;
        }
        platform::Sleep(2);
    }
    std::fprintf(stderr, "service did not start\n");
    std::exit(1);
}

std::u16string U16(const std::string& text) {
    return platform::ToUtf16(text);
}

const OVCHAR* Ov(const std::u16string& text) {
    return reinterpret_cast<const OVCHAR*>(text.c_str());
}

double Millis(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

// One client process: its share of the sessions, all printers created, then
// each of its sessions released. Latencies go to `out`, one per line:
// "c <ms>" per printer created, "r <ms> <printers>" per session released.
int RunClient(const Options& o, int sessions, int index, const std::string& out,
              platform::HANDLE gate, platform::HANDLE releaseGate, int createdPipe) {
    ovsvc::ModuleAttach();
    std::ofstream file(out);
    platform::WaitForSingleObject(gate, platform::INFINITE);
    int failures = 0;
    std::vector<int> mine;
    for (int s = index; s < sessions; s += o.clients) {
        mine.push_back(s);
    }
    for (int s : mine) {
        const int user = s / o.shared;
        const std::u16string client = U16("PC" + std::to_string(user));
        const std::u16string userName = U16("BENCH\\u" + std::to_string(user));
        for (int p = 0; p < o.printers; ++p) {
            std::vector<OVCHAR> name(525, 0);
            std::vector<OVCHAR> cls(525, 0);
            const std::u16string printer = u"Printer " + U16(std::to_string(p));
            std::copy(printer.begin(), printer.end(), name.begin());
            const auto start = Clock::now();
            const int32_t rc =
                OVADLLAddPrinter(name.data(), cls.data(), Ov(u"10.1.0.1"), 3, Ov(u"Generic"),
                                 static_cast<uint32_t>(p + 1), static_cast<uint32_t>(s + 2),
                                 Ov(client), Ov(userName), Ov(client), nullptr, 0, 0, 0, 0);
            file << "c " << Millis(Clock::now() - start) << '\n';
            failures += rc == 0 ? 0 : 1;
        }
    }
    file.flush();
    const char done = 'c';
    if (write(createdPipe, &done, 1) != 1) {
        return 1;
    }
    platform::WaitForSingleObject(releaseGate, platform::INFINITE);
    for (int s : mine) {
        const auto start = Clock::now();
        const int32_t rc = OVADLLDelPrinter(static_cast<uint32_t>(s + 2), 0);
        file << "r " << Millis(Clock::now() - start) << ' ' << o.printers << '\n';
        failures += rc < 0 ? 1 : 0;
    }
    return failures == 0 ? 0 : 1;
}

struct Latencies {
    std::vector<double> create;
    std::vector<double> releasePerPrinter;
};

double Mean(const std::vector<double>& v) {
    return v.empty() ? 0 : std::accumulate(v.begin(), v.end(), 0.0) / v.size();
}

double P99(std::vector<double> v) {
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, v.size() * 99 / 100)];
}

struct StormResult {
    double createWall = 0;
    double releaseWall = 0;
    int failedClients = 0;
    Latencies latencies;
};

StormResult RunStorm(const Options& o, int sessions, const std::string& root) {
    const platform::SecurityAttributes open{.nullDacl = true};
    platform::UniqueEvent gate = platform::CreateEventW(&open, true, false, u"bench-storm-gate");
    platform::UniqueEvent releaseGate =
        platform::CreateEventW(&open, true, false, u"bench-storm-release-gate");
    int created[2];
    if (pipe(created) != 0) {
        std::exit(1);
    }
    std::vector<pid_t> pids;
    for (int c = 0; c < o.clients; ++c) {
        const std::string out = root + "/client-" + std::to_string(c) + ".txt";
        const pid_t pid = fork();
        if (pid == 0) {
            close(created[0]);
            _exit(RunClient(o, sessions, c, out, gate.get(), releaseGate.get(), created[1]));
        }
        pids.push_back(pid);
    }
    close(created[1]);
    platform::Sleep(300);  // every client attached and waiting at the gate
    StormResult result;
    auto start = Clock::now();
    platform::SetEvent(gate.get());
    char done = 0;
    for (int c = 0; c < o.clients && read(created[0], &done, 1) == 1; ++c) {
    }
    close(created[0]);
    result.createWall = std::chrono::duration<double>(Clock::now() - start).count();
    start = Clock::now();
    platform::SetEvent(releaseGate.get());
    for (pid_t pid : pids) {
        int status = 0;
        waitpid(pid, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            ++result.failedClients;
        }
    }
    result.releaseWall = std::chrono::duration<double>(Clock::now() - start).count();
    for (int c = 0; c < o.clients; ++c) {
        std::ifstream in(root + "/client-" + std::to_string(c) + ".txt");
        char kind = 0;
        while (in >> kind) {
            double ms = 0;
            in >> ms;
            if (kind == 'c') {
                result.latencies.create.push_back(ms);
            } else {
                int printers = 1;
                in >> printers;
                result.latencies.releasePerPrinter.push_back(ms / std::max(printers, 1));
            }
        }
    }
    return result;
}

Options Parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if ((a == "--printers" || a == "--clients" || a == "--shared") && i + 1 < argc) {
            const int value = std::max(1, std::atoi(argv[++i]));
            (a == "--printers" ? o.printers : a == "--clients" ? o.clients : o.shared) = value;
        } else if (std::atoi(a.c_str()) > 0) {
            o.sessions.push_back(std::atoi(a.c_str()));
        } else {
            std::fprintf(stderr,
                         "usage: bench_logon_storm [--printers P] [--clients C] [--shared N] "
                         "[SESSIONS...]\n");
            std::exit(2);
        }
    }
    if (o.sessions.empty()) {
        o.sessions = {50, 100, 200};
    }
    return o;
}

}  // namespace

int main(int argc, char** argv) {
    const Options o = Parse(argc, argv);
    std::printf("%d printers per session, %d client processes, %d session(s) per user\n",
                o.printers, o.clients, o.shared);
    std::printf("%-9s %-9s %-10s %-10s %-11s %-11s %-12s %-11s %-11s %s\n", "sessions", "printers",
                "printers/s", "create ms", "create p99", "release ms", "release p99", "create/ptr",
                "release/ptr", "vs first");
    double first = 0;
    int failed = 0;
    for (int sessions : o.sessions) {
        char root[] = "/tmp/ovsvc-storm-XXXXXX";
        if (mkdtemp(root) == nullptr) {
            return 1;
        }
        platform::machine::UseRoot(root);
        setenv("OVSVC_ROOT", root, 1);
        if (!SetUpMachine(o, sessions)) {
            return 1;
        }
        const pid_t service = StartService();
        const StormResult r = RunStorm(o, sessions, root);
        kill(service, SIGTERM);
        waitpid(service, nullptr, 0);
        const auto& l = r.latencies;
        const double printers = static_cast<double>(sessions) * o.printers;
        // Every request goes through the one service thread, so the phase's
        // wall time over the requests it served is the service's cost.
        const double perPrinter = r.createWall * 1e3 / printers;
        if (first == 0) {
            first = perPrinter;
        }
        std::printf("%-9d %-9.0f %-10.0f %-10.2f %-11.2f %-11.3f %-12.3f %-11.3f %-11.3f %.2fx%s\n",
                    sessions, printers, printers / (r.createWall > 0 ? r.createWall : 1),
                    Mean(l.create), P99(l.create), Mean(l.releasePerPrinter),
                    P99(l.releasePerPrinter), perPrinter, r.releaseWall * 1e3 / printers,
                    perPrinter / first, r.failedClients != 0 ? "  (failures!)" : "");
        failed += r.failedClients;
        std::filesystem::remove_all(root);
    }
    return failed == 0 ? 0 : 1;
}
