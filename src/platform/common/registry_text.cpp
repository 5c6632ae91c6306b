// regedit's .reg notation: parsing files and values, and writing them back.
#include "platform/registry_text.h"
#include "platform/text.h"

#include <cstdio>
#include <iterator>

namespace platform::regtext {

namespace {

using Lines = std::vector<std::u16string_view>;

bool IsBlank(char16_t c) {
    return c == u' ' || c == u'\t';
}

int HexValue(char16_t c) {
    if (c >= u'0' && c <= u'9') {
        return c - u'0';
    }
    if (c >= u'a' && c <= u'f') {
        return c - u'a' + 10;
    }
    if (c >= u'A' && c <= u'F') {
        return c - u'A' + 10;
    }
    return -1;
}

bool StartsWithNoCase(std::u16string_view text, std::u16string_view prefix) {
    return text.size() >= prefix.size() && NamesEqual(text.substr(0, prefix.size()), prefix);
}

std::u16string_view TrimLeft(std::u16string_view s) {
    while (!s.empty() && IsBlank(s.front())) {
        s.remove_prefix(1);
    }
    return s;
}

std::u16string_view TrimRight(std::u16string_view s) {
    while (!s.empty() && IsBlank(s.back())) {
        s.remove_suffix(1);
    }
    return s;
}

// UTF-8 for messages.
std::string Narrow(std::u16string_view text) {
    return platform::ToUtf8(text);
}

Lines SplitLines(std::u16string_view text) {
    Lines lines;
    while (true) {
        const auto end = text.find(u'\n');
        std::u16string_view line = text.substr(0, end);
        if (!line.empty() && line.back() == u'\r') {
            line.remove_suffix(1);
        }
        lines.push_back(line);
        if (end == std::u16string_view::npos) {
            break;
        }
        text.remove_prefix(end + 1);
        if (text.empty()) {
            break;  // a final line end starts no further line
        }
    }
    return lines;
}

// Reads a quoted text starting at s[i] == '"'; on return i is past the
// closing quote.
bool ReadQuoted(std::u16string_view s, std::size_t& i, std::u16string* out, const char* what,
                std::string* why) {
    out->clear();
    for (++i; i < s.size(); ++i) {
        const char16_t c = s[i];
        if (c == u'"') {
            ++i;
            return true;
        }
        if (c != u'\\') {
            out->push_back(c);
            continue;
        }
        if (++i == s.size()) {
            break;
        }
        switch (s[i]) {
            case u'\\':
                out->push_back(u'\\');
                break;
            case u'"':
                out->push_back(u'"');
                break;
            case u'n':
                out->push_back(u'\n');
                break;
            case u'r':
                out->push_back(u'\r');
                break;
            case u'0':
                out->push_back(u'\0');
                break;
            default:
                *why = "unknown escape sequence \\" + Narrow(s.substr(i, 1));
                return false;
        }
    }
    *why = std::string(what) + " not closed by '\"'";
    return false;
}

// Only blanks or a comment may follow a value.
bool RestIsEmpty(std::u16string_view rest, std::string* why) {
    rest = TrimLeft(rest);
    if (rest.empty() || rest.front() == u';') {
        return true;
    }
    *why = "unexpected text after the value: " + Narrow(rest);
    return false;
}

// A hex byte list from lines[p][pos] on, following continuation lines.
bool ParseHexList(const Lines& lines, std::size_t& p, std::size_t pos, std::vector<std::byte>* out,
                  std::string* why) {
    std::u16string_view text = lines[p].substr(pos);
    while (true) {
        if (const auto semi = text.find(u';'); semi != std::u16string_view::npos) {
            text = text.substr(0, semi);
        }
        text = TrimRight(text);
        const bool continued = !text.empty() && text.back() == u'\\';
        if (continued) {
            text = TrimRight(text.substr(0, text.size() - 1));
        }
        std::size_t start = 0;
        while (start <= text.size()) {
            auto comma = text.find(u',', start);
            const bool last = comma == std::u16string_view::npos;
            if (last) {
                comma = text.size();
            }
            const std::u16string_view token =
                TrimRight(TrimLeft(text.substr(start, comma - start)));
            if (token.empty()) {
                if (!last) {
                    *why = "empty byte in hex list";
                    return false;
                }
            } else {
                const int hi = HexValue(token[0]);
                const int lo = token.size() == 2 ? HexValue(token[1]) : 0;
                if (token.size() > 2 || hi < 0 || lo < 0) {
                    *why = "invalid byte \"" + Narrow(token) + "\" in hex list";
                    return false;
                }
                out->push_back(static_cast<std::byte>(token.size() == 2 ? hi * 16 + lo : hi));
            }
            if (last) {
                break;
            }
            start = comma + 1;
        }
        if (!continued) {
            return true;
        }
        if (++p == lines.size()) {
            --p;
            *why = "hex list continues past the end of the file";
            return false;
        }
        text = lines[p];
    }
}

std::vector<std::byte> WidenAnsi(const std::vector<std::byte>& bytes) {
    std::vector<std::byte> out;
    out.reserve(bytes.size() * 2);
    for (std::byte b : bytes) {
        out.push_back(b);
        out.push_back(std::byte{0});
    }
    return out;
}

enum class DataResult { Value, Delete, Error };

// Value data from lines[p][pos] on (may consume continuation lines).
DataResult ParseValueData(const Lines& lines, std::size_t& p, std::size_t pos, bool regedit4,
                          DWORD* type, std::vector<std::byte>* data, std::string* why) {
    const std::u16string_view line = lines[p];
    std::u16string_view rest = line.substr(pos);
    data->clear();
    if (!rest.empty() && rest.front() == u'-') {
        return RestIsEmpty(rest.substr(1), why) ? DataResult::Delete : DataResult::Error;
    }
    if (!rest.empty() && rest.front() == u'"') {
        std::size_t i = 0;
        std::u16string text;
        if (!ReadQuoted(rest, i, &text, "string", why) || !RestIsEmpty(rest.substr(i), why)) {
            return DataResult::Error;
        }
        *type = REG_SZ;
        *data = StringBytes(text, true);
        return DataResult::Value;
    }
    if (StartsWithNoCase(rest, u"dword:")) {
        rest.remove_prefix(6);
        std::size_t n = 0;
        DWORD value = 0;
        while (n < rest.size() && HexValue(rest[n]) >= 0) {
            value = (value << 4) | static_cast<DWORD>(HexValue(rest[n]));
            ++n;
        }
        if (n == 0 || n > 8) {
            *why = "invalid dword value (1 to 8 hex digits expected)";
            return DataResult::Error;
        }
        if (!RestIsEmpty(rest.substr(n), why)) {
            return DataResult::Error;
        }
        *type = REG_DWORD;
        for (int k = 0; k < 4; ++k) {
            data->push_back(static_cast<std::byte>((value >> (8 * k)) & 0xFF));
        }
        return DataResult::Value;
    }
    if (StartsWithNoCase(rest, u"hex")) {
        std::size_t i = 3;
        DWORD t = REG_BINARY;
        if (i < rest.size() && rest[i] == u'(') {
            const auto close = rest.find(u')', i);
            const std::size_t digits = close == std::u16string_view::npos ? 0 : close - i - 1;
            if (digits == 0 || digits > 8) {
                *why = "invalid type number in hex(...)";
                return DataResult::Error;
            }
            t = 0;
            for (std::size_t k = i + 1; k < close; ++k) {
                const int v = HexValue(rest[k]);
                if (v < 0) {
                    *why = "invalid type number in hex(...)";
                    return DataResult::Error;
                }
                t = (t << 4) | static_cast<DWORD>(v);
            }
            i = close + 1;
        }
        if (i >= rest.size() || rest[i] != u':') {
            *why = "expected ':' after hex";
            return DataResult::Error;
        }
        if (!ParseHexList(lines, p, pos + i + 1, data, why)) {
            return DataResult::Error;
        }
        if (regedit4 && (t == REG_EXPAND_SZ || t == REG_MULTI_SZ)) {
            *data = WidenAnsi(*data);
        }
        *type = t;
        return DataResult::Value;
    }
    *why = "unrecognised value data: " + Narrow(rest);
    return DataResult::Error;
}

std::string LineError(std::size_t p, const std::string& why) {
    return "line " + std::to_string(p + 1) + ": " + why;
}

bool ParseSection(std::u16string_view line, Entry* entry, std::string* why) {
    line = TrimRight(line);
    if (line.size() < 2 || line.back() != u']') {
        *why = "key section without a closing ']'";
        return false;
    }
    std::u16string_view path = line.substr(1, line.size() - 2);
    entry->kind = Entry::Kind::CreateKey;
    if (!path.empty() && path.front() == u'-') {
        entry->kind = Entry::Kind::DeleteKey;
        path.remove_prefix(1);
    }
    if (!SplitKeyPath(path, &entry->root, &entry->subKey, why)) {
        return false;
    }
    if (entry->kind == Entry::Kind::DeleteKey && entry->subKey.empty()) {
        *why = "a root key cannot be deleted";
        return false;
    }
    return true;
}

bool ParseValueLine(const Lines& lines, std::size_t& p, std::size_t pos, bool regedit4,
                    Entry* entry, std::string* why) {
    const std::u16string_view line = lines[p];
    std::size_t i = pos;
    if (line[i] == u'@') {
        entry->value.name.clear();
        ++i;
    } else if (!ReadQuoted(line, i, &entry->value.name, "value name", why)) {
        return false;
    }
    if (entry->value.name.size() > kMaxValueNameLength) {
        *why = "value name longer than " + std::to_string(kMaxValueNameLength) + " characters";
        return false;
    }
    while (i < line.size() && IsBlank(line[i])) {
        ++i;
    }
    if (i == line.size() || line[i] != u'=') {
        *why = "expected '=' after the value name";
        return false;
    }
    ++i;
    while (i < line.size() && IsBlank(line[i])) {
        ++i;
    }
    switch (ParseValueData(lines, p, i, regedit4, &entry->value.type, &entry->value.data, why)) {
        case DataResult::Value:
            entry->kind = Entry::Kind::SetValue;
            return true;
        case DataResult::Delete:
            entry->kind = Entry::Kind::DeleteValue;
            return true;
        case DataResult::Error:
            break;
    }
    return false;
}

bool IsCleanString(const std::vector<std::byte>& data, std::u16string* text) {
    if (data.size() < 2 || data.size() % 2 != 0) {
        return false;
    }
    text->clear();
    for (std::size_t i = 0; i + 1 < data.size(); i += 2) {
        text->push_back(static_cast<char16_t>(std::to_integer<unsigned>(data[i]) |
                                              (std::to_integer<unsigned>(data[i + 1]) << 8)));
    }
    if (text->back() != u'\0') {
        return false;
    }
    text->pop_back();
    for (std::size_t i = 0; i < text->size(); ++i) {
        const char16_t c = (*text)[i];
        if (c == u'\0') {
            return false;
        }
        // Only whole surrogate pairs survive a trip through UTF-8 files.
        if (c >= 0xD800 && c < 0xDC00) {
            if (i + 1 == text->size() || (*text)[i + 1] < 0xDC00 || (*text)[i + 1] >= 0xE000) {
                return false;
            }
            ++i;
        } else if (c >= 0xDC00 && c < 0xE000) {
            return false;
        }
    }
    return true;
}

std::u16string Ascii(const std::string& text) {
    return std::u16string(text.begin(), text.end());
}

}  // namespace

bool SplitKeyPath(std::u16string_view path, HKEY* root, std::u16string* subKey,
                  std::string* error) {
    const auto slash = path.find(u'\\');
    const std::u16string_view rootName = path.substr(0, slash);
    if (NamesEqual(rootName, u"HKEY_LOCAL_MACHINE") || NamesEqual(rootName, u"HKLM")) {
        *root = HKEY_LOCAL_MACHINE;
    } else if (NamesEqual(rootName, u"HKEY_CLASSES_ROOT") || NamesEqual(rootName, u"HKCR")) {
        *root = HKEY_CLASSES_ROOT;
    } else {
        *error = "unknown root key \"" + Narrow(rootName) + "\"";
        return false;
    }
    std::u16string_view rest =
        slash == std::u16string_view::npos ? std::u16string_view{} : path.substr(slash + 1);
    while (!rest.empty() && rest.back() == u'\\') {
        rest.remove_suffix(1);
    }
    std::size_t start = 0;
    while (start < rest.size()) {
        auto end = rest.find(u'\\', start);
        if (end == std::u16string_view::npos) {
            end = rest.size();
        }
        if (end == start) {
            *error = "empty key name in \"" + Narrow(path) + "\"";
            return false;
        }
        if (end - start > kMaxKeyNameLength) {
            *error = "key name longer than " + std::to_string(kMaxKeyNameLength) + " characters";
            return false;
        }
        start = end + 1;
    }
    subKey->assign(rest);
    return true;
}

bool ParseFile(std::u16string_view text, std::vector<Entry>* entries, std::string* error) {
    if (!text.empty() && text.front() == u'\xFEFF') {
        text.remove_prefix(1);
    }
    const Lines lines = SplitLines(text);
    entries->clear();
    std::size_t p = 0;
    while (p < lines.size() && TrimRight(TrimLeft(lines[p])).empty()) {
        ++p;
    }
    const std::u16string_view header =
        p < lines.size() ? TrimRight(lines[p]) : std::u16string_view{};
    const bool regedit4 = header == kHeader4;
    if (header != kHeader5 && !regedit4) {
        *error = LineError(p < lines.size() ? p : 0,
                           "the file does not start with \"Windows Registry Editor Version 5.00\"");
        return false;
    }
    bool inSection = false;
    bool deleting = false;
    HKEY root = nullptr;
    std::u16string subKey;
    std::string why;
    for (++p; p < lines.size(); ++p) {
        const std::u16string_view line = TrimLeft(lines[p]);
        const std::size_t pos = lines[p].size() - line.size();
        if (line.empty() || line.front() == u';') {
            continue;
        }
        Entry entry;
        entry.line = static_cast<int>(p + 1);
        if (line.front() == u'[') {
            if (!ParseSection(line, &entry, &why)) {
                *error = LineError(p, why);
                return false;
            }
            inSection = true;
            deleting = entry.kind == Entry::Kind::DeleteKey;
            root = entry.root;
            subKey = entry.subKey;
            entries->push_back(std::move(entry));
            continue;
        }
        if (line.front() != u'@' && line.front() != u'"') {
            *error = LineError(p, "unrecognised line: " + Narrow(line));
            return false;
        }
        if (!inSection) {
            *error = LineError(p, "value outside of a key section");
            return false;
        }
        if (deleting) {
            *error = LineError(p, "value in a section that deletes its key");
            return false;
        }
        entry.root = root;
        entry.subKey = subKey;
        if (!ParseValueLine(lines, p, pos, regedit4, &entry, &why)) {
            *error = LineError(p, why);
            return false;
        }
        entries->push_back(std::move(entry));
    }
    return true;
}

std::u16string Quote(std::u16string_view text) {
    std::u16string out;
    out.reserve(text.size() + 2);
    out.push_back(u'"');
    for (char16_t c : text) {
        switch (c) {
            case u'\\':
                out += u"\\\\";
                break;
            case u'"':
                out += u"\\\"";
                break;
            case u'\n':
                out += u"\\n";
                break;
            case u'\r':
                out += u"\\r";
                break;
            case u'\0':
                out += u"\\0";
                break;
            default:
                out.push_back(c);
        }
    }
    out.push_back(u'"');
    return out;
}

std::u16string FormatData(DWORD type, const std::vector<std::byte>& data, std::size_t column) {
    std::u16string text;
    if (type == REG_SZ && IsCleanString(data, &text)) {
        return Quote(text);
    }
    char buffer[32];
    if (type == REG_DWORD && data.size() == 4) {
        DWORD value = 0;
        for (int k = 3; k >= 0; --k) {
            value = (value << 8) | std::to_integer<DWORD>(data[static_cast<std::size_t>(k)]);
        }
        std::snprintf(buffer, sizeof buffer, "dword:%08x", static_cast<unsigned>(value));
        return Ascii(buffer);
    }
    if (type == REG_BINARY) {
        text = u"hex:";
    } else {
        std::snprintf(buffer, sizeof buffer, "hex(%x):", static_cast<unsigned>(type));
        text = Ascii(buffer);
    }
    std::size_t col = column == kNoWrap ? 0 : column + text.size();
    static constexpr char kDigits[] = "0123456789abcdef";
    for (std::size_t i = 0; i < data.size(); ++i) {
        const auto b = std::to_integer<unsigned>(data[i]);
        text.push_back(static_cast<char16_t>(kDigits[b >> 4]));
        text.push_back(static_cast<char16_t>(kDigits[b & 15]));
        if (i + 1 == data.size()) {
            break;
        }
        text.push_back(u',');
        col += 3;
        if (column != kNoWrap && col > 76) {
            text += u"\\\r\n  ";
            col = 2;
        }
    }
    return text;
}

std::u16string FormatValueLine(const RegistryValue& value) {
    std::u16string line = value.name.empty() ? std::u16string(u"@") : Quote(value.name);
    line.push_back(u'=');
    line += FormatData(value.type, value.data, line.size());
    return line;
}

bool ParseData(std::u16string_view text, DWORD* type, std::vector<std::byte>* data,
               std::string* error) {
    const Lines lines{TrimLeft(text)};
    std::size_t p = 0;
    switch (ParseValueData(lines, p, 0, false, type, data, error)) {
        case DataResult::Value:
            return true;
        case DataResult::Delete:
            *error = "'-' deletes a value; it is not value data";
            return false;
        case DataResult::Error:
            break;
    }
    return false;
}

std::string TypeName(DWORD type) {
    static constexpr const char* kNames[] = {"REG_NONE",
                                             "REG_SZ",
                                             "REG_EXPAND_SZ",
                                             "REG_BINARY",
                                             "REG_DWORD",
                                             "REG_DWORD_BIG_ENDIAN",
                                             "REG_LINK",
                                             "REG_MULTI_SZ",
                                             "REG_RESOURCE_LIST",
                                             "REG_FULL_RESOURCE_DESCRIPTOR",
                                             "REG_RESOURCE_REQUIREMENTS_LIST",
                                             "REG_QWORD"};
    if (type < std::size(kNames)) {
        return kNames[type];
    }
    return std::to_string(type);
}

std::vector<std::byte> StringBytes(std::u16string_view text, bool terminate) {
    std::vector<std::byte> out;
    out.reserve((text.size() + 1) * 2);
    for (char16_t c : text) {
        out.push_back(static_cast<std::byte>(c & 0xFF));
        out.push_back(static_cast<std::byte>(c >> 8));
    }
    if (terminate) {
        out.push_back(std::byte{0});
        out.push_back(std::byte{0});
    }
    return out;
}

std::vector<std::byte> MultiStringBytes(const std::vector<std::u16string>& items) {
    std::vector<std::byte> out;
    for (const auto& item : items) {
        const auto bytes = StringBytes(item, true);
        out.insert(out.end(), bytes.begin(), bytes.end());
    }
    out.push_back(std::byte{0});
    out.push_back(std::byte{0});
    return out;
}

}  // namespace platform::regtext
