// Keys: open and create, paths, access rights, handles, deletion and
// enumeration of subkeys.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "platform/machine.h"
#include "platform/registry.h"
#include "registry_test_support.h"

using namespace platform;
using regtest::kPoison;
using regtest::RegistryTest;

namespace {

std::vector<std::u16string> SubKeysOf(HKEY key) {
    std::vector<std::u16string> names;
    EXPECT_EQ(RegEnumSubKeys(key, &names), ERROR_SUCCESS);
    return names;
}

}  // namespace

TEST_F(RegistryTest, CreateReportsNewThenExisting) {
    UniqueKey key;
    DWORD disposition = kPoison;
    OVTEST_ASSERT_STATUS(
        RegCreateKeyExW(base_.get(), u"Orvelle\\Ovaspool", 0, KEY_ALL_ACCESS, &key, &disposition),
        ERROR_SUCCESS);
    EXPECT_TRUE(key);
    EXPECT_EQ(disposition, REG_CREATED_NEW_KEY);

    UniqueKey again;
    ASSERT_EQ(RegCreateKeyExW(base_.get(), u"ORVELLE\\ovaspool", 0, KEY_READ, &again, &disposition),
              ERROR_SUCCESS);
    EXPECT_EQ(disposition, REG_OPENED_EXISTING_KEY);

    ASSERT_EQ(RegCreateKeyExW(base_.get(), u"Orvelle\\Other", 0, KEY_READ, &again, &disposition),
              ERROR_SUCCESS);
    EXPECT_EQ(disposition, REG_CREATED_NEW_KEY) << "only the last part was new";
}

TEST_F(RegistryTest, KeysAreCaseInsensitiveAndKeepTheirCase) {
    Create(u"Orvelle\\Ovaspool");
    UniqueKey key;
    OVTEST_ASSERT_STATUS(
        RegOpenKeyExW(HKEY_LOCAL_MACHINE, regtest::AsciiUpper(base()) + u"\\ORVELLE\\OVASPOOL", 0,
                      KEY_READ, &key),
        ERROR_SUCCESS);
    EXPECT_EQ(SubKeysOf(base_.get()), std::vector<std::u16string>{u"Orvelle"});
}

