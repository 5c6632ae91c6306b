// Shared helpers of the registry contract tests.
//
// Every test works below a key of its own, "Software\OvTest-<unique>" under
// HKEY_LOCAL_MACHINE, and removes it afterwards: on Windows the registry is
// the real machine's, shared by every test program running at the time.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "ovtest.h"
#include "platform/registry.h"
#include "product_settings.h"

namespace regtest {

using ::ovtest::kPoison;

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

inline std::u16string AsciiUpper(std::u16string text) {
    for (auto& c : text) {
        if (c >= u'a' && c <= u'z') {
            c = static_cast<char16_t>(c - u'a' + u'A');
        }
    }
    return text;
}

inline std::u16string AsciiLower(std::u16string text) {
    for (auto& c : text) {
        if (c >= u'A' && c <= u'Z') {
            c = static_cast<char16_t>(c - u'A' + u'a');
        }
    }
    return text;
}

// Replaces every `from` in `text` by `to`.
inline std::u16string Substitute(std::u16string text, std::u16string_view from,
                                 std::u16string_view to) {
    for (auto at = text.find(from); at != std::u16string::npos;
         at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

// A key below HKEY_LOCAL_MACHINE unique to the caller, and the removal of it.
inline std::u16string UniqueSoftwareKey() {
    return u"Software\\" + ovtest::U16(ovtest::UniqueName("OvTest"));
}

// Removes a key and its subtree if it exists.
inline void RemoveKey(platform::HKEY root, const std::u16string& path) {
    const platform::LSTATUS status = platform::RegDeleteTreeW(root, path);
    EXPECT_TRUE(status == 0 || status == 2) << "removing " << ovtest::U8(path) << ": " << status;
}

// Each test works below its own key, opened with full access.
class RegistryTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        basePath_ = UniqueSoftwareKey();
        ASSERT_EQ(platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, basePath_, 0,
                                            platform::KEY_ALL_ACCESS, &base_, nullptr),
                  0);
    }
    void TearDown() override {
        base_.reset();
        if (!basePath_.empty()) {
            RemoveKey(platform::HKEY_LOCAL_MACHINE, basePath_);
        }
        for (const auto& key : classesKeys_) {
            RemoveKey(platform::HKEY_CLASSES_ROOT, key);
        }
        MachineTest::TearDown();
    }

    // The test's key, below HKEY_LOCAL_MACHINE ("Software\OvTest-...").
    const std::u16string& base() const { return basePath_; }
    // Its last part ("OvTest-...").
    std::u16string baseName() const { return basePath_.substr(basePath_.find(u'\\') + 1); }
    // A key path below HKEY_CLASSES_ROOT for this test (`stem` and a unique
    // part), removed when the test ends.
    std::u16string ClassesKey(const std::u16string& prefix, const std::string& stem) {
        const std::u16string name = ovtest::U16(ovtest::UniqueName(stem));
        classesKeys_.push_back(prefix + name);
        return prefix + name;
    }
    // A .reg text with "$BASE" standing for base().
    std::u16string WithBase(std::u16string_view text) const {
        return Substitute(std::u16string(text), u"$BASE", basePath_);
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

  private:
    std::u16string basePath_;
    std::vector<std::u16string> classesKeys_;
};

}  // namespace regtest
