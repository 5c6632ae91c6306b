#include "ovtest.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>

#include <gtest/gtest-spi.h>

#include "platform/machine.h"
#include "product_settings.h"
#include "platform/text.h"

namespace ovtest {

namespace {

std::map<std::string, ChildMain>& Children() {
    static std::map<std::string, ChildMain> children;
    return children;
}

}  // namespace

ChildRegistrar::ChildRegistrar(const char* name, ChildMain main) {
    Children()[name] = main;
}

int RunChildIfRequested(int argc, char** argv) {
    if (argc < 2 || std::strncmp(argv[1], "--child=", 8) != 0) {
        return -1;
    }
    const std::string name = argv[1] + 8;
    auto it = Children().find(name);
    if (it == Children().end()) {
        std::fprintf(stderr, "unknown child '%s'\n", name.c_str());
        return 99;
    }
    std::vector<std::string> args(argv + 2, argv + argc);
    return it->second(args);
}

Process Process::StartChild(const std::string& name, const std::vector<std::string>& args,
                            const std::vector<std::string>& env) {
    std::vector<std::string> all{"--child=" + name};
    all.insert(all.end(), args.begin(), args.end());
    return Start(SelfPath(), all, env);
}

std::string BinDir() {
    return std::filesystem::path(SelfPath()).parent_path().string();
}

std::string UniqueName(const std::string& base) {
    static std::atomic<int> counter{0};
    return base + "-" + std::to_string(CurrentProcessId()) + "-" + std::to_string(counter++);
}

void MachineTest::SetUp() {
    root_ = MakeTempDir("ovsvc-test-");
    ASSERT_FALSE(root_.empty());
    platform::machine::UseRoot(root_);
#ifdef _WIN32
    // A fresh embedded root comes with an empty registry; Windows keeps one
    // registry for the whole run, so each test starts without the product
    // key an earlier one may have written.
    ResetProductKey();
#endif
}

void MachineTest::TearDown() {
    if (HasFailure()) {
        std::fprintf(stderr, "machine root kept: %s\n", root_.c_str());
        return;
    }
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
    ReleaseHostLeftovers();
}

std::u16string U16(const std::string& text) {
    return platform::ToUtf16(text);
}

std::string U8(const std::u16string& text) {
    return platform::ToUtf8(text);
}

struct TodoWine::Interception {
    ::testing::TestPartResultArray results;
    std::optional<::testing::ScopedFakeTestPartResultReporter> reporter;
};

TodoWine::TodoWine(const char* reason, const char* file, int line)
    : reason_(reason), file_(file), line_(line) {
    if (UnderWine()) {
        interception_ = new Interception;
        interception_->reporter.emplace(
            ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD,
            &interception_->results);
    }
}

TodoWine::~TodoWine() {
    if (interception_ == nullptr) {
        return;
    }
    interception_->reporter.reset();  // from here on results reach the test again
    const int failures = interception_->results.size();
    delete interception_;
    if (failures == 0) {
        ADD_FAILURE_AT(file_, line_)
            << "todo_wine passed: Wine now does this (" << reason_ << "); remove the mark";
    } else {
        std::printf("%s:%d: todo_wine: %s (%d failing check%s, as expected)\n", file_, line_,
                    reason_, failures, failures == 1 ? "" : "s");
    }
}

}  // namespace ovtest