TEST_F(RegistryTest, OpeningAMissingKeyFailsAndEmptiesTheResult) {
    UniqueKey key = Create(u"Present");
    ASSERT_TRUE(key);
    OVTEST_EXPECT_STATUS(RegOpenKeyExW(base_.get(), u"Absent", 0, KEY_READ, &key),
                         ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(key);
    EXPECT_EQ(RegOpenKeyExW(base_.get(), u"Present\\Absent", 0, KEY_READ, &key),
              ERROR_FILE_NOT_FOUND);
}

TEST_F(RegistryTest, EmptySubKeyOpensTheSameKey) {
    ASSERT_EQ(SetDword(u"Here", 5), ERROR_SUCCESS);
    UniqueKey same;
    ASSERT_EQ(RegOpenKeyExW(base_.get(), u"", 0, KEY_READ, &same), ERROR_SUCCESS);
    DWORD value = 0;
    DWORD size = sizeof value;
    EXPECT_EQ(RegQueryValueExW(same.get(), u"Here", nullptr, &value, &size), ERROR_SUCCESS);
    EXPECT_EQ(value, 5u);
}

TEST_F(RegistryTest, PathSeparatorRules) {
    UniqueKey key;
    OVTEST_EXPECT_STATUS(
        RegCreateKeyExW(base_.get(), u"\\Leading", 0, KEY_ALL_ACCESS, &key, nullptr),
        ERROR_BAD_PATHNAME);
    EXPECT_EQ(RegOpenKeyExW(base_.get(), u"\\Leading", 0, KEY_READ, &key), ERROR_BAD_PATHNAME);

    ASSERT_EQ(RegCreateKeyExW(base_.get(), u"Trailing\\\\", 0, KEY_ALL_ACCESS, &key, nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(RegOpenKeyExW(base_.get(), u"Trailing", 0, KEY_READ, &key), ERROR_SUCCESS);
    ASSERT_EQ(RegCreateKeyExW(base_.get(), u"A\\\\B", 0, KEY_ALL_ACCESS, &key, nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(RegOpenKeyExW(base_.get(), u"A\\B", 0, KEY_READ, &key), ERROR_SUCCESS);
    EXPECT_EQ(SubKeysOf(base_.get()), (std::vector<std::u16string>{u"A", u"Trailing"}));
}

TEST_F(RegistryTest, KeyNameLengthLimitIsEnforcedNeverCut) {
    const std::u16string longest(kMaxKeyNameLength, u'k');
    const std::u16string tooLong(kMaxKeyNameLength + 1, u'k');
    UniqueKey key;
    ASSERT_EQ(RegCreateKeyExW(base_.get(), longest, 0, KEY_ALL_ACCESS, &key, nullptr),
              ERROR_SUCCESS);

    OVTEST_EXPECT_STATUS(RegCreateKeyExW(base_.get(), tooLong, 0, KEY_ALL_ACCESS, &key, nullptr),
                         ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(key);
    EXPECT_EQ(RegCreateKeyExW(base_.get(), u"Fine\\" + tooLong, 0, KEY_ALL_ACCESS, &key, nullptr),
              ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegOpenKeyExW(base_.get(), tooLong, 0, KEY_READ, &key), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(SubKeysOf(base_.get()), std::vector<std::u16string>{longest})
        << "neither a cut name nor the first part of a refused path was made";
}

TEST_F(RegistryTest, ReadAccessCannotWrite) {
    ASSERT_EQ(SetDword(u"PrinterPropertyFlags", 65535), ERROR_SUCCESS);
    UniqueKey reader;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, base(), 0, KEY_READ, &reader), ERROR_SUCCESS);

    DWORD value = 1;
    OVTEST_EXPECT_STATUS(
        RegSetValueExW(reader.get(), u"PrinterPropertyFlags", REG_DWORD, &value, sizeof value),
        ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegDeleteValueW(reader.get(), u"PrinterPropertyFlags"), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegDeleteTreeW(reader.get(), u""), ERROR_ACCESS_DENIED);

    DWORD size = sizeof value;
    ASSERT_EQ(RegQueryValueExW(reader.get(), u"PrinterPropertyFlags", nullptr, &value, &size),
              ERROR_SUCCESS);
    EXPECT_EQ(value, 65535u) << "the refused set changed nothing";
}

TEST_F(RegistryTest, EachRightAllowsOnlyItsCalls) {
    Create(u"Child");
    UniqueKey setOnly;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, base(), 0, KEY_SET_VALUE, &setOnly), ERROR_SUCCESS);
    EXPECT_EQ(RegSetValueExW(setOnly.get(), u"V", REG_BINARY, "x", 1), ERROR_SUCCESS);
    EXPECT_EQ(RegQueryValueExW(setOnly.get(), u"V", nullptr, nullptr, nullptr),
              ERROR_ACCESS_DENIED);
    char16_t name[16];
    DWORD length = 16;
    EXPECT_EQ(RegEnumKeyExW(setOnly.get(), 0, name, &length), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegEnumValueW(setOnly.get(), 0, name, &length, nullptr, nullptr, nullptr),
              ERROR_ACCESS_DENIED);

    UniqueKey queryOnly;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, base(), 0, KEY_QUERY_VALUE, &queryOnly),
              ERROR_SUCCESS);
    EXPECT_EQ(RegQueryValueExW(queryOnly.get(), u"V", nullptr, nullptr, nullptr), ERROR_SUCCESS);
    EXPECT_EQ(RegEnumKeyExW(queryOnly.get(), 0, name, &length), ERROR_ACCESS_DENIED);

    UniqueKey generic;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, base(), 0, 0x80000000 /* GENERIC_READ */, &generic),
              ERROR_SUCCESS);
    EXPECT_EQ(RegQueryValueExW(generic.get(), u"V", nullptr, nullptr, nullptr), ERROR_SUCCESS);
    EXPECT_EQ(RegSetValueExW(generic.get(), u"V", REG_BINARY, "y", 1), ERROR_ACCESS_DENIED);
}

