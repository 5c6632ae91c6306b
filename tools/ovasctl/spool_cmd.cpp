// ovasctl spool: printers with their comment, location, jobs and ACL;
// template printers, drivers, monitor ports and jobs of the embedded machine.
#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "command.h"
#include "platform/error.h"
#include "platform/machine.h"
#include "platform/registry.h"
#include "platform/security.h"
#include "platform/spooler.h"

namespace ovasctl {

namespace {

using namespace platform;
namespace fs = std::filesystem;

// ---- security --------------------------------------------------------------------

struct AclEntryText {
    std::string account;  // DOMAIN\name, or the SID when it has no name
    std::string type;     // "allow" or "deny"
    std::string rights;   // the printer rights in words
    std::uint32_t mask = 0;
    std::uint32_t flags = 0;
};

// DOMAIN\name of the account, or the SID's text when the machine has no name
// for it.
std::string AccountName(const Sid& sid) {
    admin::Account account;
    if (admin::FindAccountBySid(sid, &account)) {
        return Utf8(account.domain.empty() ? account.name : account.FullName());
    }
    return Utf8(sid.ToString());
}

std::string RightsText(std::uint32_t mask, std::uint8_t flags) {
    std::string text;
    auto add = [&](const char* word) { text += (text.empty() ? "" : "+") + std::string(word); };
    if ((flags & 0x08) != 0) {
        add((mask & 0x000F0030) == 0x000F0030 ? "manage-documents" : "documents");
        return text;
    }
    if ((mask & PRINTER_ALL_ACCESS) == PRINTER_ALL_ACCESS || (mask & 0x10000000) != 0) {
        return "full";
    }
    if ((mask & PRINTER_ACCESS_ADMINISTER) != 0) {
        add("manage-printer");
    }
    if ((mask & PRINTER_ACCESS_USE) != 0) {
        add("print");
    }
    if ((mask & 0x00020000) != 0 && text.empty()) {
        add("read");
    }
    return text.empty() ? "none" : text;
}

// The DACL of a self-relative descriptor, one line per ACE; nothing for a
// descriptor that does not parse or has no DACL.
std::vector<AclEntryText> DescribeAcl(const std::vector<std::byte>& selfRelative) {
    std::vector<AclEntryText> out;
    SecurityDescriptor sd;
    bool present = false;
    bool defaulted = false;
    const Acl* dacl = nullptr;
    ACL_SIZE_INFORMATION size;
    if (!MakeAbsoluteSD(selfRelative, &sd) ||
        !GetSecurityDescriptorDacl(sd, &present, &dacl, &defaulted) || dacl == nullptr ||
        !GetAclInformation(*dacl, &size)) {
        return out;
    }
    for (DWORD i = 0; i < size.AceCount; ++i) {
        Ace ace;
        if (!GetAce(*dacl, i, &ace)) {
            break;
        }
        const BYTE type = ace.Header.AceType;
        AclEntryText entry;
        entry.type = type == ACCESS_ALLOWED_ACE_TYPE  ? "allow"
                     : type == ACCESS_DENIED_ACE_TYPE ? "deny"
                                                      : "type" + std::to_string(type);
        entry.flags = ace.Header.AceFlags;
        entry.mask = ace.Mask;
        entry.account = ace.sid.empty() ? "?" : AccountName(ace.sid);
        entry.rights = RightsText(entry.mask, ace.Header.AceFlags);
        out.push_back(std::move(entry));
    }
    return out;
}

// Makes this process act as `account` for the spooler's access check.
bool RunAsAccount(const std::string& account, std::string* why) {
    admin::Account found;
    if (!admin::FindAccountByName(Utf16(account), &found)) {
        *why = GetLastError() == ERROR_CALL_NOT_IMPLEMENTED
                   ? "cannot act as \"" + account + "\": this machine has no account table yet"
                   : "unknown account \"" + account + "\"";
        return false;
    }
    admin::SetProcessAccount(found.FullName());
    return true;
}

// ---- output helpers ------------------------------------------------------------

int Fail(const std::string& what, DWORD error) {
    return ovasctl::Fail("spool", what + " failed", error);
}

int Fail(const std::string& what) {
    return ovasctl::Fail("spool", what);
}

std::string AclSummary(const std::vector<AclEntryText>& acl) {
    std::string out;
    for (const auto& e : acl) {
        if (!out.empty()) {
            out += "; ";
        }
        out += e.account + ":" + e.rights;
    }
    return out;
}

std::string AclJson(const std::vector<AclEntryText>& acl) {
    std::vector<std::string> entries;
    for (const auto& e : acl) {
        entries.push_back(JsonObject()
                              .Text("account", e.account)
                              .Text("type", e.type)
                              .Text("rights", e.rights)
                              .Number("mask", e.mask)
                              .Number("flags", e.flags)
                              .str());
    }
    return JsonArray(entries);
}

JsonObject PrinterJson(const PrinterInfo2& p) {
    JsonObject out;
    out.Text("name", Utf8(p.printerName))
        .Text("share", Utf8(p.shareName))
        .Text("driver", Utf8(p.driverName))
        .Text("port", Utf8(p.portName))
        .Text("comment", Utf8(p.comment))
        .Text("location", Utf8(p.location))
        .Text("printProcessor", Utf8(p.printProcessor))
        .Text("datatype", Utf8(p.datatype))
        .Number("attributes", p.attributes)
        .Number("status", p.status)
        .Number("jobs", p.cJobs)
        .Raw("acl", AclJson(DescribeAcl(p.securityDescriptor)));
    return out;
}

// ---- commands --------------------------------------------------------------------

int ListPrinters(bool json) {
    auto printers = EnumPrintersW(PRINTER_ENUM_LOCAL, u"", 2);
    if (!printers) {
        return Fail("EnumPrinters", GetLastError());
    }
    if (json) {
        std::vector<std::string> out;
        for (const auto& p : *printers) {
            out.push_back(PrinterJson(p).str());
        }
        std::cout << JsonArray(out) << "\n";
        return 0;
    }
    std::vector<std::vector<std::string>> rows;
    for (const auto& p : *printers) {
        rows.push_back({Utf8(p.printerName), Utf8(p.driverName), Utf8(p.portName), Utf8(p.comment),
                        Utf8(p.location), std::to_string(p.cJobs),
                        AclSummary(DescribeAcl(p.securityDescriptor))});
    }
    rows.insert(rows.begin(), {"NAME", "DRIVER", "PORT", "COMMENT", "LOCATION", "JOBS", "ACL"});
    PrintTable(rows);
    return 0;
}

std::string DataText(const RegistryValue& v) {
    if (v.type == REG_DWORD && v.data.size() == 4) {
        std::uint32_t d = 0;
        std::memcpy(&d, v.data.data(), 4);
        return "dword:" + std::to_string(d);
    }
    if (v.type == REG_SZ || v.type == REG_MULTI_SZ || v.type == REG_EXPAND_SZ) {
        std::u16string text(v.data.size() / 2, u'\0');
        std::memcpy(text.data(), v.data.data(), text.size() * 2);
        while (!text.empty() && text.back() == u'\0') {
            text.pop_back();
        }
        for (auto& c : text) {
            if (c == u'\0') {
                c = u'|';
            }
        }
        return Utf8(text);
    }
    return std::to_string(v.data.size()) + " bytes (type " + std::to_string(v.type) + ")";
}

int ShowPrinter(const std::string& name, bool json) {
    const auto defaults = PrinterDefaults{u"", std::nullopt, PRINTER_ALL_ACCESS};
    auto printer = OpenPrinterW(Utf16(name), &defaults);
    if (!printer) {
        return Fail("OpenPrinter \"" + name + "\"", GetLastError());
    }
    PrinterInfo2 info;
    if (!GetPrinterW(printer.get(), &info)) {
        return Fail("GetPrinter", GetLastError());
    }
    std::vector<RegistryValue> data;
    UniqueKey key;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE,
                      u"SYSTEM\\CurrentControlSet\\Control\\Print\\Printers\\" + info.printerName +
                          u"\\PrinterDriverData",
                      0, KEY_READ, &key) == ERROR_SUCCESS) {
        RegEnumValues(key.get(), &data);
    }
    auto jobs = EnumJobsW(printer.get(), 0, 0xFFFFFFFF, 1).value_or(std::vector<JobInfo1>{});
    if (json) {
        JsonObject out = PrinterJson(info);
        if (info.devMode) {
            const auto& dm = *info.devMode;
            out.Raw("devMode",
                    JsonObject()
                        .Text("deviceName", Utf8(dm.dmDeviceName))
                        .Number("fields", dm.dmFields)
                        .Number("paperSize", dm.dmPaperSize)
                        .Number("defaultSource", dm.dmDefaultSource)
                        .Number("duplex", dm.dmDuplex)
                        .Number("printQuality", dm.dmPrintQuality)
                        .Number("yResolution", dm.dmYResolution)
                        .Text("formName", Utf8(dm.dmFormName))
                        .Number("driverExtra", static_cast<std::int64_t>(dm.driverExtra.size()))
                        .str());
        } else {
            out.Raw("devMode", "null");
        }
        JsonObject printerData;
        for (const auto& v : data) {
            printerData.Text(Utf8(v.name), DataText(v));
        }
        out.Raw("printerData", printerData.str());
        std::vector<std::string> queue;
        for (const auto& j : jobs) {
            queue.push_back(JsonObject()
                                .Number("id", j.jobId)
                                .Text("user", Utf8(j.userName))
                                .Text("document", Utf8(j.document))
                                .str());
        }
        out.Raw("queue", JsonArray(queue));
        std::cout << out.str() << "\n";
        return 0;
    }
    std::cout << "Name:            " << Utf8(info.printerName) << '\n'
              << "Share name:      " << Utf8(info.shareName) << '\n'
              << "Driver:          " << Utf8(info.driverName) << '\n'
              << "Port:            " << Utf8(info.portName) << '\n'
              << "Comment:         " << Utf8(info.comment) << '\n'
              << "Location:        " << Utf8(info.location) << '\n'
              << "Print processor: " << Utf8(info.printProcessor) << '\n'
              << "Data type:       " << Utf8(info.datatype) << '\n'
              << "Attributes:      0x" << std::hex << info.attributes << std::dec << '\n'
              << "Status:          0x" << std::hex << info.status << std::dec << '\n'
              << "Jobs:            " << info.cJobs << '\n';
    if (info.devMode) {
        const auto& dm = *info.devMode;
        std::cout << "Device mode:     " << Utf8(dm.dmDeviceName) << ", fields 0x" << std::hex
                  << dm.dmFields << std::dec << ", paper " << dm.dmPaperSize << ", source "
                  << dm.dmDefaultSource << ", duplex " << dm.dmDuplex << ", quality "
                  << dm.dmPrintQuality << "x" << dm.dmYResolution << ", form \""
                  << Utf8(dm.dmFormName) << "\", " << dm.driverExtra.size() << " private bytes\n";
    }
    std::cout << "ACL:\n";
    for (const auto& e : DescribeAcl(info.securityDescriptor)) {
        std::cout << "  " << e.type << ' ' << e.account << ": " << e.rights << '\n';
    }
    std::cout << "Printer data:\n";
    for (const auto& v : data) {
        std::cout << "  " << Utf8(v.name) << " = " << DataText(v) << '\n';
    }
    std::cout << "Queue:\n";
    for (const auto& j : jobs) {
        std::cout << "  " << j.jobId << "  " << Utf8(j.userName) << "  " << Utf8(j.document)
                  << '\n';
    }
    return 0;
}

