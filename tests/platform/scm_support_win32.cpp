// Service-control tests on Windows: each test registers a service of its own
// whose program is this test program, run as the child "fake_service_host",
// and deletes it afterwards.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "ovtest.h"
#include "platform/scm.h"
#include "scm_test_support.h"

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

namespace scmtest {

namespace {

std::wstring Wide(const std::u16string& text) {
    return std::wstring(text.begin(), text.end());
}

std::wstring WidePath(const std::string& path) {
    return std::filesystem::u8path(path).wstring();
}

std::string g_root;  // the test's root, from the service's command line

// The service's main function: the mode comes from StartServiceW's
// arguments ({"--child=fake_service", mode}, after the service name). A
// Windows service has to report running itself, so "plain" reports at once.
void WINAPI FakeServiceMain(DWORD argc, LPWSTR* argv) {
    const std::wstring mode = argc >= 3 ? argv[2] : L"plain";
    if (mode == L"reporting") {
        RunReportingService(g_root + "/go");
    } else {
        RunPromptService();
    }
}

// Started by the service control manager: "<root>".
OVTEST_CHILD(fake_service_host) {
    g_root = args.empty() ? std::string() : args[0];
    wchar_t name[] = L"OvaspoolSvc";  // one service in this process: any name will do
    SERVICE_TABLE_ENTRYW table[] = {{name, FakeServiceMain}, {nullptr, nullptr}};
    return StartServiceCtrlDispatcherW(table) ? 0 : static_cast<int>(GetLastError() % 256);
}

struct ScHandle {
    SC_HANDLE h = nullptr;
    explicit ScHandle(SC_HANDLE value) : h(value) {}
    ScHandle(const ScHandle&) = delete;
    ScHandle& operator=(const ScHandle&) = delete;
    ~ScHandle() {
        if (h != nullptr) {
            CloseServiceHandle(h);
        }
    }
};

std::wstring Quoted(const std::wstring& text) {
    return L"\"" + text + L"\"";
}

}  // namespace

std::u16string PrepareService(const std::string& root) {
    const std::u16string name = ovtest::U16(ovtest::UniqueName("OvTestService"));
    ScHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE));
    if (manager.h == nullptr) {
        ADD_FAILURE() << "OpenSCManagerW: " << GetLastError();
        return {};
    }
    const std::wstring command = Quoted(WidePath(ovtest::SelfPath())) +
                                 L" --child=fake_service_host " + Quoted(WidePath(root));
    ScHandle service(CreateServiceW(manager.h, Wide(name).c_str(), Wide(name).c_str(),
                                    SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
                                    SERVICE_DEMAND_START, SERVICE_ERROR_IGNORE, command.c_str(),
                                    nullptr, nullptr, nullptr, nullptr, nullptr));
    if (service.h == nullptr) {
        ADD_FAILURE() << "CreateServiceW: " << GetLastError();
        return {};
    }
    // A service manager that has only just started (a fresh Wine prefix) can
    // briefly answer "no such service" for one just created: wait until the
    // service opens by name, as the tests will open it.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
        ScHandle manager2(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
        ScHandle opened(OpenServiceW(manager2.h, Wide(name).c_str(), SERVICE_QUERY_STATUS));
        if (opened.h != nullptr || std::chrono::steady_clock::now() >= deadline) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return name;
}

void PointServiceAtMissingProgram(const std::string& root, const std::u16string& name) {
    ScHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    ScHandle service(OpenServiceW(manager.h, Wide(name).c_str(), SERVICE_CHANGE_CONFIG));
    const std::wstring command = Quoted(WidePath(root + "/nowhere/ovaspoolsvc.exe"));
    ASSERT_TRUE(ChangeServiceConfigW(service.h, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE,
                                     SERVICE_NO_CHANGE, command.c_str(), nullptr, nullptr, nullptr,
                                     nullptr, nullptr, nullptr))
        << GetLastError();
}

