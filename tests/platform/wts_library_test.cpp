// Binding the session functions at run time, and the version checks.
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "ovtest.h"
#include "platform/library.h"
#include "platform/machine.h"
#include "platform/security.h"
#include "platform/spooler.h"
#include "platform/wts.h"
#include "product_settings.h"

namespace {

using namespace platform;

using ovtest::kPoison;

class WtsLibrary : public ovtest::MachineTest {};

template <typename F>
FARPROC AsExport(F* function) {
    return reinterpret_cast<FARPROC>(function);
}

TEST_F(WtsLibrary, SystemLibrariesLoadByAnyCaseWithOrWithoutExtension) {
    const std::u16string system = GetSystemDirectoryW().value_or(u"");
    for (const std::u16string& name : std::initializer_list<std::u16string>{
             u"WTSAPI32.DLL", u"wtsapi32.dll", u"WtsApi32", u"KERNEL32.DLL", u"kernel32",
             u"ntdll.dll", u"NTDLL", u"winspool.drv", system + u"\\WINSPOOL.DRV",
             system + u"\\wtsapi32.dll"}) {
        SetLastError(kPoison);
        UniqueLibrary lib(LoadLibraryW(name));
        EXPECT_TRUE(lib) << ovtest::U8(name);
    }
    for (const char16_t* name : {u"", u"wtsapi", u"wtsapi32.dll.dll", u".dll"}) {
        SetLastError(kPoison);
        EXPECT_EQ(LoadLibraryW(name), nullptr) << ovtest::U8(name);
        EXPECT_EQ(GetLastError(), ERROR_MOD_NOT_FOUND);
    }
    OVTEST_EXPECT_FAIL(FreeLibrary(nullptr), ERROR_INVALID_HANDLE);
}

TEST_F(WtsLibrary, ResolvedFunctionsAreTheCallsThemselves) {
    HLIBRARY wts = LoadLibraryW(u"WTSAPI32.DLL");
    ASSERT_NE(wts, nullptr);
    EXPECT_EQ(GetProcAddress(wts, "WTSEnumerateSessionsW"), AsExport(&WTSEnumerateSessionsW));
    EXPECT_EQ(GetProcAddress(wts, "WTSQuerySessionInformationW"),
              AsExport(&WTSQuerySessionInformationW));
    EXPECT_EQ(GetProcAddress(wts, "WTSFreeMemory"), AsExport(&WTSFreeMemory));
    EXPECT_EQ(GetProcAddress(wts, "WTSEnumerateProcessesW"), AsExport(&WTSEnumerateProcessesW));
    EXPECT_EQ(GetProcAddress(wts, "WTSWaitSystemEvent"), AsExport(&WTSWaitSystemEvent));
    // Names are exact: no case folding, no export the library does not have.
    OVTEST_EXPECT_FAIL(GetProcAddress(wts, "wtsenumeratesessionsw"), ERROR_PROC_NOT_FOUND);
    OVTEST_EXPECT_FAIL(GetProcAddress(wts, "WTSGetActiveConsoleSessionId"), ERROR_PROC_NOT_FOUND);
    OVTEST_EXPECT_FAIL(GetProcAddress(wts, std::string_view("WTSFreeMemory\0", 14)),
                       ERROR_PROC_NOT_FOUND);

    HLIBRARY kernel = LoadLibraryW(u"KERNEL32.DLL");
    ASSERT_NE(kernel, nullptr);
    EXPECT_EQ(GetProcAddress(kernel, "WTSGetActiveConsoleSessionId"),
              AsExport(&WTSGetActiveConsoleSessionId));
    EXPECT_EQ(GetProcAddress(kernel, "ProcessIdToSessionId"), AsExport(&ProcessIdToSessionId));
    EXPECT_EQ(GetProcAddress(kernel, "VerifyVersionInfoA"), AsExport(&VerifyVersionInfoA));
    const UniqueLibrary spooler(LoadLibraryW(u"winspool.drv"));
    ASSERT_TRUE(spooler);
    EXPECT_EQ(GetProcAddress(spooler.get(), "XcvDataW"), AsExport(&XcvDataW));
    HLIBRARY ntdll = LoadLibraryW(u"ntdll.dll");
    ASSERT_NE(ntdll, nullptr);
    EXPECT_EQ(GetProcAddress(ntdll, "VerSetConditionMask"), AsExport(&VerSetConditionMask));
    OVTEST_EXPECT_FAIL(GetProcAddress(nullptr, "VerifyVersionInfoA"), ERROR_INVALID_HANDLE);
    EXPECT_TRUE(FreeLibrary(ntdll));
    EXPECT_TRUE(FreeLibrary(kernel));
    EXPECT_TRUE(FreeLibrary(wts));
}

TEST_F(WtsLibrary, ResolvedFunctionsAnswerForTheMachine) {
    OVTEST_EMBEDDED_ONLY("a fresh embedded machine's sessions and console switch");
    HLIBRARY wts = LoadLibraryW(u"WTSAPI32.DLL");
    ASSERT_NE(wts, nullptr);
    using Enumerate = bool (*)(HANDLE, DWORD, DWORD, std::vector<WTS_SESSION_INFOW>*);
    auto enumerate = reinterpret_cast<Enumerate>(GetProcAddress(wts, "WTSEnumerateSessionsW"));
    ASSERT_NE(enumerate, nullptr);
    std::vector<WTS_SESSION_INFOW> sessions;
    ASSERT_TRUE(enumerate(WTS_CURRENT_SERVER_HANDLE, 0, 1, &sessions));
    EXPECT_EQ(sessions.size(), 2u);
    using Console = DWORD (*)() noexcept;
    auto console = reinterpret_cast<Console>(
        GetProcAddress(LoadLibraryW(u"KERNEL32.DLL"), "WTSGetActiveConsoleSessionId"));
    ASSERT_NE(console, nullptr);
    machine::SetSetting("console_session", "5");
    EXPECT_EQ(console(), 5u);
}

TEST_F(WtsLibrary, FunctionsStayCallableAfterTheLibraryIsReleased) {
    HLIBRARY wts = LoadLibraryW(u"WTSAPI32.DLL");
    ASSERT_NE(wts, nullptr);
    using Query = bool (*)(HANDLE, DWORD, WTS_INFO_CLASS, std::vector<std::byte>*);
    auto query = reinterpret_cast<Query>(GetProcAddress(wts, "WTSQuerySessionInformationW"));
    ASSERT_NE(query, nullptr);
    ASSERT_TRUE(FreeLibrary(wts));
    std::vector<std::byte> b;
    OVTEST_EXPECT_FAIL(query(WTS_CURRENT_SERVER_HANDLE, WTS_CURRENT_SESSION, WTSOEMId, &b),
                       ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(query(WTS_CURRENT_SERVER_HANDLE, WTS_CURRENT_SESSION, WTSUserName, &b));
    EXPECT_GE(b.size(), 2u);
}

TEST_F(WtsLibrary, OnlyItsSystemLibrariesAndASwitchMakesTheSessionLibraryAbsent) {
    OVTEST_EMBEDDED_ONLY("the embedded machine's library list and machine.conf switch wtsapi32");
    for (const char16_t* name : {u"user32.dll", u"C:\\Temp\\winspool.drv", u"orvmon.dll"}) {
        OVTEST_EXPECT_FAIL(LoadLibraryW(name), ERROR_MOD_NOT_FOUND) << ovtest::U8(name);
    }
    machine::SetSetting("wtsapi32", "0");
    OVTEST_EXPECT_FAIL(LoadLibraryW(u"WTSAPI32.DLL"), ERROR_MOD_NOT_FOUND);
    // The console function lives in KERNEL32 and stays.
    EXPECT_NE(GetProcAddress(LoadLibraryW(u"KERNEL32.DLL"), "WTSGetActiveConsoleSessionId"),
              nullptr);
    machine::SetSetting("wtsapi32", "1");
    EXPECT_NE(LoadLibraryW(u"WTSAPI32.DLL"), nullptr);
}

TEST_F(WtsLibrary, SwitchRemovesSingleExports) {
    OVTEST_EMBEDDED_ONLY("machine.conf switch wtsapi32_missing");
    machine::SetSetting("wtsapi32_missing", "WTSFreeMemory,WTSEnumerateSessionsW");
    HLIBRARY wts = LoadLibraryW(u"WTSAPI32.DLL");
    ASSERT_NE(wts, nullptr);
    OVTEST_EXPECT_FAIL(GetProcAddress(wts, "WTSEnumerateSessionsW"), ERROR_PROC_NOT_FOUND);
    EXPECT_EQ(GetProcAddress(wts, "WTSFreeMemory"), nullptr);
    EXPECT_NE(GetProcAddress(wts, "WTSQuerySessionInformationW"), nullptr);
    // Only the session library is affected by the list.
    machine::SetSetting("wtsapi32_missing", "VerSetConditionMask");
    EXPECT_NE(GetProcAddress(LoadLibraryW(u"ntdll"), "VerSetConditionMask"), nullptr);
}

TEST_F(WtsLibrary, UnusedExportsSayTheyAreNotImplementedFreeMemoryEmptiesAResult) {
    OVTEST_EXPECT_FAIL(WTSEnumerateProcessesW(WTS_CURRENT_SERVER_HANDLE, 0, 1),
                       ERROR_CALL_NOT_IMPLEMENTED);
    DWORD flags = kPoison;
    EXPECT_FALSE(WTSWaitSystemEvent(WTS_CURRENT_SERVER_HANDLE, 0, &flags));
    EXPECT_EQ(flags, 0u);

    std::vector<std::byte> b;
    ASSERT_TRUE(WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, WTS_CURRENT_SESSION,
                                            WTSUserName, &b));
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
    OVTEST_EMBEDDED_ONLY("machine.conf switch os_version");
    machine::SetSetting("os_version", "5.2.3790");
    OSVERSIONINFOEXW wanted;
    wanted.dwMajorVersion = 5;
    wanted.dwMinorVersion = 1;
    const auto ge = VerSetConditionMask(VerSetConditionMask(0, VER_MAJORVERSION, VER_GREATER_EQUAL),
                                        VER_MINORVERSION, VER_GREATER_EQUAL);
    EXPECT_TRUE(VerifyVersionInfoA(&wanted, VER_MAJORVERSION | VER_MINORVERSION, ge));
    wanted.dwMinorVersion = 3;
    OVTEST_EXPECT_FAIL(VerifyVersionInfoA(&wanted, VER_MAJORVERSION | VER_MINORVERSION, ge),
                       ERROR_OLD_WIN_VERSION);
    wanted.dwPlatformId = VER_PLATFORM_WIN32_NT;
    EXPECT_TRUE(VerifyVersionInfoA(&wanted, VER_PLATFORMID,
                                   VerSetConditionMask(0, VER_PLATFORMID, VER_EQUAL)));
    OVTEST_EXPECT_FAIL(VerifyVersionInfoA(&wanted, 0, ge), ERROR_BAD_ARGUMENTS);
    EXPECT_FALSE(VerifyVersionInfoA(nullptr, VER_MAJORVERSION, ge));
    wanted.wSuiteMask = VER_SUITE_TERMINAL;  // a terminal server
    EXPECT_TRUE(
        VerifyVersionInfoA(&wanted, VER_SUITENAME, VerSetConditionMask(0, VER_SUITENAME, VER_AND)));
}

TEST_F(VersionInfo, ComparesAgainstTheReportedVersion) {
    OSVERSIONINFOEXW system;
    ASSERT_TRUE(GetVersionExW(&system));
    const auto ge = VerSetConditionMask(VerSetConditionMask(0, VER_MAJORVERSION, VER_GREATER_EQUAL),
                                        VER_MINORVERSION, VER_GREATER_EQUAL);
    OSVERSIONINFOEXW wanted;
    wanted.dwMajorVersion = system.dwMajorVersion;
    wanted.dwMinorVersion = system.dwMinorVersion;
    SetLastError(kPoison);
    EXPECT_TRUE(VerifyVersionInfoA(&wanted, VER_MAJORVERSION | VER_MINORVERSION, ge));
    wanted.dwMajorVersion = system.dwMajorVersion + 1;
    OVTEST_EXPECT_FAIL(VerifyVersionInfoA(&wanted, VER_MAJORVERSION | VER_MINORVERSION, ge),
                       ERROR_OLD_WIN_VERSION);
    wanted.dwMajorVersion = system.dwMajorVersion;
    wanted.dwPlatformId = VER_PLATFORM_WIN32_NT;
    EXPECT_TRUE(VerifyVersionInfoA(&wanted, VER_PLATFORMID,
                                   VerSetConditionMask(0, VER_PLATFORMID, VER_EQUAL)));
    for (DWORD typeMask : {DWORD{0}, VER_MAJORVERSION}) {
        const std::uint64_t mask = typeMask == 0 ? ge : 0;
        SetLastError(kPoison);
        EXPECT_FALSE(VerifyVersionInfoA(&wanted, typeMask, mask)) << typeMask;
        EXPECT_EQ(GetLastError(), ERROR_BAD_ARGUMENTS) << typeMask;
    }
    OVTEST_EXPECT_FAIL(VerifyVersionInfoA(nullptr, VER_MAJORVERSION, ge), ERROR_INVALID_PARAMETER);
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
}

}  // namespace
