// The channel's timeouts, read from the product key.
#pragma once

#include <cstdint>
#include <string_view>

namespace ovsvc {

inline constexpr std::uint32_t kTimeOutServiceId = 301;
inline constexpr std::uint32_t kTimeOutClientId = 302;
inline constexpr std::uint32_t kDefaultTimeOutService = 5000;
inline constexpr std::uint32_t kDefaultTimeOutClient = 120000;

// Reads a REG_DWORD of the product key into *value; leaves the default when
// the key or value is missing, empty or not a REG_DWORD. True when the
// registry value was taken.
bool ReadTimeOutValue(std::u16string_view valueName, std::uint32_t defaultValue,
                      std::uint32_t* value);

// Milliseconds for id 301 (TimeOutService) or 302 (TimeOutClient); 0 for
// any other id.
std::uint32_t QueryTimeOutValue(std::uint32_t id);

}  // namespace ovsvc
