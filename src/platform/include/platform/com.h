// COM and OLE automation essentials, laid out as Windows lays them out, so
// that an object made by the module is a real COM object on Windows and the
// same object on the embedded machine.
//
//   - HRESULTs with Windows' names and values, and their names as text;
//   - interfaces as C++ classes with Windows' vtable layout (no virtual
//     destructors): IUnknown, IClassFactory, IDispatch;
//   - BSTR (length-prefixed UTF-16, allocated by the platform's allocator:
//     oleaut32's on Windows), SAFEARRAY of BSTR, VT_I4 and VT_BOOL elements
//     (oleaut32's on Windows), VARIANT and the conversions the automation
//     calls need (VT_EMPTY, VT_I2, VT_I4, VT_UI1, VT_R8, VT_BOOL, VT_BSTR,
//     VT_ERROR, and VT_BYREF forms of them and of VT_VARIANT);
//   - late binding driven by a description of the type library
//     (DispatchGetIDsOfNames, DispatchInvoke), the same code on both
//     backends;
//   - the registrar script of a REGISTRY resource, parsed and applied by the
//     platform itself (RegistrarRun), and type-library registration;
//   - the client side: CoInitializeEx, CLSIDFromProgID, CoCreateInstance.
//
// The embedded machine finds an in-process server through the registry as
// Windows does (HKCR\CLSID\{clsid}\InprocServer32): the module file named
// there, "<dir>/X.dll", is the host library "<dir>/libX.so" (or "<dir>/X.so").
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/error.h"
#include "platform/kernel.h"
#include "platform/resources.h"

#if defined(_WIN32) && !defined(_WIN64)
#define PLATFORM_STDMETHODCALLTYPE __stdcall
#else
#define PLATFORM_STDMETHODCALLTYPE
#endif

