// Shared helpers of the registry contract tests.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "ovtest.h"
#include "platform/registry.h"

namespace regtest {

inline constexpr platform::DWORD kPoison = 0xDEADBEEF;

inline std::vector<std::byte> Bytes(std::initializer_list<int> values) {
    std::vector<std::byte> out;
    for (int v : values) {
        out.push_back(static_cast<std::byte>(v));
    }
    return out;
}

inline std::vector<std::byte> Utf16Bytes(std::u16string_view text) {
    std::vector<std::byte> out(text.size() * 2);
    std::memcpy(out.data(), text.data(), out.size());
    return out;
}

// Each test works below its own key, opened with full access.
class RegistryTest : public ovtest::MachineTest {
  protected:
    static constexpr char16_t kBase[] = u"Software\\OvTest";

    void SetUp() override {
        MachineTest::SetUp();
        ASSERT_EQ(platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, kBase, 0,
                                            platform::KEY_ALL_ACCESS, &base_, nullptr),
                  0);
    }
    void TearDown() override {
        base_.reset();
        MachineTest::TearDown();
    }

    platform::LSTATUS Set(std::u16string_view name, platform::DWORD type,
                          const std::vector<std::byte>& data) {
        return platform::RegSetValueExW(base_.get(), name, type, data.data(),
                                        static_cast<platform::DWORD>(data.size()));
    }
    platform::LSTATUS SetDword(std::u16string_view name, platform::DWORD value) {
        return platform::RegSetValueExW(base_.get(), name, platform::REG_DWORD, &value,
                                        sizeof value);
    }
    platform::UniqueKey Create(std::u16string_view path,
                               platform::REGSAM access = platform::KEY_ALL_ACCESS) {
        platform::UniqueKey key;
        EXPECT_EQ(platform::RegCreateKeyExW(base_.get(), path, 0, access, &key, nullptr), 0)
            << ovtest::U8(std::u16string(path));
        return key;
    }

    platform::UniqueKey base_;
};

}  // namespace regtest
