// VARIANT copies and conversions, the same on both backends; allocation and
// clearing are the backend's (oleaut32 on Windows).
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "platform/com.h"
#include "platform/text.h"

namespace platform {
namespace {

// A source value, read through VT_BYREF.
struct Value {
    VARTYPE type = VT_EMPTY;
    double number = 0;    // numeric types and VT_BOOL (-1 / 0)
    std::u16string text;  // VT_BSTR
};

HRESULT Read(const VARIANT* v, Value* out) {
    VARTYPE type = v->vt;
    if ((type & VT_ARRAY) != 0) {
        return DISP_E_TYPEMISMATCH;
    }
    const bool byRef = (type & VT_BYREF) != 0;
    type = static_cast<VARTYPE>(type & ~VT_BYREF);
    if (byRef && v->byref == nullptr) {
        return E_INVALIDARG;
    }
    if (byRef && type == VT_VARIANT) {
        const VARIANT* inner = v->pvarVal;
        if ((inner->vt & VT_BYREF) != 0 && (inner->vt & ~VT_BYREF) == VT_VARIANT) {
            return DISP_E_BADVARTYPE;  // a reference to a reference
        }
        return Read(inner, out);
    }
    out->type = type;
    switch (type) {
        case VT_EMPTY:
            return byRef ? DISP_E_BADVARTYPE : S_OK;
        case VT_NULL:
        case VT_DISPATCH:
        case VT_UNKNOWN:
        case VT_ERROR:
            return DISP_E_TYPEMISMATCH;
        case VT_I2:
            out->number = byRef ? *v->piVal : v->iVal;
            return S_OK;
        case VT_I4:
            out->number = byRef ? *v->plVal : v->lVal;
            return S_OK;
        case VT_UI1:
            out->number = byRef ? *v->pbVal : v->bVal;
            return S_OK;
        case VT_R8:
            out->number = byRef ? *v->pdblVal : v->dblVal;
            return S_OK;
        case VT_BOOL:
            out->number = (byRef ? *v->pboolVal : v->boolVal) != 0 ? -1 : 0;
            return S_OK;
        case VT_BSTR:
            out->text = std::u16string(BstrView(byRef ? *v->pbstrVal : v->bstrVal));
            return S_OK;
        default:
            return DISP_E_BADVARTYPE;
    }
}

bool IsBlank(char16_t c) {
    return c == u' ' || c == u'\t';
}

std::u16string_view Trim(std::u16string_view s) {
    while (!s.empty() && IsBlank(s.front())) {
        s.remove_prefix(1);
    }
    while (!s.empty() && IsBlank(s.back())) {
        s.remove_suffix(1);
    }
    return s;
}

// A decimal number: optional sign, digits, optional fraction.
std::optional<double> ParseNumber(std::u16string_view text) {
    text = Trim(text);
    std::string ascii;
    bool digits = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char16_t c = text[i];
        if (c >= u'0' && c <= u'9') {
            digits = true;
        } else if (!((c == u'-' || c == u'+') && i == 0) && c != u'.') {
            return std::nullopt;
        }
        ascii.push_back(static_cast<char>(c));
    }
    if (!digits || ascii.find('.') != ascii.rfind('.')) {
        return std::nullopt;
    }
    return std::strtod(ascii.c_str(), nullptr);
}

HRESULT AsNumber(const Value& value, double* number) {
    if (value.type == VT_BSTR) {
        const std::optional<double> parsed = ParseNumber(value.text);
        if (!parsed) {
            return DISP_E_TYPEMISMATCH;
        }
        *number = *parsed;
        return S_OK;
    }
    *number = value.number;
    return S_OK;
}

// Round half to even, as the automation conversions round.
double RoundEven(double x) {
    return std::nearbyint(x);
}

std::u16string NumberText(const Value& value) {
    char buffer[40];
    if (value.type == VT_R8) {
        std::snprintf(buffer, sizeof buffer, "%.15g", value.number);
    } else {
        std::snprintf(buffer, sizeof buffer, "%.0f", value.number);
    }
    return ToUtf16(buffer);
}

}  // namespace

