// ovasctl wmi ...: the module's management classes as an administrator's
// tool sees them, through the management service of the machine (which
// finds the provider through its registration, as WMI does). Values given
// as name=value are typed by the class's schema; an array is given as
// repeated name=value pairs or as one JSON array (name=["a","b"], name=[]).
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "output.h"
#include "ovsvc.h"
#include "platform/security.h"
#include "platform/text.h"
#include "platform/wmi.h"

namespace ovasctl {
namespace {

using platform::CimType;
using platform::CInstance;
using platform::FAILED;
using platform::HRESULT;

constexpr char kCommand[] = "wmi";

struct WmiOptions {
    bool json = false;
    std::string as;
    std::string nameSpace = "root\\Orvelle";
    std::string className;
    std::string method;
    std::string query;
    std::vector<std::string> values;
};

int Failed(const std::string& what, HRESULT hr) {
    return Fail(kCommand, what + " failed: " + HResultText(hr));
}

// ---- values in -----------------------------------------------------------------------

// A JSON array of texts and numbers, as typed on a command line; false for
// anything else.
bool ParseJsonArray(const std::string& text, std::vector<std::string>* items) {
    std::size_t at = 1;
    auto blanks = [&] {
        while (at < text.size() && (text[at] == ' ' || text[at] == '\t')) {
            ++at;
        }
    };
    items->clear();
    blanks();
    if (at < text.size() && text[at] == ']') {
        ++at;
        blanks();
        return at == text.size();
    }
    for (;;) {
        blanks();
        std::string item;
        if (at < text.size() && text[at] == '"') {
            ++at;
            while (at < text.size() && text[at] != '"') {
                if (text[at] == '\\' && at + 1 < text.size()) {
                    ++at;
                }
                item += text[at++];
            }
            if (at >= text.size()) {
                return false;
            }
            ++at;
        } else {
            while (at < text.size() && text[at] != ',' && text[at] != ']' && text[at] != ' ') {
                item += text[at++];
            }
            if (item.empty()) {
                return false;
            }
        }
        items->push_back(item);
        blanks();
        if (at < text.size() && text[at] == ',') {
            ++at;
            continue;
        }
        if (at < text.size() && text[at] == ']') {
            ++at;
            blanks();
            return at == text.size();
        }
        return false;
    }
}

bool ParseInteger(const std::string& text, bool isSigned, std::int64_t* value) {
    if (text.empty() || text.size() > 11) {
        return false;
    }
    std::size_t used = 0;
    try {
        *value = std::stoll(text, &used, 10);
    } catch (const std::exception&) {
        return false;
    }
    if (used != text.size()) {
        return false;
    }
    return isSigned ? (*value >= INT32_MIN && *value <= INT32_MAX)
                    : (*value >= 0 && *value <= UINT32_MAX);
}

// Sets `name` on `instance` from its texts, typed as `type`; false with
// the reason in *why.
bool SetTyped(CInstance* instance, const std::string& name, CimType type,
              const std::vector<std::string>& texts, std::string* why) {
    const std::u16string property = Utf16(name);
    const bool isArray = type == CimType::kStringArray || type == CimType::kSint32Array;
    if (!isArray && texts.size() != 1) {
        *why = name + " takes one value";
        return false;
    }
    switch (type) {
        case CimType::kString:
            return instance->SetCHString(property, Utf16(texts[0]));
        case CimType::kBoolean:
            if (texts[0] != "true" && texts[0] != "false") {
                *why = name + " takes true or false";
                return false;
            }
            return instance->Setbool(property, texts[0] == "true");
        case CimType::kUint32:
        case CimType::kSint32: {
            std::int64_t n = 0;
            if (!ParseInteger(texts[0], type == CimType::kSint32, &n)) {
                *why = name + " takes " + (type == CimType::kSint32 ? "a signed" : "an unsigned") +
                       " 32-bit number, not \"" + texts[0] + "\"";
                return false;
            }
            return instance->SetSint32(property, static_cast<std::int32_t>(n));
        }
        case CimType::kStringArray: {
            std::vector<std::u16string> items;
            for (const std::string& t : texts) {
                items.push_back(Utf16(t));
            }
            return instance->SetStringArray(property, items);
        }
        case CimType::kSint32Array: {
            std::vector<std::int32_t> items;
            for (const std::string& t : texts) {
                std::int64_t n = 0;
                if (!ParseInteger(t, true, &n)) {
                    *why = name + " takes signed 32-bit numbers, not \"" + t + "\"";
                    return false;
                }
                items.push_back(static_cast<std::int32_t>(n));
            }
            return instance->SetSint32Array(property, items);
        }
    }
    return false;
}

// name=value pairs grouped by name in order of first appearance; a value
// "[...]" is a JSON array.
bool GroupValues(const std::vector<std::string>& pairs,
                 std::vector<std::pair<std::string, std::vector<std::string>>>* grouped,
                 std::string* why) {
    for (const std::string& pair : pairs) {
        const std::size_t eq = pair.find('=');
        if (eq == std::string::npos || eq == 0) {
            *why = "\"" + pair + "\" is not name=value";
            return false;
        }
        const std::string name = pair.substr(0, eq);
        const std::string value = pair.substr(eq + 1);
        auto found = std::find_if(grouped->begin(), grouped->end(), [&](const auto& g) {
            return platform::NamesEqual(Utf16(g.first), Utf16(name));
        });
        if (found == grouped->end()) {
            grouped->push_back({name, {}});
            found = grouped->end() - 1;
        }
        if (!value.empty() && value[0] == '[') {
            std::vector<std::string> items;
            if (!ParseJsonArray(value, &items)) {
                *why = "the value of " + name + " is no JSON array of texts or numbers";
                return false;
            }
            found->second.insert(found->second.end(), items.begin(), items.end());
        } else {
            found->second.push_back(value);
        }
    }
    return true;
}

// ---- values out ------------------------------------------------------------------------

std::vector<std::string> ArrayTexts(const platform::VARIANT& v) {
    std::vector<std::string> out;
    if (v.vt == (platform::VT_ARRAY | platform::VT_BSTR)) {
        std::vector<std::u16string> items;
        if (platform::ReadStringArray(v.parray, &items)) {
            for (const auto& i : items) {
                out.push_back(Utf8(i));
            }
        }
    } else if (v.vt == (platform::VT_ARRAY | platform::VT_I4)) {
        std::vector<platform::LONG> items;
        if (platform::ReadLongArray(v.parray, &items)) {
            for (const auto i : items) {
                out.push_back(std::to_string(i));
            }
        }
    }
    return out;
}

// A value for a table cell, typed by the schema where it knows the name
// (uint32 shown unsigned).
std::string CellText(const platform::VARIANT& v, CimType type) {
    switch (v.vt) {
        case platform::VT_BSTR:
            return Utf8(platform::BstrView(v.bstrVal));
        case platform::VT_I4:
            return type == CimType::kUint32 ? std::to_string(static_cast<std::uint32_t>(v.lVal))
                                            : std::to_string(v.lVal);
        case platform::VT_BOOL:
            return v.boolVal != 0 ? "true" : "false";
        default: {
            std::string joined;
            for (const std::string& item : ArrayTexts(v)) {
                joined += (joined.empty() ? "" : ", ") + item;
            }
            return joined;
        }
    }
}

std::string JsonValue(const platform::VARIANT& v, CimType type) {
    switch (v.vt) {
        case platform::VT_BSTR:
            return JsonString(Utf8(platform::BstrView(v.bstrVal)));
        case platform::VT_I4:
        case platform::VT_BOOL:
            return CellText(v, type);
        default:
            break;
    }
    if (v.vt == (platform::VT_ARRAY | platform::VT_I4)) {
        return JsonArray(ArrayTexts(v));
    }
    return JsonTexts(ArrayTexts(v));
}

struct Shown {
    std::vector<std::u16string> names;  // in schema order, then any others
    std::map<std::u16string, CimType> types;
};

Shown ShownProperties(const platform::ClassSchema* schema, const CInstance& instance) {
    Shown s;
    if (schema != nullptr) {
        for (const auto& p : schema->properties) {
            s.names.push_back(p.name);
            s.types[platform::UpcaseName(p.name)] = p.type;
        }
    }
    for (const std::u16string& n : instance.PropertyNames()) {
        if (s.types.count(platform::UpcaseName(n)) == 0) {
            s.names.push_back(n);
            s.types[platform::UpcaseName(n)] = CimType::kSint32;
        }
    }
    return s;
}

std::string InstanceJson(const Shown& shown, const CInstance& instance) {
    JsonObject o;
    for (const std::u16string& name : shown.names) {
        const platform::VARIANT* v = instance.Find(name);
        o.Raw(Utf8(name),
              v == nullptr ? "null" : JsonValue(*v, shown.types.at(platform::UpcaseName(name))));
    }
    return o.str();
}

void PrintOne(bool json, const Shown& shown, const CInstance& instance) {
    if (json) {
        std::cout << InstanceJson(shown, instance) << "\n";
        return;
    }
    std::vector<std::vector<std::string>> rows{{"PROPERTY", "VALUE"}};
    for (const std::u16string& name : shown.names) {
        const platform::VARIANT* v = instance.Find(name);
        rows.push_back(
            {Utf8(name),
             v == nullptr ? "(null)" : CellText(*v, shown.types.at(platform::UpcaseName(name)))});
    }
    PrintTable(rows);
}

void PrintMany(bool json, const platform::ClassSchema& schema,
               const std::vector<std::unique_ptr<CInstance>>& instances) {
    if (json) {
        std::vector<std::string> items;
        for (const auto& i : instances) {
            items.push_back(InstanceJson(ShownProperties(&schema, *i), *i));
        }
        std::cout << JsonArray(items) << "\n";
        return;
    }
    const CInstance empty(schema.name);
    const Shown shown = ShownProperties(&schema, instances.empty() ? empty : *instances.front());
    std::vector<std::vector<std::string>> rows(1);
    for (const auto& name : shown.names) {
        rows[0].push_back(Utf8(name));
    }
    for (const auto& i : instances) {
        rows.emplace_back();
        for (const auto& name : shown.names) {
            const platform::VARIANT* v = i->Find(name);
            rows.back().push_back(
                v == nullptr ? "" : CellText(*v, shown.types.at(platform::UpcaseName(name))));
        }
    }
    PrintTable(rows);
}

// ---- the commands -----------------------------------------------------------------------

bool ActAs(const std::string& account) {
    if (account.empty()) {
        return true;
    }
    platform::admin::Account found;
    if (!platform::admin::FindAccountByName(Utf16(account), &found)) {
        Fail(kCommand, "unknown account \"" + account + "\"");
        return false;
    }
    platform::admin::SetProcessAccount(found.FullName());
    return true;
}

int Run(const WmiOptions& o, const std::string& verb) {
    if (!ActAs(o.as)) {
        return 1;
    }
    if (verb == "register" || verb == "unregister") {
        const HRESULT hr = verb == "register" ? OVASRegister() : OVASUnregister();
        return FAILED(hr) ? Failed(verb, hr) : 0;
    }
    std::unique_ptr<platform::WbemConnection> wmi;
    HRESULT hr = platform::WbemConnection::Connect(Utf16(o.nameSpace), &wmi);
    if (FAILED(hr)) {
        return Failed("connecting to " + o.nameSpace, hr);
    }
    if (verb == "query") {
        std::vector<std::unique_ptr<CInstance>> found;
        std::string why;
        platform::CFrameworkQuery parsed;
        if (FAILED(platform::ParseWqlQuery(Utf16(o.query), &parsed, &why))) {
            return Fail(kCommand, "query \"" + o.query + "\": " + why + ": " +
                                      HResultText(platform::WBEM_E_INVALID_QUERY));
        }
        hr = wmi->ExecQuery(Utf16(o.query), &found);
        if (FAILED(hr)) {
            return Failed("query \"" + o.query + "\"", hr);
        }
        platform::ClassSchema schema;
        wmi->GetClass(parsed.className, &schema);
        PrintMany(o.json, schema, found);
        return 0;
    }
    platform::ClassSchema schema;
    hr = wmi->GetClass(Utf16(o.className), &schema);
    if (FAILED(hr)) {
        return Failed("class " + o.className, hr);
    }
    std::vector<std::pair<std::string, std::vector<std::string>>> grouped;
    std::string why;
    if (!GroupValues(o.values, &grouped, &why)) {
        return Fail(kCommand, why);
    }
    if (verb == "enum") {
        std::vector<std::unique_ptr<CInstance>> found;
        hr = wmi->EnumerateInstances(schema.name, &found);
        if (FAILED(hr)) {
            return Failed("enumerating " + o.className, hr);
        }
        PrintMany(o.json, schema, found);
        return 0;
    }
    if (verb == "get" || verb == "put") {
        CInstance instance(schema.name);
        for (const auto& [name, texts] : grouped) {
            const platform::PropertySchema* p = schema.FindProperty(Utf16(name));
            if (p == nullptr) {
                return Fail(kCommand, o.className + " has no property " + name);
            }
            if (!SetTyped(&instance, Utf8(p->name), p->type, texts, &why)) {
                return Fail(kCommand, why);
            }
        }
        if (verb == "put") {
            hr = wmi->PutInstance(instance);
            return FAILED(hr) ? Failed("writing " + o.className, hr) : 0;
        }
        std::unique_ptr<CInstance> found;
        hr = wmi->GetObject(instance, &found);
        if (FAILED(hr)) {
            return Failed("reading " + o.className, hr);
        }
        PrintOne(o.json, ShownProperties(&schema, *found), *found);
        return 0;
    }
    // call: in-parameters typed by the method's declaration (found in any
    // case; the provider is given the name as written).
    const platform::MethodSchema* method = nullptr;
    for (const auto& m : schema.methods) {
        if (platform::NamesEqual(m.name, Utf16(o.method))) {
            method = &m;
        }
    }
    CInstance in(u"__PARAMETERS");
    for (const auto& [name, texts] : grouped) {
        const platform::ParameterSchema* p = nullptr;
        if (method != nullptr) {
            for (const auto& candidate : method->parameters) {
                if (candidate.in && platform::NamesEqual(candidate.name, Utf16(name))) {
                    p = &candidate;
                    break;
                }
            }
        }
        if (method != nullptr && p == nullptr) {
            return Fail(kCommand, o.className + "." + o.method + " has no in-parameter " + name);
        }
        if (p != nullptr && !SetTyped(&in, Utf8(p->name), p->type, texts, &why)) {
            return Fail(kCommand, why);
        }
    }
    std::unique_ptr<CInstance> out;
    hr = wmi->ExecMethod(schema.name, Utf16(o.method), &in, &out);
    if (FAILED(hr)) {
        return Failed(o.className + "." + o.method, hr);
    }
    Shown shown = ShownProperties(nullptr, *out);
    if (method != nullptr) {
        for (const auto& p : method->parameters) {
            shown.types[platform::UpcaseName(p.name)] = p.type;
        }
    }
    shown.types[u"RETURNVALUE"] = CimType::kUint32;
    PrintOne(o.json, shown, *out);
    return 0;
}

void InstallWmiCommands(CLI::App& app) {
    auto* wmi = app.add_subcommand("wmi", "the management classes in root\\Orvelle");
    wmi->require_subcommand(1);
    auto o = std::make_shared<WmiOptions>();
    wmi->add_flag("--json", o->json, "JSON output");
    wmi->add_option("--as", o->as, "DOMAIN\\user to run the call as");
    wmi->add_option("--namespace", o->nameSpace, "namespace (default root\\Orvelle)");

    auto add = [&](const char* verb, const char* help) {
        auto* sub = wmi->add_subcommand(verb, help);
        sub->callback([o, verb = std::string(verb)] { ExitCode() = Run(*o, verb); });
        return sub;
    };
    auto* get = add("get", "one instance: a singleton, or the one the key names (Key=value)");
    get->add_option("class", o->className)->required();
    get->add_option("keys", o->values, "Key=value");
    auto* en = add("enum", "every instance of a class");
    en->add_option("class", o->className)->required();
    auto* put = add("put", "write an instance (administrators only)");
    put->add_option("class", o->className)->required();
    put->add_option("values", o->values, "Property=value ...")->required();
    auto* call = add("call", "call a method (administrators only)");
    call->add_option("class", o->className)->required();
    call->add_option("method", o->method)->required();
    call->add_option("values", o->values, "Parameter=value ...");
    auto* query = add("query", "a WQL query: SELECT * FROM class [WHERE property = value]");
    query->add_option("wql", o->query)->required();
    add("register", "register the provider and compile its schema (OVASRegister)");
    add("unregister", "delete the provider's classes and registration (OVASUnregister)");
}

const AddCommands g_wmi{&InstallWmiCommands};

}  // namespace
}  // namespace ovasctl
