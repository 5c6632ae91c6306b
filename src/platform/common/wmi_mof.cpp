// A parser for the MOF subset of the repository. Anything outside the
// subset is an error naming its line, never skipped.
#include "wmi_mof.h"

#include <algorithm>
#include <cctype>
#include <set>

#include "platform/text.h"

namespace platform::mof {

namespace {

struct Token {
    enum class Kind { kEnd, kIdentifier, kNumber, kText, kPunct, kPragma };
    Kind kind = Kind::kEnd;
    std::string text;  // identifier, number, decoded text, punctuation, pragma name
    int line = 1;
    std::size_t begin = 0;  // offset of its first character
    std::size_t end = 0;    // offset after it
};

class Failure {
  public:
    Failure(int line, std::string reason) : line_(line), reason_(std::move(reason)) {}
    std::string Text() const { return "line " + std::to_string(line_) + ": " + reason_; }

  private:
    int line_;
    std::string reason_;
};

class Lexer {
  public:
    explicit Lexer(std::string_view text) : text_(text) {}

    Token Next() {
        SkipBlanks();
        Token t;
        t.line = line_;
        t.begin = at_;
        if (at_ >= text_.size()) {
            t.end = at_;
            return t;
        }
        const char c = text_[at_];
        if (std::isalpha(static_cast<unsigned char>(c)) || c == '_') {
            t.kind = Token::Kind::kIdentifier;
            while (at_ < text_.size() &&
                   (std::isalnum(static_cast<unsigned char>(text_[at_])) || text_[at_] == '_')) {
                t.text += text_[at_++];
            }
        } else if (std::isdigit(static_cast<unsigned char>(c)) ||
                   ((c == '-' || c == '+') && at_ + 1 < text_.size() &&
                    std::isdigit(static_cast<unsigned char>(text_[at_ + 1])))) {
            t.kind = Token::Kind::kNumber;
            t.text += text_[at_++];
            while (at_ < text_.size() && std::isalnum(static_cast<unsigned char>(text_[at_]))) {
                t.text += text_[at_++];
            }
            if (!ValidNumber(t.text)) {
                throw Failure(t.line, "\"" + t.text + "\" is not a number");
            }
        } else if (c == '"') {
            t.kind = Token::Kind::kText;
            ++at_;
            for (;;) {
                if (at_ >= text_.size() || text_[at_] == '\n') {
                    throw Failure(t.line, "text not closed");
                }
                char d = text_[at_++];
                if (d == '"') {
                    break;
                }
                if (d == '\\') {
                    if (at_ >= text_.size()) {
                        throw Failure(t.line, "text not closed");
                    }
                    const char e = text_[at_++];
                    switch (e) {
                        case '\\':
                        case '"':
                        case '\'':
                            d = e;
                            break;
                        case 'n':
                            d = '\n';
                            break;
                        case 't':
                            d = '\t';
                            break;
                        default:
                            throw Failure(line_, std::string("unknown escape \\") + e);
                    }
                }
                t.text += d;
            }
        } else if (c == '#') {
            t.kind = Token::Kind::kPragma;
            ++at_;
            while (at_ < text_.size() && std::isalpha(static_cast<unsigned char>(text_[at_]))) {
                t.text += text_[at_++];
            }
            if (t.text != "pragma") {
                throw Failure(t.line, "\"#" + t.text + "\" is not a MOF directive");
            }
        } else if (std::string_view("[](){},;=:$").find(c) != std::string_view::npos) {
            t.kind = Token::Kind::kPunct;
            t.text = std::string(1, c);
            ++at_;
        } else {
            throw Failure(t.line, std::string("unexpected character '") + c + "'");
        }
        t.end = at_;
        return t;
    }

  private:
    static bool ValidNumber(const std::string& s) {
        std::size_t i = (s[0] == '-' || s[0] == '+') ? 1 : 0;
        if (s.size() > i + 2 && s[i] == '0' && (s[i + 1] == 'x' || s[i + 1] == 'X')) {
            return std::all_of(s.begin() + static_cast<long>(i) + 2, s.end(),
                               [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); });
        }
        return std::all_of(s.begin() + static_cast<long>(i), s.end(),
                           [](char c) { return std::isdigit(static_cast<unsigned char>(c)); });
    }

