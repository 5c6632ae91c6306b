// .reg files: import, export, and the refusal of malformed files.
#include <gtest/gtest.h>

#include <cctype>
#include <map>
#include <tuple>

#include "platform/registry.h"
#include "platform/registry_text.h"
#include "registry_test_support.h"

using namespace platform;
using regtest::Bytes;
using regtest::RegistryTest;
using regtest::Utf16Bytes;

namespace {

// Every key below a root as "path" -> values, for comparing whole trees.
using Value = std::tuple<std::u16string, DWORD, std::vector<std::byte>>;
using Tree = std::map<std::u16string, std::vector<Value>>;

void Collect(HKEY key, const std::u16string& path, Tree* tree) {
    std::vector<RegistryValue> values;
    ASSERT_EQ(RegEnumValues(key, &values), ERROR_SUCCESS);
    auto& out = (*tree)[path];
    for (const auto& v : values) {
        out.emplace_back(v.name, v.type, v.data);
    }
    std::vector<std::u16string> names;
    ASSERT_EQ(RegEnumSubKeys(key, &names), ERROR_SUCCESS);
    for (const auto& name : names) {
        UniqueKey child;
        ASSERT_EQ(RegOpenKeyExW(key, name, 0, KEY_READ, &child), ERROR_SUCCESS);
        Collect(child.get(), path + u"\\" + name, tree);
    }
}

Tree TreeAt(std::u16string_view path) {
    Tree tree;
    UniqueKey key;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &key) == ERROR_SUCCESS) {
        Collect(key.get(), std::u16string(path), &tree);
    }
    return tree;
}

LSTATUS Import(const std::u16string& text, std::string* error = nullptr) {
    std::string ignored;
    return RegImportText(text, error != nullptr ? error : &ignored);
}

const char16_t kSample[] =
    u"Windows Registry Editor Version 5.00\r\n"
    u"\r\n"
    u"; the product key\r\n"
    u"[HKEY_LOCAL_MACHINE\\$BASE\\Orvelle\\Ovaspool]\r\n"
    u"\"DebugLevel\"=dword:000000ff\r\n"
    u"\"DebugFile\"=\"C:\\\\ovsvc\\\\trace.log\"\r\n"
    u"\"Quoted\"=\"say \\\"hi\\\"\"\r\n"
    u"@=\"default\"\r\n"
    u"\"Bin\"=hex:00,01,fe,ff\r\n"
    u"\"Expand\"=hex(2):25,00,50,00,25,00,00,00\r\n"
    u"\"NameTranslationEx\"=hex(7):61,00,00,00,62,00,63,00,00,00,\\\r\n"
    u"  00,00\r\n"
    u"\"Q\"=hex(b):01,02,03,04,05,06,07,08\r\n"
    u"\"Odd\"=hex(12345678):aa\r\n"
    u"\"Nothing\"=hex(0):\r\n"
    u"\r\n"
    u"[HKEY_LOCAL_MACHINE\\$BASE\\Orvelle\\Ovaspool\\Sub Key]\r\n"
    u"\"Unicode Ünï\"=\"Принтер\"\r\n"
    u"\r\n"
    u"[HKEY_CLASSES_ROOT\\$CLASSES]\r\n"
    u"@=\"Provider\"\r\n";

// The stored spelling of HKEY_LOCAL_MACHINE's "Software" key.
std::u16string StoredSoftwareName() {
    std::vector<std::u16string> names;
    EXPECT_EQ(RegEnumSubKeys(HKEY_LOCAL_MACHINE, &names), ERROR_SUCCESS);
    for (const auto& name : names) {
        if (regtest::AsciiLower(name) == u"software") {
            return name;
        }
    }
    ADD_FAILURE() << "no Software key";
    return u"SOFTWARE";
}

}  // namespace

// kSample, writing below the test's own keys.
class RegistrySampleTest : public RegistryTest {
  protected:
    std::u16string Sample() {
        if (classes_.empty()) {
            classes_ = ClassesKey(u"CLSID\\", "{0000-1111}");
        }
        return regtest::Substitute(WithBase(kSample), u"$CLASSES", classes_);
    }

    std::u16string classes_;
};

