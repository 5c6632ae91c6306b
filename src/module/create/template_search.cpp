#include "create/template_search.h"

#include "common/ovstring.h"
#include "create/postscript_driver.h"
#include "platform/security.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

constexpr std::u16string_view kRelayDriver = u"OV Relay Printer";

platform::PrinterInfo2 NewDefinition(std::u16string_view port, std::u16string_view driver,
                                     std::u16string_view processor, std::u16string_view datatype) {
    platform::PrinterInfo2 record;
    record.portName = port;
    record.driverName = driver;
    record.printProcessor = processor;
    record.datatype = datatype;
    record.attributes = platform::PRINTER_ATTRIBUTE_LOCAL;
    return record;
}

// The port of "<prefix><port>"; nullopt when the name has another prefix or
// no port. The port runs to the end of the name.
std::optional<std::u16string_view> PortAfter(std::u16string_view name, std::u16string_view prefix) {
    if (!name.starts_with(prefix) || name.size() == prefix.size()) {
        return std::nullopt;
    }
    return name.substr(prefix.size());
}

// "<driver>!<port>[!...]" with both parts non-empty.
bool SplitDriverPort(std::u16string_view name, std::u16string* driver, std::u16string* port) {
    const std::size_t bang = name.find(u'!');
    if (bang == 0 || bang == std::u16string_view::npos || bang + 1 == name.size() ||
        name[bang + 1] == u'!') {
        return false;
    }
    *driver = name.substr(0, bang);
    const std::u16string_view rest = name.substr(bang + 1);
    *port = rest.substr(0, rest.find(u'!'));
    return true;
}

// The template printer's owner becomes the Administrators group.
void TakeOwnership(platform::HANDLE printer) {
    platform::Sid admins;
    if (!platform::AllocateAndInitializeSid(
            platform::SECURITY_NT_AUTHORITY, 2, platform::SECURITY_BUILTIN_DOMAIN_RID,
            platform::DOMAIN_ALIAS_RID_ADMINS, 0, 0, 0, 0, 0, 0, &admins)) {
        return;
    }
    const std::vector<std::byte> owner(admins.data(), admins.data() + admins.size());
    const platform::DWORD result = platform::SetPrinterOwner(printer, owner);
    OVTRACE(INF | NORM, "SetSecurityInfo returns %d", result);
}

// The level-2 record of `printer`, or the result of a failed read. The
// platform's read asks for the record's size and fills a buffer of that size
// in one call; when that buffer cannot be had (the system is out of memory)
// the record could not be allocated (-10), any other failure means it could
// not be read (-12), each with the trace line of its step.
std::int32_t ReadRecord(platform::HANDLE printer, platform::PrinterInfo2* record) {
    if (platform::GetPrinterW(printer, record)) {
        return 0;
    }
    const platform::DWORD error = platform::GetLastError();
    if (error == platform::ERROR_NOT_ENOUGH_MEMORY || error == platform::ERROR_OUTOFMEMORY) {
        OVTRACE(ERR | NORM, "Speicher für Pointer 'pPrtInfo2' konnte nicht angefordert werden!");
        return kResultNoRecord;
    }
    OVTRACE(ERR | NORM, "API-Fkt. Get-Printer() schlug fehl (%d)!", error);
    return kResultRecordUnreadable;
}

platform::UniquePrinter OpenTemplate(std::u16string_view name) {
    platform::PrinterDefaults defaults;
    defaults.desiredAccess = platform::PRINTER_ALL_ACCESS;
    return platform::OpenPrinterW(name, &defaults);
}

std::int32_t ReadTemplate(platform::UniquePrinter printer, const std::u16string& outName,
                          TemplateInfo* info) {
    TakeOwnership(printer.get());
    platform::PrinterInfo2 record;
    if (const std::int32_t result = ReadRecord(printer.get(), &record); result != 0) {
        return result;
    }
    if (!EqualsNoCase(record.printerName, outName)) {
        OVTRACE(ERR | NORM,
                "Printer Template is found under share name only(OrgPN=%s,ShrPN=%s, OpenedPN=%s)",
                record.printerName, record.shareName, outName);
        return kResultNoTemplate;
    }
    OVTRACE(INF | NORM, "Printer Template found (OrgPN=%s,ShrPN=%s, OpenedPN=%s)",
            record.printerName, record.shareName, outName);
    info->pPrtInfo2 = std::move(record);
    return 0;
}

}  // namespace