int AddTemplate(const std::string& name, const std::string& driver, const std::string& port,
                const std::string& comment) {
    std::u16string printerName = Utf16(name);
    if (!printerName.starts_with(u"_#")) {
        printerName.insert(0, u"_#");
    }
    PrinterInfo2 info;
    info.printerName = printerName;
    info.driverName = Utf16(driver);
    info.portName = Utf16(port);
    info.comment = Utf16(comment);
    info.printProcessor = u"winprint";
    info.attributes = PRINTER_ATTRIBUTE_LOCAL;
    auto printer = AddPrinterW(u"", info);
    if (!printer) {
        return Fail("AddPrinter \"" + Utf8(printerName) + "\"", GetLastError());
    }
    std::cout << "Added template printer \"" << Utf8(printerName) << "\"\n";
    return 0;
}

// Puts a named file into the driver directory: a host file is copied there,
// a name already there is used as it is, any other name gets an empty file.
bool StageDriverFile(const std::string& file, const fs::path& directory, std::u16string* name) {
    std::error_code ec;
    const fs::path host(file);
    const std::string base = host.filename().string();
    if (base.empty()) {
        return false;
    }
    if (fs::is_regular_file(host, ec) && host.has_parent_path()) {
        fs::copy_file(host, directory / base, fs::copy_options::overwrite_existing, ec);
        if (ec) {
            return false;
        }
    } else if (!fs::exists(directory / base, ec)) {
        std::ofstream(directory / base) << "";
    }
    *name = Utf16(base);
    return true;
}