TEST_F(RegistryTest, CreateIgnoresTheParentHandlesRights) {
    UniqueKey reader;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, base(), 0, KEY_READ, &reader), ERROR_SUCCESS);
    UniqueKey child;
    EXPECT_EQ(RegCreateKeyExW(reader.get(), u"Child", 0, KEY_SET_VALUE, &child, nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(RegSetValueExW(child.get(), u"V", REG_BINARY, "x", 1), ERROR_SUCCESS);
}

TEST_F(RegistryTest, BadHandlesPredefinedKeysAndMissingPointers) {
    UniqueKey key;
    OVTEST_EXPECT_STATUS(RegOpenKeyExW(nullptr, u"Software", 0, KEY_READ, &key),
                         ERROR_INVALID_HANDLE);
    const HKEY bogus = reinterpret_cast<HKEY>(std::uintptr_t{0x1234});
    EXPECT_EQ(RegQueryValueExW(bogus, u"x", nullptr, nullptr, nullptr), ERROR_INVALID_HANDLE);
    EXPECT_EQ(RegCloseKey(bogus), ERROR_INVALID_HANDLE);
    EXPECT_EQ(RegCloseKey(nullptr), ERROR_INVALID_HANDLE);

    UniqueKey opened = Create(u"Child");
    const HKEY raw = opened.release();
    EXPECT_EQ(RegCloseKey(raw), ERROR_SUCCESS);
    EXPECT_EQ(RegCloseKey(raw), ERROR_INVALID_HANDLE) << "closing twice";
    EXPECT_EQ(RegSetValueExW(raw, u"x", REG_BINARY, "x", 1), ERROR_INVALID_HANDLE);

    // Predefined keys need no closing; an owner's reset keeps the last error.
    EXPECT_EQ(RegCloseKey(HKEY_LOCAL_MACHINE), ERROR_SUCCESS);
    EXPECT_EQ(RegCloseKey(HKEY_CLASSES_ROOT), ERROR_SUCCESS);
    EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, base(), 0, KEY_READ, &key), ERROR_SUCCESS);
    SetLastError(1234);
    key.reset();
    EXPECT_EQ(GetLastError(), 1234u);
    // Missing result pointers.
    EXPECT_EQ(RegOpenKeyExW(base_.get(), u"A", 0, KEY_READ, nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegCreateKeyExW(base_.get(), u"A", 0, KEY_READ, nullptr, nullptr), ERROR_BADKEY);
}

TEST_F(RegistryTest, ClassesRootIsTheClassesKeyOfTheMachine) {
    const std::u16string path = ClassesKey(u"CLSID\\", "{1234}");
    UniqueKey clsid;
    ASSERT_EQ(RegCreateKeyExW(HKEY_CLASSES_ROOT, path, 0, KEY_ALL_ACCESS, &clsid, nullptr),
              ERROR_SUCCESS);
    ASSERT_EQ(RegSetValueExW(clsid.get(), u"", REG_SZ, u"P", 4), ERROR_SUCCESS);
    UniqueKey viaMachine;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE,
                            u"SOFTWARE\\Classes\\clsid\\" + path.substr(path.find(u'\\') + 1), 0,
                            KEY_READ, &viaMachine),
              ERROR_SUCCESS);
    EXPECT_EQ(RegQueryValueExW(viaMachine.get(), u"", nullptr, nullptr, nullptr), ERROR_SUCCESS);
}

// ---- deletion ------------------------------------------------------------------

