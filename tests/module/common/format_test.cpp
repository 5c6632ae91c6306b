// The printf subset of the module's messages, read as Windows' wide printf
// reads it, and formats nobody should write but somebody might.
#include "common/format.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <random>
#include <string>

#include "ovtest.h"

namespace {

using ovsvc::Format;
using ovtest::U8;

std::string F(std::u16string_view format) {
    return U8(Format(format));
}
template <typename... Args>
std::string F(std::u16string_view format, const Args&... args) {
    return U8(Format(format, args...));
}

TEST(FormatIntegers, DecimalSignsAndWidths) {
    EXPECT_EQ(F(u"%d|%i|%u", -42, 17, 42u), "-42|17|42");
    EXPECT_EQ(F(u"[%5d][%-5d][%05d]", 42, 42, -42), "[   42][42   ][-0042]");
    EXPECT_EQ(F(u"[%+d][% d][%+d]", 5, 5, -5), "[+5][ 5][-5]");
    EXPECT_EQ(F(u"%d %d", INT_MIN, INT_MAX), "-2147483648 2147483647");
    EXPECT_EQ(F(u"%.2d.%.2d.%.4d", 3, 11, 2026), "03.11.2026");
    EXPECT_EQ(F(u"Id:%03d", 7), "Id:007");
    EXPECT_EQ(F(u"Id:%03d", 12345), "Id:12345");
}

TEST(FormatIntegers, PrecisionZeroWithZeroPrintsNoDigits) {
    EXPECT_EQ(F(u"[%.0d][%.0x][%5.0u]", 0, 0, 0u), "[][][     ]");
    EXPECT_EQ(F(u"[%#.0o]", 0u), "[0]");
}

TEST(FormatIntegers, PrecisionDisablesZeroFlag) {
    EXPECT_EQ(F(u"[%08.3d]", 7), "[     007]");
    EXPECT_EQ(F(u"[%-08d]", 7), "[7       ]");
}

TEST(FormatIntegers, HexOctalAndAlternateForm) {
    EXPECT_EQ(F(u"%x %X %o", 255u, 255u, 8u), "ff FF 10");
    EXPECT_EQ(F(u"%#x %#X %#o %#x", 255u, 255u, 8u, 0u), "0xff 0XFF 010 0");
    EXPECT_EQ(F(u"%08x|%.8x", 0xBEEFu, 0x12u), "0000beef|00000012");
    EXPECT_EQ(F(u"%#010x", 0xABu), "0x000000ab");
    EXPECT_EQ(F(u"%02xh", 4u), "04h");
}

// Without a length modifier an integer is 32 bits wide, as int and long are
// on Windows: a DWORD of all ones prints as -1 under %d.
TEST(FormatIntegers, LengthModifiersChooseTheBitsShown) {
    const std::uint32_t allOnes = 0xFFFFFFFFu;
    EXPECT_EQ(F(u"%d", allOnes), "-1");
    EXPECT_EQ(F(u"%u", -1), "4294967295");
    EXPECT_EQ(F(u"%x", -1), "ffffffff");
    EXPECT_EQ(F(u"%ld", allOnes), "-1");
    const std::int64_t big = 0x123456789LL;
    EXPECT_EQ(F(u"%d", big), "591751049");  // low 32 bits only
    EXPECT_EQ(F(u"%I64d|%lld|%I64x", big, big, big), "4886718345|4886718345|123456789");
    EXPECT_EQ(F(u"%I32x", big), "23456789");
    EXPECT_EQ(F(u"%hd|%hu|%hx", 70000, 70000, 0x12345), "4464|4464|2345");
    EXPECT_EQ(F(u"%hhd|%hhx", 0x1FF, 0x1FF), "-1|ff");
    EXPECT_EQ(F(u"%Iu|%zu", static_cast<std::uint64_t>(1) << 40, std::size_t{5}),
              "1099511627776|5");
    EXPECT_EQ(F(u"%lld", LLONG_MIN), "-9223372036854775808");
}

TEST(FormatIntegers, StarTakesWidthAndPrecisionFromArguments) {
    EXPECT_EQ(F(u"[%*d]", 5, 42), "[   42]");
    EXPECT_EQ(F(u"[%*d]", -5, 42), "[42   ]");
    EXPECT_EQ(F(u"[%.*d]", 4, 42), "[0042]");
    EXPECT_EQ(F(u"[%.*s]", -1, u"abc"), "[abc]");  // a negative precision is none
    EXPECT_EQ(F(u"[%*.*s]", 6, 2, u"abcdef"), "[    ab]");
}

TEST(FormatStrings, WideAndNarrowBothWays) {
    const std::u16string wide = u"Drucker \u00e4";
    const std::string narrow = "Gr\xc3\xbc\xc3\x9f";  // UTF-8
    EXPECT_EQ(F(u"%s|%ls|%ws", wide, wide, wide),
              "Drucker \xc3\xa4|Drucker \xc3\xa4|Drucker \xc3\xa4");
    EXPECT_EQ(F(u"%S|%hs", narrow, narrow), "Gr\xc3\xbc\xc3\x9f|Gr\xc3\xbc\xc3\x9f");
    // A string of the other width is still shown as text.
    EXPECT_EQ(F(u"%s|%S", narrow, wide), "Gr\xc3\xbc\xc3\x9f|Drucker \xc3\xa4");
    EXPECT_EQ(F(u"%s", "literal"), "literal");
    EXPECT_EQ(F(u"%s", u"wide literal"), "wide literal");
}

TEST(FormatStrings, NullPointersShowNull) {
    const char16_t* wideNull = nullptr;
    const char* narrowNull = nullptr;
    EXPECT_EQ(F(u"%s %S", wideNull, narrowNull), "(null) (null)");
}

TEST(FormatStrings, PrecisionCutsAndWidthPads) {
    EXPECT_EQ(F(u"[%.3s][%-6s][%6s]", u"abcdef", u"ab", u"ab"), "[abc][ab    ][    ab]");
    EXPECT_EQ(F(u"[%.10s]", u"abc"), "[abc]");
    EXPECT_EQ(F(u"[%.0s]", u"abc"), "[]");
    // A precision never splits a surrogate pair.
    const std::u16string pair = u"a\U0001F5A8b";
    EXPECT_EQ(Format(u"%.2s", pair), u"a");
    EXPECT_EQ(Format(u"%.3s", pair), u"a\U0001F5A8");
}

TEST(FormatStrings, EmbeddedNulCharactersAreKept) {
    const std::u16string withNul(u"a\0b", 3);
    EXPECT_EQ(Format(u"%s", withNul), withNul);
}

TEST(FormatCharacters, WideNarrowAndStrings) {
    EXPECT_EQ(F(u"%c%c%c", u'O', 'K', 0x263A), "OK\xe2\x98\xba");
    EXPECT_EQ(F(u"%hc|%C", 0x141, 0x141), "A|A");  // narrow: the low byte only
    EXPECT_EQ(F(u"[%3c][%-3c]", u'x', u'y'), "[  x][y  ]");
    EXPECT_EQ(F(u"%c", u"word"), "w");
    EXPECT_EQ(F(u"[%c]", 0), "[]");  // a NUL character adds nothing
}

TEST(FormatMisc, PercentPointerAndFloating) {
    EXPECT_EQ(F(u"100%%"), "100%");
    EXPECT_EQ(F(u"%p", reinterpret_cast<const void*>(std::uintptr_t{0xABC})), "0000000000000ABC");
    EXPECT_EQ(F(u"%.2f|%e|%g", 3.14159, 1500.0, 0.5), "3.14|1.500000e+03|0.5");
    EXPECT_EQ(F(u"[%8.3f][%-8.1f]", 2.5, 2.5), "[   2.500][2.5     ]");
}

TEST(FormatMisc, TextWithoutConversionsIsCopied) {
    EXPECT_EQ(F(u""), "");
    EXPECT_EQ(F(u"plain text"), "plain text");
    std::u16string out = u"head:";
    const ovsvc::FormatArg args[] = {ovsvc::FormatArg(7)};
    ovsvc::FormatTo(&out, u"%d", args);
    EXPECT_EQ(U8(out), "head:7");
}

// A message's arguments come from code; a mistake there must cost a wrong
// character, never a crash or a write through an argument.
TEST(FormatHostile, MissingArgumentsShowNothing) {
    EXPECT_EQ(F(u"a%db%sc%xd"), "abcd");
    EXPECT_EQ(F(u"[%5d][%-7s]"), "[][]");
    EXPECT_EQ(F(u"%d and %d", 1), "1 and ");
    EXPECT_EQ(F(u"[%*d]"), "[]");
    EXPECT_EQ(F(u"[%.*s]", 2), "[]");
}

TEST(FormatHostile, WrongKindsAreShownAsWellAsPossible) {
    EXPECT_EQ(F(u"%d", u"text"), "text");
    EXPECT_EQ(F(u"%x", "narrow"), "narrow");
    EXPECT_EQ(F(u"%s|%s|%s", 42, -7, 7u), "42|-7|7");
    EXPECT_EQ(F(u"%d", 3.9), "3");
    EXPECT_EQ(F(u"%f", 2), "2.000000");
    EXPECT_EQ(F(u"%p", 0x10u), "0000000000000010");
    EXPECT_EQ(F(u"%f", u"x"), "x");
    EXPECT_EQ(F(u"%s", 1.5), "1.5");
}

TEST(FormatHostile, UnknownAndUnfinishedConversionsAreShownAsWritten) {
    EXPECT_EQ(F(u"50%"), "50%");
    EXPECT_EQ(F(u"%-08"), "%-08");
    EXPECT_EQ(F(u"%I6"), "%I6");  // "I" then an unfinished conversion
    EXPECT_EQ(F(u"%y and %d", 3), "%y and 3");
    EXPECT_EQ(F(u"%Z", 1), "%Z");
}

TEST(FormatHostile, PercentNNeverWritesAndConsumesItsArgument) {
    int target = 12345;
    EXPECT_EQ(F(u"ab%ncd%d", static_cast<const void*>(&target), 9), "abcd9");
    EXPECT_EQ(target, 12345);
}

TEST(FormatHostile, HugeWidthsAndPrecisionsAreBounded) {
    const std::u16string wide = Format(u"%999999999999999999999d", 1);
    EXPECT_LE(wide.size(), 5000u);
    EXPECT_EQ(wide.back(), u'1');
    EXPECT_LE(Format(u"%.999999999d", 1).size(), 5000u);
    EXPECT_LE(Format(u"%*d", INT_MAX, 1).size(), 5000u);
    EXPECT_LE(Format(u"%*d", INT_MIN, 1).size(), 5000u);
    EXPECT_LE(Format(u"%.999999f", 1.0).size(), 5000u);
    EXPECT_EQ(Format(u"%.99999999s", u"abc"), u"abc");
}

TEST(FormatHostile, RandomFormatsNeverFail) {
    std::mt19937 random(20261123);
    const char16_t alphabet[] = u"%%%%-+ #0123456789.*hlLwIzjtq64 32diuxXocCsSpneEfgGaA%\x00e4";
    const std::u16string wide = u"w\u00e4rd";
    const std::string narrow = "n\xc3\xa4rrow";
    for (int round = 0; round < 20000; ++round) {
        std::u16string format;
        const int length = static_cast<int>(random() % 24);
        for (int i = 0; i < length; ++i) {
            format.push_back(alphabet[random() % (sizeof alphabet / sizeof alphabet[0] - 1)]);
        }
        const ovsvc::FormatArg pool[] = {ovsvc::FormatArg(-1),
                                         ovsvc::FormatArg(wide),
                                         ovsvc::FormatArg(narrow),
                                         ovsvc::FormatArg(1e308),
                                         ovsvc::FormatArg(~std::uint64_t{0}),
                                         ovsvc::FormatArg(static_cast<const void*>(nullptr))};
        const std::size_t count = random() % 7;
        const std::u16string out =
            ovsvc::FormatV(format, std::span<const ovsvc::FormatArg>(pool, count));
        ASSERT_LE(out.size(), 6 * 5000 + format.size()) << U8(format);
    }
}

TEST(FormatArgConversions, NumbersConvertBetweenKinds) {
    EXPECT_EQ(ovsvc::FormatArg(-1).asUnsigned(), ~std::uint64_t{0});
    EXPECT_EQ(ovsvc::FormatArg(1e300).asSigned(), LLONG_MAX);
    EXPECT_EQ(ovsvc::FormatArg(-1e300).asSigned(), LLONG_MIN);
    EXPECT_EQ(ovsvc::FormatArg(std::numeric_limits<double>::quiet_NaN()).asSigned(), 0);
    EXPECT_EQ(ovsvc::FormatArg(u"x").asSigned(), 0);
    EXPECT_DOUBLE_EQ(ovsvc::FormatArg(7u).asDouble(), 7.0);
    EXPECT_EQ(ovsvc::FormatArg(true).asUnsigned(), 1u);
}

}  // namespace
