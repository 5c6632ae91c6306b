// The module's own string table and version text.
#include <gtest/gtest.h>

#include "expected_strings.h"
#include "ovtest.h"
#include "res/resources.h"

namespace {

using namespace ovsvc;
using ovtest::U8;

TEST(OwnStrings, TextsAreExactAndOnlyTheTableIds) {
    for (const auto& [id, text] : ovtest::kExpectedStrings) {
        EXPECT_EQ(U8(LoadOwnString(id)), text) << id;
    }
    for (unsigned id : ovtest::kAbsentStringIds) {
        EXPECT_TRUE(LoadOwnString(id).empty()) << id;
    }
}

TEST(OwnModule, RegisteredOnceUnderItsFileName) {
    const platform::HMODULE module = OwnModule();
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(OwnModule(), module);
    EXPECT_EQ(platform::GetModuleHandleW(u"ovsvc.DLL"), module);
    std::u16string text;
    EXPECT_GT(platform::LoadStringW(module, 112, &text), 0);
    EXPECT_EQ(text, u"OvaspoolSvc");
}

TEST(OwnVersion, DescriptionCopyrightAndFileVersion) {
    const std::string text = U8(GetModuleVersionString());
    const auto& strings = OwnResources().version.strings;
    const std::string expected = U8(strings.at(u"040904b0\\FileDescription")) + ", " +
                                 U8(strings.at(u"040904b0\\LegalCopyright")) + ", ";
    ASSERT_EQ(text.substr(0, expected.size()), expected) << text;
    const std::string version = text.substr(expected.size());
    int a = -1, b = -1, c = -1, d = -1;
    char rest = 0;
    EXPECT_EQ(std::sscanf(version.c_str(), "%d.%d.%d.%d%c", &a, &b, &c, &d, &rest), 4) << version;
    const auto& fixed = *OwnResources().version.fixed;
    EXPECT_EQ(a, static_cast<int>(fixed.dwFileVersionMS >> 16));
    EXPECT_EQ(b, static_cast<int>(fixed.dwFileVersionMS & 0xFFFF));
    EXPECT_EQ(c, static_cast<int>(fixed.dwFileVersionLS >> 16));
    EXPECT_EQ(d, static_cast<int>(fixed.dwFileVersionLS & 0xFFFF));
    EXPECT_GT(a, 0);
}

class VersionOfOtherModules : public ::testing::Test {
  protected:
    void SetUp() override {
        data_.fileName = ovtest::U16(ovtest::UniqueName("Ver")) + u".dll";
        platform::VS_FIXEDFILEINFO fixed;
        fixed.dwFileVersionMS = (1u << 16) | 65535u;
        fixed.dwFileVersionLS = (300u << 16) | 0u;
        data_.version.fixed = fixed;
        data_.version.translations = {{0x0407, 0x04e4}, {0x0409, 0x04b0}};
        data_.version.strings = {{u"040704e4\\FileDescription", u"Modul"},
                                 {u"040704e4\\LegalCopyright", u"(c) X"},
                                 {u"040904b0\\FileDescription", u"Module"}};
    }
    void TearDown() override { platform::UnregisterModuleResources(&data_); }
    std::u16string Text() {
        platform::RegisterModuleResources(&data_);
        return ModuleVersionString(data_.fileName);
    }
    platform::ModuleResources data_;
};

TEST_F(VersionOfOtherModules, FirstTranslationIsUsed) {
    EXPECT_EQ(U8(Text()), "Modul, (c) X, 1.65535.300.0");
}

TEST_F(VersionOfOtherModules, NoTranslationTableFails) {
    data_.version.translations.clear();
    EXPECT_EQ(U8(Text()), "GetVersion failed");
}

TEST_F(VersionOfOtherModules, MissingCopyrightFails) {
    data_.version.strings.erase(u"040704e4\\LegalCopyright");
    EXPECT_EQ(U8(Text()), "GetVersion failed");
}

TEST_F(VersionOfOtherModules, MissingFixedInformationFails) {
    data_.version.fixed.reset();
    EXPECT_EQ(U8(Text()), "GetVersion failed");
}

TEST(VersionOfUnknownModule, Fails) {
    EXPECT_EQ(U8(ModuleVersionString(u"NotLoaded.dll")), "GetVersion failed");
}

}  // namespace

namespace {

TEST(OwnModuleLifetime, SurvivesAnUnregistration) {
    platform::UnregisterModuleResources(&ovsvc::OwnResources());
    EXPECT_EQ(ovtest::U8(ovsvc::LoadOwnString(112)), "OvaspoolSvc");
    EXPECT_NE(platform::GetModuleHandleW(u"OVSvc.dll"), nullptr);
}

}  // namespace
