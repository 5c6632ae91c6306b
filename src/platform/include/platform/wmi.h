// The management provider framework (what framedyn and WMI offer a provider
// DLL) and a client's view of the management service.
//
// A provider is an object of a class derived from `Provider`, constructed
// with the class it serves and its namespace; it registers itself with the
// framework and answers the six operations. Instances are typed property
// bags: each property holds a VARIANT of one of the types the classes use
// (string VT_BSTR, uint32 and sint32 VT_I4, boolean VT_BOOL, string and
// sint32 arrays VT_ARRAY | VT_BSTR and VT_ARRAY | VT_I4). A property that was
// never set, or set to null, is not present; an empty array is present.
//
// A module hosts providers through its DllGetClassObject: for its provider
// CLSID it hands out a `CWbemGlueFactory`, whose objects connect the
// management service to the registered Provider objects of the process.
//
// The embedded machine has the management service in-process: schemas are
// compiled from MOF text into a repository kept in the machine's registry
// (HKLM\SOFTWARE\OVSvc Embedded\WMI\<namespace>), and a request for a class
// is routed as WMI routes it: the class's Provider qualifier names a
// __Win32Provider instance of its namespace, whose ClsId is created through
// COM (HKCR\CLSID\{clsid}\InprocServer32, the module loaded and asked through
// its DllGetClassObject). Queries the provider does not answer itself are
// answered from its EnumerateInstances.
//
// On Windows the glue factory's objects implement IWbemProviderInit and
// IWbemServices for the real service, schemas are compiled by the system's
// MOF compiler, and classes are deleted through IWbemLocator. The client
// calls (WbemConnection) are those of the embedded machine only; on Windows
// they answer WBEM_E_NOT_SUPPORTED but for DeleteClass.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/com.h"

namespace platform {

// ---- results ------------------------------------------------------------------------

inline constexpr HRESULT WBEM_S_NO_ERROR = 0;
inline constexpr HRESULT WBEM_S_FALSE = 1;
inline constexpr HRESULT WBEM_E_FAILED = MakeHResult(0x80041001);
inline constexpr HRESULT WBEM_E_NOT_FOUND = MakeHResult(0x80041002);
inline constexpr HRESULT WBEM_E_ACCESS_DENIED = MakeHResult(0x80041003);
inline constexpr HRESULT WBEM_E_PROVIDER_FAILURE = MakeHResult(0x80041004);
inline constexpr HRESULT WBEM_E_TYPE_MISMATCH = MakeHResult(0x80041005);
inline constexpr HRESULT WBEM_E_OUT_OF_MEMORY = MakeHResult(0x80041006);
inline constexpr HRESULT WBEM_E_INVALID_PARAMETER = MakeHResult(0x80041008);
inline constexpr HRESULT WBEM_E_NOT_SUPPORTED = MakeHResult(0x8004100C);
inline constexpr HRESULT WBEM_E_INVALID_NAMESPACE = MakeHResult(0x8004100E);
inline constexpr HRESULT WBEM_E_INVALID_OBJECT = MakeHResult(0x8004100F);
inline constexpr HRESULT WBEM_E_INVALID_CLASS = MakeHResult(0x80041010);
inline constexpr HRESULT WBEM_E_PROVIDER_NOT_FOUND = MakeHResult(0x80041011);
inline constexpr HRESULT WBEM_E_PROVIDER_LOAD_FAILURE = MakeHResult(0x80041013);
inline constexpr HRESULT WBEM_E_INVALID_QUERY = MakeHResult(0x80041017);
inline constexpr HRESULT WBEM_E_INVALID_SYNTAX = MakeHResult(0x80041021);
inline constexpr HRESULT WBEM_E_PROVIDER_NOT_CAPABLE = MakeHResult(0x80041024);
inline constexpr HRESULT WBEM_E_INVALID_METHOD = MakeHResult(0x8004102E);
inline constexpr HRESULT WBEM_E_INVALID_METHOD_PARAMETERS = MakeHResult(0x8004102F);

// ---- instances ------------------------------------------------------------------------

// The CIM types of the classes' properties and method parameters.
enum class CimType { kString, kUint32, kSint32, kBoolean, kStringArray, kSint32Array };

class CInstance {
  public:
    explicit CInstance(std::u16string className = {});
    ~CInstance();
    CInstance(const CInstance&) = delete;
    CInstance& operator=(const CInstance&) = delete;
    std::unique_ptr<CInstance> Clone() const;

    const std::u16string& GetClassName() const { return className_; }

