// PostScript drivers generated for one printer each: a copy of an installed
// template driver under a new name ("OV PS Driver <32 hex digits>") whose
// data file is the PPD the client printer brought along, or the template's
// own PPD when none usable came.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/spooler.h"

namespace ovsvc {

inline constexpr char16_t kPostScriptTemplateDriver[] = u"OV Relay Printer PS";
inline constexpr char16_t kPostScriptDriverBase[] = u"OV PS Driver";

// One installation attempt. Construction reads the driver directory and the
// installed drivers and looks for the template; Install adds the new driver.
// Files this object put into the driver directory (temporary copies of the
// template's files and the new PPD) are deleted when it is destroyed: the
// spooler keeps its own copies of an installed driver's files.
class PostScriptDriver {
  public:
    // `ppd`/`ppdSize`: the packed description from the request (borrowed);
    // `templateName`: the driver to copy, null for "OV Relay Printer PS".
    PostScriptDriver(const void* ppd, std::uint32_t ppdSize,
                     const char16_t* templateName = nullptr);
    virtual ~PostScriptDriver();
    PostScriptDriver(const PostScriptDriver&) = delete;
    PostScriptDriver& operator=(const PostScriptDriver&) = delete;

    // 0 when ready to install, else the first error of the directory query,
    // the driver enumeration, or 2 when the template is not installed (after
    // a failed add: the spooler's error).
    std::uint32_t GetError() const;
    // Adds the driver "<baseName> <32 hex digits>"; non-zero on success.
    int Install(std::u16string_view baseName);
    const std::u16string& GetNewDriverName() const { return m_strNewDriverName; }
    bool UseStandardPPD() const { return m_fUseStandardPPD; }

  private:
    void CopyIntoDriverDirectory(std::u16string_view file);
    void DeleteCreatedFiles();

    std::u16string m_strDriverDirectory;
    std::uint32_t m_dwDirectoryError = 0;
    std::vector<platform::DriverInfo6> m_installedDrivers;
    std::uint32_t m_dwEnumError = 0;
    platform::DriverInfo6 m_driver;
    std::uint32_t m_dwTemplateError = 0;
    std::vector<std::u16string> m_createdFiles;
    std::u16string m_strNewDriverName;
    const void* m_pPPD = nullptr;
    std::uint32_t m_dwPPDSize = 0;
    std::u16string m_strTemplate;
    bool m_fUseStandardPPD = false;
};

// Unpacks `streams` (the packed description after its signature) into the
// open file; false after a trace line saying why.
bool DecompressPPD(platform::HANDLE file, const void* streams, std::uint32_t size);

// Deletes a generated driver and the files no other driver uses; the
// spooler's status stays the thread's last error. True when it went.
bool DeletePostScriptDriver(std::u16string_view driverName);

}  // namespace ovsvc
