// The service's handler of a create request: from a client printer's
// description to a server printer made from a template, named by the port
// monitor's format and the naming scheme, marked as autocreated, recorded
// for the session and usable by its user. Also the delete mode (flag 0x08),
// which works out the same name and takes the session off that printer.
#pragma once

#include <cstdint>
#include <string>

namespace ovsvc {

inline constexpr std::uint32_t kFlagShare = 0x01;
inline constexpr std::uint32_t kFlagDeleteMode = 0x08;
inline constexpr std::int32_t kResultAddRefused = -13;
inline constexpr std::int32_t kResultCacheStep = -17;
inline constexpr std::int32_t kResultNoPortFormat = -20;

struct CreateRequest {
    std::u16string PN, PC, IP;
    std::uint32_t TYPE = 0;
    std::u16string DRIVER;
    std::int32_t PID = 0;
    std::uint32_t SID = 0;
    std::u16string ADDR, UN, CN;
    const void* PrinterProperties = nullptr;
    std::uint32_t PropertiesLength = 0;
    std::uint32_t PropertiesParts = 0;
    std::uint32_t nPrinterPropertiesOptions = 0;
    std::uint32_t nFlags = 0;
};

// The result code; the created printer's name and the template used (or the
// definition text) in the two replies.
std::int32_t InstallPrinter(const CreateRequest& request, std::u16string* strCreatedPrinterName,
                            std::u16string* strCreatedPrinterClass);

// Copies the template printer's driver data to the new printer: 0 or the
// failing status.
std::int32_t CopyPrinterDriverData(std::u16string_view templateName, void* printer);

}  // namespace ovsvc
