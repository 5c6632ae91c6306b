// Taking sessions off printers, and deleting printers nobody uses.
//
// Three things change together: the cache record, the printer's Location
// field and its ACL. Only a failed Location write puts the record back; the
// later steps leave the session removed whatever they meet.
#include <mutex>

#include "cache/printer_cache.h"
#include "channel/startup.h"
#include "common/module_state.h"
#include "common/ovstring.h"
#include "spooler/printer_acl.h"
#include "spooler/win_printer.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

using CacheGuard = std::lock_guard<platform::CriticalSection>;

// Whether the user of a removed session may lose his access: he is known,
// the cache agreed with the spooler, and every remaining session belongs to
// a known, other user.
bool MayShrinkAcl(const OVPrinterInfo& record, std::u16string_view user, bool consistent) {
    return !user.empty() && consistent && record.CountUserSessions(u"") == 0 &&
           record.CountUserSessions(user) == 0;
}

}  // namespace

int OVACache::DeletePrinterFromList(std::u16string_view name, std::uint32_t sessionId) {
    if (!ServiceOnlyGuard(__FILE__, __LINE__)) {
        return 0;
    }
    const CacheGuard lock(CacheLock());
    OVPrinterInfo* record = Find(name);
    if (record == nullptr) {
        OVTRACE(INF | NORM, "Printer not found (%s)", name);
        return 0;
    }
    if (!record->HasSession(sessionId)) {
        OVTRACE(INF | NORM, "SessionId in Printerentry not found (%s,%d)", name, sessionId);
        return 0;
    }
    std::uint32_t flags = 0;
    const bool consistent = VerifyCacheConsistence(name, &flags) == 1;
    if (!consistent) {
        OVTRACE(ERR | CACH, "Cache is inconsistent(Delete-PrinterFromList)");
    }
    std::u16string user;
    if (!record->GetSessionUser(sessionId, &user)) {
        user.clear();
    }
    record->RemoveSession(sessionId);

    std::u16string spooled;
    std::uint32_t jobs = 0;
    if (WinPrinter::GetPrinterLocationString(name, &spooled, &jobs) == 0) {
        spooled.clear();
        jobs = 0;
    }
    SessionIdSet ids;
    ParseLocationString(spooled, &ids);
    ids.erase(sessionId);
    std::u16string location;
    record->MergeSessionsInto(&location, &ids);
    if (WinPrinter::SetPrinterLocationString(name, location) == 0) {
        record->SetSessionUser(sessionId, user);
        OVTRACE(ERR | NORM, "Printer Location String can't be set, local entry will not be removed");
        return 0;
    }
    if (MayShrinkAcl(*record, user, consistent) &&
        SetPrinterACL(kAclRemove, name, user) == 0) {
        TraceCheck("(\"ACL not been set\", success)", __FILE__, __LINE__);
    }
    if (jobs != 0) {
        OVTRACE(INF | NORM, "Printer <%s> can't be deleted, %d job(s) are spooling", name, jobs);
        return 1;
    }
    if (location.empty() && WinPrinter::DeletePrinterAndDriver(name) == 0) {
        OVTRACE(ERR | NORM, "Printer can't be deleted, local entry will not be removed");
        return 1;
    }
    if (record->GetRefCount() == 0) {
        RemoveEntry(std::u16string(name));
    }
    return 1;
}

int OVACache::DeletePendingPrinter(std::u16string_view name) {
    if (!ServiceOnlyGuard(__FILE__, __LINE__)) {
        return 0;
    }
    const CacheGuard lock(CacheLock());
    OVPrinterInfo* record = Find(name);
    if (record == nullptr) {
        OVTRACE(INF | NORM, "Printer not found (%s)", name);
        return 0;
    }
    std::u16string spooled;
    std::uint32_t jobs = 0;
    WinPrinter::GetPrinterLocationString(name, &spooled, &jobs);
    if (!spooled.empty()) {
        TraceCheck("strWPLocation.IsEmpty()", __FILE__, __LINE__);
        OVTRACE(INF | NORM,
                "Printer <%s> with reference count == zero with non empty location string <%s>",
                name, spooled);
        return 0;
    }
    if (jobs != 0) {
        OVTRACE(INF | NORM, "Printer <%s> can't be deleted, %d job(s) are spooling", name, jobs);
        return 1;
    }
    if (WinPrinter::DeletePrinterAndDriver(name) == 0) {
        OVTRACE(ERR | NORM, "Printer can't be deleted, local entry will not be removed");
        return 1;
    }
    if (record->GetRefCount() == 0) {
        RemoveEntry(std::u16string(name));
    }
    return 1;
}

