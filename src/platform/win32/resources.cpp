// Module resources on Windows: the string table, the version information and
// named texts come from the resource section of the loaded image, read with
// FindResource / LoadResource and GetFileVersionInfo / VerQueryValue.
//
// Handles are the real module handles (GetModuleHandleW and
// GetModuleFileNameW are with the other module calls, in modules.cpp).
#include "platform/resources.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "win32_api.h"

namespace platform {

namespace {

using win32::FromWide;
using win32::Wide;

::HMODULE Native(HMODULE module) {
    return reinterpret_cast<::HMODULE>(module);
}

HMODULE FromNative(::HMODULE module) {
    return reinterpret_cast<HMODULE>(module);
}

std::u16string FullPath(::HMODULE module) {
    std::u16string path(MAX_PATH, u'\0');
    while (true) {
        const ::DWORD length = ::GetModuleFileNameW(module, win32::WideBuffer(path),
                                                    static_cast<::DWORD>(path.size()));
        if (length == 0) {
            return {};
        }
        if (length < path.size()) {
            path.resize(length);
            return path;
        }
        if (path.size() >= 32768) {
            ::SetLastError(ERROR_FILENAME_EXCED_RANGE);
            return {};
        }
        path.resize(path.size() * 2);  // cut to the buffer: try a larger one
    }
}

// ---- the version resource --------------------------------------------------------

// One node of a VS_VERSIONINFO tree: a length, a value length, a type, a key,
// then (each 32-bit aligned) the value and the children.
struct VersionNode {
    std::u16string key;
    const std::byte* value = nullptr;
    std::size_t valueBytes = 0;  // up to the first child or the node's end
    const std::byte* children = nullptr;
    std::size_t childrenBytes = 0;
    std::size_t totalBytes = 0;  // the node with its padding
};

std::uint16_t Word(const std::byte* p) {
    return static_cast<std::uint16_t>(std::to_integer<unsigned>(p[0]) |
                                      (std::to_integer<unsigned>(p[1]) << 8));
}

std::size_t Align4(std::size_t n) {
    return (n + 3) & ~std::size_t{3};
}

// Reads the node at `p` (32-bit aligned within its block); false for a node
// that does not fit in `available` bytes.
bool ReadNode(const std::byte* p, std::size_t available, VersionNode* node) {
    if (available < 6) {
        return false;
    }
    const std::size_t length = Word(p);
    const std::size_t valueLength = Word(p + 2);
    const bool text = Word(p + 4) == 1;
    if (length < 6 || length > available) {
        return false;
    }
    std::size_t at = 6;
    node->key.clear();
    while (at + 2 <= length && Word(p + at) != 0) {
        node->key.push_back(static_cast<char16_t>(Word(p + at)));
        at += 2;
    }
    at = Align4(at + 2);
    const std::size_t valueBytes = text ? valueLength * 2 : valueLength;
    const std::size_t valueStart = std::min(at, length);
    const std::size_t valueEnd = std::min(valueStart + valueBytes, length);
    const std::size_t childStart = std::min(Align4(valueEnd), length);
    node->value = p + valueStart;
    node->valueBytes = valueLength == 0 ? 0 : childStart - valueStart;
    node->children = p + childStart;
    node->childrenBytes = length - childStart;
    node->totalBytes = std::min(Align4(length), available);
    return true;
}

template <class Visit>
void ForEachChild(const VersionNode& parent, Visit visit) {
    std::size_t offset = 0;
    VersionNode child;
    while (offset < parent.childrenBytes &&
           ReadNode(parent.children + offset, parent.childrenBytes - offset, &child)) {
        visit(child);
        offset += child.totalBytes;
    }
}

bool SameKey(const std::u16string& a, const wchar_t* b) {
    return ::CompareStringOrdinal(Wide(a), static_cast<int>(a.size()), b, -1, TRUE) == CSTR_EQUAL;
}

// A string's text: UTF-16 up to its terminator or the end of its value.
std::u16string NodeText(const VersionNode& node) {
    std::u16string text;
    for (std::size_t at = 0; at + 2 <= node.valueBytes; at += 2) {
        const std::uint16_t c = Word(node.value + at);
        if (c == 0) {
            break;
        }
        text.push_back(static_cast<char16_t>(c));
    }
    return text;
}

// Every "\StringFileInfo\llllcccc\Name" of the block, keyed as the platform
// keeps them (language and code page in lower case).
void ReadStrings(const std::vector<std::byte>& data, VersionBlock* block) {
    VersionNode root;
    if (!ReadNode(data.data(), data.size(), &root)) {
        return;
    }
    ForEachChild(root, [&](const VersionNode& info) {
        if (!SameKey(info.key, L"StringFileInfo")) {
            return;
        }
        ForEachChild(info, [&](const VersionNode& table) {
            std::u16string language = table.key;
            for (auto& c : language) {
                if (c >= u'A' && c <= u'F') {
                    c = static_cast<char16_t>(c - u'A' + u'a');
                }
            }
            ForEachChild(table, [&](const VersionNode& entry) {
                block->strings[language + u"\\" + entry.key] = NodeText(entry);
            });
        });
    });
}

bool ReadVersionBlock(const std::vector<std::byte>& data, VersionBlock* block) {
    VersionBlock result;
    void* value = nullptr;
    ::UINT length = 0;
    if (::VerQueryValueW(data.data(), L"\\", &value, &length) && value != nullptr &&
        length >= sizeof(::VS_FIXEDFILEINFO)) {
        static_assert(sizeof(::VS_FIXEDFILEINFO) == sizeof(VS_FIXEDFILEINFO));
        VS_FIXEDFILEINFO fixed;
        std::memcpy(&fixed, value, sizeof fixed);
        result.fixed = fixed;
    }
    if (::VerQueryValueW(data.data(), L"\\VarFileInfo\\Translation", &value, &length) &&
        value != nullptr) {
        const auto* bytes = static_cast<const std::byte*>(value);
        for (::UINT at = 0; at + 4 <= length; at += 4) {
            result.translations.push_back({Word(bytes + at), Word(bytes + at + 2)});
        }
    }
    ReadStrings(data, &result);
    *block = std::move(result);
    return true;
}

}  // namespace

// The data a module brings along is what the embedded platform reads; here
// the resource section of the image is read instead. The module's handle is
// the loaded module of that file name, else the image holding the data.
HMODULE RegisterModuleResources(const ModuleResources* resources) {
    if (resources == nullptr || resources->fileName.empty()) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    ::HMODULE module = ::GetModuleHandleW(Wide(resources->fileName));
    if (module == nullptr &&
        !::GetModuleHandleExW(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            reinterpret_cast<const wchar_t*>(resources), &module)) {
        ::SetLastError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    ::SetLastError(ERROR_SUCCESS);
    return FromNative(module);
}

// Nothing to undo: the image's resources go with the image.
void UnregisterModuleResources(const ModuleResources* /*resources*/) {}

// Strings are kept in blocks of sixteen: block id / 16 + 1 holds, for each of
// its ids in turn, a length and that many UTF-16 characters.
int LoadStringW(HMODULE module, unsigned id, std::u16string* text) {
    try {
        const ::HMODULE native = Native(module);
        const ::HRSRC found = ::FindResourceW(native, MAKEINTRESOURCEW((id >> 4) + 1), RT_STRING);
        if (found == nullptr) {
            const ::DWORD error = ::GetLastError();
            // No string table at all is one more way for the id to be absent.
            ::SetLastError(error == ERROR_RESOURCE_TYPE_NOT_FOUND ? ERROR_RESOURCE_NAME_NOT_FOUND
                                                                  : error);
            return 0;
        }
        const ::HGLOBAL loaded = ::LoadResource(native, found);
        const auto* data = static_cast<const std::byte*>(::LockResource(loaded));
        const ::DWORD size = ::SizeofResource(native, found);
        if (data == nullptr) {
            return 0;
        }
        std::size_t at = 0;
        for (unsigned index = 0; index < 16 && at + 2 <= size; ++index) {
            const std::size_t length = Word(data + at);
            at += 2;
            if (index == (id & 15)) {
                if (length == 0 || at + length * 2 > size) {
                    break;
                }
                if (text != nullptr) {
                    text->assign(length, u'\0');
                    std::memcpy(text->data(), data + at, length * 2);
                }
                ::SetLastError(ERROR_SUCCESS);
                return static_cast<int>(length);
            }
            at += length * 2;
        }
        ::SetLastError(ERROR_RESOURCE_NAME_NOT_FOUND);
        return 0;
    } catch (const std::exception&) {
        ::SetLastError(ERROR_OUTOFMEMORY);
        return 0;
    }
}

bool GetFileVersionInfoW(std::u16string_view fileName, VersionBlock* block) {
    try {
        // A loaded module is read from the file it was loaded from, wherever
        // the search for a bare file name would lead.
        std::u16string path(fileName);
        if (const ::HMODULE loaded = ::GetModuleHandleW(Wide(path)); loaded != nullptr) {
            if (std::u16string full = FullPath(loaded); !full.empty()) {
                path = std::move(full);
            }
        }
        ::DWORD ignored = 0;
        const ::DWORD size = ::GetFileVersionInfoSizeW(Wide(path), &ignored);
        if (size == 0) {
            // A file without a version resource reads as "no such resource
            // type" on Windows; Wine says "no resource data" instead.
            if (::GetLastError() == ERROR_RESOURCE_DATA_NOT_FOUND) {
                ::SetLastError(ERROR_RESOURCE_TYPE_NOT_FOUND);
            }
            return false;  // otherwise the last error as Windows left it
        }
        std::vector<std::byte> data(size);
        if (!::GetFileVersionInfoW(Wide(path), 0, size, data.data())) {
            return false;
        }
        if (block != nullptr) {
            ReadVersionBlock(data, block);
        }
        ::SetLastError(ERROR_SUCCESS);
        return true;
    } catch (const std::exception&) {
        ::SetLastError(ERROR_OUTOFMEMORY);
        return false;
    }
}

bool LoadTextResource(HMODULE module, std::u16string_view type, std::u16string_view name,
                      std::string* text) {
    try {
        const ::HMODULE native = Native(module);
        // By text, as the platform names them ("#12" is Windows' spelling
        // of a number).
        const std::u16string typeName(type);
        const std::u16string resourceName(name);
        const ::HRSRC found = ::FindResourceW(native, Wide(resourceName), Wide(typeName));
        if (found == nullptr) {
            return false;  // ERROR_RESOURCE_TYPE_NOT_FOUND or ..._NAME_NOT_FOUND
        }
        const ::HGLOBAL loaded = ::LoadResource(native, found);
        const void* data = ::LockResource(loaded);
        const ::DWORD size = ::SizeofResource(native, found);
        if (data == nullptr) {
            return false;
        }
        if (text != nullptr) {
            text->assign(static_cast<const char*>(data), size);
        }
        ::SetLastError(ERROR_SUCCESS);
        return true;
    } catch (const std::exception&) {
        ::SetLastError(ERROR_OUTOFMEMORY);
        return false;
    }
}

}  // namespace platform
