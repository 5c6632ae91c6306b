#include "create/install_printer.h"

#include <array>
#include <memory>
#include <vector>

#include "cache/printer_cache.h"
#include "common/module_state.h"
#include "common/ovstring.h"
#include "create/naming_scheme.h"
#include "create/printer_properties.h"
#include "create/template_search.h"
#include "create/win_port.h"
#include "platform/kernel.h"
#include "platform/registry.h"
#include "platform/security.h"
#include "res/resources.h"
#include "rules/translation_rule.h"
#include "rules/translation_table.h"
#include "spooler/printer_acl.h"
#include "spooler/win_printer.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

constexpr std::size_t kShareNameChars = 79;
constexpr std::size_t kReplyChars = 524;
constexpr std::u16string_view kRelayDriver = u"OV Relay Printer";

// The one WinPort of the process, made by the first request that needs it.
WinPort* ThePort() {
    static WinPort* port = new (std::nothrow) WinPort();
    return port;
}

void TraceProcessAccount() {
    platform::UniqueToken token;
    std::u16string account;
    if (platform::OpenProcessToken(platform::GetCurrentProcess(), platform::TOKEN_QUERY, &token) &&
        platform::GetTokenAccountName(token.get(), &account)) {
        const std::size_t slash = account.find(u'\\');
        const std::u16string domain =
            slash == std::u16string::npos ? u"" : account.substr(0, slash);
        OVTRACE(INF | NORM, "Process runs under %s\\%s", domain,
                slash == std::u16string::npos ? account : account.substr(slash + 1));
    } else {
        OVTRACE(INF | NORM, "Process runs under %s\\%s", u"?", u"?");
    }
}

// SYSTEM and Administrators manage documents and the printer; nobody else
// until the session's user is added.
std::vector<std::byte> DefaultDescriptor() {
    platform::Sid system;
    platform::Sid admins;
    if (!platform::CreateWellKnownSid(platform::WinLocalSystemSid, &system) ||
        !platform::CreateWellKnownSid(platform::WinBuiltinAdministratorsSid, &admins)) {
        return {};
    }
    std::vector<platform::EXPLICIT_ACCESS_W> entries;
    for (const platform::Sid* sid : {&system, &admins}) {
        for (const auto& [mask, inherit] :
             {std::pair<platform::ACCESS_MASK, platform::DWORD>{0xF0030, 9}, {0xF000C, 0}}) {
            platform::EXPLICIT_ACCESS_W entry;
            entry.grfAccessPermissions = mask;
            entry.grfAccessMode = platform::SET_ACCESS;
            entry.grfInheritance = inherit;
            entry.Trustee.TrusteeForm = platform::TRUSTEE_IS_SID;
            entry.Trustee.TrusteeType = platform::TRUSTEE_IS_UNKNOWN;
            entry.Trustee.sid = *sid;
            entries.push_back(entry);
        }
    }
    platform::Acl acl;
    if (platform::SetEntriesInAclW(entries, nullptr, &acl) != platform::ERROR_SUCCESS) {
        return {};
    }
    platform::SecurityDescriptor sd;
    platform::InitializeSecurityDescriptor(&sd, platform::SECURITY_DESCRIPTOR_REVISION);
    platform::SetSecurityDescriptorDacl(&sd, true, &acl, false);
    return platform::ToSelfRelative(sd);
}

