// The provider framework on Windows: the glue factory's objects are real
// WMI providers (IWbemProviderInit and IWbemServices) that hand each request
// to the Provider object registered for its class, converting instances
// between IWbemClassObject and CInstance; schemas go to the system's MOF
// compiler, and classes are deleted through IWbemLocator.
#include <atomic>
#include <new>
#include <string>

#include "../common/wmi_internal.h"
#include "../common/wmi_mof.h"
#include "platform/text.h"
#include "platform/wmi.h"

// After the platform's headers, so that Windows' macros (E_POINTER ...) do
// not reach their declarations.
#define NOGDI  // wingdi's GetObject macro would rename IWbemServices::GetObject
#include <windows.h>
// clang-format off
#include <ole2.h>
#include <oleauto.h>
#include <wbemcli.h>
#include <wbemprov.h>
// clang-format on
#undef GetClassName  // winuser's; CInstance has one of its own

namespace {

using platform::CFrameworkQuery;
using platform::CInstance;
using platform::MethodContext;
using platform::Provider;
namespace mof = platform::mof;

::VARIANT* Native(platform::VARIANT* v) {
    static_assert(sizeof(platform::VARIANT) == sizeof(::VARIANT));
    return reinterpret_cast<::VARIANT*>(v);
}
std::wstring Wide(std::u16string_view text) {
    return std::wstring(text.begin(), text.end());
}
std::u16string Utf16Of(const wchar_t* text) {
    return text == nullptr ? std::u16string() : std::u16string(text, text + wcslen(text));
}

// Owner of a native BSTR made from text.
class Text {
  public:
    explicit Text(std::u16string_view text) : b_(::SysAllocString(Wide(text).c_str())) {}
    ~Text() { ::SysFreeString(b_); }
    Text(const Text&) = delete;
    Text& operator=(const Text&) = delete;
    ::BSTR get() const { return b_; }

  private:
    ::BSTR b_;
};

// The properties of a native object (system properties left out).
HRESULT FromNative(::IWbemClassObject* object, CInstance* instance) {
    HRESULT hr = object->BeginEnumeration(WBEM_FLAG_NONSYSTEM_ONLY);
    while (SUCCEEDED(hr)) {
        ::BSTR name = nullptr;
        ::VARIANT value;
        ::VariantInit(&value);
        hr = object->Next(0, &name, &value, nullptr, nullptr);
        if (hr != platform::WBEM_S_NO_ERROR) {
            break;
        }
        instance->SetVariant(Utf16Of(name), *reinterpret_cast<platform::VARIANT*>(&value));
        ::SysFreeString(name);
        ::VariantClear(&value);
    }
    object->EndEnumeration();
    return hr == static_cast<HRESULT>(WBEM_S_NO_MORE_DATA) ? S_OK : hr;
}

// A native instance spawned from `templateObject` holding the instance's
// properties.
HRESULT ToNative(::IWbemClassObject* templateObject, const CInstance& instance,
                 ::IWbemClassObject** out) {
    *out = nullptr;
    ::IWbemClassObject* made = nullptr;
    HRESULT hr = templateObject->SpawnInstance(0, &made);
    for (const std::u16string& name : instance.PropertyNames()) {
        if (FAILED(hr)) {
            break;
        }
        platform::VARIANT value;
        instance.GetVariant(name, &value);
        hr = made->Put(Wide(name).c_str(), 0, Native(&value), 0);
        platform::VariantClear(&value);
    }
    if (FAILED(hr)) {
        if (made != nullptr) {
            made->Release();
        }
        return hr;
    }
    *out = made;
    return S_OK;
}

// "Class.Key=\"value\",..." or "Class=@": the class, and the keys set on
// `keys` as texts (numbers unquoted are kept as texts too).
std::u16string ParsePath(std::u16string_view path, CInstance* keys) {
    const std::size_t stop = path.find_first_of(u".=");
    const std::u16string className(path.substr(0, stop));
    if (keys == nullptr || stop == std::u16string_view::npos || path[stop] == u'=') {
        return className;
    }
    std::u16string_view rest = path.substr(stop + 1);
    while (!rest.empty()) {
        const std::size_t eq = rest.find(u'=');
        if (eq == std::u16string_view::npos) {
            break;
        }
        const std::u16string name(rest.substr(0, eq));
        rest = rest.substr(eq + 1);
        std::u16string value;
        if (!rest.empty() && rest[0] == u'"') {
            std::size_t i = 1;
            for (; i < rest.size() && rest[i] != u'"'; ++i) {
                if (rest[i] == u'\\' && i + 1 < rest.size()) {
                    ++i;
                }
                value += rest[i];
            }
            rest = rest.substr(std::min(rest.size(), i + 1));
        } else {
            const std::size_t comma = rest.find(u',');
            value = std::u16string(rest.substr(0, comma));
            rest = comma == std::u16string_view::npos ? u"" : rest.substr(comma);
        }
        keys->SetCHString(name, value);
        if (!rest.empty() && rest[0] == u',') {
            rest = rest.substr(1);
        }
    }
    return className;
}

// COM interfaces have no virtual destructor; objects delete themselves.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class GlueProvider final : public ::IWbemProviderInit, public ::IWbemServices {
  public:
    GlueProvider() { ++platform::g_glueObjects; }

