#include "cache/printer_cache.h"

#include <cstring>
#include <mutex>

#include "channel/startup.h"
#include "channel/token_fields.h"
#include "common/format.h"
#include "common/module_state.h"
#include "platform/kernel.h"
#include "spooler/win_printer.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

using CacheGuard = std::lock_guard<platform::CriticalSection>;

bool IsBlank(char16_t c) {
    return c == u' ' || (c >= u'\t' && c <= u'\r');
}

// Reads one piece as an unsigned 32-bit number the way the C library's
// wcstoul does: leading blanks, an optional sign (minus negates modulo
// 2^32), digits; too large a value saturates. False when anything is left
// after the number, or there are no digits at all.
bool ReadSessionId(std::u16string_view piece, std::uint32_t* id) {
    std::size_t i = 0;
    while (i < piece.size() && IsBlank(piece[i])) {
        ++i;
    }
    bool negative = false;
    if (i < piece.size() && (piece[i] == u'+' || piece[i] == u'-')) {
        negative = piece[i] == u'-';
        ++i;
    }
    const std::size_t digitsStart = i;
    std::uint64_t value = 0;
    bool overflow = false;
    for (; i < piece.size() && piece[i] >= u'0' && piece[i] <= u'9'; ++i) {
        value = value * 10 + static_cast<std::uint64_t>(piece[i] - u'0');
        if (value > 0xFFFFFFFFu) {
            overflow = true;
            value = 0xFFFFFFFFu;  // keeps the arithmetic in range
        }
    }
    if (i == digitsStart || i != piece.size()) {
        return false;
    }
    std::uint32_t number = static_cast<std::uint32_t>(value);
    if (overflow) {
        number = 0xFFFFFFFFu;
    } else if (negative) {
        number = 0u - number;
    }
    *id = number;
    return true;
}

}  // namespace

bool ServiceOnlyGuard(const char* file, unsigned line) {
    if (!fIsService) {
        TraceCheck("(\"illegal call\", fIsService)", file, line);
        return false;
    }
    return true;
}

OVACache::OVACache() {
    LoadPrinterList();
}

OVACache::~OVACache() {
    if (!fIsService) {
        TraceCheck("(\"illegal call\", fIsService)", __FILE__, __LINE__);
        m_mapPrinters.clear();
        return;
    }
    ClearList();
}

void OVACache::LoadPrinterList() {
    WinPrinter walk;
    std::u16string name;
    std::u16string location;
    for (int found = walk.GetFirstPrinter(&name, &location); found != 0;
         found = walk.GetNextPrinter(&name, &location)) {
        if (AddPrinterToList(name) != 0) {
            AddLocationSessions(name, location);
        } else {
            OVTRACE(ERR | NORM,
                    "Printer already exsits, (internal error) or two equal windows printers");
        }
    }
}

int OVACache::AddPrinterToList(std::u16string_view name) {
    if (!ServiceOnlyGuard(__FILE__, __LINE__)) {
        return 0;
    }
    const CacheGuard lock(CacheLock());
    if (m_mapPrinters.contains(name)) {
        OVTRACE(INF | NORM, "Printer already exists");
        return 0;
    }
    const std::u16string key(name);
    m_mapPrinters.emplace(key, std::make_unique<OVPrinterInfo>(key.c_str()));
    return 1;
}

int OVACache::IsPrinterInList(std::u16string_view name) const {
    return m_mapPrinters.contains(name) ? 1 : 0;
}

OVPrinterInfo* OVACache::Find(std::u16string_view name) {
    const auto it = m_mapPrinters.find(name);
    return it == m_mapPrinters.end() ? nullptr : it->second.get();
}

int OVACache::AddSessionIDUserName(std::u16string_view name, std::uint32_t sessionId,
                                   std::u16string_view user) {
    if (!ServiceOnlyGuard(__FILE__, __LINE__)) {
        return 0;
    }
    const CacheGuard lock(CacheLock());
    OVPrinterInfo* record = Find(name);
    if (record == nullptr) {
        OVTRACE(INF | NORM, "Printer not found");
        return 0;
    }
    if (!record->HasSession(sessionId)) {
        record->SetSessionUser(sessionId, user);
        return 1;
    }
    std::u16string known;
    record->GetSessionUser(sessionId, &known);
    if (known != user) {
        TraceInfoCheck("_tcscmp(str, szUser) == 0", __FILE__, __LINE__);
    }
    record->RemoveSession(sessionId);
    record->SetSessionUser(sessionId, user);
    return 1;
}

int OVACache::ParseLocationString(std::u16string_view location, SessionIdSet* ids) {
    const std::lock_guard<platform::CriticalSection> lock(LocationParseLock());
    std::size_t start = 0;
    while (start <= location.size()) {
        std::size_t end = location.find(u';', start);
        if (end == std::u16string_view::npos) {
            end = location.size();
        }
        const std::u16string_view piece = location.substr(start, end - start);
        start = end + 1;
        if (piece.empty()) {
            continue;
        }
        std::uint32_t id = 0;
        if (!ReadSessionId(piece, &id)) {
            OVTRACE(INF | NORM, "error in pLocation <%s>, abort parsing", location);
            return 0;
        }
        ids->insert(id);
    }
    return 1;
}

