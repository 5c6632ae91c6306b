// CloseHandle on every platform: what is open closes once, quietly; anything
// else fails with ERROR_INVALID_HANDLE.
#include <gtest/gtest.h>

#include <cstdint>

#include "ovtest.h"
#include "platform/handle.h"
#include "platform/kernel.h"
#include "platform/process.h"
#include "product_settings.h"

namespace {

using namespace platform;

using ovtest::kPoison;

TEST(KernelClose, ValuesThatAreNeverOpenFailWithInvalidHandle) {
    for (HANDLE bad : {static_cast<HANDLE>(nullptr), INVALID_HANDLE_VALUE,
                       reinterpret_cast<HANDLE>(std::uintptr_t{3}),
                       reinterpret_cast<HANDLE>(std::uintptr_t{0x7FFFFFFC})}) {
        OVTEST_EXPECT_FAIL(CloseHandle(bad), ERROR_INVALID_HANDLE);
    }
}

TEST(KernelClose, EachKindClosesOnceAndLeavesTheLastErrorAlone) {
    UniqueEvent event = CreateEventW(nullptr, true, false, u"");
    UniqueMapping mapping = CreateFileMappingW(nullptr, PAGE_READWRITE, 4096, u"");
    UniquePipe readEnd;
    UniquePipe writeEnd;
    ASSERT_TRUE(CreatePipe(&readEnd, &writeEnd, nullptr, 0));
    ASSERT_TRUE(event);
    ASSERT_TRUE(mapping);
    for (HANDLE h : {event.release(), mapping.release(), readEnd.release(), writeEnd.release()}) {
        OVTEST_EXPECT_QUIET(CloseHandle(h));
        OVTEST_EXPECT_FAIL(CloseHandle(h), ERROR_INVALID_HANDLE);
    }
}

TEST(KernelClose, ResetOfAnOwnerKeepsTheLastError) {
    UniqueEvent event = CreateEventW(nullptr, false, false, u"");
    ASSERT_TRUE(event);
    SetLastError(kPoison);
    event.reset();
    EXPECT_FALSE(event);
    EXPECT_EQ(GetLastError(), kPoison);
}

}  // namespace
