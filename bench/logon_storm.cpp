// Logon and logoff storms through the request channel against the real
// service host: S sessions with P client printers each are created by C
// concurrent client processes, then every session is released again.
//
//   bench_logon_storm [--printers P] [--clients C] [--shared N] [--postscript K]
//                     [--channel-clients M] [SESSIONS...]
//
// Defaults: 5 printers per session, 8 clients, sessions 50 100 200. With
// --shared N every N sessions of one user share their printers (the same
// client printer names), so a create finds the printer and adds a session.
// With --postscript K every K-th printer of a session is a PostScript one
// (its own generated driver, deleted with it). With --channel-clients M, M
// more processes send requests that need no handler for as long as the
// create phase lasts: the channel's rate and its clients' CPU while the
// service does printer work between their turns.
//
// Each size runs on a fresh machine root with tracing off. All clients create
// first; when every one has finished, all release. Reported per size: the
// printers created per second, create and release latency as a client sees
// it (mean and 99th percentile; a release of a session's printers counts per
// printer), the service's CPU per printer in each phase (robust against other
// load on the machine) and the wall time per printer (the service handles one
// request at a time), with the create cost's growth against the first size.
// A second round then creates the same printers again, restarts the service
// and times its first request (the cache loaded from the spooler), and a
// repair after half the sessions vanished from the session table.
#include <sys/wait.h>
#include <unistd.h>

#include <sys/resource.h>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <sstream>
#include <string>
#include <vector>

#include "channel/client_sync.h"
#include "channel/startup.h"
#include "ovsvc.h"
#include "platform/kernel.h"
#include "platform/machine.h"
#include "platform/text.h"
#include "platform/wts.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    int printers = 5;
    int clients = 8;
    int shared = 1;
    int postscript = 0;
    int channelClients = 0;
    std::vector<int> sessions;
};

constexpr std::uint32_t kNoSuchCommand = 99;

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
        ctl + " setup",
        ctl + " reg set " + key + " NameTranslationEx --type multi_sz " +
            "'IP,Client,Driver,Printer,Class,T1,T2,T4,T8,Template,Flag' " +
            "'*,*,*,*,PS,true,true,true,true,OVPS!OVAS1:,' " +
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
            const bool postscript = o.postscript > 0 && p % o.postscript == o.postscript - 1;
            const std::u16string printer = u"Printer " + U16(std::to_string(p));
            const std::u16string printerClass = postscript ? u"PS" : u"PCL";
            std::copy(printer.begin(), printer.end(), name.begin());
            std::copy(printerClass.begin(), printerClass.end(), cls.begin());
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
    if (releaseGate == nullptr) {
        return failures == 0 ? 0 : 1;  // the printers stay
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

// A process sending requests without a handler until `stop` is set; writes
// how many it sent to `out`.
int RunChannelClient(platform::HANDLE gate, platform::HANDLE stop, const std::string& out) {
    ovsvc::ModuleAttach();
    platform::WaitForSingleObject(gate, platform::INFINITE);
    ovsvc::ClientRequest request{};
    request.Command = kNoSuchCommand;
    ovsvc::ReplyBuffer reply;
    long sent = 0;
    int failures = 0;
    while (platform::WaitForSingleObject(stop, 0) == platform::WAIT_TIMEOUT) {
        failures += ovsvc::ClientSync(&request, &reply) == ovsvc::kResultUnknownCommand ? 0 : 1;
        ++sent;
    }
    std::ofstream(out) << sent << '\n';
    return failures == 0 ? 0 : 1;
}

// The CPU seconds a process has used so far (user and system).
double ProcessCpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::size_t close = text.rfind(')');
    if (close == std::string::npos) {
        return 0;
    }
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    double ticks = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14 || i == 15) {
            ticks += std::atof(field.c_str());
        }
    }
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
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
    double createCpu = 0;  // the service's
    double releaseCpu = 0;
    int failedClients = 0;
    Latencies latencies;
    // The channel clients during the create phase.
    double channelRequests = 0;
    double channelCpu = 0;
    double channelSleeps = 0;
};

