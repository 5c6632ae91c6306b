// Reading address ranges of rules.
#include <gtest/gtest.h>

#include "rules/ip_range.h"

namespace ovsvc {
namespace {

struct Range {
    std::uint32_t low;
    std::uint32_t high;
};

constexpr std::uint32_t Addr(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
    return (a << 24) | (b << 16) | (c << 8) | d;
}

Range ParseOk(std::u16string_view text) {
    CIPRange range;
    EXPECT_TRUE(range.Parse(text)) << std::string(text.begin(), text.end());
    return {range.low, range.high};
}

bool Invalid(std::u16string_view text) {
    CIPRange range;
    range.low = 7;
    range.high = 9;
    const bool ok = range.Parse(text);
    // A failed parse leaves the range untouched.
    EXPECT_EQ(range.low, 7u);
    EXPECT_EQ(range.high, 9u);
    return !ok;
}

TEST(IPRangeForms, FreshRangeCoversEverything) {
    const CIPRange range;
    EXPECT_EQ(range.low, 0u);
    EXPECT_EQ(range.high, 0xFFFFFFFFu);
}

TEST(IPRangeForms, StarWithBlanksIsWholeRange) {
    const Range r = ParseOk(u"  *\t");
    EXPECT_EQ(r.low, 0u);
    EXPECT_EQ(r.high, 0xFFFFFFFFu);
}

TEST(IPRangeForms, SingleAddressFirstOctetIsTopByte) {
    const Range r = ParseOk(u"10.1.2.3");
    EXPECT_EQ(r.low, 0x0A010203u);
    EXPECT_EQ(r.high, 0x0A010203u);
}

TEST(IPRangeForms, PrefixSixteen) {
    const Range r = ParseOk(u"10.1.0.0/16");
    EXPECT_EQ(r.low, Addr(10, 1, 0, 0));
    EXPECT_EQ(r.high, Addr(10, 1, 255, 255));
}

TEST(IPRangeForms, PrefixZeroIsWholeRange) {
    const Range r = ParseOk(u"0.0.0.0/0");
    EXPECT_EQ(r.low, 0u);
    EXPECT_EQ(r.high, 0xFFFFFFFFu);
}

TEST(IPRangeForms, PrefixThirtyTwoIsOneAddress) {
    const Range r = ParseOk(u"192.168.7.9/32");
    EXPECT_EQ(r.low, Addr(192, 168, 7, 9));
    EXPECT_EQ(r.high, Addr(192, 168, 7, 9));
}

TEST(IPRangeForms, ReversedRangeIsSwapped) {
    const Range r = ParseOk(u"10.0.0.9-10.0.0.1");
    EXPECT_EQ(r.low, Addr(10, 0, 0, 1));
    EXPECT_EQ(r.high, Addr(10, 0, 0, 9));
}

TEST(IPRangeForms, HighestAddresses) {
    const Range r = ParseOk(u"255.255.255.0-255.255.255.255");
    EXPECT_EQ(r.low, 0xFFFFFF00u);
    EXPECT_EQ(r.high, 0xFFFFFFFFu);
}

TEST(IPRangeInvalid, EmptyOrBlank) {
    EXPECT_TRUE(Invalid(u""));
    EXPECT_TRUE(Invalid(u"   "));
}

TEST(IPRangeInvalid, StarFollowedByAnything) {
    EXPECT_TRUE(Invalid(u"*.*.*.*"));
    EXPECT_TRUE(Invalid(u"* x"));
}

TEST(IPRangeInvalid, TrailingText) {
    EXPECT_TRUE(Invalid(u"1.2.3.4 x"));
    EXPECT_TRUE(Invalid(u"1.2.3.4x"));
    EXPECT_TRUE(Invalid(u"1.2.3.4-1.2.3.5 x"));
    EXPECT_TRUE(Invalid(u"10.0.0.0/8x"));
}

TEST(IPRangeInvalid, OctetOutOfRange) {
    EXPECT_TRUE(Invalid(u"1.2.3.256"));
    EXPECT_TRUE(Invalid(u"256.0.0.0"));
    EXPECT_TRUE(Invalid(u"1.2.3.4-1.2.300.4"));
    EXPECT_TRUE(Invalid(u"1.2.3.99999999999999999999"));
    EXPECT_TRUE(Invalid(u"1.2.3.-1"));
}

TEST(IPRangeInvalid, TooFewOctets) {
    EXPECT_TRUE(Invalid(u"1.2.3"));
    EXPECT_TRUE(Invalid(u"1.2.3."));
    EXPECT_TRUE(Invalid(u"1.2.3.4-5.6"));
}

TEST(IPRangeInvalid, BadPrefix) {
    EXPECT_TRUE(Invalid(u"10.0.0.0/33"));
    EXPECT_TRUE(Invalid(u"10.0.0.0/"));
    EXPECT_TRUE(Invalid(u"10.1.2.3/16"));  // host bits set
}

TEST(IPRangeInvalid, UnknownSeparator) {
    EXPECT_TRUE(Invalid(u"10.0.0.0+10.0.0.1"));
}

}  // namespace
}  // namespace ovsvc
