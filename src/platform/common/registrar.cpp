// Registrar scripts: parsed whole, then applied through the registry calls
// (the same on both backends).
#include <algorithm>
#include <memory>
#include <optional>

#include "platform/com.h"
#include "platform/registry.h"
#include "platform/registry_text.h"
#include "platform/text.h"

namespace platform {
namespace {

struct Token {
    enum class Kind { Word, Open, Close, Equals, End };
    Kind kind = Kind::End;
    std::u16string text;
    bool quoted = false;
    int line = 1;
};

struct ScriptError {
    int line;
    std::string reason;
};

class Lexer {
  public:
    Lexer(std::u16string_view text, const std::vector<RegistrarReplacement>& replacements)
        : text_(text), replacements_(replacements) {}

    // Throws ScriptError.
    Token Next() {
        SkipBlanks();
        Token t;
        t.line = line_;
        if (at_ >= text_.size()) {
            return t;
        }
        const char16_t c = text_[at_];
        if (c == u'{' || c == u'}' || c == u'=') {
            ++at_;
            t.kind = c == u'{'   ? Token::Kind::Open
                     : c == u'}' ? Token::Kind::Close
                                 : Token::Kind::Equals;
            return t;
        }
        t.kind = Token::Kind::Word;
        std::u16string raw;
        if (c == u'\'') {
            t.quoted = true;
            ++at_;
            while (true) {
                if (at_ >= text_.size() || text_[at_] == u'\n') {
                    throw ScriptError{t.line, "quoted text without its closing quote"};
                }
                if (text_[at_] == u'\'') {
                    if (at_ + 1 < text_.size() && text_[at_ + 1] == u'\'') {
                        raw.push_back(u'\'');
                        at_ += 2;
                        continue;
                    }
                    ++at_;
                    break;
                }
                raw.push_back(text_[at_++]);
            }
        } else {
            while (at_ < text_.size() && !IsSpace(text_[at_]) && text_[at_] != u'{' &&
                   text_[at_] != u'}' && text_[at_] != u'=' && text_[at_] != u'\'') {
                raw.push_back(text_[at_++]);
            }
        }
        t.text = Replace(raw, t.line);
        return t;
    }

  private:
    static bool IsSpace(char16_t c) {
        return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n' || c == 0xFEFF;
    }
    void SkipBlanks() {
        while (at_ < text_.size() && IsSpace(text_[at_])) {
            if (text_[at_] == u'\n') {
                ++line_;
            }
            ++at_;
        }
    }
    std::u16string Replace(const std::u16string& raw, int line) const {
        std::u16string out;
        for (std::size_t i = 0; i < raw.size(); ++i) {
            if (raw[i] != u'%') {
                out.push_back(raw[i]);
                continue;
            }
            const std::size_t end = raw.find(u'%', i + 1);
            if (end == std::u16string::npos) {
                throw ScriptError{line, "'%' without its closing '%'"};
            }
            const std::u16string_view name = std::u16string_view(raw).substr(i + 1, end - i - 1);
            if (name.empty()) {
                out.push_back(u'%');
            } else {
                const auto it = std::find_if(
                    replacements_.begin(), replacements_.end(),
                    [&](const RegistrarReplacement& r) { return NamesEqual(r.name, name); });
                if (it == replacements_.end()) {
                    throw ScriptError{line, "unknown replacement %" + ToUtf8(name) + "%"};
                }
                out += it->value;
            }
            i = end;
        }
        return out;
    }

    std::u16string_view text_;
    const std::vector<RegistrarReplacement>& replacements_;
    std::size_t at_ = 0;
    int line_ = 1;
};

enum class KeyFlag { None, NoRemove, ForceRemove, Delete };

struct ValueNode {
    int line = 0;
    RegistryValue value;
};

struct KeyNode {
    int line = 0;
    KeyFlag flag = KeyFlag::None;
    std::u16string name;
    std::optional<std::u16string> defaultText;
    std::vector<ValueNode> values;
    std::vector<KeyNode> children;
};

struct RootNode {
    HKEY root = nullptr;
    KeyNode body;  // NoRemove: a root is never removed
};

class Parser {
  public:
    explicit Parser(Lexer& lexer) : lexer_(lexer) { Advance(); }

