#include "manage/ovaswmi_tcreatelist.h"

#include "common/boundary.h"
#include "config/product_key.h"
#include "config/reg_key_ex.h"
#include "config/registry_list.h"
#include "manage/wmi_arrays.h"
#include "manage/wmi_common.h"
#include "rules/printer_create_list.h"
#include "trace/trace.h"

namespace ovsvc {

using platform::CInstance;
using platform::DWORD;
using platform::HRESULT;

namespace {
constexpr DWORD kSlackBytes = 128;
}

COVASWMITCreateList::COVASWMITCreateList() : Provider(u"OVASPrinterCreateList", kWmiNamespace) {}

HRESULT COVASWMITCreateList::EnumerateInstances(platform::MethodContext* context, long flags) {
    return RunAtBoundary("COVASWMITCreateList::EnumerateInstances", platform::WBEM_E_FAILED, [&] {
        std::unique_ptr<CInstance> instance = CreateNewInstance(context);
        const HRESULT hr = GetObject(instance.get(), flags);
        if (platform::SUCCEEDED(hr)) {
            context->Deliver(std::move(instance));
        }
        return hr;
    });
}

HRESULT COVASWMITCreateList::GetObject(CInstance* instance, long) {
    return RunAtBoundary("COVASWMITCreateList::GetObject", platform::WBEM_E_FAILED, [&] {
        CRegKeyEx key;
        if (key.Open(platform::HKEY_LOCAL_MACHINE, kProductKey, platform::KEY_READ) !=
            platform::ERROR_SUCCESS) {
            return platform::WBEM_S_NO_ERROR;
        }
        std::vector<std::u16string> list;
        DWORD type = 0;
        DWORD size = 0;
        if (key.QueryValue(u"PrinterCreateList", &type, nullptr, &size) ==
                platform::ERROR_SUCCESS &&
            size != 0) {
            std::vector<std::byte> data(size + kSlackBytes);
            DWORD got = static_cast<DWORD>(data.size());
            if (key.QueryValue(u"PrinterCreateList", &type, data.data(), &got) ==
                platform::ERROR_SUCCESS) {
                data.resize(got);
                list = StringListFromData(type, data);
            }
        }
        for (const std::u16string& line : list) {
            OVTRACE(INF | NORM, "Alias New=%s", line);
        }
        instance->SetStringArray(u"PrinterCreateList", list);
        return platform::WBEM_S_NO_ERROR;
    });
}

HRESULT COVASWMITCreateList::PutInstance(const CInstance& instance, long) {
    return RunAtBoundary("COVASWMITCreateList::PutInstance", platform::WBEM_E_FAILED, [&] {
        if (!WMI::IsAdmin()) {
            return platform::E_ACCESSDENIED;
        }
        StringArray list;
        const ArrayRead read = ReadArrayProperty(instance, u"PrinterCreateList", &list);
        if (read == ArrayRead::kAbsent) {
            OVTRACE(ERR | NORM, "PrinterCreateList not present");
            return platform::WBEM_E_FAILED;
        }
        OVTRACE(INF | NORM, "look for PrinterCreateList = %d", 1);
        if (read != ArrayRead::kRead) {
            return platform::WBEM_E_FAILED;
        }
        CPrinterCreateList check;
        if (check.Parse(list.items) != 1) {
            OVTRACE(ERR | NORM, "Syntax error in PrinterCreateList");
            return platform::WBEM_E_FAILED;
        }
        // As stored before: a failure to open the key or to write is not
        // reported to the caller, only traced.
        CRegKeyEx key;
        if (key.Open(platform::HKEY_LOCAL_MACHINE, kProductKey, platform::KEY_ALL_ACCESS) !=
            platform::ERROR_SUCCESS) {
            OVTRACE(WRN | NORM, "Cannot open %s", std::u16string(kProductKey));
            return platform::WBEM_S_NO_ERROR;
        }
        std::u16string data;
        for (const std::u16string& line : list.items) {
            data += line;
            data += u'\0';
        }
        if (key.SetValue(u"PrinterCreateList", platform::REG_MULTI_SZ, data.data(),
                         static_cast<DWORD>(data.size() * 2)) != platform::ERROR_SUCCESS) {
            OVTRACE(WRN | NORM, "Cannot write PrinterCreateList");
        }
        return platform::WBEM_S_NO_ERROR;
    });
}

HRESULT COVASWMITCreateList::ExecQuery(platform::MethodContext*, const platform::CFrameworkQuery&,
                                       long) {
    return platform::WBEM_E_PROVIDER_NOT_CAPABLE;
}
HRESULT COVASWMITCreateList::DeleteInstance(const CInstance&, long) {
    return platform::WBEM_E_PROVIDER_NOT_CAPABLE;
}
HRESULT COVASWMITCreateList::ExecMethod(const CInstance&, std::u16string_view, CInstance*,
                                        CInstance*, long) {
    return platform::WBEM_E_PROVIDER_NOT_CAPABLE;
}

}  // namespace ovsvc