int OVACache::GenLocationString(std::u16string_view name, std::u16string* out,
                                std::u16string_view location) {
    if (!ServiceOnlyGuard(__FILE__, __LINE__)) {
        return 0;
    }
    SessionIdSet ids;
    ParseLocationString(location, &ids);
    const CacheGuard lock(CacheLock());
    const OVPrinterInfo* record = Find(name);
    if (record == nullptr) {
        OVTRACE(INF | NORM, "Gen-LocationString::Printer not exists (%s)", name);
        return 0;
    }
    record->MergeSessionsInto(out, &ids);
    return 1;
}

void OVACache::AddLocationSessions(std::u16string_view name, std::u16string_view location) {
    SessionIdSet ids;
    if (ParseLocationString(location, &ids) == 0) {
        return;
    }
    for (const std::uint32_t id : ids) {
        AddSessionIDUserName(name, id, u"");
    }
}

int OVACache::VerifyCacheConsistence(std::u16string_view name, std::uint32_t* flags) {
    *flags = 0;
    std::u16string spooled;
    std::uint32_t jobs = 0;
    if (WinPrinter::GetPrinterLocationString(name, &spooled, &jobs) == 0) {
        OVTRACE(ERR | CACH, "Verify-Cache-Consistence: Get-Printer-LocationString fails");
        return 0;
    }
    SessionIdSet inSpooler;
    if (ParseLocationString(spooled, &inSpooler) == 0) {
        return 0;
    }
    std::u16string cached;
    SessionIdSet inCache;
    {
        const CacheGuard lock(CacheLock());
        const OVPrinterInfo* record = Find(name);
        if (record == nullptr) {
            OVTRACE(ERR | CACH, "Verify-Cache-Consistence: Printer not exists in cache (%s)", name);
            return 0;
        }
        SessionIdSet scratch;
        record->MergeSessionsInto(&cached, &scratch);
        if (ParseLocationString(cached, &inCache) == 0) {
            OVTRACE(ERR | CACH, "Verify-Cache-Consistence: Get-Printer-LocationString fails");
            return 0;
        }
    }
    // Walk the spooler's ids in order, dropping those both sides know, and
    // stop at the first one the cache lacks.
    for (auto it = inSpooler.begin(); it != inSpooler.end();) {
        if (inCache.erase(*it) == 0) {
            break;
        }
        it = inSpooler.erase(it);
    }
    if (!inSpooler.empty()) {
        *flags |= 1;
    }
    if (!inCache.empty()) {
        *flags |= 2;
    }
    if (*flags == 0) {
        return 1;
    }
    OVTRACE(ERR | CACH, "discrepance strikes: <%s> and <%s>", spooled, cached);
    return 0;
}

std::u16string OVACache::BuildEnumString() {
    const CacheGuard lock(CacheLock());
    std::u16string text;
    for (const auto& [name, record] : m_mapPrinters) {
        text += OVASerToken::FormatToken(u"P", name);
        text += OVASerToken::FormatToken(
            u"R", Format(u"%d", static_cast<std::int32_t>(record->GetRefCount())));
        record->AppendSessionTokens(&text);
    }
    return text;
}

std::uint32_t OVACache::MyEnumPrinters(std::u16string_view mappingName) {
    if (!ServiceOnlyGuard(__FILE__, __LINE__)) {
        return 0;
    }
    const CacheGuard lock(CacheLock());
    const std::u16string text = BuildEnumString();
    const std::uint32_t size = static_cast<std::uint32_t>((text.size() + 1) * 2);
    OVTRACE(INF | NORM, "<%s>", text);
    if (mappingName.empty()) {
        OVTRACE(ERR | NORM, "MyEnumPrinters:: returning needed buffer size");
        return size;
    }
    const platform::UniqueMapping mapping =
        platform::OpenFileMappingW(platform::FILE_MAP_ALL_ACCESS, false, mappingName);
    if (!mapping) {
        OVTRACE(ERR | NORM, "MyEnumPrinters:: OpenFileMapping failed");
        return 0xFFFFFFFFu;
    }
    platform::MappedView view =
        platform::MapViewOfFile(mapping.get(), platform::FILE_MAP_ALL_ACCESS, 0, size);
    if (!view) {
        OVTRACE(ERR | NORM, "MyEnumPrinters:: MapViewOfFile failed");
        return 0xFFFFFFFFu;
    }
    // Built again under the same hold of the lock: the same text.
    const std::u16string copy = BuildEnumString();
    std::memcpy(view.data(), copy.c_str(), (copy.size() + 1) * 2);
    return 1;
}

void OVACache::ClearList() {
    const CacheGuard lock(CacheLock());
    m_mapPrinters.clear();
}

void OVACache::RemoveEntry(std::u16string_view name) {
    const auto it = m_mapPrinters.find(name);
    if (it == m_mapPrinters.end()) {
        TraceCheck("success", __FILE__, __LINE__);
        return;
    }
    m_mapPrinters.erase(it);
}

}  // namespace ovsvc
