#include "config/reg_key_ex.h"

#include "trace/trace.h"

namespace ovsvc {

platform::LSTATUS CRegKeyEx::Open(platform::HKEY parent, std::u16string_view path,
                                  platform::REGSAM access) {
    OVTRACE(INF | NORM, "Entering CRegKeyEx::Open");
    Close();
    return platform::RegOpenKeyExW(parent, path, 0, access, &key_);
}

platform::LSTATUS CRegKeyEx::QueryValue(std::u16string_view name, platform::DWORD* type, void* data,
                                        platform::DWORD* size) {
    OVTRACE(INF | NORM, "Entering CRegKeyEx::QueryValue");
    return platform::RegQueryValueExW(key_.get(), name, type, data, size);
}

platform::LSTATUS CRegKeyEx::SetValue(std::u16string_view name, platform::DWORD type,
                                      const void* data, platform::DWORD size) {
    OVTRACE(INF | NORM, "Entering CRegKeyEx::SetValue");
    return platform::RegSetValueExW(key_.get(), name, type, data, size);
}

platform::LSTATUS CRegKeyEx::DeleteValue(std::u16string_view name) {
    OVTRACE(INF | NORM, "Entering CRegKeyEx::DeleteValue");
    return platform::RegDeleteValueW(key_.get(), name);
}

void CRegKeyEx::Close() {
    if (key_) {
        OVTRACE(INF | NORM, "Entering CRegKeyEx::Close");
        key_.reset();
    }
}

}  // namespace ovsvc
