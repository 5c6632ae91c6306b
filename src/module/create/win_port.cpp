#include "create/win_port.h"

#include <new>
#include <optional>
#include <vector>

#include "trace/trace.h"

namespace ovsvc {

namespace {

constexpr const char16_t* kMonitors[] = {u",XcvMonitor Orvelle Print Port Monitor (Virtual)",
                                         u",XcvMonitor Orvelle Port"};
constexpr std::size_t kSchemeChars = 255;

// The value of `key` in the port information text: the text after it up to
// the next line feed or the end.
std::optional<std::u16string> PortInfoValue(std::u16string_view text, std::u16string_view key) {
    const std::size_t at = text.find(key);
    if (at == std::u16string_view::npos) {
        return std::nullopt;
    }
    const std::u16string_view rest = text.substr(at + key.size());
    return std::u16string(rest.substr(0, rest.find(u'\n')));
}

}  // namespace

int GetOSClass() {
    platform::OSVERSIONINFOEXW version;
    if (!platform::GetVersionExW(&version) ||
        version.dwPlatformId != platform::VER_PLATFORM_WIN32_NT) {
        return 0;
    }
    switch (version.dwMajorVersion) {
        case 3:
            return 1;
        case 4:
            return 2;
        case 5:
            return version.dwMinorVersion <= 2 ? 3 + static_cast<int>(version.dwMinorVersion) : 0;
        default:
            return 0;
    }
}

OMComm::OMComm() {
    LoadMonitorModule();
}

OMComm::~OMComm() {
    CloseMonitor();
    if (m_hModule && !platform::FreeLibrary(m_hModule.release())) {
        OVTRACE(ERR | NORM, "FreeLibrary failed");
    }
}

platform::DWORD OMComm::LoadMonitorModule() {
    if (m_hModule) {
        return 0;
    }
    const std::optional<std::u16string> system = platform::GetSystemDirectoryW();
    if (!system) {
        return 1;
    }
    // NT 4.0 reaches the monitor through its own module. (No 64-bit NT 4.0
    // exists, so on Windows this branch is never taken; an embedded machine
    // that reports 4.0 has no such module and leaves the link unloaded.)
    const bool nt4 = GetOSClass() == 2;
    platform::UniqueLibrary module(
        platform::LoadLibraryW(*system + (nt4 ? u"\\orvmon.dll" : u"\\winspool.drv")));
    if (!module) {
        return platform::GetLastError();
    }
    const auto missing = [](const char* name) {
        OVTRACE(ERR | NORM, "GetProcAddress(hSpooler, \"%S\") fehlgeschlagen", name);
        return platform::GetLastError();
    };
    m_pXcvData = platform::GetProcAddressAs<&platform::XcvDataW>(module.get(), "XcvDataW");
    if (m_pXcvData == nullptr) {
        return missing("XcvDataW");
    }
    if (nt4) {
        m_pOpenPrinter =
            platform::GetProcAddressAs<&platform::OpenPrinterW>(module.get(), "OpenPrinterW");
        if (m_pOpenPrinter == nullptr) {
            m_pXcvData = nullptr;
            return missing("OpenPrinterW");
        }
        m_pClosePrinter =
            platform::GetProcAddressAs<&platform::ClosePrinter>(module.get(), "ClosePrinterW");
        if (m_pClosePrinter == nullptr) {
            m_pXcvData = nullptr;
            m_pOpenPrinter = nullptr;
            return missing("ClosePrinterW");
        }
    }
    m_hModule = std::move(module);
    return 0;
}

platform::DWORD OMComm::OpenMonitor() {
    if (!m_hModule) {
        return 6;
    }
    if (m_hMonitor) {
        return 0;
    }
    platform::DWORD error = 0;
    for (const char16_t* name : kMonitors) {
        platform::PrinterDefaults defaults;
        defaults.desiredAccess = platform::SERVER_ACCESS_ADMINISTER;
        m_hMonitor = m_pOpenPrinter != nullptr ? m_pOpenPrinter(name, &defaults)
                                               : platform::OpenPrinterW(name, &defaults);
        if (m_hMonitor) {
            return 0;
        }
        error = platform::GetLastError();
        OVTRACE(ERR | NORM, "OpenPrinter(\"%s\") fehlgeschlagen", name);
    }
    return error;
}

void OMComm::CloseMonitor() {
    if (!m_hModule || !m_hMonitor) {
        return;
    }
    if (m_pClosePrinter != nullptr) {
        m_pClosePrinter(m_hMonitor.release());
    } else {
        m_hMonitor.reset();
    }
}

platform::DWORD OMComm::GetPortInfo(std::u16string_view port, void* answer, platform::DWORD size,
                                    platform::DWORD* needed) {
    *needed = 0;
    if (m_pXcvData == nullptr) {
        OVTRACE(ERR | NORM, "Invalid function Pointer");
        return 1;
    }
    if (!m_hMonitor) {
        OVTRACE(ERR | NORM, "Invalid function m_hMonitor handle");
        return 6;
    }
    const std::u16string input(port);
    platform::DWORD status = 0;
    m_pXcvData(m_hMonitor.get(), u"GetPort", input.c_str(),
               static_cast<platform::DWORD>((input.size() + 1) * 2), answer, size, needed, &status);
    OVTRACE(INF | NORM, "XcvData:GetPortType Param=%s", port);
    const auto* text = static_cast<const char16_t*>(answer);
    OVTRACE(INF | NORM, "XcvData:GetPortType Status=%d(0x%x), Answer=%s", status, status,
            answer != nullptr && status == 0 ? text : u"");
    return status;
}

std::int32_t WinPort::TestAllPortInPortList(std::u16string_view portList) {
    m_strInvPrinterFormt.clear();
    if (!m_link) {
        m_link.reset(new (std::nothrow) OMComm());
        if (!m_link) {
            return -20;
        }
    }
    if (m_link->OpenMonitor() != 0) {
        return -20;
    }
    std::int32_t result = 0;
    std::u16string_view rest = portList;
    while (!rest.empty() && rest != u",") {
        const std::size_t comma = rest.find(u',');
        const std::u16string_view port = rest.substr(0, comma);
        std::u16string scheme;
        if (GetOVASScheme(port, &scheme) != 0) {
            result = -20;
        }
        if (m_strInvPrinterFormt.empty()) {
            m_strInvPrinterFormt = scheme;
        }
        if (m_strInvPrinterFormt != scheme) {
            OVTRACE(ERR | NORM, "Ports:%s has different OVASSchemes: <%s> to <%s>", portList,
                    m_strInvPrinterFormt, scheme);
        }
        rest = comma == std::u16string_view::npos ? std::u16string_view() : rest.substr(comma + 1);
    }
    m_link->CloseMonitor();
    return result;
}

std::int32_t WinPort::GetOVASScheme(std::u16string_view port, std::u16string* scheme) {
    OVTRACE(INF | NORM, "GetOVASScheme for Port: %s", port);
    *scheme = kDefaultPrinterNameFormat;
    platform::DWORD needed = 0;
    platform::DWORD status = m_link->GetPortInfo(port, nullptr, 0, &needed);
    if (status != 0 && status != platform::ERROR_MORE_DATA) {
        TraceCheck("!(dw != ERROR_SUCCESS && dw != ERROR_MORE_DATA)", __FILE__, __LINE__);
        return static_cast<std::int32_t>(status);
    }
    std::vector<char16_t> answer(needed / 2 + 1, u'\0');
    status = m_link->GetPortInfo(port, answer.data(), needed, &needed);
    if (status != 0) {
        TraceCheck("dw == ERROR_SUCCESS", __FILE__, __LINE__);
        return static_cast<std::int32_t>(status);
    }
    const std::u16string_view text(answer.data());
    if (const auto protocol = PortInfoValue(text, u"Protocol=")) {
        OVTRACE(INF | NORM, "CInterpretPortInfo %s == %s", u"Protocol=", *protocol);
    } else {
        TraceCheck("iWhere != -1", __FILE__, __LINE__);
        TraceCheck("(\"Protocol Entry not found\", fFound)", __FILE__, __LINE__);
    }
    const auto value = PortInfoValue(text, u"OVASScheme=");
    if (!value) {
        TraceCheck("iWhere != -1", __FILE__, __LINE__);
        TraceCheck("(\"OVASScheme Entry not found\", fFound)", __FILE__, __LINE__);
        OVTRACE(ERR | NORM, "GetOVASScheme not found for port <%s>", port);
        return -20;
    }
    OVTRACE(INF | NORM, "CInterpretPortInfo %s == %s", u"OVASScheme=", *value);
    *scheme = value->substr(0, kSchemeChars);
    OVTRACE(INF | NORM, "GetOVASScheme provides strInvPrinterFormt = %s", *scheme);
    return 0;
}

}  // namespace ovsvc
