// Device modes: Windows' DEVMODEW byte layout, both ways.
#include <gtest/gtest.h>

#include <cstring>

#include "platform/spooler.h"

namespace {

using platform::DevMode;

template <typename T>
T At(const std::vector<std::byte>& bytes, std::size_t offset) {
    T value{};
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return value;
}

std::u16string NameAt(const std::vector<std::byte>& bytes, std::size_t offset) {
    std::u16string name;
    for (std::size_t i = 0; i < 32; ++i) {
        const auto c = At<char16_t>(bytes, offset + 2 * i);
        if (c == 0) {
            break;
        }
        name.push_back(c);
    }
    return name;
}

DevMode Sample() {
    DevMode dm;
    dm.dmDeviceName = u"PC1:3#HP 4 on PC1";
    dm.dmDriverVersion = 0x0600;
    dm.dmFields = platform::DM_PAPERSIZE | platform::DM_DUPLEX | platform::DM_DEFAULTSOURCE |
                  platform::DM_PRINTQUALITY | platform::DM_YRESOLUTION | platform::DM_FORMNAME;
    dm.dmPaperSize = platform::DMPAPER_A4;
    dm.dmPaperLength = 2970;
    dm.dmPaperWidth = 2100;
    dm.dmDefaultSource = 7;
    dm.dmPrintQuality = 600;
    dm.dmDuplex = platform::DMDUP_VERTICAL;
    dm.dmYResolution = 1200;
    dm.dmFormName = u"A4";
    dm.driverExtra = {std::byte{0xAA}, std::byte{0xBB}, std::byte{0xCC}};
    return dm;
}

TEST(SpoolerDevMode, FieldsLandAtWindowsOffsetsAndComeBack) {
    const auto bytes = Sample().Serialize();
    ASSERT_EQ(bytes.size(), 220u + 3u);
    EXPECT_EQ(NameAt(bytes, 0), u"PC1:3#HP 4 on PC1");
    EXPECT_EQ(At<std::uint16_t>(bytes, 64), 0x0401);  // dmSpecVersion
    EXPECT_EQ(At<std::uint16_t>(bytes, 66), 0x0600);  // dmDriverVersion
    EXPECT_EQ(At<std::uint16_t>(bytes, 68), 220);     // dmSize
    EXPECT_EQ(At<std::uint16_t>(bytes, 70), 3);       // dmDriverExtra
    EXPECT_EQ(At<std::uint32_t>(bytes, 72), 0x00013602u);
    EXPECT_EQ(At<std::int16_t>(bytes, 78), 9);     // dmPaperSize
    EXPECT_EQ(At<std::int16_t>(bytes, 80), 2970);  // dmPaperLength
    EXPECT_EQ(At<std::int16_t>(bytes, 82), 2100);  // dmPaperWidth
    EXPECT_EQ(At<std::int16_t>(bytes, 88), 7);     // dmDefaultSource
    EXPECT_EQ(At<std::int16_t>(bytes, 90), 600);   // dmPrintQuality
    EXPECT_EQ(At<std::int16_t>(bytes, 94), 2);     // dmDuplex
    EXPECT_EQ(At<std::int16_t>(bytes, 96), 1200);  // dmYResolution
    EXPECT_EQ(NameAt(bytes, 102), u"A4");
    EXPECT_EQ(bytes[220], std::byte{0xAA});
    EXPECT_EQ(bytes[222], std::byte{0xCC});
    const auto parsed = DevMode::Parse(bytes);
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(*parsed, Sample()) << "every field and the private bytes come back";
}

TEST(SpoolerDevMode, NamesFillTheirFieldButAreNeverCut) {
    DevMode dm;
    dm.dmDeviceName = std::u16string(32, u'x');  // no room for a terminator, as in Windows
    dm.dmFormName = u"Letter";
    const auto bytes = dm.Serialize();
    ASSERT_EQ(bytes.size(), 220u);
    const auto parsed = DevMode::Parse(bytes);
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(parsed->dmDeviceName, dm.dmDeviceName);
    EXPECT_EQ(parsed->dmSpecVersion, 0x0401);  // the next field is untouched
    EXPECT_EQ(parsed->dmFormName, u"Letter");

    dm.dmDeviceName = std::u16string(33, u'x');
    EXPECT_TRUE(dm.Serialize().empty());
    dm.dmDeviceName.clear();
    dm.dmFormName = std::u16string(33, u'f');
    EXPECT_TRUE(dm.Serialize().empty());
}

TEST(SpoolerDevMode, ParseRefusesTruncatedOrInconsistentBytes) {
    auto bytes = Sample().Serialize();
    EXPECT_FALSE(DevMode::Parse(nullptr, 0).has_value());
    EXPECT_FALSE(DevMode::Parse(bytes.data(), 75).has_value());
    // dmSize + dmDriverExtra claims one byte more than there is.
    EXPECT_FALSE(DevMode::Parse(bytes.data(), bytes.size() - 1).has_value());
    EXPECT_TRUE(DevMode::Parse(bytes.data(), bytes.size()).has_value());
    // A dmSize below the header is not a device mode.
    bytes[68] = std::byte{40};
    bytes[69] = std::byte{0};
    EXPECT_FALSE(DevMode::Parse(bytes).has_value());
}

TEST(SpoolerDevMode, ShorterAndLongerPublicPartsFromOtherWriters) {
    auto bytes = Sample().Serialize();
    // A writer that knew only up to dmDuplex (96 bytes) and no private bytes.
    std::vector<std::byte> old(bytes.begin(), bytes.begin() + 96);
    old[68] = std::byte{96};
    old[69] = std::byte{0};
    old[70] = std::byte{0};
    const auto parsed = DevMode::Parse(old);
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(parsed->dmDuplex, platform::DMDUP_VERTICAL);
    EXPECT_EQ(parsed->dmYResolution, 0);
    EXPECT_TRUE(parsed->dmFormName.empty());
    EXPECT_TRUE(parsed->driverExtra.empty());
    // Written again it has the current size.
    EXPECT_EQ(parsed->Serialize().size(), 220u);

    // A newer writer with 4 more public bytes before the private ones.
    std::vector<std::byte> newer(bytes.begin(), bytes.begin() + 220);
    newer.insert(newer.end(), 4, std::byte{0x11});
    newer.push_back(std::byte{0x42});
    newer[68] = std::byte{224};
    newer[70] = std::byte{1};
    const auto later = DevMode::Parse(newer);
    ASSERT_TRUE(later.has_value());
    ASSERT_EQ(later->driverExtra.size(), 1u);
    EXPECT_EQ(later->driverExtra[0], std::byte{0x42});
}

}  // namespace
