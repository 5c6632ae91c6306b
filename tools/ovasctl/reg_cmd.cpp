// ovasctl reg: read and change the machine's registry.
//
//   reg get KEY [VALUE]            values (and subkeys) in regedit notation
//   reg set KEY VALUE DATA...      DATA in regedit notation ("text", dword:..,
//                                  hex:.., hex(N):..) or plain text (REG_SZ);
//                                  --type sz|expand_sz|multi_sz|dword|qword|binary
//                                  reads DATA as that type instead (multi_sz
//                                  takes one argument per string)
//   reg delete KEY [VALUE]         a value, or the key with its whole subtree
//   reg import FILE                a .reg file (UTF-8, or UTF-16LE with BOM; - is stdin)
//   reg export KEY [FILE]          a .reg file of KEY's subtree (UTF-8; --utf16
//                                  writes UTF-16LE with BOM as regedit does)
// KEY is HKLM\... or HKEY_LOCAL_MACHINE\... (HKCR, HKEY_CLASSES_ROOT too);
// VALUE @ is the key's default value. --json gives machine-readable output.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "command.h"
#include "platform/registry.h"
#include "platform/registry_text.h"

namespace ovasctl {

namespace {

using namespace platform;

struct RegOptions {
    std::string key;
    std::string value;
    std::vector<std::string> data;
    std::string type;
    std::string file;
    bool json = false;
    bool utf16 = false;
};

RegOptions& Options() {
    static RegOptions options;
    return options;
}

std::u16string Chars(const std::vector<std::byte>& data) {
    std::u16string text;
    for (std::size_t i = 0; i + 1 < data.size(); i += 2) {
        text.push_back(static_cast<char16_t>(std::to_integer<unsigned>(data[i]) |
                                             (std::to_integer<unsigned>(data[i + 1]) << 8)));
    }
    return text;
}

std::uint64_t Number(const std::vector<std::byte>& data) {
    std::uint64_t n = 0;
    for (std::size_t i = data.size(); i-- > 0;) {
        n = (n << 8) | std::to_integer<std::uint64_t>(data[i]);
    }
    return n;
}

// The value's content as JSON: numbers, strings, lists of strings, or hex.
std::string JsonContent(const RegistryValue& v) {
    if ((v.type == REG_DWORD && v.data.size() == 4) ||
        (v.type == REG_QWORD && v.data.size() == 8)) {
        return std::to_string(Number(v.data));
    }
    if (v.type == REG_SZ || v.type == REG_EXPAND_SZ) {
        std::u16string text = Chars(v.data);
        if (const auto nul = text.find(u'\0'); nul != std::u16string::npos) {
            text.resize(nul);
        }
        return JsonString(Utf8(text));
    }
    if (v.type == REG_MULTI_SZ) {
        std::vector<std::string> strings;
        const std::u16string text = Chars(v.data);
        std::size_t start = 0;
        while (start < text.size()) {
            auto end = text.find(u'\0', start);
            if (end == std::u16string::npos) {
                end = text.size();
            }
            if (end == start) {
                break;  // the list's final NUL
            }
            strings.push_back(Utf8(text.substr(start, end - start)));
            start = end + 1;
        }
        return JsonTexts(strings);
    }
    std::string hex = "\"";
    for (std::byte b : v.data) {
        char buffer[4];
        std::snprintf(buffer, sizeof buffer, "%02x", std::to_integer<unsigned>(b));
        hex += buffer;
    }
    return hex + "\"";
}

std::string DisplayName(const std::u16string& name) {
    return name.empty() ? "@" : Utf8(name);
}

// The value's members; `key` first when given.
JsonObject JsonValue(const RegistryValue& v, const std::string& key = {}) {
    JsonObject out;
    if (!key.empty()) {
        out.Text("key", key);
    }
    out.Text("name", Utf8(v.name))
        .Text("type", regtext::TypeName(v.type))
        .Number("typeNumber", v.type)
        .Text("data", Utf8(regtext::FormatData(v.type, v.data)))
        .Raw("value", JsonContent(v));
    return out;
}

bool ParseKey(const std::string& command, HKEY* root, std::u16string* subKey) {
    std::string why;
    if (!regtext::SplitKeyPath(Utf16(Options().key), root, subKey, &why)) {
        Fail("reg " + command, Options().key + ": " + why);
        return false;
    }
    return true;
}

std::u16string ValueName(const std::string& name) {
    return name == "@" ? std::u16string() : Utf16(name);
}

std::string FullKeyName(HKEY root, const std::u16string& subKey) {
    std::string name = root == HKEY_CLASSES_ROOT ? "HKEY_CLASSES_ROOT" : "HKEY_LOCAL_MACHINE";
    return subKey.empty() ? name : name + "\\" + Utf8(subKey);
}

void RunGet() {
    const RegOptions& o = Options();
    HKEY root = nullptr;
    std::u16string subKey;
    if (!ParseKey("get", &root, &subKey)) {
        return;
    }
    UniqueKey key;
    if (DWORD error = RegOpenKeyExW(root, subKey, 0, KEY_READ, &key); error != ERROR_SUCCESS) {
        Fail("reg get", o.key, error);
        return;
    }
    const std::string keyName = FullKeyName(root, subKey);
    if (!o.value.empty()) {
        RegistryValue v;
        if (DWORD error = RegGetValue(key.get(), ValueName(o.value), &v); error != ERROR_SUCCESS) {
            Fail("reg get", o.key + " " + o.value, error);
            return;
        }
        v.name = ValueName(o.value);
        if (o.json) {
            std::cout << JsonValue(v, keyName).str() << "\n";
        } else {
            std::cout << Utf8(regtext::FormatData(v.type, v.data)) << "\n";
        }
        return;
    }
    std::vector<RegistryValue> values;
    std::vector<std::u16string> subKeys;
    DWORD error = RegEnumValues(key.get(), &values);
    if (error == ERROR_SUCCESS) {
        error = RegEnumSubKeys(key.get(), &subKeys);
    }
    if (error != ERROR_SUCCESS) {
        Fail("reg get", o.key, error);
        return;
    }
    if (o.json) {
        std::vector<std::string> valueJson;
        for (const auto& v : values) {
            valueJson.push_back(JsonValue(v).str());
        }
        std::vector<std::string> keyNames;
        for (const auto& k : subKeys) {
            keyNames.push_back(Utf8(k));
        }
        std::cout << JsonObject()
                         .Text("key", keyName)
                         .Raw("values", JsonArray(valueJson))
                         .Raw("subkeys", JsonTexts(keyNames))
                         .str()
                  << "\n";
        return;
    }
    std::cout << keyName << "\n";
    if (!values.empty()) {
        std::vector<std::vector<std::string>> rows{{"NAME", "TYPE", "DATA"}};
        for (const auto& v : values) {
            rows.push_back({DisplayName(v.name), regtext::TypeName(v.type),
                            Utf8(regtext::FormatData(v.type, v.data))});
        }
        PrintTable(rows);
    }
    for (const auto& name : subKeys) {
        std::cout << "[" << Utf8(name) << "]\n";
    }
}

bool ParseNumber(const std::string& text, std::uint64_t max, std::uint64_t* out) {
    try {
        std::size_t used = 0;
        const std::uint64_t n = std::stoull(text, &used, 0);
        if (used != text.size() || n > max || text.front() == '-') {
            return false;
        }
        *out = n;
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

std::vector<std::byte> LittleEndian(std::uint64_t n, std::size_t size) {
    std::vector<std::byte> out;
    for (std::size_t i = 0; i < size; ++i) {
        out.push_back(static_cast<std::byte>((n >> (8 * i)) & 0xFF));
    }
    return out;
}

bool StartsWithNoCase(const std::string& text, const std::string& prefix) {
    if (text.size() < prefix.size()) {
        return false;
    }
    for (std::size_t i = 0; i < prefix.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(text[i])) != prefix[i]) {
            return false;
        }
    }
    return true;
}

// DATA as the value to store; false with a reason.
bool BuildData(const RegOptions& o, DWORD* type, std::vector<std::byte>* data, std::string* why) {
    const std::string& kind = o.type;
    if (kind == "multi_sz") {
        std::vector<std::u16string> items;
        for (const auto& item : o.data) {
            items.push_back(Utf16(item));
        }
        *type = REG_MULTI_SZ;
        *data = regtext::MultiStringBytes(items);
        return true;
    }
    if (o.data.size() != 1) {
        *why = "expected one DATA argument (several only with --type multi_sz)";
        return false;
    }
    const std::string& text = o.data.front();
    if (kind.empty()) {
        if (text.starts_with('"') || StartsWithNoCase(text, "dword:") ||
            StartsWithNoCase(text, "hex:") || StartsWithNoCase(text, "hex(")) {
            return regtext::ParseData(Utf16(text), type, data, why);
        }
        *type = REG_SZ;
        *data = regtext::StringBytes(Utf16(text), true);
        return true;
    }
    if (kind == "sz" || kind == "expand_sz") {
        *type = kind == "sz" ? REG_SZ : REG_EXPAND_SZ;
        *data = regtext::StringBytes(Utf16(text), true);
        return true;
    }
    if (kind == "dword" || kind == "qword") {
        const bool dword = kind == "dword";
        std::uint64_t n = 0;
        if (!ParseNumber(text, dword ? 0xFFFFFFFFull : ~0ull, &n)) {
            *why = "not a " + kind + " number: " + text;
            return false;
        }
        *type = dword ? REG_DWORD : REG_QWORD;
        *data = LittleEndian(n, dword ? 4 : 8);
        return true;
    }
    if (kind == "binary") {
        return regtext::ParseData(Utf16("hex:" + text), type, data, why);
    }
    *why = "unknown --type " + kind + " (sz, expand_sz, multi_sz, dword, qword, binary)";
    return false;
}

void RunSet() {
    const RegOptions& o = Options();
    HKEY root = nullptr;
    std::u16string subKey;
    if (!ParseKey("set", &root, &subKey)) {
        return;
    }
    DWORD type = REG_NONE;
    std::vector<std::byte> data;
    std::string why;
    if (!BuildData(o, &type, &data, &why)) {
        Fail("reg set", why);
        return;
    }
    UniqueKey key;
    DWORD error = RegCreateKeyExW(root, subKey, 0, KEY_SET_VALUE, &key, nullptr);
    if (error == ERROR_SUCCESS) {
        error = RegSetValueExW(key.get(), ValueName(o.value), type, data.data(),
                               static_cast<DWORD>(data.size()));
    }
    if (error != ERROR_SUCCESS) {
        Fail("reg set", o.key + " " + o.value, error);
        return;
    }
    RegistryValue v{ValueName(o.value), type, data};
    if (o.json) {
        std::cout << JsonValue(v, FullKeyName(root, subKey)).str() << "\n";
    }
}

void RunDelete() {
    const RegOptions& o = Options();
    HKEY root = nullptr;
    std::u16string subKey;
    if (!ParseKey("delete", &root, &subKey)) {
        return;
    }
    DWORD error = ERROR_SUCCESS;
    if (!o.value.empty()) {
        UniqueKey key;
        error = RegOpenKeyExW(root, subKey, 0, KEY_SET_VALUE, &key);
        if (error == ERROR_SUCCESS) {
            error = RegDeleteValueW(key.get(), ValueName(o.value));
        }
    } else if (subKey.empty()) {
        Fail("reg delete", "a root key cannot be deleted");
        return;
    } else {
        error = RegDeleteTreeW(root, subKey);
    }
    if (error != ERROR_SUCCESS) {
        Fail("reg delete", o.key + (o.value.empty() ? "" : " " + o.value), error);
        return;
    }
    if (o.json) {
        std::cout << "{\"deleted\":true}\n";
    }
}

// A file's text: UTF-16LE after its byte-order mark, otherwise UTF-8.
bool DecodeFile(const std::string& bytes, std::u16string* text, std::string* why) {
    if (bytes.size() >= 2 && bytes[0] == '\xFF' && bytes[1] == '\xFE') {
        if (bytes.size() % 2 != 0) {
            *why = "odd length for a UTF-16 file";
            return false;
        }
        text->clear();
        for (std::size_t i = 2; i + 1 < bytes.size(); i += 2) {
            text->push_back(static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) |
                                                  (static_cast<unsigned char>(bytes[i + 1]) << 8)));
        }
        return true;
    }
    if (bytes.size() >= 2 && bytes[0] == '\xFE' && bytes[1] == '\xFF') {
        *why = "big-endian UTF-16 files are not read; use UTF-8 or UTF-16LE";
        return false;
    }
    std::string_view utf8 = bytes;
    if (utf8.starts_with("\xEF\xBB\xBF")) {
        utf8.remove_prefix(3);
    }
    *text = Utf16(utf8);
    return true;
}

