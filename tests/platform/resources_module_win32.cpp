// On Windows a module's resources are in its image: the test program is
// copied under the module's name, given the resources with UpdateResource
// (string blocks, a VS_VERSIONINFO tree and named texts, as a resource
// compiler lays them out) and loaded.
#include <cstring>
#include <cwctype>
#include <filesystem>
#include <map>
#include <vector>

#include "ovtest.h"
#include "resources_test_support.h"

// After the platform's headers, whose names <windows.h> has macros for.
#include <windows.h>

namespace restest {

namespace {

using Bytes = std::vector<std::byte>;

void PutWord(Bytes* out, unsigned value) {
    out->push_back(static_cast<std::byte>(value & 0xFF));
    out->push_back(static_cast<std::byte>((value >> 8) & 0xFF));
}

void PutText(Bytes* out, std::u16string_view text) {
    for (char16_t c : text) {
        PutWord(out, c);
    }
}

void Pad(Bytes* out) {
    while (out->size() % 4 != 0) {
        out->push_back(std::byte{0});
    }
}

// One VS_VERSIONINFO node: length, value length (characters for text,
// bytes otherwise), type, key, then the value and the children, each
// starting on a 32-bit boundary.
Bytes Node(std::u16string_view key, const Bytes& value, unsigned valueLength, bool text,
           const std::vector<Bytes>& children) {
    Bytes out;
    PutWord(&out, 0);
    PutWord(&out, valueLength);
    PutWord(&out, text ? 1 : 0);
    PutText(&out, key);
    PutWord(&out, 0);
    Pad(&out);
    out.insert(out.end(), value.begin(), value.end());
    for (const auto& child : children) {
        Pad(&out);
        out.insert(out.end(), child.begin(), child.end());
    }
    const auto length = out.size();
    out[0] = static_cast<std::byte>(length & 0xFF);
    out[1] = static_cast<std::byte>(length >> 8);
    return out;
}

Bytes TextValue(std::u16string_view text) {
    Bytes out;
    PutText(&out, text);
    PutWord(&out, 0);
    return out;
}

Bytes VersionResource(const platform::VersionBlock& block) {
    Bytes fixed;
    if (block.fixed) {
        fixed.resize(sizeof(platform::VS_FIXEDFILEINFO));
        std::memcpy(fixed.data(), &*block.fixed, fixed.size());
    }
    // "llllcccc\Name" -> one string table per "llllcccc".
    std::map<std::u16string, std::vector<Bytes>> tables;
    for (const auto& [key, text] : block.strings) {
        const auto slash = key.find(u'\\');
        tables[key.substr(0, slash)].push_back(Node(key.substr(slash + 1), TextValue(text),
                                                    static_cast<unsigned>(text.size() + 1), true,
                                                    {}));
    }
    std::vector<Bytes> stringTables;
    for (const auto& [language, strings] : tables) {
        stringTables.push_back(Node(language, {}, 0, true, strings));
    }
    std::vector<Bytes> children;
    if (!stringTables.empty()) {
        children.push_back(Node(u"StringFileInfo", {}, 0, true, stringTables));
    }
    if (!block.translations.empty()) {
        Bytes pairs;
        for (const auto& t : block.translations) {
            PutWord(&pairs, t.language);
            PutWord(&pairs, t.codePage);
        }
        children.push_back(
            Node(u"VarFileInfo", {}, 0, true,
                 {Node(u"Translation", pairs, static_cast<unsigned>(pairs.size()), false, {})}));
    }
    return Node(u"VS_VERSION_INFO", fixed, static_cast<unsigned>(fixed.size()), false, children);
}

// The string table in blocks of sixteen ids.
std::map<unsigned, Bytes> StringBlocks(const std::map<unsigned, std::u16string>& strings) {
    std::map<unsigned, std::map<unsigned, std::u16string>> byBlock;
    for (const auto& [id, text] : strings) {
        byBlock[id / 16 + 1][id % 16] = text;
    }
    std::map<unsigned, Bytes> blocks;
    for (const auto& [block, texts] : byBlock) {
        Bytes out;
        for (unsigned index = 0; index < 16; ++index) {
            const auto it = texts.find(index);
            const std::u16string text = it == texts.end() ? u"" : it->second;
            PutWord(&out, static_cast<unsigned>(text.size()));
            PutText(&out, text);
        }
        blocks[block] = std::move(out);
    }
    return blocks;
}

// Resource names are kept in upper case, as resource compilers write them.
std::wstring Upper(const std::u16string& text) {
    std::wstring out(text.begin(), text.end());
    for (auto& c : out) {
        c = static_cast<wchar_t>(std::towupper(c));
    }
    return out;
}

constexpr WORD kNeutral = MAKELANGID(LANG_NEUTRAL, SUBLANG_NEUTRAL);

bool Update(HANDLE update, const wchar_t* type, const wchar_t* name, const Bytes& data) {
    return UpdateResourceW(update, type, name, kNeutral, const_cast<std::byte*>(data.data()),
                           static_cast<DWORD>(data.size())) != FALSE;
}

}  // namespace

TestModule::TestModule(const platform::ModuleResources* data) : data_(data) {
    const std::filesystem::path dir = std::filesystem::u8path(ovtest::MakeTempDir("ovsvc-res-"));
    const std::filesystem::path image =
        dir / std::filesystem::path(std::wstring(data->fileName.begin(), data->fileName.end()));
    const std::u8string utf8 = image.u8string();
    path_.assign(utf8.begin(), utf8.end());
    std::error_code ec;
    std::filesystem::copy_file(std::filesystem::u8path(ovtest::SelfPath()), image, ec);
    if (ec) {
        why_ = "copying the test program: " + ec.message();
        return;
    }
    HANDLE update = BeginUpdateResourceW(image.c_str(), TRUE);
    if (update == nullptr) {
        why_ = "BeginUpdateResource: error " + std::to_string(GetLastError());
        return;
    }
    bool ok = true;
    for (const auto& [block, bytes] : StringBlocks(data->strings)) {
        ok = ok && Update(update, MAKEINTRESOURCEW(6), MAKEINTRESOURCEW(block), bytes);
    }
    const platform::VersionBlock& version = data->version;
    if (version.fixed || !version.translations.empty() || !version.strings.empty()) {
        ok = ok &&
             Update(update, MAKEINTRESOURCEW(16), MAKEINTRESOURCEW(1), VersionResource(version));
    }
    for (const auto& [key, content] : data->texts) {
        const Bytes bytes(reinterpret_cast<const std::byte*>(content.data()),
                          reinterpret_cast<const std::byte*>(content.data()) + content.size());
        ok = ok && Update(update, Upper(key.first).c_str(), Upper(key.second).c_str(), bytes);
    }
    if (!ok) {
        why_ = "UpdateResource: error " + std::to_string(GetLastError());
        EndUpdateResourceW(update, TRUE);
        return;
    }
    if (!EndUpdateResourceW(update, FALSE)) {
        why_ = "EndUpdateResource: error " + std::to_string(GetLastError());
        return;
    }
    handle_ = reinterpret_cast<platform::HMODULE>(LoadLibraryW(image.c_str()));
    if (handle_ == nullptr) {
        why_ = "LoadLibrary: error " + std::to_string(GetLastError());
    }
}

TestModule::~TestModule() {
    if (handle_ != nullptr) {
        FreeLibrary(reinterpret_cast<HMODULE>(handle_));
    }
    std::error_code ec;
    const std::filesystem::path image = std::filesystem::u8path(path_);
    std::filesystem::remove_all(image.parent_path(), ec);
}

}  // namespace restest