    void SkipBlanks() {
        while (at_ < text_.size()) {
            const char c = text_[at_];
            if (c == '\n') {
                ++line_;
                ++at_;
            } else if (std::isspace(static_cast<unsigned char>(c))) {
                ++at_;
            } else if (text_.substr(at_, 2) == "//") {
                while (at_ < text_.size() && text_[at_] != '\n') {
                    ++at_;
                }
            } else if (text_.substr(at_, 2) == "/*") {
                const int start = line_;
                at_ += 2;
                while (at_ < text_.size() && text_.substr(at_, 2) != "*/") {
                    line_ += text_[at_] == '\n' ? 1 : 0;
                    ++at_;
                }
                if (at_ >= text_.size()) {
                    throw Failure(start, "comment not closed");
                }
                at_ += 2;
            } else {
                return;
            }
        }
    }

    std::string_view text_;
    std::size_t at_ = 0;
    int line_ = 1;
};

bool IsSystemClass(std::u16string_view name) {
    for (const char16_t* known :
         {u"__Namespace", u"__Win32Provider", u"__InstanceProviderRegistration",
          u"__MethodProviderRegistration"}) {
        if (NamesEqual(name, known)) {
            return true;
        }
    }
    return false;
}

class Parser {
  public:
    Parser(std::string_view text, std::u16string_view nameSpace, const NamespaceExists& exists,
           Document* document)
        : text_(text), lexer_(text), nameSpace_(nameSpace), exists_(exists), document_(document) {
        Advance();
    }

    void Run() {
        while (token_.kind != Token::Kind::kEnd) {
            if (token_.kind == Token::Kind::kPragma) {
                Pragma();
                continue;
            }
            const std::size_t begin = token_.begin;
            std::vector<QualifierValue> qualifiers;
            if (IsPunct("[")) {
                qualifiers = Qualifiers();
            }
            if (IsWord("class")) {
                ClassDeclaration(begin, std::move(qualifiers));
            } else if (IsWord("instance")) {
                InstanceDeclaration();
            } else {
                throw Failure(token_.line, "expected a class or an instance, found " + Shown());
            }
        }
    }

  private:
    void Advance() { token_ = lexer_.Next(); }
    bool IsPunct(const char* p) const {
        return token_.kind == Token::Kind::kPunct && token_.text == p;
    }
    bool IsWord(const char* w) const {
        return token_.kind == Token::Kind::kIdentifier && NamesEqual(U(token_.text), U(w));
    }
    static std::u16string U(std::string_view s) { return ToUtf16(s); }
    std::string Shown() const {
        switch (token_.kind) {
            case Token::Kind::kEnd:
                return "the end of the text";
            case Token::Kind::kText:
                return "a text";
            default:
                return "\"" + token_.text + "\"";
        }
    }
    void Expect(const char* p) {
        if (!IsPunct(p)) {
            throw Failure(token_.line, std::string("expected '") + p + "', found " + Shown());
        }
        Advance();
    }
    std::u16string Identifier(const char* what) {
        if (token_.kind != Token::Kind::kIdentifier) {
            throw Failure(token_.line, std::string("expected ") + what + ", found " + Shown());
        }
        std::u16string name = U(token_.text);
        Advance();
        return name;
    }

    void Pragma() {
        Advance();
        const int line = token_.line;
        const std::u16string name = Identifier("a pragma name");
        if (!NamesEqual(name, u"namespace")) {
            throw Failure(line, "pragma \"" + ToUtf8(name) + "\" is not supported");
        }
        Expect("(");
        if (token_.kind != Token::Kind::kText) {
            throw Failure(token_.line, "expected the namespace as a text, found " + Shown());
        }
        const std::u16string path = NormalNamespace(U(token_.text));
        Advance();
        Expect(")");
        if (!Known(path)) {
            throw Failure(line, "namespace \"" + ToUtf8(path) + "\" does not exist");
        }
        nameSpace_ = path;
    }

    bool Known(const std::u16string& path) const {
        if (NamesEqual(path, u"root")) {
            return true;
        }
        for (const std::u16string& made : document_->namespaces) {
            if (NamesEqual(made, path)) {
                return true;
            }
        }
        return exists_(path);
    }

