// Starting processes: command lines, program look-up, exit codes, waits and
// the pipes that carry a child's output.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "kernel_test_support.h"
#include "ovtest.h"
#include "platform/kernel.h"
#include "platform/process.h"
#include "platform/security.h"
#include "platform/wts.h"
#include "product_settings.h"

namespace {

using namespace platform;
using ovtest::U16;
using ovtest::U8;

using ovtest::kPoison;

std::string SelfPath() {
    return ovtest::SelfPath();
}

// A file in a directory, with the platform's separator.
std::string Join(const std::string& directory, const std::string& name) {
    return directory + (ovtest::IsWin32Platform() ? "\\" : "/") + name;
}

// Paths are compared as the platform compares them: ignoring case on Windows.
::testing::AssertionResult SamePath(const std::string& actual, const std::string& expected) {
    auto fold = [](std::string text) {
        if (ovtest::IsWin32Platform()) {
            for (char& c : text) {
                c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            }
        }
        return text;
    };
    if (fold(actual) == fold(expected)) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "'" << actual << "' is not '" << expected << "'";
}

// Writes `count` bytes to standard output and `count` to standard error,
// interleaved, in small pieces.
OVTEST_CHILD(chatty) {
    kerneltest::BinaryOutput();
    const std::size_t count = std::stoul(args.at(0));
    std::string chunk(1000, 'o');
    std::string echunk(1000, 'e');
    for (std::size_t done = 0; done < count;) {
        const std::size_t n = std::min(chunk.size(), count - done);
        if (std::fwrite(chunk.data(), 1, n, stdout) != n || std::fflush(stdout) != 0 ||
            std::fwrite(echunk.data(), 1, n, stderr) != n) {
            return 3;
        }
        done += n;
    }
    return 0;
}

OVTEST_CHILD(exit_with) {
    return std::stoi(args.at(0));
}

OVTEST_CHILD(sleeper) {
    std::this_thread::sleep_for(std::chrono::seconds(30));
    return 0;
}

OVTEST_CHILD(show_env) {
    kerneltest::BinaryOutput();
    const char* v = std::getenv(args.at(0).c_str());
    std::printf("%s=%s\n", args.at(0).c_str(), v != nullptr ? v : "(unset)");
    return 0;
}

OVTEST_CHILD(show_args) {
    kerneltest::BinaryOutput();
    for (const auto& a : args) {
        std::printf("[%s]", a.c_str());
    }
    std::printf("\n");
    return 0;
}

OVTEST_CHILD(show_cwd) {
    kerneltest::BinaryOutput();
    std::printf("%s\n", std::filesystem::current_path().string().c_str());
    return 0;
}

std::u16string SelfCommand(const std::string& child, const std::string& rest = {}) {
    return U16("\"" + SelfPath() + "\" --child=" + child + (rest.empty() ? "" : " " + rest));
}

// Everything a child writes into one pipe, read until the child closed it.
struct Captured {
    std::string text;
    DWORD exitCode = kPoison;
};

Captured RunCaptured(const std::u16string& commandLine,
                     const std::vector<std::u16string>* environment = nullptr,
                     std::u16string_view directory = {}, HANDLE token = nullptr,
                     std::u16string_view application = {}) {
    Captured result;
    UniquePipe readEnd;
    UniquePipe writeEnd;
    SecurityAttributes inherit;
    inherit.inheritHandle = true;
    EXPECT_TRUE(CreatePipe(&readEnd, &writeEnd, &inherit, 0));
    STARTUPINFOW si;
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdOutput = writeEnd.get();
    si.hStdError = writeEnd.get();
    PROCESS_INFORMATION pi;
    const bool started =
        token != nullptr
            ? CreateProcessAsUserW(token, application, commandLine, nullptr, nullptr, true,
                                   CREATE_NO_WINDOW, environment, directory, si, &pi)
            : CreateProcessW(application, commandLine, nullptr, nullptr, true, CREATE_NO_WINDOW,
                             environment, directory, si, &pi);
    if (!started) {
        ADD_FAILURE() << "CreateProcessW failed: " << GetLastError();
        return result;
    }
    writeEnd.reset();  // the child holds the only write end now
    char buffer[4096];
    DWORD n = 0;
    while (ReadFile(readEnd.get(), buffer, sizeof buffer, &n) && n > 0) {
        result.text.append(buffer, n);
    }
    EXPECT_EQ(GetLastError(), ERROR_BROKEN_PIPE);
    EXPECT_EQ(WaitForSingleObject(pi.hProcess.get(), 20000), WAIT_OBJECT_0);
    EXPECT_TRUE(GetExitCodeProcess(pi.hProcess.get(), &result.exitCode));
    return result;
}

TEST(CommandLine, SplitsAsWindowsProgramsDo) {
    struct Case {
        std::u16string_view line;
        std::vector<std::u16string> words;
    };
    const Case cases[] = {
        {u"Ovaspool -q -d", {u"Ovaspool", u"-q", u"-d"}},
        {u"  Ovaspool   -q\t-d  ", {u"Ovaspool", u"-q", u"-d"}},
        {u"\"C:\\Program Files\\x.exe\" a", {u"C:\\Program Files\\x.exe", u"a"}},
        {u"p \"a b\" c", {u"p", u"a b", u"c"}},
        {u"p a\\\\b", {u"p", u"a\\\\b"}},        // backslashes without a quote stay
        {u"p a\\\"b", {u"p", u"a\"b"}},          // \" is a quote
        {u"p a\\\\\"b c\"", {u"p", u"a\\b c"}},  // \\" is a backslash and a quote mark
        {u"p \"a\"\"b\"", {u"p", u"a\"b"}},      // "" inside quotes is a quote
        {u"p \"\"", {u"p", u""}},                // an empty argument
        {u"p \"unterminated arg", {u"p", u"unterminated arg"}},
        {u"C:\\dir\\prog\\ x", {u"C:\\dir\\prog\\", u"x"}},  // no escapes in the program name
        {u"p a\"b", {u"p", u"ab"}},                          // a quote only switches quoting
        {u"pro\"g x", {u"pro\"g", u"x"}},                    // kept in an unquoted program name
        {std::u16string_view(u"p a\0b", 5), {u"p", u"a"}},   // ends at a NUL
        {u"", {}},
        {u"   ", {}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(CommandLineToArgv(c.line), c.words) << U8(std::u16string(c.line));
    }
}

class ProgramSearch : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        dir_ = ovtest::MakeTempDir("ovsvc-path-");
        oldPath_ = std::getenv("PATH") != nullptr ? std::getenv("PATH") : "";
        kerneltest::PutEnvironment("PATH", dir_ + kerneltest::kPathListSeparator + oldPath_);
    }
    void TearDown() override {
        kerneltest::PutEnvironment("PATH", oldPath_);
        std::filesystem::remove_all(std::filesystem::path(ovtest::U16(dir_)));
        MachineTest::TearDown();
    }
    std::string Make(const std::string& name, bool executable = true) {
        const std::string path = Join(dir_, name);
        const std::filesystem::path file(ovtest::U16(path));
        std::ofstream(file) << "#!/bin/sh\necho " << name << "\n";
        using std::filesystem::perms;
        std::filesystem::permissions(file, executable ? perms(0755) : perms(0644));
        return path;
    }
    std::string dir_;
    std::string oldPath_;
};