TemplateInfo::~TemplateInfo() {
    if (!strPsDriver.empty()) {
        DeletePostScriptDriver(strPsDriver);
    }
}

std::u16string_view GetConnectionSuffix(std::uint32_t nFlags) {
    switch (nFlags & 0x70) {
        case 0x10:
            return u"$(TCP)";
        case 0x20:
            return u"$(VC)";
        case 0x30:
            return u"$(CS)";
        case 0x40:
            return u"$(VM)";
        default:
            return u"";
    }
}

std::int32_t FindPrinterTemplate(const std::array<std::u16string, 3>& templates,
                                 std::uint32_t* count, std::u16string* outName, TemplateInfo* info,
                                 std::uint32_t* isNewDefinition, std::uint32_t nFlags,
                                 const void* properties, std::uint32_t propertiesLength) {
    const std::uint32_t tries = std::min<std::uint32_t>(*count, 3);
    for (std::uint32_t i = 0; i < tries; ++i) {
        const std::u16string& name = templates[i];
        const std::uint32_t n = i + 1;
        if (name.starts_with(u"\\\\")) {
            *outName = name;
            OVTRACE(INF | NORM, "%d. Versuch Networkprinter detected (%s) return directly", n,
                    name);
            return kResultNetworkPrinter;
        }
        std::u16string driver;
        std::u16string port;
        if (const auto relayPort = PortAfter(name, u"OVRP!")) {
            OVTRACE(ERR | NORM, "%d. Versuch NEW OVRP added to port %s", n, *relayPort);
            info->strPort = *relayPort;
            info->pPrtInfo2 =
                NewDefinition(info->strPort, kRelayDriver, u"ovwinprn", u"NT EMF 1.003");
            *outName = Format(u"OVRP!, Port: %s", info->strPort);
        } else if (const auto psPort = PortAfter(name, u"OVPS!")) {
            OVTRACE(INF | NORM, "%d. Versuch NEW PS DRIVER added to port %s", n, *psPort);
            PostScriptDriver psDriver(properties, propertiesLength);
            if (psDriver.GetError() != 0 || psDriver.Install(kPostScriptDriverBase) == 0) {
                return kResultNoTemplate;
            }
            info->strPort = *psPort;
            info->strPsDriver = psDriver.GetNewDriverName();
            info->pPrtInfo2 = NewDefinition(info->strPort, info->strPsDriver, u"WinPrint", u"");
            *outName = Format(u"OVPS! %s, Port: %s", info->strPsDriver, info->strPort);
        } else if (SplitDriverPort(name, &driver, &port)) {
            OVTRACE(ERR | NORM, "%d. Versuch NEW Printer added with driver=%s, port=%s", n, driver,
                    port);
            info->strPort = port;
            info->strDriver = driver;
            info->pPrtInfo2 = NewDefinition(port, driver, u"WinPrint", u"");
            *outName = Format(u"DRIVER %s, Port: %s", driver, port);
        } else {
            const std::u16string_view suffix = GetConnectionSuffix(nFlags);
            if (!suffix.empty()) {
                *outName = Format(u"_#%s%s", name, suffix);
                OVTRACE(INF | NORM, "%d. Versuch Druckertemplate zu oeffnen (%s)...", n, *outName);
                if (platform::UniquePrinter printer = OpenTemplate(*outName)) {
                    *count = i;
                    return ReadTemplate(std::move(printer), *outName, info);
                }
            }
            *outName = Format(u"_#%s", name);
            OVTRACE(INF | NORM, "%d. Versuch Druckertemplate zu oeffnen (%s)...", n, *outName);
            if (platform::UniquePrinter printer = OpenTemplate(*outName)) {
                *count = i;
                return ReadTemplate(std::move(printer), *outName, info);
            }
            continue;
        }
        *isNewDefinition = 1;
        *count = i;
        return 0;
    }
    OVTRACE(INF | NORM, "no printer template found (%d)", platform::GetLastError());
    return kResultNoTemplate;
}

std::int32_t RereadPrinterInfo(TemplateInfo* info, platform::UniquePrinter* printer) {
    platform::PrinterInfo2 record;
    if (const std::int32_t result = ReadRecord(printer->get(), &record); result != 0) {
        info->pPrtInfo2.reset();
        printer->reset();
        return result;
    }
    info->pPrtInfo2 = std::move(record);
    return 0;
}

}  // namespace ovsvc
