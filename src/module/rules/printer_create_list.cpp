#include "rules/printer_create_list.h"

#include <algorithm>
#include <atomic>

#include "rules/rule_text.h"
#include "rules/string_parser.h"
#include "rules/wildcard.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

constexpr unsigned kCreateColIP = 0;
constexpr unsigned kCreateColName = 1;
constexpr unsigned kCreateColDest = 2;
constexpr unsigned kCreateColUser = 3;

// The groups are traced in full only for the first rule of the process that
// fails the group test.
std::atomic<bool> g_traceGroupMismatch{true};

bool HeaderRemoves(const CStringParser& header, unsigned column) {
    const char16_t* text = header.GetArg(static_cast<int>(column));
    return text != nullptr && std::u16string_view(text).find(u'H') != std::u16string_view::npos;
}

}  // namespace

int CPrinterCreateList::Parse(std::span<const std::u16string> list) {
    m_poTable.clear();
    m_dwColumnMask = 0;
    m_dwUserCheck = 0;
    if (list.size() <= 1) {
        m_dwColumnMask = 0xFFFFFFFFu;
        m_dwUserCheck = 8;
        return 1;
    }
    CStringParser parser;
    if (parser.Split(list[0], kCommaList) < 2) {
        return 0;
    }
    if (!HeaderRemoves(parser, kCreateColIP)) {
        m_dwColumnMask |= 1u << kColIP;
    }
    if (!HeaderRemoves(parser, kCreateColName)) {
        m_dwColumnMask |= 1u << kColClientName;
    }
    if (!HeaderRemoves(parser, kCreateColUser)) {
        m_dwUserCheck = 8;
    }
    int result = 1;
    for (std::size_t i = 1; i < list.size(); ++i) {
        OVTRACE(INF | NORM, "RULE: work on <%s>", list[i]);
        const int fields = parser.Split(list[i], kCommaList);
        if (fields < 3) {
            return 0;
        }
        auto rule = std::make_unique<CPrinterCreateRule>();
        if (fields > static_cast<int>(kCreateColUser)) {
            rule->m_strUser = std::u16string(TrimBlanks(parser.GetArg(kCreateColUser)));
            if (rule->m_strUser.empty()) {
                rule->m_dwEnabled = 0;
                result = 0;
            }
        }
        rule->m_strTemplate = std::u16string(TrimBlanks(parser.GetArg(kCreateColDest)));
        if (rule->m_strTemplate.empty()) {
            rule->m_dwEnabled = 0;
            result = 0;
        }
        if (!rule->SetIP(parser.GetArg(kCreateColIP))) {
            rule->m_dwEnabled = 0;
            result = 0;
        }
        rule->m_strClientName = parser.GetArg(kCreateColName);
        OVTRACE(INF | NORM, "##########IP=%s,NAME=%s,DEST=%s,USER=%s", rule->m_strIP,
                rule->m_strClientName, rule->m_strTemplate, rule->m_strUser);
        m_poTable.push_back(std::move(rule));
    }
    return result;
}

int CPrinterCreateList::FindCreateRules(const CPrinterCreateRule* request,
                                        std::span<std::u16string> destinations,
                                        std::uint32_t& count,
                                        std::span<std::u16string> ruleLines) const {
    const std::size_t capacity = std::min<std::size_t>(count, destinations.size());
    for (std::size_t i = 0; i < capacity; ++i) {
        destinations[i].clear();
    }
    std::uint32_t found = 0;
    std::u16string output;
    for (const auto& base : m_poTable) {
        if (found >= capacity) {
            break;
        }
        if (request == nullptr || request->m_pGroups == nullptr) {
            OVTRACE(ERR | NORM, "No Groups defined !!!");
            continue;
        }
        if (!base->Matches(*request, m_dwColumnMask, &output)) {
            continue;
        }
        // Rules not read by Parse (a plain translation rule put into the
        // table) have no user pattern and take part as if it were "*".
        const auto* rule = dynamic_cast<const CPrinterCreateRule*>(base.get());
        if (m_dwUserCheck != 0 && rule != nullptr) {
            const std::vector<std::u16string>& groups = *request->m_pGroups;
            const auto hit = std::find_if(groups.begin(), groups.end(), [rule](const auto& group) {
                return WildcardMatch(rule->m_strUser, group);
            });
            if (hit == groups.end()) {
                if (g_traceGroupMismatch.exchange(false)) {
                    for (const std::u16string& group : groups) {
                        OVTRACE(INF | NORM, "not found: <%s> to <%s>", rule->m_strUser, group);
                    }
                }
                continue;
            }
            OVTRACE(INF | NORM, "compare: <%s> matches against <%s>", rule->m_strUser, *hit);
        }
        if (base->m_strTemplate == u"-") {
            count = found;
            return 1;
        }
        destinations[found] = base->m_strTemplate;
        if (found < ruleLines.size()) {
            ruleLines[found] = base->ToString();
        }
        ++found;
        if (found >= capacity) {
            count = found;
            return 1;
        }
    }
    count = found;
    return found != 0 ? 1 : 0;
}

}  // namespace ovsvc
