// The service's printer cache: which autocreated printers exist and which
// sessions (and users) use each. Rebuilt from the printers' Location fields
// when the service starts handling requests; every change of a printer's
// sessions rewrites its Location field.
//
// Only the service process uses it: the operations that change anything
// refuse to run elsewhere. Every operation holds the recursive cache lock
// while it reads or changes the map, and calls the spooler with it held.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "cache/printer_info.h"

namespace ovsvc {

class OVACache {
  public:
    OVACache();  // loads itself from the spooler
    virtual ~OVACache();
    OVACache(const OVACache&) = delete;
    OVACache& operator=(const OVACache&) = delete;

    void LoadPrinterList();
    int AddPrinterToList(std::u16string_view name);
    int IsPrinterInList(std::u16string_view name) const;
    int AddSessionIDUserName(std::u16string_view name, std::uint32_t sessionId,
                             std::u16string_view user);
    // 1 when every ";"-separated piece is a number; on a bad piece 0, with
    // the ids read before it left in `ids`.
    static int ParseLocationString(std::u16string_view location, SessionIdSet* ids);
    int GenLocationString(std::u16string_view name, std::u16string* out,
                          std::u16string_view location);
    void AddLocationSessions(std::u16string_view name, std::u16string_view location);
    // 1 when the printer's Location field and the record list the same
    // sessions. Flags: 1 the spooler lists a session the cache lacks, 2 the
    // cache holds one the spooler does not list.
    int VerifyCacheConsistence(std::u16string_view name, std::uint32_t* flags);
    std::u16string BuildEnumString();
    // The enumeration record: its size in bytes for an empty mapping name,
    // else copied into the named mapping (1), or 0xFFFFFFFF on failure.
    std::uint32_t MyEnumPrinters(std::u16string_view mappingName);
    void ClearList();

    // Release and deletion.
    std::uint32_t DeleteSessionPrinters(std::u16string_view filter, std::uint32_t sessionId);
    int DeletePrinterFromList(std::u16string_view name, std::uint32_t sessionId);
    int DeletePendingPrinter(std::u16string_view name);
    std::uint32_t DeleteAllPrinters();

    // Cache repair against the live sessions; the number of changes.
    std::int32_t Repair();

    // The record of a printer, or null (callers hold the cache lock).
    OVPrinterInfo* Find(std::u16string_view name);
    const std::map<std::u16string, std::unique_ptr<OVPrinterInfo>, std::less<>>& Printers() const {
        return m_mapPrinters;
    }

  private:
    // Removes a printer's entry and its record.
    void RemoveEntry(std::u16string_view name);

    std::map<std::u16string, std::unique_ptr<OVPrinterInfo>, std::less<>> m_mapPrinters;
};

// The service's entry points for deleting printers; 0 without a cache.
std::uint32_t UninstallPrinter(std::u16string_view filter, std::uint32_t sessionId);
std::uint32_t UninstallPrintersAll();

// True in the service process; otherwise writes the "illegal call" check.
bool ServiceOnlyGuard(const char* file, unsigned line);

}  // namespace ovsvc
