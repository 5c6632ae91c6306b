// Service-control tests on the embedded machine: its one service runs the
// program machine.conf names, and its process is an ordinary POSIX process.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "ovtest.h"
#include "platform/machine.h"
#include "platform/scm.h"
#include "platform/wts.h"
#include "product_settings.h"
#include "scm_test_support.h"

namespace scmtest {

namespace {

// The service program: "plain" reports running at once, as a Windows
// service must ("prompt"); "silent" runs until a signal ends it, reporting
// nothing; "reporting" reports its steps (RunReportingService).
OVTEST_CHILD(fake_service) {
    if (args.empty() || args[0] == "plain") {
        return RunPromptService();
    }
    if (args[0] == "silent") {
        for (;;) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
        }
    }
    return RunReportingService(platform::machine::Root() + "/go");
}

}  // namespace

std::u16string PrepareService(const std::string&) {
    platform::machine::SetSetting("service_program", ovtest::SelfPath());
    return u"OvaspoolSvc";
}

void PointServiceAtMissingProgram(const std::string& root, const std::u16string&) {
    platform::machine::SetSetting("service_program", root + "/nowhere/ovaspoolsvc");
}

std::uint32_t ServiceProcessId(const std::string& root, platform::SC_HANDLE) {
    std::ifstream in(root + "/services/OvaspoolSvc.pid");
    pid_t pid = 0;
    in >> pid;
    return pid > 0 && kill(pid, 0) == 0 ? static_cast<std::uint32_t>(pid) : 0;
}

void RemoveService(const std::string& root, const std::u16string&) {
    const std::uint32_t pid = ServiceProcessId(root, nullptr);
    if (pid > 0 && pid != static_cast<std::uint32_t>(getpid())) {
        kill(static_cast<pid_t>(pid), SIGKILL);
    }
}

bool ProcessAlive(std::uint32_t pid) {
    // A service process this test started and that has ended is collected
    // here; otherwise it would linger as a zombie that kill() still finds.
    if (pid == 0) {
        return false;
    }
    waitpid(static_cast<pid_t>(pid), nullptr, WNOHANG);
    return kill(static_cast<pid_t>(pid), 0) == 0;
}

void KillProcess(std::uint32_t pid) {
    ASSERT_GT(pid, 0u);
    ASSERT_EQ(kill(static_cast<pid_t>(pid), SIGKILL), 0);
}

namespace {

using namespace platform;

using ovtest::kPoison;

TEST_F(ServiceControl, StartRunsOneDetachedProcessAsSystemInSessionZero) {
    ASSERT_TRUE(Start("plain"));
    const auto pid = static_cast<pid_t>(ServicePid());
    ASSERT_GT(pid, 0);
    DWORD session = kPoison;
    ASSERT_TRUE(ProcessIdToSessionId(static_cast<DWORD>(pid), &session));
    EXPECT_EQ(session, 0u);
    // (ProcessIdToSessionId has waited for the program to be in place.)
    std::ifstream in("/proc/" + std::to_string(pid) + "/environ", std::ios::binary);
    const std::string env((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_NE(env.find(std::string("OVSVC_ROOT=") + root() + '\0'), std::string::npos);
    EXPECT_NE(env.find("OVSVC_USER="), std::string::npos);
    EXPECT_EQ(getsid(pid), pid);  // a session of its own: detached from the starter
}

TEST_F(ServiceControl, AStalePidOfAnotherProcessIsNotTheService) {
    // A record whose process id now belongs to a different process.
    std::filesystem::create_directories(root() + "/services");
    std::ofstream(root() + "/services/OvaspoolSvc.pid") << getpid() << " 1\n";
    EXPECT_EQ(Query().dwCurrentState, SERVICE_STOPPED);
    EXPECT_TRUE(Start("plain"));
}

TEST_F(ServiceControl, AServiceThatReportsNothingStaysStartPendingUntilItEnds) {
    ASSERT_TRUE(Start("silent"));
    const SERVICE_STATUS pending = Query();
    EXPECT_EQ(pending.dwCurrentState, SERVICE_START_PENDING);
    EXPECT_GT(pending.dwWaitHint, 0u);
    KillProcess(ServicePid());
    const SERVICE_STATUS stopped = WaitFor(SERVICE_STOPPED);
    EXPECT_EQ(stopped.dwCurrentState, SERVICE_STOPPED);
    EXPECT_EQ(stopped.dwWin32ExitCode, ERROR_PROCESS_ABORTED);
}

// A program run by hand is not the service: it cannot take the service's
// place in service control, whether or not the service runs.
TEST_F(ServiceControl, OnlyTheStartedProcessMayRegisterAsTheService) {
    OVTEST_EXPECT_FAIL(RegisterServiceCtrlHandlerW(u"OvaspoolSvc", [](DWORD) {}),
                       ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
    ASSERT_TRUE(Start("plain"));
    ASSERT_EQ(WaitFor(SERVICE_RUNNING).dwCurrentState, SERVICE_RUNNING);
    EXPECT_EQ(RegisterServiceCtrlHandlerW(u"OvaspoolSvc", [](DWORD) {}), nullptr);
    EXPECT_EQ(Query().dwCurrentState, SERVICE_RUNNING);
}

}  // namespace

}  // namespace scmtest
