// Thread and process ids, sessions, clocks and the reported OS version.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <thread>
#include <vector>

#include "kernel_test_support.h"
#include "ovtest.h"
#include "platform/kernel.h"
#include "platform/machine.h"
#include "platform/wts.h"
#include "product_settings.h"

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
    EXPECT_EQ(GetCurrentProcessId(), static_cast<DWORD>(ovtest::CurrentProcessId()));
}

TEST_F(KernelSystem, SessionComesFromTheEnvironmentAndDefaultsToZero) {
    OVTEST_EMBEDDED_ONLY("a process's session is set from its environment");
    kerneltest::EnvironmentScope session("OVSVC_SESSION_ID", std::nullopt);
    EXPECT_EQ(GetCurrentSessionId(), 0u);
    kerneltest::PutEnvironment("OVSVC_SESSION_ID", "7");
    EXPECT_EQ(GetCurrentSessionId(), 7u);
    kerneltest::PutEnvironment("OVSVC_SESSION_ID", "7x");  // not a number: the console session
    EXPECT_EQ(GetCurrentSessionId(), 0u);
}

TEST_F(KernelSystem, SessionQueryIsStableAndLeavesTheLastErrorAlone) {
    const DWORD session = GetCurrentSessionId();
    std::thread other([session] { EXPECT_EQ(GetCurrentSessionId(), session); });
    other.join();
    SetLastError(0xDEADBEEF);
    EXPECT_EQ(GetCurrentSessionId(), session);
    EXPECT_EQ(GetLastError(), 0xDEADBEEFu);  // a query that cannot fail does not set it
}

TEST_F(KernelSystem, SettingsLiveInTheMachineConfOfTheRoot) {
    EXPECT_EQ(machine::Root(), root());
    EXPECT_FALSE(machine::Setting("kernel_test_key"));
    machine::SetSetting("kernel_test_key", "one");
    machine::SetSetting("kernel_test_other", "x=y");
    machine::SetSetting("kernel_test_key", "two");
    EXPECT_EQ(machine::Setting("kernel_test_key"), "two");
    EXPECT_EQ(machine::Setting("kernel_test_other"), "x=y");
    EXPECT_FALSE(machine::Setting("kernel_test"));  // a key's prefix is another key
    EXPECT_FALSE(machine::Setting("kernel_test_key=two"));
    const std::filesystem::path conf = std::filesystem::path(ovtest::U16(root())) / "machine.conf";
    EXPECT_TRUE(std::filesystem::is_regular_file(conf));
    EXPECT_EQ(machine::EventLogPath().rfind(root(), 0), 0u) << machine::EventLogPath();
}

// Waiting on a word: it returns at once when the word moved on, times out
// with ERROR_TIMEOUT, and a wake under the waiter's key ends its sleep (on
// Windows the waiter looks again by itself after a moment).
TEST_F(KernelSystem, WaitOnAddressEndsOnAChangedWordOnItsKeyOrOnTimeout) {
    LONG word = 5;
    EXPECT_TRUE(WaitOnAddress(&word, 4, 10000));
    OVTEST_EXPECT_FAIL(WaitOnAddress(&word, 5, 0), ERROR_TIMEOUT);

    // Stays true when the word moved on before the waiter began: nothing to judge then.
    std::atomic<bool> lastWasWake{true};
    std::thread waiter([&] {
        while (InterlockedRead(&word) == 5) {
            lastWasWake = WaitOnAddress(&word, 5, 20000, 7);
        }
    });
    Sleep(50);
    InterlockedExchange(&word, 6);
    WakeByAddressKey(&word, 7 + 32);  // keys count modulo 32
    waiter.join();
    EXPECT_TRUE(lastWasWake) << "the waiter slept until its timeout";
}

TEST_F(KernelSystem, WakeForAnotherKeyLeavesAWaiterAsleep) {
    OVTEST_EMBEDDED_ONLY("on Windows a waiter on shared memory looks again by itself");
    LONG word = 0;
    std::atomic<bool> woken{true};
    std::thread waiter([&] { woken = WaitOnAddress(&word, 0, 400, 3); });
    Sleep(50);
    WakeByAddressKey(&word, 4);
    waiter.join();
    EXPECT_FALSE(woken);
    EXPECT_TRUE(WaitOnAddress(&word, 1, 0, 3));
}

TEST_F(KernelSystem, TicksAdvanceAcrossASleep) {
    // Windows advances the tick count once per timer interval (up to 16 ms),
    // so a reading may lag behind the time that passed by that much.
    const DWORD interval = ovtest::IsWin32Platform() ? 16 : 0;
    const std::uint64_t before = GetTickCount64();
    const DWORD before32 = GetTickCount();
    Sleep(30 + interval);
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

TEST_F(KernelSystem, VersionIsThatOfAnNtSystem) {
    OSVERSIONINFOEXW v;
    ASSERT_TRUE(GetVersionExW(&v));
    EXPECT_EQ(v.dwPlatformId, VER_PLATFORM_WIN32_NT);
    EXPECT_GE(v.dwMajorVersion, 5u);
    EXPECT_TRUE(v.wProductType == VER_NT_WORKSTATION || v.wProductType == VER_NT_SERVER ||
                v.wProductType == 2 /* domain controller */)
        << int{v.wProductType};

    OVTEST_EXPECT_FAIL(GetVersionExW(nullptr), ERROR_INVALID_PARAMETER);
}

TEST_F(KernelSystem, VersionIsNt61TerminalServerUnlessTheMachineSaysOtherwise) {
    OVTEST_EMBEDDED_ONLY("the version the emulated machine reports");
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

    // The os_version switch of machine.conf; a malformed one leaves the default.
    machine::SetSetting("os_version", "5.2.3790");
    ASSERT_TRUE(GetVersionExW(&v));
    EXPECT_EQ(v.dwMajorVersion, 5u);
    EXPECT_EQ(v.dwMinorVersion, 2u);
    EXPECT_EQ(v.dwBuildNumber, 3790u);
    EXPECT_EQ(v.szCSDVersion, u"");
    for (const char* bad : {"6.2", "six", "6.2.9200.1", ""}) {
        machine::SetSetting("os_version", bad);
        ASSERT_TRUE(GetVersionExW(&v));
        EXPECT_EQ(v.dwBuildNumber, 7601u) << bad;
    }
}

}  // namespace
