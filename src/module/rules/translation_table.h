// The translation table: maps a client printer to the names of the template
// printers to create it from.
//
// The service side keeps one table, g_pTTable, loaded at start and on each
// reload request from the product key's NameTranslationEx value (or, when
// that is absent, the older NameTranslation pairs). Lookups and loads run on
// the service's one request thread; the table has no lock.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "rules/translation_rule.h"

namespace ovsvc {

class CTranslationTable {
  public:
    CTranslationTable() = default;
    virtual ~CTranslationTable() = default;
    CTranslationTable(const CTranslationTable&) = delete;
    CTranslationTable& operator=(const CTranslationTable&) = delete;

    // Looks `request` up. `count` is the capacity on entry (bounded further
    // by templates.size()) and the number of entries filled on return.
    // templates[i] is a printer name to try (macros replaced), ruleLines[i]
    // (when ruleLines has room) the line form of the rule that gave it.
    // With `firstOnly` the first matching normal rule ends the search; try
    // rules add their entry and let it go on. A rule whose template is "-"
    // ends the search at once. Returns nonzero when something was found or
    // a "-" rule ended the search, 0 otherwise.
    virtual int FindRule(const CTranslationRule& request, std::span<std::u16string> templates,
                         std::uint32_t& count, std::span<std::u16string> ruleLines,
                         bool firstOnly) const;

    // The list form written back after a faulty load: a header naming the
    // columns left out of matching, then every enabled rule.
    std::vector<std::u16string> ToLines() const;

    std::uint32_t RuleCount() const noexcept {
        return static_cast<std::uint32_t>(m_poTable.size());
    }
    const CTranslationRule& Rule(std::uint32_t index) const { return *m_poTable[index]; }

    std::uint32_t m_dwColumnMask = 0xFFFFFFFFu;
    std::vector<std::unique_ptr<CTranslationRule>> m_poTable;
};

// Fills `table` (replacing its rules) from a list in the current form: a
// header line, then rule lines. Returns 1 when the list had no fault, else 0;
// rules read before a fault stay in the table.
int FillTable(CTranslationTable* table, std::span<const std::u16string> list);

// Fills `table` from the older form: name/template pairs.
void FillTableFromPairs(CTranslationTable* table, std::span<const std::u16string> list);

// The list to store in place of a faulty current-form list: every rule line
// of it that reads correctly, in order, with the try rules added when
// missing. Lines that cannot be read are left out; nothing else is.
std::vector<std::u16string> CorrectedList(std::span<const std::u16string> list);

// The service side's table; null until the first load.
extern CTranslationTable* g_pTTable;

// Loads g_pTTable from the registry, replacing the previous table. Returns 1
// on success and 0 on failure (the service loop does not start then). A
// faulty current-form list is loaded as far as it reads, stored back
// corrected, and reported as a failure.
int LoadTranslationList();

// Destroys g_pTTable (module unload, tests).
void UnloadTranslationList() noexcept;

// The request the Translate command looks up: no template, the client
// printer's name and class, the client's address and name, the type bit
// (see ClientTypeBit), the client's driver name and flag 0. Its ToString()
// is the line traced as "Look for <...>".
CTranslationRule MakeTranslationRequest(std::u16string_view printerName,
                                        std::u16string_view printerClass,
                                        std::u16string_view ipText, std::u16string_view clientName,
                                        std::uint32_t typeBit, std::u16string_view driverName);

}  // namespace ovsvc