TEST_F(ProgramSearch, NamesMatchInAnyCaseWithExeOptional) {
    const std::string tool = Make("OvTool");
    const std::string exe = Make("other.exe");
    EXPECT_TRUE(SamePath(U8(SearchProgram(u"OvTool")), tool));
    EXPECT_TRUE(SamePath(U8(SearchProgram(u"ovtool")), tool));
    EXPECT_TRUE(SamePath(U8(SearchProgram(u"OVTOOL.EXE")), tool));
    EXPECT_TRUE(SamePath(U8(SearchProgram(u"other")), exe));
    EXPECT_TRUE(SamePath(U8(SearchProgram(u"Other.Exe")), exe));
    SetLastError(kPoison);
    EXPECT_TRUE(SearchProgram(u"ovtoo").empty());
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_TRUE(SearchProgram(u"").empty());
}

TEST_F(ProgramSearch, DirectoriesAreSkipped) {
    std::filesystem::create_directory(std::filesystem::path(ovtest::U16(Join(dir_, "adir"))));
    EXPECT_TRUE(SearchProgram(u"adir").empty());
    std::filesystem::create_directory(std::filesystem::path(ovtest::U16(Join(dir_, "bdir.exe"))));
    EXPECT_TRUE(SearchProgram(u"bdir").empty());
}

TEST_F(ProgramSearch, FilesThatCannotRunAreSkipped) {
    OVTEST_EMBEDDED_ONLY("POSIX execute permission");
    Make("notrunnable", false);
    EXPECT_TRUE(SearchProgram(u"notrunnable").empty());
}

TEST_F(ProgramSearch, TheModulesDirectoryComesBeforePath) {
    // The test program sits beside the module; a program of that name first on PATH loses.
    const std::string self = std::filesystem::path(SelfPath()).filename().string();
    Make(self);
    std::string upper = self;
    for (char& c : upper) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    EXPECT_TRUE(SamePath(U8(SearchProgram(U16(upper + ".exe"))), Join(ovtest::BinDir(), self)));
}