int AddDriver(const std::string& name, const std::vector<std::string>& files) {
    auto directory = GetPrinterDriverDirectoryW(u"", kEnvironmentX64, 1);
    if (!directory) {
        return Fail("GetPrinterDriverDirectory", GetLastError());
    }
    const fs::path hostDirectory =
        fs::path(machine::Root()) / "drive_c/Windows/System32/spool/drivers/x64";
    std::vector<std::string> named = files;
    if (named.empty()) {
        std::string stem;
        for (char c : name) {
            stem += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
        }
        named.push_back(stem + ".DLL");
    }
    std::vector<std::u16string> staged;
    for (const auto& file : named) {
        std::u16string base;
        if (!StageDriverFile(file, hostDirectory, &base)) {
            return Fail("copying \"" + file + "\" into the driver directory", ERROR_CANTWRITE);
        }
        staged.push_back(base);
    }
    DriverInfo6 info;
    info.name = Utf16(name);
    info.environment = kEnvironmentX64;
    info.driverPath = staged[0];
    info.dataFile = staged.size() > 1 ? staged[1] : u"";
    info.configFile = staged.size() > 2 ? staged[2] : u"";
    info.dependentFiles.assign(staged.begin() + std::min<std::size_t>(3, staged.size()),
                               staged.end());
    info.defaultDataType = u"RAW";
    if (!AddPrinterDriverW(u"", 6, info)) {
        return Fail("AddPrinterDriver \"" + name + "\"", GetLastError());
    }
    std::cout << "Added driver \"" << name << "\"\n";
    return 0;
}

