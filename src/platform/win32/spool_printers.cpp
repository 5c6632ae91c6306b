// Printers over winspool: enumeration, open and close, levels 0, 2, 3 and 8
// both ways, add, delete and printer data. winspool's caller-sized buffers
// are sized inside; the records come back as the platform's types.
#include "platform/spooler.h"
#include "spool_records.h"
#include "win32_api.h"

namespace platform {

namespace {

using win32::FromWide;
using win32::spool::DescriptorBytes;
using win32::spool::DevModeBytes;
using win32::spool::FillBuffer;
using win32::spool::In;
using win32::spool::InOrNull;
using win32::spool::RecordBuffer;

PrinterInfo2 FromRecord(const ::PRINTER_INFO_2W& p) {
    PrinterInfo2 info;
    info.serverName = FromWide(p.pServerName);
    info.printerName = FromWide(p.pPrinterName);
    info.shareName = FromWide(p.pShareName);
    info.portName = FromWide(p.pPortName);
    info.driverName = FromWide(p.pDriverName);
    info.comment = FromWide(p.pComment);
    info.location = FromWide(p.pLocation);
    info.devMode = win32::spool::ToDevMode(p.pDevMode);
    info.sepFile = FromWide(p.pSepFile);
    info.printProcessor = FromWide(p.pPrintProcessor);
    info.datatype = FromWide(p.pDatatype);
    info.parameters = FromWide(p.pParameters);
    info.securityDescriptor = win32::spool::SelfRelativeBytes(p.pSecurityDescriptor);
    info.attributes = p.Attributes;
    info.priority = p.Priority;
    info.defaultPriority = p.DefaultPriority;
    info.startTime = p.StartTime;
    info.untilTime = p.UntilTime;
    info.status = p.Status;
    info.cJobs = p.cJobs;
    info.averagePPM = p.AveragePPM;
    return info;
}

// A PRINTER_INFO_2W over a platform record; the record, the device mode and
// the descriptor must outlive it.
struct Level2In {
    ::PRINTER_INFO_2W record{};
    DevModeBytes devMode;
    DescriptorBytes descriptor;

