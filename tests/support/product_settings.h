// The product key's values as tests set them, and the trace file they read.
#pragma once

#include <cstdint>
#include <string>

#include "platform/error.h"

namespace ovtest {

inline constexpr char16_t kProductKeyPath[] = u"Software\\Orvelle\\Ovaspool";

// The last-error value tests set before a call, to see whether it changed.
inline constexpr platform::DWORD kPoison = 0xDEADBEEF;
void Poison();

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
