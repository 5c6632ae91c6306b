// Values: every type kept byte for byte, the size-then-data query, enumeration
// by index, and the errors of each call.
#include <gtest/gtest.h>

#include "platform/registry.h"
#include "registry_test_support.h"

using namespace platform;
using regtest::Bytes;
using regtest::kPoison;
using regtest::RegistryTest;
using regtest::Utf16Bytes;

namespace {

struct TypedData {
    const char* label;
    DWORD type;
    std::vector<std::byte> data;
};

std::vector<TypedData> EveryKindOfValue() {
    std::vector<std::byte> big(70000);
    for (std::size_t i = 0; i < big.size(); ++i) {
        big[i] = static_cast<std::byte>(i * 7 + 3);
    }
    return {
        {"sz with terminator", REG_SZ,
         Utf16Bytes(std::u16string_view(u"C:\\ovsvc\\trace.log", 19))},
        {"sz without terminator", REG_SZ, Utf16Bytes(u"no end")},
        {"sz odd size", REG_SZ, Bytes({0x41, 0x00, 0x42})},
        {"expand sz", REG_EXPAND_SZ, Utf16Bytes(std::u16string_view(u"%SystemRoot%\\x\0", 16))},
        {"multi sz", REG_MULTI_SZ, Utf16Bytes(std::u16string_view(u"a\0bc\0\0", 6))},
        {"multi sz empty list", REG_MULTI_SZ, Bytes({0, 0})},
        {"dword", REG_DWORD, Bytes({0xff, 0x00, 0x00, 0x80})},
        {"dword of 3 bytes", REG_DWORD, Bytes({1, 2, 3})},
        {"qword", REG_QWORD, Bytes({1, 2, 3, 4, 5, 6, 7, 8})},
        {"binary", REG_BINARY, Bytes({0, 1, 0xfe, 0xff, 0})},
        {"binary empty", REG_BINARY, {}},
        {"none", REG_NONE, Bytes({9})},
        {"unknown type number", 0x12345678, Bytes({1, 2})},
        {"big binary", REG_BINARY, big},
    };
}

}  // namespace

TEST_F(RegistryTest, EveryTypeRoundTripsByteForByte) {
    for (const auto& v : EveryKindOfValue()) {
        SCOPED_TRACE(v.label);
        const std::u16string name = ovtest::U16(v.label);
        // Windows counts in the terminator of a string set without it when
        // the character after the data is NUL: here it never is.
        std::vector<std::byte> followed = v.data;
        followed.insert(followed.end(), {std::byte{0x7f}, std::byte{0x7f}});
        ASSERT_EQ(RegSetValueExW(base_.get(), name, v.type, followed.data(),
                                 static_cast<DWORD>(v.data.size())),
                  ERROR_SUCCESS);

        DWORD type = kPoison;
        DWORD size = kPoison;
        OVTEST_ASSERT_STATUS(RegQueryValueExW(base_.get(), name, &type, nullptr, &size),
                             ERROR_SUCCESS);
        EXPECT_EQ(type, v.type);
        ASSERT_EQ(size, v.data.size());

        std::vector<std::byte> data(size + 1, std::byte{0x5a});
        DWORD room = static_cast<DWORD>(data.size());
        ASSERT_EQ(RegQueryValueExW(base_.get(), name, &type, data.data(), &room), ERROR_SUCCESS);
        EXPECT_EQ(room, v.data.size());
        data.pop_back();
        EXPECT_EQ(data, v.data);

        RegistryValue whole;
        ASSERT_EQ(RegGetValue(base_.get(), name, &whole), ERROR_SUCCESS);
        EXPECT_EQ(whole.type, v.type);
        EXPECT_EQ(whole.data, v.data);
    }
}

TEST_F(RegistryTest, QueryProbesSizeMinusOneSizeAndSizePlusOne) {
    const auto value = Utf16Bytes(std::u16string_view(u"Ovaspool -q -d\0", 15));
    ASSERT_EQ(Set(u"ListenToWTSDeleteCmd", REG_SZ, value), ERROR_SUCCESS);
    const DWORD n = static_cast<DWORD>(value.size());

    std::vector<std::byte> buffer(n + 1, std::byte{0x77});
    DWORD size = n - 1;
    DWORD type = kPoison;
    OVTEST_EXPECT_STATUS(
        RegQueryValueExW(base_.get(), u"ListenToWTSDeleteCmd", &type, buffer.data(), &size),
        ERROR_MORE_DATA);
    EXPECT_EQ(size, n) << "a short buffer reports the size needed";
    EXPECT_EQ(type, REG_SZ);

    size = n;
    OVTEST_EXPECT_STATUS(
        RegQueryValueExW(base_.get(), u"ListenToWTSDeleteCmd", &type, buffer.data(), &size),
        ERROR_SUCCESS);
    EXPECT_EQ(size, n);
    EXPECT_TRUE(std::equal(value.begin(), value.end(), buffer.begin()));

    std::fill(buffer.begin(), buffer.end(), std::byte{0x77});
    size = n + 1;
    EXPECT_EQ(RegQueryValueExW(base_.get(), u"ListenToWTSDeleteCmd", &type, buffer.data(), &size),
              ERROR_SUCCESS);
    EXPECT_EQ(size, n);
    EXPECT_EQ(buffer[n], std::byte{0x77}) << "nothing written past the value";
}

