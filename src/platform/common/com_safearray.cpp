// One-dimensional arrays to and from C++ containers, over the backend's
// SAFEARRAY calls.
#include "platform/com.h"

namespace platform {

namespace {

// The bounds of a one-dimensional array of `type`; false otherwise.
bool VectorBounds(SAFEARRAY* array, VARTYPE type, LONG* lower, LONG* upper) {
    VARTYPE actual = VT_EMPTY;
    return array != nullptr && SafeArrayGetDim(array) == 1 &&
           SUCCEEDED(SafeArrayGetVartype(array, &actual)) && actual == type &&
           SUCCEEDED(SafeArrayGetLBound(array, 1, lower)) &&
           SUCCEEDED(SafeArrayGetUBound(array, 1, upper));
}

}  // namespace

UniqueSafeArray MakeStringArray(const std::vector<std::u16string>& values) {
    UniqueSafeArray array(SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(values.size())));
    for (LONG i = 0; array && i < static_cast<LONG>(values.size()); ++i) {
        const std::u16string& text = values[static_cast<std::size_t>(i)];
        BSTR element = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
        const HRESULT hr =
            element == nullptr ? E_OUTOFMEMORY : SafeArrayPutElement(array.get(), &i, element);
        SysFreeString(element);
        if (FAILED(hr)) {
            array.reset();
        }
    }
    return array;
}

UniqueSafeArray MakeLongArray(const std::vector<LONG>& values) {
    UniqueSafeArray array(SafeArrayCreateVector(VT_I4, 0, static_cast<ULONG>(values.size())));
    for (LONG i = 0; array && i < static_cast<LONG>(values.size()); ++i) {
        LONG value = values[static_cast<std::size_t>(i)];
        if (FAILED(SafeArrayPutElement(array.get(), &i, &value))) {
            array.reset();
        }
    }
    return array;
}

bool ReadStringArray(SAFEARRAY* array, std::vector<std::u16string>* values) {
    LONG lower = 0;
    LONG upper = -1;
    if (!VectorBounds(array, VT_BSTR, &lower, &upper)) {
        return false;
    }
    values->clear();
    for (long long i = lower; i <= upper; ++i) {
        const LONG index = static_cast<LONG>(i);
        BSTR element = nullptr;
        if (FAILED(SafeArrayGetElement(array, &index, &element))) {
            return false;
        }
        values->emplace_back(BstrView(element));
        SysFreeString(element);
    }
    return true;
}

bool ReadLongArray(SAFEARRAY* array, std::vector<LONG>* values) {
    LONG lower = 0;
    LONG upper = -1;
    if (!VectorBounds(array, VT_I4, &lower, &upper)) {
        return false;
    }
    values->clear();
    for (long long i = lower; i <= upper; ++i) {
        const LONG index = static_cast<LONG>(i);
        LONG value = 0;
        if (FAILED(SafeArrayGetElement(array, &index, &value))) {
            return false;
        }
        values->push_back(value);
    }
    return true;
}

}  // namespace platform