    // IUnknown
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
        if (object == nullptr) {
            return E_POINTER;
        }
        if (iid == __uuidof(::IUnknown) || iid == __uuidof(::IWbemProviderInit)) {
            *object = static_cast<::IWbemProviderInit*>(this);
        } else if (iid == __uuidof(::IWbemServices)) {
            *object = static_cast<::IWbemServices*>(this);
        } else {
            *object = nullptr;
            return E_NOINTERFACE;
        }
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(::ULONG) AddRef() override { return ++references_; }
    STDMETHODIMP_(::ULONG) Release() override {
        const ::ULONG left = --references_;
        if (left == 0) {
            delete this;
        }
        return left;
    }

    // IWbemProviderInit
    STDMETHODIMP Initialize(::LPWSTR, ::LONG, ::LPWSTR nameSpace, ::LPWSTR,
                            ::IWbemServices* services, ::IWbemContext*,
                            ::IWbemProviderInitSink* sink) override {
        nameSpace_ = mof::NormalNamespace(Utf16Of(nameSpace));
        if (services != nullptr) {
            services->AddRef();
            services_ = services;
        }
        return sink->SetStatus(WBEM_S_INITIALIZED, 0);
    }

    // IWbemServices: the instance and method operations.
    STDMETHODIMP GetObjectAsync(const ::BSTR path, ::LONG, ::IWbemContext* context,
                                ::IWbemObjectSink* sink) override {
        CInstance keys(u"");
        const std::u16string className = ParsePath(Utf16Of(path), &keys);
        auto instance = std::make_unique<CInstance>(className);
        for (const std::u16string& k : keys.PropertyNames()) {
            platform::VARIANT v;
            keys.GetVariant(k, &v);
            instance->SetVariant(k, v);
            platform::VariantClear(&v);
        }
        Provider* p = Provider::Find(nameSpace_, className);
        HRESULT hr =
            p == nullptr ? platform::WBEM_E_INVALID_CLASS : p->GetObject(instance.get(), 0);
        if (SUCCEEDED(hr)) {
            hr = Indicate(className, *instance, context, sink);
        }
        return sink->SetStatus(WBEM_STATUS_COMPLETE, hr, nullptr, nullptr);
    }
    STDMETHODIMP CreateInstanceEnumAsync(const ::BSTR className, ::LONG, ::IWbemContext* context,
                                         ::IWbemObjectSink* sink) override {
        const std::u16string name = Utf16Of(className);
        Provider* p = Provider::Find(nameSpace_, name);
        MethodContext delivered;
        HRESULT hr =
            p == nullptr ? platform::WBEM_E_INVALID_CLASS : p->EnumerateInstances(&delivered, 0);
        for (const auto& instance : delivered.Delivered()) {
            if (SUCCEEDED(hr)) {
                hr = Indicate(name, *instance, context, sink);
            }
        }
        return sink->SetStatus(WBEM_STATUS_COMPLETE, hr, nullptr, nullptr);
    }
    STDMETHODIMP PutInstanceAsync(::IWbemClassObject* object, ::LONG, ::IWbemContext*,
                                  ::IWbemObjectSink* sink) override {
        ::VARIANT className;
        ::VariantInit(&className);
        HRESULT hr = object->Get(L"__CLASS", 0, &className, nullptr, nullptr);
        if (SUCCEEDED(hr) && className.vt == VT_BSTR) {
            CInstance instance(Utf16Of(className.bstrVal));
            hr = FromNative(object, &instance);
            Provider* p = Provider::Find(nameSpace_, instance.GetClassName());
            if (SUCCEEDED(hr)) {
                hr = p == nullptr ? platform::WBEM_E_INVALID_CLASS : p->PutInstance(instance, 0);
            }
        }
        ::VariantClear(&className);
        return sink->SetStatus(WBEM_STATUS_COMPLETE, hr, nullptr, nullptr);
    }
    STDMETHODIMP DeleteInstanceAsync(const ::BSTR path, ::LONG, ::IWbemContext*,
                                     ::IWbemObjectSink* sink) override {
        CInstance keys(u"");
        const std::u16string className = ParsePath(Utf16Of(path), &keys);
        CInstance instance(className);
        for (const std::u16string& k : keys.PropertyNames()) {
            std::u16string v;
            keys.GetCHString(k, &v);
            instance.SetCHString(k, v);
        }
        Provider* p = Provider::Find(nameSpace_, className);
        const HRESULT hr =
            p == nullptr ? platform::WBEM_E_INVALID_CLASS : p->DeleteInstance(instance, 0);
        return sink->SetStatus(WBEM_STATUS_COMPLETE, hr, nullptr, nullptr);
    }
    STDMETHODIMP ExecQueryAsync(const ::BSTR, const ::BSTR query, ::LONG, ::IWbemContext* context,
                                ::IWbemObjectSink* sink) override {
        CFrameworkQuery parsed;
        HRESULT hr = platform::ParseWqlQuery(Utf16Of(query), &parsed);
        Provider* p = SUCCEEDED(hr) ? Provider::Find(nameSpace_, parsed.className) : nullptr;
        MethodContext delivered;
        if (SUCCEEDED(hr)) {
            hr =
                p == nullptr ? platform::WBEM_E_INVALID_CLASS : p->ExecQuery(&delivered, parsed, 0);
        }
        if (hr == platform::WBEM_E_PROVIDER_NOT_CAPABLE) {
            hr = p->EnumerateInstances(&delivered, 0);
        }
        for (const auto& instance : delivered.Delivered()) {
            if (SUCCEEDED(hr) && platform::QueryMatches(parsed, *instance)) {
                hr = Indicate(parsed.className, *instance, context, sink);
            }
        }
        return sink->SetStatus(WBEM_STATUS_COMPLETE, hr, nullptr, nullptr);
    }
    STDMETHODIMP ExecMethodAsync(const ::BSTR path, const ::BSTR method, ::LONG,
                                 ::IWbemContext* context, ::IWbemClassObject* inParams,
                                 ::IWbemObjectSink* sink) override {
        const std::u16string className = ParsePath(Utf16Of(path), nullptr);
        Provider* p = Provider::Find(nameSpace_, className);
        std::unique_ptr<CInstance> in;
        HRESULT hr = p == nullptr ? platform::WBEM_E_INVALID_CLASS : platform::WBEM_S_NO_ERROR;
        if (SUCCEEDED(hr) && inParams != nullptr) {
            in = std::make_unique<CInstance>(u"__PARAMETERS");
            hr = FromNative(inParams, in.get());
        }
        ::IWbemClassObject* classObject = nullptr;
        ::IWbemClassObject* outSignature = nullptr;
        if (SUCCEEDED(hr) && services_ != nullptr) {
            const Text name(className);
            hr = services_->GetObject(name.get(), 0, context, &classObject, nullptr);
            if (SUCCEEDED(hr)) {
                hr = classObject->GetMethod(method, 0, nullptr, &outSignature);
            }
        }
        CInstance out(u"__PARAMETERS");
        if (SUCCEEDED(hr)) {
            hr = p->ExecMethod(CInstance(className), Utf16Of(method), in.get(),
                               outSignature != nullptr ? &out : nullptr, 0);
        }
        if (SUCCEEDED(hr) && outSignature != nullptr) {
            ::IWbemClassObject* native = nullptr;
            hr = ToNative(outSignature, out, &native);
            if (SUCCEEDED(hr)) {
                hr = sink->Indicate(1, &native);
                native->Release();
            }
        }
        if (outSignature != nullptr) {
            outSignature->Release();
        }
        if (classObject != nullptr) {
            classObject->Release();
        }
        return sink->SetStatus(WBEM_STATUS_COMPLETE, hr, nullptr, nullptr);
    }

