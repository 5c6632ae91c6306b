#include "manage/wmi_arrays.h"

namespace ovsvc {

ArrayRead ReadArrayProperty(const platform::CInstance& instance, std::u16string_view name,
                            StringArray* array) {
    const platform::VARIANT* v = instance.Find(name);
    if (v == nullptr || v->vt != (platform::VT_ARRAY | platform::VT_BSTR) || v->parray == nullptr) {
        return ArrayRead::kAbsent;
    }
    platform::SAFEARRAY* sa = v->parray;
    if (platform::SafeArrayGetDim(sa) != 1) {
        return ArrayRead::kNotOneDimension;
    }
    if (platform::FAILED(platform::SafeArrayGetLBound(sa, 1, &array->lower)) ||
        platform::FAILED(platform::SafeArrayGetUBound(sa, 1, &array->upper))) {
        return ArrayRead::kNoBounds;
    }
    array->items.clear();
    for (long long i = array->lower; i <= array->upper; ++i) {
        const auto index = static_cast<platform::LONG>(i);
        platform::BSTR element = nullptr;
        if (platform::FAILED(platform::SafeArrayGetElement(sa, &index, &element))) {
            return ArrayRead::kNoBounds;
        }
        array->items.emplace_back(platform::BstrView(element));
        platform::SysFreeString(element);
    }
    return ArrayRead::kRead;
}

}  // namespace ovsvc
