// Repair: brings the cache, the printers' Location fields and their ACLs
// back in step with the sessions that exist. The spooler says which printers
// exist and which sessions they list, the session list which of those are
// still there, and the live cache which user owns each surviving session.
#include <algorithm>
#include <mutex>

#include "cache/printer_cache.h"
#include "channel/startup.h"
#include "session/wts_layer.h"
#include "spooler/printer_acl.h"
#include "spooler/win_printer.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

bool Contains(const std::vector<std::u16string>& names, std::u16string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

// Writes the record's sessions into the printer's Location field and gives
// exactly the record's users access (when every user is known).
void RewriteLocationAndAcl(const OVPrinterInfo& record) {
    const std::u16string& name = record.Name();
    std::u16string location;
    SessionIdSet scratch;
    record.MergeSessionsInto(&location, &scratch);
    if (WinPrinter::SetPrinterLocationString(name, location) == 0) {
        TraceCheck("(\"printer location string can't be set\", f)", __FILE__, __LINE__);
    }
    std::vector<std::u16string> inAcl;
    GetUserNamesFromACL(name, &inAcl);
    for (const auto& [sessionId, user] : record.Sessions()) {
        OVTRACE(INF | NORM, "Test User = <%s:%d>", user, sessionId);
        if (!user.empty() && !Contains(inAcl, user)) {
            OVTRACE(ERR | NORM, "Add User to ACL= %s", user);
            SetPrinterACL(kAclAdd, name, user);
        }
    }
    if (record.CountUserSessions(u"") != 0) {
        return;
    }
    for (const std::u16string& user : inAcl) {
        if (record.CountUserSessions(user) == 0) {
            OVTRACE(ERR | NORM, "Delete User form ACL= %s", user);
            SetPrinterACL(kAclRemove, name, user);
        }
    }
}

}  // namespace

std::int32_t OVACache::Repair() {
    if (!ServiceOnlyGuard(__FILE__, __LINE__)) {
        return 0;
    }
    if (!WTSLayer().IsTerminalServicesLibraryLoaded()) {
        OVTRACE(ERR | NORM, "-r (repair) called form in non terminal server environment");
        return 0;
    }
    std::unique_ptr<OVACache> copy(new (std::nothrow) OVACache());
    if (copy == nullptr) {
        TraceCheck("OVBCacheCopy != NULL", __FILE__, __LINE__);
        return -12;
    }
    if (!RefreshSessionList()) {
        TraceCheck("fRtn != NULL", __FILE__, __LINE__);
        return -10;
    }
    const std::lock_guard<platform::CriticalSection> lock(CacheLock());
    std::int32_t changes = 0;
    for (auto it = copy->m_mapPrinters.begin(); it != copy->m_mapPrinters.end();) {
        const auto current = it++;
        const std::u16string& name = current->first;
        OVPrinterInfo& record = *current->second;
        const OVPrinterInfo* live = Find(name);
        if (live == nullptr) {
            OVTRACE(INF | NORM, "Printer <%s> not found in local cache, entry added", name);
            ++changes;
        }
        const OVPrinterInfo::SessionMap sessions = record.Sessions();
        for (const auto& entry : sessions) {
            const std::uint32_t sessionId = entry.first;
            std::u16string user;
            if (!IsSessionInList(sessionId)) {
                OVTRACE(INF | NORM, "WTS SessionId %d no longer exits, entry deleted (Printer: %s)",
                        sessionId, name);
                record.RemoveSession(sessionId);
                ++changes;
            } else if (live != nullptr && live->HasSession(sessionId) &&
                       live->GetSessionUser(sessionId, &user)) {
                record.RemoveSession(sessionId);
                record.SetSessionUser(sessionId, user);
            }
        }
        if (record.GetRefCount() != 0) {
            continue;
        }
        std::u16string location;
        std::uint32_t jobs = 0;
        WinPrinter::GetPrinterLocationString(name, &location, &jobs);
        if (jobs != 0) {
            OVTRACE(INF | NORM,
                    "session free pending printer <%s> with <%d> jobs in it, don't delete", name,
                    jobs);
        } else {
            const std::u16string deleted = name;
            WinPrinter::DeletePrinterAndDriver(deleted);
            copy->m_mapPrinters.erase(current);
            OVTRACE(INF | NORM, "Printer <%s> no longer referenced, entries deleted", deleted);
        }
        ++changes;
    }
    ClearList();
    while (!copy->m_mapPrinters.empty()) {
        auto node = copy->m_mapPrinters.extract(copy->m_mapPrinters.begin());
        const OVPrinterInfo& record = *node.mapped();
        m_mapPrinters.insert(std::move(node));
        RewriteLocationAndAcl(record);
    }
    // Beyond what the repair has always done: a generated driver whose
    // printer went while the driver could not (the spooler failed, or the
    // service died between the two) is taken away here, so no such driver
    // and no copy of its files outlives a repair. Not counted as a change.
    WinPrinter::DeleteUnusedGeneratedDrivers();
    return changes;
}

}  // namespace ovsvc
