// COM on the embedded machine: BSTRs and variants in the process's own heap,
// type-library registration written from the library's description, and
// in-process servers found through the registry and loaded with dlopen.
#include "platform/com.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "platform/registry.h"
#include "platform/registry_text.h"
#include "platform/text.h"

namespace platform {

// ---- BSTR: a 32-bit byte count, then the text and a terminating zero ----------

BSTR SysAllocStringLen(const char16_t* text, UINT length) {
    if (length > 0x3FFFFFF0u) {
        return nullptr;
    }
    const std::size_t bytes = sizeof(std::uint32_t) + (std::size_t{length} + 1) * 2;
    auto* block = static_cast<unsigned char*>(std::malloc(bytes));
    if (block == nullptr) {
        return nullptr;
    }
    const std::uint32_t byteCount = length * 2;
    std::memcpy(block, &byteCount, sizeof byteCount);
    auto* chars = reinterpret_cast<char16_t*>(block + sizeof byteCount);
    if (text != nullptr) {
        std::memcpy(chars, text, std::size_t{length} * 2);
    } else {
        std::memset(chars, 0, std::size_t{length} * 2);
    }
    chars[length] = 0;
    return chars;
}

BSTR SysAllocString(const char16_t* text) {
    if (text == nullptr) {
        return nullptr;
    }
    return SysAllocStringLen(text, static_cast<UINT>(std::char_traits<char16_t>::length(text)));
}

void SysFreeString(BSTR text) noexcept {
    if (text != nullptr) {
        std::free(reinterpret_cast<unsigned char*>(text) - sizeof(std::uint32_t));
    }
}

UINT SysStringLen(BSTR text) noexcept {
    if (text == nullptr) {
        return 0;
    }
    std::uint32_t byteCount = 0;
    std::memcpy(&byteCount, reinterpret_cast<unsigned char*>(text) - sizeof byteCount,
                sizeof byteCount);
    return byteCount / 2;
}

HRESULT VariantClear(VARIANT* v) noexcept {
    if (v == nullptr) {
        return E_INVALIDARG;
    }
    if ((v->vt & VT_BYREF) == 0) {
        if ((v->vt & VT_ARRAY) != 0) {
            if (v->parray != nullptr) {
                SafeArrayDestroy(v->parray);
            }
            VariantInit(v);
            return S_OK;
        }
        switch (v->vt) {
            case VT_BSTR:
                SysFreeString(v->bstrVal);
                break;
            case VT_DISPATCH:
            case VT_UNKNOWN:
                if (v->punkVal != nullptr) {
                    v->punkVal->Release();
                }
                break;
            case VT_EMPTY:
            case VT_NULL:
            case VT_I2:
            case VT_I4:
            case VT_R8:
            case VT_ERROR:
            case VT_BOOL:
            case VT_UI1:
            case VT_HRESULT:
                break;
            default:
                return DISP_E_BADVARTYPE;
        }
    }
    VariantInit(v);
    return S_OK;
}

// ---- type libraries ----------------------------------------------------------------

HRESULT LoadModuleTypeInfo(HMODULE /*module*/, const IID& /*iid*/, ITypeInfo** info) {
    if (info != nullptr) {
        *info = nullptr;
    }
    return TYPE_E_CANTLOADLIBRARY;
}

void ReleaseTypeInfo(ITypeInfo* /*info*/) noexcept {}

namespace {

constexpr char16_t kDispatchProxy[] = u"{00020424-0000-0000-C000-000000000046}";

std::u16string VersionText(const TypeLibDescription& d) {
    char text[16];
    std::snprintf(text, sizeof text, "%x.%x", d.major, d.minor);
    return ToUtf16(text);
}

LSTATUS SetDefault(HKEY parent, const std::u16string& path, std::u16string_view text) {
    UniqueKey key;
    LSTATUS status = RegCreateKeyExW(parent, path, 0, KEY_ALL_ACCESS, &key, nullptr);
    if (status != ERROR_SUCCESS) {
        return status;
    }
    const std::vector<std::byte> data = regtext::StringBytes(text, true);
    return RegSetValueExW(key.get(), u"", REG_SZ, data.data(), static_cast<DWORD>(data.size()));
}

}  // namespace

HRESULT RegisterTypeLibrary(HMODULE module, const TypeLibDescription& d,
                            std::u16string_view helpDirectory) {
    const std::u16string path = GetModuleFileNameW(module);
    if (path.empty()) {
        return TYPE_E_CANTLOADLIBRARY;
    }
    const std::u16string lib = u"TypeLib\\" + GuidToString(d.libid) + u"\\" + VersionText(d);
    const std::u16string libid = GuidToString(d.libid);
    struct Entry {
        std::u16string path;
        std::u16string text;
    };
    std::vector<Entry> entries = {
        {lib, d.help.empty() ? d.name : d.help},
        {lib + u"\\FLAGS", u"0"},
        {lib + u"\\HELPDIR", std::u16string(helpDirectory)},
        {lib + u"\\0\\win64", path},
    };
    for (const InterfaceDescription& i : d.interfaces) {
        if (!i.dual) {
            continue;
        }
        const std::u16string key = u"Interface\\" + GuidToString(i.iid);
        entries.push_back({key, i.name});
        entries.push_back({key + u"\\ProxyStubClsid", kDispatchProxy});
        entries.push_back({key + u"\\ProxyStubClsid32", kDispatchProxy});
        entries.push_back({key + u"\\TypeLib", libid});
    }
    for (const Entry& e : entries) {
        if (SetDefault(HKEY_CLASSES_ROOT, e.path, e.text) != ERROR_SUCCESS) {
            return TYPE_E_REGISTRYACCESS;
        }
    }
    for (const InterfaceDescription& i : d.interfaces) {
        if (!i.dual) {
            continue;
        }
        UniqueKey key;
        if (RegOpenKeyExW(HKEY_CLASSES_ROOT, u"Interface\\" + GuidToString(i.iid) + u"\\TypeLib", 0,
                          KEY_ALL_ACCESS, &key) != ERROR_SUCCESS) {
            return TYPE_E_REGISTRYACCESS;
        }
        const std::vector<std::byte> version = regtext::StringBytes(VersionText(d), true);
        if (RegSetValueExW(key.get(), u"Version", REG_SZ, version.data(),
                           static_cast<DWORD>(version.size())) != ERROR_SUCCESS) {
            return TYPE_E_REGISTRYACCESS;
        }
    }
    return S_OK;
}

HRESULT UnregisterTypeLibrary(const TypeLibDescription& d) {
    const std::u16string libKey = u"TypeLib\\" + GuidToString(d.libid);
    UniqueKey version;
    if (RegOpenKeyExW(HKEY_CLASSES_ROOT, libKey + u"\\" + VersionText(d), 0, KEY_READ, &version) !=
        ERROR_SUCCESS) {
        return TYPE_E_REGISTRYACCESS;
    }
    version.reset();
    for (const InterfaceDescription& i : d.interfaces) {
        if (i.dual) {
            const LSTATUS s =
                RegDeleteTreeW(HKEY_CLASSES_ROOT, u"Interface\\" + GuidToString(i.iid));
            if (s != ERROR_SUCCESS && s != static_cast<LSTATUS>(ERROR_FILE_NOT_FOUND)) {
                return TYPE_E_REGISTRYACCESS;
            }
        }
    }
    if (RegDeleteTreeW(HKEY_CLASSES_ROOT, libKey + u"\\" + VersionText(d)) != ERROR_SUCCESS) {
        return TYPE_E_REGISTRYACCESS;
    }
    // The library's key goes with its last version.
    UniqueKey lib;
    std::vector<std::u16string> versions;
    if (RegOpenKeyExW(HKEY_CLASSES_ROOT, libKey, 0, KEY_READ, &lib) == ERROR_SUCCESS &&
        RegEnumSubKeys(lib.get(), &versions) == ERROR_SUCCESS && versions.empty()) {
        lib.reset();
        RegDeleteKeyW(HKEY_CLASSES_ROOT, libKey);
    }
    return S_OK;
}

// ---- the client side -----------------------------------------------------------------

namespace {
thread_local int t_initialised = 0;

// The host library a registered module path stands for: "<dir>/X.dll" is
// "<dir>/libX.so" or "<dir>/X.so"; a drive path lies in the machine root.
std::string HostLibrary(const std::u16string& modulePath) {
    std::filesystem::path path(HostPath(modulePath));
    const std::string stem = path.stem().string();
    const std::filesystem::path dir = path.parent_path();
    for (const std::string& candidate : {"lib" + stem + ".so", stem + ".so"}) {
        std::error_code ec;
        if (std::filesystem::exists(dir / candidate, ec)) {
            return (dir / candidate).string();
        }
    }
    return path.string();
}

}  // namespace

HRESULT CoInitializeEx(DWORD /*flags*/) {
    return t_initialised++ == 0 ? S_OK : S_FALSE;
}

void CoUninitialize() noexcept {
    if (t_initialised > 0) {
        --t_initialised;
    }
}

HRESULT CLSIDFromProgID(std::u16string_view progId, CLSID* clsid) {
    if (clsid == nullptr) {
        return E_INVALIDARG;
    }
    UniqueKey key;
    RegistryValue value;
    if (progId.empty() ||
        RegOpenKeyExW(HKEY_CLASSES_ROOT, std::u16string(progId) + u"\\CLSID", 0, KEY_READ, &key) !=
            ERROR_SUCCESS ||
        RegGetValue(key.get(), u"", &value) != ERROR_SUCCESS || value.type != REG_SZ) {
        return CO_E_CLASSSTRING;
    }
    std::u16string text(value.data.size() / 2, u'\0');
    std::memcpy(text.data(), value.data.data(), text.size() * 2);
    text = text.c_str();
    return GuidFromString(text, clsid) ? S_OK : CO_E_CLASSSTRING;
}

HRESULT CoCreateInstance(const CLSID& clsid, IUnknown* outer, DWORD /*context*/, const IID& iid,
                         void** object) {
    if (object == nullptr) {
        return E_POINTER;
    }
    *object = nullptr;
    if (t_initialised == 0) {
        return CO_E_NOTINITIALIZED;
    }
    UniqueKey key;
    RegistryValue value;
    if (RegOpenKeyExW(HKEY_CLASSES_ROOT, u"CLSID\\" + GuidToString(clsid) + u"\\InprocServer32", 0,
                      KEY_READ, &key) != ERROR_SUCCESS ||
        RegGetValue(key.get(), u"", &value) != ERROR_SUCCESS || value.data.size() < 4) {
        return REGDB_E_CLASSNOTREG;
    }
    std::u16string path(value.data.size() / 2, u'\0');
    std::memcpy(path.data(), value.data.data(), path.size() * 2);
    path = path.c_str();
    // Loaded for the rest of the process's life, as an in-process server
    // stays until the client frees unused libraries.
    void* library = dlopen(HostLibrary(path).c_str(), RTLD_NOW);
    if (library == nullptr) {
        return HResultFromWin32(ERROR_MOD_NOT_FOUND);
    }
    using GetClassObject = std::int32_t (*)(const void*, const void*, void**);
    auto* entry = reinterpret_cast<GetClassObject>(dlsym(library, "DllGetClassObject"));
    if (entry == nullptr) {
        return CO_E_ERRORINDLL;
    }
    IClassFactory* factory = nullptr;
    HRESULT hr = entry(&clsid, &IID_IClassFactory, reinterpret_cast<void**>(&factory));
    if (FAILED(hr)) {
        return hr;
    }
    if (factory == nullptr) {
        return E_UNEXPECTED;
    }
    hr = factory->CreateInstance(outer, iid, object);
    factory->Release();
    return hr;
}

}  // namespace platform
