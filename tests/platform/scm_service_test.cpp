// Service control: starting, stopping and querying a service, the status a
// service process reports, the database lock and handle checks.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "ovtest.h"
#include "platform/machine.h"
#include "platform/scm.h"
#include "platform/security.h"
#include "platform/wts.h"
#include "product_settings.h"
#include "scm_test_support.h"

namespace scmtest {

using namespace platform;

namespace {

std::atomic<bool> g_stopRequested{false};

SERVICE_STATUS Status(DWORD state, DWORD checkPoint = 0, DWORD waitHint = 0) {
    SERVICE_STATUS s;
    s.dwCurrentState = state;
    s.dwCheckPoint = checkPoint;
    s.dwWaitHint = waitHint;
    s.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    return s;
}

SERVICE_STATUS_HANDLE RegisterStopHandler() {
    return RegisterServiceCtrlHandlerW(u"OvaspoolSvc", [](DWORD control) {
        if (control == SERVICE_CONTROL_STOP) {
            g_stopRequested = true;
        }
    });
}

void WaitForStopRequest() {
    while (!g_stopRequested) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

}  // namespace

int RunReportingService(const std::string& goFile) {
    SERVICE_STATUS_HANDLE h = RegisterStopHandler();
    if (h == nullptr) {
        return 2;
    }
    SERVICE_STATUS s = Status(SERVICE_START_PENDING, 1, 4000);
    SetServiceStatus(h, &s);
    while (!std::filesystem::exists(goFile)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    s = Status(SERVICE_RUNNING);
    SetServiceStatus(h, &s);
    WaitForStopRequest();
    s = Status(SERVICE_STOP_PENDING, 1, 2000);
    SetServiceStatus(h, &s);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    s = Status(SERVICE_STOPPED);
    SetServiceStatus(h, &s);
    return 0;
}

int RunPromptService() {
    SERVICE_STATUS_HANDLE h = RegisterStopHandler();
    if (h == nullptr) {
        return 2;
    }
    SERVICE_STATUS s = Status(SERVICE_RUNNING);
    SetServiceStatus(h, &s);
    WaitForStopRequest();
    s = Status(SERVICE_STOPPED);
    SetServiceStatus(h, &s);
    return 0;
}

namespace {

using ovtest::kPoison;

// Tries to start the service from another process; exits with the error.
OVTEST_CHILD(start_service) {
    UniqueServiceHandle m(OpenSCManagerW(u"", u"", SC_MANAGER_CONNECT));
    UniqueServiceHandle s(OpenServiceW(m.get(), ovtest::U16(args.at(0)), SERVICE_START));
    if (!s) {
        return static_cast<int>(GetLastError() % 256);
    }
    return StartServiceW(s.get(), {}) ? 0 : static_cast<int>(GetLastError() % 256);
}

// Takes the database lock and keeps it until killed, or reports why not.
OVTEST_CHILD(hold_lock) {
    UniqueServiceHandle m(OpenSCManagerW(u"", u"", SC_MANAGER_LOCK));
    UniqueServiceLock lock(LockServiceDatabase(m.get()));
    if (!lock) {
        return static_cast<int>(GetLastError() % 256);
    }
    if (!args.empty() && args[0] == "quick") {
        return 0;
    }
    std::ofstream(machine::Root() + "/locked") << "1";
    std::this_thread::sleep_for(std::chrono::seconds(30));
    return 0;
}

// What a caller that is not an administrator may do.
OVTEST_CHILD(non_admin) {
    SetLastError(kPoison);
    if (OpenSCManagerW(u"", u"", SC_MANAGER_LOCK) != nullptr ||
        GetLastError() != ERROR_ACCESS_DENIED) {
        return 10;
    }
    if (OpenSCManagerW(u"", u"", SC_MANAGER_ALL_ACCESS) != nullptr) {
        return 11;
    }
    UniqueServiceHandle m(OpenSCManagerW(u"", u"", SC_MANAGER_CONNECT));
    if (!m) {
        return 12;
    }
    SetLastError(kPoison);
    if (OpenServiceW(m.get(), u"OvaspoolSvc", SERVICE_START) != nullptr ||
        GetLastError() != ERROR_ACCESS_DENIED) {
        return 13;
    }
    if (OpenServiceW(m.get(), u"OvaspoolSvc", SERVICE_STOP) != nullptr) {
        return 14;
    }
    UniqueServiceHandle s(OpenServiceW(m.get(), u"OvaspoolSvc", SERVICE_QUERY_STATUS));
    SERVICE_STATUS status;
    if (!s || !QueryServiceStatus(s.get(), &status)) {
        return 15;
    }
    return 0;
}

std::u16string Lower(std::u16string text) {
    for (auto& c : text) {
        if (c >= u'A' && c <= u'Z') {
            c = static_cast<char16_t>(c - u'A' + u'a');
        }
    }
    return text;
}

TEST_F(ServiceControl, ANeverStartedServiceIsStopped) {
    SERVICE_STATUS s = Query();
    EXPECT_EQ(s.dwCurrentState, SERVICE_STOPPED);
    EXPECT_EQ(s.dwWin32ExitCode, ERROR_SERVICE_NEVER_STARTED);
    EXPECT_EQ(s.dwServiceType, SERVICE_WIN32_OWN_PROCESS);
    OVTEST_EXPECT_FAIL(ControlService(service_.get(), SERVICE_CONTROL_STOP, &s),
                       ERROR_SERVICE_NOT_ACTIVE);
    EXPECT_EQ(ServicePid(), 0u);
}

TEST_F(ServiceControl, StartRunsTheServiceOnce) {
    ASSERT_TRUE(Start("plain")) << GetLastError();
    SERVICE_STATUS s = WaitFor(SERVICE_RUNNING);
    EXPECT_EQ(s.dwCurrentState, SERVICE_RUNNING);
    EXPECT_EQ(s.dwControlsAccepted, SERVICE_ACCEPT_STOP);
    const std::uint32_t pid = ServicePid();
    ASSERT_GT(pid, 0u);
    EXPECT_TRUE(ProcessAlive(pid));

    OVTEST_EXPECT_FAIL(Start("plain"), ERROR_SERVICE_ALREADY_RUNNING);
    // Another process sees the same service.
    auto child = ovtest::Process::StartChild("start_service", {ovtest::U8(name_)});
    EXPECT_EQ(child.Wait(), static_cast<int>(ERROR_SERVICE_ALREADY_RUNNING % 256));
    EXPECT_EQ(ServicePid(), pid);
}

TEST_F(ServiceControl, StopEndsTheProcessAndReadsStopped) {
    ASSERT_TRUE(Start("plain")) << GetLastError();
    ASSERT_EQ(WaitFor(SERVICE_RUNNING).dwCurrentState, SERVICE_RUNNING);
    const std::uint32_t pid = ServicePid();
    SERVICE_STATUS s;
    s.dwCurrentState = kPoison;
    ASSERT_TRUE(ControlService(service_.get(), SERVICE_CONTROL_STOP, &s));
    // The call returns once the control is delivered, before the service ends.
    EXPECT_TRUE(s.dwCurrentState == SERVICE_STOP_PENDING || s.dwCurrentState == SERVICE_STOPPED)
        << s.dwCurrentState;
    s = WaitFor(SERVICE_STOPPED);
    EXPECT_EQ(s.dwCurrentState, SERVICE_STOPPED);
    EXPECT_EQ(s.dwWin32ExitCode, ERROR_SUCCESS);
    // The process ends once it has reported stopped.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (ProcessAlive(pid) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_FALSE(ProcessAlive(pid));
    EXPECT_EQ(Query().dwCurrentState, SERVICE_STOPPED);
    OVTEST_EXPECT_FAIL(ControlService(service_.get(), SERVICE_CONTROL_STOP, &s),
                       ERROR_SERVICE_NOT_ACTIVE);
    // And it can be started again.
    ASSERT_TRUE(Start("plain")) << GetLastError();
    EXPECT_EQ(WaitFor(SERVICE_RUNNING).dwCurrentState, SERVICE_RUNNING);
    EXPECT_NE(ServicePid(), pid);
}

TEST_F(ServiceControl, ADeadServiceProcessReadsAsStopped) {
    OVTEST_SKIP_UNDER_WINE("a service whose process was terminated still reads running");
    ASSERT_TRUE(Start("plain")) << GetLastError();
    ASSERT_EQ(WaitFor(SERVICE_RUNNING).dwCurrentState, SERVICE_RUNNING);
    KillProcess(ServicePid());
    SERVICE_STATUS s = WaitFor(SERVICE_STOPPED);
    EXPECT_EQ(s.dwCurrentState, SERVICE_STOPPED);
    EXPECT_EQ(s.dwWin32ExitCode, ERROR_PROCESS_ABORTED);
    OVTEST_EXPECT_FAIL(ControlService(service_.get(), SERVICE_CONTROL_STOP, &s),
                       ERROR_SERVICE_NOT_ACTIVE);
    EXPECT_TRUE(Start("plain"));
}

TEST_F(ServiceControl, ReportedStepsShowStateCheckpointAndWaitHint) {
    ASSERT_TRUE(Start("reporting")) << GetLastError();
    SERVICE_STATUS s = WaitFor(SERVICE_START_PENDING, 1);
    EXPECT_EQ(s.dwCurrentState, SERVICE_START_PENDING);
    EXPECT_EQ(s.dwCheckPoint, 1u);
    EXPECT_EQ(s.dwWaitHint, 4000u);
    std::ofstream(root() + "/go") << "1";
    s = WaitFor(SERVICE_RUNNING);
    EXPECT_EQ(s.dwCurrentState, SERVICE_RUNNING);
    EXPECT_EQ(s.dwCheckPoint, 0u);
    ASSERT_TRUE(ControlService(service_.get(), SERVICE_CONTROL_STOP, &s));
    s = WaitFor(SERVICE_STOPPED);
    EXPECT_EQ(s.dwCurrentState, SERVICE_STOPPED);
    EXPECT_EQ(s.dwWin32ExitCode, ERROR_SUCCESS);
}

TEST_F(ServiceControl, InterrogateAndUnknownControls) {
    SERVICE_STATUS s;
    OVTEST_EXPECT_FAIL(ControlService(service_.get(), SERVICE_CONTROL_INTERROGATE, &s),
                       ERROR_SERVICE_NOT_ACTIVE);
    ASSERT_TRUE(Start("plain")) << GetLastError();
    ASSERT_EQ(WaitFor(SERVICE_RUNNING).dwCurrentState, SERVICE_RUNNING);
    EXPECT_TRUE(ControlService(service_.get(), SERVICE_CONTROL_INTERROGATE, &s));
    EXPECT_EQ(s.dwCurrentState, SERVICE_RUNNING);
    OVTEST_EXPECT_FAIL(ControlService(service_.get(), 2 /* pause */, &s),
                       ERROR_INVALID_SERVICE_CONTROL);
    OVTEST_EXPECT_FAIL(ControlService(service_.get(), SERVICE_CONTROL_STOP, nullptr),
                       ERROR_INVALID_PARAMETER);
}

TEST_F(ServiceControl, AMissingProgramCannotStart) {
    PointServiceAtMissingProgram(root(), name_);
    OVTEST_EXPECT_FAIL(Start("plain"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Query().dwCurrentState, SERVICE_STOPPED);
}

TEST_F(ServiceControl, HandlesCheckTheirKindAndRights) {
    OVTEST_EXPECT_FAIL(
        OpenServiceW(manager_.get(), ovtest::U16(ovtest::UniqueName("OvNoSuchService")),
                     SERVICE_QUERY_STATUS),
        ERROR_SERVICE_DOES_NOT_EXIST);
    UniqueServiceHandle lower(OpenServiceW(manager_.get(), Lower(name_), SERVICE_QUERY_STATUS));
    EXPECT_TRUE(lower);
    OVTEST_EXPECT_FAIL(StartServiceW(lower.get(), {}), ERROR_ACCESS_DENIED);
    OVTEST_EXPECT_FAIL(OpenServiceW(service_.get(), name_, SERVICE_QUERY_STATUS),
                       ERROR_INVALID_HANDLE);
    SERVICE_STATUS s;
    OVTEST_EXPECT_FAIL(QueryServiceStatus(manager_.get(), &s), ERROR_INVALID_HANDLE);
    OVTEST_EXPECT_FAIL(QueryServiceStatus(service_.get(), nullptr), ERROR_INVALID_PARAMETER);

    OVTEST_EXPECT_FAIL(OpenSCManagerW(u"", u"ServicesFailed", SC_MANAGER_CONNECT),
                       ERROR_DATABASE_DOES_NOT_EXIST);
    UniqueServiceHandle active(OpenSCManagerW(u"", u"ServicesActive", SC_MANAGER_CONNECT));
    EXPECT_TRUE(active);

    SC_HANDLE raw = OpenSCManagerW(u"", u"", SC_MANAGER_CONNECT);
    ASSERT_NE(raw, nullptr);
    EXPECT_TRUE(CloseServiceHandle(raw));
    OVTEST_EXPECT_FAIL(CloseServiceHandle(raw), ERROR_INVALID_HANDLE);
}

TEST_F(ServiceControl, AnotherMachineIsUnreachable) {
    OVTEST_SKIP_UNDER_WINE("OpenSCManagerW ignores the machine name");
    OVTEST_EXPECT_FAIL(
        OpenSCManagerW(u"\\\\ovsvc-no-such-machine.invalid", u"", SC_MANAGER_CONNECT),
        RPC_S_SERVER_UNAVAILABLE);
}

TEST_F(ServiceControl, TheDatabaseLockIsOneForTheWholeMachine) {
    OVTEST_SKIP_UNDER_WINE("LockServiceDatabase grants every request");
    UniqueServiceLock lock(LockServiceDatabase(manager_.get()));
    ASSERT_TRUE(lock);
    OVTEST_EXPECT_FAIL(LockServiceDatabase(manager_.get()), ERROR_SERVICE_DATABASE_LOCKED);
    auto other = ovtest::Process::StartChild("hold_lock");
    EXPECT_EQ(other.Wait(), static_cast<int>(ERROR_SERVICE_DATABASE_LOCKED % 256));
    lock.reset();

    // A holder that dies gives the lock back.
    auto holder = ovtest::Process::StartChild("hold_lock");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!std::filesystem::exists(root() + "/locked") &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    OVTEST_EXPECT_FAIL(LockServiceDatabase(manager_.get()), ERROR_SERVICE_DATABASE_LOCKED);
    holder.Kill();
    holder.Wait();
    UniqueServiceLock again(LockServiceDatabase(manager_.get()));
    EXPECT_TRUE(again);
}

TEST_F(ServiceControl, OnlyAdministratorsMayLockStartOrStopTheOnlyService) {
    OVTEST_EMBEDDED_ONLY("the embedded machine's single service, account table and accounts");
    OVTEST_EXPECT_FAIL(OpenServiceW(manager_.get(), u"Spooler", SERVICE_QUERY_STATUS),
                       ERROR_SERVICE_DOES_NOT_EXIST);
    // An ordinary user and a member of BUILTIN\Administrators.
    const std::u16string adminGroups[] = {u"BUILTIN\\Administrators"};
    ASSERT_TRUE(admin::AddAccount(u"OVDOMAIN\\bob", SidTypeUser, {}, nullptr));
    ASSERT_TRUE(admin::AddAccount(u"OVDOMAIN\\operator", SidTypeUser, adminGroups, nullptr));
    const std::string admin = "OVSVC_USER=OVDOMAIN\\operator";
    auto user = ovtest::Process::StartChild("non_admin", {}, {"OVSVC_USER=OVDOMAIN\\bob"});
    EXPECT_EQ(user.Wait(), 0) << user.output();
    // The user of a logged-on session, without an explicit account, is no administrator either.
    terminal::Session s;
    s.id = 4;
    s.domainName = u"OVDOMAIN";
    s.userName = u"bob";
    ASSERT_EQ(terminal::Logon(s), ERROR_SUCCESS);
    auto inSession = ovtest::Process::StartChild("non_admin", {}, {"OVSVC_SESSION_ID=4"});
    EXPECT_EQ(inSession.Wait(), 0) << inSession.output();
    // The local system account and administrators may.
    for (const std::string& account : {std::string("OVSVC_USER=NT AUTHORITY\\SYSTEM"), admin}) {
        auto holder = ovtest::Process::StartChild("hold_lock", {"quick"}, {account});
        EXPECT_EQ(holder.Wait(), 0) << account;
    }
}

TEST_F(ServiceControl, LockingNeedsTheLockRight) {
    OVTEST_SKIP_UNDER_WINE("LockServiceDatabase checks neither rights nor handle kinds");
    UniqueServiceHandle connect(OpenSCManagerW(u"", u"", SC_MANAGER_CONNECT));
    OVTEST_EXPECT_FAIL(LockServiceDatabase(connect.get()), ERROR_ACCESS_DENIED);
    OVTEST_EXPECT_FAIL(LockServiceDatabase(service_.get()), ERROR_INVALID_HANDLE);
    OVTEST_EXPECT_FAIL(UnlockServiceDatabase(reinterpret_cast<SC_LOCK>(connect.get())),
                       ERROR_INVALID_SERVICE_LOCK);
}

}  // namespace

}  // namespace scmtest