TEST_F(ProgramSearch, PathsAreTakenAsGiven) {
    const std::string tool = Make("Direct");
    EXPECT_TRUE(SamePath(U8(SearchProgram(U16(Join(dir_, "direct.exe")))), tool));
    EXPECT_TRUE(SearchProgram(U16(Join(dir_, "missing"))).empty());
}

class ProcessStart : public ovtest::MachineTest {};

TEST_F(ProcessStart, ExitCodeIsStillActiveUntilTheProcessEnds) {
    STARTUPINFOW si;
    PROCESS_INFORMATION pi;
    ASSERT_TRUE(CreateProcessW({}, SelfCommand("sleeper"), nullptr, nullptr, false, 0, nullptr, {},
                               si, &pi));
    EXPECT_NE(pi.dwProcessId, 0u);
    EXPECT_EQ(GetProcessId(pi.hProcess.get()), pi.dwProcessId);
    DWORD code = kPoison;
    ASSERT_TRUE(GetExitCodeProcess(pi.hProcess.get(), &code));
    EXPECT_EQ(code, STILL_ACTIVE);
    EXPECT_EQ(WaitForSingleObject(pi.hProcess.get(), 50), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(pi.hThread.get(), 0), WAIT_TIMEOUT);
    ASSERT_TRUE(TerminateProcess(pi.hProcess.get(), 77));
    EXPECT_EQ(WaitForSingleObject(pi.hProcess.get(), 5000), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(pi.hThread.get(), 0), WAIT_OBJECT_0);
    ASSERT_TRUE(GetExitCodeProcess(pi.hProcess.get(), &code));
    EXPECT_EQ(code, 77u);
    // Ended processes cannot be terminated again.
    OVTEST_EXPECT_FAIL(TerminateProcess(pi.hProcess.get(), 1), ERROR_ACCESS_DENIED);
}

TEST_F(ProcessStart, ExitCodesComeThroughWithAndWithoutTimeout) {
    for (int want : {0, 1, 42, 255}) {
        STARTUPINFOW si;
        PROCESS_INFORMATION pi;
        ASSERT_TRUE(CreateProcessW({}, SelfCommand("exit_with", std::to_string(want)), nullptr,
                                   nullptr, false, 0, nullptr, {}, si, &pi));
        EXPECT_EQ(WaitForSingleObject(pi.hProcess.get(), want % 2 ? INFINITE : 20000),
                  WAIT_OBJECT_0);
        DWORD code = kPoison;
        ASSERT_TRUE(GetExitCodeProcess(pi.hProcess.get(), &code));
        EXPECT_EQ(code, static_cast<DWORD>(want));
    }
}

TEST_F(ProcessStart, ManyKilobytesOfOutputAreDrainedWithoutBlocking) {
    // Far more than a pipe buffer holds, on standard output and error at once.
    const std::size_t count = 1 << 20;
    const auto start = std::chrono::steady_clock::now();
    Captured c = RunCaptured(SelfCommand("chatty", std::to_string(count)));
    EXPECT_EQ(c.exitCode, 0u);
    ASSERT_EQ(c.text.size(), 2 * count);
    EXPECT_EQ(std::count(c.text.begin(), c.text.end(), 'o'), static_cast<long>(count));
    EXPECT_EQ(std::count(c.text.begin(), c.text.end(), 'e'), static_cast<long>(count));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
}

TEST_F(ProcessStart, ArgumentsReachTheChildAsSplit) {
    Captured c = RunCaptured(SelfCommand("show_args", "one \"two words\" th\\\"ree"));
    EXPECT_EQ(c.text, "[one][two words][th\"ree]\n");
    // A program named apart from the command line replaces its first word.
    c = RunCaptured(u"whatever --child=show_args x", nullptr, {}, nullptr, U16(SelfPath()));
    EXPECT_EQ(c.text, "[x]\n");
}

TEST_F(ProcessStart, EnvironmentIsTheCallersUnlessGiven) {
    kerneltest::EnvironmentScope mark("OVSVC_TEST_MARK", "inherited");
    EXPECT_EQ(RunCaptured(SelfCommand("show_env", "OVSVC_TEST_MARK")).text,
              "OVSVC_TEST_MARK=inherited\n");
    const std::vector<std::u16string> env{u"OVSVC_TEST_MARK=given", U16("OVSVC_ROOT=" + root())};
    EXPECT_EQ(RunCaptured(SelfCommand("show_env", "OVSVC_TEST_MARK"), &env).text,
              "OVSVC_TEST_MARK=given\n");
    EXPECT_EQ(RunCaptured(SelfCommand("show_env", "HOME"), &env).text, "HOME=(unset)\n");
}