namespace platform {

using HRESULT = std::int32_t;
using ULONG = std::uint32_t;
using UINT = unsigned int;
using LCID = DWORD;
using DISPID = LONG;
using VARTYPE = std::uint16_t;
using VARIANT_BOOL = std::int16_t;
using SCODE = LONG;
using BSTR = char16_t*;
using IID = GUID;
using CLSID = GUID;

constexpr HRESULT MakeHResult(std::uint32_t value) {
    return static_cast<HRESULT>(value);
}
constexpr bool SUCCEEDED(HRESULT hr) {
    return hr >= 0;
}
constexpr bool FAILED(HRESULT hr) {
    return hr < 0;
}
// HRESULT_FROM_WIN32: 0x8007xxxx for an error number, S_OK for 0.
constexpr HRESULT HResultFromWin32(DWORD error) {
    return error == 0 ? 0 : MakeHResult(0x80070000u | (error & 0xFFFFu));
}

inline constexpr HRESULT S_OK = 0;
inline constexpr HRESULT S_FALSE = 1;
inline constexpr HRESULT E_NOTIMPL = MakeHResult(0x80004001);
inline constexpr HRESULT E_NOINTERFACE = MakeHResult(0x80004002);
inline constexpr HRESULT E_POINTER = MakeHResult(0x80004003);
inline constexpr HRESULT E_ABORT = MakeHResult(0x80004004);
inline constexpr HRESULT E_FAIL = MakeHResult(0x80004005);
inline constexpr HRESULT E_UNEXPECTED = MakeHResult(0x8000FFFF);
inline constexpr HRESULT E_ACCESSDENIED = MakeHResult(0x80070005);
inline constexpr HRESULT E_OUTOFMEMORY = MakeHResult(0x8007000E);
inline constexpr HRESULT E_INVALIDARG = MakeHResult(0x80070057);
inline constexpr HRESULT CLASS_E_NOAGGREGATION = MakeHResult(0x80040110);
inline constexpr HRESULT CLASS_E_CLASSNOTAVAILABLE = MakeHResult(0x80040111);
inline constexpr HRESULT REGDB_E_READREGDB = MakeHResult(0x80040150);
inline constexpr HRESULT REGDB_E_WRITEREGDB = MakeHResult(0x80040151);
inline constexpr HRESULT REGDB_E_CLASSNOTREG = MakeHResult(0x80040154);
inline constexpr HRESULT CO_E_NOTINITIALIZED = MakeHResult(0x800401F0);
inline constexpr HRESULT CO_E_CLASSSTRING = MakeHResult(0x800401F3);
inline constexpr HRESULT CO_E_DLLNOTFOUND = MakeHResult(0x800401F8);
inline constexpr HRESULT CO_E_ERRORINDLL = MakeHResult(0x800401F9);
inline constexpr HRESULT DISP_E_UNKNOWNINTERFACE = MakeHResult(0x80020001);
inline constexpr HRESULT DISP_E_MEMBERNOTFOUND = MakeHResult(0x80020003);
inline constexpr HRESULT DISP_E_PARAMNOTFOUND = MakeHResult(0x80020004);
inline constexpr HRESULT DISP_E_TYPEMISMATCH = MakeHResult(0x80020005);
inline constexpr HRESULT DISP_E_UNKNOWNNAME = MakeHResult(0x80020006);
inline constexpr HRESULT DISP_E_NONAMEDARGS = MakeHResult(0x80020007);
inline constexpr HRESULT DISP_E_BADVARTYPE = MakeHResult(0x80020008);
inline constexpr HRESULT DISP_E_EXCEPTION = MakeHResult(0x80020009);
inline constexpr HRESULT DISP_E_OVERFLOW = MakeHResult(0x8002000A);
inline constexpr HRESULT DISP_E_BADINDEX = MakeHResult(0x8002000B);
inline constexpr HRESULT DISP_E_BADPARAMCOUNT = MakeHResult(0x8002000E);
inline constexpr HRESULT DISP_E_PARAMNOTOPTIONAL = MakeHResult(0x8002000F);
inline constexpr HRESULT TYPE_E_REGISTRYACCESS = MakeHResult(0x8002801C);
inline constexpr HRESULT TYPE_E_LIBNOTREGISTERED = MakeHResult(0x8002801D);
inline constexpr HRESULT TYPE_E_ELEMENTNOTFOUND = MakeHResult(0x8002802B);
inline constexpr HRESULT TYPE_E_CANTLOADLIBRARY = MakeHResult(0x80029C4A);

// "DISP_E_UNKNOWNNAME", "E_POINTER" ... for the values above; otherwise
// "HRESULT_FROM_WIN32(<n>)" for 0x8007xxxx and "" for anything else.
std::string HResultName(HRESULT hr);

// ---- GUIDs ----------------------------------------------------------------------

// Reads "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}" (any case), as
// CLSIDFromString reads a GUID; false for anything else.
bool GuidFromString(std::u16string_view text, GUID* guid);

inline constexpr GUID IID_NULL{};
inline constexpr GUID IID_IUnknown{0x00000000, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
inline constexpr GUID IID_IClassFactory{0x00000001, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
inline constexpr GUID IID_IDispatch{0x00020400, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};

// ---- interfaces -------------------------------------------------------------------
//
// Destructors are protected and not virtual: a virtual destructor would add
// slots that Windows' layout does not have. Objects delete themselves in
// Release.

class IUnknown {
  public:
    virtual HRESULT PLATFORM_STDMETHODCALLTYPE QueryInterface(const IID& iid, void** object) = 0;
    virtual ULONG PLATFORM_STDMETHODCALLTYPE AddRef() = 0;
    virtual ULONG PLATFORM_STDMETHODCALLTYPE Release() = 0;

  protected:
    ~IUnknown() = default;
};

class IClassFactory : public IUnknown {
  public:
    virtual HRESULT PLATFORM_STDMETHODCALLTYPE CreateInstance(IUnknown* outer, const IID& iid,
                                                              void** object) = 0;
    virtual HRESULT PLATFORM_STDMETHODCALLTYPE LockServer(BOOL lock) = 0;

  protected:
    ~IClassFactory() = default;
};

// Windows' type-information object; the platform hands it through untouched.
class ITypeInfo;

struct VARIANT;
struct SAFEARRAY;

struct DISPPARAMS {
    VARIANT* rgvarg = nullptr;  // the arguments, last first
    DISPID* rgdispidNamedArgs = nullptr;
    UINT cArgs = 0;
    UINT cNamedArgs = 0;
};

struct EXCEPINFO {
    WORD wCode = 0;
    WORD wReserved = 0;
    BSTR bstrSource = nullptr;
    BSTR bstrDescription = nullptr;
    BSTR bstrHelpFile = nullptr;
    DWORD dwHelpContext = 0;
    void* pvReserved = nullptr;
    void* pfnDeferredFillIn = nullptr;
    SCODE scode = 0;
};

inline constexpr WORD DISPATCH_METHOD = 0x1;
inline constexpr WORD DISPATCH_PROPERTYGET = 0x2;
inline constexpr WORD DISPATCH_PROPERTYPUT = 0x4;
inline constexpr WORD DISPATCH_PROPERTYPUTREF = 0x8;
inline constexpr DISPID DISPID_UNKNOWN = -1;
inline constexpr LCID LOCALE_USER_DEFAULT = 0x0400;

class IDispatch : public IUnknown {
  public:
    virtual HRESULT PLATFORM_STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) = 0;
    virtual HRESULT PLATFORM_STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID lcid,
                                                           ITypeInfo** info) = 0;
    virtual HRESULT PLATFORM_STDMETHODCALLTYPE GetIDsOfNames(const IID& iid, char16_t** names,
                                                             UINT count, LCID lcid,
                                                             DISPID* ids) = 0;
    virtual HRESULT PLATFORM_STDMETHODCALLTYPE Invoke(DISPID id, const IID& iid, LCID lcid,
                                                      WORD flags, DISPPARAMS* params,
                                                      VARIANT* result, EXCEPINFO* exception,
                                                      UINT* argumentError) = 0;

  protected:
    ~IDispatch() = default;
};

// ---- BSTR ---------------------------------------------------------------------------

// Null for an allocation failure; SysAllocString(null) is null too.
BSTR SysAllocString(const char16_t* text);
BSTR SysAllocStringLen(const char16_t* text, UINT length);  // text may be null: zero-filled
void SysFreeString(BSTR text) noexcept;
UINT SysStringLen(BSTR text) noexcept;  // 0 for null
// The text of a BSTR (a null BSTR is the empty text).
inline std::u16string_view BstrView(BSTR text) noexcept {
    return text == nullptr ? std::u16string_view{} : std::u16string_view(text, SysStringLen(text));
}

// ---- SAFEARRAY ----------------------------------------------------------------------
//
// Windows' layout: the bounds are stored last dimension first, so
// rgsabound[0] describes dimension cDims. Dimensions are counted from 1 in
// the calls below, as SafeArrayGetLBound counts them. The embedded machine
// builds arrays of VT_BSTR, VT_I4 and VT_BOOL elements (others: null from
// the creators, E_INVALIDARG); an element put is copied (a BSTR too) and an
// element got is a copy the caller frees.

struct SAFEARRAYBOUND {
    ULONG cElements = 0;
    LONG lLbound = 0;
};

struct SAFEARRAY {
    std::uint16_t cDims;
    std::uint16_t fFeatures;
    ULONG cbElements;
    ULONG cLocks;
    void* pvData;
    SAFEARRAYBOUND rgsabound[1];
};
static_assert(sizeof(SAFEARRAY) == (sizeof(void*) == 8 ? 32 : 24), "Windows' SAFEARRAY layout");

inline constexpr std::uint16_t FADF_HAVEVARTYPE = 0x0080;
inline constexpr std::uint16_t FADF_BSTR = 0x0100;

// `bounds` in the caller's order (first dimension first). Null when the type
// is not one the platform builds or memory runs out.
SAFEARRAY* SafeArrayCreate(VARTYPE type, UINT dimensions, const SAFEARRAYBOUND* bounds);
SAFEARRAY* SafeArrayCreateVector(VARTYPE type, LONG lowerBound, ULONG elements);
// Frees the array and what its elements own; E_INVALIDARG for null.
HRESULT SafeArrayDestroy(SAFEARRAY* array) noexcept;
UINT SafeArrayGetDim(SAFEARRAY* array) noexcept;  // 0 for null
// DISP_E_BADINDEX for a dimension outside 1..cDims, E_INVALIDARG for null.
HRESULT SafeArrayGetLBound(SAFEARRAY* array, UINT dimension, LONG* bound) noexcept;
HRESULT SafeArrayGetUBound(SAFEARRAY* array, UINT dimension, LONG* bound) noexcept;
HRESULT SafeArrayGetVartype(SAFEARRAY* array, VARTYPE* type) noexcept;
// `indices` one per dimension, first dimension first; DISP_E_BADINDEX when
// one is out of its bounds. For VT_BSTR arrays `value` is a BSTR* receiving
// a copy (get) or a BSTR to copy (put).
HRESULT SafeArrayGetElement(SAFEARRAY* array, const LONG* indices, void* value) noexcept;
HRESULT SafeArrayPutElement(SAFEARRAY* array, const LONG* indices, void* value) noexcept;
HRESULT SafeArrayCopy(SAFEARRAY* array, SAFEARRAY** copy) noexcept;

// Owner of one array.
class UniqueSafeArray {
  public:
    UniqueSafeArray() noexcept = default;
    explicit UniqueSafeArray(SAFEARRAY* array) noexcept : p_(array) {}
    UniqueSafeArray(UniqueSafeArray&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
    UniqueSafeArray& operator=(UniqueSafeArray&& other) noexcept {
        if (this != &other) {
            reset(std::exchange(other.p_, nullptr));
        }
        return *this;
    }
    UniqueSafeArray(const UniqueSafeArray&) = delete;
    UniqueSafeArray& operator=(const UniqueSafeArray&) = delete;
    ~UniqueSafeArray() { reset(); }
    void reset(SAFEARRAY* array = nullptr) noexcept {
        if (p_ != nullptr) {
            SafeArrayDestroy(p_);
        }
        p_ = array;
    }
    SAFEARRAY* get() const noexcept { return p_; }
    [[nodiscard]] SAFEARRAY* release() noexcept { return std::exchange(p_, nullptr); }
    explicit operator bool() const noexcept { return p_ != nullptr; }

  private:
    SAFEARRAY* p_ = nullptr;
};

// One-dimensional arrays from and to C++ containers (lower bound 0 when
// made). The readers take any one-dimensional array of the type, whatever
// its lower bound, and fail (false) for another type, another number of
// dimensions or an element that cannot be read.
UniqueSafeArray MakeStringArray(const std::vector<std::u16string>& values);
UniqueSafeArray MakeLongArray(const std::vector<LONG>& values);
bool ReadStringArray(SAFEARRAY* array, std::vector<std::u16string>* values);
bool ReadLongArray(SAFEARRAY* array, std::vector<LONG>* values);

// ---- VARIANT ------------------------------------------------------------------------

inline constexpr VARTYPE VT_EMPTY = 0;
inline constexpr VARTYPE VT_NULL = 1;
inline constexpr VARTYPE VT_I2 = 2;
inline constexpr VARTYPE VT_I4 = 3;
inline constexpr VARTYPE VT_R8 = 5;
inline constexpr VARTYPE VT_BSTR = 8;
inline constexpr VARTYPE VT_DISPATCH = 9;
inline constexpr VARTYPE VT_ERROR = 10;
inline constexpr VARTYPE VT_BOOL = 11;
inline constexpr VARTYPE VT_VARIANT = 12;
inline constexpr VARTYPE VT_UNKNOWN = 13;
inline constexpr VARTYPE VT_UI1 = 17;
inline constexpr VARTYPE VT_HRESULT = 25;
inline constexpr VARTYPE VT_ARRAY = 0x2000;
inline constexpr VARTYPE VT_BYREF = 0x4000;
inline constexpr VARIANT_BOOL VARIANT_TRUE = -1;
inline constexpr VARIANT_BOOL VARIANT_FALSE = 0;

// The record member of VARIANT's union (VT_RECORD), named so that the union
// holds no anonymous type.
struct VariantRecord {
    void* pvRecord;
    void* pRecInfo;
};

struct VARIANT {
    VARTYPE vt = VT_EMPTY;
    WORD wReserved1 = 0;
    WORD wReserved2 = 0;
    WORD wReserved3 = 0;
    union {
        LONG lVal;
        std::int16_t iVal;
        std::uint8_t bVal;
        double dblVal;
        VARIANT_BOOL boolVal;
        SCODE scode;
        BSTR bstrVal;
        IUnknown* punkVal;
        IDispatch* pdispVal;
        SAFEARRAY* parray;
        LONG* plVal;
        std::int16_t* piVal;
        std::uint8_t* pbVal;
        double* pdblVal;
        VARIANT_BOOL* pboolVal;
        BSTR* pbstrVal;
        VARIANT* pvarVal;
        void* byref;
        VariantRecord record;
    };
    VARIANT() : record{nullptr, nullptr} {}
};
static_assert(sizeof(VARIANT) == 8 + 2 * sizeof(void*), "Windows' VARIANT layout");

void VariantInit(VARIANT* v) noexcept;
// Frees what the variant owns (a BSTR, a reference, an array) and leaves it
// VT_EMPTY. DISP_E_BADVARTYPE for a type it does not know (left unchanged).
HRESULT VariantClear(VARIANT* v) noexcept;
// Copies with a new BSTR or reference. The target is cleared first.
HRESULT VariantCopy(VARIANT* target, const VARIANT* source) noexcept;
// VariantChangeType for the types listed at the top, as Windows converts
// them: VT_BYREF sources are read through; numbers out of the target's range
// give DISP_E_OVERFLOW; text that is no number (or no "True"/"False" for
// VT_BOOL) DISP_E_TYPEMISMATCH; VT_NULL, objects and arrays
// DISP_E_TYPEMISMATCH; an unknown type DISP_E_BADVARTYPE. `target` may be
// `source`.
HRESULT VariantChangeType(VARIANT* target, const VARIANT* source, VARTYPE type) noexcept;

// Owner of a VARIANT: cleared on destruction.
class UniqueVariant {
  public:
    UniqueVariant() noexcept = default;
    UniqueVariant(const UniqueVariant&) = delete;
    UniqueVariant& operator=(const UniqueVariant&) = delete;
    ~UniqueVariant() { VariantClear(&v_); }
    VARIANT* get() noexcept { return &v_; }
    const VARIANT* get() const noexcept { return &v_; }
    VARIANT* operator->() noexcept { return &v_; }

