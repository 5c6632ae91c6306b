// One rule of the translation table, and the request it is tested against.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ovsvc {

// The client type bit for a client type code: 0 and 128 give 1; 3, 147 and
// 195 give 2; 9, 10 and 137 give 4; every other code gives 8.
std::uint32_t ClientTypeBit(std::uint32_t clientType) noexcept;

// Column numbers of a rule line, also the bits of a table's column mask.
enum RuleColumn : unsigned {
    kColIP = 0,
    kColClientName = 1,
    kColDriverName = 2,
    kColPrinterName = 3,
    kColPrinterClass = 4,
    kColType1 = 5,
    kColType2 = 6,
    kColType4 = 7,
    kColType8 = 8,
    kColTemplate = 9,
    kColFlag = 10,
    kColumnCount = 11,
};

// A rule of the table; the same class carries a request (the client printer
// looked up), whose name fields are then values rather than patterns.
class CTranslationRule {
  public:
    enum Kind : std::uint32_t { kNormal = 0, kTryPrinterName = 1, kTryClassName = 2 };

    // A rule that matches everything, with an empty template.
    CTranslationRule() = default;
    // A request: the IP text is read as an address range; when it is not
    // one (an empty address, say) the request covers every address and so
    // matches only rules whose address column does too.
    CTranslationRule(std::u16string_view templateName, std::u16string_view printerName,
                     std::u16string_view printerClass, std::u16string_view ipText,
                     std::u16string_view clientName, std::uint32_t clientTypes,
                     std::u16string_view driverName, std::uint32_t flag);
    virtual ~CTranslationRule() = default;
    CTranslationRule(const CTranslationRule&) = default;
    CTranslationRule& operator=(const CTranslationRule&) = default;

    // The rule as one line of the stored list, which the list reader reads
    // back to the same rule. Fields holding a comma or a quote are quoted.
    virtual std::u16string ToString() const;

    // Sets the IP text and the range read from it; false (range untouched)
    // when the text is not an address range.
    bool SetIP(std::u16string_view ipText);

    // Tests this rule against `request`, comparing only the columns whose
    // bit is set in `columnMask`. On a match *output is the rule's result:
    // the template, or for the try rules the printer name or class.
    bool Matches(const CTranslationRule& request, std::uint32_t columnMask,
                 std::u16string* output) const;

    std::uint32_t m_dwEnabled = 1;
    std::uint32_t m_dwKind = kNormal;
    std::u16string m_strIP = u"*";
    std::u16string m_strClientName = u"*";
    std::u16string m_strDriverName = u"*";
    std::u16string m_strPrinterClass = u"*";
    std::u16string m_strPrinterName = u"*";
    std::uint32_t m_dwClientTypes = 15;
    std::u16string m_strTemplate;
    std::uint32_t m_dwFlag = 0;
    std::uint32_t m_dwIPLow = 0;
    std::uint32_t m_dwIPHigh = 0xFFFFFFFFu;
};

// The line forms of the two try rules.
inline constexpr std::u16string_view kTryPrinterNameLine = u",,,,,,,,,!P,";
inline constexpr std::u16string_view kTryClassNameLine = u",,,,,,,,,!C,";

// Splits "\\server\printer" into its parts; false for any other form (also
// when either part is empty).
bool SplitServerPrinterName(std::u16string_view name, std::u16string_view* server,
                            std::u16string_view* printer) noexcept;

// Replaces every %LCPRN% (the printer part of the client printer's name, or
// the whole name) and %LPSRV% (the server part, or nothing) in `text`.
std::u16string ExpandTemplateMacros(std::u16string_view text, std::u16string_view printerName);

}  // namespace ovsvc
