// The product key's values as tests set them, and the trace file they read.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "platform/error.h"

namespace ovtest {

inline constexpr char16_t kProductKeyPath[] = u"Software\\Orvelle\\Ovaspool";

// The last-error value tests set before a call, to see whether it changed.
inline constexpr platform::DWORD kPoison = 0xDEADBEEF;
void Poison();

// For OVTEST_EXPECT_FAIL: whether a call (made after Poison()) failed and
// left `expected` as the last error.
inline ::testing::AssertionResult FailedWith(const char* call, const char* /*expectedText*/,
                                             bool succeeded, platform::DWORD expected) {
    const platform::DWORD actual = platform::GetLastError();
    if (succeeded) {
        return ::testing::AssertionFailure() << call << " succeeded";
    }
    if (actual != expected) {
        return ::testing::AssertionFailure()
               << call << " failed with error " << actual << ", expected " << expected;
    }
    return ::testing::AssertionSuccess();
}

// For OVTEST_EXPECT_STATUS: whether a call returned `expected` and left it
// as the last error too.
inline ::testing::AssertionResult ReturnedWith(const char* call, const char* /*expectedText*/,
                                               platform::DWORD returned, platform::DWORD expected) {
    const platform::DWORD actual = platform::GetLastError();
    if (returned != expected || actual != expected) {
        return ::testing::AssertionFailure()
               << call << " returned " << returned << " with last error " << actual << ", expected "
               << expected;
    }
    return ::testing::AssertionSuccess();
}

// For OVTEST_EXPECT_OK: whether a call succeeded and set the last error to
// ERROR_SUCCESS.
inline ::testing::AssertionResult SucceededCleanly(const char* call, bool succeeded) {
    const platform::DWORD actual = platform::GetLastError();
    if (!succeeded || actual != 0) {
        return ::testing::AssertionFailure()
               << call << (succeeded ? " succeeded" : " failed") << " with last error " << actual;
    }
    return ::testing::AssertionSuccess();
}

// For OVTEST_EXPECT_QUIET: whether a call succeeded and left the poisoned
// last error alone.
inline ::testing::AssertionResult SucceededQuietly(const char* call, bool succeeded) {
    const platform::DWORD actual = platform::GetLastError();
    if (!succeeded || actual != kPoison) {
        return ::testing::AssertionFailure()
               << call << (succeeded ? " succeeded" : " failed") << " with last error " << actual;
    }
    return ::testing::AssertionSuccess();
}

}  // namespace ovtest

// Expects `call` to fail (be false, empty or null) with `error` as the last
// error, which is poisoned first so a call that sets none is caught.
//   OVTEST_EXPECT_FAIL(OpenEventW(SYNCHRONIZE, false, name), ERROR_FILE_NOT_FOUND);
#define OVTEST_EXPECT_FAIL(call, error)                                                      \
    EXPECT_PRED_FORMAT2(::ovtest::FailedWith, (::ovtest::Poison(), static_cast<bool>(call)), \
                        static_cast<::platform::DWORD>(error))
// Expects a call that returns its status to return `error` and leave it as
// the last error.
#define OVTEST_EXPECT_STATUS(call, error)                                           \
    EXPECT_PRED_FORMAT2(::ovtest::ReturnedWith,                                     \
                        (::ovtest::Poison(), static_cast<::platform::DWORD>(call)), \
                        static_cast<::platform::DWORD>(error))
// Expects `call` to succeed (be true, non-empty or non-null) and set the last
// error to ERROR_SUCCESS.
#define OVTEST_EXPECT_OK(call) \
    EXPECT_PRED_FORMAT1(::ovtest::SucceededCleanly, (::ovtest::Poison(), static_cast<bool>(call)))
// Expects `call` to succeed and leave the last error as it was.
#define OVTEST_EXPECT_QUIET(call) \
    EXPECT_PRED_FORMAT1(::ovtest::SucceededQuietly, (::ovtest::Poison(), static_cast<bool>(call)))
// The same, ending the test on failure.
#define OVTEST_ASSERT_OK(call) \
    ASSERT_PRED_FORMAT1(::ovtest::SucceededCleanly, (::ovtest::Poison(), static_cast<bool>(call)))
#define OVTEST_ASSERT_QUIET(call) \
    ASSERT_PRED_FORMAT1(::ovtest::SucceededQuietly, (::ovtest::Poison(), static_cast<bool>(call)))
#define OVTEST_ASSERT_STATUS(call, error)                                           \
    ASSERT_PRED_FORMAT2(::ovtest::ReturnedWith,                                     \
                        (::ovtest::Poison(), static_cast<::platform::DWORD>(call)), \
                        static_cast<::platform::DWORD>(error))

namespace ovtest {

// Removes the product key, so that settings an earlier test left on a shared
// (Windows) registry cannot reach this one.
void ResetProductKey();
// Sets one value under the product key (created when missing); the test fails
// when the registry refuses.
void SetProductValue(const std::u16string& name, platform::DWORD type, const void* data,
                     platform::DWORD size);
void SetProductDword(const std::u16string& name, std::uint32_t value);
// REG_SZ by default; REG_EXPAND_SZ and REG_MULTI_SZ (text with embedded
// zeros) as given.
void SetProductString(const std::u16string& name, const std::u16string& value,
                      platform::DWORD type = 1 /* REG_SZ */);
// Traces at `level` into <dir>/trace.log and returns that path.
std::string EnableTrace(const std::string& dir, std::uint32_t level = 0xFF);
// A whole file as bytes (empty when missing).
std::string ReadText(const std::string& path);

}  // namespace ovtest