// With `release` false the clients create and end; the printers stay.
StormResult RunStorm(const Options& o, int sessions, const std::string& root, pid_t service,
                     bool release = true) {
    const platform::SecurityAttributes open{.nullDacl = true};
    platform::UniqueEvent gate = platform::CreateEventW(&open, true, false, u"bench-storm-gate");
    platform::UniqueEvent releaseGate =
        platform::CreateEventW(&open, true, false, u"bench-storm-release-gate");
    int created[2];
    if (pipe(created) != 0) {
        std::exit(1);
    }
    platform::UniqueEvent channelStop =
        platform::CreateEventW(&open, true, false, u"bench-storm-channel-stop");
    std::vector<pid_t> pids;
    for (int c = 0; c < o.clients; ++c) {
        const std::string out = root + "/client-" + std::to_string(c) + ".txt";
        const pid_t pid = fork();
        if (pid == 0) {
            close(created[0]);
            _exit(RunClient(o, sessions, c, out, gate.get(), release ? releaseGate.get() : nullptr,
                            created[1]));
        }
        pids.push_back(pid);
    }
    std::vector<pid_t> channelPids;
    for (int c = 0; c < o.channelClients; ++c) {
        const std::string out = root + "/channel-" + std::to_string(c) + ".txt";
        const pid_t pid = fork();
        if (pid == 0) {
            close(created[0]);
            close(created[1]);
            _exit(RunChannelClient(gate.get(), channelStop.get(), out));
        }
        channelPids.push_back(pid);
    }
    close(created[1]);
    platform::Sleep(300);  // every client attached and waiting at the gate
    StormResult result;
    double cpu = ProcessCpuSeconds(service);
    auto start = Clock::now();
    platform::SetEvent(gate.get());
    char done = 0;
    for (int c = 0; c < o.clients && read(created[0], &done, 1) == 1; ++c) {
    }
    close(created[0]);
    result.createWall = std::chrono::duration<double>(Clock::now() - start).count();
    result.createCpu = ProcessCpuSeconds(service) - cpu;
    platform::SetEvent(channelStop.get());
    for (std::size_t c = 0; c < channelPids.size(); ++c) {
        int status = 0;
        rusage usage{};
        wait4(channelPids[c], &status, 0, &usage);
        result.channelCpu += static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                             (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
        result.channelSleeps += static_cast<double>(usage.ru_nvcsw);
        std::ifstream in(root + "/channel-" + std::to_string(c) + ".txt");
        double sent = 0;
        in >> sent;
        result.channelRequests += sent;
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            ++result.failedClients;
        }
    }
    cpu = ProcessCpuSeconds(service);
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
    result.releaseCpu = ProcessCpuSeconds(service) - cpu;
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
        } else if ((a == "--postscript" || a == "--channel-clients") && i + 1 < argc) {
            const int value = std::max(0, std::atoi(argv[++i]));
            (a == "--postscript" ? o.postscript : o.channelClients) = value;
        } else if (std::atoi(a.c_str()) > 0) {
            o.sessions.push_back(std::atoi(a.c_str()));
        } else {
            std::fprintf(stderr,
                         "usage: bench_logon_storm [--printers P] [--clients C] [--shared N] "
                         "[--postscript K] [--channel-clients M] [SESSIONS...]\n");
            std::exit(2);
        }
    }
    if (o.sessions.empty()) {
        o.sessions = {50, 100, 200};
    }
    return o;
}

// The service's first request after a restart (it loads the cache from the
// spooler's printers) and a second one, in milliseconds; then a repair after
// the odd-numbered sessions vanished from the session table (the others are
// logged on). Run in a child process, which attaches to the current root.
int TimeRestartAndRepair(int sessions, const Options& o, const std::string& out) {
    ovsvc::ModuleAttach();
    ovsvc::ClientRequest request{};
    request.Command = kNoSuchCommand;
    ovsvc::ReplyBuffer reply;
    auto start = Clock::now();
    const bool first = ovsvc::ClientSync(&request, &reply) == ovsvc::kResultUnknownCommand;
    const double firstMs = Millis(Clock::now() - start);
    start = Clock::now();
    const bool second = ovsvc::ClientSync(&request, &reply) == ovsvc::kResultUnknownCommand;
    const double secondMs = Millis(Clock::now() - start);
    for (int s = 0; s < sessions; s += 2) {
        platform::terminal::Session session;
        session.id = static_cast<platform::DWORD>(s + 2);
        session.state = platform::WTSActive;
        session.userName = U16("u" + std::to_string(s / o.shared));
        session.domainName = u"BENCH";
        session.clientName = U16("PC" + std::to_string(s / o.shared));
        session.clientAddress = u"10.1.0.1";
        if (platform::terminal::Logon(session) != platform::ERROR_SUCCESS) {
            return 1;
        }
    }
    start = Clock::now();
    const int32_t repaired = OVADLLRepair();
    const double repairMs = Millis(Clock::now() - start);
    std::ofstream(out) << firstMs << ' ' << secondMs << ' ' << repairMs << '\n';
    return first && second && repaired >= 0 ? 0 : 1;
}

