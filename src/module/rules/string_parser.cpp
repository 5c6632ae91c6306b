#include "rules/string_parser.h"

#include <new>

#include "platform/error.h"

namespace ovsvc {

namespace {

// One pass over the line, collecting the fields.
std::vector<std::u16string> SplitFields(std::u16string_view text, const ParserConfig& cfg) {
    std::vector<std::u16string> fields;
    const std::size_t len = text.size();
    if (len == 0) {
        return fields;
    }
    std::size_t pos = 0;
    bool inQuotes = false;
    if (cfg.quote != 0 && text[0] == cfg.quote && len > 1) {
        pos = 1;
        inQuotes = true;
    }
    bool endedOnSeparator = false;
    while (pos < len) {
        std::u16string field;
        endedOnSeparator = false;
        for (;;) {
            std::size_t run = 0;
            if (cfg.escape != 0) {
                while (pos < len && text[pos] == cfg.escape) {
                    ++run;
                    ++pos;
                }
            }
            bool copyCurrent = true;
            if (pos < len && cfg.quote != 0 && text[pos] == cfg.quote) {
                if (run % 2 == 0) {
                    if (inQuotes && pos + 1 < len && text[pos + 1] == cfg.quote) {
                        ++pos;  // the second quote of the pair is the literal one
                    } else {
                        copyCurrent = cfg.keepQuotes;
                    }
                    inQuotes = !inQuotes;
                }
                run /= 2;
            }
            field.append(run, cfg.escape);
            if (pos >= len) {
                break;
            }
            if (!inQuotes && text[pos] == cfg.separator) {
                ++pos;
                if (cfg.collapseSeparators) {
                    while (pos < len && text[pos] == cfg.separator) {
                        ++pos;
                    }
                }
                endedOnSeparator = true;
                break;
            }
            if (copyCurrent) {
                field.push_back(text[pos]);
            }
            ++pos;
        }
        fields.push_back(std::move(field));
    }
    if (endedOnSeparator && !cfg.noTrailingEmpty) {
        fields.emplace_back();
    }
    return fields;
}

}  // namespace

std::int32_t CStringParser::Split(const char16_t* text, const ParserConfig& config) {
    if (text == nullptr) {
        m_vecFields.clear();
        return 0;
    }
    return Split(std::u16string_view(text), config);
}

std::int32_t CStringParser::Split(std::u16string_view text, const ParserConfig& config) {
    m_vecFields.clear();
    try {
        m_vecFields = SplitFields(text, config);
    } catch (const std::bad_alloc&) {
        m_vecFields.clear();
        platform::SetLastError(platform::ERROR_OUTOFMEMORY);
        return 0;
    }
    return Count();
}

const char16_t* CStringParser::GetArg(std::int32_t index) const noexcept {
    if (index < 0 || index >= Count()) {
        return nullptr;
    }
    return m_vecFields[static_cast<std::size_t>(index)].c_str();
}

}  // namespace ovsvc
