// Splitting rule lines into fields.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "rules/string_parser.h"

namespace ovsvc {
namespace {

using Fields = std::vector<std::u16string>;

Fields SplitAll(std::u16string_view text, const ParserConfig& config = kCommaList) {
    CStringParser parser;
    const int n = parser.Split(text, config);
    Fields fields;
    for (int i = 0; i < n; ++i) {
        fields.emplace_back(parser.GetArg(i));
    }
    EXPECT_EQ(parser.GetArg(n), nullptr);
    return fields;
}

struct Case {
    std::u16string_view line;
    Fields fields;
};

void ExpectSplits(const std::vector<Case>& cases, const ParserConfig& config = kCommaList) {
    for (const Case& c : cases) {
        EXPECT_EQ(SplitAll(c.line, config), c.fields)
            << "line: " << std::string(c.line.begin(), c.line.end());
    }
}

TEST(StringParserSeparators, CommaList) {
    ExpectSplits({
        {u"a,b,", {u"a", u"b"}},  // a trailing comma adds no empty field
        {u"a,,b", {u"a", u"", u"b"}},
        {u",", {u""}},
        {u",,,,,,,,,!P,", {u"", u"", u"", u"", u"", u"", u"", u"", u"", u"!P"}},
        {u",,,,,,,,,,x", {u"", u"", u"", u"", u"", u"", u"", u"", u"", u"", u"x"}},
    });
}

TEST(StringParserSeparators, OtherConfigurations) {
    ParserConfig trailing = kCommaList;
    trailing.noTrailingEmpty = false;
    ExpectSplits({{u"a,b,", {u"a", u"b", u""}}}, trailing);
    ParserConfig collapse = kCommaList;
    collapse.collapseSeparators = true;
    ExpectSplits({{u"a,,,b", {u"a", u"b"}}}, collapse);
    ParserConfig noQuotes;
    noQuotes.separator = u';';
    ExpectSplits({{u"\"a;b\"", {u"\"a", u"b\""}}}, noQuotes);
    ParserConfig keep = kCommaList;
    keep.keepQuotes = true;
    ExpectSplits({{u"a,\"b,c\"", {u"a", u"\"b,c\""}}}, keep);
}

TEST(StringParserQuotes, QuotedStretches) {
    ExpectSplits({
        {u"\"x,y\",z", {u"x,y", u"z"}},  // the line starts inside the quotes
        {u"a,\"b,c\",d", {u"a", u"b,c", u"d"}},
        {u"a,\"b,c", {u"a", u"b,c"}},  // an unclosed quote runs to the end
        {u"\"", {u""}},
        // A doubled quote inside quotes is one quote and leaves the stretch;
        // the last quote opens a new one.
        {u"\"a\"\"b\"", {u"a\"b"}},
        {u"\"a\"\"b\",c", {u"a\"b,c"}},
    });
}

TEST(StringParserQuotes, EscapesBeforeQuotes) {
    ExpectSplits({
        {u"a\\\"b,c", {u"a\"b", u"c"}},                    // odd run: literal quote
        {u"a\\\\\"b,c\",d", {u"a\\b,c", u"d"}},            // even run: halved, quote opens
        {u"a\\\\\\\"b,c", {u"a\\\"b", u"c"}},              // three: one escape, literal quote
        {u"\\\\srv\\lp1,x\\", {u"\\\\srv\\lp1", u"x\\"}},  // not before a quote: whole
    });
}

TEST(StringParserState, EmptyNullAndRepeatedSplits) {
    CStringParser parser;
    EXPECT_EQ(parser.GetArg(0), nullptr);  // nothing split yet
    EXPECT_EQ(parser.Split(u"", kCommaList), 0);
    EXPECT_EQ(parser.Split(static_cast<const char16_t*>(nullptr), kCommaList), 0);
    ASSERT_EQ(parser.Split(u"a,b,c", kCommaList), 3);
    ASSERT_EQ(parser.Split(u"z", kCommaList), 1);
    EXPECT_EQ(std::u16string(parser.GetArg(0)), u"z");
    EXPECT_EQ(parser.GetArg(1), nullptr);
    EXPECT_EQ(parser.GetArg(-1), nullptr);
}

}  // namespace
}  // namespace ovsvc
