// The printer create list: rules that give destinations for a client by its
// address, its name and the groups of its user. Stored in the product key's
// PrinterCreateList value; the management provider validates a new list
// with Parse before it stores it.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "rules/translation_table.h"

namespace ovsvc {

// One rule of the list (columns IP, NAME, DEST, USER), or a request: then it
// carries the client's address and name and the user's groups.
class CPrinterCreateRule : public CTranslationRule {
  public:
    CPrinterCreateRule() = default;
    ~CPrinterCreateRule() override = default;
    CPrinterCreateRule(const CPrinterCreateRule&) = default;
    CPrinterCreateRule& operator=(const CPrinterCreateRule&) = default;

    // The user's groups (request only; not owned).
    const std::vector<std::u16string>* m_pGroups = nullptr;
    // Wildcard pattern tested against each group.
    std::u16string m_strUser = u"*";
};

class CPrinterCreateList : public CTranslationTable {
  public:
    CPrinterCreateList() = default;
    ~CPrinterCreateList() override = default;

    // Fills the list from its stored lines (header first). Returns 1 when
    // every line is valid, 0 otherwise; a faulty rule is kept disabled.
    int Parse(std::span<const std::u16string> list);

    // Evaluates the list for `request` (null: no request). Every applying
    // rule adds its destination and line form until `count` (capacity in,
    // bounded by destinations.size(); entries filled out) is reached; a rule
    // whose destination is "-" ends the evaluation. Returns nonzero when a
    // destination was found or a "-" rule ended the evaluation.
    virtual int FindCreateRules(const CPrinterCreateRule* request,
                                std::span<std::u16string> destinations, std::uint32_t& count,
                                std::span<std::u16string> ruleLines) const;

    // 8 when the USER column takes part in matching, else 0.
    std::uint32_t m_dwUserCheck = 0;
};

}  // namespace ovsvc