TEST_F(RegistryTest, QueryOfPresentAndMissingValuesWithAndWithoutOutputs) {
    ASSERT_EQ(SetDword(u"DebugLevel", 0xff), ERROR_SUCCESS);
    EXPECT_EQ(RegQueryValueExW(base_.get(), u"DebugLevel", nullptr, nullptr, nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(RegQueryValueExW(base_.get(), u"DebugFile", nullptr, nullptr, nullptr),
              ERROR_FILE_NOT_FOUND);
    DWORD value = 0;
    OVTEST_EXPECT_STATUS(RegQueryValueExW(base_.get(), u"DebugLevel", nullptr, &value, nullptr),
                         ERROR_INVALID_PARAMETER)
        << "a data buffer without a size";
    DWORD type = kPoison;
    DWORD size = kPoison;
    OVTEST_EXPECT_STATUS(RegQueryValueExW(base_.get(), u"TimeOutService", &type, nullptr, &size),
                         ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(type, kPoison) << "a missing value leaves the outputs alone";
    EXPECT_EQ(size, kPoison);
}

TEST_F(RegistryTest, ValueNamesAreCaseInsensitiveAndKeepTheirFirstSpelling) {
    ASSERT_EQ(SetDword(u"ListenToWTSTrys", 20), ERROR_SUCCESS);
    ASSERT_EQ(SetDword(u"LISTENTOWTSTRYS", 21), ERROR_SUCCESS);
    DWORD value = 0;
    DWORD size = sizeof value;
    ASSERT_EQ(RegQueryValueExW(base_.get(), u"listentowtstrys", nullptr, &value, &size),
              ERROR_SUCCESS);
    EXPECT_EQ(value, 21u);
    std::vector<RegistryValue> values;
    ASSERT_EQ(RegEnumValues(base_.get(), &values), ERROR_SUCCESS);
    ASSERT_EQ(values.size(), 1u);
    EXPECT_EQ(values[0].name, u"ListenToWTSTrys");
}

TEST_F(RegistryTest, NonAsciiNamesCompareWithoutCase) {
    ASSERT_EQ(SetDword(u"Größe", 1), ERROR_SUCCESS);
    ASSERT_EQ(SetDword(u"Принтер", 2), ERROR_SUCCESS);
    DWORD value = 0;
    DWORD size = sizeof value;
    EXPECT_EQ(RegQueryValueExW(base_.get(), u"GRÖSSE", nullptr, &value, &size),
              ERROR_FILE_NOT_FOUND)
        << "no expansion of sharp s: only one-to-one case pairs match";
    EXPECT_EQ(RegQueryValueExW(base_.get(), u"GRÖßE", nullptr, &value, &size), ERROR_SUCCESS);
    EXPECT_EQ(value, 1u);
    EXPECT_EQ(RegQueryValueExW(base_.get(), u"ПРИНТЕР", nullptr, &value, &size), ERROR_SUCCESS);
    EXPECT_EQ(value, 2u);
}

TEST_F(RegistryTest, DefaultValueHasTheEmptyNameAndNamesEndAtANul) {
    const auto data = Utf16Bytes(std::u16string_view(u"default\0", 8));
    ASSERT_EQ(Set(u"", REG_SZ, data), ERROR_SUCCESS);
    RegistryValue value;
    ASSERT_EQ(RegGetValue(base_.get(), u"", &value), ERROR_SUCCESS);
    EXPECT_EQ(value.data, data);
    std::vector<RegistryValue> values;
    ASSERT_EQ(RegEnumValues(base_.get(), &values), ERROR_SUCCESS);
    ASSERT_EQ(values.size(), 1u);
    EXPECT_TRUE(values[0].name.empty());

    ASSERT_EQ(SetDword(std::u16string_view(u"Flag\0ignored", 12), 7), ERROR_SUCCESS);
    ASSERT_EQ(RegGetValue(base_.get(), u"Flag", &value), ERROR_SUCCESS);
    EXPECT_EQ(value.data, Bytes({7, 0, 0, 0}));
}

TEST_F(RegistryTest, OverwritingKeepsTheEnumerationOrder) {
    ASSERT_EQ(SetDword(u"First", 1), ERROR_SUCCESS);
    ASSERT_EQ(SetDword(u"Second", 2), ERROR_SUCCESS);
    ASSERT_EQ(SetDword(u"Third", 3), ERROR_SUCCESS);
    ASSERT_EQ(Set(u"First", REG_SZ, Utf16Bytes(std::u16string_view(u"x\0", 2))), ERROR_SUCCESS);
    std::vector<RegistryValue> values;
    ASSERT_EQ(RegEnumValues(base_.get(), &values), ERROR_SUCCESS);
    ASSERT_EQ(values.size(), 3u);
    EXPECT_EQ(values[0].name, u"First");
    EXPECT_EQ(values[0].type, REG_SZ);
    EXPECT_EQ(values[1].name, u"Second");
    EXPECT_EQ(values[2].name, u"Third");
}

TEST_F(RegistryTest, SetWithoutDataButWithASizeIsRefused) {
    OVTEST_EXPECT_STATUS(RegSetValueExW(base_.get(), u"Broken", REG_BINARY, nullptr, 4),
                         ERROR_NOACCESS);
    EXPECT_EQ(RegQueryValueExW(base_.get(), u"Broken", nullptr, nullptr, nullptr),
              ERROR_FILE_NOT_FOUND);

    ASSERT_EQ(RegSetValueExW(base_.get(), u"Empty", REG_SZ, nullptr, 0), ERROR_SUCCESS);
    DWORD type = kPoison;
    DWORD size = kPoison;
    ASSERT_EQ(RegQueryValueExW(base_.get(), u"Empty", &type, nullptr, &size), ERROR_SUCCESS);
    EXPECT_EQ(type, REG_SZ);
    EXPECT_EQ(size, 0u);
}

TEST_F(RegistryTest, ValueNameLengthLimitIsEnforcedNeverCut) {
    const std::u16string longest(kMaxValueNameLength, u'v');
    const std::u16string tooLong(kMaxValueNameLength + 1, u'v');
    ASSERT_EQ(SetDword(longest, 1), ERROR_SUCCESS);

    OVTEST_EXPECT_STATUS(SetDword(tooLong, 2), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegQueryValueExW(base_.get(), tooLong, nullptr, nullptr, nullptr),
              ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegDeleteValueW(base_.get(), tooLong), ERROR_FILE_NOT_FOUND);

    DWORD value = 0;
    DWORD size = sizeof value;
    ASSERT_EQ(RegQueryValueExW(base_.get(), longest, nullptr, &value, &size), ERROR_SUCCESS);
    EXPECT_EQ(value, 1u) << "the longest name was not touched by the refused one";
}

TEST_F(RegistryTest, DeleteValue) {
    ASSERT_EQ(SetDword(u"NameTranslation", 1), ERROR_SUCCESS);
    OVTEST_EXPECT_STATUS(RegDeleteValueW(base_.get(), u"nametranslation"), ERROR_SUCCESS);
    EXPECT_EQ(RegQueryValueExW(base_.get(), u"NameTranslation", nullptr, nullptr, nullptr),
              ERROR_FILE_NOT_FOUND);
    OVTEST_EXPECT_STATUS(RegDeleteValueW(base_.get(), u"NameTranslation"), ERROR_FILE_NOT_FOUND);
}

// ---- enumeration by index ------------------------------------------------------

class RegistryEnumValueTest : public RegistryTest {
  protected:
    void SetUp() override {
        RegistryTest::SetUp();
        ASSERT_EQ(Set(u"Test", REG_SZ, Utf16Bytes(std::u16string_view(u"foobar\0", 7))),
                  ERROR_SUCCESS);
        ASSERT_EQ(SetDword(u"Second", 2), ERROR_SUCCESS);
        // Where "Test" is: first as set, but the order is only checked by
        // the test of the order itself.
        char16_t name[32];
        for (DWORD index = 0; index < 2; ++index) {
            DWORD length = 32;
            ASSERT_EQ(RegEnumValueW(base_.get(), index, name, &length, nullptr, nullptr, nullptr),
                      ERROR_SUCCESS);
            if (std::u16string(name) == u"Test") {
                test_ = index;
            }
        }
    }

    DWORD test_ = 0;  // the index of "Test"
};

TEST_F(RegistryEnumValueTest, ReturnsNameTypeAndDataInOrder) {
    OVTEST_SKIP_UNDER_WINE("values enumerate in name order, not in the order they were set");
    char16_t name[32];
    DWORD nameLength = 32;
    DWORD type = kPoison;
    std::byte data[32];
    DWORD size = sizeof data;
    OVTEST_ASSERT_STATUS(RegEnumValueW(base_.get(), 0, name, &nameLength, &type, data, &size),
                         ERROR_SUCCESS);
    EXPECT_EQ(std::u16string(name), u"Test");
    EXPECT_EQ(nameLength, 4u) << "the length excludes the terminator";
    EXPECT_EQ(type, REG_SZ);
    EXPECT_EQ(size, 14u);

    nameLength = 32;
    ASSERT_EQ(RegEnumValueW(base_.get(), 1, name, &nameLength, &type, nullptr, nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(std::u16string(name), u"Second");
    EXPECT_EQ(type, REG_DWORD);
}

TEST_F(RegistryEnumValueTest, NameBufferProbes) {
    // "Test" needs 5 characters with its terminator.
    char16_t name[8];
    std::fill(std::begin(name), std::end(name), u'x');
    DWORD nameLength = 4;
    DWORD type = kPoison;
    DWORD size = 100;
    std::byte data[100];
    OVTEST_EXPECT_STATUS(RegEnumValueW(base_.get(), test_, name, &nameLength, &type, data, &size),
                         ERROR_MORE_DATA);
    EXPECT_EQ(nameLength, 4u) << "a short name buffer keeps its length";
    EXPECT_EQ(name[0], u'x') << "and is not written";
    EXPECT_EQ(size, 14u);

    nameLength = 5;
    size = 100;
    EXPECT_EQ(RegEnumValueW(base_.get(), test_, name, &nameLength, &type, data, &size),
              ERROR_SUCCESS);
    EXPECT_EQ(nameLength, 4u);
    EXPECT_EQ(std::u16string(name), u"Test");

    nameLength = 6;
    EXPECT_EQ(RegEnumValueW(base_.get(), test_, name, &nameLength, &type, data, &size),
              ERROR_SUCCESS);
    EXPECT_EQ(nameLength, 4u);
}

TEST_F(RegistryEnumValueTest, DataBufferProbes) {
    char16_t name[8];
    DWORD nameLength = 8;
    std::byte data[16];
    std::fill(std::begin(data), std::end(data), std::byte{0x11});
    DWORD size = 13;
    DWORD type = kPoison;
    OVTEST_EXPECT_STATUS(RegEnumValueW(base_.get(), test_, name, &nameLength, &type, data, &size),
                         ERROR_MORE_DATA);
    EXPECT_EQ(size, 14u);
    EXPECT_EQ(type, REG_SZ);
    EXPECT_EQ(std::u16string(name), u"Test") << "the name is returned even when data is short";

    nameLength = 8;
    size = 14;
    EXPECT_EQ(RegEnumValueW(base_.get(), test_, name, &nameLength, &type, data, &size),
              ERROR_SUCCESS);
    EXPECT_EQ(size, 14u);
    nameLength = 8;
    size = 15;
    data[14] = std::byte{0x22};
    EXPECT_EQ(RegEnumValueW(base_.get(), test_, name, &nameLength, &type, data, &size),
              ERROR_SUCCESS);
    EXPECT_EQ(size, 14u);
    EXPECT_EQ(data[14], std::byte{0x22});
}

TEST_F(RegistryEnumValueTest, EndsExactlyPastTheLastAndNeedsANameBuffer) {
    char16_t name[32];
    DWORD nameLength = 32;
    EXPECT_EQ(RegEnumValueW(base_.get(), 1, name, &nameLength, nullptr, nullptr, nullptr),
              ERROR_SUCCESS);
    nameLength = 32;
    OVTEST_EXPECT_STATUS(
        RegEnumValueW(base_.get(), 2, name, &nameLength, nullptr, nullptr, nullptr),
        ERROR_NO_MORE_ITEMS);
    EXPECT_EQ(nameLength, 32u);
    EXPECT_EQ(RegEnumValueW(base_.get(), 0, nullptr, &nameLength, nullptr, nullptr, nullptr),
              ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegEnumValueW(base_.get(), 0, name, nullptr, nullptr, nullptr, nullptr),
              ERROR_INVALID_PARAMETER);
}
