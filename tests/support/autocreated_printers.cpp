#include "autocreated_printers.h"

#include <algorithm>

#include "ovtest.h"
#include "platform/security.h"

namespace ovtest {

namespace {

using namespace platform;

bool SidOf(std::u16string_view account, Sid* sid) {
    admin::Account found;
    if (!admin::FindAccountByName(account, &found)) {
        return false;
    }
    *sid = found.sid;
    return true;
}

// SYSTEM and Administrators manage printer and documents; each user prints.
std::vector<std::byte> DescriptorFor(const std::map<std::uint32_t, std::u16string>& sessions) {
    Sid system;
    Sid admins;
    CreateWellKnownSid(WinLocalSystemSid, &system);
    CreateWellKnownSid(WinBuiltinAdministratorsSid, &admins);
    Acl acl;
    InitializeAcl(&acl, 1024, ACL_REVISION);
    for (const Sid* sid : {&admins, &system}) {
        AddAccessAllowedAceEx(&acl, ACL_REVISION, 0, PRINTER_ALL_ACCESS, *sid);
        AddAccessAllowedAceEx(&acl, ACL_REVISION, OBJECT_INHERIT_ACE | INHERIT_ONLY_ACE, 0x000F0030,
                              *sid);
    }
    std::vector<std::u16string> done;
    for (const auto& [id, user] : sessions) {
        Sid sid;
        if (user.empty() || std::find(done.begin(), done.end(), user) != done.end() ||
            !SidOf(user, &sid)) {
            continue;
        }
        AddAccessAllowedAceEx(&acl, ACL_REVISION, 0, 0x00020008, sid);
        done.push_back(user);
    }
    SecurityDescriptor sd;
    InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION);
    SetSecurityDescriptorDacl(&sd, true, &acl, false);
    SetSecurityDescriptorOwner(&sd, &admins, false);
    return ToSelfRelative(sd);
}

}  // namespace

bool EnsureUsers(const std::vector<std::u16string>& users) {
    for (const std::u16string& user : users) {
        admin::Account found;
        if (admin::FindAccountByName(user, &found)) {
            continue;
        }
        if (!admin::AddAccount(user, SidTypeUser, {}, nullptr)) {
            ADD_FAILURE() << "cannot add account " << U8(user) << ": error " << GetLastError();
            return false;
        }
    }
    return true;
}

bool AddAutocreatedPrinter(const PrinterSpec& wanted) {
    PrinterInfo2 info;
    info.printerName = wanted.name;
    info.portName = u"FILE:";
    info.driverName = wanted.driver;
    info.comment = wanted.comment;
    info.printProcessor = u"winprint";
    info.datatype = u"RAW";
    if (wanted.locationGiven) {
        info.location = wanted.location;
    } else {
        for (const auto& entry : wanted.sessions) {
            info.location += U16(std::to_string(entry.first)) + u';';
        }
    }
    info.securityDescriptor = DescriptorFor(wanted.sessions);
    const UniquePrinter printer = AddPrinterW(u"", info);
    if (!printer) {
        ADD_FAILURE() << "cannot add printer " << U8(wanted.name) << ": error " << GetLastError();
        return false;
    }
    return true;
}

std::optional<PrinterInfo2> ReadPrinter(std::u16string_view name) {
    const PrinterDefaults defaults{u"", std::nullopt, PRINTER_ALL_ACCESS};
    const UniquePrinter printer = OpenPrinterW(name, &defaults);
    PrinterInfo2 info;
    if (!printer || !GetPrinterW(printer.get(), &info)) {
        return std::nullopt;
    }
    return info;
}

std::vector<std::u16string> PrintingUsers(std::u16string_view name) {
    std::vector<std::u16string> users;
    const std::optional<PrinterInfo2> info = ReadPrinter(name);
    SecurityDescriptor sd;
    if (!info || !MakeAbsoluteSD(info->securityDescriptor, &sd) || !sd.dacl) {
        return users;
    }
    ACL_SIZE_INFORMATION size;
    GetAclInformation(*sd.dacl, &size);
    for (DWORD i = 0; i < size.AceCount; ++i) {
        Ace ace;
        admin::Account account;
        if (GetAce(*sd.dacl, i, &ace) && ace.Header.AceType == ACCESS_ALLOWED_ACE_TYPE &&
            (ace.Header.AceFlags & INHERIT_ONLY_ACE) == 0 && (ace.Mask & PRINTER_ACCESS_USE) != 0 &&
            admin::FindAccountBySid(ace.sid, &account) && account.use == SidTypeUser) {
            users.push_back(account.FullName());
        }
    }
    return users;
}

std::optional<std::vector<std::uint32_t>> LocationIds(std::u16string_view location) {
    std::vector<std::uint32_t> ids;
    std::size_t start = 0;
    while (start < location.size()) {
        const std::size_t end = location.find(u';', start);
        if (end == std::u16string_view::npos || end == start) {
            return std::nullopt;
        }
        std::uint64_t value = 0;
        for (std::size_t i = start; i < end; ++i) {
            if (location[i] < u'0' || location[i] > u'9' ||
                (value = value * 10 + (location[i] - u'0')) > 0xFFFFFFFFu) {
                return std::nullopt;
            }
        }
        ids.push_back(static_cast<std::uint32_t>(value));
        start = end + 1;
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

std::uint32_t QueueJob(std::u16string_view printer, std::u16string_view user) {
    Process ctl = Process::Start(
        BinDir() + "/ovasctl",
        {"spool", "job", "add", U8(std::u16string(printer)), "--as", U8(std::u16string(user))});
    if (ctl.Wait() != 0) {
        return 0;
    }
    const std::string out = ctl.output();
    const std::size_t at = out.find("Queued job ");
    return at == std::string::npos ? 0
                                   : static_cast<std::uint32_t>(std::stoul(out.substr(at + 11)));
}

bool FinishJobs(std::u16string_view printer) {
    const PrinterDefaults defaults{u"", std::nullopt, PRINTER_ALL_ACCESS};
    const UniquePrinter handle = OpenPrinterW(printer, &defaults);
    if (!handle) {
        return false;
    }
    const auto jobs = EnumJobsW(handle.get(), 0, 1000, 1);
    if (!jobs) {
        return false;
    }
    for (const JobInfo1& job : *jobs) {
        if (!SetJobW(handle.get(), job.jobId, JOB_CONTROL_DELETE)) {
            return false;
        }
    }
    return true;
}

}  // namespace ovtest
