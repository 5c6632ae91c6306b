#include "manage/ovaswmi_tlist.h"

#include <cstring>

#include "common/boundary.h"
#include "config/product_key.h"
#include "config/reg_key_ex.h"
#include "config/registry_list.h"
#include "manage/wmi_arrays.h"
#include "manage/wmi_common.h"
#include "ovsvc.h"
#include "rules/translation_table.h"
#include "trace/trace.h"

namespace ovsvc {

using platform::CInstance;
using platform::DWORD;
using platform::HRESULT;

namespace {

constexpr DWORD kSlackBytes = 128;
constexpr DWORD kFirstReadBytes = 1024;
constexpr DWORD kLargestRead = 0xF0000;

// The current form as stored: nullopt when the key or the value is missing;
// an empty list for a value of another type or of size 0.
std::optional<std::vector<std::u16string>> ReadNameTranslationEx() {
    CRegKeyEx key;
    if (key.Open(platform::HKEY_LOCAL_MACHINE, kProductKey, platform::KEY_READ) !=
        platform::ERROR_SUCCESS) {
        return std::nullopt;
    }
    DWORD type = 0;
    DWORD size = 0;
    if (key.QueryValue(u"NameTranslationEx", &type, nullptr, &size) != platform::ERROR_SUCCESS) {
        return std::nullopt;
    }
    std::vector<std::u16string> list;
    const bool text = type == platform::REG_SZ || type == platform::REG_EXPAND_SZ ||
                      type == platform::REG_MULTI_SZ;
    if (!text || size == 0) {
        return list;
    }
    std::vector<std::byte> data(size + kSlackBytes);
    DWORD got = static_cast<DWORD>(data.size());
    if (key.QueryValue(u"NameTranslationEx", &type, data.data(), &got) != platform::ERROR_SUCCESS) {
        return list;
    }
    data.resize(got);
    return StringListFromData(type, data);
}

void SetEmptyArray(CInstance* instance, const char16_t* name) {
    instance->SetStringArray(name, {});
}

// Tabs and spaces off both ends.
std::u16string Trimmed(const std::u16string& text) {
    const std::size_t first = text.find_first_not_of(u" \t");
    if (first == std::u16string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(u" \t") - first + 1);
}

void ReloadTable() {
    if (OVADLLLoadTranslationList() < 1) {
        OVTRACE(ERR | NORM, "OVADLLLoadTranslationList failed");
    }
}

}  // namespace

COVASWMITList::COVASWMITList() : Provider(u"OVASTranslationList", kWmiNamespace) {}

std::vector<std::u16string> COVASWMITList::ReadNameTranslationList() {
    std::vector<std::u16string> kept;
    CRegKeyEx key;
    if (key.Open(platform::HKEY_LOCAL_MACHINE, kProductKey, platform::KEY_READ) !=
        platform::ERROR_SUCCESS) {
        return kept;
    }
    std::vector<std::byte> data(kFirstReadBytes);
    DWORD type = 0;
    DWORD size = static_cast<DWORD>(data.size());
    platform::LSTATUS status = key.QueryValue(u"NameTranslation", &type, data.data(), &size);
    while (status == platform::ERROR_MORE_DATA && size < kLargestRead) {
        data.assign(size + kFirstReadBytes, std::byte{0});
        size = static_cast<DWORD>(data.size());
        status = key.QueryValue(u"NameTranslation", &type, data.data(), &size);
    }
    if (status != platform::ERROR_SUCCESS || type != platform::REG_MULTI_SZ) {
        return kept;
    }
    data.resize(size);
    const std::vector<std::u16string> strings = StringListFromData(type, data);
    for (std::size_t i = 0; i + 1 < strings.size(); i += 2) {
        if (strings[i + 1].empty()) {
            continue;
        }
        for (const std::u16string* s : {&strings[i], &strings[i + 1]}) {
            OVTRACE(INF | NORM, "Alias=%s", *s);
            kept.push_back(*s);
        }
    }
    return kept;
}

bool COVASWMITList::WriteNameTranslationList(const std::vector<std::u16string>& pairs) {
    CRegKeyEx key;
    if (key.Open(platform::HKEY_LOCAL_MACHINE, kProductKey, platform::KEY_ALL_ACCESS) !=
        platform::ERROR_SUCCESS) {
        return false;
    }
    std::u16string data;
    for (const std::u16string& s : pairs) {
        data += s;
        data += u'\0';
    }
    data += u'\0';
    return key.SetValue(u"NameTranslation", platform::REG_MULTI_SZ, data.data(),
                        static_cast<DWORD>(data.size() * 2)) == platform::ERROR_SUCCESS;
}

HRESULT COVASWMITList::EnumerateInstances(platform::MethodContext* context, long flags) {
    return RunAtBoundary("COVASWMITList::EnumerateInstances", platform::WBEM_E_FAILED, [&] {
        std::unique_ptr<CInstance> instance = CreateNewInstance(context);
        const HRESULT hr = GetObject(instance.get(), flags);
        if (platform::SUCCEEDED(hr)) {
            context->Deliver(std::move(instance));
        }
        return hr;
    });
}

HRESULT COVASWMITList::GetObject(CInstance* instance, long) {
    return RunAtBoundary("COVASWMITList::GetObject", platform::WBEM_E_FAILED, [&] {
        if (const auto current = ReadNameTranslationEx()) {
            for (const std::u16string& line : *current) {
                OVTRACE(INF | NORM, "Alias New=%s", line);
            }
            instance->SetStringArray(u"TranslationListEx", *current);
            SetEmptyArray(instance, u"TranslationList");
            return platform::WBEM_S_NO_ERROR;
        }
        instance->SetStringArray(u"TranslationList", ReadNameTranslationList());
        SetEmptyArray(instance, u"TranslationListEx");
        return platform::WBEM_S_NO_ERROR;
    });
}

HRESULT COVASWMITList::PutInstance(const CInstance& instance, long) {
    return RunAtBoundary("COVASWMITList::PutInstance", platform::WBEM_E_FAILED, [&] {
        if (!WMI::IsAdmin()) {
            return platform::E_ACCESSDENIED;
        }
        StringArray older;
        const ArrayRead olderRead = ReadArrayProperty(instance, u"TranslationList", &older);
        if (olderRead == ArrayRead::kAbsent) {
            OVTRACE(ERR | NORM, "TranslationList nor present");
            return platform::WBEM_E_FAILED;
        }
        StringArray current;
        const ArrayRead currentRead = ReadArrayProperty(instance, u"TranslationListEx", &current);
        OVTRACE(INF | NORM, "look for TranslationListEx = %d",
                currentRead == ArrayRead::kAbsent ? 0 : 1);
        if (olderRead == ArrayRead::kNotOneDimension) {
            OVTRACE(ERR | NORM, "TranslationList dimension not 1");
            return platform::WBEM_E_FAILED;
        }
        if (olderRead != ArrayRead::kRead) {
            return platform::WBEM_E_FAILED;
        }
        if (currentRead != ArrayRead::kAbsent) {
            if (currentRead == ArrayRead::kNotOneDimension) {
                OVTRACE(ERR | NORM, "TranslationListEx dimension not 1");
                return platform::WBEM_E_FAILED;
            }
            if (currentRead != ArrayRead::kRead) {
                return platform::WBEM_E_FAILED;
            }
            OVTRACE(INF | NORM,
                    "TranslationListEx present with dwLines = %d,IndexStart=%d,Elements=%d",
                    static_cast<int>(current.items.size()), current.lower, current.upper);
            if (current.items.size() >= 3) {
                for (std::size_t i = 0; i < current.items.size(); ++i) {
                    OVTRACE(INF | NORM, "(%d)=%s", static_cast<int>(i), current.items[i]);
                }
                CTranslationTable check;
                if (FillTable(&check, current.items) != 1) {
                    OVTRACE(ERR | NORM, "Syntax error in NameTranslationEx");
                    return platform::WBEM_E_FAILED;
                }
                CRegKeyEx key;
                if (key.Open(platform::HKEY_LOCAL_MACHINE, kProductKey, platform::KEY_ALL_ACCESS) ==
                    platform::ERROR_SUCCESS) {
                    std::u16string data;
                    for (const std::u16string& line : current.items) {
                        data += line;
                        data += u'\0';
                    }
                    key.SetValue(u"NameTranslationEx", platform::REG_MULTI_SZ, data.data(),
                                 static_cast<DWORD>(data.size() * 2));
                    key.DeleteValue(u"NameTranslation");
                }
                ReloadTable();
                return platform::WBEM_S_NO_ERROR;
            }
        }
        OVTRACE(INF | NORM, "Read TranslationList...");
        std::vector<std::u16string> pairs;
        for (std::size_t i = 0; i + 1 < older.items.size(); i += 2) {
            const std::u16string name = Trimmed(older.items[i]);
            const std::u16string templ = Trimmed(older.items[i + 1]);
            if (name.empty() || templ.empty()) {
                OVTRACE(ERR | NORM, "empty name or template in TranslationList (%d)",
                        static_cast<int>(i));
                return platform::WBEM_E_FAILED;
            }
            pairs.push_back(name);
            pairs.push_back(templ);
        }
        if (!WriteNameTranslationList(pairs)) {
            return platform::WBEM_E_FAILED;
        }
        CRegKeyEx key;
        if (key.Open(platform::HKEY_LOCAL_MACHINE, kProductKey, platform::KEY_ALL_ACCESS) ==
            platform::ERROR_SUCCESS) {
            key.DeleteValue(u"NameTranslationEx");
        }
        ReloadTable();
        return platform::WBEM_S_NO_ERROR;
    });
}

HRESULT COVASWMITList::ExecQuery(platform::MethodContext*, const platform::CFrameworkQuery&, long) {
    return platform::WBEM_E_PROVIDER_NOT_CAPABLE;
}
HRESULT COVASWMITList::DeleteInstance(const CInstance&, long) {
    return platform::WBEM_E_PROVIDER_NOT_CAPABLE;
}
HRESULT COVASWMITList::ExecMethod(const CInstance&, std::u16string_view, CInstance*, CInstance*,
                                  long) {
    return platform::WBEM_E_PROVIDER_NOT_CAPABLE;
}

}  // namespace ovsvc