    std::vector<QualifierValue> Qualifiers() {
        Expect("[");
        std::vector<QualifierValue> list;
        for (;;) {
            QualifierValue q;
            const int line = token_.line;
            q.name = Identifier("a qualifier name");
            q.value = u"true";
            if (IsPunct("(")) {
                Advance();
                const Value v = ParseValue();
                if (v.kind == Value::Kind::kArray || v.kind == Value::Kind::kNull) {
                    throw Failure(line, "qualifier " + ToUtf8(q.name) + " takes one value");
                }
                q.value = v.kind == Value::Kind::kBoolean ? (v.flag ? u"true" : u"false") : v.text;
                Expect(")");
            }
            for (const QualifierValue& seen : list) {
                if (NamesEqual(seen.name, q.name)) {
                    throw Failure(line, "qualifier " + ToUtf8(q.name) + " given twice");
                }
            }
            list.push_back(std::move(q));
            if (IsPunct("]")) {
                Advance();
                return list;
            }
            Expect(",");
        }
    }

    static const QualifierValue* FindQualifier(const std::vector<QualifierValue>& list,
                                               std::u16string_view name) {
        for (const QualifierValue& q : list) {
            if (NamesEqual(q.name, name)) {
                return &q;
            }
        }
        return nullptr;
    }

    // A type name and an optional "[]" after the following name.
    CimType Type(bool* isArrayCapable) {
        const int line = token_.line;
        const std::u16string name = Identifier("a type");
        *isArrayCapable = true;
        if (NamesEqual(name, u"string")) {
            return CimType::kString;
        }
        if (NamesEqual(name, u"sint32")) {
            return CimType::kSint32;
        }
        *isArrayCapable = false;
        if (NamesEqual(name, u"uint32")) {
            return CimType::kUint32;
        }
        if (NamesEqual(name, u"boolean")) {
            return CimType::kBoolean;
        }
        throw Failure(line, "type \"" + ToUtf8(name) + "\" is not supported");
    }

    CimType ArrayOf(CimType type, bool capable, int line) {
        Advance();  // "["
        Expect("]");
        if (!capable) {
            throw Failure(
                line, std::string("arrays of ") + ToUtf8(CimTypeName(type)) + " are not supported");
        }
        return type == CimType::kString ? CimType::kStringArray : CimType::kSint32Array;
    }

    void ClassDeclaration(std::size_t begin, std::vector<QualifierValue> qualifiers) {
        Advance();  // "class"
        const int line = token_.line;
        Class c;
        c.schema.nameSpace = nameSpace_;
        c.schema.name = Identifier("a class name");
        c.schema.qualifiers = std::move(qualifiers);
        if (IsSystemClass(c.schema.name) || c.schema.name.rfind(u"__", 0) == 0) {
            throw Failure(line, "class " + ToUtf8(c.schema.name) + " is a system class");
        }
        if (IsPunct(":")) {
            throw Failure(token_.line, "classes with a superclass are not supported");
        }
        Expect("{");
        std::set<std::u16string> names;
        while (!IsPunct("}")) {
            std::vector<QualifierValue> q;
            if (IsPunct("[")) {
                q = Qualifiers();
            }
            const int memberLine = token_.line;
            bool capable = false;
            CimType type = Type(&capable);
            const std::u16string name = Identifier("a property or method name");
            if (!names.insert(UpcaseName(name)).second) {
                throw Failure(memberLine, ToUtf8(name) + " is declared twice");
            }
            if (IsPunct("(")) {
                c.schema.methods.push_back(Method(name, type, std::move(q)));
                continue;
            }
            if (IsPunct("[")) {
                type = ArrayOf(type, capable, memberLine);
            }
            if (IsPunct("=")) {
                throw Failure(token_.line, "default values are not supported");
            }
            Expect(";");
            PropertySchema p;
            p.name = name;
            p.type = type;
            p.key = FindQualifier(q, u"key") != nullptr;
            p.qualifiers = std::move(q);
            c.schema.properties.push_back(std::move(p));
        }
        Advance();  // "}"
        const std::size_t end = token_.end;
        Expect(";");
        c.text = std::string(text_.substr(begin, end - begin));
        for (const Class& other : document_->classes) {
            if (NamesEqual(other.schema.name, c.schema.name) &&
                NamesEqual(other.schema.nameSpace, c.schema.nameSpace)) {
                throw Failure(line, "class " + ToUtf8(c.schema.name) + " is defined twice");
            }
        }
        document_->classes.push_back(std::move(c));
    }

