// Service-control tests: the fixture, and what each platform does to make a
// service of this test program.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

#include "ovtest.h"
#include "platform/scm.h"

namespace scmtest {

// Makes the service the tests control run this test program as a fake
// service, the mode ("plain" or "reporting") coming from StartServiceW's
// arguments {"--child=fake_service", mode}. The embedded machine's only
// service OvaspoolSvc runs machine.conf's "service_program"; on Windows a
// service of a unique name is registered for the test. Returns its name.
std::u16string PrepareService(const std::string& root);
// Points the service at a program that does not exist.
void PointServiceAtMissingProgram(const std::string& root, const std::u16string& name);
// Ends a service process still running and removes what PrepareService made.
void RemoveService(const std::string& root, const std::u16string& name);
// The process of the running service (0 for none), whether a process still
// runs, and ending one at once.
std::uint32_t ServiceProcessId(const std::string& root, platform::SC_HANDLE service);
bool ProcessAlive(std::uint32_t pid);
void KillProcess(std::uint32_t pid);

// The fake service's modes, for the platform's service process.
// "reporting": reports start-pending (check point 1, hint 4000 ms), waits for
// the file `goFile`, reports running, and on the stop control reports
// stop-pending and then stopped. "prompt": reports running at once and
// stopped on the stop control. Both return the process's exit code.
int RunReportingService(const std::string& goFile);
int RunPromptService();

class ServiceControl : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        name_ = PrepareService(root());
        ASSERT_FALSE(name_.empty());
        manager_ = platform::UniqueServiceHandle(
            platform::OpenSCManagerW(u"", u"", platform::SC_MANAGER_ALL_ACCESS));
        ASSERT_TRUE(manager_) << platform::GetLastError();
        service_ = platform::UniqueServiceHandle(
            platform::OpenServiceW(manager_.get(), name_, platform::SERVICE_ALL_ACCESS));
        ASSERT_TRUE(service_) << platform::GetLastError() << " " << ovtest::U8(name_);
    }
    void TearDown() override {
        service_.reset();
        manager_.reset();
        if (!name_.empty()) {
            RemoveService(root(), name_);
        }
        MachineTest::TearDown();
    }
    platform::SERVICE_STATUS Query() {
        platform::SERVICE_STATUS s;
        s.dwCurrentState = 0xDEADBEEF;
        EXPECT_TRUE(platform::QueryServiceStatus(service_.get(), &s));
        return s;
    }
    // Polls until the service reads `state` (and `checkPoint`), for at most
    // ten seconds.
    platform::SERVICE_STATUS WaitFor(platform::DWORD state, platform::DWORD checkPoint = 0) {
        platform::SERVICE_STATUS s = Query();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while ((s.dwCurrentState != state || s.dwCheckPoint != checkPoint) &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            s = Query();
        }
        return s;
    }
    bool Start(const std::string& mode) {
        return platform::StartServiceW(service_.get(),
                                       {u"--child=fake_service", ovtest::U16(mode)});
    }
    std::uint32_t ServicePid() { return ServiceProcessId(root(), service_.get()); }

    std::u16string name_;
    platform::UniqueServiceHandle manager_;
    platform::UniqueServiceHandle service_;
};

}  // namespace scmtest
