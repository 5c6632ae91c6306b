// The link to the product's port monitor: each port of a template printer
// reports the format in which the names of its printers are built.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/library.h"
#include "platform/spooler.h"

namespace ovsvc {

// The class of the running Windows version: 0 not NT, 1 NT 3.x, 2 NT 4.0,
// 3 Windows 2000, 4 XP, 5 Server 2003, 0 for anything else.
int GetOSClass();

// The monitor's configuration channel: opened on one of the product's
// monitors, asked "GetPort" for a port's information text. XcvDataW is bound
// at run time from the spooler's library in the system directory (on NT 4.0
// from the monitor's own module, which also brings its open and close).
class OMComm {
  public:
    // Loads the spooler's library; without it every query fails.
    OMComm();
    virtual ~OMComm();
    OMComm(const OMComm&) = delete;
    OMComm& operator=(const OMComm&) = delete;

    // 0, or the system error of the last monitor that could not be opened;
    // 6 when no library is loaded.
    platform::DWORD OpenMonitor();
    void CloseMonitor();
    // The monitor's status for "GetPort"; `needed` receives the size in bytes
    // of the answer. 1 without XcvDataW, 6 without an open monitor.
    platform::DWORD GetPortInfo(std::u16string_view port, void* answer, platform::DWORD size,
                                platform::DWORD* needed);

  private:
    // 0 or the system error that left the library unloaded.
    platform::DWORD LoadMonitorModule();

    platform::UniqueLibrary m_hModule;
    decltype(&platform::XcvDataW) m_pXcvData = nullptr;
    decltype(&platform::OpenPrinterW) m_pOpenPrinter = nullptr;   // NT 4.0 only
    decltype(&platform::ClosePrinter) m_pClosePrinter = nullptr;  // NT 4.0 only
    platform::UniquePrinter m_hMonitor;
};

class WinPort {
  public:
    WinPort() = default;
    virtual ~WinPort() = default;

    // The name format of every port of the comma-separated list: 0 when each
    // port reported one, else -20. The first port's format is kept.
    std::int32_t TestAllPortInPortList(std::u16string_view portList);
    std::u16string Format() const { return m_strInvPrinterFormt; }

    // The format one port reports into `scheme` (default "%A:%I#%N"): 0, -20
    // when it reports none, or the failing status of the query.
    std::int32_t GetOVASScheme(std::u16string_view port, std::u16string* scheme);

  private:
    std::u16string m_strInvPrinterFormt;
    std::unique_ptr<OMComm> m_link;
};

inline constexpr char16_t kDefaultPrinterNameFormat[] = u"%A:%I#%N";

}  // namespace ovsvc