    // IWbemServices: what an instance and method provider does not offer.
    STDMETHODIMP OpenNamespace(const ::BSTR, ::LONG, ::IWbemContext*, ::IWbemServices**,
                               ::IWbemCallResult**) override {
        return platform::WBEM_E_NOT_SUPPORTED;
    }
    STDMETHODIMP CancelAsyncCall(::IWbemObjectSink*) override {
        return platform::WBEM_E_NOT_SUPPORTED;
    }
    STDMETHODIMP QueryObjectSink(::LONG, ::IWbemObjectSink**) override {
        return platform::WBEM_E_NOT_SUPPORTED;
    }
    STDMETHODIMP GetObject(const ::BSTR, ::LONG, ::IWbemContext*, ::IWbemClassObject**,
                           ::IWbemCallResult**) override {
        return platform::WBEM_E_NOT_SUPPORTED;
    }
    STDMETHODIMP PutClass(::IWbemClassObject*, ::LONG, ::IWbemContext*,
                          ::IWbemCallResult**) override {
        return platform::WBEM_E_NOT_SUPPORTED;
    }
    STDMETHODIMP PutClassAsync(::IWbemClassObject*, ::LONG, ::IWbemContext*,
                               ::IWbemObjectSink*) override {
        return platform::WBEM_E_NOT_SUPPORTED;
    }
    STDMETHODIMP DeleteClass(const ::BSTR, ::LONG, ::IWbemContext*, ::IWbemCallResult**) override {
        return platform::WBEM_E_NOT_SUPPORTED;
    }
    STDMETHODIMP DeleteClassAsync(const ::BSTR, ::LONG, ::IWbemContext*,
                                  ::IWbemObjectSink*) override {
        return platform::WBEM_E_NOT_SUPPORTED;
    }
    STDMETHODIMP CreateClassEnum(const ::BSTR, ::LONG, ::IWbemContext*,
                                 ::IEnumWbemClassObject**) override {
        return platform::WBEM_E_NOT_SUPPORTED;
    }
    STDMETHODIMP CreateClassEnumAsync(const ::BSTR, ::LONG, ::IWbemContext*,
                                      ::IWbemObjectSink*) override {
        return platform::WBEM_E_NOT_SUPPORTED;
    }
    STDMETHODIMP PutInstance(::IWbemClassObject*, ::LONG, ::IWbemContext*,
                             ::IWbemCallResult**) override {
        return platform::WBEM_E_NOT_SUPPORTED;
    }
    STDMETHODIMP DeleteInstance(const ::BSTR, ::LONG, ::IWbemContext*,
                                ::IWbemCallResult**) override {
        return platform::WBEM_E_NOT_SUPPORTED;
    }
    STDMETHODIMP CreateInstanceEnum(const ::BSTR, ::LONG, ::IWbemContext*,
                                    ::IEnumWbemClassObject**) override {
        return platform::WBEM_E_NOT_SUPPORTED;
    }
    STDMETHODIMP ExecQuery(const ::BSTR, const ::BSTR, ::LONG, ::IWbemContext*,
                           ::IEnumWbemClassObject**) override {
        return platform::WBEM_E_NOT_SUPPORTED;
    }
    STDMETHODIMP ExecNotificationQuery(const ::BSTR, const ::BSTR, ::LONG, ::IWbemContext*,
                                       ::IEnumWbemClassObject**) override {
        return platform::WBEM_E_NOT_SUPPORTED;
    }
    STDMETHODIMP ExecNotificationQueryAsync(const ::BSTR, const ::BSTR, ::LONG, ::IWbemContext*,
                                            ::IWbemObjectSink*) override {
        return platform::WBEM_E_NOT_SUPPORTED;
    }
    STDMETHODIMP ExecMethod(const ::BSTR, const ::BSTR, ::LONG, ::IWbemContext*,
                            ::IWbemClassObject*, ::IWbemClassObject**,
                            ::IWbemCallResult**) override {
        return platform::WBEM_E_NOT_SUPPORTED;
    }

