// The packed printer description: when request data counts as one, and how
// its zlib streams unpack (whole streams only, within the size limit).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "create/packed_ppd.h"

namespace ovsvc {
namespace {

std::vector<std::byte> Bytes(std::string_view text) {
    const auto* data = reinterpret_cast<const std::byte*>(text.data());
    return {data, data + text.size()};
}

// The zlib streams of a packed description (the part after the signature).
std::vector<std::byte> Streams(const std::vector<std::string_view>& texts) {
    std::vector<std::byte> packed = PackPpd(texts);
    packed.erase(packed.begin(), packed.begin() + kPackedPpdSignatureBytes);
    return packed;
}

struct Unpacked {
    PpdUnpackResult result;
    std::string text;
    std::size_t largestPiece = 0;
};

Unpacked Unpack(const std::vector<std::byte>& streams) {
    Unpacked u;
    u.result = UnpackPpdStreams(streams, [&](std::span<const std::byte> piece) {
        u.text.append(reinterpret_cast<const char*>(piece.data()), piece.size());
        u.largestPiece = std::max(u.largestPiece, piece.size());
        return true;
    });
    return u;
}

TEST(PackedPpdTest, DataCountsAsDescriptionOnlyWhenSignedAndShortEnough) {
    struct Case {
        const char* what;
        std::size_t size;
        const char* start;
        PackedPpdState expected;
    };
    for (const Case& c : {
             Case{"4 bytes", 4, "OVPP", PackedPpdState::kMissing},
             Case{"the bare signature", 5, "OVPPD", PackedPpdState::kUsable},
             Case{"largest the channel carries whole", 131072, "OVPPD", PackedPpdState::kUsable},
             Case{"possibly cut by the channel", 131073, "OVPPD", PackedPpdState::kCutOff},
             Case{"longer than the channel carries", 131074, "OVPPD", PackedPpdState::kTooBig},
             Case{"unsigned", 64, "ovppd", PackedPpdState::kWrongSignature},
             Case{"unsigned and cut off", 131073, "XXXXX", PackedPpdState::kCutOff},
         }) {
        std::vector<char> data(c.size, 'x');
        std::memcpy(data.data(), c.start, std::min<std::size_t>(c.size, std::strlen(c.start)));
        EXPECT_EQ(CheckPackedPpd(data.data(), data.size()), c.expected) << c.what;
    }
    EXPECT_EQ(CheckPackedPpd(nullptr, 100), PackedPpdState::kMissing);
}

TEST(PackedPpdTest, ConcatenatedStreamsUnpackOneAfterTheOtherInSmallPieces) {
    std::string big;
    for (int i = 0; big.size() < 200000; ++i) {
        big += "*Option" + std::to_string(i) + ": \"value " + std::to_string(i * 7919) + "\"\n";
    }
    const Unpacked two = Unpack(Streams({"*PPD-Adobe: \"4.3\"\n", big, ""}));
    ASSERT_TRUE(two.result.ok()) << two.result.message;
    EXPECT_EQ(two.text, "*PPD-Adobe: \"4.3\"\n" + big);
    EXPECT_EQ(two.result.bytes, two.text.size());
    EXPECT_LE(two.largestPiece, kPpdUnpackBufferBytes);
}

TEST(PackedPpdTest, DamagedStreamsFail) {
    const std::vector<std::byte> whole = Streams({"*PPD-Adobe: \"4.3\"\n*ModelName: \"X\"\n"});
    std::vector<std::byte> truncated = whole;
    truncated.resize(whole.size() - 3);  // the checksum is cut
    std::vector<std::byte> trailing = whole;
    for (const std::byte b : Bytes("garbage")) {
        trailing.push_back(b);
    }
    std::vector<std::byte> secondCut = Streams({"first\n", "second\n"});
    secondCut.resize(secondCut.size() - 1);
    struct Case {
        const char* what;
        std::vector<std::byte> streams;
        PpdUnpackStatus expected;
    };
    for (const Case& c : {
             Case{"no stream at all", {}, PpdUnpackStatus::kTruncated},
             Case{"stream without its end", truncated, PpdUnpackStatus::kTruncated},
             Case{"second stream without its end", secondCut, PpdUnpackStatus::kTruncated},
             Case{"plain text, not zlib", Bytes("*PPD-Adobe: \"4.3\"\n"),
                  PpdUnpackStatus::kZlibError},
             Case{"bytes after the last stream", trailing, PpdUnpackStatus::kZlibError},
         }) {
        const Unpacked u = Unpack(c.streams);
        EXPECT_EQ(u.result.status, c.expected) << c.what;
        EXPECT_FALSE(u.result.message.empty()) << c.what;
    }
}

TEST(PackedPpdTest, CompressionBombStopsAtTheLimit) {
    const std::string zeros(8 << 20, '\0');
    const std::vector<std::byte> bomb = Streams({zeros});
    ASSERT_LT(bomb.size(), 10000u);  // 8 MiB of zeros pack to about 8 KB
    const Unpacked u = Unpack(bomb);
    EXPECT_EQ(u.result.status, PpdUnpackStatus::kTooBig);
    EXPECT_LE(u.text.size(), MaxUnpackedPpdBytes(bomb.size()));
    // A kilobyte that unpacks to a megabyte is over its limit too.
    const std::vector<std::byte> small = Streams({std::string(1 << 20, ' ')});
    ASSERT_LT(small.size(), 1200u);
    EXPECT_EQ(Unpack(small).result.status, PpdUnpackStatus::kTooBig);
    // A 256 KiB description passes whatever its ratio.
    EXPECT_TRUE(Unpack(Streams({std::string(256 * 1024, ' ')})).result.ok());
}

TEST(PackedPpdTest, RefusedPieceStopsTheUnpacking) {
    int calls = 0;
    const PpdUnpackResult r = UnpackPpdStreams(
        Streams({std::string(5000, 'a')}), [&](std::span<const std::byte>) { return ++calls < 2; });
    EXPECT_EQ(r.status, PpdUnpackStatus::kWriteFailed);
    EXPECT_EQ(calls, 2);
}

}  // namespace
}  // namespace ovsvc
