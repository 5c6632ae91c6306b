// Starting the service and using a machine whose root cannot be written:
// every program says what is wrong instead of claiming success or naming
// an unrelated cause.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "channel_support.h"
#include "ovtest.h"

using namespace channeltest;
using namespace std::chrono_literals;

namespace {

struct Outcome {
    int exit = -1;
    std::string out;
    bool Has(const std::string& text) const { return out.find(text) != std::string::npos; }
};

Outcome Wait(ovtest::Process process) {
    Outcome run;
    run.exit = process.Wait(60s);
    run.out = process.output();
    return run;
}

std::string Program(const std::string& name) {
    return ovtest::BinDir() + "/" + name;
}

class ServiceStartTest : public ovtest::MachineTest {
  protected:
    Outcome Ctl(const std::vector<std::string>& args) {
        return Wait(ovtest::Process::Start(Program("ovasctl"), args));
    }
};

TEST_F(ServiceStartTest, StartSaysRunningOnlyWhenTheServiceReportedIt) {
    {
        // A host in the foreground holds the channel: the started service
        // is refused, and start says so instead of "RUNNING".
        ovtest::Process foreground = StartService();
        const Outcome start = Ctl({"service", "start"});
        EXPECT_EQ(start.exit, 1) << start.out;
        EXPECT_FALSE(start.Has("RUNNING")) << start.out;
        EXPECT_TRUE(start.Has("the service stopped")) << start.out;
        EXPECT_TRUE(start.Has("exit code 1056")) << start.out;
        const Outcome status = Ctl({"service", "status"});
        EXPECT_TRUE(status.Has("1  STOPPED")) << status.out;
        EXPECT_TRUE(status.Has("WIN32_EXIT_CODE    : 1056")) << status.out;
        EXPECT_NE(ReadText(root() + "/services/OvaspoolSvc.log")
                      .find("another instance of the service is already running"),
                  std::string::npos);
        foreground.Terminate();
        EXPECT_EQ(foreground.Wait(10s), 0);
    }
    const Outcome start = Ctl({"service", "start"});
    EXPECT_EQ(start.exit, 0) << start.out;
    EXPECT_TRUE(start.Has("4  RUNNING")) << start.out;
    // Running means serving.
    EXPECT_EQ(Ctl({"call", "repair"}).exit, 0);
    EXPECT_TRUE(Ctl({"service", "stop"}).Has("WIN32_EXIT_CODE    : 0"));
}

TEST_F(ServiceStartTest, TheTraceExampleOfTheReadmeWritesOnAFreshMachine) {
    const std::string key = "HKLM\\Software\\Orvelle\\Ovaspool";
    ASSERT_EQ(Ctl({"reg", "set", key, "DebugLevel", "dword:000000ff"}).exit, 0);
    ASSERT_EQ(Ctl({"reg", "set", key, "DebugFile", "C:\\Windows\\Temp\\ovsvc-trace.log"}).exit, 0);
    EXPECT_EQ(Ctl({"call", "version"}).exit, 0);
    EXPECT_NE(ReadText(root() + "/drive_c/Windows/Temp/ovsvc-trace.log").find("DLL_PROCESS_ATTACH"),
              std::string::npos);
}

// A machine root that can be read but not written. chmod does not bind
// root, so a test running as root gets a read-only bind mount of the root
// in a mount namespace of its own instead; without either it is skipped.
class ReadOnlyRoot {
    static constexpr auto kAnyWrite = std::filesystem::perms::owner_write |
                                      std::filesystem::perms::group_write |
                                      std::filesystem::perms::others_write;