    // false with the last error set when a part cannot be given to winspool.
    bool Set(const PrinterInfo2& info) {
        if (!devMode.Set(info.devMode)) {
            ::SetLastError(ERROR_INVALID_PARAMETER);
            return false;
        }
        if (!descriptor.Set(info.securityDescriptor)) {
            return false;
        }
        record.pServerName = InOrNull(info.serverName);
        record.pPrinterName = In(info.printerName);
        record.pShareName = In(info.shareName);
        record.pPortName = In(info.portName);
        record.pDriverName = In(info.driverName);
        record.pComment = In(info.comment);
        record.pLocation = In(info.location);
        record.pDevMode = devMode.Pointer();
        record.pSepFile = In(info.sepFile);
        record.pPrintProcessor = In(info.printProcessor);
        record.pDatatype = InOrNull(info.datatype);
        record.pParameters = In(info.parameters);
        record.pSecurityDescriptor = descriptor.Pointer();
        record.Attributes = info.attributes;
        record.Priority = info.priority;
        record.DefaultPriority = info.defaultPriority;
        record.StartTime = info.startTime;
        record.UntilTime = info.untilTime;
        record.Status = info.status;
        record.cJobs = info.cJobs;
        record.AveragePPM = info.averagePPM;
        return true;
    }
};

// GetPrinterW at `level` into `buffer`, sized inside.
bool GetLevel(HANDLE printer, ::DWORD level, RecordBuffer& buffer) {
    return FillBuffer(buffer, [&](::BYTE* data, ::DWORD size, ::DWORD* needed) {
        return ::GetPrinterW(printer, level, data, size, needed) != FALSE;
    });
}

bool Succeeded() {
    ::SetLastError(ERROR_SUCCESS);
    return true;
}

bool Fail(::DWORD error) {
    ::SetLastError(error);
    return false;
}

// Printer data calls answer their status; it is the last error as well.
DWORD Status(::DWORD status) {
    ::SetLastError(status);
    return status;
}

}  // namespace

bool ClosePrinter(HANDLE printer) noexcept {
    if (!::ClosePrinter(printer)) {
        return false;
    }
    return Succeeded();
}

std::optional<std::vector<PrinterInfo2>> EnumPrintersW(DWORD flags, std::u16string_view name,
                                                       DWORD level) {
    // Level 2 is the one record this API has.
    if (level != 2) {
        ::SetLastError(ERROR_INVALID_LEVEL);
        return std::nullopt;
    }
    const std::u16string server(name);
    RecordBuffer buffer;
    ::DWORD returned = 0;
    const bool ok = FillBuffer(buffer, [&](::BYTE* data, ::DWORD size, ::DWORD* needed) {
        return ::EnumPrintersW(flags, InOrNull(server), 2, data, size, needed, &returned) != FALSE;
    });
    if (!ok) {
        return std::nullopt;
    }
    std::vector<PrinterInfo2> printers;
    printers.reserve(returned);
    for (::DWORD i = 0; i < returned; ++i) {
        printers.push_back(FromRecord(buffer.As<::PRINTER_INFO_2W>()[i]));
    }
    ::SetLastError(ERROR_SUCCESS);
    return printers;
}

UniquePrinter OpenPrinterW(std::u16string_view name, const PrinterDefaults* defaults) {
    const std::u16string printerName(name);
    ::PRINTER_DEFAULTSW winDefaults{};
    DevModeBytes devMode;
    if (defaults != nullptr) {
        if (!devMode.Set(defaults->devMode)) {
            ::SetLastError(ERROR_INVALID_PARAMETER);
            return UniquePrinter();
        }
        winDefaults.pDatatype = InOrNull(defaults->datatype);
        winDefaults.pDevMode = devMode.Pointer();
        winDefaults.DesiredAccess = defaults->desiredAccess;
    }
    ::HANDLE printer = nullptr;
    if (!::OpenPrinterW(InOrNull(printerName), &printer,
                        defaults != nullptr ? &winDefaults : nullptr)) {
        return UniquePrinter();
    }
    UniquePrinter owned(printer);
    ::SetLastError(ERROR_SUCCESS);
    return owned;
}

bool GetPrinterW(HANDLE printer, PrinterInfo2* info) {
    RecordBuffer buffer;
    if (info == nullptr) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if (!GetLevel(printer, 2, buffer)) {
        return false;
    }
    *info = FromRecord(*buffer.As<::PRINTER_INFO_2W>());
    return Succeeded();
}

bool GetPrinterW(HANDLE printer, PrinterInfo3* info) {
    RecordBuffer buffer;
    if (info == nullptr) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if (!GetLevel(printer, 3, buffer)) {
        return false;
    }
    info->securityDescriptor =
        win32::spool::SelfRelativeBytes(buffer.As<::PRINTER_INFO_3>()->pSecurityDescriptor);
    return Succeeded();
}

bool GetPrinterW(HANDLE printer, PrinterInfo8* info) {
    RecordBuffer buffer;
    if (info == nullptr) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if (!GetLevel(printer, 8, buffer)) {
        return false;
    }
    info->devMode = win32::spool::ToDevMode(buffer.As<::PRINTER_INFO_8W>()->pDevMode);
    return Succeeded();
}

bool SetPrinterW(HANDLE printer, const PrinterInfo2& info, DWORD command) {
    if (command != 0) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    Level2In in;
    if (!in.Set(info)) {
        return false;
    }
    if (!::SetPrinterW(printer, 2, reinterpret_cast<::BYTE*>(&in.record), 0)) {
        return false;
    }
    return Succeeded();
}

bool SetPrinterW(HANDLE printer, const PrinterInfo3& info, DWORD command) {
    if (command != 0 || info.securityDescriptor.empty()) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    DescriptorBytes descriptor;
    if (!descriptor.Set(info.securityDescriptor)) {
        return false;
    }
    ::PRINTER_INFO_3 record{descriptor.Pointer()};
    if (!::SetPrinterW(printer, 3, reinterpret_cast<::BYTE*>(&record), 0)) {
        return false;
    }
    return Succeeded();
}

bool SetPrinterW(HANDLE printer, const PrinterInfo8& info, DWORD command) {
    DevModeBytes devMode;
    if (command != 0 || !info.devMode || !devMode.Set(info.devMode)) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    ::PRINTER_INFO_8W record{devMode.Pointer()};
    if (!::SetPrinterW(printer, 8, reinterpret_cast<::BYTE*>(&record), 0)) {
        return false;
    }
    return Succeeded();
}

bool SetPrinterW(HANDLE printer, DWORD command, DWORD status) {
    ::DWORD newStatus = status;
    ::BYTE* data =
        command == PRINTER_CONTROL_SET_STATUS ? reinterpret_cast<::BYTE*>(&newStatus) : nullptr;
    if (!::SetPrinterW(printer, 0, data, command)) {
        return false;
    }
    return Succeeded();
}

UniquePrinter AddPrinterW(std::u16string_view serverName, const PrinterInfo2& info) {
    const std::u16string server(serverName);
    Level2In in;
    if (!in.Set(info)) {
        return UniquePrinter();
    }
    ::HANDLE printer = ::AddPrinterW(InOrNull(server), 2, reinterpret_cast<::BYTE*>(&in.record));
    if (printer == nullptr) {
        return UniquePrinter();
    }
    UniquePrinter owned(printer);
    ::SetLastError(ERROR_SUCCESS);
    return owned;
}

bool DeletePrinter(HANDLE printer) {
    if (!::DeletePrinter(printer)) {
        return false;
    }
    return Succeeded();
}

DWORD SetPrinterDataW(HANDLE printer, std::u16string_view valueName, DWORD type, const void* data,
                      DWORD size) {
    const std::u16string value(valueName);
    return Status(::SetPrinterDataW(printer, In(value), type,
                                    static_cast<::BYTE*>(const_cast<void*>(data)), size));
}

DWORD GetPrinterDataW(HANDLE printer, std::u16string_view valueName, DWORD* type, void* data,
                      DWORD size, DWORD* needed) {
    const std::u16string value(valueName);
    ::DWORD winType = 0;
    ::DWORD winNeeded = 0;
    // Without a buffer the call is a size query, whatever `size` says.
    const ::DWORD status =
        ::GetPrinterDataW(printer, In(value), &winType, static_cast<::BYTE*>(data),
                          data != nullptr ? size : 0, &winNeeded);
    if (status == ERROR_SUCCESS || status == ERROR_MORE_DATA) {
        if (type != nullptr) {
            *type = winType;
        }
        if (needed != nullptr) {
            *needed = winNeeded;
        }
    }
    return Status(status);
}

// Printer data without a key lives in the printer's "PrinterDriverData" key;
// the keyed call says so explicitly, and unlike DeletePrinterDataW it exists
// in every winspool, Wine's included.
DWORD DeletePrinterDataW(HANDLE printer, std::u16string_view valueName) {
    const std::u16string value(valueName);
    return Status(::DeletePrinterDataExW(printer, L"PrinterDriverData", In(value)));
}

}  // namespace platform
