// Splitting rule lines into fields.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/error.h"
#include "rules/string_parser.h"

namespace ovsvc {
namespace {

std::vector<std::u16string> SplitAll(std::u16string_view text,
                                     const ParserConfig& config = kCommaList) {
    CStringParser parser;
    const int n = parser.Split(text, config);
    std::vector<std::u16string> fields;
    for (int i = 0; i < n; ++i) {
        fields.emplace_back(parser.GetArg(i));
    }
    EXPECT_EQ(parser.GetArg(n), nullptr);
    return fields;
}

using Fields = std::vector<std::u16string>;

TEST(StringParserSeparators, TrailingCommaAddsNoEmptyField) {
    EXPECT_EQ(SplitAll(u"a,b,"), (Fields{u"a", u"b"}));
}

TEST(StringParserSeparators, EmptyMiddleFieldIsKept) {
    EXPECT_EQ(SplitAll(u"a,,b"), (Fields{u"a", u"", u"b"}));
}

TEST(StringParserSeparators, TryRuleLineHasTenFields) {
    const Fields fields = SplitAll(u",,,,,,,,,!P,");
    ASSERT_EQ(fields.size(), 10u);
    EXPECT_EQ(fields[9], u"!P");
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(fields[static_cast<std::size_t>(i)], u"");
    }
}

TEST(StringParserSeparators, TenCommasAndOneCharacterGiveElevenFields) {
    const Fields fields = SplitAll(u",,,,,,,,,,x");
    ASSERT_EQ(fields.size(), 11u);
    EXPECT_EQ(fields[10], u"x");
}

TEST(StringParserSeparators, EmptyAndNullTextGiveNoFields) {
    CStringParser parser;
    EXPECT_EQ(parser.Split(u"", kCommaList), 0);
    EXPECT_EQ(parser.GetArg(0), nullptr);
    EXPECT_EQ(parser.Split(static_cast<const char16_t*>(nullptr), kCommaList), 0);
}

TEST(StringParserSeparators, LoneCommaIsOneEmptyField) {
    EXPECT_EQ(SplitAll(u","), (Fields{u""}));
}

TEST(StringParserSeparators, TrailingEmptyFieldWhenConfigured) {
    ParserConfig config = kCommaList;
    config.noTrailingEmpty = false;
    EXPECT_EQ(SplitAll(u"a,b,", config), (Fields{u"a", u"b", u""}));
}

TEST(StringParserSeparators, CollapsedSeparatorsCountOnce) {
    ParserConfig config = kCommaList;
    config.collapseSeparators = true;
    EXPECT_EQ(SplitAll(u"a,,,b", config), (Fields{u"a", u"b"}));
}

TEST(StringParserQuotes, LineStartingWithQuoteKeepsCommaInsideField) {
    EXPECT_EQ(SplitAll(u"\"x,y\",z"), (Fields{u"x,y", u"z"}));
}

TEST(StringParserQuotes, QuotedStretchInTheMiddleOfALine) {
    EXPECT_EQ(SplitAll(u"a,\"b,c\",d"), (Fields{u"a", u"b,c", u"d"}));
}

TEST(StringParserQuotes, BackslashBeforeQuoteGivesLiteralQuote) {
    EXPECT_EQ(SplitAll(u"a\\\"b,c"), (Fields{u"a\"b", u"c"}));
}

TEST(StringParserQuotes, TwoBackslashesBeforeQuoteGiveOneAndOpenQuotes) {
    EXPECT_EQ(SplitAll(u"a\\\\\"b,c\",d"), (Fields{u"a\\b,c", u"d"}));
}

TEST(StringParserQuotes, ThreeBackslashesBeforeQuoteGiveOneAndLiteralQuote) {
    EXPECT_EQ(SplitAll(u"a\\\\\\\"b,c"), (Fields{u"a\\\"b", u"c"}));
}

TEST(StringParserQuotes, BackslashesNotBeforeQuoteStayWhole) {
    EXPECT_EQ(SplitAll(u"\\\\srv\\lp1,x\\"), (Fields{u"\\\\srv\\lp1", u"x\\"}));
}

TEST(StringParserQuotes, DoubledQuoteInsideQuotesIsLiteralAndLeavesQuotes) {
    // The final quote opens a new quoted stretch that runs to the end.
    EXPECT_EQ(SplitAll(u"\"a\"\"b\""), (Fields{u"a\"b"}));
    EXPECT_EQ(SplitAll(u"\"a\"\"b\",c"), (Fields{u"a\"b,c"}));
}

TEST(StringParserQuotes, UnclosedQuoteRunsToTheEnd) {
    EXPECT_EQ(SplitAll(u"a,\"b,c"), (Fields{u"a", u"b,c"}));
}

TEST(StringParserQuotes, LoneQuoteIsOneEmptyField) {
    EXPECT_EQ(SplitAll(u"\""), (Fields{u""}));
}

TEST(StringParserQuotes, KeepQuotesCopiesDelimitingQuotes) {
    ParserConfig config = kCommaList;
    config.keepQuotes = true;
    EXPECT_EQ(SplitAll(u"a,\"b,c\"", config), (Fields{u"a", u"\"b,c\""}));
}

TEST(StringParserQuotes, WithoutQuoteCharacterQuotesAreText) {
    ParserConfig config;
    config.separator = u';';
    EXPECT_EQ(SplitAll(u"\"a;b\"", config), (Fields{u"\"a", u"b\""}));
}

TEST(StringParserState, SplittingAgainReplacesFields) {
    CStringParser parser;
    ASSERT_EQ(parser.Split(u"a,b,c", kCommaList), 3);
    ASSERT_EQ(parser.Split(u"z", kCommaList), 1);
    EXPECT_EQ(std::u16string(parser.GetArg(0)), u"z");
    EXPECT_EQ(parser.GetArg(1), nullptr);
    EXPECT_EQ(parser.GetArg(-1), nullptr);
}

TEST(StringParserState, NoSplitMeansNoFields) {
    const CStringParser parser;
    EXPECT_EQ(parser.GetArg(0), nullptr);
    EXPECT_EQ(parser.Count(), 0);
}

}  // namespace
}  // namespace ovsvc
