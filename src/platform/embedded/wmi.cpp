// The management service of the embedded machine: a repository of compiled
// schemas in the machine's registry, and requests routed to the provider a
// class names, loaded through COM as WMI loads it.
//
// Repository: HKLM\SOFTWARE\OVSvc Embedded\WMI\<namespace, "\" written "/">
// with the values of its subkeys "Classes" (class name -> the class's MOF
// text) and "Instances" ("<class>.<first value>" -> the instance's MOF text).
#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

#include "../common/wmi_internal.h"
#include "../common/wmi_mof.h"
#include "platform/registry.h"
#include "platform/registry_text.h"
#include "platform/text.h"
#include "platform/wmi.h"

namespace platform {

namespace {

// ---- the provider side: the glue object ----------------------------------------------------

// What the service asks a provider object; in-process, so C++ types cross.
class IEmbeddedProviderServices : public IUnknown {
  public:
    virtual HRESULT PLATFORM_STDMETHODCALLTYPE Initialize(const std::u16string& nameSpace) = 0;
    virtual HRESULT PLATFORM_STDMETHODCALLTYPE Get(CInstance* instance) = 0;
    virtual HRESULT PLATFORM_STDMETHODCALLTYPE Enumerate(const std::u16string& className,
                                                         MethodContext* context) = 0;
    virtual HRESULT PLATFORM_STDMETHODCALLTYPE Query(const CFrameworkQuery& query,
                                                     MethodContext* context) = 0;
    virtual HRESULT PLATFORM_STDMETHODCALLTYPE Put(const CInstance& instance) = 0;
    virtual HRESULT PLATFORM_STDMETHODCALLTYPE Delete(const CInstance& instance) = 0;
    virtual HRESULT PLATFORM_STDMETHODCALLTYPE Method(const std::u16string& className,
                                                      std::u16string_view method,
                                                      CInstance* inParams,
                                                      CInstance* outParams) = 0;

  protected:
    ~IEmbeddedProviderServices() = default;
};

class GlueObject final : public IEmbeddedProviderServices {
  public:
    GlueObject() { ++g_glueObjects; }