// Records the session on a printer that already existed.
const char* RecordOnExistingPrinter(OVACache& cache, const std::u16string& name,
                                    const CreateRequest& r) {
    std::uint32_t flags = 0;
    if (cache.VerifyCacheConsistence(name, &flags) == 0) {
        OVTRACE(ERR | CACH, "Verify-CacheConsistence fails (InstallPrinter)");
    }
    if (cache.IsPrinterInList(name) == 0) {
        cache.AddPrinterToList(name);
    }
    if (cache.AddSessionIDUserName(name, r.SID, r.UN) == 0) {
        return "Add-SessionIDUserName failed";
    }
    std::u16string location;
    std::uint32_t jobs = 0;
    if (WinPrinter::GetPrinterLocationString(name, &location, &jobs) == 0) {
        return "Get-PrinterLocationString fails";
    }
    std::u16string merged;
    if (cache.GenLocationString(name, &merged, location) == 0) {
        return "Gen-LocationString failed";
    }
    if (WinPrinter::SetPrinterLocationString(name, merged) == 0) {
        return "Set-PrinterLocationString fails";
    }
    if (SetPrinterACL(kAclAdd, name, r.UN) == 0) {
        return "Set-PrinterACL fails";
    }
    return nullptr;
}

const char* RecordOnNewPrinter(OVACache& cache, const std::u16string& name,
                               const CreateRequest& r) {
    if (cache.IsPrinterInList(name) == 0 && cache.AddPrinterToList(name) == 0) {
        return "Add-PrinterToList fails";
    }
    if (cache.AddSessionIDUserName(name, r.SID, r.UN) == 0) {
        return "Add-SessionIDUserName failed";
    }
    std::u16string location;
    if (cache.GenLocationString(name, &location, u"") == 0) {
        return "Gen-LocationString failed";
    }
    if (WinPrinter::SetPrinterLocationString(name, location) == 0) {
        return "Set-PrinterLocationString fails";
    }
    if (SetPrinterACL(kAclAdd, name, r.UN) == 0) {
        return "Set-PrinterACL fails";
    }
    return nullptr;
}

// The first string of the properties, for the trace.
std::u16string FirstProperty(const CreateRequest& r) {
    if (r.PrinterProperties == nullptr || r.PropertiesLength < 2) {
        return {};
    }
    const auto* text = static_cast<const char16_t*>(r.PrinterProperties);
    const std::size_t units = r.PropertiesLength / 2;
    std::size_t length = 0;
    while (length < units && text[length] != u'\0') {
        ++length;
    }
    return std::u16string(text, length);
}

}  // namespace

std::int32_t CopyPrinterDriverData(std::u16string_view templateName, void* printer) {
    const auto failed = [&](int step, std::int32_t status) {
        OVTRACE(ERR | NORM,
                "CopyPrinterDriverData(%s,0x%x) failed at %d with Rtn=%d, GetLastError %d",
                templateName, printer, step, status, platform::GetLastError());
        return status;
    };
    platform::UniqueKey key;
    const std::u16string path =
        Format(u"SYSTEM\\CurrentControlSet\\Control\\Print\\Printers\\%s\\PrinterDriverData",
               templateName);
    if (const auto rc = platform::RegOpenKeyExW(platform::HKEY_LOCAL_MACHINE, path, 0,
                                                platform::KEY_READ, &key);
        rc != platform::ERROR_SUCCESS) {
        return failed(0, static_cast<std::int32_t>(rc));
    }
    std::vector<std::byte> data(1024);
    constexpr int kMemoryRetries = 3;
    int memoryShort = 0;
    for (platform::DWORD index = 0;;) {
        char16_t name[261] = {};
        platform::DWORD nameLength = 261;
        platform::DWORD type = 0;
        auto size = static_cast<platform::DWORD>(data.size());
        const auto rc =
            platform::RegEnumValueW(key.get(), index, name, &nameLength, &type, data.data(), &size);
        if (rc == platform::ERROR_MORE_DATA && size > data.size()) {
            data.resize(size);
            continue;
        }
        if (rc == platform::ERROR_MORE_DATA) {
            // The data fits, so the name does not: no value of the driver
            // has such a name, and it is left out rather than asked for again.
            OVTRACE(ERR | NORM,
                    "CopyPrinterDriverData(%s,0x%x): value %d has a name too long, left out",
                    templateName, printer, index);
            ++index;
            continue;
        }
        if (rc == platform::ERROR_NOT_ENOUGH_MEMORY && ++memoryShort < kMemoryRetries) {
            continue;
        }
        memoryShort = 0;
        if (rc == platform::ERROR_NO_MORE_ITEMS) {
            OVTRACE(INF | NORM, "CopyPrinterDriverData(%s,0x%x) ok ", templateName, printer);
            return 0;
        }
        if (rc != platform::ERROR_SUCCESS) {
            return failed(1, static_cast<std::int32_t>(rc));
        }
        const platform::DWORD status = platform::SetPrinterDataW(
            printer, std::u16string_view(name, nameLength), type, data.data(), size);
        if (status != platform::ERROR_SUCCESS) {
            return failed(2, static_cast<std::int32_t>(status));
        }
        ++index;
    }
}