std::uint32_t OVACache::DeleteSessionPrinters(std::u16string_view filter, std::uint32_t sessionId) {
    if (!ServiceOnlyGuard(__FILE__, __LINE__)) {
        return 0;
    }
    const CacheGuard lock(CacheLock());
    std::uint32_t count = 0;
    for (auto it = m_mapPrinters.begin(); it != m_mapPrinters.end();) {
        // The next entry is taken before this one is handled: handling may
        // remove it.
        const auto current = it++;
        const std::u16string name = current->first;
        const OVPrinterInfo& record = *current->second;
        if (record.GetRefCount() == 0) {
            OVTRACE(INF | NORM,
                    "Some Printer with refence count == 0 detected <%s> calling "
                    "DeletePendingPrinter",
                    name);
            DeletePendingPrinter(name);
            continue;
        }
        if (!record.HasSession(sessionId)) {
            continue;
        }
        if (filter.empty()) {
            OVTRACE(INF | NORM, "DeletePrinterFromList %s", name);
            count += static_cast<std::uint32_t>(DeletePrinterFromList(name, sessionId));
        } else if (EqualsNoCase(name, filter)) {
            OVTRACE(INF | NORM, "DeletePrinterFromList %s -- %s", name, filter);
            count += static_cast<std::uint32_t>(DeletePrinterFromList(name, sessionId));
        } else {
            OVTRACE(INF | NORM, "NOT DeletePrinterFromList %s (%s)", name, filter);
        }
    }
    return count;
}

std::uint32_t OVACache::DeleteAllPrinters() {
    if (!ServiceOnlyGuard(__FILE__, __LINE__)) {
        return 0;
    }
    std::uint32_t count = 0;
    WinPrinter walk;
    std::u16string name;
    std::u16string location;
    for (int found = walk.GetFirstPrinter(&name, &location); found != 0;
         found = walk.GetNextPrinter(&name, &location)) {
        const std::uint32_t jobs = walk.GetCurrentPrinterInfo()->cJobs;
        if (jobs == 0) {
            if (WinPrinter::DeletePrinterAndDriver(name) != 0) {
                ++count;
            } else {
                OVTRACE(INF | NORM, "Printer <%s> can't be deleted", name);
            }
            continue;
        }
        OVTRACE(INF | NORM, "Printer <%s> can't be deleted, %d job(s) are spooling", name, jobs);
        const CacheGuard lock(CacheLock());
        const OVPrinterInfo* record = Find(name);
        if (record == nullptr) {
            OVTRACE(INF | NORM, "Printer not found (%s)", name);
            continue;
        }
        // A copy: each release may remove the entry and its record.
        const OVPrinterInfo::SessionMap sessions = record->Sessions();
        for (const auto& [sessionId, user] : sessions) {
            OVTRACE(INF | NORM, "Delete printr=%s: session=%d, user=%s", name, sessionId, user);
            DeletePrinterFromList(name, sessionId);
        }
    }
    ClearList();
    LoadPrinterList();
    return count;
}

std::uint32_t UninstallPrinter(std::u16string_view filter, std::uint32_t sessionId) {
    if (pthePrinterList == nullptr) {
        TraceCheck("pthePrinterList != NULL", __FILE__, __LINE__);
        return 0;
    }
    return pthePrinterList->DeleteSessionPrinters(filter, sessionId);
}

std::uint32_t UninstallPrintersAll() {
    if (pthePrinterList == nullptr) {
        TraceCheck("pthePrinterList != NULL", __FILE__, __LINE__);
        return 0;
    }
    return pthePrinterList->DeleteAllPrinters();
}

}  // namespace ovsvc