    HRESULT PLATFORM_STDMETHODCALLTYPE QueryInterface(const IID& iid, void** object) override {
        if (object == nullptr) {
            return E_POINTER;
        }
        if (iid == IID_IUnknown || iid == IID_IEmbeddedProviderServices) {
            *object = static_cast<IEmbeddedProviderServices*>(this);
            AddRef();
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG PLATFORM_STDMETHODCALLTYPE AddRef() override { return ++references_; }
    ULONG PLATFORM_STDMETHODCALLTYPE Release() override {
        const ULONG left = --references_;
        if (left == 0) {
            delete this;
        }
        return left;
    }

    HRESULT PLATFORM_STDMETHODCALLTYPE Initialize(const std::u16string& nameSpace) override {
        nameSpace_ = nameSpace;
        return WBEM_S_NO_ERROR;
    }
    HRESULT PLATFORM_STDMETHODCALLTYPE Get(CInstance* instance) override {
        Provider* p = Find(instance->GetClassName());
        return p == nullptr ? WBEM_E_INVALID_CLASS : p->GetObject(instance, 0);
    }
    HRESULT PLATFORM_STDMETHODCALLTYPE Enumerate(const std::u16string& className,
                                                 MethodContext* context) override {
        Provider* p = Find(className);
        return p == nullptr ? WBEM_E_INVALID_CLASS : p->EnumerateInstances(context, 0);
    }
    HRESULT PLATFORM_STDMETHODCALLTYPE Query(const CFrameworkQuery& query,
                                             MethodContext* context) override {
        Provider* p = Find(query.className);
        return p == nullptr ? WBEM_E_INVALID_CLASS : p->ExecQuery(context, query, 0);
    }
    HRESULT PLATFORM_STDMETHODCALLTYPE Put(const CInstance& instance) override {
        Provider* p = Find(instance.GetClassName());
        return p == nullptr ? WBEM_E_INVALID_CLASS : p->PutInstance(instance, 0);
    }
    HRESULT PLATFORM_STDMETHODCALLTYPE Delete(const CInstance& instance) override {
        Provider* p = Find(instance.GetClassName());
        return p == nullptr ? WBEM_E_INVALID_CLASS : p->DeleteInstance(instance, 0);
    }
    HRESULT PLATFORM_STDMETHODCALLTYPE Method(const std::u16string& className,
                                              std::u16string_view method, CInstance* inParams,
                                              CInstance* outParams) override {
        Provider* p = Find(className);
        if (p == nullptr) {
            return WBEM_E_INVALID_CLASS;
        }
        const CInstance classObject(className);
        return p->ExecMethod(classObject, method, inParams, outParams, 0);
    }

  private:
    ~GlueObject() { --g_glueObjects; }
    Provider* Find(const std::u16string& className) const {
        return Provider::Find(nameSpace_, className);
    }
    std::atomic<ULONG> references_{1};
    std::u16string nameSpace_;
};

}  // namespace

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
    return static_cast<ULONG>(++references_);
}

ULONG CWbemGlueFactory::Release() {
    const long left = --references_;
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
    auto* glue = new (std::nothrow) GlueObject();
    if (glue == nullptr) {
        return E_OUTOFMEMORY;
    }
    const HRESULT hr = glue->QueryInterface(iid, object);
    glue->Release();
    return hr;
}

HRESULT CWbemGlueFactory::LockServer(BOOL) {
    return S_OK;
}

// ---- the repository
// -------------------------------------------------------------------------------

namespace {

constexpr char16_t kRepository[] = u"SOFTWARE\\OVSvc Embedded\\WMI";

std::u16string NamespaceKey(const std::u16string& nameSpace) {
    std::u16string name = nameSpace;
    for (char16_t& c : name) {
        c = c == u'\\' ? u'/' : c;
    }
    return std::u16string(kRepository) + u"\\" + name;
}

bool NamespaceExists(const std::u16string& nameSpace) {
    if (NamesEqual(nameSpace, u"root")) {
        return true;
    }
    UniqueKey key;
    return RegOpenKeyExW(HKEY_LOCAL_MACHINE, NamespaceKey(nameSpace), 0, KEY_READ, &key) ==
           ERROR_SUCCESS;
}

LSTATUS WriteText(const std::u16string& keyPath, const std::u16string& name,
                  const std::string& text) {
    UniqueKey key;
    LSTATUS s = RegCreateKeyExW(HKEY_LOCAL_MACHINE, keyPath, 0, KEY_ALL_ACCESS, &key, nullptr);
    if (s != ERROR_SUCCESS) {
        return s;
    }
    const std::vector<std::byte> data = regtext::StringBytes(ToUtf16(text), true);
    return RegSetValueExW(key.get(), name, REG_SZ, data.data(), static_cast<DWORD>(data.size()));
}

bool ReadText(const std::u16string& keyPath, const std::u16string& name, std::string* text) {
    UniqueKey key;
    RegistryValue value;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, keyPath, 0, KEY_READ, &key) != ERROR_SUCCESS ||
        RegGetValue(key.get(), name, &value) != ERROR_SUCCESS || value.type != REG_SZ) {
        return false;
    }
    std::u16string units(value.data.size() / 2, u'\0');
    std::memcpy(units.data(), value.data.data(), units.size() * 2);
    *text = ToUtf8(units.c_str());
    return true;
}

const mof::NamespaceExists& Exists() {
    static const mof::NamespaceExists exists = [](const std::u16string& path) {
        return NamespaceExists(path);
    };
    return exists;
}

HRESULT LoadClass(const std::u16string& nameSpace, std::u16string_view className,
                  ClassSchema* schema) {
    std::string text;
    if (!ReadText(NamespaceKey(nameSpace) + u"\\Classes", std::u16string(className), &text)) {
        return WBEM_E_INVALID_CLASS;
    }
    mof::Document document;
    std::string error;
    if (!mof::Parse(text, nameSpace, Exists(), &document, &error) || document.classes.size() != 1) {
        return WBEM_E_INVALID_OBJECT;  // the stored text was damaged
    }
    *schema = std::move(document.classes.front().schema);
    return WBEM_S_NO_ERROR;
}

bool LoadInstance(const std::u16string& nameSpace, const std::u16string& storeName,
                  mof::Instance* instance) {
    std::string text;
    mof::Document document;
    std::string error;
    if (!ReadText(NamespaceKey(nameSpace) + u"\\Instances", storeName, &text) ||
        !mof::Parse(text, nameSpace, Exists(), &document, &error) ||
        document.instances.size() != 1) {
        return false;
    }
    *instance = std::move(document.instances.front());
    return true;
}

// Whether a registration instance of `registrationClass` names the provider.
bool Registered(const std::u16string& nameSpace, const std::u16string& registrationClass,
                const std::u16string& providerName) {
    mof::Instance registration;
    return LoadInstance(nameSpace,
                        registrationClass + u".__Win32Provider.Name=\"" + providerName + u"\"",
                        &registration);
}

// The provider object for a class: its Provider qualifier, that provider's
// registration and CLSID, the object created through COM.
class ProviderConnection {
  public:
    HRESULT Open(const std::u16string& nameSpace, const ClassSchema& schema, bool forMethod) {
        std::u16string providerName;
        for (const QualifierValue& q : schema.qualifiers) {
            if (NamesEqual(q.name, u"Provider")) {
                providerName = q.value;
            }
        }
        if (providerName.empty()) {
            return WBEM_E_PROVIDER_NOT_FOUND;
        }
        mof::Instance provider;
        if (!LoadInstance(nameSpace, u"__Win32Provider." + providerName, &provider) ||
            !Registered(
                nameSpace,
                forMethod ? u"__MethodProviderRegistration" : u"__InstanceProviderRegistration",
                providerName)) {
            return WBEM_E_PROVIDER_NOT_FOUND;
        }
        const mof::Value* clsidText = provider.Find(u"ClsId");
        CLSID clsid{};
        if (clsidText == nullptr || !GuidFromString(clsidText->text, &clsid)) {
            return WBEM_E_PROVIDER_LOAD_FAILURE;
        }
        initialised_ = SUCCEEDED(CoInitializeEx(COINIT_MULTITHREADED));
        if (FAILED(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER,
                                    IID_IEmbeddedProviderServices, services_.put())) ||
            !services_) {
            return WBEM_E_PROVIDER_LOAD_FAILURE;
        }
        return services_->Initialize(nameSpace);
    }
    ~ProviderConnection() {
        services_.reset();
        if (initialised_) {
            CoUninitialize();
        }
    }
    IEmbeddedProviderServices* operator->() const { return services_.get(); }