TEST_F(RegistryTest, DeleteKeyWithSubkeysIsAccessDenied) {
    Create(u"Parent\\Child");
    OVTEST_EXPECT_STATUS(RegDeleteKeyW(base_.get(), u"Parent"), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegDeleteKeyW(base_.get(), u"Parent\\Child"), ERROR_SUCCESS);
    EXPECT_EQ(RegDeleteKeyW(base_.get(), u"PARENT"), ERROR_SUCCESS);
    UniqueKey key;
    EXPECT_EQ(RegOpenKeyExW(base_.get(), u"Parent", 0, KEY_READ, &key), ERROR_FILE_NOT_FOUND);
    OVTEST_EXPECT_STATUS(RegDeleteKeyW(base_.get(), u"Parent"), ERROR_FILE_NOT_FOUND);
    // An empty name deletes the key itself.
    UniqueKey child = Create(u"Child");
    EXPECT_EQ(RegDeleteKeyW(child.get(), u""), ERROR_SUCCESS);
    EXPECT_TRUE(SubKeysOf(base_.get()).empty());
}

TEST_F(RegistryTest, TheMachineRootCannotBeDeleted) {
    OVTEST_EMBEDDED_ONLY("emptying HKEY_LOCAL_MACHINE of a real machine is not a test to run");
    EXPECT_EQ(RegDeleteKeyW(HKEY_LOCAL_MACHINE, u""), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegDeleteTreeW(HKEY_LOCAL_MACHINE, u""), ERROR_SUCCESS)
        << "emptying is allowed; the key itself stays";
    UniqueKey key;
    EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, u"", 0, KEY_READ, &key), ERROR_SUCCESS);
}

TEST_F(RegistryTest, DeleteTreeRemovesTheWholeSubtree) {
    UniqueKey deep = Create(u"Tree\\A\\B\\C");
    ASSERT_EQ(RegSetValueExW(deep.get(), u"V", REG_BINARY, "x", 1), ERROR_SUCCESS);
    Create(u"Tree\\D");
    Create(u"Keep");
    OVTEST_EXPECT_STATUS(RegDeleteTreeW(base_.get(), u"tree"), ERROR_SUCCESS);
    EXPECT_EQ(SubKeysOf(base_.get()), std::vector<std::u16string>{u"Keep"});
    EXPECT_EQ(RegQueryValueExW(deep.get(), u"V", nullptr, nullptr, nullptr), ERROR_KEY_DELETED);
    EXPECT_EQ(RegDeleteTreeW(base_.get(), u"Tree"), ERROR_FILE_NOT_FOUND);
    // An empty name empties the key, which stays usable.
    ASSERT_EQ(SetDword(u"V", 1), ERROR_SUCCESS);
    EXPECT_EQ(RegDeleteTreeW(base_.get(), u""), ERROR_SUCCESS);
    EXPECT_TRUE(SubKeysOf(base_.get()).empty());
    std::vector<RegistryValue> values;
    ASSERT_EQ(RegEnumValues(base_.get(), &values), ERROR_SUCCESS);
    EXPECT_TRUE(values.empty());
    EXPECT_EQ(SetDword(u"StillUsable", 1), ERROR_SUCCESS);
}

TEST_F(RegistryTest, AKeyDeletedWhileOpenReportsKeyDeleted) {
    UniqueKey doomed = Create(u"Doomed");
    ASSERT_EQ(RegSetValueExW(doomed.get(), u"V", REG_BINARY, "x", 1), ERROR_SUCCESS);
    ASSERT_EQ(RegDeleteKeyW(base_.get(), u"Doomed"), ERROR_SUCCESS);

    OVTEST_EXPECT_STATUS(RegQueryValueExW(doomed.get(), u"V", nullptr, nullptr, nullptr),
                         ERROR_KEY_DELETED);
    EXPECT_EQ(RegSetValueExW(doomed.get(), u"V", REG_BINARY, "y", 1), ERROR_KEY_DELETED);
    EXPECT_EQ(RegDeleteValueW(doomed.get(), u"V"), ERROR_KEY_DELETED);
    char16_t name[8];
    DWORD length = 8;
    EXPECT_EQ(RegEnumValueW(doomed.get(), 0, name, &length, nullptr, nullptr, nullptr),
              ERROR_KEY_DELETED);
    EXPECT_EQ(RegEnumKeyExW(doomed.get(), 0, name, &length), ERROR_KEY_DELETED);
    UniqueKey child;
    EXPECT_EQ(RegCreateKeyExW(doomed.get(), u"Child", 0, KEY_READ, &child, nullptr),
              ERROR_KEY_DELETED);
    OVTEST_EXPECT_STATUS(RegOpenKeyExW(doomed.get(), u"Child", 0, KEY_READ, &child),
                         ERROR_KEY_DELETED);
    EXPECT_EQ(RegOpenKeyExW(doomed.get(), u"", 0, KEY_READ, &child), ERROR_KEY_DELETED);

    // A new key of the same name is another key.
    UniqueKey reborn = Create(u"Doomed");
    EXPECT_EQ(RegQueryValueExW(reborn.get(), u"V", nullptr, nullptr, nullptr),
              ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegQueryValueExW(doomed.get(), u"V", nullptr, nullptr, nullptr), ERROR_KEY_DELETED);
}

