// SAFEARRAYs on the embedded machine, laid out as Windows lays them out: the
// element type sits in the four bytes before the descriptor
// (FADF_HAVEVARTYPE), the bounds are stored last dimension first, and the
// elements follow one another with the first index varying fastest.
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "platform/com.h"

namespace platform {

namespace {

constexpr std::size_t kPrefix = 16;  // keeps the descriptor aligned

ULONG ElementSize(VARTYPE type) {
    switch (type) {
        case VT_BSTR:
            return sizeof(BSTR);
        case VT_I4:
            return sizeof(LONG);
        case VT_BOOL:
            return sizeof(VARIANT_BOOL);
        default:
            return 0;
    }
}

VARTYPE TypeOf(const SAFEARRAY* array) {
    VARTYPE type = VT_EMPTY;
    std::memcpy(&type, reinterpret_cast<const unsigned char*>(array) - 4, sizeof type);
    return type;
}

std::size_t ElementCount(const SAFEARRAY* array) {
    std::size_t count = 1;
    for (unsigned i = 0; i < array->cDims; ++i) {
        count *= array->rgsabound[i].cElements;
    }
    return count;
}

// The element's offset for indices given first dimension first; false when
// one is out of bounds.
bool Offset(const SAFEARRAY* array, const LONG* indices, std::size_t* offset) {
    std::size_t position = 0;
    std::size_t stride = 1;
    for (unsigned d = 0; d < array->cDims; ++d) {
        const SAFEARRAYBOUND& bound = array->rgsabound[array->cDims - 1 - d];
        const long long at = static_cast<long long>(indices[d]) - bound.lLbound;
        if (at < 0 || at >= static_cast<long long>(bound.cElements)) {
            return false;
        }
        position += static_cast<std::size_t>(at) * stride;
        stride *= bound.cElements;
    }
    *offset = position * array->cbElements;
    return true;
}

}  // namespace

SAFEARRAY* SafeArrayCreate(VARTYPE type, UINT dimensions, const SAFEARRAYBOUND* bounds) {
    const ULONG size = ElementSize(type);
    if (size == 0 || dimensions == 0 || dimensions > 0xFFFF || bounds == nullptr) {
        return nullptr;
    }
    long double total = size;
    for (UINT i = 0; i < dimensions; ++i) {
        total *= bounds[i].cElements;
    }
    if (total > static_cast<long double>(std::numeric_limits<std::uint32_t>::max())) {
        return nullptr;
    }
    const std::size_t descriptor =
        offsetof(SAFEARRAY, rgsabound) + sizeof(SAFEARRAYBOUND) * dimensions;
    auto* block = static_cast<unsigned char*>(std::calloc(1, kPrefix + descriptor));
    if (block == nullptr) {
        return nullptr;
    }
    std::memcpy(block + kPrefix - 4, &type, sizeof type);
    auto* array = reinterpret_cast<SAFEARRAY*>(block + kPrefix);
    array->cDims = static_cast<std::uint16_t>(dimensions);
    array->fFeatures = FADF_HAVEVARTYPE | (type == VT_BSTR ? FADF_BSTR : 0);
    array->cbElements = size;
    for (UINT i = 0; i < dimensions; ++i) {
        array->rgsabound[dimensions - 1 - i] = bounds[i];
    }
    const std::size_t bytes = ElementCount(array) * size;
    array->pvData = std::calloc(bytes == 0 ? 1 : bytes, 1);
    if (array->pvData == nullptr) {
        std::free(block);
        return nullptr;
    }
    return array;
}

SAFEARRAY* SafeArrayCreateVector(VARTYPE type, LONG lowerBound, ULONG elements) {
    const SAFEARRAYBOUND bound{elements, lowerBound};
    return SafeArrayCreate(type, 1, &bound);
}

HRESULT SafeArrayDestroy(SAFEARRAY* array) noexcept {
    if (array == nullptr) {
        return E_INVALIDARG;
    }
    if (TypeOf(array) == VT_BSTR) {
        auto* items = static_cast<BSTR*>(array->pvData);
        for (std::size_t i = 0, n = ElementCount(array); i < n; ++i) {
            SysFreeString(items[i]);
        }
    }
    std::free(array->pvData);
    std::free(reinterpret_cast<unsigned char*>(array) - kPrefix);
    return S_OK;
}

UINT SafeArrayGetDim(SAFEARRAY* array) noexcept {
    return array == nullptr ? 0 : array->cDims;
}

HRESULT SafeArrayGetLBound(SAFEARRAY* array, UINT dimension, LONG* bound) noexcept {
    if (array == nullptr || bound == nullptr) {
        return E_INVALIDARG;
    }
    if (dimension == 0 || dimension > array->cDims) {
        return DISP_E_BADINDEX;
    }
    *bound = array->rgsabound[array->cDims - dimension].lLbound;
    return S_OK;
}

HRESULT SafeArrayGetUBound(SAFEARRAY* array, UINT dimension, LONG* bound) noexcept {
    if (array == nullptr || bound == nullptr) {
        return E_INVALIDARG;
    }
    if (dimension == 0 || dimension > array->cDims) {
        return DISP_E_BADINDEX;
    }
    const SAFEARRAYBOUND& b = array->rgsabound[array->cDims - dimension];
    *bound = static_cast<LONG>(b.lLbound + static_cast<long long>(b.cElements) - 1);
    return S_OK;
}

HRESULT SafeArrayGetVartype(SAFEARRAY* array, VARTYPE* type) noexcept {
    if (array == nullptr || type == nullptr) {
        return E_INVALIDARG;
    }
    *type = TypeOf(array);
    return S_OK;
}

HRESULT SafeArrayGetElement(SAFEARRAY* array, const LONG* indices, void* value) noexcept {
    if (array == nullptr || indices == nullptr || value == nullptr) {
        return E_INVALIDARG;
    }
    std::size_t offset = 0;
    if (!Offset(array, indices, &offset)) {
        return DISP_E_BADINDEX;
    }
    const unsigned char* item = static_cast<unsigned char*>(array->pvData) + offset;
    if (TypeOf(array) == VT_BSTR) {
        BSTR text = nullptr;
        std::memcpy(&text, item, sizeof text);
        BSTR copy = text == nullptr ? nullptr : SysAllocStringLen(text, SysStringLen(text));
        if (text != nullptr && copy == nullptr) {
            return E_OUTOFMEMORY;
        }
        *static_cast<BSTR*>(value) = copy;
        return S_OK;
    }
    std::memcpy(value, item, array->cbElements);
    return S_OK;
}

HRESULT SafeArrayPutElement(SAFEARRAY* array, const LONG* indices, void* value) noexcept {
    if (array == nullptr || indices == nullptr) {
        return E_INVALIDARG;
    }
    std::size_t offset = 0;
    if (!Offset(array, indices, &offset)) {
        return DISP_E_BADINDEX;
    }
    unsigned char* item = static_cast<unsigned char*>(array->pvData) + offset;
    if (TypeOf(array) == VT_BSTR) {
        auto text = static_cast<BSTR>(value);
        BSTR copy = text == nullptr ? nullptr : SysAllocStringLen(text, SysStringLen(text));
        if (text != nullptr && copy == nullptr) {
            return E_OUTOFMEMORY;
        }
        BSTR old = nullptr;
        std::memcpy(&old, item, sizeof old);
        SysFreeString(old);
        std::memcpy(item, &copy, sizeof copy);
        return S_OK;
    }
    if (value == nullptr) {
        return E_INVALIDARG;
    }
    std::memcpy(item, value, array->cbElements);
    return S_OK;
}

HRESULT SafeArrayCopy(SAFEARRAY* array, SAFEARRAY** copy) noexcept {
    if (array == nullptr || copy == nullptr) {
        return E_INVALIDARG;
    }
    *copy = nullptr;
    std::vector<SAFEARRAYBOUND> bounds(array->cDims);
    for (unsigned i = 0; i < array->cDims; ++i) {
        bounds[i] = array->rgsabound[array->cDims - 1 - i];
    }
    SAFEARRAY* made = SafeArrayCreate(TypeOf(array), array->cDims, bounds.data());
    if (made == nullptr) {
        return E_OUTOFMEMORY;
    }
    const std::size_t count = ElementCount(array);
    if (TypeOf(array) == VT_BSTR) {
        auto* from = static_cast<BSTR*>(array->pvData);
        auto* to = static_cast<BSTR*>(made->pvData);
        for (std::size_t i = 0; i < count; ++i) {
            if (from[i] != nullptr) {
                to[i] = SysAllocStringLen(from[i], SysStringLen(from[i]));
                if (to[i] == nullptr) {
                    SafeArrayDestroy(made);
                    return E_OUTOFMEMORY;
                }
            }
        }
    } else {
        std::memcpy(made->pvData, array->pvData, count * array->cbElements);
    }
    *copy = made;
    return S_OK;
}

}  // namespace platform