struct SecondRound {
    int sessions = 0;
    double firstMs = 0;
    double secondMs = 0;
    double repairMs = 0;
    bool failed = false;
};

}  // namespace

int main(int argc, char** argv) {
    const Options o = Parse(argc, argv);
    const std::string postscript =
        o.postscript > 0 ? "every " + std::to_string(o.postscript) + ". printer PostScript"
                         : "no PostScript printers";
    std::printf("%d printers per session, %d client processes, %d session(s) per user, %s\n",
                o.printers, o.clients, o.shared, postscript.c_str());
    std::printf("%-9s %-9s %-10s %-10s %-11s %-11s %-12s %-11s %-12s %-11s %-12s %s\n", "sessions",
                "printers", "printers/s", "create ms", "create p99", "release ms", "release p99",
                "create cpu", "release cpu", "create/ptr", "release/ptr", "vs first");
    double first = 0;
    int failed = 0;
    std::vector<SecondRound> rounds;
    std::vector<std::string> channelRows;
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
        pid_t service = StartService();
        const StormResult r = RunStorm(o, sessions, root, service);
        const auto& l = r.latencies;
        const double printers = static_cast<double>(sessions) * o.printers;
        // The service's CPU per printer: what one printer costs it, whatever
        // else runs on the machine. The wall time per printer is its cost as
        // the clients see it (one request at a time).
        const double cpuPerPrinter = r.createCpu * 1e3 / printers;
        if (first == 0) {
            first = cpuPerPrinter;
        }
        std::printf(
            "%-9d %-9.0f %-10.0f %-10.2f %-11.2f %-11.3f %-12.3f %-11.3f %-12.3f %-11.3f %-12.3f "
            "%.2fx%s\n",
            sessions, printers, printers / (r.createWall > 0 ? r.createWall : 1), Mean(l.create),
            P99(l.create), Mean(l.releasePerPrinter), P99(l.releasePerPrinter), cpuPerPrinter,
            r.releaseCpu * 1e3 / printers, r.createWall * 1e3 / printers,
            r.releaseWall * 1e3 / printers, first > 0 ? cpuPerPrinter / first : 0,
            r.failedClients != 0 ? "  (failures!)" : "");
        std::fflush(stdout);
        failed += r.failedClients;
        if (o.channelClients > 0) {
            const double wall = r.createWall > 0 ? r.createWall : 1;
            char row[256];
            std::snprintf(row, sizeof row, "%-9d %-9d %-12.0f %-14.3f %.2f", sessions,
                          o.channelClients, r.channelRequests / wall, r.channelCpu / wall,
                          r.channelRequests > 0 ? r.channelSleeps / r.channelRequests : 0);
            channelRows.emplace_back(row);
        }

        // Second round: the same printers again, kept; a restart; a repair.
        const StormResult again = RunStorm(o, sessions, root, service, false);
        kill(service, SIGTERM);
        waitpid(service, nullptr, 0);
        service = StartService();
        SecondRound round;
        round.sessions = sessions;
        const std::string out = std::string(root) + "/restart.txt";
        const pid_t child = fork();
        if (child == 0) {
            _exit(TimeRestartAndRepair(sessions, o, out));
        }
        int status = 0;
        waitpid(child, &status, 0);
        std::ifstream in(out);
        in >> round.firstMs >> round.secondMs >> round.repairMs;
        round.failed = again.failedClients != 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0;
        failed += round.failed ? 1 : 0;
        rounds.push_back(round);
        kill(service, SIGTERM);
        waitpid(service, nullptr, 0);
        std::filesystem::remove_all(root);
    }
    std::printf("\n%-9s %-9s %-16s %-14s %-16s %s\n", "sessions", "printers", "cache load ms",
                "repair ms", "repair/session", "(half the sessions vanished)");
    for (const SecondRound& r : rounds) {
        std::printf("%-9d %-9d %-16.2f %-14.2f %-16.3f%s\n", r.sessions, r.sessions * o.printers,
                    std::max(0.0, r.firstMs - r.secondMs), r.repairMs,
                    r.repairMs / std::max(1, r.sessions / 2), r.failed ? "  (failures!)" : "");
    }
    if (!channelRows.empty()) {
        std::printf("\nrequest channel during the create phase\n%-9s %-9s %-12s %-14s %s\n",
                    "sessions", "clients", "req/s", "CPU (cores)", "sleeps/req");
        for (const auto& row : channelRows) {
            std::printf("%s\n", row.c_str());
        }
    }
    return failed == 0 ? 0 : 1;
}
