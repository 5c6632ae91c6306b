// The device-mode layout both backends share (common/devmode_layout.cpp),
// checked against Windows' own structure in <wingdi.h>.
#include <cstddef>

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

}  // namespace

}  // namespace platform
