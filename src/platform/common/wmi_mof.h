// The MOF subset the repository understands, parsed into what the
// repository stores: namespaces to create, classes (with the text that
// defines each, stored and parsed again on use) and instances of the
// system classes that register providers.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/wmi.h"

namespace platform::mof {

struct Value {
    enum class Kind { kNull, kText, kNumber, kBoolean, kArray };
    Kind kind = Kind::kNull;
    std::u16string text;  // kText; kNumber as written
    bool flag = false;    // kBoolean
    std::vector<Value> items;
};

struct Instance {
    std::u16string nameSpace;
    std::u16string className;
    std::vector<std::pair<std::u16string, Value>> values;
    const Value* Find(std::u16string_view name) const;
    // The name it is stored under: "<class>.<first value as text>".
    std::u16string StoreName() const;
    // MOF text that parses back to this instance.
    std::string Text() const;
};

struct Class {
    ClassSchema schema;  // schema.nameSpace set
    std::string text;    // the class's own MOF text, qualifiers included
};

struct Document {
    std::vector<std::u16string> namespaces;  // full paths, in order of creation
    std::vector<Class> classes;
    std::vector<Instance> instances;
};

// Whether a namespace other than "root" exists already.
using NamespaceExists = std::function<bool(const std::u16string& path)>;

// Parses `text` with `nameSpace` as the namespace in force at its start.
// False with "line N: <reason>" in *error.
bool Parse(std::string_view text, std::u16string_view nameSpace, const NamespaceExists& exists,
           Document* document, std::string* error);

// "\\.\root\Orvelle", "//./root/Orvelle", "root\Orvelle" -> "root\Orvelle".
std::u16string NormalNamespace(std::u16string_view path);

const char16_t* CimTypeName(CimType type);

}  // namespace platform::mof
