// A registry key opened for one operation, with each call traced: the key
// wrapper the management provider's list classes read and write through.
#pragma once

#include <string>
#include <string_view>

#include "platform/registry.h"

namespace ovsvc {

class CRegKeyEx {
  public:
    CRegKeyEx() = default;
    CRegKeyEx(const CRegKeyEx&) = delete;
    CRegKeyEx& operator=(const CRegKeyEx&) = delete;
    ~CRegKeyEx() { Close(); }

    platform::LSTATUS Open(platform::HKEY parent, std::u16string_view path,
                           platform::REGSAM access);
    // RegQueryValueExW's two-call protocol.
    platform::LSTATUS QueryValue(std::u16string_view name, platform::DWORD* type, void* data,
                                 platform::DWORD* size);
    platform::LSTATUS SetValue(std::u16string_view name, platform::DWORD type, const void* data,
                               platform::DWORD size);
    platform::LSTATUS DeleteValue(std::u16string_view name);
    void Close();
    bool IsOpen() const { return static_cast<bool>(key_); }

  private:
    platform::UniqueKey key_;
};

}  // namespace ovsvc
