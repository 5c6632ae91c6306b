// The pieces of a trace line: location prefix, level and category texts,
// the filter, the line head and the hexadecimal dump.
#include "trace/trace_line.h"

#include <gtest/gtest.h>

#include <string>

#include "ovtest.h"
#include "trace/trace.h"

namespace {

using namespace ovsvc;
using namespace ovsvc::trace;
using ovtest::U8;

TEST(TracePrefix, CppFilesGetOnePercentOthersTwo) {
    EXPECT_EQ(U8(LocationPrefix(u"Foo.h", 12, true)), "Foo%%12 _SVC_ ");
    EXPECT_EQ(U8(LocationPrefix(u"OVAIPC.cpp", 111, false)), "OVAIPC%111 _CLIENT_ ");
    EXPECT_EQ(U8(LocationPrefix(u"Main.CPP", 1, false)), "Main%1 _CLIENT_ ");
    EXPECT_EQ(U8(LocationPrefix(u"Makefile", 3, false)), "Makefile%%3 _CLIENT_ ");
    EXPECT_EQ(U8(LocationPrefix(u"x.cpp.bak", 3, false)), "x.cpp%%3 _CLIENT_ ");
}

TEST(TracePrefix, DirectoriesAreDropped) {
    EXPECT_EQ(U8(LocationPrefix(u"/src/module/channel/ovaipc.cpp", 7, true)), "ovaipc%7 _SVC_ ");
    EXPECT_EQ(U8(LocationPrefix(u"C:\\build\\src\\Cache.hpp", 0, false)), "Cache%%0 _CLIENT_ ");
    EXPECT_EQ(U8(LocationPrefix(u"", 4294967295u, false)), "%%4294967295 _CLIENT_ ");
}

TEST(TraceCodes, LevelTexts) {
    EXPECT_EQ(U8(LevelText(INF | CACH)), "INF");
    EXPECT_EQ(U8(LevelText(ERR)), "ERR");
    EXPECT_EQ(U8(LevelText(WRN | 0xFFFFFF)), "WRN");
    EXPECT_EQ(U8(LevelText(RAW | NORM)), "RAW");
    EXPECT_EQ(U8(LevelText(0x05000000)), "?5000000");
    EXPECT_EQ(U8(LevelText(0x00000001)), "?00");
    EXPECT_EQ(U8(LevelText(0xFF000000)), "?ff000000");
}

TEST(TraceCodes, CategoryTexts) {
    EXPECT_EQ(U8(std::u16string(CategoryText(INF | NOTH))), "NOTH");
    EXPECT_EQ(U8(std::u16string(CategoryText(INF | NORM))), "NORM");
    EXPECT_EQ(U8(std::u16string(CategoryText(INF | MAIN))), "MAIN");
    EXPECT_EQ(U8(std::u16string(CategoryText(INF | SYNC))), "SYNC");
    EXPECT_EQ(U8(std::u16string(CategoryText(INF | SACL))), "SACL");
    EXPECT_EQ(U8(std::u16string(CategoryText(INF | CACH))), "CACH");
    EXPECT_EQ(U8(std::u16string(CategoryText(INF | 3))), "????");
    EXPECT_EQ(U8(std::u16string(CategoryText(INF | 32))), "????");
}

TEST(TraceCodes, CodePieceShowsCategoryInHex) {
    EXPECT_EQ(U8(CodePiece(INF | SYNC)), "_INF_/SYNC=04h");
    EXPECT_EQ(U8(CodePiece(ERR | CACH)), "_ERR_/CACH=10h");
    EXPECT_EQ(U8(CodePiece(0x05000000 | NORM)), "_?5000000_/NORM=01h");
    EXPECT_EQ(U8(CodePiece(WRN | 0x123)),
              "_WRN_/????"
              "=123h");
}

TEST(TraceFilter, ErrorsAndWarningsPassAnyMask) {
    for (std::uint32_t category : {NOTH, NORM, MAIN, SYNC, SACL, CACH, 0x40u}) {
        EXPECT_TRUE(PassesFilter(ERR | category, CACH)) << category;
        EXPECT_TRUE(PassesFilter(WRN | category, CACH)) << category;
    }
}

TEST(TraceFilter, OtherLevelsNeedTheirCategoryInTheMask) {
    EXPECT_TRUE(PassesFilter(INF | CACH, CACH));
    EXPECT_FALSE(PassesFilter(INF | NORM, CACH));
    EXPECT_FALSE(PassesFilter(INF | SYNC, CACH));
    EXPECT_TRUE(PassesFilter(RAW | CACH, CACH));
    EXPECT_FALSE(PassesFilter(RAW | MAIN, CACH));
    EXPECT_TRUE(PassesFilter(0x05000000 | SYNC, SYNC));
    EXPECT_FALSE(PassesFilter(0x05000000 | NORM, SYNC));
    // Category 0 never passes.
    EXPECT_FALSE(PassesFilter(INF | NOTH, 0xFFFFFF));
    // A combined category passes when any of its bits is in the mask.
    EXPECT_TRUE(PassesFilter(INF | (SYNC | CACH), CACH));
}

TEST(TraceSections, LabelsChooseTheCategory) {
    EXPECT_EQ(CategoryOfSection(u"DLL: OVADLLRunMain()"), MAIN);
    EXPECT_EQ(CategoryOfSection(u"DLL: ClientSync()"), SYNC);
    EXPECT_EQ(CategoryOfSection(u"DLL: Add-Access-Rights()"), SACL);
    EXPECT_EQ(CategoryOfSection(u"DLL: Cache consistence()"), CACH);
    EXPECT_EQ(CategoryOfSection(u"DLL: clientsync()"), NORM);  // labels are exact
    EXPECT_EQ(CategoryOfSection(u""), NORM);
    EXPECT_EQ(CategoryOfSection(u"Ovaspool"), NORM);
}

TEST(TraceStamp, DateTimeAndThreadId) {
    EXPECT_EQ(U8(StampPiece({3, 7, 2026, 9, 5, 1, 42, 7})), "03.07.2026 09:05:01:042 Id:007 ");
    EXPECT_EQ(U8(StampPiece({31, 12, 999, 23, 59, 59, 999, 123456})),
              "31.12.0999 23:59:59:999 Id:123456 ");
}

TEST(TraceText, CutAtTheByteLimitWithoutSplittingACharacter) {
    std::string out;
    AppendUtf8Limited(&out, u"abcdef", 4);
    EXPECT_EQ(out, "abcd");
    out.clear();
    AppendUtf8Limited(&out, u"ab\u00e4", 3);  // the 2-byte character would not fit whole
    EXPECT_EQ(out, "ab");
    out.clear();
    AppendUtf8Limited(&out, u"ab\u00e4", 4);
    EXPECT_EQ(out, "ab\xc3\xa4");
    out = "keep:";
    AppendUtf8Limited(&out, std::u16string(kTextLimit + 100, u'x'), kTextLimit);
    EXPECT_EQ(out.size(), 5 + kTextLimit);
}

TEST(TraceDump, NoDataForEmptyOrNegativeLengths) {
    std::string out;
    AppendDump(&out, "abc", 0);
    EXPECT_EQ(out, "    no data");
    out.clear();
    AppendDump(&out, "abc", -5);
    EXPECT_EQ(out, "    no data");
    out.clear();
    AppendDump(&out, nullptr, 10);
    EXPECT_EQ(out, "    no data");
}

TEST(TraceDump, RowsOfSixteenBytesWithHexAndCharacters) {
    unsigned char data[20];
    for (int i = 0; i < 20; ++i) {
        data[i] = static_cast<unsigned char>(0x41 + i);
    }
    data[1] = 0x00;
    data[2] = 0x7F;
    data[3] = 0xE4;
    data[17] = '\n';
    std::string out;
    AppendDump(&out, data, 20);
    const std::string first =
        "    41 00 7f e4 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50   :A...EFGHIJKLMNOP\r\n";
    const std::string second = "    51 0a 53 54   :Q.ST\r\n";
    EXPECT_EQ(out, first + second);
}

TEST(TraceDump, ExactMultipleOfSixteenHasNoEmptyRow) {
    const std::string data(32, 'z');
    std::string out;
    AppendDump(&out, data.data(), 32);
    std::size_t rows = 0;
    for (std::size_t at = out.find("\r\n"); at != std::string::npos;
         at = out.find("\r\n", at + 1)) {
        ++rows;
    }
    EXPECT_EQ(rows, 2u);
}

}  // namespace