std::int32_t InstallPrinter(const CreateRequest& r, std::u16string* strCreatedPrinterName,
                            std::u16string* strCreatedPrinterClass) {
    OVTRACE(INF | NORM, "%s,%s,%s,%d,%s,%d,%d,%s,%s,%s,%s,%d,%d,%d,0x%x", r.PN, r.PC, r.IP, r.TYPE,
            r.DRIVER, r.PID, r.SID, r.ADDR, r.UN, r.CN, FirstProperty(r), r.PropertiesLength,
            r.PropertiesParts, r.nPrinterPropertiesOptions, r.nFlags);
    TraceProcessAccount();
    if (strCreatedPrinterName != nullptr) {
        strCreatedPrinterName->clear();
    }
    strCreatedPrinterClass->clear();

    const CTranslationRule request =
        MakeTranslationRequest(r.PN, r.PC, r.IP, r.CN, ClientTypeBit(r.TYPE), r.DRIVER);
    OVTRACE(INF | NORM, "Look for <%s>", request.ToString());
    std::array<std::u16string, 3> templates;
    std::array<std::u16string, 3> ruleLines;
    std::uint32_t count = 3;
    if (g_pTTable == nullptr ||
        g_pTTable->FindRule(request, templates, count, ruleLines, true) == 0) {
        return kResultNoTemplate;
    }
    OVTRACE(INF | NORM, "try maximal %d printer templates", count);
    TemplateInfo info;
    std::uint32_t isNewDefinition = 0;
    if (const std::int32_t found =
            FindPrinterTemplate(templates, &count, strCreatedPrinterClass, &info, &isNewDefinition,
                                r.nFlags, r.PrinterProperties, r.PropertiesLength);
        found != 0) {
        return found;
    }
    if (count >= 3) {
        TraceCheck("dwCount < 3", __FILE__, __LINE__);
    } else {
        OVTRACE(INF | NORM, "Used rule is: <%s>", ruleLines[count]);
    }
    WinPort* port = ThePort();
    if (port == nullptr) {
        return kResultNoPortFormat;
    }
    platform::PrinterInfo2& record = *info.pPrtInfo2;
    if (const std::int32_t portResult = port->TestAllPortInPortList(record.portName);
        portResult != 0) {
        return portResult;
    }
    std::u16string name =
        FormatPrinterName(port->Format(), r.ADDR, r.PID, ApplyPrinterNameScheme(r.PN), r.UN);
    const std::u16string templateName = record.printerName;
    record.printerName = name;

    if ((r.nFlags & kFlagDeleteMode) != 0) {
        UninstallPrinter(name, r.SID);
        if (strCreatedPrinterName != nullptr) {
            *strCreatedPrinterName = name.substr(0, kReplyChars);
        }
        return 0;
    }

    if (record.devMode) {
        record.devMode->dmDeviceName = name.substr(0, platform::DevMode::kNameChars - 1);
    }
    record.comment = LoadOwnString(IDS_AUTOCREATED_MARK);
    record.attributes &= ~platform::PRINTER_ATTRIBUTE_SHARED;
    OVTRACE(INF | NORM, "nFlags = %d", r.nFlags);
    if ((r.nFlags & kFlagShare) != 0) {
        record.attributes |= platform::PRINTER_ATTRIBUTE_SHARED;
        record.shareName = name.substr(0, kShareNameChars);
    }
    if (isNewDefinition != 0) {
        std::vector<std::byte> descriptor = DefaultDescriptor();
        if (!descriptor.empty()) {
            record.securityDescriptor = std::move(descriptor);
            OVTRACE(INF | NORM, "Set Printer ACL to SYSTEM/ADMINS default (ok)");
        } else {
            OVTRACE(ERR | NORM, "Set Printer ACL to SYSTEM/ADMINS default (failed)");
        }
    }

    OVTRACE(INF | NORM, "AddPrinter() wird ausgeführt...");
    platform::SetLastError(platform::ERROR_SUCCESS);
    platform::UniquePrinter printer = platform::AddPrinterW(u"", record);
    const platform::DWORD addError = platform::GetLastError();
    bool existing = false;
    if (printer && !record.devMode) {
        if (const std::int32_t reread = RereadPrinterInfo(&info, &printer); reread != 0) {
            return reread;
        }
    }
    if (!printer) {
        if (addError != platform::ERROR_PRINTER_ALREADY_EXISTS) {
            OVTRACE(ERR | NORM, "API-Fkt. AddPrinter() schlug fehl (%d)!", addError);
            return kResultAddRefused;
        }
        existing = true;
    } else {
        platform::PrinterInfo2& added = *info.pPrtInfo2;
        if (isNewDefinition == 0 && CopyPrinterDriverData(templateName, printer.get()) != 0) {
            OVTRACE(ERR | NORM, "CopyPrinterDriverData failed");
        }
        if (added.driverName == kRelayDriver) {
            if (r.PrinterProperties == nullptr) {
                OVTRACE(INF | NORM, "No PrinterPorperties got");
            } else {
                OVTRACE(INF | NORM, "SetPrinterProperties");
                if (SetPrinterProperties(r.PrinterProperties, r.PropertiesLength, r.PropertiesParts,
                                         r.nPrinterPropertiesOptions, printer.get(),
                                         &added) == -1) {
                    OVTRACE(ERR | NORM, "SetPrinterProperties failed");
                } else {
                    OVTRACE(INF | NORM, "SetPrinterProperties ok");
                    platform::OSVERSIONINFOEXW version;
                    if (platform::GetVersionExW(&version) &&
                        version.dwPlatformId == platform::VER_PLATFORM_WIN32_NT &&
                        version.dwMajorVersion >= 5 &&
                        !platform::SetPrinterW(printer.get(), platform::PrinterInfo8{added.devMode},
                                               0)) {
                        OVTRACE(ERR | NORM, "SetPrinter(8) failed with: %d",
                                platform::GetLastError());
                    }
                }
            }
        } else {
            OVTRACE(INF | NORM, "No OVRP, PrinterPorperties not set");
        }
        if (isNewDefinition == 0 && !platform::SetPrinterW(printer.get(), added, 0)) {
            OVTRACE(ERR | NORM, "SetPrinter(2) failed with: %d", platform::GetLastError());
        }
        info.KeepDriver();
        printer.reset();
    }

    if (pthePrinterList == nullptr) {
        TraceCheck("pthePrinterList != NULL", __FILE__, __LINE__);
        OVTRACE(ERR | NORM, "ptheprinterlist == NULL");
        return kResultCacheStep;
    }
    std::int32_t result = 0;
    const char* failed = existing ? RecordOnExistingPrinter(*pthePrinterList, name, r)
                                  : RecordOnNewPrinter(*pthePrinterList, name, r);
    if (failed != nullptr) {
        OVTRACE(ERR | NORM, "%S", failed);
        result = kResultCacheStep;
    }
    if (strCreatedPrinterName != nullptr) {
        *strCreatedPrinterName = name.substr(0, kReplyChars);
    }
    return result;
}

}  // namespace ovsvc
