// Test support: a fresh machine root per test, and child processes.
//
// Multi-process tests start the test program itself again as a named child
// ("--child=<name> args..."); a child reports failure through its exit code.
// Every wait on a child has a timeout, and a child still running at expiry is
// killed.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

namespace ovtest {

using ChildMain = int (*)(const std::vector<std::string>& args);

struct ChildRegistrar {
    ChildRegistrar(const char* name, ChildMain main);
};

// Defines a child entry point: OVTEST_CHILD(waiter) { ...; return 0; }
#define OVTEST_CHILD(name)                                                                  \
    static int name##_child_main(const std::vector<std::string>& args);                     \
    static const ::ovtest::ChildRegistrar name##_child_registrar(#name, name##_child_main); \
    static int name##_child_main([[maybe_unused]] const std::vector<std::string>& args)

// Runs a registered child when argv asks for one; returns -1 otherwise.
int RunChildIfRequested(int argc, char** argv);

// A process started by a test. Killed (and reaped) when destroyed if still running.
class Process {
  public:
    Process() = default;
    Process(Process&& other) noexcept;
    Process& operator=(Process&& other) noexcept;
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process();

    // Starts a program with arguments; extra environment "NAME=value" entries
    // are added to the test's own. Output goes to a file read by output().
    static Process Start(const std::string& program, const std::vector<std::string>& args,
                         const std::vector<std::string>& env = {});
    // Starts this test program as the named child.
    static Process StartChild(const std::string& name, const std::vector<std::string>& args = {},
                              const std::vector<std::string>& env = {});

    // Exit code, 128 + signal for a signalled end, or -1 when the timeout
    // expired (the process is then killed).
    int Wait(std::chrono::milliseconds timeout = std::chrono::seconds(60));
    bool Running();
    // Ends the process at once (SIGKILL; TerminateProcess on Windows).
    void Kill();
    // Asks the process to stop: SIGTERM, or on Windows the stop event a
    // console-mode service host watches ("Local\ovaspoolsvc-stop-<pid>"),
    // falling back to Kill() for a process that has none.
    void Terminate();
    // Holds and releases every thread of the process (SIGSTOP / SIGCONT).
    void Suspend();
    void Resume();
    int pid() const { return pid_; }
    // Everything the process wrote to standard output and standard error.
    std::string output() const;

  private:
    int pid_ = -1;
    int status_ = -1;
    void* handle_ = nullptr;  // the process handle on Windows
    std::string outputPath_;
};

// The platform backend under test, and whether Windows is Wine.
bool IsWin32Platform();
bool UnderWine();
// This process's id.
int CurrentProcessId();
// Sets or removes one of this process's environment variables (seen by the
// C runtime and by the platform alike).
void SetEnv(const std::string& name, const std::string& value);
void UnsetEnv(const std::string& name);

// Skips a test that needs a behaviour Wine does not have, printing why; the
// test still runs on Windows and on the embedded platform.
#define OVTEST_SKIP_UNDER_WINE(reason)                     \
    do {                                                   \
        if (::ovtest::UnderWine()) {                       \
            GTEST_SKIP() << "Wine lacks this: " << reason; \
        }                                                  \
    } while (false)

// Checks that Wine gets wrong, marked one block at a time as Wine's own
// tests do with todo_wine: the block always runs; on the embedded platform
// and on Windows its failures are failures; under Wine they are reported as
// expected ("todo_wine: ..."), and a block that passes there fails the test,
// so a fixed Wine is noticed and the mark removed.
//
//   OVTEST_TODO_WINE("Wine's AddPrinterW accepts an existing name") {
//       EXPECT_FALSE(AddPrinterW(u"", info));
//   }
#define OVTEST_TODO_WINE(reason) \
    for (::ovtest::TodoWine ovtest_todo_((reason), __FILE__, __LINE__); ovtest_todo_.Once();)

class TodoWine {
  public:
    TodoWine(const char* reason, const char* file, int line);
    ~TodoWine();
    TodoWine(const TodoWine&) = delete;
    TodoWine& operator=(const TodoWine&) = delete;
    bool Once() { return !ran_ && (ran_ = true); }

  private:
    struct Interception;
    const char* reason_;
    const char* file_;
    int line_;
    bool ran_ = false;
    Interception* interception_ = nullptr;  // under Wine only
};

// Skips a test of the embedded machine's own features (its switches, its
// account and session tables, its bookkeeping) on the Win32 backend.
#define OVTEST_EMBEDDED_ONLY(reason)                                 \
    do {                                                             \
        if (::ovtest::IsWin32Platform()) {                           \
            GTEST_SKIP() << "embedded platform feature: " << reason; \
        }                                                            \
    } while (false)

// Path of the running test program, and its directory (programs and the
// module sit there).
std::string SelfPath();
std::string BinDir();
// A new empty directory under the system's temporary directory.
std::string MakeTempDir(const std::string& prefix);
// A name no other test process uses at the same time (for object names).
std::string UniqueName(const std::string& base);

// Frees what killed processes of the finished test left outside its
// machine root (the embedded machine's shared memory); nothing on Windows.
void ReleaseHostLeftovers();

// Base fixture: every test runs on its own fresh machine root, removed
// afterwards unless the test failed (its path is printed then). On Windows
// the root is only a directory: the registry, the spooler and the kernel
// namespaces are the real machine's, so tests there use unique names and
// clean up after themselves.
class MachineTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    const std::string& root() const { return root_; }

  private:
    std::string root_;
};

// UTF-8 and UTF-16 for assertions and arguments.
std::u16string U16(const std::string& text);
std::string U8(const std::u16string& text);

}  // namespace ovtest