TEST_F(RegistryTest, OpenAfterDeleteAndRecreateFindsTheNewKey) {
    {
        UniqueKey first = Create(u"Cycle");
        ASSERT_EQ(RegSetValueExW(first.get(), u"Gen", REG_BINARY, "1", 1), ERROR_SUCCESS);
    }
    UniqueKey opened;
    ASSERT_EQ(RegOpenKeyExW(base_.get(), u"Cycle", 0, KEY_READ, &opened), ERROR_SUCCESS);
    ASSERT_EQ(RegDeleteTreeW(base_.get(), u"Cycle"), ERROR_SUCCESS);
    UniqueKey second = Create(u"Cycle");
    ASSERT_EQ(RegSetValueExW(second.get(), u"Gen", REG_BINARY, "2", 1), ERROR_SUCCESS);

    ASSERT_EQ(RegOpenKeyExW(base_.get(), u"Cycle", 0, KEY_READ, &opened), ERROR_SUCCESS);
    RegistryValue value;
    ASSERT_EQ(RegGetValue(opened.get(), u"Gen", &value), ERROR_SUCCESS);
    EXPECT_EQ(value.data, regtest::Bytes({'2'}));
}

// ---- subkey enumeration ---------------------------------------------------------

TEST_F(RegistryTest, EnumKeyIsSortedWithoutCaseAndEndsExactly) {
    Create(u"beta");
    Create(u"Alpha");
    Create(u"GAMMA");
    char16_t name[16];
    const std::u16string expected[] = {u"Alpha", u"beta", u"GAMMA"};
    for (DWORD i = 0; i < 3; ++i) {
        DWORD length = 16;
        OVTEST_ASSERT_STATUS(RegEnumKeyExW(base_.get(), i, name, &length), ERROR_SUCCESS);
        EXPECT_EQ(std::u16string(name), expected[i]);
        EXPECT_EQ(length, expected[i].size());
    }
    DWORD length = 16;
    OVTEST_EXPECT_STATUS(RegEnumKeyExW(base_.get(), 3, name, &length), ERROR_NO_MORE_ITEMS);
}

TEST_F(RegistryTest, EnumKeyNameBufferProbes) {
    Create(u"Alpha");  // 5 characters, 6 with the terminator
    char16_t name[8] = {u'x'};
    DWORD length = 5;
    EXPECT_EQ(RegEnumKeyExW(base_.get(), 0, name, &length), ERROR_MORE_DATA);
    EXPECT_EQ(length, 5u);
    EXPECT_EQ(name[0], u'x');
    length = 6;
    EXPECT_EQ(RegEnumKeyExW(base_.get(), 0, name, &length), ERROR_SUCCESS);
    EXPECT_EQ(length, 5u);
    length = 7;
    EXPECT_EQ(RegEnumKeyExW(base_.get(), 0, name, &length), ERROR_SUCCESS);
    EXPECT_EQ(std::u16string(name), u"Alpha");
}

