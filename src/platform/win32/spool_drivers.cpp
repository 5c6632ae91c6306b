// Printer drivers and print processors over winspool.
#include "platform/spooler.h"
#include "spool_records.h"
#include "win32_api.h"

namespace platform {

namespace {

using win32::FromWide;
using win32::spool::FillBuffer;
using win32::spool::In;
using win32::spool::InOrNull;
using win32::spool::RecordBuffer;

std::uint64_t FromFileTime(const ::FILETIME& time) {
    return (static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

DriverInfo6 FromRecord(const ::DRIVER_INFO_6W& d) {
    DriverInfo6 info;
    info.cVersion = d.cVersion;
    info.name = FromWide(d.pName);
    info.environment = FromWide(d.pEnvironment);
    info.driverPath = FromWide(d.pDriverPath);
    info.dataFile = FromWide(d.pDataFile);
    info.configFile = FromWide(d.pConfigFile);
    info.helpFile = FromWide(d.pHelpFile);
    info.dependentFiles = win32::spool::SplitMultiSz(d.pDependentFiles);
    info.monitorName = FromWide(d.pMonitorName);
    info.defaultDataType = FromWide(d.pDefaultDataType);
    info.previousNames = win32::spool::SplitMultiSz(d.pszzPreviousNames);
    info.driverDate = FromFileTime(d.ftDriverDate);
    info.driverVersion = d.dwlDriverVersion;
    info.mfgName = FromWide(d.pszMfgName);
    info.oemUrl = FromWide(d.pszOEMUrl);
    info.hardwareId = FromWide(d.pszHardwareID);
    info.provider = FromWide(d.pszProvider);
    return info;
}

// Levels 1 to 6 are all answered with the level-6 record.
bool DriverLevel(DWORD level) {
    if (level < 1 || level > 6) {
        ::SetLastError(ERROR_INVALID_LEVEL);
        return false;
    }
    return true;
}

}  // namespace

std::optional<std::u16string> GetPrinterDriverDirectoryW(std::u16string_view serverName,
                                                         std::u16string_view environment,
                                                         DWORD level) {
    const std::u16string server(serverName);
    const std::u16string env(environment);
    RecordBuffer buffer;
    const bool ok = FillBuffer(buffer, [&](::BYTE* data, ::DWORD size, ::DWORD* needed) {
        return ::GetPrinterDriverDirectoryW(InOrNull(server), InOrNull(env), level, data, size,
                                            needed) != FALSE;
    });
    if (!ok) {
        return std::nullopt;
    }
    auto directory = FromWide(buffer.As<wchar_t>());
    ::SetLastError(ERROR_SUCCESS);
    return directory;
}

std::optional<std::vector<DriverInfo6>> EnumPrinterDriversW(std::u16string_view serverName,
                                                            std::u16string_view environment,
                                                            DWORD level) {
    if (!DriverLevel(level)) {
        return std::nullopt;
    }
    const std::u16string server(serverName);
    const std::u16string env(environment);
    RecordBuffer buffer;
    ::DWORD returned = 0;
    const bool ok = FillBuffer(buffer, [&](::BYTE* data, ::DWORD size, ::DWORD* needed) {
        return ::EnumPrinterDriversW(InOrNull(server), InOrNull(env), 6, data, size, needed,
                                     &returned) != FALSE;
    });
    if (!ok) {
        return std::nullopt;
    }
    std::vector<DriverInfo6> drivers;
    drivers.reserve(returned);
    for (::DWORD i = 0; i < returned; ++i) {
        drivers.push_back(FromRecord(buffer.As<::DRIVER_INFO_6W>()[i]));
    }
    ::SetLastError(ERROR_SUCCESS);
    return drivers;
}

std::optional<DriverInfo6> GetPrinterDriverW(HANDLE printer, std::u16string_view environment,
                                             DWORD level) {
    if (!DriverLevel(level)) {
        return std::nullopt;
    }
    const std::u16string env(environment);
    RecordBuffer buffer;
    const bool ok = FillBuffer(buffer, [&](::BYTE* data, ::DWORD size, ::DWORD* needed) {
        return ::GetPrinterDriverW(printer, InOrNull(env), 6, data, size, needed) != FALSE;
    });
    if (!ok) {
        return std::nullopt;
    }
    auto driver = FromRecord(*buffer.As<::DRIVER_INFO_6W>());
    ::SetLastError(ERROR_SUCCESS);
    return driver;
}

bool AddPrinterDriverW(std::u16string_view serverName, DWORD level, const DriverInfo6& info) {
    // DRIVER_INFO_3W is the start of DRIVER_INFO_6W: one record serves both.
    if (level != 3 && level != 6) {
        ::SetLastError(ERROR_INVALID_LEVEL);
        return false;
    }
    const std::u16string server(serverName);
    const auto dependentFiles = win32::spool::JoinMultiSz(info.dependentFiles);
    const auto previousNames = win32::spool::JoinMultiSz(info.previousNames);
    ::DRIVER_INFO_6W record{};
    record.cVersion = info.cVersion;
    record.pName = In(info.name);
    record.pEnvironment = InOrNull(info.environment);
    record.pDriverPath = In(info.driverPath);
    record.pDataFile = In(info.dataFile);
    record.pConfigFile = In(info.configFile);
    record.pHelpFile = InOrNull(info.helpFile);
    record.pDependentFiles = InOrNull(dependentFiles);
    record.pMonitorName = InOrNull(info.monitorName);
    record.pDefaultDataType = InOrNull(info.defaultDataType);
    record.pszzPreviousNames = InOrNull(previousNames);
    record.ftDriverDate.dwLowDateTime = static_cast<::DWORD>(info.driverDate);
    record.ftDriverDate.dwHighDateTime = static_cast<::DWORD>(info.driverDate >> 32);
    record.dwlDriverVersion = info.driverVersion;
    record.pszMfgName = InOrNull(info.mfgName);
    record.pszOEMUrl = InOrNull(info.oemUrl);
    record.pszHardwareID = InOrNull(info.hardwareId);
    record.pszProvider = InOrNull(info.provider);
    if (!::AddPrinterDriverW(InOrNull(server), level, reinterpret_cast<::BYTE*>(&record))) {
        return false;
    }
    ::SetLastError(ERROR_SUCCESS);
    return true;
}

bool DeletePrinterDriverExW(std::u16string_view serverName, std::u16string_view environment,
                            std::u16string_view driverName, DWORD deleteFlags, DWORD versionFlag) {
    const std::u16string server(serverName);
    const std::u16string env(environment);
    const std::u16string driver(driverName);
    if (!::DeletePrinterDriverExW(InOrNull(server), InOrNull(env), In(driver), deleteFlags,
                                  versionFlag)) {
        return false;
    }
    ::SetLastError(ERROR_SUCCESS);
    return true;
}

bool AddPrintProcessorW(std::u16string_view serverName, std::u16string_view environment,
                        std::u16string_view pathName, std::u16string_view name) {
    const std::u16string server(serverName);
    const std::u16string env(environment);
    const std::u16string path(pathName);
    const std::u16string processor(name);
    if (!::AddPrintProcessorW(InOrNull(server), InOrNull(env), In(path), In(processor))) {
        return false;
    }
    ::SetLastError(ERROR_SUCCESS);
    return true;
}

std::optional<std::vector<std::u16string>> EnumPrintProcessorsW(std::u16string_view serverName,
                                                                std::u16string_view environment) {
    const std::u16string server(serverName);
    const std::u16string env(environment);
    RecordBuffer buffer;
    ::DWORD returned = 0;
    const bool ok = FillBuffer(buffer, [&](::BYTE* data, ::DWORD size, ::DWORD* needed) {
        return ::EnumPrintProcessorsW(InOrNull(server), InOrNull(env), 1, data, size, needed,
                                      &returned) != FALSE;
    });
    if (!ok) {
        return std::nullopt;
    }
    std::vector<std::u16string> names;
    names.reserve(returned);
    for (::DWORD i = 0; i < returned; ++i) {
        names.push_back(FromWide(buffer.As<::PRINTPROCESSOR_INFO_1W>()[i].pName));
    }
    ::SetLastError(ERROR_SUCCESS);
    return names;
}

}  // namespace platform
