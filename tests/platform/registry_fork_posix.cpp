// The registry in a child made by fork() alone (no exec): a POSIX matter of
// the embedded platform's store connection.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "platform/registry.h"
#include "registry_test_support.h"

using namespace platform;
using regtest::RegistryTest;

// A child made by fork() alone (no exec) must not share the parent's
// database connection, yet keeps the keys it inherited.
TEST_F(RegistryTest, AForkedChildWorksOnItsOwnConnection) {
    ASSERT_EQ(SetDword(u"FromParent", 1), ERROR_SUCCESS);
    const pid_t pid = fork();
    if (pid == 0) {
        DWORD value = 0;
        DWORD size = sizeof value;
        int code = 0;
        if (RegQueryValueExW(base_.get(), u"FromParent", nullptr, &value, &size) != 0 ||
            value != 1) {
            code = 2;
        } else if (SetDword(u"FromChild", 7) != 0) {
            code = 3;
        }
        _exit(code);
    }
    ASSERT_GT(pid, 0);
    int status = -1;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            FAIL() << "the forked child did not finish";
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    DWORD value = 0;
    DWORD size = sizeof value;
    ASSERT_EQ(RegQueryValueExW(base_.get(), u"FromChild", nullptr, &value, &size), ERROR_SUCCESS);
    EXPECT_EQ(value, 7u);
    EXPECT_EQ(SetDword(u"ParentStillWrites", 1), ERROR_SUCCESS);
}