    // Setters replace the property (names compared without regard to case)
    // and keep the order of first setting; false when memory runs out.
    bool SetCHString(std::u16string_view name, std::u16string_view value);
    bool SetDWORD(std::u16string_view name, std::uint32_t value);
    bool SetSint32(std::u16string_view name, std::int32_t value);
    bool Setbool(std::u16string_view name, bool value);
    bool SetStringArray(std::u16string_view name, const std::vector<std::u16string>& values);
    bool SetSint32Array(std::u16string_view name, const std::vector<std::int32_t>& values);
    // A copy of `value` (VT_NULL or VT_EMPTY: the property is not present).
    bool SetVariant(std::u16string_view name, const VARIANT& value);
    void SetNull(std::u16string_view name);

    // False when the property is not present or holds another type (no
    // conversion, except that a uint32 reads an sint32 and the other way
    // round, as both are VT_I4).
    bool GetCHString(std::u16string_view name, std::u16string* value) const;
    bool GetDWORD(std::u16string_view name, std::uint32_t* value) const;
    bool GetSint32(std::u16string_view name, std::int32_t* value) const;
    bool Getbool(std::u16string_view name, bool* value) const;
    // A copy of the property (VT_EMPTY when not present); false when absent.
    bool GetVariant(std::u16string_view name, VARIANT* value) const;
    // The property itself, null when not present.
    const VARIANT* Find(std::u16string_view name) const;
    bool IsNull(std::u16string_view name) const { return Find(name) == nullptr; }

    // The names of the present properties, in the order they were set.
    std::vector<std::u16string> PropertyNames() const;

  private:
    struct Property;
    Property* Slot(std::u16string_view name);
    std::u16string className_;
    std::vector<std::unique_ptr<Property>> properties_;
};

// Where the instances a provider delivers go.
class MethodContext {
  public:
    MethodContext() = default;
    MethodContext(const MethodContext&) = delete;
    MethodContext& operator=(const MethodContext&) = delete;
    void Deliver(std::unique_ptr<CInstance> instance) { delivered_.push_back(std::move(instance)); }
    std::vector<std::unique_ptr<CInstance>>& Delivered() { return delivered_; }

  private:
    std::vector<std::unique_ptr<CInstance>> delivered_;
};

// A WQL query the framework understands: "SELECT * FROM <class>" with an
// optional "WHERE <property> = <value>" (a quoted text or a number).
// Keywords and names in any case.
struct CFrameworkQuery {
    std::u16string text;
    std::u16string className;
    std::u16string whereProperty;  // empty without a WHERE
    std::u16string whereValue;
    bool whereIsText = false;
};
// WBEM_E_INVALID_QUERY for anything else ("line 1, column N: <reason>" in
// *error when given).
HRESULT ParseWqlQuery(std::u16string_view text, CFrameworkQuery* query,
                      std::string* error = nullptr);
// Whether an instance satisfies the query's WHERE (always true without one);
// texts are compared without regard to case, numbers by value.
bool QueryMatches(const CFrameworkQuery& query, const CInstance& instance);

// ---- the provider base class -------------------------------------------------------------

class Provider {
  public:
    // Registers the object with the framework under (namespace, class).
    Provider(std::u16string_view className, std::u16string_view nameSpace);
    virtual ~Provider();
    Provider(const Provider&) = delete;
    Provider& operator=(const Provider&) = delete;

    const std::u16string& ClassName() const { return className_; }
    const std::u16string& NameSpace() const { return nameSpace_; }

    // Each answers WBEM_E_PROVIDER_NOT_CAPABLE unless overridden.
    virtual HRESULT EnumerateInstances(MethodContext* context, long flags);
    // The instance holds the request's key properties.
    virtual HRESULT GetObject(CInstance* instance, long flags);
    virtual HRESULT ExecQuery(MethodContext* context, const CFrameworkQuery& query, long flags);
    virtual HRESULT PutInstance(const CInstance& instance, long flags);
    virtual HRESULT DeleteInstance(const CInstance& instance, long flags);
    // `inParams` and `outParams` may be null.
    virtual HRESULT ExecMethod(const CInstance& instance, std::u16string_view method,
                               CInstance* inParams, CInstance* outParams, long flags);

    // The provider serving a class of a namespace in this process, or null.
    static Provider* Find(std::u16string_view nameSpace, std::u16string_view className);

  protected:
    // A new instance of the provider's class for delivery into `context`.
    std::unique_ptr<CInstance> CreateNewInstance(MethodContext* context) const;