    std::vector<RootNode> Script() {
        std::vector<RootNode> roots;
        while (current_.kind != Token::Kind::End) {
            if (current_.kind != Token::Kind::Word) {
                throw ScriptError{current_.line, "expected a root key such as HKCR"};
            }
            RootNode node;
            node.root = RootKey(current_);
            node.body.line = current_.line;
            node.body.flag = KeyFlag::NoRemove;
            node.body.name = current_.text;
            Advance();
            if (current_.kind != Token::Kind::Open) {
                throw ScriptError{current_.line, "expected '{' after the root key"};
            }
            Advance();
            Body(&node.body);
            roots.push_back(std::move(node));
        }
        return roots;
    }

  private:
    void Advance() { current_ = lexer_.Next(); }

    static bool Is(const Token& t, std::u16string_view word) {
        return t.kind == Token::Kind::Word && !t.quoted && NamesEqual(t.text, word);
    }

    static HKEY RootKey(const Token& t) {
        if (Is(t, u"HKCR") || Is(t, u"HKEY_CLASSES_ROOT")) {
            return HKEY_CLASSES_ROOT;
        }
        if (Is(t, u"HKLM") || Is(t, u"HKEY_LOCAL_MACHINE")) {
            return HKEY_LOCAL_MACHINE;
        }
        throw ScriptError{t.line, "unknown root key '" + ToUtf8(t.text) + "'"};
    }

    // Items up to and including the closing brace.
    void Body(KeyNode* parent) {
        while (true) {
            if (current_.kind == Token::Kind::End) {
                throw ScriptError{current_.line, "missing '}' for the key of line " +
                                                     std::to_string(parent->line)};
            }
            if (current_.kind == Token::Kind::Close) {
                Advance();
                return;
            }
            if (current_.kind != Token::Kind::Word) {
                throw ScriptError{current_.line, "expected a key name or 'val'"};
            }
            if (Is(current_, u"val")) {
                parent->values.push_back(Value());
            } else {
                parent->children.push_back(Key());
            }
        }
    }

    std::u16string Name(const char* what) {
        if (current_.kind != Token::Kind::Word) {
            throw ScriptError{current_.line, std::string("expected ") + what};
        }
        if (current_.text.empty() || current_.text.size() > kMaxKeyNameLength ||
            current_.text.find(u'\\') != std::u16string::npos) {
            throw ScriptError{current_.line,
                              std::string(what) + " '" + ToUtf8(current_.text) +
                                  "' is empty, longer than 255 characters or holds a '\\'"};
        }
        std::u16string name = current_.text;
        Advance();
        return name;
    }

    KeyNode Key() {
        KeyNode key;
        key.line = current_.line;
        if (Is(current_, u"NoRemove")) {
            key.flag = KeyFlag::NoRemove;
        } else if (Is(current_, u"ForceRemove")) {
            key.flag = KeyFlag::ForceRemove;
        } else if (Is(current_, u"Delete")) {
            key.flag = KeyFlag::Delete;
        }
        if (key.flag != KeyFlag::None) {
            Advance();
        }
        key.name = Name("a key name");
        if (current_.kind == Token::Kind::Equals) {
            Advance();
            if (!Is(current_, u"s")) {
                throw ScriptError{current_.line, "a key's default value must be text (s '...')"};
            }
            Advance();
            key.defaultText = Text();
        }
        if (current_.kind == Token::Kind::Open) {
            Advance();
            Body(&key);
        }
        return key;
    }

    std::u16string Text() {
        if (current_.kind != Token::Kind::Word) {
            throw ScriptError{current_.line, "expected the value's data"};
        }
        std::u16string text = current_.text;
        Advance();
        return text;
    }

