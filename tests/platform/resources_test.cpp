// Module resources: registration by file name, the string table, version
// information and named texts, with the errors Windows gives.
#include "platform/resources.h"

#include <gtest/gtest.h>

#include <memory>

#include "ovtest.h"
#include "product_settings.h"
#include "resources_test_support.h"

namespace {

using namespace platform;

using ovtest::kPoison;

ModuleResources SampleModule(const std::u16string& fileName) {
    ModuleResources r;
    r.fileName = fileName;
    r.strings = {{7, u"seven"}, {300, u"three hundred"}};
    VS_FIXEDFILEINFO fixed;
    fixed.dwFileVersionMS = (2u << 16) | 5u;
    fixed.dwFileVersionLS = (11u << 16) | 4u;
    r.version.fixed = fixed;
    r.version.translations = {{0x0407, 0x04e4}, {0x0409, 0x04b0}};
    r.version.strings = {{u"040704e4\\FileDescription", u"Beschreibung"},
                         {u"040904b0\\FileDescription", u"Description"}};
    r.texts = {{{u"MOF", u"SCHEMA"}, "class X {};"}, {{u"REGISTRY", u"CLASS"}, "HKCR {}"}};
    return r;
}

// A module with the sample's resources: registered on the embedded
// platform, a real image written and loaded on Windows.
class Resources : public ::testing::Test {
  protected:
    void SetUp() override {
        name_ = ovtest::U16(ovtest::UniqueName("ResTest")) + u".dll";
        data_ = SampleModule(name_);
        made_ = std::make_unique<restest::TestModule>(&data_);
        module_ = made_->handle();
        ASSERT_NE(module_, nullptr) << made_->why();
    }
    void TearDown() override { made_.reset(); }

    std::u16string name_;
    ModuleResources data_;
    std::unique_ptr<restest::TestModule> made_;
    HMODULE module_ = nullptr;
};

TEST_F(Resources, ModuleIsFoundByNameIgnoringCaseAndDllExtension) {
    std::u16string upper = name_;
    for (auto& c : upper) {
        if (c >= u'a' && c <= u'z') {
            c = static_cast<char16_t>(c - 32);
        }
    }
    EXPECT_EQ(GetModuleHandleW(upper), module_);
    EXPECT_EQ(GetModuleHandleW(name_.substr(0, name_.size() - 4)), module_);
    OVTEST_EXPECT_FAIL(GetModuleHandleW(u"NoSuchModule.dll"), ERROR_MOD_NOT_FOUND);
    const std::u16string path = GetModuleFileNameW(module_);
    ASSERT_GE(path.size(), name_.size());
    EXPECT_EQ(path.substr(path.size() - name_.size()), name_) << "the file name ends in it";
}

TEST_F(Resources, LoadStringFindsTextsAndReportsMissingIds) {
    std::u16string text;
    SetLastError(kPoison);
    EXPECT_EQ(LoadStringW(module_, 300, &text), 13);
    EXPECT_EQ(text, u"three hundred");
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);

    text = u"unchanged";
    OVTEST_EXPECT_FAIL(LoadStringW(module_, 8, &text), ERROR_RESOURCE_NAME_NOT_FOUND);
    EXPECT_EQ(text, u"unchanged");
}

TEST_F(Resources, RegisteredModulesAreFoundWhateverTheDirectoryUntilUnregistered) {
    OVTEST_EMBEDDED_ONLY(
        "modules registered by name and unregistering their data; Windows "
        "matches a path given in full and an unloaded handle is gone");
    EXPECT_EQ(GetModuleHandleW(u"C:\\Windows\\System32\\" + name_), module_);
    // Registering the same data again gives the same module.
    EXPECT_EQ(RegisterModuleResources(&data_), module_);
    UnregisterModuleResources(&data_);
    std::u16string text;
    OVTEST_EXPECT_FAIL(LoadStringW(module_, 7, &text), ERROR_RESOURCE_DATA_NOT_FOUND);
    OVTEST_EXPECT_FAIL(GetModuleHandleW(name_), ERROR_MOD_NOT_FOUND);
    OVTEST_EXPECT_FAIL(GetFileVersionInfoW(name_, nullptr), ERROR_FILE_NOT_FOUND);
    OVTEST_EXPECT_FAIL(LoadStringW(nullptr, 7, &text), ERROR_RESOURCE_DATA_NOT_FOUND);
}

