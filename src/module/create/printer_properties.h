// The client printer's trays, papers and resolutions, and its duplex
// ability, as a create request carries them, and their application to a
// printer of the virtual printer driver.
//
// The properties are up to three lists, one after the other, in the order
// trays, papers, resolutions. A list is a run of zero-terminated entries
// closed by one more zero (the list without entries is two zeros). One entry
// of a list may begin with "*": the client's current choice. Entries begin
// with a number: a tray with its source number and a comma, a paper with its
// number, width and length separated by commas (optionally followed by "¶"
// and its printable area), a resolution with its dots per inch.
//
// What is applied is chosen by PrinterPropertyFlags:
//   0x01  papers: FormData, with every printable area widened to the whole
//         sheet (unless 0x02 is set too: then the papers as received); on
//         an OVPRN driver the chosen paper becomes the default paper size
//   0x02  alone: no FormData
//   0x04  trays: TrayData; the driver option OptionTrays and the default
//         source
//   0x08  resolutions: ResolutionData; on an OVPRN driver the default print
//         quality and vertical resolution
//   0x10  duplex: the request's duplex option (1 simplex only, 2 duplex unit
//         with simplex chosen, 4 horizontal, 8 vertical) for OptionDuplex
//         and the default duplex mode
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/spooler.h"

namespace ovsvc {

inline constexpr std::uint32_t kPropPapers = 0x01;
inline constexpr std::uint32_t kPropPapersAsReceived = 0x02;
inline constexpr std::uint32_t kPropTrays = 0x04;
inline constexpr std::uint32_t kPropResolutions = 0x08;
inline constexpr std::uint32_t kPropDuplex = 0x10;

inline constexpr std::uint32_t PROP_SIMPLEX = 1;
inline constexpr std::uint32_t PROP_DUPLEX_SIMPLEX = 2;
inline constexpr std::uint32_t PROP_DUPLEX_HORIZONTAL = 4;
inline constexpr std::uint32_t PROP_DUPLEX_VERTICAL = 8;

// The parsed properties. Lists keep their closing zeros.
class CPrinterProperties {
  public:
    CPrinterProperties(std::uint32_t length, std::uint32_t parts)
        : m_dwLength(length), m_dwParts(parts) {}
    virtual ~CPrinterProperties() = default;

    std::uint32_t m_dwLength;  // bytes of the data
    std::uint32_t m_dwParts;   // lists present; 0 after a format error
    std::u16string strTrays;
    std::u16string strPapers;
    std::u16string strResolutions;
    std::uint32_t m_dwTrays = 0;
    std::uint32_t m_dwPapers = 0;
    std::uint32_t m_dwRess = 0;
    std::u16string strDefaultTray;
    std::u16string strDefaultPaper;
    std::u16string strDefaultResolution;
    std::u16string strZeroBorderPapers;
    const void* m_pData = nullptr;
};

// Splits `data` (m_dwLength bytes, possibly unaligned) into the m_dwParts
// lists; with two or more lists present, takes the marked entries out. The
// end of the last list in characters, or -1 on a format error (a list
// without its closing zeros inside the data, or less than 4 bytes), after
// which nothing is kept. Never reads past m_dwLength bytes.
std::int32_t ParsePrinterProperties(CPrinterProperties* props, const void* data);

// Takes the marked entry out of `list`: the first entry when it is marked,
// else the last marked one. Its text without the "*", and the list without
// that one "*"; empty and unchanged when no entry is marked.
std::u16string ExtractDefaultEntry(std::u16string* list);

// The papers list with each entry's printable area replaced by the whole
// sheet ("¶0,0,<width>,<length>"); an entry that does not begin with three
// numbers keeps only its text before "¶".
std::u16string SetZeroBorder(std::u16string_view papers);

// Applies the properties to a new printer: its printer data through
// `printer`, the device mode inside `record` (which the caller writes to
// the printer). -1 when `properties` is null, else 0: format errors and
// failed writes are traced and leave the driver's defaults.
std::int32_t SetPrinterProperties(const void* properties, std::uint32_t length, std::uint32_t parts,
                                  std::uint32_t options, platform::HANDLE printer,
                                  platform::PrinterInfo2* record);

// The device-mode part: default source, duplex, and on an OVPRN driver the
// paper size and resolution.
void SetPrinterPropertiesDevmode(const CPrinterProperties& props, std::uint32_t options,
                                 platform::HANDLE printer, platform::PrinterInfo2* record,
                                 std::uint32_t flags);

// True when the printer's driver file is OVPRN.DLL (any case).
bool IsOVPRNDriver(platform::HANDLE printer);

}  // namespace ovsvc