    ValueNode Value() {
        ValueNode node;
        node.line = current_.line;
        Advance();  // val
        if (current_.kind != Token::Kind::Word) {
            throw ScriptError{current_.line, "expected a value name after 'val'"};
        }
        node.value.name = current_.text;
        Advance();
        if (current_.kind != Token::Kind::Equals) {
            throw ScriptError{current_.line, "expected '=' after the value name"};
        }
        Advance();
        const Token type = current_;
        if (type.kind != Token::Kind::Word || type.quoted) {
            throw ScriptError{type.line, "expected a value type (s, d, b or m)"};
        }
        Advance();
        const int dataLine = current_.line;
        const std::u16string data = Text();
        if (Is(type, u"s")) {
            node.value.type = REG_SZ;
            node.value.data = regtext::StringBytes(data, true);
        } else if (Is(type, u"m")) {
            std::vector<std::u16string> items;
            std::size_t start = 0;
            while (start <= data.size()) {
                std::size_t end = data.find(u"\\0", start);
                if (end == std::u16string::npos) {
                    end = data.size();
                }
                if (end > start) {
                    items.push_back(data.substr(start, end - start));
                }
                start = end + 2;
            }
            node.value.type = REG_MULTI_SZ;
            node.value.data = regtext::MultiStringBytes(items);
        } else if (Is(type, u"d")) {
            node.value.type = REG_DWORD;
            const std::uint32_t n = Number(data, dataLine);
            for (int i = 0; i < 4; ++i) {
                node.value.data.push_back(static_cast<std::byte>((n >> (8 * i)) & 0xFF));
            }
        } else if (Is(type, u"b")) {
            node.value.type = REG_BINARY;
            if (data.size() % 2 != 0) {
                throw ScriptError{dataLine, "binary data needs an even number of hex digits"};
            }
            for (std::size_t i = 0; i < data.size(); i += 2) {
                node.value.data.push_back(static_cast<std::byte>(Hex(data[i], dataLine) * 16 +
                                                                 Hex(data[i + 1], dataLine)));
            }
        } else {
            throw ScriptError{type.line,
                              "unknown value type '" + ToUtf8(type.text) + "' (s, d, b or m)"};
        }
        return node;
    }

    static unsigned Hex(char16_t c, int line) {
        if (c >= u'0' && c <= u'9') {
            return c - u'0';
        }
        if (c >= u'a' && c <= u'f') {
            return c - u'a' + 10;
        }
        if (c >= u'A' && c <= u'F') {
            return c - u'A' + 10;
        }
        throw ScriptError{line, "'" + ToUtf8(std::u16string(1, c)) + "' is no hex digit"};
    }

    static std::uint32_t Number(const std::u16string& text, int line) {
        const bool hex = text.size() > 2 && text[0] == u'0' && (text[1] == u'x' || text[1] == u'X');
        const std::size_t start = hex ? 2 : 0;
        if (text.size() == start) {
            throw ScriptError{line, "expected a number"};
        }
        std::uint64_t n = 0;
        for (std::size_t i = start; i < text.size(); ++i) {
            const char16_t c = text[i];
            unsigned digit = 0;
            if (hex) {
                digit = Hex(c, line);
            } else if (c >= u'0' && c <= u'9') {
                digit = c - u'0';
            } else {
                throw ScriptError{line, "'" + ToUtf8(text) + "' is no number"};
            }
            n = n * (hex ? 16 : 10) + digit;
            if (n > 0xFFFFFFFFull) {
                throw ScriptError{line, "'" + ToUtf8(text) + "' does not fit 32 bits"};
            }
        }
        return static_cast<std::uint32_t>(n);
    }