    MethodSchema Method(const std::u16string& name, CimType type,
                        std::vector<QualifierValue> qualifiers) {
        MethodSchema m;
        m.name = name;
        m.returnType = type;
        m.qualifiers = std::move(qualifiers);
        Advance();  // "("
        std::set<std::u16string> names;
        while (!IsPunct(")")) {
            if (!m.parameters.empty()) {
                Expect(",");
            }
            std::vector<QualifierValue> q;
            if (IsPunct("[")) {
                q = Qualifiers();
            }
            const int line = token_.line;
            bool capable = false;
            ParameterSchema p;
            p.type = Type(&capable);
            p.name = Identifier("a parameter name");
            if (IsPunct("[")) {
                p.type = ArrayOf(p.type, capable, line);
            }
            if (!names.insert(UpcaseName(p.name)).second) {
                throw Failure(line, "parameter " + ToUtf8(p.name) + " is declared twice");
            }
            p.in = FindQualifier(q, u"in") != nullptr;
            p.out = FindQualifier(q, u"out") != nullptr;
            if (!p.in && !p.out) {
                throw Failure(line, "parameter " + ToUtf8(p.name) + " is neither in nor out");
            }
            if (const QualifierValue* id = FindQualifier(q, u"ID")) {
                const std::string digits = ToUtf8(id->value);
                if (digits.empty() || digits.size() > 4 ||
                    digits.find_first_not_of("0123456789") != std::string::npos) {
                    throw Failure(line, "parameter " + ToUtf8(p.name) + " has a bad ID");
                }
                p.id = std::stoi(digits);
            }
            m.parameters.push_back(std::move(p));
        }
        Advance();  // ")"
        Expect(";");
        std::stable_sort(
            m.parameters.begin(), m.parameters.end(),
            [](const ParameterSchema& a, const ParameterSchema& b) { return a.id < b.id; });
        return m;
    }

    Value ParseValue() {
        Value v;
        if (token_.kind == Token::Kind::kText) {
            v.kind = Value::Kind::kText;
            while (token_.kind == Token::Kind::kText) {  // adjacent texts join
                v.text += U(token_.text);
                Advance();
            }
            return v;
        }
        if (token_.kind == Token::Kind::kNumber) {
            v.kind = Value::Kind::kNumber;
            v.text = U(token_.text);
            Advance();
            return v;
        }
        if (IsWord("true") || IsWord("false")) {
            v.kind = Value::Kind::kBoolean;
            v.flag = IsWord("true");
            Advance();
            return v;
        }
        if (IsWord("null")) {
            Advance();
            return v;
        }
        if (IsPunct("$")) {
            Advance();
            const int line = token_.line;
            const std::u16string alias = Identifier("an alias name");
            for (const auto& [name, path] : aliases_) {
                if (NamesEqual(name, alias)) {
                    v.kind = Value::Kind::kText;
                    v.text = path;
                    return v;
                }
            }
            throw Failure(line, "alias $" + ToUtf8(alias) + " is not defined");
        }
        if (IsPunct("{")) {
            Advance();
            v.kind = Value::Kind::kArray;
            while (!IsPunct("}")) {
                if (!v.items.empty()) {
                    Expect(",");
                }
                const int line = token_.line;
                Value item = ParseValue();
                if (item.kind == Value::Kind::kArray) {
                    throw Failure(line, "arrays of arrays are not supported");
                }
                v.items.push_back(std::move(item));
            }
            Advance();
            return v;
        }
        throw Failure(token_.line, "expected a value, found " + Shown());
    }

