// Rule lists as registry values: a list of zero-terminated strings.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "platform/registry.h"

namespace ovsvc {

// The strings of a value's data. Text types (REG_SZ, REG_EXPAND_SZ,
// REG_MULTI_SZ) are read as zero-terminated strings up to the first empty
// one; data not ending in a terminator is ended where it stops (an odd last
// byte is dropped). Any other type reads as an empty list.
std::vector<std::u16string> StringListFromData(platform::DWORD type,
                                               std::span<const std::byte> data);

// Reads a list value of an open key. Returns false when the value does not
// exist; a value that exists but cannot be read as text gives an empty list.
bool ReadStringList(platform::HKEY key, std::u16string_view valueName,
                    std::vector<std::u16string>* list);

// Stores a list as REG_MULTI_SZ: each string followed by one zero, and
// nothing after the last one. Returns the registry's status.
platform::LSTATUS WriteStringList(platform::HKEY key, std::u16string_view valueName,
                                  std::span<const std::u16string> list);

}  // namespace ovsvc