TEST_F(ProcessStart, CurrentDirectoryIsApplied) {
    const std::string dir = ovtest::MakeTempDir("ovsvc-cwd-");
    Captured c = RunCaptured(SelfCommand("show_cwd"), nullptr, U16(dir));
    ASSERT_TRUE(c.text.ends_with("\n")) << c.text;
    const std::filesystem::path reported(U16(c.text.substr(0, c.text.size() - 1)));
    std::error_code ec;
    EXPECT_TRUE(std::filesystem::equivalent(reported, std::filesystem::path(U16(dir)), ec))
        << c.text;
    EXPECT_FALSE(ec) << ec.message();
    std::filesystem::remove_all(std::filesystem::path(U16(dir)));
}

TEST_F(ProcessStart, StandardHandlesNeedInheritance) {
    UniquePipe readEnd;
    UniquePipe writeEnd;
    ASSERT_TRUE(CreatePipe(&readEnd, &writeEnd, nullptr, 0));
    STARTUPINFOW si;
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdOutput = writeEnd.get();
    PROCESS_INFORMATION pi;
    ASSERT_TRUE(CreateProcessW({}, SelfCommand("show_args", "lost"), nullptr, nullptr, false, 0,
                               nullptr, {}, si, &pi));
    EXPECT_EQ(WaitForSingleObject(pi.hProcess.get(), 20000), WAIT_OBJECT_0);
    DWORD available = kPoison;
    ASSERT_TRUE(PeekNamedPipe(readEnd.get(), &available));
    EXPECT_EQ(available, 0u);
}

TEST_F(ProcessStart, FailuresHaveWindowsErrors) {
    STARTUPINFOW si;
    PROCESS_INFORMATION pi;
    OVTEST_EXPECT_FAIL(CreateProcessW({}, u"no-such-program-anywhere -x", nullptr, nullptr, false,
                                      0, nullptr, {}, si, &pi),
                       ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(pi.hProcess);
    OVTEST_EXPECT_FAIL(CreateProcessW({}, u"   ", nullptr, nullptr, false, 0, nullptr, {}, si, &pi),
                       ERROR_INVALID_PARAMETER);
    OVTEST_EXPECT_FAIL(CreateProcessW({}, {}, nullptr, nullptr, false, 0, nullptr, {}, si, &pi),
                       ERROR_INVALID_PARAMETER);

    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdOutput = reinterpret_cast<HANDLE>(std::uintptr_t{0x7ff0});
    OVTEST_EXPECT_FAIL(CreateProcessW({}, SelfCommand("exit_with", "0"), nullptr, nullptr, true, 0,
                                      nullptr, {}, si, &pi),
                       ERROR_INVALID_HANDLE);

    DWORD code = 0;
    OVTEST_EXPECT_FAIL(GetExitCodeProcess(reinterpret_cast<HANDLE>(std::uintptr_t{0x7ff0}), &code),
                       ERROR_INVALID_HANDLE);
}

// Reports the account and session the child runs as.
OVTEST_CHILD(whoami) {
    kerneltest::BinaryOutput();
    std::u16string user;
    if (!GetUserNameW(&user)) {
        return 2;
    }
    std::printf("%s in %u\n", U8(user).c_str(), GetCurrentSessionId());
    return 0;
}

TEST_F(ProcessStart, AChildRunsAsItsAccountInItsSession) {
    OVTEST_EMBEDDED_ONLY(
        "the session table, accounts of the emulated machine and the account a process names in "
        "its environment");
    terminal::Session s;
    s.id = 3;
    s.domainName = u"CORP";
    s.userName = u"alice";
    ASSERT_EQ(terminal::Logon(s), ERROR_SUCCESS);
    auto env = [this](std::vector<std::u16string> extra) {
        extra.push_back(U16("OVSVC_ROOT=" + root()));
        extra.push_back(U16("PATH=" + std::string(std::getenv("PATH"))));
        return extra;
    };
    // The session's user, unless the process names its own account.
    const auto inSession = env({u"OVSVC_SESSION_ID=3"});
    EXPECT_EQ(RunCaptured(SelfCommand("whoami"), &inSession).text, "alice in 3\n");
    const auto named = env({u"OVSVC_SESSION_ID=3", u"OVSVC_USER=CORP\\bob"});
    EXPECT_EQ(RunCaptured(SelfCommand("whoami"), &named).text, "bob in 3\n");
    const auto console = env({u"OVSVC_SESSION_ID=0"});
    EXPECT_EQ(RunCaptured(SelfCommand("whoami"), &console).text, "SYSTEM in 0\n");
    // Started with a token: the caller runs in session 0 as the system; the child does not.
    ASSERT_TRUE(admin::AddAccount(u"CORP\\alice", SidTypeUser, {}, nullptr)) << GetLastError();
    UniqueToken token;
    ASSERT_TRUE(admin::CreateTokenForAccount(u"CORP\\alice", 3, &token)) << GetLastError();
    EXPECT_EQ(RunCaptured(SelfCommand("whoami"), nullptr, {}, token.get()).text, "alice in 3\n");
}

TEST_F(ProcessStart, AProcessStartedWithTheCallersTokenRunsAsTheCaller) {
    UniqueToken token;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(),
                                 TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_ASSIGN_PRIMARY, &token))
        << GetLastError();
    std::u16string user;
    ASSERT_TRUE(GetUserNameW(&user));
    EXPECT_FALSE(user.empty());
    const std::string expected = U8(user) + " in " + std::to_string(GetCurrentSessionId()) + "\n";
    EXPECT_EQ(RunCaptured(SelfCommand("whoami"), nullptr, {}, token.get()).text, expected);
}