  private:
    ~GlueProvider() {
        if (services_ != nullptr) {
            services_->Release();
        }
        --platform::g_glueObjects;
    }
    HRESULT Indicate(const std::u16string& className, const CInstance& instance,
                     ::IWbemContext* context, ::IWbemObjectSink* sink) {
        if (services_ == nullptr) {
            return platform::WBEM_E_FAILED;
        }
        const Text name(className);
        ::IWbemClassObject* classObject = nullptr;
        HRESULT hr = services_->GetObject(name.get(), 0, context, &classObject, nullptr);
        ::IWbemClassObject* native = nullptr;
        if (SUCCEEDED(hr)) {
            hr = ToNative(classObject, instance, &native);
            classObject->Release();
        }
        if (SUCCEEDED(hr)) {
            hr = sink->Indicate(1, &native);
            native->Release();
        }
        return hr;
    }

    std::atomic<::ULONG> references_{1};
    std::u16string nameSpace_;
    ::IWbemServices* services_ = nullptr;
};
#pragma GCC diagnostic pop

}  // namespace

namespace platform {

CWbemGlueFactory::CWbemGlueFactory() = default;
CWbemGlueFactory::~CWbemGlueFactory() = default;

HRESULT CWbemGlueFactory::QueryInterface(const IID& iid, void** object) {
    if (object == nullptr) {
        return E_POINTER;
    }
    if (iid == IID_IUnknown || iid == IID_IClassFactory) {
        *object = static_cast<IClassFactory*>(this);
        AddRef();
        return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
}

ULONG CWbemGlueFactory::AddRef() {
    return static_cast<ULONG>(::InterlockedIncrement(&references_));
}

ULONG CWbemGlueFactory::Release() {
    const long left = ::InterlockedDecrement(&references_);
    if (left == 0) {
        delete this;
    }
    return static_cast<ULONG>(left);
}

HRESULT CWbemGlueFactory::CreateInstance(IUnknown* outer, const IID& iid, void** object) {
    if (object == nullptr) {
        return E_POINTER;
    }
    *object = nullptr;
    if (outer != nullptr) {
        return CLASS_E_NOAGGREGATION;
    }
    auto* glue = new (std::nothrow) GlueProvider();
    if (glue == nullptr) {
        return E_OUTOFMEMORY;
    }
    const HRESULT hr = glue->QueryInterface(reinterpret_cast<const ::IID&>(iid), object);
    glue->Release();
    return hr;
}

HRESULT CWbemGlueFactory::LockServer(BOOL) {
    return S_OK;
}

HRESULT CompileMof(std::string_view text, std::string* error) {
    ::IMofCompiler* compiler = nullptr;
    HRESULT hr = ::CoCreateInstance(CLSID_MofCompiler, nullptr, CLSCTX_INPROC_SERVER,
                                    IID_IMofCompiler, reinterpret_cast<void**>(&compiler));
    if (FAILED(hr)) {
        return hr;
    }
    std::string buffer(text);
    ::WBEM_COMPILE_STATUS_INFO info{};
    hr = compiler->CompileBuffer(static_cast<::LONG>(buffer.size()),
                                 reinterpret_cast<::BYTE*>(buffer.data()), nullptr, nullptr,
                                 nullptr, nullptr, 0, 0, 0, &info);
    compiler->Release();
    if (FAILED(hr) && error != nullptr) {
        *error = "line " + std::to_string(info.FirstLine) + ": the MOF compiler refused it";
    }
    return hr;
}

// ---- clients: class deletion only ------------------------------------------------------------

WbemConnection::WbemConnection(std::u16string nameSpace) : nameSpace_(std::move(nameSpace)) {}
WbemConnection::~WbemConnection() = default;

HRESULT WbemConnection::Connect(std::u16string_view nameSpace,
                                std::unique_ptr<WbemConnection>* out) {
    out->reset(new WbemConnection(std::u16string(nameSpace)));
    return WBEM_S_NO_ERROR;
}

HRESULT WbemConnection::DeleteClass(std::u16string_view className) {
    ::IWbemLocator* locator = nullptr;
    HRESULT hr = ::CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER,
                                    IID_IWbemLocator, reinterpret_cast<void**>(&locator));
    if (FAILED(hr)) {
        return hr;
    }
    ::IWbemServices* services = nullptr;
    const Text path(nameSpace_);
    hr = locator->ConnectServer(path.get(), nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                &services);
    locator->Release();
    if (FAILED(hr)) {
        return hr;
    }
    hr = ::CoSetProxyBlanket(services, RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                             RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr,
                             EOAC_NONE);
    if (SUCCEEDED(hr)) {
        const Text name(className);
        hr = services->DeleteClass(name.get(), 0, nullptr, nullptr);
    }
    services->Release();
    return hr;
}

HRESULT WbemConnection::GetClass(std::u16string_view, ClassSchema*) {
    return WBEM_E_NOT_SUPPORTED;
}
HRESULT WbemConnection::GetObject(const CInstance&, std::unique_ptr<CInstance>*) {
    return WBEM_E_NOT_SUPPORTED;
}
HRESULT WbemConnection::EnumerateInstances(std::u16string_view,
                                           std::vector<std::unique_ptr<CInstance>>*) {
    return WBEM_E_NOT_SUPPORTED;
}
HRESULT WbemConnection::ExecQuery(std::u16string_view, std::vector<std::unique_ptr<CInstance>>*) {
    return WBEM_E_NOT_SUPPORTED;
}
HRESULT WbemConnection::PutInstance(const CInstance&) {
    return WBEM_E_NOT_SUPPORTED;
}
HRESULT WbemConnection::DeleteInstance(const CInstance&) {
    return WBEM_E_NOT_SUPPORTED;
}
HRESULT WbemConnection::ExecMethod(std::u16string_view, std::u16string_view, const CInstance*,
                                   std::unique_ptr<CInstance>*) {
    return WBEM_E_NOT_SUPPORTED;
}

}  // namespace platform
