// The registry shared by several processes of one machine: concurrent writers
// lose nothing, readers never see half a value, and a key deleted elsewhere
// is seen as deleted here.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "platform/registry.h"
#include "registry_test_support.h"

using namespace platform;
using regtest::RegistryTest;

namespace {

std::vector<std::byte> Pattern(std::byte fill, std::size_t size) {
    return std::vector<std::byte>(size, fill);
}

}  // namespace

// Below `path`, sets `count` values of its own and one value every writer
// shares.
OVTEST_CHILD(reg_writer) {
    const std::u16string path = ovtest::U16(args.at(0));
    const std::string id = args.at(1);
    const int count = std::stoi(args.at(2));
    UniqueKey key;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_ALL_ACCESS, &key, nullptr) != 0) {
        return 2;
    }
    for (int i = 0; i < count; ++i) {
        const std::u16string name = ovtest::U16("w" + id + "-" + std::to_string(i));
        const DWORD value = static_cast<DWORD>(i);
        if (RegSetValueExW(key.get(), name, REG_DWORD, &value, sizeof value) != 0) {
            return 3;
        }
        if (RegSetValueExW(key.get(), u"Last", REG_DWORD, &value, sizeof value) != 0) {
            return 4;
        }
        UniqueKey sub;
        if (RegCreateKeyExW(key.get(), ovtest::U16("K" + std::to_string(i % 5)), 0, KEY_ALL_ACCESS,
                            &sub, nullptr) != 0) {
            return 5;
        }
    }
    return 0;
}

// Reads a value of key `path` over and over; each read must be one whole
// written pattern.
OVTEST_CHILD(reg_reader) {
    const std::u16string path = ovtest::U16(args.at(0));
    UniqueKey key;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &key) != 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            return 2;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    UniqueKey writable;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_SET_VALUE, &writable) != 0) {
        return 7;
    }
    int reads = 0;
    while (std::chrono::steady_clock::now() < deadline) {
        RegistryValue value;
        if (RegGetValue(key.get(), u"Stop", &value) == 0) {
            return reads > 0 ? 0 : 3;
        }
        if (RegGetValue(key.get(), u"Blob", &value) != 0) {
            continue;
        }
        const std::size_t expected =
            value.data.empty() ? 0 : (value.data[0] == std::byte{1} ? 4096 : 9000);
        if (value.data.size() != expected) {
            return 4;
        }
        for (std::byte b : value.data) {
            if (b != value.data[0]) {
                return 5;
            }
        }
        if (++reads == 1 && RegSetValueExW(writable.get(), u"Ready", REG_BINARY, "r", 1) != 0) {
            return 8;
        }
    }
    return 6;
}

TEST_F(RegistryTest, ReadersNeverSeeHalfAValue) {
    const std::u16string shared = base() + u"\\Shared";
    UniqueKey key;
    ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, shared, 0, KEY_ALL_ACCESS, &key, nullptr),
              ERROR_SUCCESS);
    const auto a = Pattern(std::byte{1}, 4096);
    const auto b = Pattern(std::byte{2}, 9000);
    ASSERT_EQ(RegSetValueExW(key.get(), u"Blob", REG_BINARY, a.data(), 4096), ERROR_SUCCESS);
    auto reader = ovtest::Process::StartChild("reg_reader", {ovtest::U8(shared)});
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (RegQueryValueExW(key.get(), u"Ready", nullptr, nullptr, nullptr) != ERROR_SUCCESS) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << reader.output();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    for (int i = 0; i < 300; ++i) {
        const auto& v = (i % 2 == 0) ? b : a;
        ASSERT_EQ(
            RegSetValueExW(key.get(), u"Blob", REG_BINARY, v.data(), static_cast<DWORD>(v.size())),
            ERROR_SUCCESS);
    }
    ASSERT_EQ(RegSetValueExW(key.get(), u"Stop", REG_BINARY, "x", 1), ERROR_SUCCESS);
    EXPECT_EQ(reader.Wait(std::chrono::seconds(90)), 0) << reader.output();
}

// Replaces key `path` with a new key holding Gen = "2".
OVTEST_CHILD(reg_recreate) {
    const std::u16string path = ovtest::U16(args.at(0));
    if (RegDeleteTreeW(HKEY_LOCAL_MACHINE, path) != 0) {
        return 2;
    }
    UniqueKey key;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_ALL_ACCESS, &key, nullptr) != 0) {
        return 3;
    }
    return RegSetValueExW(key.get(), u"Gen", REG_BINARY, "2", 1) == 0 ? 0 : 4;
}

TEST_F(RegistryTest, AKeyReplacedByAnotherProcessIsSeenHere) {
    UniqueKey first = Create(u"Cycle");
    ASSERT_EQ(RegSetValueExW(first.get(), u"Gen", REG_BINARY, "1", 1), ERROR_SUCCESS);
    const std::u16string cycle = base() + u"\\Cycle";
    UniqueKey opened;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, cycle, 0, KEY_READ, &opened), ERROR_SUCCESS);

    auto child = ovtest::Process::StartChild("reg_recreate", {ovtest::U8(cycle)});
    ASSERT_EQ(child.Wait(std::chrono::seconds(60)), 0) << child.output();

    SetLastError(regtest::kPoison);
    EXPECT_EQ(RegQueryValueExW(opened.get(), u"Gen", nullptr, nullptr, nullptr), ERROR_KEY_DELETED);
    EXPECT_EQ(GetLastError(), ERROR_KEY_DELETED);
    UniqueKey again;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, cycle, 0, KEY_READ, &again), ERROR_SUCCESS);
    RegistryValue value;
    ASSERT_EQ(RegGetValue(again.get(), u"Gen", &value), ERROR_SUCCESS);
    EXPECT_EQ(value.data, regtest::Bytes({'2'})) << "the path was not served from a stale cache";
}