TEST_F(RegistrySampleTest, ImportSetsEveryNotation) {
    std::string error;
    ASSERT_EQ(Import(Sample(), &error), ERROR_SUCCESS) << error;
    UniqueKey key;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, base() + u"\\Orvelle\\Ovaspool", 0, KEY_READ, &key),
              ERROR_SUCCESS);
    auto expect = [&](std::u16string_view name, DWORD type, const std::vector<std::byte>& data) {
        RegistryValue v;
        ASSERT_EQ(RegGetValue(key.get(), name, &v), ERROR_SUCCESS)
            << ovtest::U8(std::u16string(name));
        EXPECT_EQ(v.type, type) << ovtest::U8(std::u16string(name));
        EXPECT_EQ(v.data, data) << ovtest::U8(std::u16string(name));
    };
    expect(u"DebugLevel", REG_DWORD, Bytes({0xff, 0, 0, 0}));
    expect(u"DebugFile", REG_SZ, Utf16Bytes(std::u16string_view(u"C:\\ovsvc\\trace.log\0", 19)));
    expect(u"Quoted", REG_SZ, Utf16Bytes(std::u16string_view(u"say \"hi\"\0", 9)));
    expect(u"", REG_SZ, Utf16Bytes(std::u16string_view(u"default\0", 8)));
    expect(u"Bin", REG_BINARY, Bytes({0, 1, 0xfe, 0xff}));
    expect(u"Expand", REG_EXPAND_SZ, Utf16Bytes(std::u16string_view(u"%P%\0", 4)));
    expect(u"NameTranslationEx", REG_MULTI_SZ, Utf16Bytes(std::u16string_view(u"a\0bc\0\0", 6)));
    expect(u"Q", REG_QWORD, Bytes({1, 2, 3, 4, 5, 6, 7, 8}));
    expect(u"Odd", 0x12345678, Bytes({0xaa}));
    expect(u"Nothing", REG_NONE, {});

    UniqueKey classes;
    EXPECT_EQ(RegOpenKeyExW(HKEY_CLASSES_ROOT, classes_, 0, KEY_READ, &classes), ERROR_SUCCESS);
}

TEST_F(RegistrySampleTest, ImportExportImportGivesTheSameValues) {
    ASSERT_EQ(Import(Sample()), ERROR_SUCCESS);
    // Values that only hex notation can carry.
    const std::u16string orvelle = base() + u"\\Orvelle";
    UniqueKey key;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, orvelle + u"\\Ovaspool", 0, KEY_ALL_ACCESS, &key),
              ERROR_SUCCESS);
    std::vector<std::byte> big(300);
    for (std::size_t i = 0; i < big.size(); ++i) {
        big[i] = static_cast<std::byte>(i);
    }
    ASSERT_EQ(RegSetValueExW(key.get(), u"Big", REG_BINARY, big.data(), 300), ERROR_SUCCESS);
    ASSERT_EQ(RegSetValueExW(key.get(), u"NoTerminator", REG_SZ, u"ab", 4), ERROR_SUCCESS);
    ASSERT_EQ(RegSetValueExW(key.get(), u"InnerNul", REG_SZ, u"a\0b", 8), ERROR_SUCCESS);
    ASSERT_EQ(RegSetValueExW(key.get(), u"Short dword", REG_DWORD, "ab", 2), ERROR_SUCCESS);
    ASSERT_EQ(RegSetValueExW(key.get(), u"Line\nBreak \"name\"", REG_SZ, u"x\r\ny", 10),
              ERROR_SUCCESS);
    ASSERT_EQ(RegSetValueExW(key.get(), u"Lone surrogate", REG_SZ, u"\xD800", 4), ERROR_SUCCESS);

    const Tree before = TreeAt(orvelle);
    std::u16string exported;
    ASSERT_EQ(RegExportText(HKEY_LOCAL_MACHINE, regtest::AsciiLower(orvelle), &exported),
              ERROR_SUCCESS);
    EXPECT_EQ(exported.rfind(u"Windows Registry Editor Version 5.00\r\n\r\n", 0), 0u);
    EXPECT_NE(exported.find(u"[HKEY_LOCAL_MACHINE\\" + StoredSoftwareName() + u"\\" + baseName() +
                            u"\\Orvelle\\Ovaspool]\r\n"),
              std::u16string::npos)
        << "key paths keep their stored case";
    EXPECT_NE(exported.find(u"\"DebugLevel\"=dword:000000ff\r\n"), std::u16string::npos);

    ASSERT_EQ(RegDeleteTreeW(HKEY_LOCAL_MACHINE, orvelle), ERROR_SUCCESS);
    ASSERT_TRUE(TreeAt(orvelle).empty());
    std::string error;
    ASSERT_EQ(Import(exported, &error), ERROR_SUCCESS) << error;
    EXPECT_EQ(TreeAt(orvelle), before);

    std::u16string again;
    ASSERT_EQ(RegExportText(HKEY_LOCAL_MACHINE, orvelle, &again), ERROR_SUCCESS);
    EXPECT_EQ(again, exported);
}

