// Splitting one line of a rule list into its fields.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ovsvc {

// How a line is split into fields.
struct ParserConfig {
    char16_t separator = u',';
    char16_t quote = 0;   // 0: no quoting
    char16_t escape = 0;  // 0: no escaping
    bool collapseSeparators = false;
    bool noTrailingEmpty = false;
    bool keepQuotes = false;
};

// The configuration every rule list uses: comma separated, double quotes,
// backslash escapes, a trailing comma adds no empty field.
inline constexpr ParserConfig kCommaList{u',', u'"', u'\\', false, true, false};

// Holds the fields of the last split line.
//
// Outside quotes the separator ends a field. A quote opens or closes a
// quoted stretch; inside one, two quotes in a row give one literal quote. A
// run of escape characters in front of a quote is halved; when the run was
// odd the quote is literal. Escapes not followed by a quote are kept as they
// are. A line that starts with a quote starts inside the quoted stretch.
class CStringParser {
  public:
    CStringParser() = default;
    virtual ~CStringParser() = default;
    CStringParser(const CStringParser&) = delete;
    CStringParser& operator=(const CStringParser&) = delete;

    // Splits `text` (null: nothing) and returns the number of fields. Any
    // earlier result is dropped. When memory runs out the thread's last
    // error becomes ERROR_OUTOFMEMORY and the result is 0 fields.
    std::int32_t Split(const char16_t* text, const ParserConfig& config);
    std::int32_t Split(std::u16string_view text, const ParserConfig& config);

    // The field at `index`, or null when there is none.
    const char16_t* GetArg(std::int32_t index) const noexcept;
    std::int32_t Count() const noexcept { return static_cast<std::int32_t>(m_vecFields.size()); }

  private:
    std::vector<std::u16string> m_vecFields;
};

}  // namespace ovsvc