int AddProcessor(const std::string& name, const std::string& file) {
    if (!AddPrintProcessorW(u"", kEnvironmentX64, Utf16(file.empty() ? name + ".dll" : file),
                            Utf16(name))) {
        return Fail("AddPrintProcessor \"" + name + "\"", GetLastError());
    }
    std::cout << "Added print processor \"" << name << "\"\n";
    return 0;
}

int ListProcessors() {
    const auto names = EnumPrintProcessorsW(u"", kEnvironmentX64);
    if (!names) {
        return Fail("EnumPrintProcessors", GetLastError());
    }
    for (const auto& name : *names) {
        std::cout << Utf8(name) << '\n';
    }
    return 0;
}

int ListDrivers(bool json) {
    auto drivers = EnumPrinterDriversW(u"", kEnvironmentX64, 6);
    if (!drivers) {
        return Fail("EnumPrinterDrivers", GetLastError());
    }
    if (json) {
        std::vector<std::string> out;
        for (const auto& d : *drivers) {
            out.push_back(JsonObject()
                              .Text("name", Utf8(d.name))
                              .Text("driverPath", Utf8(d.driverPath))
                              .Text("dataFile", Utf8(d.dataFile))
                              .str());
        }
        std::cout << JsonArray(out) << "\n";
        return 0;
    }
    std::vector<std::vector<std::string>> rows = {{"NAME", "DRIVER FILE", "DATA FILE"}};
    for (const auto& d : *drivers) {
        rows.push_back({Utf8(d.name), Utf8(d.driverPath), Utf8(d.dataFile)});
    }
    PrintTable(rows);
    return 0;
}

