// Name patterns of rules.
#include <gtest/gtest.h>

#include "rules/wildcard.h"

namespace ovsvc {
namespace {

TEST(WildcardMatchBasics, IgnoresCase) {
    EXPECT_TRUE(WildcardMatch(u"hp*", u"HP LaserJet"));
    EXPECT_TRUE(WildcardMatch(u"LASERJET", u"laserjet"));
    EXPECT_TRUE(WildcardMatch(u"\u00e9*", u"\u00c9t\u00e9"));
}

TEST(WildcardMatchBasics, LiteralMustMatchWhole) {
    EXPECT_FALSE(WildcardMatch(u"abc", u"abcd"));
    EXPECT_FALSE(WildcardMatch(u"abcd", u"abc"));
}

TEST(WildcardMatchBasics, QuestionMarkIsExactlyOne) {
    EXPECT_TRUE(WildcardMatch(u"x?z", u"xyz"));
    EXPECT_FALSE(WildcardMatch(u"x?z", u"xz"));
    EXPECT_FALSE(WildcardMatch(u"x?z", u"xyyz"));
}

TEST(WildcardMatchStars, LeadingStarNeedsTheTail) {
    EXPECT_FALSE(WildcardMatch(u"*jet", u"laserjet 5"));
    EXPECT_TRUE(WildcardMatch(u"*jet", u"laserjet"));
}

TEST(WildcardMatchStars, BacktracksToTheLastStar) {
    EXPECT_TRUE(WildcardMatch(u"*ab", u"aab"));
    EXPECT_TRUE(WildcardMatch(u"a*b*c", u"aXbYbZc"));
    EXPECT_TRUE(WildcardMatch(u"*a*b", u"xaxaxb"));
    EXPECT_FALSE(WildcardMatch(u"a*b*c", u"aXbYbZ"));
    EXPECT_TRUE(WildcardMatch(u"*?x", u"abx"));
}

TEST(WildcardMatchStars, TrailingStarTakesTheRest) {
    EXPECT_TRUE(WildcardMatch(u"lp*", u"lp"));
    EXPECT_TRUE(WildcardMatch(u"lp*", u"lp1 on srv"));
    EXPECT_TRUE(WildcardMatch(u"lp**", u"lp"));
}

TEST(WildcardMatchEmpty, EmptyValue) {
    EXPECT_TRUE(WildcardMatch(u"", u""));
    EXPECT_TRUE(WildcardMatch(u"**", u""));
    EXPECT_FALSE(WildcardMatch(u"?", u""));
    EXPECT_FALSE(WildcardMatch(u"*a", u""));
}

TEST(WildcardMatchEmpty, EmptyPatternMatchesOnlyEmptyValue) {
    EXPECT_FALSE(WildcardMatch(u"", u"a"));
}

TEST(WildcardMatchLong, ManyStarsStayCorrect) {
    const std::u16string value(2000, u'a');
    EXPECT_FALSE(WildcardMatch(u"*a*a*a*a*a*a*b", value));
    EXPECT_TRUE(WildcardMatch(u"*a*a*a*a*a*a*", value));
}

}  // namespace
}  // namespace ovsvc