  private:
    bool initialised_ = false;
    ComPtr<IEmbeddedProviderServices> services_;
};

}  // namespace

HRESULT CompileMof(std::string_view text, std::string* error) {
    mof::Document document;
    std::string reason;
    if (!mof::Parse(text, u"root", Exists(), &document, &reason)) {
        if (error != nullptr) {
            *error = reason;
        }
        return WBEM_E_INVALID_SYNTAX;
    }
    for (const std::u16string& nameSpace : document.namespaces) {
        UniqueKey key;
        if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, NamespaceKey(nameSpace), 0, KEY_ALL_ACCESS, &key,
                            nullptr) != ERROR_SUCCESS) {
            return WBEM_E_FAILED;
        }
    }
    for (const mof::Class& c : document.classes) {
        if (WriteText(NamespaceKey(c.schema.nameSpace) + u"\\Classes", c.schema.name, c.text) !=
            ERROR_SUCCESS) {
            return WBEM_E_FAILED;
        }
    }
    for (const mof::Instance& i : document.instances) {
        if (WriteText(NamespaceKey(i.nameSpace) + u"\\Instances", i.StoreName(), i.Text()) !=
            ERROR_SUCCESS) {
            return WBEM_E_FAILED;
        }
    }
    return WBEM_S_NO_ERROR;
}

// ---- clients
// ---------------------------------------------------------------------------------------------

WbemConnection::WbemConnection(std::u16string nameSpace) : nameSpace_(std::move(nameSpace)) {}
WbemConnection::~WbemConnection() = default;

HRESULT WbemConnection::Connect(std::u16string_view nameSpace,
                                std::unique_ptr<WbemConnection>* out) {
    const std::u16string path = mof::NormalNamespace(nameSpace);
    if (path.empty() || !NamespaceExists(path)) {
        return WBEM_E_INVALID_NAMESPACE;
    }
    out->reset(new WbemConnection(path));
    return WBEM_S_NO_ERROR;
}

HRESULT WbemConnection::GetClass(std::u16string_view className, ClassSchema* schema) {
    return LoadClass(nameSpace_, className, schema);
}

HRESULT WbemConnection::DeleteClass(std::u16string_view className) {
    UniqueKey key;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, NamespaceKey(nameSpace_) + u"\\Classes", 0,
                      KEY_ALL_ACCESS, &key) != ERROR_SUCCESS) {
        return WBEM_E_NOT_FOUND;
    }
    const LSTATUS s = RegDeleteValueW(key.get(), className);
    return s == ERROR_SUCCESS                                ? WBEM_S_NO_ERROR
           : s == static_cast<LSTATUS>(ERROR_FILE_NOT_FOUND) ? WBEM_E_NOT_FOUND
                                                             : WBEM_E_FAILED;
}