  public:
    explicit ReadOnlyRoot(std::string root) : root_(std::move(root)) {}
    ~ReadOnlyRoot() {
        if (chmodded_) {
            std::filesystem::permissions(root_, std::filesystem::perms::owner_write,
                                         std::filesystem::perm_options::add);
            for (const auto& entry : std::filesystem::recursive_directory_iterator(root_)) {
                std::filesystem::permissions(entry.path(), std::filesystem::perms::owner_write,
                                             std::filesystem::perm_options::add);
            }
        }
    }
    // Makes the root read-only for the programs run through Start(); false
    // (and why) when this host offers no way.
    bool Enable(std::string* why) {
        if (geteuid() != 0) {
            for (const auto& entry : std::filesystem::recursive_directory_iterator(root_)) {
                std::filesystem::permissions(entry.path(), kAnyWrite,
                                             std::filesystem::perm_options::remove);
            }
            std::filesystem::permissions(root_, kAnyWrite, std::filesystem::perm_options::remove);
            chmodded_ = true;
            return true;
        }
        bind_ = true;
        const Outcome probe = Wait(Start("/bin/sh", {"-c", "! touch \"$OVSVC_ROOT/probe\""}));
        if (probe.exit != 0) {
            bind_ = false;
            *why = "running as root, and no read-only bind mount could be made: " + probe.out;
            return false;
        }
        return true;
    }
    ovtest::Process Start(const std::string& program, const std::vector<std::string>& args) {
        if (!bind_) {
            return ovtest::Process::Start(program, args);
        }
        std::vector<std::string> all{
            "-m",
            "--",
            "/bin/sh",
            "-c",
            "mount --bind \"$0\" \"$0\" && mount -o remount,bind,ro \"$0\" \"$0\" && exec \"$@\"",
            root_,
            program};
        all.insert(all.end(), args.begin(), args.end());
        return ovtest::Process::Start("/usr/bin/unshare", all);
    }

  private:
    std::string root_;
    bool chmodded_ = false;
    bool bind_ = false;
};

TEST_F(ServiceStartTest, AReadOnlyRootIsReadAndNamedOnEveryWrite) {
    SetProductString(u"Greeting", u"hello");
    ovtest::Process service = StartService();
    ReadOnlyRoot readOnly(root());
    std::string why;
    if (!readOnly.Enable(&why)) {
        GTEST_SKIP() << why;
    }
    const std::string named = "machine root " + root() + " is read-only";
    const std::string key = "HKLM\\Software\\Orvelle\\Ovaspool";
    const Outcome get = Wait(readOnly.Start(Program("ovasctl"), {"reg", "get", key, "Greeting"}));
    EXPECT_EQ(get.exit, 0) << get.out;
    EXPECT_TRUE(get.Has("hello")) << get.out;

    struct Case {
        std::string program;
        std::vector<std::string> args;
    };
    const Case writes[] = {
        {"ovasctl", {"reg", "set", key, "Greeting", "bye"}},
        {"ovasctl", {"service", "start"}},
        {"ovasctl", {"call", "repair"}},  // the channel's objects live in the root too
        {"ovaspoolsvc", {}},
    };
    for (const Case& c : writes) {
        const Outcome run = Wait(readOnly.Start(Program(c.program), c.args));
        EXPECT_NE(run.exit, 0) << c.program << " " << c.args.at(0) << ": " << run.out;
        EXPECT_TRUE(run.Has(named))
            << c.program << " " << (c.args.empty() ? "" : c.args[0]) << ": " << run.out;
    }
    EXPECT_TRUE(service.Running()) << "the service outside was disturbed";
}

TEST_F(ServiceStartTest, ARootThatIsAFileIsNamed) {
    const std::string file = root() + "/not-a-directory";
    std::ofstream(file) << "x";
    const std::string named = "machine root " + file + " is not a directory";
    const std::vector<std::vector<std::string>> runs = {
        {Program("ovasctl"), "reg", "get", "HKLM\\Software"},
        {Program("ovasctl"), "service", "start"},
        {Program("ovaspoolsvc")},
    };
    for (const auto& argv : runs) {
        std::vector<std::string> args{"OVSVC_ROOT=" + file};
        args.insert(args.end(), argv.begin(), argv.end());
        const Outcome run = Wait(ovtest::Process::Start("/usr/bin/env", args));
        EXPECT_NE(run.exit, 0) << argv[0] << ": " << run.out;
        EXPECT_TRUE(run.Has(named)) << argv[0] << ": " << run.out;
        EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), 1) << run.out;
    }
}

}  // namespace
