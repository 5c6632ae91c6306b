#include "rules/translation_rule.h"

#include "rules/ip_range.h"
#include "rules/wildcard.h"

namespace ovsvc {

std::uint32_t ClientTypeBit(std::uint32_t clientType) noexcept {
    switch (clientType) {
        case 0:
        case 128:
            return 1;
        case 3:
        case 147:
        case 195:
            return 2;
        case 9:
        case 10:
        case 137:
            return 4;
        default:
            return 8;
    }
}

CTranslationRule::CTranslationRule(std::u16string_view templateName,
                                   std::u16string_view printerName,
                                   std::u16string_view printerClass, std::u16string_view ipText,
                                   std::u16string_view clientName, std::uint32_t clientTypes,
                                   std::u16string_view driverName, std::uint32_t flag)
    : m_strClientName(clientName),
      m_strDriverName(driverName),
      m_strPrinterClass(printerClass),
      m_strPrinterName(printerName),
      m_dwClientTypes(clientTypes),
      m_strTemplate(templateName),
      m_dwFlag(flag) {
    m_strIP = std::u16string(ipText);
    CIPRange range;
    if (range.Parse(ipText)) {
        m_dwIPLow = range.low;
        m_dwIPHigh = range.high;
    }
}

bool CTranslationRule::SetIP(std::u16string_view ipText) {
    m_strIP = std::u16string(ipText);
    CIPRange range;
    range.low = m_dwIPLow;
    range.high = m_dwIPHigh;
    if (!range.Parse(ipText)) {
        return false;
    }
    m_dwIPLow = range.low;
    m_dwIPHigh = range.high;
    return true;
}

namespace {

// Writes one text column so that the list splitter gives the same text back.
// Plain texts stand as they are. A text with a comma or a quote is put in
// quotes; each quote inside becomes backslash-quote, and a run of
// backslashes in front of a quote (or of the closing quote) is doubled, as
// the splitter halves such runs.
void AppendField(std::u16string* line, std::u16string_view text) {
    if (text.find_first_of(u",\"") == std::u16string_view::npos) {
        line->append(text);
        return;
    }
    line->push_back(u'"');
    std::size_t i = 0;
    while (i < text.size()) {
        if (text[i] == u'\\') {
            std::size_t run = 0;
            while (i < text.size() && text[i] == u'\\') {
                ++run;
                ++i;
            }
            const bool beforeQuote = i == text.size() || text[i] == u'"';
            line->append(beforeQuote ? run * 2 : run, u'\\');
            continue;
        }
        if (text[i] == u'"') {
            line->append(u"\\\"");
        } else {
            line->push_back(text[i]);
        }
        ++i;
    }
    line->push_back(u'"');
}

}  // namespace

std::u16string CTranslationRule::ToString() const {
    if (m_dwKind == kTryPrinterName) {
        return std::u16string(kTryPrinterNameLine);
    }
    if (m_dwKind == kTryClassName) {
        return std::u16string(kTryClassNameLine);
    }
    std::u16string line;
    line.reserve(64);
    AppendField(&line, m_strIP);
    line.push_back(u',');
    AppendField(&line, m_strClientName);
    line.push_back(u',');
    AppendField(&line, m_strDriverName);
    line.push_back(u',');
    AppendField(&line, m_strPrinterName);
    line.push_back(u',');
    AppendField(&line, m_strPrinterClass);
    for (std::uint32_t bit = 1; bit <= 8; bit <<= 1) {
        line.append((m_dwClientTypes & bit) != 0 ? u",true" : u",false");
    }
    line.push_back(u',');
    AppendField(&line, m_strTemplate);
    line.push_back(u',');
    if (m_dwFlag != 0) {
        line.push_back(u'x');
    }
    return line;
}

bool SplitServerPrinterName(std::u16string_view name, std::u16string_view* server,
                            std::u16string_view* printer) noexcept {
    if (name.size() < 2 || name[0] != u'\\' || name[1] != u'\\') {
        return false;
    }
    const std::u16string_view rest = name.substr(2);
    const std::size_t slash = rest.find(u'\\');
    if (slash == std::u16string_view::npos || slash == 0 || slash + 1 >= rest.size()) {
        return false;
    }
    *server = rest.substr(0, slash);
    *printer = rest.substr(slash + 1);
    return true;
}

std::u16string ExpandTemplateMacros(std::u16string_view text, std::u16string_view printerName) {
    static constexpr std::u16string_view kPrinterMacro = u"%LCPRN%";
    static constexpr std::u16string_view kServerMacro = u"%LPSRV%";
    if (text.find(u'%') == std::u16string_view::npos) {
        return std::u16string(text);
    }
    std::u16string_view server;
    std::u16string_view printer = printerName;
    if (!SplitServerPrinterName(printerName, &server, &printer)) {
        server = {};
        printer = printerName;
    }
    std::u16string out;
    std::size_t i = 0;
    while (i < text.size()) {
        const std::u16string_view rest = text.substr(i);
        if (rest.starts_with(kPrinterMacro)) {
            out.append(printer);
            i += kPrinterMacro.size();
        } else if (rest.starts_with(kServerMacro)) {
            out.append(server);
            i += kServerMacro.size();
        } else {
            out.push_back(text[i]);
            ++i;
        }
    }
    return out;
}

bool CTranslationRule::Matches(const CTranslationRule& request, std::uint32_t columnMask,
                               std::u16string* output) const {
    if (m_dwEnabled == 0) {
        return false;
    }
    if (m_dwKind == kTryPrinterName) {
        const std::u16string_view name = request.m_strPrinterName;
        if (!name.starts_with(u"\\\\")) {
            *output = request.m_strPrinterName;
            return true;
        }
        std::u16string_view server;
        std::u16string_view printer;
        if (!SplitServerPrinterName(name, &server, &printer)) {
            return false;
        }
        *output = std::u16string(printer) + u" on " + std::u16string(server);
        return true;
    }
    if (m_dwKind == kTryClassName) {
        *output = request.m_strPrinterClass;
        return true;
    }
    const auto inMask = [columnMask](unsigned column) {
        return (columnMask & (1u << column)) != 0;
    };
    if (inMask(kColIP) && !(m_dwIPLow <= request.m_dwIPLow && request.m_dwIPHigh <= m_dwIPHigh)) {
        return false;
    }
    if (inMask(kColClientName) && !WildcardMatch(m_strClientName, request.m_strClientName)) {
        return false;
    }
    if (inMask(kColDriverName) && !WildcardMatch(m_strDriverName, request.m_strDriverName)) {
        return false;
    }
    if (inMask(kColPrinterName) && !WildcardMatch(m_strPrinterName, request.m_strPrinterName)) {
        return false;
    }
    if (inMask(kColPrinterClass) && !WildcardMatch(m_strPrinterClass, request.m_strPrinterClass)) {
        return false;
    }
    if (inMask(kColType1) && (m_dwClientTypes & request.m_dwClientTypes) == 0) {
        return false;
    }
    *output = m_strTemplate;
    return true;
}

}  // namespace ovsvc
