// Port monitors, their ports and the monitors' configuration channel
// (XcvData), and print processors.
#include <cstring>

#include "spool_caller.h"
#include "spool_store.h"

namespace platform {

using namespace spool;

namespace {

std::u16string MonitorKey(std::u16string_view monitor) {
    return Join(kMonitorsKey, monitor);
}

std::u16string PortKey(std::u16string_view monitor, std::u16string_view port) {
    return Join(Join(MonitorKey(monitor), u"Ports"), port);
}

bool ValidPortName(std::u16string_view port) {
    if (port.empty() || port.size() > kMaxKeyNameLength) {
        return false;
    }
    for (char16_t c : port) {
        if (c == u'\\' || c == u',' || c < 0x20) {
            return false;
        }
    }
    return true;
}

// Reads a zero-terminated UTF-16 string from the start of `data`; the whole
// buffer when it has no terminator. *used receives the characters consumed
// including the terminator.
std::u16string ReadText(const void* data, DWORD size, std::size_t* used) {
    std::u16string text;
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::size_t i = 0;
    for (; data != nullptr && (i + 1) * sizeof(char16_t) <= size; ++i) {
        char16_t c = 0;
        std::memcpy(&c, bytes + i * sizeof(char16_t), sizeof(c));
        if (c == u'\0') {
            ++i;
            break;
        }
        text.push_back(c);
    }
    if (used != nullptr) {
        *used = i;
    }
    return text;
}

DWORD GetPort(std::u16string_view monitor, std::u16string_view port, void* output, DWORD outputSize,
              DWORD* needed) {
    UniqueKey key;
    if (!ValidPortName(port) || OpenKey(PortKey(monitor, port), KEY_READ, &key) != ERROR_SUCCESS) {
        return ERROR_UNKNOWN_PORT;
    }
    ValueMap values;
    if (const LSTATUS rc = ReadValues(key.get(), &values); rc != ERROR_SUCCESS) {
        return rc;
    }
    const std::u16string text = values.String(kPortInfoValue);
    const auto bytes = static_cast<DWORD>((text.size() + 1) * sizeof(char16_t));
    if (needed != nullptr) {
        *needed = bytes;
    }
    if (output == nullptr || outputSize < bytes) {
        return ERROR_MORE_DATA;
    }
    std::memcpy(output, text.c_str(), bytes);
    return ERROR_SUCCESS;
}

DWORD AddPort(std::u16string_view monitor, std::u16string_view port, std::u16string_view info) {
    if (!ValidPortName(port)) {
        return ERROR_INVALID_PARAMETER;
    }
    if (PortExists(port)) {
        return ERROR_ALREADY_EXISTS;
    }
    UniqueKey key;
    LSTATUS rc = CreateKey(PortKey(monitor, port), &key);
    if (rc == ERROR_SUCCESS) {
        rc = WriteString(key.get(), kPortInfoValue, info);
    }
    return rc;
}

DWORD SetPortInfo(std::u16string_view monitor, std::u16string_view port, std::u16string_view info) {
    UniqueKey key;
    if (!ValidPortName(port) ||
        OpenKey(PortKey(monitor, port), KEY_ALL_ACCESS, &key) != ERROR_SUCCESS) {
        return ERROR_UNKNOWN_PORT;
    }
    return WriteString(key.get(), kPortInfoValue, info);
}

DWORD DeletePort(std::u16string_view monitor, std::u16string_view port) {
    UniqueKey key;
    if (!ValidPortName(port) || OpenKey(PortKey(monitor, port), KEY_READ, &key) != ERROR_SUCCESS) {
        return ERROR_UNKNOWN_PORT;
    }
    key.reset();
    return RegDeleteKeyW(HKEY_LOCAL_MACHINE, PortKey(monitor, port));
}

}  // namespace

namespace spool {

bool PortExists(std::u16string_view port) {
    if (!ValidPortName(port)) {
        return false;
    }
    std::vector<std::u16string> monitors;
    ReadSubKeys(kMonitorsKey, &monitors);
    for (const auto& monitor : monitors) {
        UniqueKey key;
        if (OpenKey(PortKey(monitor, port), KEY_READ, &key) == ERROR_SUCCESS) {
            return true;
        }
    }
    return false;
}

bool PrintProcessorExists(std::u16string_view name) {
    UniqueKey key;
    return ValidPortName(name) &&
           OpenKey(Join(kProcessorsKey, name), KEY_READ, &key) == ERROR_SUCCESS;
}

}  // namespace spool

// ---- monitors and ports -----------------------------------------------------------

bool AddMonitorW(std::u16string_view serverName, std::u16string_view name,
                 std::u16string_view dllName) {
    if (!serverName.empty()) {
        return Fail(ERROR_INVALID_NAME);
    }
    if (!ValidPortName(name)) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    Lock lock(Lock::kWrites);
    if (!CallerIsAdministrator()) {
        return Fail(ERROR_ACCESS_DENIED);
    }
    UniqueKey key;
    if (OpenKey(MonitorKey(name), KEY_READ, &key) == ERROR_SUCCESS) {
        return Fail(ERROR_ALREADY_EXISTS);
    }
    LSTATUS rc = CreateKey(MonitorKey(name), &key);
    if (rc == ERROR_SUCCESS) {
        rc = WriteString(key.get(), u"Driver", dllName);
    }
    UniqueKey ports;
    if (rc == ERROR_SUCCESS) {
        rc = CreateKey(Join(MonitorKey(name), u"Ports"), &ports);
    }
    return rc == ERROR_SUCCESS ? Succeed() : Fail(rc);
}

std::optional<std::vector<std::u16string>> EnumMonitorsW(std::u16string_view serverName) {
    if (!serverName.empty()) {
        SetLastError(ERROR_INVALID_NAME);
        return std::nullopt;
    }
    Lock lock;
    std::vector<std::u16string> monitors;
    if (const LSTATUS rc = ReadSubKeys(kMonitorsKey, &monitors); rc != ERROR_SUCCESS) {
        SetLastError(rc);
        return std::nullopt;
    }
    SetLastError(ERROR_SUCCESS);
    return monitors;
}

std::optional<std::vector<PortInfo2>> EnumPortsW(std::u16string_view serverName, DWORD level) {
    if (!serverName.empty()) {
        SetLastError(ERROR_INVALID_NAME);
        return std::nullopt;
    }
    if (level != 1 && level != 2) {
        SetLastError(ERROR_INVALID_LEVEL);
        return std::nullopt;
    }
    Lock lock;
    std::vector<std::u16string> monitors;
    ReadSubKeys(kMonitorsKey, &monitors);
    std::vector<PortInfo2> result;
    for (const auto& monitor : monitors) {
        std::vector<std::u16string> ports;
        ReadSubKeys(Join(MonitorKey(monitor), u"Ports"), &ports);
        for (auto& port : ports) {
            PortInfo2 info;
            info.portName = std::move(port);
            if (level == 2) {
                info.monitorName = monitor;
                info.description = monitor;
            }
            result.push_back(std::move(info));
        }
    }
    SetLastError(ERROR_SUCCESS);
    return result;
}

bool XcvDataW(HANDLE xcv, std::u16string_view dataName, const void* input, DWORD inputSize,
              void* output, DWORD outputSize, DWORD* needed, DWORD* status) {
    auto h = FindHandle(xcv);
    if (!h) {
        return false;
    }
    if (h->kind != HandleKind::XcvMonitor) {
        return Fail(ERROR_INVALID_HANDLE);
    }
    if (status == nullptr || (input == nullptr && inputSize != 0)) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if (needed != nullptr) {
        *needed = 0;
    }
    std::size_t used = 0;
    const std::u16string port = ReadText(input, inputSize, &used);
    Lock lock(dataName == u"GetPort" ? Lock::kReads : Lock::kWrites);
    const bool changes =
        dataName == u"AddPort" || dataName == u"DeletePort" || dataName == u"SetPortInfo";
    if (dataName == u"GetPort") {
        *status = GetPort(h->name, port, output, outputSize, needed);
    } else if (changes && !CallerIsAdministrator()) {
        *status = ERROR_ACCESS_DENIED;
    } else if (dataName == u"AddPort") {
        *status = AddPort(h->name, port, u"");
    } else if (dataName == u"DeletePort") {
        *status = DeletePort(h->name, port);
    } else if (dataName == u"SetPortInfo") {
        const auto* rest = static_cast<const unsigned char*>(input) + used * sizeof(char16_t);
        const DWORD restSize = inputSize - static_cast<DWORD>(used * sizeof(char16_t));
        *status = SetPortInfo(h->name, port, ReadText(rest, restSize, nullptr));
    } else {
        *status = ERROR_INVALID_PARAMETER;
    }
    return Succeed();
}

// ---- print processors --------------------------------------------------------------

bool AddPrintProcessorW(std::u16string_view serverName, std::u16string_view environment,
                        std::u16string_view pathName, std::u16string_view name) {
    if (!serverName.empty()) {
        return Fail(ERROR_INVALID_NAME);
    }
    if (!environment.empty() && !SameName(environment, kEnvironmentX64)) {
        return Fail(ERROR_INVALID_ENVIRONMENT);
    }
    if (!ValidPortName(name)) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    Lock lock(Lock::kWrites);
    if (!CallerIsAdministrator()) {
        return Fail(ERROR_ACCESS_DENIED);
    }
    UniqueKey key;
    LSTATUS rc = CreateKey(Join(kProcessorsKey, name), &key);
    if (rc == ERROR_SUCCESS) {
        rc = WriteString(key.get(), u"Driver", pathName);
    }
    return rc == ERROR_SUCCESS ? Succeed() : Fail(rc);
}

std::optional<std::vector<std::u16string>> EnumPrintProcessorsW(std::u16string_view serverName,
                                                                std::u16string_view environment) {
    if (!serverName.empty()) {
        SetLastError(ERROR_INVALID_NAME);
        return std::nullopt;
    }
    if (!environment.empty() && !SameName(environment, kEnvironmentX64)) {
        SetLastError(ERROR_INVALID_ENVIRONMENT);
        return std::nullopt;
    }
    Lock lock;
    std::vector<std::u16string> names;
    if (const LSTATUS rc = ReadSubKeys(kProcessorsKey, &names); rc != ERROR_SUCCESS) {
        SetLastError(rc);
        return std::nullopt;
    }
    SetLastError(ERROR_SUCCESS);
    return names;
}

}  // namespace platform
