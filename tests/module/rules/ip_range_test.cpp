// Reading address ranges of rules.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "rules/ip_range.h"

namespace ovsvc {
namespace {

constexpr std::uint32_t Addr(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
    return (a << 24) | (b << 16) | (c << 8) | d;
}

std::string Narrow(std::u16string_view text) {
    return std::string(text.begin(), text.end());
}

TEST(IPRangeForms, ValidTexts) {
    struct Case {
        std::u16string_view text;
        std::uint32_t low;
        std::uint32_t high;
    };
    const std::vector<Case> cases{
        {u"  *\t", 0, 0xFFFFFFFFu},
        {u"10.1.2.3", 0x0A010203u, 0x0A010203u},  // first octet in the top byte
        {u"10.1.0.0/16", Addr(10, 1, 0, 0), Addr(10, 1, 255, 255)},
        {u"0.0.0.0/0", 0, 0xFFFFFFFFu},
        {u"192.168.7.9/32", Addr(192, 168, 7, 9), Addr(192, 168, 7, 9)},
        {u"10.0.0.9-10.0.0.1", Addr(10, 0, 0, 1), Addr(10, 0, 0, 9)},  // swapped
        {u"255.255.255.0-255.255.255.255", 0xFFFFFF00u, 0xFFFFFFFFu},
    };
    for (const Case& c : cases) {
        CIPRange range;
        ASSERT_TRUE(range.Parse(c.text)) << Narrow(c.text);
        EXPECT_EQ(range.low, c.low) << Narrow(c.text);
        EXPECT_EQ(range.high, c.high) << Narrow(c.text);
    }
    const CIPRange fresh;
    EXPECT_EQ(fresh.low, 0u);
    EXPECT_EQ(fresh.high, 0xFFFFFFFFu);
}

TEST(IPRangeInvalid, RejectedTextsLeaveTheRangeAlone) {
    const std::u16string_view texts[] = {
        u"",
        u"   ",  // empty
        u"*.*.*.*",
        u"* x",  // star followed by anything
        u"1.2.3.4 x",
        u"1.2.3.4x",
        u"1.2.3.4-1.2.3.5 x",
        u"10.0.0.0/8x",  // trailing text
        u"1.2.3.256",
        u"256.0.0.0",
        u"1.2.3.4-1.2.300.4",  // octet too big
        u"1.2.3.99999999999999999999",
        u"1.2.3.-1",
        u"1.2.3",
        u"1.2.3.",
        u"1.2.3.4-5.6",  // too few octets
        u"10.0.0.0/33",
        u"10.0.0.0/",
        u"10.1.2.3/16",  // bad prefix, host bits set
        u"10.0.0.0+10.0.0.1",
    };
    for (const std::u16string_view text : texts) {
        CIPRange range;
        range.low = 7;
        range.high = 9;
        EXPECT_FALSE(range.Parse(text)) << Narrow(text);
        EXPECT_EQ(range.low, 7u) << Narrow(text);
        EXPECT_EQ(range.high, 9u) << Narrow(text);
    }
}

}  // namespace
}  // namespace ovsvc
