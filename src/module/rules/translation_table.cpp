#include "rules/translation_table.h"

#include <algorithm>
#include <new>

#include "config/product_key.h"
#include "config/product_values.h"
#include "config/registry_list.h"
#include "platform/registry.h"
#include "res/resources.h"
#include "rules/rule_text.h"
#include "rules/string_parser.h"
#include "trace/trace.h"

namespace ovsvc {

CTranslationTable* g_pTTable = nullptr;

namespace {

// Owner of g_pTTable; the pointer only mirrors it.
std::unique_ptr<CTranslationTable> g_ownedTable;

constexpr char16_t kValueNameEx[] = u"NameTranslationEx";
constexpr char16_t kValueNameOld[] = u"NameTranslation";

std::unique_ptr<CTranslationRule> MakeTryRule(std::uint32_t kind) {
    auto rule = std::make_unique<CTranslationRule>();
    rule->m_dwKind = kind;
    rule->m_strTemplate = kind == CTranslationRule::kTryPrinterName ? u"!P" : u"!C";
    return rule;
}

bool HasKind(const CTranslationTable& table, std::uint32_t kind) {
    for (const auto& rule : table.m_poTable) {
        if (rule->m_dwKind == kind) {
            return true;
        }
    }
    return false;
}

void AddMissingTryRules(CTranslationTable* table, bool trace) {
    for (const std::uint32_t kind :
         {CTranslationRule::kTryPrinterName, CTranslationRule::kTryClassName}) {
        if (HasKind(*table, kind)) {
            continue;
        }
        table->m_poTable.push_back(MakeTryRule(kind));
        if (trace) {
            OVTRACE(INF | NORM, "Add TryRule <%s> at pos %d", table->m_poTable.back()->ToString(),
                    static_cast<int>(table->m_poTable.size() - 1));
        }
    }
}

// Reads one normal rule line that split into `parser`'s fields (at least
// ten). Returns false when the rule is faulty; it is then disabled.
bool ReadNormalRule(const CStringParser& parser, CTranslationRule* rule) {
    const auto field = [&parser](int index) { return std::u16string_view(parser.GetArg(index)); };
    bool ok = true;
    rule->m_strTemplate = std::u16string(TrimBlanks(field(kColTemplate)));
    if (rule->m_strTemplate.empty()) {
        rule->m_dwEnabled = 0;
        ok = false;
    }
    rule->m_strPrinterName = std::u16string(field(kColPrinterName));
    rule->m_strPrinterClass = std::u16string(field(kColPrinterClass));
    if (!rule->SetIP(field(kColIP))) {
        rule->m_dwEnabled = 0;
        ok = false;
    }
    rule->m_strClientName = std::u16string(field(kColClientName));
    std::uint32_t types = 0;
    for (unsigned column = kColType1; column <= kColType8; ++column) {
        if (field(static_cast<int>(column)) == u"true") {
            types |= 1u << (column - kColType1);
        }
    }
    rule->m_dwClientTypes = types;
    rule->m_strDriverName = std::u16string(field(kColDriverName));
    if (parser.Count() > static_cast<int>(kColFlag)) {
        rule->m_dwFlag = field(kColFlag) == u"x" ? 1 : 0;
    }
    return ok;
}

// Reads the current form. The table keeps what it read up to a fault; with
// `keepGoing` lines that cannot be read are skipped instead of ending the
// read (used to build the corrected list).
int FillCurrentForm(CTranslationTable* table, std::span<const std::u16string> list, bool keepGoing,
                    bool trace) {
    table->m_poTable.clear();
    table->m_dwColumnMask = 0xFFFFFFFFu;
    if (list.empty()) {
        AddMissingTryRules(table, trace);
        return 1;
    }
    int result = 1;
    CStringParser parser;
    if (parser.Split(list[0], kCommaList) < 10) {
        if (!keepGoing) {
            return 0;
        }
        result = 0;
    } else {
        for (unsigned column = 0; column < kColumnCount; ++column) {
            const char16_t* text = parser.GetArg(static_cast<int>(column));
            if (text != nullptr &&
                std::u16string_view(text).find(u'H') != std::u16string_view::npos) {
                table->m_dwColumnMask &= ~(1u << column);
            }
        }
    }
    for (std::size_t i = 1; i < list.size(); ++i) {
        const std::u16string& line = list[i];
        if (trace) {
            OVTRACE(INF | NORM, "RULE: work on <%s>", line);
        }
        if (line == kTryClassNameLine) {
            table->m_poTable.push_back(MakeTryRule(CTranslationRule::kTryClassName));
            if (trace) {
                OVTRACE(INF | NORM, "RULE: Try Class Name detected");
            }
            continue;
        }
        if (line == kTryPrinterNameLine) {
            table->m_poTable.push_back(MakeTryRule(CTranslationRule::kTryPrinterName));
            if (trace) {
                OVTRACE(INF | NORM, "RULE: Try Printer Name detected");
            }
            continue;
        }
        if (trace) {
            OVTRACE(INF | NORM, "RULE: Normal rule detected");
        }
        if (parser.Split(line, kCommaList) < 10) {
            result = 0;
            if (keepGoing) {
                continue;
            }
            break;
        }
        auto rule = std::make_unique<CTranslationRule>();
        if (!ReadNormalRule(parser, rule.get())) {
            result = 0;
        }
        table->m_poTable.push_back(std::move(rule));
    }
    AddMissingTryRules(table, trace);
    return result;
}

}  // namespace

int CTranslationTable::FindRule(const CTranslationRule& request,
                                std::span<std::u16string> templates, std::uint32_t& count,
                                std::span<std::u16string> ruleLines, bool firstOnly) const {
    const std::size_t capacity = std::min<std::size_t>(count, templates.size());
    for (std::size_t i = 0; i < capacity; ++i) {
        templates[i].clear();
    }
    std::uint32_t found = 0;
    if (capacity == 0) {
        count = 0;
        return 0;
    }
    std::u16string output;
    for (const auto& rule : m_poTable) {
        if (!rule->Matches(request, m_dwColumnMask, &output)) {
            continue;
        }
        if (output == u"-") {
            count = found;
            return 1;
        }
        templates[found] = ExpandTemplateMacros(output, request.m_strPrinterName);
        if (found < ruleLines.size()) {
            ruleLines[found] = rule->ToString();
        }
        ++found;
        if ((firstOnly && rule->m_dwKind == CTranslationRule::kNormal) || found >= capacity) {
            count = found;
            return 1;
        }
    }
    count = found;
    return found != 0 ? 1 : 0;
}

std::vector<std::u16string> CTranslationTable::ToLines() const {
    std::vector<std::u16string> lines;
    std::u16string header;
    for (unsigned column = 0; column < kColumnCount; ++column) {
        if (column > 0) {
            header.push_back(u',');
        }
        if ((m_dwColumnMask & (1u << column)) == 0) {
            header.push_back(u'N');
        }
    }
    lines.push_back(std::move(header));
    for (const auto& rule : m_poTable) {
        if (rule->m_dwEnabled != 0) {
            lines.push_back(rule->ToString());
        }
    }
    return lines;
}

int FillTable(CTranslationTable* table, std::span<const std::u16string> list) {
    if (table == nullptr) {
        return 0;
    }
    return FillCurrentForm(table, list, false, true);
}

void FillTableFromPairs(CTranslationTable* table, std::span<const std::u16string> list) {
    table->m_poTable.clear();
    table->m_dwColumnMask = 0xFFFFFFFFu;
    const std::size_t pairs = list.size() / 2;
    for (std::size_t i = 0; i < pairs; ++i) {
        auto rule = std::make_unique<CTranslationRule>();
        rule->m_strPrinterName = list[2 * i];
        rule->m_strTemplate = list[2 * i + 1];
        table->m_poTable.push_back(std::move(rule));
    }
    table->m_poTable.push_back(MakeTryRule(CTranslationRule::kTryPrinterName));
    for (std::size_t i = 0; i < pairs; ++i) {
        auto rule = std::make_unique<CTranslationRule>();
        rule->m_strPrinterClass = list[2 * i];
        rule->m_strTemplate = list[2 * i + 1];
        table->m_poTable.push_back(std::move(rule));
    }
    table->m_poTable.push_back(MakeTryRule(CTranslationRule::kTryClassName));
}

std::vector<std::u16string> CorrectedList(std::span<const std::u16string> list) {
    CTranslationTable scratch;
    FillCurrentForm(&scratch, list, true, false);
    return scratch.ToLines();
}

namespace {

// Stores the corrected form of a faulty list and drops the older form.
void WriteCorrectedList(std::span<const std::u16string> list) {
    platform::UniqueKey key;
    if (config::OpenProductKey(platform::KEY_ALL_ACCESS, &key) !=
        static_cast<platform::LSTATUS>(platform::ERROR_SUCCESS)) {
        OVTRACE(ERR | NORM, "cannot open Registry Key: Orvelle\\OVAS");
        return;
    }
    const std::vector<std::u16string> lines = CorrectedList(list);
    if (WriteStringList(key.get(), kValueNameEx, lines) !=
        static_cast<platform::LSTATUS>(platform::ERROR_SUCCESS)) {
        OVTRACE(ERR | NORM, "cannot write NameTranslationEx");
    }
    platform::RegDeleteValueW(key.get(), kValueNameOld);
}

}  // namespace

int LoadTranslationList() {
    if (g_ownedTable) {
        OVTRACE(INF | NORM, "old translation list will be deleted");
        g_pTTable = nullptr;
        g_ownedTable.reset();
    }
    g_ownedTable.reset(new (std::nothrow) CTranslationTable);
    g_pTTable = g_ownedTable.get();
    if (g_pTTable == nullptr) {
        OVTRACE(ERR | NORM, "no memory");
        ReportServiceEvent(LoadOwnString(IDS_KEY_CREATE_FAILED), kEventError, 13);
        return 0;
    }
    try {
        platform::UniqueKey key;
        if (config::OpenProductKey(platform::KEY_READ, &key) !=
            static_cast<platform::LSTATUS>(platform::ERROR_SUCCESS)) {
            OVTRACE(ERR | NORM, "no cannot open OVAS REGKey CTranslationTable");
            ReportServiceEvent(LoadOwnString(IDS_KEY_CREATE_FAILED), kEventError, 14);
            return 0;
        }
        std::vector<std::u16string> list;
        if (ReadStringList(key.get(), kValueNameEx, &list)) {
            key.reset();
            OVTRACE(INF | NORM, "New translation table found.");
            if (FillTable(g_pTTable, list) != 0) {
                return 1;
            }
            OVTRACE(INF | NORM, "FillTable failed, Values will be corrected");
            WriteCorrectedList(list);
            return 0;
        }
        if (ReadStringList(key.get(), kValueNameOld, &list)) {
            OVTRACE(INF | NORM, "Old translation table found.");
        } else {
            OVTRACE(INF | NORM, "No translation table found.");
            list.clear();
        }
        FillTableFromPairs(g_pTTable, list);
        return 1;
    } catch (const std::bad_alloc&) {
        OVTRACE(ERR | NORM, "no memory");
        return 0;
    }
}

void UnloadTranslationList() noexcept {
    g_pTTable = nullptr;
    g_ownedTable.reset();
}

CTranslationRule MakeTranslationRequest(std::u16string_view printerName,
                                        std::u16string_view printerClass,
                                        std::u16string_view ipText, std::u16string_view clientName,
                                        std::uint32_t typeBit, std::u16string_view driverName) {
    return CTranslationRule(u"", printerName, printerClass, ipText, clientName, typeBit, driverName,
                            0);
}

}  // namespace ovsvc