TEST_F(ProcessStart, OnlyTokensNameAUserToStartAs) {
    STARTUPINFOW si;
    PROCESS_INFORMATION pi;
    UniquePipe r;
    UniquePipe w;
    ASSERT_TRUE(CreatePipe(&r, &w, nullptr, 0));
    for (HANDLE notToken : {static_cast<HANDLE>(nullptr), r.get()}) {
        OVTEST_EXPECT_FAIL(CreateProcessAsUserW(notToken, {}, SelfCommand("whoami"), nullptr,
                                                nullptr, false, 0, nullptr, {}, si, &pi),
                           ERROR_INVALID_HANDLE);
    }
}

class Pipes : public ovtest::MachineTest {};

TEST_F(Pipes, CarryBytesAndReportTheWritersEnd) {
    UniquePipe r;
    UniquePipe w;
    ASSERT_TRUE(CreatePipe(&r, &w, nullptr, 0));
    DWORD n = 0;
    ASSERT_TRUE(WriteFile(w.get(), "hello", 5, &n));
    EXPECT_EQ(n, 5u);
    DWORD available = 0;
    ASSERT_TRUE(PeekNamedPipe(r.get(), &available));
    EXPECT_EQ(available, 5u);
    char buffer[16] = {};
    ASSERT_TRUE(ReadFile(r.get(), buffer, 3, &n));
    EXPECT_EQ(std::string(buffer, n), "hel");
    w.reset();
    // What was written stays readable after the writer went away.
    ASSERT_TRUE(PeekNamedPipe(r.get(), &available));
    EXPECT_EQ(available, 2u);
    ASSERT_TRUE(ReadFile(r.get(), buffer, sizeof buffer, &n));
    EXPECT_EQ(std::string(buffer, n), "lo");
    SetLastError(kPoison);
    available = kPoison;
    EXPECT_FALSE(PeekNamedPipe(r.get(), &available));
    EXPECT_EQ(GetLastError(), ERROR_BROKEN_PIPE);
    OVTEST_EXPECT_FAIL(ReadFile(r.get(), buffer, sizeof buffer, &n), ERROR_BROKEN_PIPE);
    EXPECT_EQ(n, 0u);
}

TEST_F(Pipes, WritingWithoutReaderFailsInsteadOfKilling) {
    UniquePipe r;
    UniquePipe w;
    ASSERT_TRUE(CreatePipe(&r, &w, nullptr, 0));
    r.reset();
    DWORD n = kPoison;
    OVTEST_EXPECT_FAIL(WriteFile(w.get(), "x", 1, &n), 232u);  // ERROR_NO_DATA
    EXPECT_EQ(n, 0u);
}

TEST_F(Pipes, EndsOnlyWorkOneWay) {
    UniquePipe r;
    UniquePipe w;
    ASSERT_TRUE(CreatePipe(&r, &w, nullptr, 0));
    DWORD n = 0;
    char c = 0;
    OVTEST_EXPECT_FAIL(WriteFile(r.get(), "x", 1, &n), ERROR_ACCESS_DENIED);
    OVTEST_EXPECT_FAIL(ReadFile(w.get(), &c, 1, &n), ERROR_ACCESS_DENIED);
    OVTEST_EXPECT_FAIL(PeekNamedPipe(w.get(), &n), ERROR_ACCESS_DENIED);
}

}  // namespace
