// The embedded platform's process-wide handle table behind CloseHandle.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "../../src/platform/embedded/handle_table.h"
#include "platform/handle.h"
#include "platform/kernel.h"
#include "product_settings.h"

namespace {

using platform::embedded::HandleKind;
using platform::embedded::HandleObject;
using platform::embedded::HandleTable;

using ovtest::kPoison;

class Probe : public HandleObject {
  public:
    explicit Probe(std::atomic<int>* destroyed)
        : HandleObject(HandleKind::Other), destroyed_(destroyed) {}
    ~Probe() override { destroyed_->fetch_add(1); }

  private:
    std::atomic<int>* destroyed_;
};

TEST(KernelHandleTable, ValuesAreSmallMultiplesOfFourAndNeverTheInvalidOnes) {
    std::atomic<int> destroyed{0};
    auto& table = HandleTable::Instance();
    platform::HANDLE h = table.Insert(std::make_shared<Probe>(&destroyed), 0x1234);
    ASSERT_NE(h, nullptr);
    EXPECT_NE(h, platform::INVALID_HANDLE_VALUE);
    const auto value = reinterpret_cast<std::uintptr_t>(h);
    EXPECT_EQ(value % 4, 0u);
    EXPECT_LT(value, std::uintptr_t{1} << 31);
    auto ref = table.Lookup(h);
    ASSERT_TRUE(ref);
    EXPECT_EQ(ref.access, 0x1234u);
    EXPECT_EQ(ref.object->kind(), HandleKind::Other);
    ref = {};
    EXPECT_TRUE(platform::CloseHandle(h));
    EXPECT_EQ(destroyed.load(), 1);
}

TEST(KernelHandleTable, SecondCloseAndStaleValueAfterReuseFail) {
    std::atomic<int> destroyed{0};
    auto& table = HandleTable::Instance();
    platform::HANDLE first = table.Insert(std::make_shared<Probe>(&destroyed), 0);
    ASSERT_TRUE(platform::CloseHandle(first));
    platform::HANDLE second = table.Insert(std::make_shared<Probe>(&destroyed), 0);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);  // the slot may be the same; the value is not
    EXPECT_FALSE(table.Lookup(first));
    OVTEST_EXPECT_FAIL(platform::CloseHandle(first), platform::ERROR_INVALID_HANDLE);
    EXPECT_TRUE(table.Lookup(second));
    platform::SetLastError(kPoison);
    EXPECT_TRUE(platform::CloseHandle(second));
    EXPECT_EQ(platform::GetLastError(), kPoison);  // success leaves the last error alone
    EXPECT_EQ(destroyed.load(), 2);
}

TEST(KernelHandleTable, LookupByKindRefusesOtherKinds) {
    std::atomic<int> destroyed{0};
    auto& table = HandleTable::Instance();
    platform::UniqueEvent h(table.Insert(std::make_shared<Probe>(&destroyed), 7));
    platform::DWORD access = 0;
    EXPECT_EQ(table.LookupAs<Probe>(h.get(), HandleKind::Event), nullptr);
    EXPECT_NE(table.LookupAs<Probe>(h.get(), HandleKind::Other, &access), nullptr);
    EXPECT_EQ(access, 7u);
}

TEST(KernelHandleTable, ObjectOutlivesItsHandleWhileALookupHoldsIt) {
    std::atomic<int> destroyed{0};
    auto& table = HandleTable::Instance();
    platform::HANDLE h = table.Insert(std::make_shared<Probe>(&destroyed), 0);
    auto ref = table.Lookup(h);
    ASSERT_TRUE(platform::CloseHandle(h));
    EXPECT_EQ(destroyed.load(), 0);
    ref = {};
    EXPECT_EQ(destroyed.load(), 1);
}

TEST(KernelHandleTable, ConcurrentInsertLookupCloseLosesNothing) {
    std::atomic<int> destroyed{0};
    const std::size_t before = HandleTable::Instance().OpenCount();
    constexpr int kThreads = 4;
    constexpr int kRounds = 3000;
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            auto& table = HandleTable::Instance();
            for (int i = 0; i < kRounds; ++i) {
                platform::HANDLE h = table.Insert(std::make_shared<Probe>(&destroyed), 0);
                if (!table.Lookup(h) || !platform::CloseHandle(h) || table.Lookup(h)) {
                    failures.fetch_add(1);
                }
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(destroyed.load(), kThreads * kRounds);
    EXPECT_EQ(HandleTable::Instance().OpenCount(), before);
}

}  // namespace
