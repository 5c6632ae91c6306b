// Token fields: formatting and reading back.
#include <gtest/gtest.h>

#include <string>

#include "channel/token_fields.h"

namespace ovsvc {
namespace {

struct Field {
    char16_t tag = 0;
    std::u16string value;
    std::uint32_t number = 0;
};

bool Next(std::u16string_view& rest, Field* field) {
    return OVASerToken::ParseToken(rest, &field->tag, &field->value, &field->number);
}

TEST(TokenFieldsFormat, TextAndNumberFields) {
    const std::u16string text = OVASerToken::FormatToken(u"P", u"Printer 1 on client") +
                                OVASerToken::FormatTokenNumber(u"R", 2);
    EXPECT_EQ(text, u"P19:Printer 1 on clientR1:2");
    EXPECT_EQ(OVASerToken::FormatToken(u"U", u""), u"U0:");
}

TEST(TokenFieldsFormat, NumbersAreSignedDecimalAndReadBackUnsigned) {
    // Numbers are written as signed decimals, so the largest one reads "-1";
    // reading it back as an unsigned number restores it.
    const std::u16string text = OVASerToken::FormatTokenNumber(u"S", 4294967295u);
    EXPECT_EQ(text, u"S2:-1");
    std::u16string_view rest = text;
    Field f;
    ASSERT_TRUE(Next(rest, &f));
    EXPECT_EQ(f.number, 4294967295u);
}

TEST(TokenFieldsParse, RoundTripOfSeveralFields) {
    const std::u16string text = OVASerToken::FormatToken(u"P", u"a:b3:c") +
                                OVASerToken::FormatTokenNumber(u"S", 12) +
                                OVASerToken::FormatToken(u"U", u"\u00e4\u4e2d");
    std::u16string_view rest = text;
    Field f;
    ASSERT_TRUE(Next(rest, &f));
    EXPECT_EQ(f.tag, u'P');
    EXPECT_EQ(f.value, u"a:b3:c");
    ASSERT_TRUE(Next(rest, &f));
    EXPECT_EQ(f.tag, u'S');
    EXPECT_EQ(f.number, 12u);
    ASSERT_TRUE(Next(rest, &f));
    EXPECT_EQ(f.value, u"\u00e4\u4e2d");
    EXPECT_TRUE(rest.empty());
    EXPECT_FALSE(Next(rest, &f));
}

TEST(TokenFieldsParse, EmptyValue) {
    std::u16string_view rest = u"P0:R1:5";
    Field f;
    ASSERT_TRUE(Next(rest, &f));
    EXPECT_EQ(f.value, u"");
    EXPECT_EQ(f.number, 0u);
    EXPECT_EQ(rest, u"R1:5");
}

TEST(TokenFieldsParse, ValueWithSeparatorsAndDigits) {
    std::u16string_view rest = u"U7:a:b:c:d";
    Field f;
    ASSERT_TRUE(Next(rest, &f));
    EXPECT_EQ(f.value, u"a:b:c:d");
    EXPECT_TRUE(rest.empty());
}

TEST(TokenFieldsParse, NumericValueReadsLeadingDigitsOnly) {
    std::u16string_view rest = u"R3:42xS2:ab";
    Field f;
    ASSERT_TRUE(Next(rest, &f));
    EXPECT_EQ(f.number, 42u);
    ASSERT_TRUE(Next(rest, &f));
    EXPECT_EQ(f.number, 0u);
}

TEST(TokenFieldsParse, LengthBeyondTextFailsAndKeepsRest) {
    std::u16string_view rest = u"P5:abc";
    Field f;
    EXPECT_FALSE(Next(rest, &f));
    EXPECT_EQ(rest, u"P5:abc");
    std::u16string_view oneOver = u"P4:abc";
    EXPECT_FALSE(Next(oneOver, &f));
    EXPECT_EQ(oneOver, u"P4:abc");
    std::u16string_view exact = u"P3:abc";
    EXPECT_TRUE(Next(exact, &f));
    EXPECT_TRUE(exact.empty());
}

TEST(TokenFieldsParse, MissingNumberOrColonFails) {
    Field f;
    std::u16string_view noNumber = u"Pabc:x";
    EXPECT_FALSE(Next(noNumber, &f));
    EXPECT_EQ(noNumber, u"Pabc:x");
    std::u16string_view tagOnly = u"P";
    EXPECT_FALSE(Next(tagOnly, &f));
    std::u16string_view noColon = u"P3abc";
    EXPECT_FALSE(Next(noColon, &f));
}

TEST(TokenFieldsParse, HugeOrNegativeLengthFails) {
    Field f;
    std::u16string_view huge = u"P99999999999999999999:abc";
    EXPECT_FALSE(Next(huge, &f));
    std::u16string_view negative = u"P-1:abc";
    EXPECT_FALSE(Next(negative, &f));
}

TEST(TokenFieldsParse, FailureStopsAfterTheGoodFields) {
    std::u16string_view rest = u"P2:okR9:1";
    Field f;
    ASSERT_TRUE(Next(rest, &f));
    EXPECT_EQ(f.value, u"ok");
    EXPECT_FALSE(Next(rest, &f));
    EXPECT_EQ(rest, u"R9:1");
}

}  // namespace
}  // namespace ovsvc
