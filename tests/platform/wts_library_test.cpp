// Binding the session functions at run time, and the version checks.
#include <gtest/gtest.h>

#include <vector>

#include "ovtest.h"
#include "platform/machine.h"
#include "platform/security.h"
#include "platform/wts.h"

namespace {

using namespace platform;

constexpr DWORD kPoison = 0xDEADBEEF;

class WtsLibrary : public ovtest::MachineTest {};

TEST_F(WtsLibrary, SystemLibrariesLoadByAnyCaseWithOrWithoutExtension) {
    for (const char16_t* name : {u"WTSAPI32.DLL", u"wtsapi32.dll", u"WtsApi32", u"KERNEL32.DLL",
                                 u"kernel32", u"ntdll.dll", u"NTDLL"}) {
        SetLastError(kPoison);
        HLIBRARY lib = LoadLibraryW(name);
        EXPECT_NE(lib, nullptr) << ovtest::U8(name);
        EXPECT_TRUE(FreeLibrary(lib));
    }
    for (const char16_t* name : {u"", u"wtsapi", u"wtsapi32.dll.dll", u"user32.dll", u".dll"}) {
        SetLastError(kPoison);
        EXPECT_EQ(LoadLibraryW(name), nullptr) << ovtest::U8(name);
        EXPECT_EQ(GetLastError(), ERROR_MOD_NOT_FOUND);
    }
    SetLastError(kPoison);
    EXPECT_FALSE(FreeLibrary(nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST_F(WtsLibrary, ResolvedFunctionsAreTheCallsThemselves) {
    HLIBRARY wts = LoadLibraryW(u"WTSAPI32.DLL");
    ASSERT_NE(wts, nullptr);
    using Enumerate = bool (*)(HANDLE, DWORD, DWORD, std::vector<WTS_SESSION_INFOW>*);
    auto enumerate = reinterpret_cast<Enumerate>(GetProcAddress(wts, "WTSEnumerateSessionsW"));
    ASSERT_NE(enumerate, nullptr);
    std::vector<WTS_SESSION_INFOW> sessions;
    ASSERT_TRUE(enumerate(WTS_CURRENT_SERVER_HANDLE, 0, 1, &sessions));
    EXPECT_EQ(sessions.size(), 2u);

    for (const char* name : {"WTSQuerySessionInformationW", "WTSFreeMemory",
                             "WTSEnumerateProcessesW", "WTSWaitSystemEvent"}) {
        EXPECT_NE(GetProcAddress(wts, name), nullptr) << name;
    }
    // Names are exact: no case folding, no narrow variant that does not exist.
    SetLastError(kPoison);
    EXPECT_EQ(GetProcAddress(wts, "wtsenumeratesessionsw"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_PROC_NOT_FOUND);
    EXPECT_EQ(GetProcAddress(wts, "WTSGetActiveConsoleSessionId"), nullptr);

    HLIBRARY kernel = LoadLibraryW(u"KERNEL32.DLL");
    using Console = DWORD (*)() noexcept;
    auto console =
        reinterpret_cast<Console>(GetProcAddress(kernel, "WTSGetActiveConsoleSessionId"));
    ASSERT_NE(console, nullptr);
    machine::SetSetting("console_session", "5");
    EXPECT_EQ(console(), 5u);
    EXPECT_NE(GetProcAddress(kernel, "VerifyVersionInfoA"), nullptr);
    EXPECT_NE(GetProcAddress(LoadLibraryW(u"ntdll.dll"), "VerSetConditionMask"), nullptr);
    SetLastError(kPoison);
    EXPECT_EQ(GetProcAddress(nullptr, "VerifyVersionInfoA"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST_F(WtsLibrary, SwitchMakesTheSessionLibraryAbsent) {
    machine::SetSetting("wtsapi32", "0");
    SetLastError(kPoison);
    EXPECT_EQ(LoadLibraryW(u"WTSAPI32.DLL"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_MOD_NOT_FOUND);
    // The console function lives in KERNEL32 and stays.
    EXPECT_NE(GetProcAddress(LoadLibraryW(u"KERNEL32.DLL"), "WTSGetActiveConsoleSessionId"),
              nullptr);
    machine::SetSetting("wtsapi32", "1");
    EXPECT_NE(LoadLibraryW(u"WTSAPI32.DLL"), nullptr);
}

TEST_F(WtsLibrary, SwitchRemovesSingleExports) {
    machine::SetSetting("wtsapi32_missing", "WTSFreeMemory,WTSEnumerateSessionsW");
    HLIBRARY wts = LoadLibraryW(u"WTSAPI32.DLL");
    ASSERT_NE(wts, nullptr);
    SetLastError(kPoison);
    EXPECT_EQ(GetProcAddress(wts, "WTSEnumerateSessionsW"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_PROC_NOT_FOUND);
    EXPECT_EQ(GetProcAddress(wts, "WTSFreeMemory"), nullptr);
    EXPECT_NE(GetProcAddress(wts, "WTSQuerySessionInformationW"), nullptr);
    // Only the session library is affected by the list.
    machine::SetSetting("wtsapi32_missing", "VerSetConditionMask");
    EXPECT_NE(GetProcAddress(LoadLibraryW(u"ntdll"), "VerSetConditionMask"), nullptr);
}

TEST_F(WtsLibrary, UnusedExportsSayTheyAreNotImplemented) {
    SetLastError(kPoison);
    EXPECT_FALSE(WTSEnumerateProcessesW(WTS_CURRENT_SERVER_HANDLE, 0, 1));
    EXPECT_EQ(GetLastError(), ERROR_CALL_NOT_IMPLEMENTED);
    DWORD flags = kPoison;
    EXPECT_FALSE(WTSWaitSystemEvent(WTS_CURRENT_SERVER_HANDLE, 0, &flags));
    EXPECT_EQ(flags, 0u);
}

TEST_F(WtsLibrary, FreeMemoryEmptiesAResult) {
    std::vector<std::byte> b;
    ASSERT_TRUE(WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, 0, WTSWinStationName, &b));
    EXPECT_FALSE(b.empty());
    WTSFreeMemory(&b);
    EXPECT_TRUE(b.empty());
    WTSFreeMemory(nullptr);
}

TEST(VersionCheck, ConditionMaskPutsThreeBitsPerField) {
    EXPECT_EQ(VerSetConditionMask(0, VER_MINORVERSION, VER_EQUAL), 1u);
    EXPECT_EQ(VerSetConditionMask(0, VER_MAJORVERSION, VER_GREATER_EQUAL), 3u << 3);
    EXPECT_EQ(VerSetConditionMask(0, VER_SUITENAME, VER_AND), std::uint64_t{6} << 18);
    EXPECT_EQ(VerSetConditionMask(0, VER_PRODUCT_TYPE, VER_OR), std::uint64_t{7} << 21);
    // Fields accumulate: each call adds one field's condition.
    const auto both = VerSetConditionMask(VerSetConditionMask(0, VER_MAJORVERSION, VER_LESS),
                                          VER_MINORVERSION, VER_EQUAL);
    EXPECT_EQ(both, (4u << 3) | 1u);
    // As on Windows, a condition is ORed in, never replaced; condition 0 (also
    // after masking to three bits) and an empty type change nothing.
    auto m = VerSetConditionMask(0, VER_SUITENAME, VER_AND);
    EXPECT_EQ(VerSetConditionMask(m, VER_SUITENAME, VER_EQUAL), std::uint64_t{7} << 18);
    EXPECT_EQ(VerSetConditionMask(m, VER_SUITENAME, 0), m);
    EXPECT_EQ(VerSetConditionMask(m, VER_SUITENAME, 8), m);
    EXPECT_EQ(VerSetConditionMask(m, 0, VER_EQUAL), m);
    // Several type bits set one field only: the highest-ranked one named.
    EXPECT_EQ(VerSetConditionMask(0, VER_MAJORVERSION | VER_MINORVERSION, VER_LESS), 4u << 3);
    EXPECT_EQ(VerSetConditionMask(0, VER_PRODUCT_TYPE | VER_MINORVERSION, VER_EQUAL),
              std::uint64_t{1} << 21);
}

class VersionInfo : public ovtest::MachineTest {};

TEST_F(VersionInfo, ComparesAgainstTheRunningSystem) {
    machine::SetSetting("os_version", "5.2.3790");
    OSVERSIONINFOEXW wanted;
    wanted.dwMajorVersion = 5;
    wanted.dwMinorVersion = 1;
    const auto ge = VerSetConditionMask(VerSetConditionMask(0, VER_MAJORVERSION, VER_GREATER_EQUAL),
                                        VER_MINORVERSION, VER_GREATER_EQUAL);
    EXPECT_TRUE(VerifyVersionInfoA(&wanted, VER_MAJORVERSION | VER_MINORVERSION, ge));
    wanted.dwMinorVersion = 3;
    SetLastError(kPoison);
    EXPECT_FALSE(VerifyVersionInfoA(&wanted, VER_MAJORVERSION | VER_MINORVERSION, ge));
    EXPECT_EQ(GetLastError(), ERROR_OLD_WIN_VERSION);
    wanted.dwPlatformId = VER_PLATFORM_WIN32_NT;
    EXPECT_TRUE(VerifyVersionInfoA(&wanted, VER_PLATFORMID,
                                   VerSetConditionMask(0, VER_PLATFORMID, VER_EQUAL)));
    SetLastError(kPoison);
    EXPECT_FALSE(VerifyVersionInfoA(&wanted, 0, ge));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(VerifyVersionInfoA(nullptr, VER_MAJORVERSION, ge));
}

TEST_F(VersionInfo, SuiteTestMatchesWhatTheSystemReports) {
    OSVERSIONINFOEXW system;
    ASSERT_TRUE(GetVersionExW(&system));
    const auto mask = VerSetConditionMask(0, VER_SUITENAME, VER_AND);
    OSVERSIONINFOEXW wanted;
    for (WORD suite : {VER_SUITE_TERMINAL, VER_SUITE_SINGLEUSERTS}) {
        wanted.wSuiteMask = suite;
        EXPECT_EQ(VerifyVersionInfoA(&wanted, VER_SUITENAME, mask),
                  (system.wSuiteMask & suite) == suite)
            << suite;
    }
    // The emulated machine is a terminal server.
    wanted.wSuiteMask = VER_SUITE_TERMINAL;
    EXPECT_TRUE(VerifyVersionInfoA(&wanted, VER_SUITENAME, mask));
}

}  // namespace