TEST_F(RegistryTest, ThreadsOfOneProcessShareTheConnectionSafely) {
    constexpr int kThreads = 4;
    constexpr int kCount = 200;
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &failures, this] {
            for (int i = 0; i < kCount; ++i) {
                UniqueKey key;
                const std::u16string path = base() + ovtest::U16("\\T" + std::to_string(t));
                if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_ALL_ACCESS, &key, nullptr) !=
                    0) {
                    ++failures;
                    continue;
                }
                const DWORD value = static_cast<DWORD>(i);
                const std::u16string name = ovtest::U16("v" + std::to_string(i));
                DWORD back = 0xFFFFFFFF;
                DWORD size = sizeof back;
                if (RegSetValueExW(key.get(), name, REG_DWORD, &value, sizeof value) != 0 ||
                    RegQueryValueExW(key.get(), name, nullptr, &back, &size) != 0 ||
                    back != value || GetLastError() != ERROR_SUCCESS) {
                    ++failures;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures.load(), 0);
    for (int t = 0; t < kThreads; ++t) {
        UniqueKey key;
        ASSERT_EQ(
            RegOpenKeyExW(base_.get(), ovtest::U16("T" + std::to_string(t)), 0, KEY_READ, &key),
            ERROR_SUCCESS);
        std::vector<RegistryValue> values;
        ASSERT_EQ(RegEnumValues(key.get(), &values), ERROR_SUCCESS);
        EXPECT_EQ(values.size(), static_cast<std::size_t>(kCount));
    }
}

// Makes key `path`\`name`.
OVTEST_CHILD(reg_add_key) {
    UniqueKey key;
    return RegCreateKeyExW(HKEY_LOCAL_MACHINE, ovtest::U16(args.at(0) + "\\" + args.at(1)), 0,
                           KEY_READ, &key, nullptr) == 0
               ? 0
               : 2;
}

TEST_F(RegistryTest, EnumerationSeesKeysAddedByAnotherProcessMidWalk) {
    Create(u"B");
    Create(u"D");
    Create(u"F");
    char16_t name[16];
    DWORD length = 16;
    ASSERT_EQ(RegEnumKeyExW(base_.get(), 0, name, &length), ERROR_SUCCESS);
    EXPECT_EQ(std::u16string(name), u"B");
    auto child = ovtest::Process::StartChild("reg_add_key", {ovtest::U8(base()), "A"});
    ASSERT_EQ(child.Wait(std::chrono::seconds(60)), 0) << child.output();
    length = 16;
    ASSERT_EQ(RegEnumKeyExW(base_.get(), 1, name, &length), ERROR_SUCCESS);
    EXPECT_EQ(std::u16string(name), u"B") << "index 1 of A B D F, not the entry after B";
}

// A fresh machine: the test makes no key before its children start.
class RegistryFreshMachineTest : public ovtest::MachineTest {
  protected:
    void TearDown() override {
        regtest::RemoveKey(HKEY_LOCAL_MACHINE, shared_);
        MachineTest::TearDown();
    }

    const std::u16string shared_ = regtest::UniqueSoftwareKey();
};

// No store exists yet (on the embedded platform): every process races to
// make it, and none may fail; then the writers race on one key.
TEST_F(RegistryFreshMachineTest, ConcurrentWritersFromAFreshStartLoseNothing) {
    constexpr int kWriters = 4;
    constexpr int kCount = 150;
    std::vector<ovtest::Process> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.push_back(ovtest::Process::StartChild(
            "reg_writer", {ovtest::U8(shared_), std::to_string(w), std::to_string(kCount)}));
    }
    for (auto& writer : writers) {
        EXPECT_EQ(writer.Wait(std::chrono::seconds(120)), 0) << writer.output();
    }
    UniqueKey key;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, shared_, 0, KEY_READ, &key), ERROR_SUCCESS);
    for (int w = 0; w < kWriters; ++w) {
        for (int i = 0; i < kCount; ++i) {
            const std::u16string name =
                ovtest::U16("w" + std::to_string(w) + "-" + std::to_string(i));
            DWORD value = 0xFFFFFFFF;
            DWORD size = sizeof value;
            ASSERT_EQ(RegQueryValueExW(key.get(), name, nullptr, &value, &size), ERROR_SUCCESS)
                << ovtest::U8(name);
            EXPECT_EQ(value, static_cast<DWORD>(i));
        }
    }
    std::vector<RegistryValue> values;
    ASSERT_EQ(RegEnumValues(key.get(), &values), ERROR_SUCCESS);
    EXPECT_EQ(values.size(), static_cast<std::size_t>(kWriters * kCount + 1));
    std::vector<std::u16string> subKeys;
    ASSERT_EQ(RegEnumSubKeys(key.get(), &subKeys), ERROR_SUCCESS);
    EXPECT_EQ(subKeys.size(), 5u) << "racing creators made each key once";
}
