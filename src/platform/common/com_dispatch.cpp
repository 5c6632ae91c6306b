// Late binding over a type library's description: the name look-up and the
// argument handling of IDispatch, as Windows' standard dispatch does them.
#include <vector>

#include "platform/com.h"
#include "platform/text.h"

namespace platform {
namespace {

const MethodDescription* FindMethod(const InterfaceDescription& d, DISPID id) {
    for (const MethodDescription& m : d.methods) {
        if (m.id == id) {
            return &m;
        }
    }
    return nullptr;
}

bool IsRetval(const ParamDescription& p) {
    return (p.flags & PARAMFLAG_FRETVAL) != 0;
}

bool IsOut(const ParamDescription& p) {
    return (p.flags & PARAMFLAG_FOUT) != 0;
}

// Binds an out parameter to the caller's argument: the pointer the method
// writes through.
HRESULT BindOut(const ParamDescription& p, VARIANT* argument, VARIANT* bound) {
    const VARTYPE wanted = static_cast<VARTYPE>(p.type & ~VT_BYREF);
    if ((argument->vt & VT_BYREF) == 0 || argument->byref == nullptr) {
        return DISP_E_TYPEMISMATCH;
    }
    const VARTYPE given = static_cast<VARTYPE>(argument->vt & ~VT_BYREF);
    if (given == wanted) {
        bound->vt = p.type;
        bound->byref = argument->byref;
        return S_OK;
    }
    if (given == VT_VARIANT && wanted != VT_VARIANT) {
        // A script's variable: the method writes a typed value, stored into
        // the variable afterwards (see Invoke).
        return S_FALSE;
    }
    return DISP_E_TYPEMISMATCH;
}

}  // namespace

HRESULT DispatchGetIDsOfNames(const InterfaceDescription& description, char16_t** names, UINT count,
                              DISPID* ids) {
    if (names == nullptr || ids == nullptr) {
        return E_INVALIDARG;
    }
    if (count == 0) {
        return S_OK;
    }
    HRESULT hr = S_OK;
    const MethodDescription* method = nullptr;
    for (const MethodDescription& m : description.methods) {
        if (names[0] != nullptr && NamesEqual(m.name, names[0])) {
            method = &m;
        }
    }
    ids[0] = method != nullptr ? method->id : DISPID_UNKNOWN;
    if (method == nullptr) {
        hr = DISP_E_UNKNOWNNAME;
    }
    for (UINT i = 1; i < count; ++i) {
        ids[i] = DISPID_UNKNOWN;
        if (method != nullptr && names[i] != nullptr) {
            for (std::size_t k = 0; k < method->params.size(); ++k) {
                if (NamesEqual(method->params[k].name, names[i])) {
                    ids[i] = static_cast<DISPID>(k);
                }
            }
        }
        if (ids[i] == DISPID_UNKNOWN) {
            hr = DISP_E_UNKNOWNNAME;
        }
    }
    return hr;
}

HRESULT DispatchInvoke(IDispatch* object, const InterfaceDescription& description,
                       MethodInvoker invoker, DISPID id, const IID& iid, WORD flags,
                       DISPPARAMS* params, VARIANT* result, EXCEPINFO* /*exception*/,
                       UINT* argumentError) {
    if (!(iid == IID_NULL)) {
        return DISP_E_UNKNOWNINTERFACE;
    }
    const MethodDescription* method = FindMethod(description, id);
    if (method == nullptr || (flags & (DISPATCH_METHOD | DISPATCH_PROPERTYGET)) == 0) {
        return DISP_E_MEMBERNOTFOUND;
    }
    if (params == nullptr || (params->cArgs > 0 && params->rgvarg == nullptr) ||
        params->cNamedArgs > params->cArgs ||
        (params->cNamedArgs > 0 && params->rgdispidNamedArgs == nullptr)) {
        return E_INVALIDARG;
    }
    const std::size_t declared = method->params.size();
    std::size_t wanted = 0;
    for (const ParamDescription& p : method->params) {
        wanted += IsRetval(p) ? 0 : 1;
    }
    if (params->cArgs != wanted) {
        return DISP_E_BADPARAMCOUNT;
    }
    // Which rgvarg entry feeds each declared parameter: named arguments
    // first (rgvarg[0 .. cNamedArgs-1]), the positional ones last first.
    std::vector<int> source(declared, -1);
    const UINT positional = params->cArgs - params->cNamedArgs;
    for (UINT i = 0; i < positional; ++i) {
        source[i] = static_cast<int>(params->cArgs - 1 - i);
    }
    for (UINT n = 0; n < params->cNamedArgs; ++n) {
        const DISPID position = params->rgdispidNamedArgs[n];
        if (position < 0 || static_cast<std::size_t>(position) >= declared ||
            IsRetval(method->params[position]) || source[position] != -1) {
            if (argumentError != nullptr) {
                *argumentError = n;
            }
            return DISP_E_PARAMNOTFOUND;
        }
        source[position] = static_cast<int>(n);
    }

    std::vector<VARIANT> bound(declared);
    std::vector<VARIANT> values(declared);  // typed results for script variables
    std::vector<VARIANT*> variables(declared, nullptr);
    LONG retval = 0;
    VARIANT retvalVariant;
    auto clearAll = [&] {
        for (std::size_t k = 0; k < declared; ++k) {
            if (!IsOut(method->params[k])) {
                VariantClear(&bound[k]);
            }
            VariantClear(&values[k]);
        }
    };
    for (std::size_t k = 0; k < declared; ++k) {
        const ParamDescription& p = method->params[k];
        if (IsRetval(p)) {
            const VARTYPE type = static_cast<VARTYPE>(p.type & ~VT_BYREF);
            bound[k].vt = p.type;
            if (type == VT_VARIANT) {
                bound[k].pvarVal = &retvalVariant;
            } else {
                bound[k].plVal = &retval;
            }
            continue;
        }
        if (source[k] < 0) {
            clearAll();
            return DISP_E_PARAMNOTOPTIONAL;
        }
        VARIANT* argument = &params->rgvarg[source[k]];
        HRESULT hr = S_OK;
        if (IsOut(p)) {
            hr = BindOut(p, argument, &bound[k]);
            if (hr == S_FALSE) {
                variables[k] = argument->pvarVal;
                values[k].vt = static_cast<VARTYPE>(p.type & ~VT_BYREF);
                bound[k].vt = p.type;
                bound[k].byref = &values[k].lVal;
                hr = S_OK;
            }
        } else if (argument->vt == VT_ERROR && argument->scode == DISP_E_PARAMNOTFOUND) {
            hr = DISP_E_PARAMNOTOPTIONAL;  // a missing argument
        } else {
            hr = VariantChangeType(&bound[k], argument, p.type);
        }
        if (FAILED(hr)) {
            if (argumentError != nullptr) {
                *argumentError = static_cast<UINT>(source[k]);
            }
            clearAll();
            return hr;
        }
    }
    const HRESULT hr = invoker(object, id, bound.data());
    if (SUCCEEDED(hr)) {
        for (std::size_t k = 0; k < declared; ++k) {
            if (variables[k] != nullptr) {
                VariantClear(variables[k]);
                *variables[k] = values[k];
                VariantInit(&values[k]);
            }
        }
        for (std::size_t k = 0; k < declared; ++k) {
            if (IsRetval(method->params[k]) && result != nullptr) {
                VariantClear(result);
                if ((method->params[k].type & ~VT_BYREF) == VT_VARIANT) {
                    *result = retvalVariant;
                    VariantInit(&retvalVariant);
                } else {
                    result->vt = VT_I4;
                    result->lVal = retval;
                }
            }
        }
    }
    VariantClear(&retvalVariant);
    clearAll();
    return hr;
}

}  // namespace platform