  private:
    VARIANT v_;
};

// ---- type-library descriptions and late binding ------------------------------------------

inline constexpr unsigned short PARAMFLAG_FIN = 0x1;
inline constexpr unsigned short PARAMFLAG_FOUT = 0x2;
inline constexpr unsigned short PARAMFLAG_FRETVAL = 0x8;

struct ParamDescription {
    std::u16string name;
    VARTYPE type = VT_EMPTY;  // e.g. VT_BSTR, VT_I4, VT_BOOL, VT_BYREF | VT_VARIANT
    unsigned short flags = 0;
};

struct MethodDescription {
    DISPID id = 0;
    std::u16string name;
    std::u16string help;
    std::vector<ParamDescription> params;  // in declaration order
};

struct InterfaceDescription {
    IID iid;
    std::u16string name;
    std::u16string help;
    bool dual = false;
    std::vector<MethodDescription> methods;
};

struct CoClassDescription {
    CLSID clsid;
    std::u16string name;
    std::u16string help;
    IID defaultInterface;
};

// What a type library holds, as far as the platform uses it.
struct TypeLibDescription {
    GUID libid;
    std::u16string name;
    std::u16string help;
    WORD major = 1;
    WORD minor = 0;
    std::vector<InterfaceDescription> interfaces;
    std::vector<CoClassDescription> classes;
};

// Calls method `id` of `object` with `arguments`, one per declared parameter
// in declaration order, already converted to the declared types: in
// parameters hold their values (VT_I4, VT_BSTR, VT_BOOL ...), out parameters
// are VT_BYREF pointers. Provided by the object's implementation.
using MethodInvoker = HRESULT (*)(IDispatch* object, DISPID id, VARIANT* arguments);

// IDispatch::GetIDsOfNames over a description: names[0] is a method (any
// case), later names its parameters (their positions). Unknown names get
// DISPID_UNKNOWN and the call answers DISP_E_UNKNOWNNAME.
HRESULT DispatchGetIDsOfNames(const InterfaceDescription& description, char16_t** names, UINT count,
                              DISPID* ids);
// IDispatch::Invoke over a description, as Windows' standard dispatch does
// it: the interface id must be IID_NULL (DISP_E_UNKNOWNINTERFACE); unknown
// members and flags without DISPATCH_METHOD or DISPATCH_PROPERTYGET give
// DISP_E_MEMBERNOTFOUND; every parameter but the return value must be given,
// by position or by name (DISP_E_BADPARAMCOUNT, DISP_E_PARAMNOTFOUND,
// DISP_E_PARAMNOTOPTIONAL); in arguments are converted with
// VariantChangeType (its errors, with *argumentError the argument's index in
// rgvarg); an out VARIANT* takes a VT_BYREF | VT_VARIANT argument, an out
// long* a VT_BYREF | VT_I4 one (VT_BYREF | VT_VARIANT too). The return value
// goes to `result` (when given) as a variant.
HRESULT DispatchInvoke(IDispatch* object, const InterfaceDescription& description,
                       MethodInvoker invoker, DISPID id, const IID& iid, WORD flags,
                       DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception,
                       UINT* argumentError);

// The type information of an interface from the type library (resource
// TYPELIB 1) of `module`. Windows loads the library; the embedded machine
// has no type-information objects and answers TYPE_E_CANTLOADLIBRARY.
HRESULT LoadModuleTypeInfo(HMODULE module, const IID& iid, ITypeInfo** info);
// Releases a type-information object handed out above.
void ReleaseTypeInfo(ITypeInfo* info) noexcept;

// ---- registration ---------------------------------------------------------------------

// Registers the type library of `module` (resource TYPELIB 1) as
// RegisterTypeLib does: HKCR\TypeLib\{libid}\<major.minor> (its help string,
// "0\win64" the module's path, FLAGS, HELPDIR) and HKCR\Interface\{iid} of
// every dual interface (its name, ProxyStubClsid32 and TypeLib). Windows
// reads the library from the module; the embedded machine writes the keys
// from the description.
HRESULT RegisterTypeLibrary(HMODULE module, const TypeLibDescription& description,
                            std::u16string_view helpDirectory);
// Removes those keys again (UnRegisterTypeLib); TYPE_E_REGISTRYACCESS when
// the library was not registered.
HRESULT UnregisterTypeLibrary(const TypeLibDescription& description);

// Registrar scripts (the REGISTRY resources of in-process servers):
//
//   HKCR                                   a root: HKCR, HKLM, HKEY_CLASSES_ROOT,
//   {                                      HKEY_LOCAL_MACHINE
//       [NoRemove|ForceRemove|Delete] name [= s 'text'] [{ ... }]     a key
//       val name = s 'text' | d 123 | d 0x1F | b 0A0B | m 'a\0b'      a value
//   }
//
// Names and texts are bare words or quoted with ' (a doubled '' inside is
// one quote). %NAME% is replaced by the replacement of that name anywhere in
// the script (%% is a %); an unknown name is an error. A key's "= s" text is
// its default value. Registering creates keys and values (ForceRemove
// deletes the key's old subtree first, Delete only deletes the key).
// Unregistering removes the values the script names and the keys it names,
// deepest first, except NoRemove keys and keys that still hold subkeys the
// script did not create. The whole script is parsed before anything is
// written: a syntax error changes nothing and leaves "line N: <reason>" in
// *error (also for a registry write that fails, with the key's name).
struct RegistrarReplacement {
    std::u16string name;  // without the % signs, compared ignoring case
    std::u16string value;
};
// S_OK; DISP_E_EXCEPTION for a syntax error; HResultFromWin32 of a failed
// registry call (then part of the script may have been applied).
HRESULT RegistrarRun(std::u16string_view script,
                     const std::vector<RegistrarReplacement>& replacements, bool doRegister,
                     std::string* error);

// ---- the client side ----------------------------------------------------------------------

inline constexpr DWORD COINIT_APARTMENTTHREADED = 0x2;
inline constexpr DWORD COINIT_MULTITHREADED = 0x0;
inline constexpr DWORD CLSCTX_INPROC_SERVER = 0x1;

// S_OK, or S_FALSE when the thread was initialised already.
HRESULT CoInitializeEx(DWORD flags);
void CoUninitialize() noexcept;
// HKCR\<progId>\CLSID; CO_E_CLASSSTRING when the ProgID is not registered.
HRESULT CLSIDFromProgID(std::u16string_view progId, CLSID* clsid);
// Creates an object of a registered in-process class and asks it for `iid`.
// CO_E_NOTINITIALIZED on a thread without CoInitializeEx; REGDB_E_CLASSNOTREG
// when the class has no InprocServer32; HResultFromWin32(ERROR_MOD_NOT_FOUND)
// when its module cannot be loaded; the class factory's own results.
HRESULT CoCreateInstance(const CLSID& clsid, IUnknown* outer, DWORD context, const IID& iid,
                         void** object);

// Owner of one interface reference.
template <typename Interface>
class ComPtr {
  public:
    ComPtr() noexcept = default;
    ComPtr(const ComPtr&) = delete;
    ComPtr& operator=(const ComPtr&) = delete;
    ComPtr(ComPtr&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
    ComPtr& operator=(ComPtr&& other) noexcept {
        if (this != &other) {
            reset();
            p_ = std::exchange(other.p_, nullptr);
        }
        return *this;
    }
    ~ComPtr() { reset(); }
    void reset() noexcept {
        if (p_ != nullptr) {
            std::exchange(p_, nullptr)->Release();
        }
    }
    Interface* get() const noexcept { return p_; }
    Interface* operator->() const noexcept { return p_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }
    // For calls that hand out a reference: releases the old one first.
    void** put() noexcept {
        reset();
        return reinterpret_cast<void**>(&p_);
    }

  private:
    Interface* p_ = nullptr;
};

}  // namespace platform