DWORD SendPortCommand(HANDLE xcv, std::u16string_view command, const std::u16string& input) {
    DWORD status = ERROR_INVALID_FUNCTION;
    DWORD needed = 0;
    if (!XcvDataW(xcv, command, input.data(),
                  static_cast<DWORD>((input.size() + 1) * sizeof(char16_t)), nullptr, 0, &needed,
                  &status)) {
        return GetLastError();
    }
    return status;
}

int AddPort(const std::string& monitor, const std::string& port, const std::string& text) {
    const std::u16string monitorName = Utf16(monitor);
    if (!AddMonitorW(u"", monitorName, monitorName + u".dll") &&
        GetLastError() != ERROR_ALREADY_EXISTS) {
        return Fail("AddMonitor \"" + monitor + "\"", GetLastError());
    }
    const auto defaults = PrinterDefaults{u"", std::nullopt, SERVER_ACCESS_ADMINISTER};
    auto xcv = OpenPrinterW(u",XcvMonitor " + monitorName, &defaults);
    if (!xcv) {
        return Fail("opening monitor \"" + monitor + "\"", GetLastError());
    }
    const std::u16string portName = Utf16(port);
    DWORD status = SendPortCommand(xcv.get(), u"AddPort", portName);
    if (status != ERROR_SUCCESS && status != ERROR_ALREADY_EXISTS) {
        return Fail("AddPort \"" + port + "\"", status);
    }
    std::u16string info = Utf16(text);
    // "\n" typed on a command line stands for a line feed.
    for (std::size_t at = info.find(u"\\n"); at != std::u16string::npos; at = info.find(u"\\n")) {
        info.replace(at, 2, u"\n");
    }
    std::u16string input = portName;
    input.push_back(u'\0');
    input += info;
    status = SendPortCommand(xcv.get(), u"SetPortInfo", input);
    if (status != ERROR_SUCCESS) {
        return Fail("setting the text of port \"" + port + "\" (it may belong to another monitor)",
                    status);
    }
    std::cout << "Port \"" << port << "\" of \"" << monitor << "\" answers:\n"
              << Utf8(info) << '\n';
    return 0;
}

int ListPorts(bool json) {
    auto ports = EnumPortsW(u"", 2);
    if (!ports) {
        return Fail("EnumPorts", GetLastError());
    }
    std::vector<std::vector<std::string>> rows;
    std::vector<std::string> out;
    for (const auto& p : *ports) {
        std::string text;
        const auto defaults = PrinterDefaults{u"", std::nullopt, SERVER_ACCESS_ADMINISTER};
        if (auto xcv = OpenPrinterW(u",XcvMonitor " + p.monitorName, &defaults)) {
            std::u16string buffer(1024, u'\0');
            DWORD needed = 0;
            DWORD status = 0;
            const std::u16string in = p.portName;
            if (XcvDataW(xcv.get(), u"GetPort", in.c_str(), static_cast<DWORD>((in.size() + 1) * 2),
                         buffer.data(), static_cast<DWORD>(buffer.size() * 2), &needed, &status) &&
                status == ERROR_SUCCESS) {
                text = Utf8(buffer.c_str());
            }
        }
        std::string flat = text;
        for (auto& c : flat) {
            c = c == '\n' ? ' ' : c;
        }
        rows.push_back({Utf8(p.monitorName), Utf8(p.portName), flat});
        out.push_back(JsonObject()
                          .Text("monitor", Utf8(p.monitorName))
                          .Text("port", Utf8(p.portName))
                          .Text("info", text)
                          .str());
    }
    if (json) {
        std::cout << JsonArray(out) << "\n";
    } else {
        rows.insert(rows.begin(), {"MONITOR", "PORT", "GETPORT"});
        PrintTable(rows);
    }
    return 0;
}

