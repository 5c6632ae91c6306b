// OVSvc.dll's own resources, read back from the built DLL through the
// platform's calls: the string table and the version block the resource
// script gives it.
#include <gtest/gtest.h>

#include <string>

#include "expected_strings.h"
#include "ovtest.h"
#include "platform/resources.h"

// After the platform's headers, whose names <windows.h> has macros for.
#include <windows.h>

namespace {

using ovtest::U8;

class OwnResourcesInTheDll : public ::testing::Test {
  protected:
    void SetUp() override {
        library_ = LoadLibraryW(L"OVSvc.dll");
        ASSERT_NE(library_, nullptr) << "LoadLibrary: error " << GetLastError();
        module_ = platform::GetModuleHandleW(u"ovsvc.DLL");
        ASSERT_EQ(reinterpret_cast<HMODULE>(module_), library_);
    }
    void TearDown() override {
        if (library_ != nullptr) {
            FreeLibrary(library_);
        }
    }
    std::string String(unsigned id) {
        std::u16string text;
        return platform::LoadStringW(module_, id, &text) > 0 ? U8(text) : "<none>";
    }

    HMODULE library_ = nullptr;
    platform::HMODULE module_ = nullptr;
};

TEST_F(OwnResourcesInTheDll, StringTableTextsAreExact) {
    for (const auto& [id, text] : ovtest::kExpectedStrings) {
        EXPECT_EQ(String(id), text) << id;
    }
}

TEST_F(OwnResourcesInTheDll, OnlyTheTableIds) {
    for (unsigned id : ovtest::kAbsentStringIds) {
        std::u16string text = u"unchanged";
        platform::SetLastError(0xDEADBEEF);
        EXPECT_EQ(platform::LoadStringW(module_, id, &text), 0) << id;
        EXPECT_EQ(platform::GetLastError(), 1814u) << id;  // ERROR_RESOURCE_NAME_NOT_FOUND
        EXPECT_EQ(text, u"unchanged") << id;
    }
}

TEST_F(OwnResourcesInTheDll, VersionBlockNamesTheModuleAndTheProjectVersion) {
    platform::VersionBlock block;
    ASSERT_TRUE(platform::GetFileVersionInfoW(u"OVSvc.dll", &block))
        << "error " << platform::GetLastError();
    std::vector<platform::LangCodePage> translations;
    ASSERT_TRUE(platform::VerQueryTranslations(block, &translations));
    ASSERT_EQ(translations.size(), 1u);
    EXPECT_EQ(translations[0].language, 0x0409);
    EXPECT_EQ(translations[0].codePage, 0x04b0);

    auto text = [&](const char16_t* name) {
        std::u16string value;
        EXPECT_TRUE(platform::VerQueryString(
            block, std::u16string(u"\\StringFileInfo\\040904b0\\") + name, &value))
            << U8(name);
        return U8(value);
    };
    EXPECT_EQ(text(u"FileDescription"), "OVSvc printer autocreation module");
    EXPECT_EQ(text(u"LegalCopyright"), "Copyright (C) Orvelle. All rights reserved.");
    EXPECT_EQ(text(u"OriginalFilename"), "OVSvc.dll");
    EXPECT_EQ(text(u"ProductName"), "Ovaspool");

    platform::VS_FIXEDFILEINFO fixed;
    ASSERT_TRUE(platform::VerQueryFixedFileInfo(block, &fixed));
    EXPECT_EQ(fixed.dwSignature, 0xFEEF04BDu);
    EXPECT_GT(fixed.dwFileVersionMS >> 16, 0u) << "the project's major version";
    EXPECT_EQ(fixed.dwProductVersionMS, fixed.dwFileVersionMS);
    EXPECT_EQ(fixed.dwProductVersionLS, fixed.dwFileVersionLS);
    EXPECT_EQ(fixed.dwFileType, 2u) << "a DLL";
}

}  // namespace