HRESULT WbemConnection::GetObject(const CInstance& keys, std::unique_ptr<CInstance>* instance) {
    ClassSchema schema;
    ProviderConnection provider;
    HRESULT hr = GetClass(keys.GetClassName(), &schema);
    if (SUCCEEDED(hr)) {
        hr = provider.Open(nameSpace_, schema, false);
    }
    if (FAILED(hr)) {
        return hr;
    }
    std::unique_ptr<CInstance> result = keys.Clone();
    if (!result) {
        return WBEM_E_OUT_OF_MEMORY;
    }
    hr = provider->Get(result.get());
    if (SUCCEEDED(hr)) {
        *instance = std::move(result);
    }
    return hr;
}

HRESULT WbemConnection::EnumerateInstances(std::u16string_view className,
                                           std::vector<std::unique_ptr<CInstance>>* instances) {
    ClassSchema schema;
    ProviderConnection provider;
    HRESULT hr = GetClass(className, &schema);
    if (SUCCEEDED(hr)) {
        hr = provider.Open(nameSpace_, schema, false);
    }
    if (FAILED(hr)) {
        return hr;
    }
    MethodContext context;
    hr = provider->Enumerate(schema.name, &context);
    if (SUCCEEDED(hr)) {
        *instances = std::move(context.Delivered());
    }
    return hr;
}

HRESULT WbemConnection::ExecQuery(std::u16string_view wql,
                                  std::vector<std::unique_ptr<CInstance>>* instances) {
    CFrameworkQuery query;
    HRESULT hr = ParseWqlQuery(wql, &query);
    if (FAILED(hr)) {
        return hr;
    }
    ClassSchema schema;
    ProviderConnection provider;
    hr = GetClass(query.className, &schema);
    if (SUCCEEDED(hr) && !query.whereProperty.empty() &&
        schema.FindProperty(query.whereProperty) == nullptr) {
        hr = WBEM_E_INVALID_QUERY;
    }
    if (SUCCEEDED(hr)) {
        hr = provider.Open(nameSpace_, schema, false);
    }
    if (FAILED(hr)) {
        return hr;
    }
    query.className = schema.name;
    MethodContext context;
    hr = provider->Query(query, &context);
    if (hr == WBEM_E_PROVIDER_NOT_CAPABLE) {
        // Answered from the enumeration, as the service does for a provider
        // that leaves queries to it.
        context.Delivered().clear();
        hr = provider->Enumerate(schema.name, &context);
        auto& found = context.Delivered();
        found.erase(std::remove_if(found.begin(), found.end(),
                                   [&](const std::unique_ptr<CInstance>& i) {
                                       return !QueryMatches(query, *i);
                                   }),
                    found.end());
    }
    if (SUCCEEDED(hr)) {
        *instances = std::move(context.Delivered());
    }
    return hr;
}

HRESULT WbemConnection::PutInstance(const CInstance& instance) {
    ClassSchema schema;
    ProviderConnection provider;
    HRESULT hr = GetClass(instance.GetClassName(), &schema);
    if (SUCCEEDED(hr)) {
        hr = provider.Open(nameSpace_, schema, false);
    }
    return FAILED(hr) ? hr : provider->Put(instance);
}

HRESULT WbemConnection::DeleteInstance(const CInstance& keys) {
    ClassSchema schema;
    ProviderConnection provider;
    HRESULT hr = GetClass(keys.GetClassName(), &schema);
    if (SUCCEEDED(hr)) {
        hr = provider.Open(nameSpace_, schema, false);
    }
    return FAILED(hr) ? hr : provider->Delete(keys);
}

HRESULT WbemConnection::ExecMethod(std::u16string_view className, std::u16string_view method,
                                   const CInstance* inParams,
                                   std::unique_ptr<CInstance>* outParams) {
    ClassSchema schema;
    ProviderConnection provider;
    HRESULT hr = GetClass(className, &schema);
    if (FAILED(hr)) {
        return hr;
    }
    // The service finds the method whatever its case; the provider gets the
    // name as the caller wrote it.
    const bool declared =
        std::any_of(schema.methods.begin(), schema.methods.end(),
                    [&](const MethodSchema& m) { return NamesEqual(m.name, method); });
    if (!declared) {
        return WBEM_E_INVALID_METHOD;
    }
    hr = provider.Open(nameSpace_, schema, true);
    if (FAILED(hr)) {
        return hr;
    }
    std::unique_ptr<CInstance> in = inParams == nullptr ? nullptr : inParams->Clone();
    auto out = std::make_unique<CInstance>(u"__PARAMETERS");
    hr = provider->Method(schema.name, method, in.get(), out.get());
    if (SUCCEEDED(hr)) {
        *outParams = std::move(out);
    }
    return hr;
}

}  // namespace platform
