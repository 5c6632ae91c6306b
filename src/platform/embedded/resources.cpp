// Module resources on the embedded platform: modules register their resource
// data under their Windows file name; look-ups find it by that name.
#include "platform/resources.h"
#include "platform/text.h"

#include <dlfcn.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <vector>

namespace platform {

struct ModuleObject {
    const ModuleResources* resources = nullptr;  // null once unregistered
};

namespace {

bool SameName(std::u16string_view a, std::u16string_view b) {
    return NamesEqual(a, b);
}

// The file-name part of a module name; ".dll" is implied when the name has
// no extension, as the module look-up does on Windows.
std::u16string BaseName(std::u16string_view name) {
    const std::size_t slash = name.find_last_of(u"\\/");
    std::u16string base(slash == std::u16string_view::npos ? name : name.substr(slash + 1));
    if (base.find(u'.') == std::u16string::npos) {
        base += u".dll";
    }
    return base;
}

struct Table {
    std::mutex mutex;
    // Records are never freed, so a handle stays a valid pointer for the
    // life of the process even after its module is unregistered.
    std::vector<std::unique_ptr<ModuleObject>> modules;
};

Table& table() {
    static auto* t = new Table;
    return *t;
}

// Caller holds the table's lock.
ModuleObject* FindByName(Table& t, std::u16string_view name) {
    const std::u16string base = BaseName(name);
    for (auto& m : t.modules) {
        if (m->resources != nullptr && SameName(m->resources->fileName, base)) {
            return m.get();
        }
    }
    return nullptr;
}

// The resources behind a handle, or null (with the last error set).
const ModuleResources* Resolve(Table& t, HMODULE module) {
    for (auto& m : t.modules) {
        if (m.get() == module && m->resources != nullptr) {
            return m->resources;
        }
    }
    SetLastError(ERROR_RESOURCE_DATA_NOT_FOUND);
    return nullptr;
}

std::u16string ToUtf16(const std::string& text) {
    std::u16string out;
    for (std::size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        int extra = c < 0x80 ? 0 : (c & 0xE0) == 0xC0 ? 1 : (c & 0xF0) == 0xE0 ? 2 : 3;
        char32_t cp = extra == 0   ? c
                      : extra == 1 ? (c & 0x1Fu)
                      : extra == 2 ? (c & 0x0Fu)
                                   : (c & 0x07u);
        ++i;
        for (; extra > 0 && i < text.size(); --extra, ++i) {
            cp = (cp << 6) | (static_cast<unsigned char>(text[i]) & 0x3Fu);
        }
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(cp));
        }
    }
    return out;
}

// Directory of the platform library, where the module and the programs are.
std::u16string ModuleDirectory() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&GetModuleHandleW), &info) != 0 &&
        info.dli_fname != nullptr) {
        std::error_code ec;
        auto path = std::filesystem::weakly_canonical(info.dli_fname, ec);
        if (!ec) {
            return ToUtf16(path.parent_path().string());
        }
    }
    return u"";
}

}  // namespace

HMODULE RegisterModuleResources(const ModuleResources* resources) {
    if (resources == nullptr || resources->fileName.empty()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    Table& t = table();
    std::lock_guard lock(t.mutex);
    for (auto& m : t.modules) {
        if (m->resources == resources) {
            SetLastError(ERROR_SUCCESS);
            return m.get();  // registered already: the same module
        }
    }
    if (ModuleObject* loaded = FindByName(t, resources->fileName)) {
        // A module of that name is loaded already: like a second load on
        // Windows, this yields the loaded module.
        SetLastError(ERROR_SUCCESS);
        return loaded;
    }
    t.modules.push_back(std::make_unique<ModuleObject>());
    t.modules.back()->resources = resources;
    SetLastError(ERROR_SUCCESS);
    return t.modules.back().get();
}

void UnregisterModuleResources(const ModuleResources* resources) {
    Table& t = table();
    std::lock_guard lock(t.mutex);
    for (auto& m : t.modules) {
        if (m->resources == resources) {
            m->resources = nullptr;
        }
    }
}

bool DisableThreadLibraryCalls(HMODULE /*module*/) {
    SetLastError(ERROR_SUCCESS);
    return true;
}

HMODULE GetModuleHandleW(std::u16string_view fileName) {
    Table& t = table();
    std::lock_guard lock(t.mutex);
    if (ModuleObject* m = FindByName(t, fileName)) {
        SetLastError(ERROR_SUCCESS);
        return m;
    }
    SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
}

std::u16string GetModuleFileNameW(HMODULE module) {
    std::u16string name;
    {
        Table& t = table();
        std::lock_guard lock(t.mutex);
        const ModuleResources* r = Resolve(t, module);
        if (r == nullptr) {
            SetLastError(ERROR_MOD_NOT_FOUND);
            return {};
        }
        name = r->fileName;
    }
    std::u16string dir = ModuleDirectory();
    SetLastError(ERROR_SUCCESS);
    return dir.empty() ? name : dir + u"/" + name;
}

int LoadStringW(HMODULE module, unsigned id, std::u16string* text) {
    Table& t = table();
    std::lock_guard lock(t.mutex);
    const ModuleResources* r = Resolve(t, module);
    if (r == nullptr) {
        return 0;
    }
    const auto it = r->strings.find(id);
    if (it == r->strings.end() || it->second.empty()) {
        SetLastError(ERROR_RESOURCE_NAME_NOT_FOUND);
        return 0;
    }
    if (text != nullptr) {
        *text = it->second;
    }
    SetLastError(ERROR_SUCCESS);
    return static_cast<int>(it->second.size());
}

bool GetFileVersionInfoW(std::u16string_view fileName, VersionBlock* block) {
    Table& t = table();
    std::lock_guard lock(t.mutex);
    const ModuleObject* m = FindByName(t, fileName);
    if (m == nullptr) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return false;
    }
    const VersionBlock& v = m->resources->version;
    if (!v.fixed && v.translations.empty() && v.strings.empty()) {
        SetLastError(ERROR_RESOURCE_TYPE_NOT_FOUND);
        return false;
    }
    if (block != nullptr) {
        *block = v;
    }
    SetLastError(ERROR_SUCCESS);
    return true;
}

bool LoadTextResource(HMODULE module, std::u16string_view type, std::u16string_view name,
                      std::string* text) {
    Table& t = table();
    std::lock_guard lock(t.mutex);
    const ModuleResources* r = Resolve(t, module);
    if (r == nullptr) {
        return false;
    }
    bool typeSeen = false;
    for (const auto& [key, content] : r->texts) {
        if (!SameName(key.first, type)) {
            continue;
        }
        typeSeen = true;
        if (SameName(key.second, name)) {
            if (text != nullptr) {
                *text = content;
            }
            SetLastError(ERROR_SUCCESS);
            return true;
        }
    }
    SetLastError(typeSeen ? ERROR_RESOURCE_NAME_NOT_FOUND : ERROR_RESOURCE_TYPE_NOT_FOUND);
    return false;
}

}  // namespace platform
