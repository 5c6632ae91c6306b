#include "spooler/win_printer.h"

#include <algorithm>

#include "common/module_state.h"
#include "common/ovstring.h"
#include "create/postscript_driver.h"
#include "res/resources.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

constexpr std::u16string_view kGeneratedDriverPrefix = u"OV PS Driver ";
constexpr std::size_t kGeneratedDriverSuffix = 32;
constexpr std::size_t kMarkerChars = 256;

std::u16string LoadMarker() {
    std::u16string marker = LoadOwnString(IDS_AUTOCREATED_MARK);
    if (marker.empty()) {
        return u" ";
    }
    if (marker.size() > kMarkerChars - 1) {
        marker.resize(kMarkerChars - 1);
    }
    return marker;
}

}  // namespace

PrinterInfo2Buffer::PrinterInfo2Buffer(platform::HANDLE printer) {
    platform::SetLastError(platform::ERROR_SUCCESS);
    if (!platform::GetPrinterW(printer, &info)) {
        error = platform::GetLastError();
    }
}

platform::UniquePrinter OpenPrinterFullAccess(std::u16string_view name) {
    platform::PrinterDefaults defaults;
    defaults.desiredAccess = platform::PRINTER_ALL_ACCESS;
    return platform::OpenPrinterW(name, &defaults);
}

bool IsGeneratedPostScriptDriver(std::u16string_view driverName) {
    return driverName.size() == kGeneratedDriverPrefix.size() + kGeneratedDriverSuffix &&
           driverName.starts_with(kGeneratedDriverPrefix);
}

int WinPrinter::GetFirstPrinter(std::u16string* name, std::u16string* location) {
    if (m_pPrtInfo2) {
        TraceCheck("pPrtInfo2 == NULL", __FILE__, __LINE__);
        m_pPrtInfo2.reset();
    }
    m_pCurrent = nullptr;
    m_dwIndex = 0;
    OVTRACE(INF | NORM, "EnumPrinter for getting length");
    // The platform hands the records over in one call; the two log pairs of
    // the size query and the data read stay as they are on every machine.
    auto printers = platform::EnumPrintersW(platform::PRINTER_ENUM_LOCAL, u"", 2);
    if (!printers) {
        OVTRACE(ERR | NORM, "ERROR_INSUFFICIENT_BUFFER GetLastError=%d", platform::GetLastError());
        return 0;
    }
    if (printers->empty()) {
        OVTRACE(ERR | NORM, "EnumPrinters fails");
        return 0;
    }
    OVTRACE(INF | NORM, "EnumPrinter for getting length ended");
    OVTRACE(INF | NORM, "EnumPrinter for getting data");
    m_pPrtInfo2 = std::move(printers);
    OVTRACE(INF | NORM, "EnumPrinter for getting data ended");
    m_szMarker = LoadMarker();
    return NextMatch(name, location);
}

int WinPrinter::GetNextPrinter(std::u16string* name, std::u16string* location) {
    if (!m_pPrtInfo2) {
        TraceCheck("pPrtInfo2 != NULL", __FILE__, __LINE__);
        return 0;
    }
    return NextMatch(name, location);
}

int WinPrinter::NextMatch(std::u16string* name, std::u16string* location) {
    while (m_dwIndex < m_pPrtInfo2->size()) {
        const platform::PrinterInfo2& record = (*m_pPrtInfo2)[m_dwIndex++];
        OVTRACE(INF | NORM, "Check %s(%s)", record.printerName, record.location);
        if (!record.comment.starts_with(m_szMarker)) {
            continue;
        }
        *name = record.printerName;
        *location = record.location;
        m_pCurrent = &record;
        return 1;
    }
    return 0;
}

int WinPrinter::GetPrinterLocationString(std::u16string_view name, std::u16string* location,
                                         std::uint32_t* jobs) {
    const platform::UniquePrinter printer = OpenPrinterFullAccess(name);
    if (!printer) {
        OVTRACE(INF | NORM, "Open-Printer returns false, (internal error!): LastError=%d",
                platform::GetLastError());
        return 0;
    }
    const PrinterInfo2Buffer record(printer.get());
    if (record.error != 0) {
        return 0;
    }
    *location = record.info.location;
    *jobs = record.info.cJobs;
    return 1;
}

int WinPrinter::SetPrinterLocationString(std::u16string_view name, std::u16string_view location) {
    const platform::UniquePrinter printer = OpenPrinterFullAccess(name);
    if (!printer) {
        OVTRACE(INF | NORM, "Open-Printer returns false, (internal error!): LastError=%d",
                platform::GetLastError());
        return 0;
    }
    PrinterInfo2Buffer record(printer.get());
    if (record.error != 0) {
        return 0;
    }
    record.info.location = std::u16string(location);
    const std::uint64_t start = platform::GetTickCount64();
    if (!platform::SetPrinterW(printer.get(), record.info, 0)) {
        OVTRACE(INF | NORM, "SetPrinter fails: LastError %ld!", platform::GetLastError());
        return 0;
    }
    OVTRACE(INF | NORM, "SetPrinter duration = %d ms",
            static_cast<std::int32_t>(platform::GetTickCount64() - start));
    return 1;
}

int WinPrinter::DeletePrinterAndDriver(std::u16string_view name) {
    if (!fIsService) {
        TraceCheck("(\"illegal call\", fIsService)", __FILE__, __LINE__);
        return 0;
    }
    platform::UniquePrinter printer = OpenPrinterFullAccess(name);
    if (!printer) {
        OVTRACE(ERR | NORM, "Open-Printer failed. (%.8x)", platform::GetLastError());
        return 0;
    }
    const PrinterInfo2Buffer record(printer.get());
    const bool deleted = platform::DeletePrinter(printer.get());
    if (deleted) {
        OVTRACE(INF | NORM, "%s deleted.", name);
    } else {
        OVTRACE(ERR | NORM, "DeletePrinter failed. (%.8x)", platform::GetLastError());
    }
    printer.reset();
    if (deleted && record.error == 0) {
        if (IsGeneratedPostScriptDriver(record.info.driverName)) {
            DeletePostScriptDriver(record.info.driverName);
        } else {
            OVTRACE(INF | NORM, "Printer Driver not deleted, no genric postscipt driver <%s>",
                    record.info.driverName);
        }
    }
    return deleted ? 1 : 0;
}

int WinPrinter::DeleteUnusedGeneratedDrivers() {
    if (!fIsService) {
        TraceCheck("(\"illegal call\", fIsService)", __FILE__, __LINE__);
        return 0;
    }
    const auto drivers = platform::EnumPrinterDriversW(u"", platform::kEnvironmentX64, 6);
    const auto printers = platform::EnumPrintersW(platform::PRINTER_ENUM_LOCAL, u"", 2);
    if (!drivers || !printers) {
        OVTRACE(ERR | NORM, "unused generated drivers not looked for (%d)",
                platform::GetLastError());
        return 0;
    }
    int deleted = 0;
    for (const platform::DriverInfo6& driver : *drivers) {
        const bool used =
            std::any_of(printers->begin(), printers->end(), [&](const platform::PrinterInfo2& p) {
                return EqualsNoCase(p.driverName, driver.name);
            });
        if (!used && IsGeneratedPostScriptDriver(driver.name)) {
            OVTRACE(INF | NORM, "generated driver <%s> has no printer, deleted", driver.name);
            deleted += DeletePostScriptDriver(driver.name) ? 1 : 0;
        }
    }
    return deleted;
}

}  // namespace ovsvc
