#include "product_settings.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "ovtest.h"
#include "platform/registry.h"

namespace ovtest {

void Poison() {
    platform::SetLastError(kPoison);
}

void ResetProductKey() {
    const platform::LSTATUS status =
        platform::RegDeleteTreeW(platform::HKEY_LOCAL_MACHINE, kProductKeyPath);
    EXPECT_TRUE(status == platform::ERROR_SUCCESS || status == platform::ERROR_FILE_NOT_FOUND)
        << "deleting the product key: " << status;
}

void SetProductValue(const std::u16string& name, platform::DWORD type, const void* data,
                     platform::DWORD size) {
    platform::UniqueKey key;
    ASSERT_EQ(platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, kProductKeyPath, 0,
                                        platform::KEY_ALL_ACCESS, &key, nullptr),
              platform::ERROR_SUCCESS);
    ASSERT_EQ(platform::RegSetValueExW(key.get(), name, type, data, size), platform::ERROR_SUCCESS)
        << U8(name);
}

void SetProductDword(const std::u16string& name, std::uint32_t value) {
    SetProductValue(name, platform::REG_DWORD, &value, sizeof(value));
}

void SetProductString(const std::u16string& name, const std::u16string& value,
                      platform::DWORD type) {
    SetProductValue(name, type, value.c_str(),
                    static_cast<platform::DWORD>((value.size() + 1) * sizeof(char16_t)));
}

std::string EnableTrace(const std::string& dir, std::uint32_t level) {
    const std::string path = dir + "/trace.log";
    SetProductDword(u"DebugLevel", level);
    SetProductString(u"DebugFile", U16(path));
    return path;
}

std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace ovtest