void VariantInit(VARIANT* v) noexcept {
    v->vt = VT_EMPTY;
    v->wReserved1 = v->wReserved2 = v->wReserved3 = 0;
    v->record = {nullptr, nullptr};
}

HRESULT VariantCopy(VARIANT* target, const VARIANT* source) noexcept {
    if (target == nullptr || source == nullptr) {
        return E_INVALIDARG;
    }
    if (target == source) {
        return S_OK;
    }
    const HRESULT cleared = VariantClear(target);
    if (FAILED(cleared)) {
        return cleared;
    }
    VARIANT copy = *source;
    if (source->vt == VT_BSTR && source->bstrVal != nullptr) {
        copy.bstrVal = SysAllocStringLen(source->bstrVal, SysStringLen(source->bstrVal));
        if (copy.bstrVal == nullptr) {
            return E_OUTOFMEMORY;
        }
    } else if ((source->vt == VT_DISPATCH || source->vt == VT_UNKNOWN) &&
               source->punkVal != nullptr) {
        source->punkVal->AddRef();
    } else if ((source->vt & VT_ARRAY) != 0 && (source->vt & VT_BYREF) == 0 &&
               source->parray != nullptr) {
        const HRESULT hr = SafeArrayCopy(source->parray, &copy.parray);
        if (FAILED(hr)) {
            return hr;
        }
    }
    *target = copy;
    return S_OK;
}

HRESULT VariantChangeType(VARIANT* target, const VARIANT* source, VARTYPE type) noexcept {
    if (target == nullptr || source == nullptr) {
        return E_INVALIDARG;
    }
    try {
        Value value;
        HRESULT hr = Read(source, &value);
        if (FAILED(hr)) {
            return hr;
        }
        VARIANT out;
        out.vt = type;
        double number = 0;
        switch (type) {
            case VT_EMPTY:
                if (value.type != VT_EMPTY) {
                    return DISP_E_TYPEMISMATCH;
                }
                break;
            case VT_I2:
            case VT_I4:
            case VT_UI1: {
                if (FAILED(hr = AsNumber(value, &number))) {
                    return hr;
                }
                const double rounded = RoundEven(number);
                const double low = type == VT_I2 ? -32768.0 : type == VT_I4 ? -2147483648.0 : 0.0;
                const double high = type == VT_I2 ? 32767.0 : type == VT_I4 ? 2147483647.0 : 255.0;
                if (!(rounded >= low && rounded <= high)) {
                    return DISP_E_OVERFLOW;
                }
                if (type == VT_I2) {
                    out.iVal = static_cast<std::int16_t>(rounded);
                } else if (type == VT_I4) {
                    out.lVal = static_cast<LONG>(rounded);
                } else {
                    out.bVal = static_cast<std::uint8_t>(rounded);
                }
                break;
            }
            case VT_R8:
                if (FAILED(hr = AsNumber(value, &number))) {
                    return hr;
                }
                out.dblVal = number;
                break;
            case VT_BOOL:
                if (value.type == VT_BSTR) {
                    const std::u16string_view t = Trim(value.text);
                    if (NamesEqual(t, u"True")) {
                        number = 1;
                    } else if (NamesEqual(t, u"False")) {
                        number = 0;
                    } else if (FAILED(hr = AsNumber(value, &number))) {
                        return hr;
                    }
                } else {
                    number = value.number;
                }
                out.boolVal = number != 0 ? VARIANT_TRUE : VARIANT_FALSE;
                break;
            case VT_BSTR: {
                std::u16string text;
                if (value.type == VT_BSTR) {
                    text = value.text;
                } else if (value.type == VT_BOOL) {
                    text = value.number != 0 ? u"True" : u"False";
                } else if (value.type != VT_EMPTY) {
                    text = NumberText(value);
                }
                out.bstrVal = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
                if (out.bstrVal == nullptr) {
                    return E_OUTOFMEMORY;
                }
                break;
            }
            default:
                return DISP_E_BADVARTYPE;
        }
        if (FAILED(hr = VariantClear(target))) {
            VariantClear(&out);
            return hr;
        }
        *target = out;
        return S_OK;
    } catch (...) {
        return E_OUTOFMEMORY;
    }
}

}  // namespace platform
