// The spooler as the printer cache sees it: the autocreated printers (those
// whose Comment starts with the module's marker text), their Location fields
// and job counts, and their deletion together with a generated PostScript
// driver.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/spooler.h"

namespace ovsvc {

// The level-2 record of an open printer; `error` is 0 when it was read,
// otherwise the error of the failing read.
struct PrinterInfo2Buffer {
    explicit PrinterInfo2Buffer(platform::HANDLE printer);
    platform::PrinterInfo2 info;
    std::uint32_t error = 0;
};

// Opens a printer with full printer access; the handle is invalid on failure.
platform::UniquePrinter OpenPrinterFullAccess(std::u16string_view name);

// True for the drivers generated per printer: "OV PS Driver " followed by
// exactly 32 characters.
bool IsGeneratedPostScriptDriver(std::u16string_view driverName);

class WinPrinter {
  public:
    WinPrinter() = default;
    virtual ~WinPrinter() = default;
    WinPrinter(const WinPrinter&) = delete;
    WinPrinter& operator=(const WinPrinter&) = delete;

    // Walks the autocreated printers of a snapshot of the spooler; 1 with the
    // printer's name and Location field, 0 when there is none (left).
    int GetFirstPrinter(std::u16string* name, std::u16string* location);
    int GetNextPrinter(std::u16string* name, std::u16string* location);
    // The record of the printer the walk returned last.
    const platform::PrinterInfo2* GetCurrentPrinterInfo() const { return m_pCurrent; }

    static int GetPrinterLocationString(std::u16string_view name, std::u16string* location,
                                        std::uint32_t* jobs);
    static int SetPrinterLocationString(std::u16string_view name, std::u16string_view location);
    // Service process only. 1 when the printer was deleted; a generated
    // PostScript driver goes with it.
    static int DeletePrinterAndDriver(std::u16string_view name);
    // Service process only. Deletes every generated PostScript driver that
    // no printer uses (one whose printer was deleted while its driver could
    // not be), with its files; the number deleted.
    static int DeleteUnusedGeneratedDrivers();

  private:
    int NextMatch(std::u16string* name, std::u16string* location);

    std::optional<std::vector<platform::PrinterInfo2>> m_pPrtInfo2;
    std::size_t m_dwIndex = 0;
    std::u16string m_szMarker;
    const platform::PrinterInfo2* m_pCurrent = nullptr;
};

}  // namespace ovsvc
