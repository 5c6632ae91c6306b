// DEVMODEW in Windows' byte layout (little-endian, UTF-16 names of 32 units),
// shared by both backends; the Windows build checks the offsets against
// <wingdi.h> (win32/spool_devmode.cpp).
#include <cstring>

#include "platform/spooler.h"

namespace platform {

namespace {

template <typename T>
void Put(std::vector<std::byte>& out, std::size_t offset, T value) {
    std::memcpy(out.data() + offset, &value, sizeof(T));
}

template <typename T>
T Get(const std::byte* data, std::size_t limit, std::size_t offset) {
    T value{};
    if (offset + sizeof(T) <= limit) {
        std::memcpy(&value, data + offset, sizeof(T));
    }
    return value;
}

bool PutName(std::vector<std::byte>& out, std::size_t offset, const std::u16string& name) {
    if (name.size() > DevMode::kNameChars) {
        return false;
    }
    std::memcpy(out.data() + offset, name.data(), name.size() * sizeof(char16_t));
    return true;
}

std::u16string GetName(const std::byte* data, std::size_t limit, std::size_t offset) {
    std::u16string name;
    for (std::size_t i = 0; i < DevMode::kNameChars; ++i) {
        const auto c = Get<char16_t>(data, limit, offset + i * sizeof(char16_t));
        if (c == u'\0') {
            break;
        }
        name.push_back(c);
    }
    return name;
}

}  // namespace

std::vector<std::byte> DevMode::Serialize() const {
    constexpr std::size_t kTailOffset = kLogPixelsOffset;
    if (tail.size() > kPublicSize - kTailOffset || driverExtra.size() > 0xFFFF) {
        return {};
    }
    std::vector<std::byte> out(kPublicSize + driverExtra.size());
    if (!PutName(out, kDeviceNameOffset, dmDeviceName) ||
        !PutName(out, kFormNameOffset, dmFormName)) {
        return {};
    }
    Put<WORD>(out, kSpecVersionOffset, dmSpecVersion);
    Put<WORD>(out, kDriverVersionOffset, dmDriverVersion);
    Put<WORD>(out, kSizeOffset, static_cast<WORD>(kPublicSize));
    Put<WORD>(out, kDriverExtraOffset, static_cast<WORD>(driverExtra.size()));
    Put<DWORD>(out, kFieldsOffset, dmFields);
    Put<short>(out, kOrientationOffset, dmOrientation);
    Put<short>(out, kPaperSizeOffset, dmPaperSize);
    Put<short>(out, kPaperLengthOffset, dmPaperLength);
    Put<short>(out, kPaperWidthOffset, dmPaperWidth);
    Put<short>(out, kScaleOffset, dmScale);
    Put<short>(out, kCopiesOffset, dmCopies);
    Put<short>(out, kDefaultSourceOffset, dmDefaultSource);
    Put<short>(out, kPrintQualityOffset, dmPrintQuality);
    Put<short>(out, kColorOffset, dmColor);
    Put<short>(out, kDuplexOffset, dmDuplex);
    Put<short>(out, kYResolutionOffset, dmYResolution);
    Put<short>(out, kTTOptionOffset, dmTTOption);
    Put<short>(out, kCollateOffset, dmCollate);
    if (!tail.empty()) {
        std::memcpy(out.data() + kTailOffset, tail.data(), tail.size());
    }
    if (!driverExtra.empty()) {
        std::memcpy(out.data() + kPublicSize, driverExtra.data(), driverExtra.size());
    }
    return out;
}

std::optional<DevMode> DevMode::Parse(const std::byte* data, std::size_t size) {
    if (data == nullptr || size < kFieldsOffset + sizeof(DWORD)) {
        return std::nullopt;
    }
    const auto dmSize = Get<WORD>(data, size, kSizeOffset);
    const auto dmDriverExtra = Get<WORD>(data, size, kDriverExtraOffset);
    if (dmSize < kFieldsOffset + sizeof(DWORD) ||
        static_cast<std::size_t>(dmSize) + dmDriverExtra > size) {
        return std::nullopt;
    }
    // Fields beyond the public part the writer knew read as zero.
    const std::size_t limit = dmSize < kPublicSize ? dmSize : kPublicSize;
    DevMode dm;
    dm.dmDeviceName = GetName(data, limit, kDeviceNameOffset);
    dm.dmSpecVersion = Get<WORD>(data, limit, kSpecVersionOffset);
    dm.dmDriverVersion = Get<WORD>(data, limit, kDriverVersionOffset);
    dm.dmFields = Get<DWORD>(data, limit, kFieldsOffset);
    dm.dmOrientation = Get<short>(data, limit, kOrientationOffset);
    dm.dmPaperSize = Get<short>(data, limit, kPaperSizeOffset);
    dm.dmPaperLength = Get<short>(data, limit, kPaperLengthOffset);
    dm.dmPaperWidth = Get<short>(data, limit, kPaperWidthOffset);
    dm.dmScale = Get<short>(data, limit, kScaleOffset);
    dm.dmCopies = Get<short>(data, limit, kCopiesOffset);
    dm.dmDefaultSource = Get<short>(data, limit, kDefaultSourceOffset);
    dm.dmPrintQuality = Get<short>(data, limit, kPrintQualityOffset);
    dm.dmColor = Get<short>(data, limit, kColorOffset);
    dm.dmDuplex = Get<short>(data, limit, kDuplexOffset);
    dm.dmYResolution = Get<short>(data, limit, kYResolutionOffset);
    dm.dmTTOption = Get<short>(data, limit, kTTOptionOffset);
    dm.dmCollate = Get<short>(data, limit, kCollateOffset);
    dm.dmFormName = GetName(data, limit, kFormNameOffset);
    if (limit > kLogPixelsOffset) {
        dm.tail.assign(data + kLogPixelsOffset, data + limit);
        bool allZero = true;
        for (auto b : dm.tail) {
            allZero = allZero && b == std::byte{0};
        }
        if (allZero) {
            dm.tail.clear();
        }
    }
    dm.driverExtra.assign(data + dmSize, data + dmSize + dmDriverExtra);
    return dm;
}

}  // namespace platform