std::uint32_t ServiceProcessId(const std::string&, platform::SC_HANDLE service) {
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    if (!QueryServiceStatusEx(reinterpret_cast<SC_HANDLE>(service), SC_STATUS_PROCESS_INFO,
                              reinterpret_cast<BYTE*>(&status), sizeof status, &needed)) {
        return 0;
    }
    return status.dwProcessId;
}

bool ProcessAlive(std::uint32_t pid) {
    HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, pid);
    if (process == nullptr) {
        return false;
    }
    const bool alive = WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
    CloseHandle(process);
    return alive;
}

void KillProcess(std::uint32_t pid) {
    HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, pid);
    ASSERT_NE(process, nullptr) << pid << ": " << GetLastError();
    EXPECT_TRUE(TerminateProcess(process, 1));
    WaitForSingleObject(process, 10000);
    CloseHandle(process);
}

void RemoveService(const std::string& root, const std::u16string& name) {
    ScHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    ScHandle service(
        OpenServiceW(manager.h, Wide(name).c_str(), SERVICE_QUERY_STATUS | SERVICE_STOP | DELETE));
    if (service.h == nullptr) {
        return;
    }
    if (std::uint32_t pid =
            ServiceProcessId(root, reinterpret_cast<platform::SC_HANDLE>(service.h));
        pid != 0 && ProcessAlive(pid)) {
        KillProcess(pid);
    }
    EXPECT_TRUE(DeleteService(service.h)) << GetLastError();
}

namespace {

// The service host program of the product, registered as a service of its
// own, starts, runs and stops through the platform's calls.
TEST(ServiceHost, TheHostProgramRunsAsAServiceAndStops) {
    const std::string host = ovtest::BinDir() + "/ovaspoolsvc.exe";
    ASSERT_TRUE(std::filesystem::exists(std::filesystem::u8path(host))) << host;
    const std::u16string name = ovtest::U16(ovtest::UniqueName("OvTestHost"));
    {
        ScHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE));
        ASSERT_NE(manager.h, nullptr) << ::GetLastError();
        ScHandle created(::CreateServiceW(
            manager.h, Wide(name).c_str(), Wide(name).c_str(), SERVICE_ALL_ACCESS,
            SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_IGNORE,
            Quoted(WidePath(host)).c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
        ASSERT_NE(created.h, nullptr) << ::GetLastError();
    }
    platform::UniqueServiceHandle manager(platform::OpenSCManagerW(u"", u"", SC_MANAGER_CONNECT));
    platform::UniqueServiceHandle service(
        platform::OpenServiceW(manager.get(), name, SERVICE_ALL_ACCESS));
    ASSERT_TRUE(service);
    EXPECT_TRUE(platform::StartServiceW(service.get(), {}));
    platform::SERVICE_STATUS s;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    do {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ASSERT_TRUE(platform::QueryServiceStatus(service.get(), &s));
    } while (s.dwCurrentState != SERVICE_RUNNING && s.dwCurrentState != SERVICE_STOPPED &&
             std::chrono::steady_clock::now() < deadline);
    EXPECT_EQ(s.dwCurrentState, static_cast<DWORD>(SERVICE_RUNNING));
    EXPECT_NE(s.dwControlsAccepted & SERVICE_ACCEPT_STOP, 0u);
    EXPECT_TRUE(platform::ControlService(service.get(), SERVICE_CONTROL_STOP, &s));
    const auto stopDeadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (s.dwCurrentState != SERVICE_STOPPED && std::chrono::steady_clock::now() < stopDeadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ASSERT_TRUE(platform::QueryServiceStatus(service.get(), &s));
    }
    EXPECT_EQ(s.dwCurrentState, static_cast<DWORD>(SERVICE_STOPPED));
    EXPECT_EQ(s.dwWin32ExitCode, static_cast<DWORD>(NO_ERROR));
    RemoveService(std::string(), name);
}

}  // namespace

}  // namespace scmtest
