// Registrar scripts: syntax errors name their line and change nothing;
// registering twice writes the same keys; unregistering takes away what the
// script wrote and leaves everything else alone.
#include <gtest/gtest.h>

#include <string>

#include "ovtest.h"
#include "platform/com.h"
#include "platform/registry.h"

namespace {

using namespace platform;

constexpr char16_t kScript[] =
    uR"(HKCR
{
    OvTest.Thing.1 = s 'Thing Class'
    {
        CLSID = s '%CLSID%'
    }
    NoRemove CLSID
    {
        ForceRemove %CLSID% = s 'Thing Class'
        {
            ForceRemove 'Programmable'
            InprocServer32 = s '%MODULE%'
            {
                val ThreadingModel = s 'Apartment'
                val Count = d 0x2A
                val Blob = b 0aFF
                val List = m 'a\0b'
            }
        }
    }
}
)";

const std::vector<RegistrarReplacement> kReplacements = {
    {u"CLSID", u"{11111111-2222-3333-4444-555555555555}"}, {u"module", u"C:\\x\\OV's.dll"}};

std::u16string Export() {
    std::u16string text;
    RegExportText(HKEY_CLASSES_ROOT, u"", &text);
    return text;
}

class RegistrarTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        OVTEST_EMBEDDED_ONLY("writes the classes root of the machine");
    }
};

TEST_F(RegistrarTest, SyntaxErrorsNameTheirLineAndWriteNothing) {
    struct Case {
        const char16_t* script;
        const char* error;
    };
    const Case cases[] = {
        {u"{", "line 1: expected a root key such as HKCR"},
        {u"HKCU\n{\n}", "line 1: unknown root key 'HKCU'"},
        {u"HKCR\nKey", "line 2: expected '{' after the root key"},
        {u"HKCR\n{\n  A\n  {\n", "line 5: missing '}' for the key of line 3"},
        {u"HKCR\n{\n  A = s 'open\n}", "line 3: quoted text without its closing quote"},
        {u"HKCR\n{\n  A = s '%NOPE%'\n}", "line 3: unknown replacement %NOPE%"},
        {u"HKCR\n{\n  A = s '100%'\n}", "line 3: '%' without its closing '%'"},
        {u"HKCR\n{\n  A = d 5\n}", "line 3: a key's default value must be text (s '...')"},
        {u"HKCR\n{\n  A\n  {\n    val V s 'x'\n  }\n}",
         "line 5: expected '=' after the value name"},
        {u"HKCR\n{\n  A\n  {\n    val V = q 'x'\n  }\n}",
         "line 5: unknown value type 'q' (s, d, b or m)"},
        {u"HKCR\n{\n  A\n  {\n    val V = d 12x\n  }\n}", "line 5: '12x' is no number"},
        {u"HKCR\n{\n  A\n  {\n    val V = d 4294967296\n  }\n}",
         "line 5: '4294967296' does not fit 32 bits"},
        {u"HKCR\n{\n  A\n  {\n    val V = b ABC\n  }\n}",
         "line 5: binary data needs an even number of hex digits"},
        {u"HKCR\n{\n  'a\\b'\n}",
         "line 3: a key name 'a\\b' is empty, longer than 255 "
         "characters or holds a '\\'"},
        {u"HKCR\n{\n  = s 'x'\n}", "line 3: expected a key name or 'val'"},
    };
    const std::u16string before = Export();
    for (const Case& c : cases) {
        std::string error;
        EXPECT_EQ(RegistrarRun(c.script, kReplacements, true, &error), DISP_E_EXCEPTION) << c.error;
        EXPECT_EQ(error, c.error);
    }
    EXPECT_EQ(Export(), before);
}

TEST_F(RegistrarTest, RegisterTwiceThenUnregisterRestoresTheRegistry) {
    // Something of someone else's under CLSID, and a stale subkey that the
    // forced removal of the class key must clear.
    UniqueKey other;
    ASSERT_EQ(RegCreateKeyExW(HKEY_CLASSES_ROOT, u"CLSID\\{99999999-0000-0000-0000-000000000000}",
                              0, KEY_ALL_ACCESS, &other, nullptr),
              ERROR_SUCCESS);
    const std::u16string before = Export();
    UniqueKey stale;
    ASSERT_EQ(
        RegCreateKeyExW(HKEY_CLASSES_ROOT, u"CLSID\\{11111111-2222-3333-4444-555555555555}\\Stale",
                        0, KEY_ALL_ACCESS, &stale, nullptr),
        ERROR_SUCCESS);
    std::string error;
    ASSERT_EQ(RegistrarRun(kScript, kReplacements, true, &error), S_OK) << error;
    const std::u16string once = Export();
    ASSERT_EQ(RegistrarRun(kScript, kReplacements, true, &error), S_OK) << error;
    EXPECT_EQ(Export(), once);
    for (const char16_t* expected :
         {u"[HKEY_CLASSES_ROOT\\CLSID\\{11111111-2222-3333-4444-555555555555}]\r\n@=\"Thing "
          u"Class\"",
          u"\\InprocServer32]\r\n@=\"C:\\\\x\\\\OV's.dll\"\r\n\"ThreadingModel\"=\"Apartment\"\r\n"
          u"\"Count\"=dword:0000002a\r\n\"Blob\"=hex:0a,ff\r\n\"List\"=hex(7):61,00,00,00,62,00,"
          u"00,00,00,00",
          u"{11111111-2222-3333-4444-555555555555}\\Programmable]",
          u"[HKEY_CLASSES_ROOT\\OvTest.Thing.1\\CLSID]\r\n@=\"{11111111-2222-3333-4444-"
          u"555555555555}\""}) {
        EXPECT_NE(once.find(expected), std::u16string::npos) << ovtest::U8(expected);
    }
    EXPECT_EQ(once.find(u"Stale"), std::u16string::npos);

    // A key the script names but someone else added to stays, with only the
    // script's values taken away.
    UniqueKey foreign;
    ASSERT_EQ(RegCreateKeyExW(HKEY_CLASSES_ROOT, u"OvTest.Thing.1\\Extra", 0, KEY_ALL_ACCESS,
                              &foreign, nullptr),
              ERROR_SUCCESS);
    ASSERT_EQ(RegistrarRun(kScript, kReplacements, false, &error), S_OK) << error;
    UniqueKey kept;
    EXPECT_EQ(RegOpenKeyExW(HKEY_CLASSES_ROOT, u"OvTest.Thing.1\\Extra", 0, KEY_READ, &kept),
              ERROR_SUCCESS);
    EXPECT_EQ(RegOpenKeyExW(HKEY_CLASSES_ROOT, u"OvTest.Thing.1\\CLSID", 0, KEY_READ, &kept),
              static_cast<LSTATUS>(ERROR_FILE_NOT_FOUND));
    ASSERT_EQ(RegDeleteTreeW(HKEY_CLASSES_ROOT, u"OvTest.Thing.1"), ERROR_SUCCESS);
    EXPECT_EQ(Export(), before);
    // Unregistering what is not there is no error.
    EXPECT_EQ(RegistrarRun(kScript, kReplacements, false, &error), S_OK) << error;
}

}  // namespace