    Lexer& lexer_;
    Token current_;
};

std::string Where(const KeyNode& key) {
    return "line " + std::to_string(key.line) + ": ";
}

HRESULT Fail(LSTATUS status, const KeyNode& key, const char* what, std::string* error) {
    if (error != nullptr) {
        *error = Where(key) + what + " '" + ToUtf8(key.name) + "' failed (error " +
                 std::to_string(status) + ")";
    }
    return HResultFromWin32(static_cast<DWORD>(status));
}

HRESULT Register(HKEY parent, const KeyNode& key, std::string* error) {
    if (key.flag == KeyFlag::Delete || key.flag == KeyFlag::ForceRemove) {
        const LSTATUS status = RegDeleteTreeW(parent, key.name);
        if (status != ERROR_SUCCESS && status != static_cast<LSTATUS>(ERROR_FILE_NOT_FOUND)) {
            return Fail(status, key, "deleting key", error);
        }
        if (key.flag == KeyFlag::Delete) {
            return S_OK;
        }
    }
    UniqueKey handle;
    LSTATUS status = RegCreateKeyExW(parent, key.name, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS,
                                     &handle, nullptr);
    if (status != ERROR_SUCCESS) {
        return Fail(status, key, "creating key", error);
    }
    if (key.defaultText) {
        const std::vector<std::byte> data = regtext::StringBytes(*key.defaultText, true);
        status =
            RegSetValueExW(handle.get(), u"", REG_SZ, data.data(), static_cast<DWORD>(data.size()));
        if (status != ERROR_SUCCESS) {
            return Fail(status, key, "setting the default value of", error);
        }
    }
    for (const ValueNode& v : key.values) {
        status = RegSetValueExW(handle.get(), v.value.name, v.value.type, v.value.data.data(),
                                static_cast<DWORD>(v.value.data.size()));
        if (status != ERROR_SUCCESS) {
            return Fail(status, key, "setting a value of", error);
        }
    }
    for (const KeyNode& child : key.children) {
        const HRESULT hr = Register(handle.get(), child, error);
        if (FAILED(hr)) {
            return hr;
        }
    }
    return S_OK;
}

// True when the key holds only values the script writes.
bool OnlyOwnValues(HKEY key, const KeyNode& node) {
    std::vector<RegistryValue> values;
    if (RegEnumValues(key, &values) != ERROR_SUCCESS) {
        return false;
    }
    return std::all_of(values.begin(), values.end(), [&](const RegistryValue& v) {
        if (v.name.empty()) {
            return node.defaultText.has_value();
        }
        return std::any_of(node.values.begin(), node.values.end(), [&](const ValueNode& own) {
            return NamesEqual(own.value.name, v.name);
        });
    });
}

HRESULT Unregister(HKEY parent, const KeyNode& key, std::string* error) {
    if (key.flag == KeyFlag::Delete) {
        return S_OK;
    }
    UniqueKey handle;
    LSTATUS status = RegOpenKeyExW(parent, key.name, 0, KEY_ALL_ACCESS, &handle);
    if (status == static_cast<LSTATUS>(ERROR_FILE_NOT_FOUND)) {
        return S_OK;  // nothing of it left
    }
    if (status != ERROR_SUCCESS) {
        return Fail(status, key, "opening key", error);
    }
    if (key.flag == KeyFlag::ForceRemove) {
        // Registration wiped and rebuilt it: the whole subtree is the script's.
        handle.reset();
        status = RegDeleteTreeW(parent, key.name);
        return status == ERROR_SUCCESS ? S_OK : Fail(status, key, "deleting key", error);
    }
    for (const KeyNode& child : key.children) {
        const HRESULT hr = Unregister(handle.get(), child, error);
        if (FAILED(hr)) {
            return hr;
        }
    }
    std::vector<std::u16string> subKeys;
    const bool keep = key.flag == KeyFlag::NoRemove ||
                      RegEnumSubKeys(handle.get(), &subKeys) != ERROR_SUCCESS || !subKeys.empty() ||
                      !OnlyOwnValues(handle.get(), key);
    if (keep) {
        for (const ValueNode& v : key.values) {
            status = RegDeleteValueW(handle.get(), v.value.name);
            if (status != ERROR_SUCCESS && status != static_cast<LSTATUS>(ERROR_FILE_NOT_FOUND)) {
                return Fail(status, key, "deleting a value of", error);
            }
        }
        if (key.flag != KeyFlag::NoRemove && key.defaultText) {
            RegDeleteValueW(handle.get(), u"");
        }
        return S_OK;
    }
    handle.reset();
    status = RegDeleteKeyW(parent, key.name);
    return status == ERROR_SUCCESS ? S_OK : Fail(status, key, "deleting key", error);
}

}  // namespace

HRESULT RegistrarRun(std::u16string_view script,
                     const std::vector<RegistrarReplacement>& replacements, bool doRegister,
                     std::string* error) {
    std::vector<RootNode> roots;
    try {
        Lexer lexer(script, replacements);
        Parser parser(lexer);
        roots = parser.Script();
    } catch (const ScriptError& e) {
        if (error != nullptr) {
            *error = "line " + std::to_string(e.line) + ": " + e.reason;
        }
        return DISP_E_EXCEPTION;
    }
    for (const RootNode& root : roots) {
        for (const KeyNode& key : root.body.children) {
            const HRESULT hr =
                doRegister ? Register(root.root, key, error) : Unregister(root.root, key, error);
            if (FAILED(hr)) {
                return hr;
            }
        }
        if (!root.body.values.empty()) {
            // Values directly under a root.
            for (const ValueNode& v : root.body.values) {
                const LSTATUS status =
                    doRegister
                        ? RegSetValueExW(root.root, v.value.name, v.value.type, v.value.data.data(),
                                         static_cast<DWORD>(v.value.data.size()))
                        : RegDeleteValueW(root.root, v.value.name);
                if (status != ERROR_SUCCESS &&
                    (doRegister || status != static_cast<LSTATUS>(ERROR_FILE_NOT_FOUND))) {
                    return Fail(status, root.body, "writing a value of", error);
                }
            }
        }
    }
    if (error != nullptr) {
        error->clear();
    }
    return S_OK;
}

}  // namespace platform
