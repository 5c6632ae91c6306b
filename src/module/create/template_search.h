// From template names to the definition of a new printer: an installed
// template printer "_#<name>" (with a connection-kind suffix first when the
// create flags name one), or a new definition for a driver and a port
// ("OVRP!<port>", "OVPS!<port>", "<driver>!<port>").
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/spooler.h"

namespace ovsvc {

inline constexpr std::int32_t kResultNoTemplate = 221;
inline constexpr std::int32_t kResultNetworkPrinter = 222;
inline constexpr std::int32_t kResultNoRecord = -10;
inline constexpr std::int32_t kResultRecordUnreadable = -12;

struct TemplateInfo {
    TemplateInfo() = default;
    ~TemplateInfo();
    TemplateInfo(const TemplateInfo&) = delete;
    TemplateInfo& operator=(const TemplateInfo&) = delete;

    // The generated PostScript driver stays after the printer was added.
    void KeepDriver() { strPsDriver.clear(); }

    std::u16string strPort;
    std::u16string strDriver;
    std::u16string strPsDriver;  // removed again at destruction unless kept
    std::optional<platform::PrinterInfo2> pPrtInfo2;
};

// "$(TCP)", "$(VC)", "$(CS)" or "$(VM)" for the connection kinds 0x10 to
// 0x40 of the flags, else "".
std::u16string_view GetConnectionSuffix(std::uint32_t nFlags);

// Tries the first `count` names in order. On success `count` is the index
// of the name used, `outName` names what was opened or defined, and
// `isNewDefinition` is 1 for a definition.
std::int32_t FindPrinterTemplate(const std::array<std::u16string, 3>& templates,
                                 std::uint32_t* count, std::u16string* outName, TemplateInfo* info,
                                 std::uint32_t* isNewDefinition, std::uint32_t nFlags,
                                 const void* properties, std::uint32_t propertiesLength);

// Reads the record of the printer just added (with the device mode its
// driver made); on failure the handle is closed.
std::int32_t RereadPrinterInfo(TemplateInfo* info, platform::UniquePrinter* printer);

}  // namespace ovsvc
