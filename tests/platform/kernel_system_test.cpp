// Thread and process ids, sessions, clocks and the reported OS version.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <set>
#include <thread>
#include <vector>

#include "ovtest.h"
#include "platform/kernel.h"
#include "platform/machine.h"

namespace {

using namespace platform;

class KernelSystem : public ovtest::MachineTest {};

TEST_F(KernelSystem, ThreadIdsAreStablePerThreadAndDistinctAcrossThreads) {
    const DWORD mine = GetCurrentThreadId();
    EXPECT_NE(mine, 0u);
    EXPECT_EQ(GetCurrentThreadId(), mine);
    std::vector<DWORD> ids(4);
    std::vector<std::thread> threads;
    for (auto& id : ids) {
        threads.emplace_back([&id] { id = GetCurrentThreadId(); });
    }
    for (auto& t : threads) {
        t.join();
    }
    std::set<DWORD> distinct(ids.begin(), ids.end());
    distinct.insert(mine);
    EXPECT_EQ(distinct.size(), ids.size() + 1);
    EXPECT_EQ(GetCurrentProcessId(), static_cast<DWORD>(getpid()));
}

TEST_F(KernelSystem, SessionComesFromTheEnvironmentAndDefaultsToZero) {
    const char* old = std::getenv("OVSVC_SESSION_ID");
    const std::string saved = old != nullptr ? old : "";
    unsetenv("OVSVC_SESSION_ID");
    EXPECT_EQ(GetCurrentSessionId(), 0u);
    setenv("OVSVC_SESSION_ID", "7", 1);
    EXPECT_EQ(GetCurrentSessionId(), 7u);
    setenv("OVSVC_SESSION_ID", "7x", 1);  // not a number: the console session
    EXPECT_EQ(GetCurrentSessionId(), 0u);
    if (old != nullptr) {
        setenv("OVSVC_SESSION_ID", saved.c_str(), 1);
    } else {
        unsetenv("OVSVC_SESSION_ID");
    }
}

TEST_F(KernelSystem, TicksAdvanceAcrossASleep) {
    const std::uint64_t before = GetTickCount64();
    const DWORD before32 = GetTickCount();
    Sleep(30);
    EXPECT_GE(GetTickCount64() - before, 30u);
    EXPECT_GE(static_cast<DWORD>(GetTickCount() - before32), 30u);  // wraps like Windows
}

TEST_F(KernelSystem, LocalTimeFieldsAreInRange) {
    SYSTEMTIME t{};
    GetLocalTime(&t);
    EXPECT_GE(t.wYear, 2020);
    EXPECT_GE(t.wMonth, 1);
    EXPECT_LE(t.wMonth, 12);
    EXPECT_GE(t.wDay, 1);
    EXPECT_LE(t.wDay, 31);
    EXPECT_LE(t.wDayOfWeek, 6);
    EXPECT_LE(t.wHour, 23);
    EXPECT_LE(t.wMinute, 59);
    EXPECT_LE(t.wSecond, 59);
    EXPECT_LE(t.wMilliseconds, 999);
}

TEST_F(KernelSystem, VersionIsNt61TerminalServerByDefault) {
    OSVERSIONINFOEXW v;
    ASSERT_TRUE(GetVersionExW(&v));
    EXPECT_EQ(v.dwMajorVersion, 6u);
    EXPECT_EQ(v.dwMinorVersion, 1u);
    EXPECT_EQ(v.dwBuildNumber, 7601u);
    EXPECT_EQ(v.dwPlatformId, VER_PLATFORM_WIN32_NT);
    EXPECT_EQ(v.szCSDVersion, u"Service Pack 1");
    EXPECT_EQ(v.wServicePackMajor, 1);
    EXPECT_EQ(v.wSuiteMask & VER_SUITE_TERMINAL, VER_SUITE_TERMINAL);
    EXPECT_EQ(v.wProductType, VER_NT_SERVER);

    SetLastError(0xDEADBEEF);
    EXPECT_FALSE(GetVersionExW(nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST_F(KernelSystem, VersionFollowsTheMachineSetting) {
    machine::SetSetting("os_version", "5.2.3790");
    OSVERSIONINFOEXW v;
    ASSERT_TRUE(GetVersionExW(&v));
    EXPECT_EQ(v.dwMajorVersion, 5u);
    EXPECT_EQ(v.dwMinorVersion, 2u);
    EXPECT_EQ(v.dwBuildNumber, 3790u);
    EXPECT_EQ(v.szCSDVersion, u"");

    // A malformed setting leaves the default.
    for (const char* bad : {"6.2", "six", "6.2.9200.1", ""}) {
        machine::SetSetting("os_version", bad);
        ASSERT_TRUE(GetVersionExW(&v));
        EXPECT_EQ(v.dwBuildNumber, 7601u) << bad;
    }
}

}  // namespace
