// DEVMODEW bytes through Windows' own structure, so that the platform's
// offsets are checked against <wingdi.h> when this file is compiled.
#include <cstddef>
#include <cstring>

#include "platform/spooler.h"
#include "win32_api.h"

namespace platform {

namespace {

static_assert(sizeof(::DEVMODEW) == DevMode::kPublicSize);
static_assert(offsetof(::DEVMODEW, dmDeviceName) == DevMode::kDeviceNameOffset);
static_assert(offsetof(::DEVMODEW, dmSpecVersion) == DevMode::kSpecVersionOffset);
static_assert(offsetof(::DEVMODEW, dmDriverVersion) == DevMode::kDriverVersionOffset);
static_assert(offsetof(::DEVMODEW, dmSize) == DevMode::kSizeOffset);
static_assert(offsetof(::DEVMODEW, dmDriverExtra) == DevMode::kDriverExtraOffset);
static_assert(offsetof(::DEVMODEW, dmFields) == DevMode::kFieldsOffset);
static_assert(offsetof(::DEVMODEW, dmOrientation) == DevMode::kOrientationOffset);
static_assert(offsetof(::DEVMODEW, dmPaperSize) == DevMode::kPaperSizeOffset);
static_assert(offsetof(::DEVMODEW, dmPaperLength) == DevMode::kPaperLengthOffset);
static_assert(offsetof(::DEVMODEW, dmPaperWidth) == DevMode::kPaperWidthOffset);
static_assert(offsetof(::DEVMODEW, dmScale) == DevMode::kScaleOffset);
static_assert(offsetof(::DEVMODEW, dmCopies) == DevMode::kCopiesOffset);
static_assert(offsetof(::DEVMODEW, dmDefaultSource) == DevMode::kDefaultSourceOffset);
static_assert(offsetof(::DEVMODEW, dmPrintQuality) == DevMode::kPrintQualityOffset);
static_assert(offsetof(::DEVMODEW, dmColor) == DevMode::kColorOffset);
static_assert(offsetof(::DEVMODEW, dmDuplex) == DevMode::kDuplexOffset);
static_assert(offsetof(::DEVMODEW, dmYResolution) == DevMode::kYResolutionOffset);
static_assert(offsetof(::DEVMODEW, dmTTOption) == DevMode::kTTOptionOffset);
static_assert(offsetof(::DEVMODEW, dmCollate) == DevMode::kCollateOffset);
static_assert(offsetof(::DEVMODEW, dmFormName) == DevMode::kFormNameOffset);
static_assert(offsetof(::DEVMODEW, dmLogPixels) == DevMode::kLogPixelsOffset);

// Fills a 32-character field; a name of exactly 32 has no terminator.
bool PutName(wchar_t (&field)[DevMode::kNameChars], const std::u16string& name) {
    if (name.size() > DevMode::kNameChars) {
        return false;
    }
    std::memcpy(field, name.data(), name.size() * sizeof(char16_t));
    return true;
}

std::u16string GetName(const wchar_t (&field)[DevMode::kNameChars]) {
    std::size_t length = 0;
    while (length < DevMode::kNameChars && field[length] != L'\0') {
        ++length;
    }
    return win32::FromWide(field, length);
}

}  // namespace

std::vector<std::byte> DevMode::Serialize() const {
    if (tail.size() > kPublicSize - kLogPixelsOffset || driverExtra.size() > 0xFFFF) {
        return {};
    }
    ::DEVMODEW dm{};
    if (!PutName(dm.dmDeviceName, dmDeviceName) || !PutName(dm.dmFormName, dmFormName)) {
        return {};
    }
    dm.dmSpecVersion = dmSpecVersion;
    dm.dmDriverVersion = dmDriverVersion;
    dm.dmSize = static_cast<::WORD>(kPublicSize);
    dm.dmDriverExtra = static_cast<::WORD>(driverExtra.size());
    dm.dmFields = dmFields;
    dm.dmOrientation = dmOrientation;
    dm.dmPaperSize = dmPaperSize;
    dm.dmPaperLength = dmPaperLength;
    dm.dmPaperWidth = dmPaperWidth;
    dm.dmScale = dmScale;
    dm.dmCopies = dmCopies;
    dm.dmDefaultSource = dmDefaultSource;
    dm.dmPrintQuality = dmPrintQuality;
    dm.dmColor = dmColor;
    dm.dmDuplex = dmDuplex;
    dm.dmYResolution = dmYResolution;
    dm.dmTTOption = dmTTOption;
    dm.dmCollate = dmCollate;

    std::vector<std::byte> out(kPublicSize + driverExtra.size());
    std::memcpy(out.data(), &dm, sizeof(dm));
    if (!tail.empty()) {
        std::memcpy(out.data() + kLogPixelsOffset, tail.data(), tail.size());
    }
    if (!driverExtra.empty()) {
        std::memcpy(out.data() + kPublicSize, driverExtra.data(), driverExtra.size());
    }
    return out;
}

std::optional<DevMode> DevMode::Parse(const std::byte* data, std::size_t size) {
    constexpr std::size_t kHeader = offsetof(::DEVMODEW, dmFields) + sizeof(::DWORD);
    if (data == nullptr || size < kHeader) {
        return std::nullopt;
    }
    ::WORD dmSize = 0;
    ::WORD dmDriverExtra = 0;
    std::memcpy(&dmSize, data + kSizeOffset, sizeof(dmSize));
    std::memcpy(&dmDriverExtra, data + kDriverExtraOffset, sizeof(dmDriverExtra));
    if (dmSize < kHeader || static_cast<std::size_t>(dmSize) + dmDriverExtra > size) {
        return std::nullopt;
    }
    // A writer's shorter public part leaves the later fields zero; a longer
    // one's extra fields are not ours to read.
    const std::size_t known = dmSize < kPublicSize ? dmSize : kPublicSize;
    ::DEVMODEW dm{};
    std::memcpy(&dm, data, known);

    DevMode out;
    out.dmDeviceName = GetName(dm.dmDeviceName);
    out.dmSpecVersion = dm.dmSpecVersion;
    out.dmDriverVersion = dm.dmDriverVersion;
    out.dmFields = dm.dmFields;
    out.dmOrientation = dm.dmOrientation;
    out.dmPaperSize = dm.dmPaperSize;
    out.dmPaperLength = dm.dmPaperLength;
    out.dmPaperWidth = dm.dmPaperWidth;
    out.dmScale = dm.dmScale;
    out.dmCopies = dm.dmCopies;
    out.dmDefaultSource = dm.dmDefaultSource;
    out.dmPrintQuality = dm.dmPrintQuality;
    out.dmColor = dm.dmColor;
    out.dmDuplex = dm.dmDuplex;
    out.dmYResolution = dm.dmYResolution;
    out.dmTTOption = dm.dmTTOption;
    out.dmCollate = dm.dmCollate;
    out.dmFormName = GetName(dm.dmFormName);
    if (known > kLogPixelsOffset) {
        const auto* tailStart = data + kLogPixelsOffset;
        const auto* tailEnd = data + known;
        bool allZero = true;
        for (const auto* b = tailStart; b != tailEnd; ++b) {
            allZero = allZero && *b == std::byte{0};
        }
        if (!allZero) {
            out.tail.assign(tailStart, tailEnd);
        }
    }
    out.driverExtra.assign(data + dmSize, data + dmSize + dmDriverExtra);
    return out;
}

}  // namespace platform
