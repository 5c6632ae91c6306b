// Port monitors and ports over winspool, and monitor configuration (XcvData).
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

}  // namespace

bool AddMonitorW(std::u16string_view serverName, std::u16string_view name,
                 std::u16string_view dllName) {
    const std::u16string server(serverName);
    const std::u16string monitor(name);
    const std::u16string dll(dllName);
    ::MONITOR_INFO_2W record{};
    record.pName = In(monitor);
    record.pEnvironment = nullptr;  // this machine's
    record.pDLLName = In(dll);
    if (!::AddMonitorW(InOrNull(server), 2, reinterpret_cast<::BYTE*>(&record))) {
        return false;
    }
    ::SetLastError(ERROR_SUCCESS);
    return true;
}

std::optional<std::vector<std::u16string>> EnumMonitorsW(std::u16string_view serverName) {
    const std::u16string server(serverName);
    RecordBuffer buffer;
    ::DWORD returned = 0;
    const bool ok = FillBuffer(buffer, [&](::BYTE* data, ::DWORD size, ::DWORD* needed) {
        return ::EnumMonitorsW(InOrNull(server), 1, data, size, needed, &returned) != FALSE;
    });
    if (!ok) {
        return std::nullopt;
    }
    std::vector<std::u16string> names;
    names.reserve(returned);
    for (::DWORD i = 0; i < returned; ++i) {
        names.push_back(FromWide(buffer.As<::MONITOR_INFO_1W>()[i].pName));
    }
    ::SetLastError(ERROR_SUCCESS);
    return names;
}

std::optional<std::vector<PortInfo2>> EnumPortsW(std::u16string_view serverName, DWORD level) {
    if (level != 1 && level != 2) {
        ::SetLastError(ERROR_INVALID_LEVEL);
        return std::nullopt;
    }
    const std::u16string server(serverName);
    RecordBuffer buffer;
    ::DWORD returned = 0;
    const bool ok = FillBuffer(buffer, [&](::BYTE* data, ::DWORD size, ::DWORD* needed) {
        return ::EnumPortsW(InOrNull(server), level, data, size, needed, &returned) != FALSE;
    });
    if (!ok) {
        return std::nullopt;
    }
    std::vector<PortInfo2> ports(returned);
    for (::DWORD i = 0; i < returned; ++i) {
        if (level == 1) {
            ports[i].portName = FromWide(buffer.As<::PORT_INFO_1W>()[i].pName);
        } else {
            const auto& port = buffer.As<::PORT_INFO_2W>()[i];
            ports[i].portName = FromWide(port.pPortName);
            ports[i].monitorName = FromWide(port.pMonitorName);
            ports[i].description = FromWide(port.pDescription);
        }
    }
    ::SetLastError(ERROR_SUCCESS);
    return ports;
}

bool XcvDataW(HANDLE xcv, std::u16string_view dataName, const void* input, DWORD inputSize,
              void* output, DWORD outputSize, DWORD* needed, DWORD* status) {
    const std::u16string command(dataName);
    ::DWORD winNeeded = 0;
    ::DWORD winStatus = 0;
    if (!::XcvDataW(xcv, win32::Wide(command), static_cast<::BYTE*>(const_cast<void*>(input)),
                    inputSize, static_cast<::BYTE*>(output), outputSize, &winNeeded, &winStatus)) {
        return false;
    }
    if (needed != nullptr) {
        *needed = winNeeded;
    }
    if (status != nullptr) {
        *status = winStatus;
    }
    ::SetLastError(ERROR_SUCCESS);
    return true;
}

}  // namespace platform