TEST_F(Resources, VersionInformationIsQueriedBySubBlock) {
    VersionBlock block;
    ASSERT_TRUE(GetFileVersionInfoW(name_, &block));
    VS_FIXEDFILEINFO fixed;
    ASSERT_TRUE(VerQueryFixedFileInfo(block, &fixed));
    EXPECT_EQ(fixed.dwSignature, 0xFEEF04BDu);
    EXPECT_EQ(fixed.dwFileVersionMS, (2u << 16) | 5u);
    std::vector<LangCodePage> translations;
    ASSERT_TRUE(VerQueryTranslations(block, &translations));
    ASSERT_EQ(translations.size(), 2u);
    EXPECT_EQ(translations[0].language, 0x0407);
    EXPECT_EQ(translations[0].codePage, 0x04e4);

    std::u16string value;
    EXPECT_TRUE(VerQueryString(block, u"\\StringFileInfo\\040904b0\\FileDescription", &value));
    EXPECT_EQ(value, u"Description");
    // Hexadecimal digits and names compare without regard to case.
    EXPECT_TRUE(VerQueryString(block, u"\\StringFileInfo\\040704E4\\filedescription", &value));
    EXPECT_EQ(value, u"Beschreibung");

    OVTEST_EXPECT_FAIL(VerQueryString(block, u"\\StringFileInfo\\040904b0\\LegalCopyright", &value),
                       ERROR_RESOURCE_NAME_NOT_FOUND);
    EXPECT_FALSE(VerQueryString(block, u"\\StringFileInfo\\0409", &value));
    EXPECT_FALSE(VerQueryString(block, u"\\VarFileInfo\\Translation", &value));
    EXPECT_FALSE(VerQueryString(block, u"", &value));
}

TEST_F(Resources, ModuleWithoutVersionResource) {
    ModuleResources bare;
    bare.fileName = ovtest::U16(ovtest::UniqueName("Bare")) + u".dll";
    {
        restest::TestModule made(&bare);
        ASSERT_NE(made.handle(), nullptr) << made.why();
        SetLastError(kPoison);
        VersionBlock block;
        EXPECT_FALSE(GetFileVersionInfoW(bare.fileName, &block));
        EXPECT_EQ(GetLastError(), ERROR_RESOURCE_TYPE_NOT_FOUND);
    }

    // Empty parts of a block are absent sub-blocks.
    VersionBlock empty;
    VS_FIXEDFILEINFO fixed;
    std::vector<LangCodePage> translations;
    SetLastError(kPoison);
    EXPECT_FALSE(VerQueryFixedFileInfo(empty, &fixed));
    EXPECT_NE(GetLastError(), kPoison);
    SetLastError(kPoison);
    EXPECT_FALSE(VerQueryTranslations(empty, &translations));
    EXPECT_NE(GetLastError(), kPoison);
}

TEST_F(Resources, NamedTextsByTypeAndName) {
    std::string text;
    EXPECT_TRUE(LoadTextResource(module_, u"mof", u"Schema", &text));
    EXPECT_EQ(text, "class X {};");
    OVTEST_EXPECT_FAIL(LoadTextResource(module_, u"MOF", u"OTHER", &text),
                       ERROR_RESOURCE_NAME_NOT_FOUND);
    OVTEST_EXPECT_FAIL(LoadTextResource(module_, u"TYPELIB", u"SCHEMA", &text),
                       ERROR_RESOURCE_TYPE_NOT_FOUND);
}

// Two copies of the same module (say, one linked statically and one loaded)
// share the module that was registered first.
TEST(ResourcesRegistration, SecondDataUnderTheSameNameGetsTheLoadedModule) {
    OVTEST_EMBEDDED_ONLY("resource data handed over by modules; Windows reads the image");
    const std::u16string name = ovtest::U16(ovtest::UniqueName("Twice")) + u".dll";
    ModuleResources first = SampleModule(name);
    ModuleResources second = SampleModule(name);
    second.strings[7] = u"sieben";
    HMODULE a = RegisterModuleResources(&first);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(RegisterModuleResources(&second), a);
    std::u16string text;
    EXPECT_EQ(LoadStringW(a, 7, &text), 5);
    EXPECT_EQ(text, u"seven");
    UnregisterModuleResources(&second);  // not the registered copy: no effect
    EXPECT_EQ(GetModuleHandleW(name), a);
    UnregisterModuleResources(&first);
    EXPECT_EQ(GetModuleHandleW(name), nullptr);
    // Once the first is gone the other copy can take the name.
    HMODULE b = RegisterModuleResources(&second);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(LoadStringW(b, 7, &text), 6);
    EXPECT_EQ(text, u"sieben");
    UnregisterModuleResources(&second);
}

TEST(ResourcesRegistration, RefusesDataWithoutName) {
    ModuleResources nameless;
    OVTEST_EXPECT_FAIL(RegisterModuleResources(&nameless), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegisterModuleResources(nullptr), nullptr);
}

}  // namespace