TEST_F(RegistryTest, ExportWrapsLongHexListsLikeRegedit) {
    std::vector<std::byte> big(100, std::byte{0xab});
    ASSERT_EQ(Set(u"Big", REG_BINARY, big), ERROR_SUCCESS);
    std::u16string text;
    ASSERT_EQ(RegExportText(HKEY_LOCAL_MACHINE, base(), &text), ERROR_SUCCESS);
    std::size_t start = 0;
    while (start < text.size()) {
        auto end = text.find(u"\r\n", start);
        if (end == std::u16string::npos) {
            end = text.size();
        }
        EXPECT_LE(end - start, 80u) << ovtest::U8(text.substr(start, end - start));
        start = end + 2;
    }
    EXPECT_NE(text.find(u",\\\r\n  ab,"), std::u16string::npos);
}

TEST_F(RegistryTest, ExportOfClassesRootUsesItsName) {
    const std::u16string name = ClassesKey(u"", "Ovaspool.Config");
    UniqueKey key;
    ASSERT_EQ(RegCreateKeyExW(HKEY_CLASSES_ROOT, name, 0, KEY_ALL_ACCESS, &key, nullptr),
              ERROR_SUCCESS);
    std::u16string text;
    ASSERT_EQ(RegExportText(HKEY_CLASSES_ROOT, regtest::AsciiLower(name), &text), ERROR_SUCCESS);
    EXPECT_NE(text.find(u"[HKEY_CLASSES_ROOT\\" + name + u"]"), std::u16string::npos);
    EXPECT_EQ(RegExportText(HKEY_CLASSES_ROOT, name + u"-Missing", &text), ERROR_FILE_NOT_FOUND);
}

TEST_F(RegistryTest, ImportDeletesKeysAndValues) {
    ASSERT_EQ(SetDword(u"Gone", 1), ERROR_SUCCESS);
    ASSERT_EQ(SetDword(u"Kept", 2), ERROR_SUCCESS);
    Create(u"Old\\Deeper");
    const std::u16string text = WithBase(
        u"Windows Registry Editor Version 5.00\n"
        u"[HKEY_LOCAL_MACHINE\\$BASE]\n"
        u"\"Gone\"=-\n"
        u"\"NeverExisted\"=-\n"
        u"[-HKEY_LOCAL_MACHINE\\$BASE\\Old]\n"
        u"[-HKEY_LOCAL_MACHINE\\$BASE\\NeverExisted]\n");
    std::string error;
    ASSERT_EQ(Import(text, &error), ERROR_SUCCESS) << error;
    EXPECT_EQ(RegQueryValueExW(base_.get(), u"Gone", nullptr, nullptr, nullptr),
              ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegQueryValueExW(base_.get(), u"Kept", nullptr, nullptr, nullptr), ERROR_SUCCESS);
    UniqueKey old;
    EXPECT_EQ(RegOpenKeyExW(base_.get(), u"Old", 0, KEY_READ, &old), ERROR_FILE_NOT_FOUND);
}

TEST_F(RegistryTest, ImportSkipsMarksCommentsAndBlankLinesAndTakesTheOlderHeader) {
    std::string error;
    const std::u16string good = WithBase(
        u"\xFEFFWindows Registry Editor Version 5.00\n\n; comment\n   ; indented comment\n"
        u"[HKEY_LOCAL_MACHINE\\$BASE]  \n"
        u"\"A\" = dword:1 ; trailing comment\n"
        u"\"B\"=hex:01,\\\n    02\n");
    ASSERT_EQ(Import(good, &error), ERROR_SUCCESS) << error;
    RegistryValue v;
    ASSERT_EQ(RegGetValue(base_.get(), u"A", &v), ERROR_SUCCESS);
    EXPECT_EQ(v.data, Bytes({1, 0, 0, 0}));
    ASSERT_EQ(RegGetValue(base_.get(), u"B", &v), ERROR_SUCCESS);
    EXPECT_EQ(v.data, Bytes({1, 2}));

    // The older header, whose hex(2) strings are ANSI.
    ASSERT_EQ(Import(WithBase(u"REGEDIT4\r\n\r\n[HKLM\\$BASE]\r\n\"Cmd\"=hex(2):25,50,25,00\r\n"),
                     &error),
              ERROR_SUCCESS)
        << error;
    ASSERT_EQ(RegGetValue(base_.get(), u"Cmd", &v), ERROR_SUCCESS);
    EXPECT_EQ(v.type, REG_EXPAND_SZ);
    EXPECT_EQ(v.data, Utf16Bytes(std::u16string_view(u"%P%\0", 4)));
}

