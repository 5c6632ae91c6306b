// COM on Windows: BSTRs and variants from oleaut32, type libraries loaded
// and registered by the system, objects created by COM itself.
#include "platform/com.h"

#include <cstring>
#include <iterator>
#include <string>

#include "win32_api.h"

// clang-format off
#include <ole2.h>
#include <oleauto.h>
// clang-format on

namespace platform {

namespace {
::VARIANT* Native(VARIANT* v) {
    static_assert(sizeof(VARIANT) == sizeof(::VARIANT));
    return reinterpret_cast<::VARIANT*>(v);
}
const ::GUID& Native(const GUID& g) {
    static_assert(sizeof(GUID) == sizeof(::GUID));
    return reinterpret_cast<const ::GUID&>(g);
}
}  // namespace

BSTR SysAllocString(const char16_t* text) {
    return reinterpret_cast<BSTR>(::SysAllocString(reinterpret_cast<const wchar_t*>(text)));
}

BSTR SysAllocStringLen(const char16_t* text, UINT length) {
    return reinterpret_cast<BSTR>(
        ::SysAllocStringLen(reinterpret_cast<const wchar_t*>(text), length));
}

void SysFreeString(BSTR text) noexcept {
    ::SysFreeString(reinterpret_cast<::BSTR>(text));
}

UINT SysStringLen(BSTR text) noexcept {
    return ::SysStringLen(reinterpret_cast<::BSTR>(text));
}

HRESULT VariantClear(VARIANT* v) noexcept {
    if (v == nullptr) {
        return E_INVALIDARG;
    }
    return ::VariantClear(Native(v));
}

// ---- SAFEARRAY: oleaut32's, with the same layout ----------------------------------

namespace {
::SAFEARRAY* Native(SAFEARRAY* a) {
    static_assert(sizeof(SAFEARRAY) == sizeof(::SAFEARRAY));
    return reinterpret_cast<::SAFEARRAY*>(a);
}
}  // namespace

SAFEARRAY* SafeArrayCreate(VARTYPE type, UINT dimensions, const SAFEARRAYBOUND* bounds) {
    static_assert(sizeof(SAFEARRAYBOUND) == sizeof(::SAFEARRAYBOUND));
    return reinterpret_cast<SAFEARRAY*>(::SafeArrayCreate(
        type, dimensions,
        const_cast<::SAFEARRAYBOUND*>(reinterpret_cast<const ::SAFEARRAYBOUND*>(bounds))));
}

SAFEARRAY* SafeArrayCreateVector(VARTYPE type, LONG lowerBound, ULONG elements) {
    return reinterpret_cast<SAFEARRAY*>(::SafeArrayCreateVector(type, lowerBound, elements));
}

HRESULT SafeArrayDestroy(SAFEARRAY* array) noexcept {
    return ::SafeArrayDestroy(Native(array));
}

UINT SafeArrayGetDim(SAFEARRAY* array) noexcept {
    return array == nullptr ? 0 : ::SafeArrayGetDim(Native(array));
}

HRESULT SafeArrayGetLBound(SAFEARRAY* array, UINT dimension, LONG* bound) noexcept {
    return ::SafeArrayGetLBound(Native(array), dimension, reinterpret_cast<::LONG*>(bound));
}

HRESULT SafeArrayGetUBound(SAFEARRAY* array, UINT dimension, LONG* bound) noexcept {
    return ::SafeArrayGetUBound(Native(array), dimension, reinterpret_cast<::LONG*>(bound));
}

HRESULT SafeArrayGetVartype(SAFEARRAY* array, VARTYPE* type) noexcept {
    return ::SafeArrayGetVartype(Native(array), type);
}

HRESULT SafeArrayGetElement(SAFEARRAY* array, const LONG* indices, void* value) noexcept {
    return ::SafeArrayGetElement(
        Native(array), const_cast<::LONG*>(reinterpret_cast<const ::LONG*>(indices)), value);
}

HRESULT SafeArrayPutElement(SAFEARRAY* array, const LONG* indices, void* value) noexcept {
    return ::SafeArrayPutElement(
        Native(array), const_cast<::LONG*>(reinterpret_cast<const ::LONG*>(indices)), value);
}

HRESULT SafeArrayCopy(SAFEARRAY* array, SAFEARRAY** copy) noexcept {
    return ::SafeArrayCopy(Native(array), reinterpret_cast<::SAFEARRAY**>(copy));
}

namespace {

::ITypeLib* LoadLibraryOf(HMODULE module, std::wstring* path, HRESULT* hr) {
    wchar_t buffer[MAX_PATH * 4];
    const ::DWORD length = ::GetModuleFileNameW(reinterpret_cast<::HMODULE>(module), buffer,
                                                static_cast<::DWORD>(std::size(buffer)));
    if (length == 0 || length >= std::size(buffer)) {
        *hr = TYPE_E_CANTLOADLIBRARY;
        return nullptr;
    }
    path->assign(buffer, length);
    ::ITypeLib* lib = nullptr;
    *hr = ::LoadTypeLibEx(path->c_str(), REGKIND_NONE, &lib);
    return SUCCEEDED(*hr) ? lib : nullptr;
}

}  // namespace

HRESULT LoadModuleTypeInfo(HMODULE module, const IID& iid, ITypeInfo** info) {
    if (info == nullptr) {
        return E_POINTER;
    }
    *info = nullptr;
    std::wstring path;
    HRESULT hr = S_OK;
    ::ITypeLib* lib = LoadLibraryOf(module, &path, &hr);
    if (lib == nullptr) {
        return hr;
    }
    ::ITypeInfo* native = nullptr;
    hr = lib->GetTypeInfoOfGuid(Native(iid), &native);
    lib->Release();
    *info = reinterpret_cast<ITypeInfo*>(native);
    return hr;
}

void ReleaseTypeInfo(ITypeInfo* info) noexcept {
    if (info != nullptr) {
        reinterpret_cast<::ITypeInfo*>(info)->Release();
    }
}

HRESULT RegisterTypeLibrary(HMODULE module, const TypeLibDescription& /*description*/,
                            std::u16string_view helpDirectory) {
    std::wstring path;
    HRESULT hr = S_OK;
    ::ITypeLib* lib = LoadLibraryOf(module, &path, &hr);
    if (lib == nullptr) {
        return hr;
    }
    std::wstring help(helpDirectory.begin(), helpDirectory.end());
    hr = ::RegisterTypeLib(lib, path.data(), help.empty() ? nullptr : help.data());
    lib->Release();
    return hr;
}

HRESULT UnregisterTypeLibrary(const TypeLibDescription& d) {
    return ::UnRegisterTypeLib(Native(d.libid), d.major, d.minor, 0, SYS_WIN64);
}

HRESULT CoInitializeEx(DWORD flags) {
    return ::CoInitializeEx(nullptr, flags);
}

void CoUninitialize() noexcept {
    ::CoUninitialize();
}

HRESULT CLSIDFromProgID(std::u16string_view progId, CLSID* clsid) {
    if (clsid == nullptr) {
        return E_INVALIDARG;
    }
    const std::u16string text(progId);
    ::CLSID native{};
    const HRESULT hr = ::CLSIDFromProgID(win32::Wide(text), &native);
    if (SUCCEEDED(hr)) {
        clsid->Data1 = native.Data1;
        clsid->Data2 = native.Data2;
        clsid->Data3 = native.Data3;
        std::memcpy(clsid->Data4, native.Data4, sizeof native.Data4);
    }
    return hr;
}

HRESULT CoCreateInstance(const CLSID& clsid, IUnknown* outer, DWORD context, const IID& iid,
                         void** object) {
    return ::CoCreateInstance(Native(clsid), reinterpret_cast<::IUnknown*>(outer), context,
                              Native(iid), object);
}

}  // namespace platform