TEST_F(RegistryTest, HandlesOfAnotherMachineRootAreInvalid) {
    OVTEST_EMBEDDED_ONLY("a machine root holds its own registry only on the embedded platform");
    const HKEY old = base_.release();
    const std::string other = ovtest::MakeTempDir("ovsvc-other-");
    machine::UseRoot(other);
    EXPECT_EQ(RegQueryValueExW(old, u"x", nullptr, nullptr, nullptr), ERROR_INVALID_HANDLE);
    EXPECT_EQ(RegCloseKey(old), ERROR_SUCCESS) << "closing still frees it";
    UniqueKey key;
    EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, base(), 0, KEY_READ, &key), ERROR_FILE_NOT_FOUND)
        << "the other machine has its own registry";
    machine::UseRoot(root());
    std::error_code ec;
    std::filesystem::remove_all(other, ec);
}

using RegistryStorageTest = ovtest::MachineTest;

TEST_F(RegistryStorageTest, ADamagedStoreIsReportedAndLeftAsItWas) {
    OVTEST_EMBEDDED_ONLY("the registry's store file belongs to the embedded platform");
    const std::string path = root() + "/registry.db";
    const std::string garbage(8192, 'x');
    {
        std::ofstream out(path, std::ios::binary);
        out << garbage;
    }
    UniqueKey key;
    OVTEST_EXPECT_STATUS(RegOpenKeyExW(HKEY_LOCAL_MACHINE, u"Software", 0, KEY_READ, &key),
                         ERROR_BADDB);
    EXPECT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, u"Software\\X", 0, KEY_ALL_ACCESS, &key, nullptr),
              ERROR_BADDB);
    std::ifstream in(path, std::ios::binary);
    const std::string after((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(after, garbage) << "the damaged file is not overwritten";
}

// Enumeration by index reads on from the previous index when nothing changed;
// any change in between must give the index's entry in the new order.
TEST_F(RegistryTest, EnumKeyByIndexFollowsChangesBetweenCalls) {
    for (const char16_t* name : {u"B", u"D", u"F", u"H"}) {
        Create(name);
    }
    auto at = [&](DWORD index) {
        char16_t name[16];
        DWORD length = 16;
        const LSTATUS rc = RegEnumKeyExW(base_.get(), index, name, &length);
        return rc == ERROR_SUCCESS ? std::u16string(name)
                                   : u"error " + ovtest::U16(std::to_string(rc));
    };
    EXPECT_EQ(at(0), u"B");
    EXPECT_EQ(at(1), u"D");
    Create(u"C");  // now B C D F H
    EXPECT_EQ(at(2), u"D");
    EXPECT_EQ(at(3), u"F");
    ASSERT_EQ(RegDeleteKeyW(base_.get(), u"B"), ERROR_SUCCESS);  // now C D F H
    EXPECT_EQ(at(4), u"error 259");
    EXPECT_EQ(at(3), u"H");
    EXPECT_EQ(at(1), u"D") << "going back reads the index afresh";
    EXPECT_EQ(at(2), u"F");
    EXPECT_EQ(at(0), u"C");
}

TEST_F(RegistryTest, EnumValueByIndexFollowsChangesBetweenCalls) {
    for (const char16_t* name : {u"v1", u"v2", u"v3", u"v4"}) {
        ASSERT_EQ(SetDword(name, 0), ERROR_SUCCESS);
    }
    auto at = [&](DWORD index) {
        char16_t name[16];
        DWORD length = 16;
        const LSTATUS rc =
            RegEnumValueW(base_.get(), index, name, &length, nullptr, nullptr, nullptr);
        return rc == ERROR_SUCCESS ? std::u16string(name)
                                   : u"error " + ovtest::U16(std::to_string(rc));
    };
    EXPECT_EQ(at(0), u"v1");
    EXPECT_EQ(at(1), u"v2");
    ASSERT_EQ(RegDeleteValueW(base_.get(), u"v1"), ERROR_SUCCESS);  // v2 v3 v4
    EXPECT_EQ(at(2), u"v4");
    EXPECT_EQ(at(3), u"error 259");
    ASSERT_EQ(SetDword(u"v5", 0), ERROR_SUCCESS);  // v2 v3 v4 v5
    EXPECT_EQ(at(3), u"v5");
}