int AddJob(const std::string& printerName, const std::string& user, const std::string& document) {
    std::string why;
    if (!user.empty() && !RunAsAccount(user, &why)) {
        return Fail(why);
    }
    auto printer = OpenPrinterW(Utf16(printerName));
    if (!printer) {
        const DWORD error = GetLastError();
        if (error == ERROR_ACCESS_DENIED) {
            return Fail("access denied: " + (user.empty() ? std::string("this user") : user) +
                        " may not print to \"" + printerName + "\"");
        }
        return Fail("OpenPrinter \"" + printerName + "\"", error);
    }
    DocInfo1 doc;
    doc.documentName = Utf16(document);
    const DWORD id = StartDocPrinterW(printer.get(), doc);
    if (id == 0) {
        return Fail("StartDocPrinter", GetLastError());
    }
    EndDocPrinter(printer.get());
    std::cout << "Queued job " << id << " on \"" << printerName << "\"\n";
    return 0;
}

int FinishJob(const std::string& printerName, DWORD id) {
    const auto defaults = PrinterDefaults{u"", std::nullopt, PRINTER_ALL_ACCESS};
    auto printer = OpenPrinterW(Utf16(printerName), &defaults);
    if (!printer) {
        return Fail("OpenPrinter \"" + printerName + "\"", GetLastError());
    }
    if (id == 0) {
        auto jobs = EnumJobsW(printer.get(), 0, 1, 1);
        if (!jobs || jobs->empty()) {
            return Fail("no job queued on \"" + printerName + "\"");
        }
        id = jobs->front().jobId;
    }
    if (!SetJobW(printer.get(), id, JOB_CONTROL_DELETE)) {
        return Fail("finishing job " + std::to_string(id), GetLastError());
    }
    std::cout << "Finished job " << id << " on \"" << printerName << "\"\n";
    return 0;
}

// Replaces a printer's DACL: SYSTEM and Administrators keep full control, and
// each "ACCOUNT=RIGHTS" entry (print, manage-documents, manage-printer, full)
// is granted.
int SetAcl(const std::string& name, const std::vector<std::string>& entries) {
    struct Grant {
        Sid sid;
        ACCESS_MASK mask;
        DWORD flags;
    };
    std::vector<Grant> grants;
    auto grantFull = [&grants](const Sid& sid) {
        grants.push_back({sid, PRINTER_ALL_ACCESS, 0});
        grants.push_back({sid, 0x000F0030, OBJECT_INHERIT_ACE | INHERIT_ONLY_ACE});
    };
    Sid system;
    Sid admins;
    if (!CreateWellKnownSid(WinLocalSystemSid, &system) ||
        !CreateWellKnownSid(WinBuiltinAdministratorsSid, &admins)) {
        return Fail("building the well-known SIDs", GetLastError());
    }
    grantFull(system);
    grantFull(admins);
    for (const auto& entry : entries) {
        const auto eq = entry.rfind('=');
        const std::string account = entry.substr(0, eq);
        const std::string rights = eq == std::string::npos ? "print" : entry.substr(eq + 1);
        admin::Account found;
        if (!admin::FindAccountByName(Utf16(account), &found)) {
            return Fail("looking up \"" + account + "\"", GetLastError());
        }
        if (rights == "print") {
            grants.push_back({found.sid, PRINTER_READ, 0});
        } else if (rights == "manage-documents") {
            grants.push_back({found.sid, 0x000F0030, OBJECT_INHERIT_ACE | INHERIT_ONLY_ACE});
        } else if (rights == "manage-printer") {
            grants.push_back({found.sid, PRINTER_ALL_ACCESS, 0});
        } else if (rights == "full") {
            grantFull(found.sid);
        } else {
            return Fail("unknown right \"" + rights +
                        "\" (print, manage-documents, manage-printer, full)");
        }
    }
    DWORD size = kAclHeaderSize;
    for (const auto& g : grants) {
        size += kAceFixedSize + static_cast<DWORD>(g.sid.size());
    }
    Acl dacl;
    SecurityDescriptor sd;
    if (!InitializeAcl(&dacl, size, ACL_REVISION)) {
        return Fail("InitializeAcl", GetLastError());
    }
    for (const auto& g : grants) {
        if (!AddAccessAllowedAceEx(&dacl, ACL_REVISION, g.flags, g.mask, g.sid)) {
            return Fail("AddAccessAllowedAceEx", GetLastError());
        }
    }
    if (!InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION) ||
        !SetSecurityDescriptorDacl(&sd, true, &dacl, false)) {
        return Fail("building the descriptor", GetLastError());
    }
    const auto defaults = PrinterDefaults{u"", std::nullopt, PRINTER_ALL_ACCESS};
    auto printer = OpenPrinterW(Utf16(name), &defaults);
    if (!printer) {
        return Fail("OpenPrinter \"" + name + "\"", GetLastError());
    }
    if (!SetPrinterW(printer.get(), PrinterInfo3{ToSelfRelative(sd)}, 0)) {
        return Fail("SetPrinter (security)", GetLastError());
    }
    PrinterInfo3 now;
    GetPrinterW(printer.get(), &now);
    std::cout << "ACL of \"" << name << "\" is now:\n";
    for (const auto& e : DescribeAcl(now.securityDescriptor)) {
        std::cout << "  " << e.type << ' ' << e.account << ": " << e.rights << '\n';
    }
    return 0;
}