// ---- malformed files ----------------------------------------------------------

struct Malformed {
    const char* label;
    const char16_t* text;
    const char* expected;  // the start of the message
};

class RegistryMalformedTest : public RegistryTest,
                              public ::testing::WithParamInterface<Malformed> {};

TEST_P(RegistryMalformedTest, IsRefusedWithItsLineAndChangesNothing) {
    ASSERT_EQ(SetDword(u"Before", 1), ERROR_SUCCESS);
    // Every file writes below the test's key only.
    const Tree before = TreeAt(base());
    std::string error;
    SetLastError(regtest::kPoison);
    EXPECT_EQ(Import(WithBase(GetParam().text), &error), ERROR_INVALID_DATA);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_DATA);
    EXPECT_EQ(error.rfind(GetParam().expected, 0), 0u) << error;
    EXPECT_EQ(TreeAt(base()), before);
}

// Every file first writes something valid, which must not survive the refusal.
#define OVT_HEAD u"Windows Registry Editor Version 5.00\n[HKLM\\$BASE]\n\"Before\"=dword:2\n"

INSTANTIATE_TEST_SUITE_P(
    Files, RegistryMalformedTest,
    ::testing::Values(
        Malformed{"no header", u"[HKLM\\Software\\OvTest]\n", "line 1: the file does not start"},
        Malformed{"empty file", u"", "line 1: the file does not start"},
        Malformed{"bad dword", OVT_HEAD u"\"A\"=dword:xyz\n", "line 4: invalid dword"},
        Malformed{"dword too long", OVT_HEAD u"\"A\"=dword:123456789\n", "line 4: invalid dword"},
        Malformed{"unclosed string", OVT_HEAD u"\"A\"=\"abc\n", "line 4: string not closed"},
        Malformed{"unclosed name", OVT_HEAD u"\"A=\"abc\"\n", "line 4: expected '='"},
        Malformed{"bad escape", OVT_HEAD u"\"A\"=\"a\\qb\"\n", "line 4: unknown escape"},
        Malformed{"bad hex byte", OVT_HEAD u"\"A\"=hex:01,zz\n", "line 4: invalid byte"},
        Malformed{"three digit byte", OVT_HEAD u"\"A\"=hex:012\n", "line 4: invalid byte"},
        Malformed{"empty byte", OVT_HEAD u"\"A\"=hex:01,,02\n", "line 4: empty byte"},
        Malformed{"bad type", OVT_HEAD u"\"A\"=hex(zz):01\n", "line 4: invalid type"},
        Malformed{"continuation past the end", OVT_HEAD u"\"A\"=hex:01,\\\n",
                  "line 4: hex list continues"},
        Malformed{"error on a continuation line", OVT_HEAD u"\"A\"=hex:01,\\\n  02,\\\n  q1\n",
                  "line 6: invalid byte"},
        Malformed{"missing equals", OVT_HEAD u"\"A\" dword:1\n", "line 4: expected '='"},
        Malformed{"unknown data", OVT_HEAD u"\"A\"=qword:1\n", "line 4: unrecognised value data"},
        Malformed{"value outside a section",
                  u"Windows Registry Editor Version 5.00\n\"A\"=dword:1\n",
                  "line 2: value outside"},
        Malformed{"value in a deleting section", OVT_HEAD u"[-HKLM\\$BASE\\X]\n\"A\"=dword:1\n",
                  "line 5: value in"},
        Malformed{"unclosed section", OVT_HEAD u"[HKLM\\Software\n", "line 4: key section"},
        Malformed{"unknown root", OVT_HEAD u"[HKEY_CURRENT_USER\\Software]\n",
                  "line 4: unknown root key"},
        Malformed{"empty key name", OVT_HEAD u"[HKLM\\Software\\\\X]\n", "line 4: empty key name"},
        Malformed{"root deletion", OVT_HEAD u"[-HKEY_LOCAL_MACHINE]\n", "line 4: a root key"},
        Malformed{"stray text", OVT_HEAD u"junk\n", "line 4: unrecognised line"}),
    [](const ::testing::TestParamInfo<Malformed>& param) {
        std::string name;
        for (const char* c = param.param.label; *c != '\0'; ++c) {
            name.push_back(std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_');
        }
        return name;
    });

TEST_F(RegistryTest, TooLongNamesInAFileAreRefused) {
    const std::u16string keyName(kMaxKeyNameLength + 1, u'k');
    std::string error;
    EXPECT_EQ(
        Import(WithBase(u"Windows Registry Editor Version 5.00\n[HKLM\\$BASE\\") + keyName + u"]\n",
               &error),
        ERROR_INVALID_DATA);
    EXPECT_EQ(error, "line 2: key name longer than 255 characters");

    const std::u16string valueName(kMaxValueNameLength + 1, u'v');
    EXPECT_EQ(Import(WithBase(u"Windows Registry Editor Version 5.00\n[HKLM\\$BASE]\n\"") +
                         valueName + u"\"=dword:1\n",
                     &error),
              ERROR_INVALID_DATA);
    EXPECT_EQ(error, "line 3: value name longer than 16383 characters");
}

// ---- single values, as tools read and show them ------------------------------------

TEST(RegistryValueNotation, ParsesWhatItFormats) {
    const RegistryValue samples[] = {
        {u"", REG_SZ, Utf16Bytes(std::u16string_view(u"a \"b\" \\c\0", 10))},
        {u"", REG_DWORD, Bytes({0x2a, 0, 0, 0})},
        {u"", REG_BINARY, Bytes({})},
        {u"", REG_MULTI_SZ, Utf16Bytes(std::u16string_view(u"x\0y\0\0", 5))},
        {u"", REG_QWORD, Bytes({1, 2, 3, 4, 5, 6, 7, 8})},
        {u"", REG_SZ, Bytes({0x41})},
    };
    for (const auto& sample : samples) {
        const std::u16string text = regtext::FormatData(sample.type, sample.data);
        SCOPED_TRACE(ovtest::U8(text));
        EXPECT_EQ(text.find(u'\n'), std::u16string::npos) << "single values are never wrapped";
        DWORD type = 0;
        std::vector<std::byte> data;
        std::string error;
        ASSERT_TRUE(regtext::ParseData(text, &type, &data, &error)) << error;
        EXPECT_EQ(type, sample.type);
        EXPECT_EQ(data, sample.data);
    }
}

TEST(RegistryValueNotation, FormatsAsRegeditDoes) {
    EXPECT_EQ(regtext::FormatData(REG_DWORD, Bytes({0xff, 0, 0, 0})), u"dword:000000ff");
    EXPECT_EQ(regtext::FormatData(REG_BINARY, Bytes({1, 0xab})), u"hex:01,ab");
    EXPECT_EQ(regtext::FormatData(REG_QWORD, Bytes({1})), u"hex(b):01");
    EXPECT_EQ(regtext::FormatData(REG_SZ, Utf16Bytes(std::u16string_view(u"C:\\x\0", 5))),
              u"\"C:\\\\x\"");
    EXPECT_EQ(regtext::FormatValueLine({u"", REG_DWORD, Bytes({1, 0, 0, 0})}), u"@=dword:00000001");
    EXPECT_EQ(regtext::TypeName(REG_MULTI_SZ), "REG_MULTI_SZ");
    EXPECT_EQ(regtext::TypeName(4711), "4711");
}

TEST(RegistryValueNotation, SplitsKeyPaths) {
    HKEY root = nullptr;
    std::u16string sub;
    std::string error;
    ASSERT_TRUE(regtext::SplitKeyPath(u"hklm\\Software\\Orvelle\\", &root, &sub, &error));
    EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
    EXPECT_EQ(sub, u"Software\\Orvelle");
    ASSERT_TRUE(regtext::SplitKeyPath(u"HKEY_CLASSES_ROOT", &root, &sub, &error));
    EXPECT_EQ(root, HKEY_CLASSES_ROOT);
    EXPECT_TRUE(sub.empty());
    EXPECT_FALSE(regtext::SplitKeyPath(u"HKCU\\Software", &root, &sub, &error));
    EXPECT_FALSE(regtext::SplitKeyPath(u"HKLM\\a\\\\b", &root, &sub, &error));
}

TEST_F(RegistryTest, OddKeyNamesSurviveExportAndImport) {
    for (const char16_t* name : {u"a]b", u"-dash", u" spaced ", u"ключ", u"semi;colon", u"[x"}) {
        Create(std::u16string(u"Odd\\") + name);
    }
    const Tree before = TreeAt(base() + u"\\Odd");
    ASSERT_EQ(before.size(), 7u);
    std::u16string text;
    ASSERT_EQ(RegExportText(HKEY_LOCAL_MACHINE, base() + u"\\Odd", &text), ERROR_SUCCESS);
    ASSERT_EQ(RegDeleteTreeW(base_.get(), u"Odd"), ERROR_SUCCESS);
    std::string error;
    ASSERT_EQ(Import(text, &error), ERROR_SUCCESS) << error << "\n" << ovtest::U8(text);
    EXPECT_EQ(TreeAt(base() + u"\\Odd"), before);
}