    void InstanceDeclaration() {
        const int line = token_.line;
        Advance();  // "instance"
        if (!IsWord("of")) {
            throw Failure(token_.line, "expected \"of\", found " + Shown());
        }
        Advance();
        Instance i;
        i.nameSpace = nameSpace_;
        i.className = Identifier("a class name");
        if (!IsSystemClass(i.className)) {
            throw Failure(line, "instances of class " + ToUtf8(i.className) + " are not supported");
        }
        std::u16string alias;
        if (IsWord("as")) {
            Advance();
            Expect("$");
            alias = Identifier("an alias name");
        }
        Expect("{");
        while (!IsPunct("}")) {
            const int valueLine = token_.line;
            std::u16string name = Identifier("a property name");
            Expect("=");
            Value v = ParseValue();
            Expect(";");
            if (i.Find(name) != nullptr) {
                throw Failure(valueLine, ToUtf8(name) + " is given twice");
            }
            i.values.emplace_back(std::move(name), std::move(v));
        }
        Advance();
        Expect(";");
        if (i.values.empty() || i.values.front().second.kind != Value::Kind::kText) {
            throw Failure(line, "an instance needs a text as its first value");
        }
        if (NamesEqual(i.className, u"__Namespace")) {
            const Value* name = i.Find(u"Name");
            if (name == nullptr || name->kind != Value::Kind::kText || name->text.empty() ||
                name->text.find_first_of(u"\\/") != std::u16string::npos) {
                throw Failure(line, "a namespace needs a plain Name");
            }
            document_->namespaces.push_back(nameSpace_ + u"\\" + name->text);
        } else {
            if (!alias.empty()) {
                aliases_.emplace_back(alias, i.className + u"." + i.values.front().first + u"=\"" +
                                                 i.values.front().second.text + u"\"");
            }
            document_->instances.push_back(std::move(i));
        }
    }

    std::string_view text_;
    Lexer lexer_;
    Token token_;
    std::u16string nameSpace_;
    const NamespaceExists& exists_;
    Document* document_;
    std::vector<std::pair<std::u16string, std::u16string>> aliases_;
};

std::string Quoted(std::u16string_view text) {
    std::string out = "\"";
    for (const char c : ToUtf8(text)) {
        if (c == '\n') {
            out += "\\n";
            continue;
        }
        if (c == '"' || c == '\\') {
            out += '\\';
        }
        out += c;
    }
    return out + "\"";
}

std::string ValueText(const Value& v) {
    switch (v.kind) {
        case Value::Kind::kText:
            return Quoted(v.text);
        case Value::Kind::kNumber:
            return ToUtf8(v.text);
        case Value::Kind::kBoolean:
            return v.flag ? "TRUE" : "FALSE";
        case Value::Kind::kArray: {
            std::string out = "{";
            for (std::size_t n = 0; n < v.items.size(); ++n) {
                out += (n == 0 ? "" : ", ") + ValueText(v.items[n]);
            }
            return out + "}";
        }
        case Value::Kind::kNull:
            break;
    }
    return "NULL";
}

}  // namespace

const Value* Instance::Find(std::u16string_view name) const {
    for (const auto& [n, v] : values) {
        if (NamesEqual(n, name)) {
            return &v;
        }
    }
    return nullptr;
}

std::u16string Instance::StoreName() const {
    return className + u"." + (values.empty() ? std::u16string() : values.front().second.text);
}

std::string Instance::Text() const {
    std::string out = "instance of " + ToUtf8(className) + "\n{\n";
    for (const auto& [name, value] : values) {
        out += "    " + ToUtf8(name) + " = " + ValueText(value) + ";\n";
    }
    return out + "};\n";
}

bool Parse(std::string_view text, std::u16string_view nameSpace, const NamespaceExists& exists,
           Document* document, std::string* error) {
    *document = Document{};
    try {
        Parser parser(text, nameSpace, exists, document);
        parser.Run();
        return true;
    } catch (const Failure& f) {
        *error = f.Text();
    }
    return false;
}

std::u16string NormalNamespace(std::u16string_view path) {
    std::u16string p(path);
    std::replace(p.begin(), p.end(), u'/', u'\\');
    if (p.rfind(u"\\\\", 0) == 0) {
        const std::size_t server = p.find(u'\\', 2);
        p = server == std::u16string::npos ? std::u16string() : p.substr(server + 1);
    }
    while (!p.empty() && p.back() == u'\\') {
        p.pop_back();
    }
    return p;
}

const char16_t* CimTypeName(CimType type) {
    switch (type) {
        case CimType::kString:
            return u"string";
        case CimType::kUint32:
            return u"uint32";
        case CimType::kSint32:
            return u"sint32";
        case CimType::kBoolean:
            return u"boolean";
        case CimType::kStringArray:
            return u"string[]";
        case CimType::kSint32Array:
            return u"sint32[]";
    }
    return u"?";
}

}  // namespace platform::mof