int DeleteOnePrinter(const std::string& name) {
    const auto defaults = PrinterDefaults{u"", std::nullopt, PRINTER_ALL_ACCESS};
    auto printer = OpenPrinterW(Utf16(name), &defaults);
    if (!printer || !DeletePrinter(printer.get())) {
        return Fail("deleting \"" + name + "\"", GetLastError());
    }
    std::cout << "Deleted \"" << name << "\"\n";
    return 0;
}

void InstallSpoolCommands(CLI::App& app) {
    auto* spool = app.add_subcommand("spool", "printers, templates, drivers, ports and jobs");
    spool->require_subcommand(1);
    auto json = std::make_shared<bool>(false);
    spool->add_flag("--json", *json, "machine-readable output");

    auto* printers = spool->add_subcommand("printers", "list printers with location, jobs and ACL");
    printers->add_flag("--json", *json, "machine-readable output");
    printers->callback([json] { ListPrinters(*json); });

    auto showName = std::make_shared<std::string>();
    auto* show = spool->add_subcommand("show", "everything about one printer");
    show->add_option("NAME", *showName, "printer or share name")->required();
    show->add_flag("--json", *json, "machine-readable output");
    show->callback([json, showName] { ShowPrinter(*showName, *json); });

    auto delName = std::make_shared<std::string>();
    auto* del = spool->add_subcommand("delete", "delete a printer");
    del->add_option("NAME", *delName, "printer name")->required();
    del->callback([delName] { DeleteOnePrinter(*delName); });

    struct AclArgs {
        std::string name;
        std::vector<std::string> allow;
    };
    auto aargs = std::make_shared<AclArgs>();
    auto* acl = spool->add_subcommand(
        "acl", "replace a printer's ACL: SYSTEM and Administrators full, plus the given grants");
    acl->add_option("NAME", aargs->name, "printer name")->required();
    acl->add_option("--allow", aargs->allow,
                    "ACCOUNT=RIGHTS (print, manage-documents, manage-printer, full)");
    acl->callback([aargs] { SetAcl(aargs->name, aargs->allow); });

    auto* templ = spool->add_subcommand("template", "template printers (\"_#\" names)");
    templ->require_subcommand(1);
    struct TemplateArgs {
        std::string name, driver, port, comment;
    };
    auto targs = std::make_shared<TemplateArgs>();
    auto* tadd = templ->add_subcommand("add", "add a template printer");
    tadd->add_option("NAME", targs->name, "template name (\"_#\" is added when missing)")
        ->required();
    tadd->add_option("--driver", targs->driver, "driver name")->required();
    tadd->add_option("--port", targs->port, "port name")->required();
    tadd->add_option("--comment", targs->comment, "comment");
    tadd->callback(
        [targs] { AddTemplate(targs->name, targs->driver, targs->port, targs->comment); });

    auto* driver = spool->add_subcommand("driver", "printer drivers");
    driver->require_subcommand(1);
    struct DriverArgs {
        std::string name;
        std::vector<std::string> files;
    };
    auto dargs = std::make_shared<DriverArgs>();
    auto* dadd = driver->add_subcommand(
        "add", "install a driver (files: driver, data, config, then dependent files)");
    dadd->add_option("NAME", dargs->name, "driver name")->required();
    dadd->add_option("--file", dargs->files,
                     "a file (host path, or a name in the driver directory)");
    dadd->callback([dargs] { AddDriver(dargs->name, dargs->files); });
    auto* dlist = driver->add_subcommand("list", "installed drivers");
    dlist->add_flag("--json", *json, "machine-readable output");
    dlist->callback([json] { ListDrivers(*json); });

    auto* processor = spool->add_subcommand("processor", "print processors");
    processor->require_subcommand(1);
    struct ProcessorArgs {
        std::string name, file;
    };
    auto prargs = std::make_shared<ProcessorArgs>();
    auto* pradd = processor->add_subcommand("add", "install a print processor");
    pradd->add_option("NAME", prargs->name, "print processor name")->required();
    pradd->add_option("--file", prargs->file, "its library (default NAME.dll)");
    pradd->callback([prargs] { AddProcessor(prargs->name, prargs->file); });
    processor->add_subcommand("list", "installed print processors")->callback([] {
        ListProcessors();
    });

    auto* port = spool->add_subcommand("port", "port monitors and their ports");
    port->require_subcommand(1);
    struct PortArgs {
        std::string monitor, port, info;
    };
    auto pargs = std::make_shared<PortArgs>();
    auto* padd = port->add_subcommand("add", "add a port (and its monitor) with its GetPort text");
    padd->add_option("MONITOR", pargs->monitor, "monitor name")->required();
    padd->add_option("PORT", pargs->port, "port name")->required();
    padd->add_option("--info", pargs->info, "GetPort text; \\n separates lines");
    padd->callback([pargs] { AddPort(pargs->monitor, pargs->port, pargs->info); });
    auto* plist = port->add_subcommand("list", "ports with their GetPort text");
    plist->add_flag("--json", *json, "machine-readable output");
    plist->callback([json] { ListPorts(*json); });

    auto* job = spool->add_subcommand("job", "queued jobs");
    job->require_subcommand(1);
    struct JobArgs {
        std::string printer, user, document = "document";
        DWORD id = 0;
    };
    auto jargs = std::make_shared<JobArgs>();
    auto* jadd = job->add_subcommand("add", "queue a job as a user (checked against the ACL)");
    jadd->add_option("PRINTER", jargs->printer, "printer name")->required();
    jadd->add_option("--as", jargs->user, "DOMAIN\\user submitting the job");
    jadd->add_option("--document", jargs->document, "document name");
    jadd->callback([jargs] { AddJob(jargs->printer, jargs->user, jargs->document); });
    auto* jfinish = job->add_subcommand("finish", "end a job (the oldest when no ID is given)");
    jfinish->add_option("PRINTER", jargs->printer, "printer name")->required();
    jfinish->add_option("ID", jargs->id, "job id");
    jfinish->callback([jargs] { FinishJob(jargs->printer, jargs->id); });
}

const AddCommands reg{&InstallSpoolCommands};

}  // namespace

}  // namespace ovasctl