  private:
    std::u16string className_;
    std::u16string nameSpace_;
};

// ---- the framework as a provider module sees it -----------------------------------------

class CWbemProviderGlue {
  public:
    // A module announces itself under a name at load; false when the
    // framework cannot take it.
    static bool FrameworkLoginDLL(std::u16string_view name);
    // True when the module may unload: none of the objects the glue factory
    // handed out is alive. The login is ended then.
    static bool FrameworkLogoffDLL(std::u16string_view name);
    // Objects handed out by glue factories and still alive.
    static long ObjectsInUse();
};

// The class factory for a provider CLSID: its objects serve every Provider
// registered in the process. Made with one reference.
class CWbemGlueFactory final : public IClassFactory {
  public:
    CWbemGlueFactory();
    HRESULT PLATFORM_STDMETHODCALLTYPE QueryInterface(const IID& iid, void** object) override;
    ULONG PLATFORM_STDMETHODCALLTYPE AddRef() override;
    ULONG PLATFORM_STDMETHODCALLTYPE Release() override;
    HRESULT PLATFORM_STDMETHODCALLTYPE CreateInstance(IUnknown* outer, const IID& iid,
                                                      void** object) override;
    HRESULT PLATFORM_STDMETHODCALLTYPE LockServer(BOOL lock) override;

  private:
    ~CWbemGlueFactory();
    long references_ = 1;
};

// The interface the embedded management service asks a provider object for
// (on Windows the object answers IWbemProviderInit and IWbemServices).
inline constexpr IID IID_IEmbeddedProviderServices{
    0x5d0c3f2a, 0x81b4, 0x4e57, {0x9a, 0x61, 0x3c, 0x0e, 0x72, 0xd4, 0x19, 0xb8}};

// ---- schemas --------------------------------------------------------------------------------

// A class of the repository as far as clients need it.
struct QualifierValue {
    std::u16string name;
    std::u16string value;  // text of the value; "true" for a flag qualifier
};
struct PropertySchema {
    std::u16string name;
    CimType type = CimType::kString;
    std::vector<QualifierValue> qualifiers;
    bool key = false;
};
struct ParameterSchema {
    std::u16string name;
    CimType type = CimType::kString;
    bool in = false;
    bool out = false;
    int id = -1;
};
struct MethodSchema {
    std::u16string name;
    CimType returnType = CimType::kUint32;
    std::vector<ParameterSchema> parameters;  // in ID order
    std::vector<QualifierValue> qualifiers;
};
struct ClassSchema {
    std::u16string nameSpace;
    std::u16string name;
    std::vector<QualifierValue> qualifiers;
    std::vector<PropertySchema> properties;
    std::vector<MethodSchema> methods;
    const PropertySchema* FindProperty(std::u16string_view name) const;
    const MethodSchema* FindMethod(std::u16string_view name) const;  // exact case
};

// Compiles MOF text into the repository (IMofCompiler::CompileBuffer). The
// embedded machine compiles the subset this system's schema uses: comments,
// #pragma namespace, qualifier lists, classes with properties (string,
// boolean, uint32, sint32, arrays of string and sint32) and methods, and
// instances with text, number, boolean, array and $alias values. The text
// is checked whole before anything is stored; an error leaves
// "line N: <reason>" in *error and the repository as it was
// (WBEM_E_INVALID_SYNTAX).
HRESULT CompileMof(std::string_view text, std::string* error);

// ---- clients -----------------------------------------------------------------------------------

// A connection to one namespace ("root\Orvelle", or "\\.\root\Orvelle").
class WbemConnection {
  public:
    // WBEM_E_INVALID_NAMESPACE when the namespace does not exist.
    static HRESULT Connect(std::u16string_view nameSpace, std::unique_ptr<WbemConnection>* out);
    ~WbemConnection();
    WbemConnection(const WbemConnection&) = delete;
    WbemConnection& operator=(const WbemConnection&) = delete;

    // WBEM_E_INVALID_CLASS for a class the namespace does not have.
    HRESULT GetClass(std::u16string_view className, ClassSchema* schema);
    HRESULT DeleteClass(std::u16string_view className);
    // The instance whose key properties `keys` holds (for a singleton class:
    // no keys).
    HRESULT GetObject(const CInstance& keys, std::unique_ptr<CInstance>* instance);
    HRESULT EnumerateInstances(std::u16string_view className,
                               std::vector<std::unique_ptr<CInstance>>* instances);
    HRESULT ExecQuery(std::u16string_view wql, std::vector<std::unique_ptr<CInstance>>* instances);
    HRESULT PutInstance(const CInstance& instance);
    HRESULT DeleteInstance(const CInstance& keys);
    // `inParams` may be null; *outParams gets the method's out-parameters
    // object (class "__PARAMETERS") when the method succeeded.
    HRESULT ExecMethod(std::u16string_view className, std::u16string_view method,
                       const CInstance* inParams, std::unique_ptr<CInstance>* outParams);

  private:
    explicit WbemConnection(std::u16string nameSpace);
    std::u16string nameSpace_;
};

}  // namespace platform