void RunImport() {
    const RegOptions& o = Options();
    std::string bytes;
    if (o.file == "-") {
        bytes.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    } else {
        std::ifstream in(o.file, std::ios::binary);
        if (!in) {
            Fail("reg import", o.file + ": cannot be read");
            return;
        }
        bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    std::u16string text;
    std::string why;
    if (!DecodeFile(bytes, &text, &why)) {
        Fail("reg import", o.file + ": " + why);
        return;
    }
    if (RegImportText(text, &why) != ERROR_SUCCESS) {
        Fail("reg import", o.file + ": " + why);
        return;
    }
    if (o.json) {
        std::cout << JsonObject().Text("imported", o.file).str() << "\n";
    }
}

void RunExport() {
    const RegOptions& o = Options();
    HKEY root = nullptr;
    std::u16string subKey;
    if (!ParseKey("export", &root, &subKey)) {
        return;
    }
    std::u16string text;
    if (DWORD error = RegExportText(root, subKey, &text); error != ERROR_SUCCESS) {
        Fail("reg export", o.key, error);
        return;
    }
    if (o.file.empty() || o.file == "-") {
        std::string out = Utf8(text);
        std::string lf;
        for (char c : out) {
            if (c != '\r') {
                lf.push_back(c);
            }
        }
        std::cout << lf;
        return;
    }
    std::ofstream file(o.file, std::ios::binary | std::ios::trunc);
    if (o.utf16) {
        file.write("\xFF\xFE", 2);
        for (char16_t c : text) {
            const char pair[2] = {static_cast<char>(c & 0xFF), static_cast<char>(c >> 8)};
            file.write(pair, 2);
        }
    } else {
        file << Utf8(text);
    }
    if (!file.flush()) {
        Fail("reg export", o.file + ": cannot be written");
    }
}

void InstallRegCommands(CLI::App& app) {
    RegOptions& o = Options();
    auto* reg = app.add_subcommand("reg", "Read and change the registry of the machine");
    reg->require_subcommand(1);
    const char* keyHelp = "Key path: HKLM\\... or HKEY_LOCAL_MACHINE\\... (also HKCR)";

    auto* get = reg->add_subcommand("get", "Show a value, or all values and subkeys of a key");
    get->add_option("key", o.key, keyHelp)->required();
    get->add_option("value", o.value, "Value name (@ for the default value)");
    get->add_flag("--json", o.json, "JSON output");
    get->callback(RunGet);

    auto* set = reg->add_subcommand(
        "set",
        "Set a value; DATA in regedit notation (\"text\", dword:, hex:, hex(N):) or "
        "plain text, or as --type says");
    set->add_option("key", o.key, keyHelp)->required();
    set->add_option("value", o.value, "Value name (@ for the default value)")->required();
    set->add_option("data", o.data, "The data (several strings with --type multi_sz)")->required();
    set->add_option("--type", o.type, "sz, expand_sz, multi_sz, dword, qword or binary");
    set->add_flag("--json", o.json, "JSON output");
    set->callback(RunSet);

    auto* del = reg->add_subcommand("delete", "Delete a value, or a key with its subtree");
    del->add_option("key", o.key, keyHelp)->required();
    del->add_option("value", o.value, "Value name (@ for the default value)");
    del->add_flag("--json", o.json, "JSON output");
    del->callback(RunDelete);

    auto* import = reg->add_subcommand("import", "Apply a .reg file (all of it or nothing)");
    import->add_option("file", o.file, "The file (UTF-8 or UTF-16LE with BOM; - for stdin)")
        ->required();
    import->add_flag("--json", o.json, "JSON output");
    import->callback(RunImport);

    auto* exp = reg->add_subcommand("export", "Write a key and its subtree as a .reg file");
    exp->add_option("key", o.key, keyHelp)->required();
    exp->add_option("file", o.file, "Output file (standard output when absent)");
    exp->add_flag("--utf16", o.utf16, "Write UTF-16LE with a byte-order mark, as regedit does");
    exp->callback(RunExport);
}

const AddCommands reg{&InstallRegCommands};

}  // namespace

}  // namespace ovasctl
