#include "manage/ovaswmi.h"

#include <cstring>
#include <vector>

#include "common/boundary.h"
#include "config/product_key.h"
#include "config/product_values.h"
#include "config/provider_values.h"
#include "manage/wmi_common.h"
#include "ovsvc.h"
#include "platform/kernel.h"
#include "platform/resources.h"
#include "res/resources.h"
#include "trace/trace.h"

namespace ovsvc {

using platform::CInstance;
using platform::DWORD;
using platform::HRESULT;

namespace {

constexpr char16_t kServiceName[] = u"OvaspoolSvc";
constexpr DWORD kServiceWait = 30000;
constexpr DWORD kInfinite = 0xFFFFFFFF;
// The printer name and class buffers of OVADLLAddPrinter.
constexpr std::size_t kNameBufferChars = 528;

static_assert(sizeof(OVCHAR) == sizeof(char16_t));
OVCHAR* Ov(char16_t* text) {
    return reinterpret_cast<OVCHAR*>(text);
}
const OVCHAR* Ov(const char16_t* text) {
    return reinterpret_cast<const OVCHAR*>(text);
}

// The in-parameters of a method call, read by type; a missing or mistyped
// one makes the call fail.
class Arguments {
  public:
    explicit Arguments(const CInstance& in) : in_(in) {}
    std::u16string Text(std::u16string_view name) {
        std::u16string value;
        if (!in_.GetCHString(name, &value)) {
            Missing(name);
        } else if (value.size() >= kNameBufferChars) {
            OVTRACE(ERR | NORM, "%s longer than %d characters", std::u16string(name),
                    static_cast<int>(kNameBufferChars - 1));
            ok_ = false;
        }
        return value;
    }
    std::uint32_t Number(std::u16string_view name) {
        std::uint32_t value = 0;
        if (!in_.GetDWORD(name, &value)) {
            Missing(name);
        }
        return value;
    }
    bool Flag(std::u16string_view name) {
        bool value = false;
        if (!in_.Getbool(name, &value)) {
            Missing(name);
        }
        return value;
    }
    bool ok() const { return ok_; }

  private:
    void Missing(std::u16string_view name) {
        OVTRACE(ERR | NORM, "parameter %s missing or of another type", std::u16string(name));
        ok_ = false;
    }
    const CInstance& in_;
    bool ok_ = true;
};

// Appends one properties array to the block: each element with its NUL,
// then one NUL ending the list. An absent array is an empty list.
HRESULT AppendPropertiesList(const CInstance& in, std::u16string_view name,
                             std::vector<char16_t>* block) {
    const platform::VARIANT* v = in.Find(name);
    if (v != nullptr) {
        if (v->vt != (platform::VT_ARRAY | platform::VT_BSTR) || v->parray == nullptr) {
            OVTRACE(ERR | NORM, "parameter %s is no string array", std::u16string(name));
            return platform::WBEM_E_INVALID_METHOD_PARAMETERS;
        }
        platform::SAFEARRAY* psaPrinterProperties = v->parray;
        const platform::UINT dimensions = platform::SafeArrayGetDim(psaPrinterProperties);
        using platform::SafeArrayGetDim;
        OVCHECK(SafeArrayGetDim(psaPrinterProperties) == 1);
        platform::LONG lower = 0;
        platform::LONG upper = -1;
        if (platform::FAILED(platform::SafeArrayGetLBound(psaPrinterProperties, 1, &lower)) ||
            platform::FAILED(platform::SafeArrayGetUBound(psaPrinterProperties, 1, &upper))) {
            return platform::WBEM_E_FAILED;
        }
        // A deeper array is walked along its first dimension, the others at
        // their lower bounds.
        std::vector<platform::LONG> index(dimensions, 0);
        for (platform::UINT d = 1; d < dimensions; ++d) {
            platform::SafeArrayGetLBound(psaPrinterProperties, d + 1, &index[d]);
        }
        for (long long i = lower; i <= upper; ++i) {
            index[0] = static_cast<platform::LONG>(i);
            platform::BSTR element = nullptr;
            if (platform::FAILED(
                    platform::SafeArrayGetElement(psaPrinterProperties, index.data(), &element))) {
                return platform::WBEM_E_FAILED;
            }
            const std::u16string text(platform::BstrView(element));
            platform::SysFreeString(element);
            OVTRACE(INF | NORM, "Add: (%s) (%d)", text, static_cast<int>((text.size() + 1) * 2));
            block->insert(block->end(), text.begin(), text.end());
            block->push_back(0);
        }
    }
    block->push_back(0);
    return platform::WBEM_S_NO_ERROR;
}

// AddPrinter and AddPrinterEx: OVADLLAddPrinter with the arguments each
// form passes, the created name and class into the out-parameters.
HRESULT AddPrinterMethod(bool extended, const CInstance& in, CInstance* out) {
    Arguments a(in);
    std::u16string printerName =
        extended ? a.Text(u"strPrinterName") : a.Text(u"strOrginalPrinterName");
    if (!extended) {
        a.Text(u"strPrinterName");  // taken, not used
    }
    std::u16string printerClass = a.Text(u"strPrinterClass");
    const std::u16string clientIP = extended ? a.Text(u"strClientIP") : u"";
    const std::uint32_t clientType = extended ? a.Number(u"nClientType") : 0;
    const std::u16string driver = extended ? a.Text(u"strClientDriverName") : u"";
    const std::uint32_t printerId = a.Number(u"nPrinterId");
    const std::uint32_t sessionId = a.Number(u"nSessionID");
    const std::u16string clientName = a.Text(u"strClientName");
    const std::u16string userName = a.Text(u"strUserName");
    const std::u16string computerName = extended ? a.Text(u"strComputerName") : u"";
    const std::uint32_t options = extended ? a.Number(u"nPrinterPropertiesOptions") : 0;
    const std::uint32_t flags = a.Number(u"nFlags");
    if (!a.ok()) {
        return platform::WBEM_E_INVALID_METHOD_PARAMETERS;
    }
    std::vector<char16_t> block;
    block.reserve(512);  // the block grows as its lists need
    if (extended) {
        for (const char16_t* list : {u"strTrays", u"strPapers", u"strResolutions"}) {
            if (const HRESULT hr = AppendPropertiesList(in, list, &block); platform::FAILED(hr)) {
                return hr;
            }
        }
    }
    printerName.resize(kNameBufferChars, u'\0');
    printerClass.resize(kNameBufferChars, u'\0');
    const std::int32_t result = OVADLLAddPrinter(
        Ov(printerName.data()), Ov(printerClass.data()), Ov(clientIP.c_str()), clientType,
        Ov(driver.c_str()), printerId, sessionId, Ov(clientName.c_str()), Ov(userName.c_str()),
        Ov(computerName.c_str()), extended ? block.data() : nullptr,
        extended ? static_cast<std::uint32_t>(block.size() * 2) : 0, extended ? 3 : 0, options,
        flags);
    out->SetCHString(u"strCreatedPrinterName", printerName.c_str());
    out->SetCHString(u"strCreatedPrinterClass", printerClass.c_str());
    out->SetDWORD(u"ReturnValue", static_cast<std::uint32_t>(result));
    return platform::WBEM_S_NO_ERROR;
}

}  // namespace

COVASWMI::COVASWMI() : Provider(u"Ovaspool", kWmiNamespace) {}

std::uint32_t COVASWMI::ModuleVersion() {
    OwnModule();
    platform::VersionBlock block;
    platform::VS_FIXEDFILEINFO fixed;
    if (!platform::GetFileVersionInfoW(kModuleFileName, &block) ||
        !platform::VerQueryFixedFileInfo(block, &fixed)) {
        return 0;
    }
    const std::uint32_t major = (fixed.dwFileVersionMS >> 16) & 0xFF;
    const std::uint32_t minor = fixed.dwFileVersionMS & 0xFF;
    const std::uint32_t build = fixed.dwFileVersionLS >> 16;
    return major << 24 | minor << 16 | build;
}

HRESULT COVASWMI::EnumerateInstances(platform::MethodContext* context, long flags) {
    return RunAtBoundary("COVASWMI::EnumerateInstances", platform::WBEM_E_FAILED, [&] {
        std::unique_ptr<CInstance> instance = CreateNewInstance(context);
        const HRESULT hr = GetObject(instance.get(), flags);
        if (platform::SUCCEEDED(hr)) {
            context->Deliver(std::move(instance));
        }
        return hr;
    });
}

HRESULT COVASWMI::GetObject(CInstance* instance, long) {
    return RunAtBoundary("COVASWMI::GetObject", platform::WBEM_E_FAILED, [&] {
        platform::UniqueKey key;
        if (config::OpenProductKey(platform::KEY_READ, &key) != platform::ERROR_SUCCESS) {
            OVTRACE(ERR | NORM, "Cannot open %s", std::u16string(kProductKey));
            return platform::WBEM_E_FAILED;
        }
        instance->SetDWORD(u"Version", ModuleVersion());
        platform::OSVERSIONINFOEXW os;
        platform::GetVersionExW(&os);
        config::ProviderSettings s;
        config::ReadProviderSettings(key.get(), os.dwMajorVersion, &s);
        instance->SetCHString(u"ConnectToClient", *s.connectToClient);
        instance->SetDWORD(u"RightsWin2000", *s.rightsWin2000);
        instance->SetDWORD(u"RightsWinNT", *s.rightsWinNT);
        instance->SetCHString(u"Protocol", *s.protocol);
        instance->SetDWORD(u"TimeOutService", *s.timeOutService);
        instance->SetDWORD(u"TimeOutClient", *s.timeOutClient);
        instance->Setbool(u"ListenToWTS", *s.listenToWTS);
        instance->Setbool(u"ListenToWTSOnDisconnect", *s.listenToWTSOnDisconnect);
        instance->SetDWORD(u"ListenToWTSTries", *s.listenToWTSTries);
        instance->SetDWORD(u"ListenToWTSTryDelay", *s.listenToWTSTryDelay);
        instance->SetDWORD(u"PrinterProperties", *s.printerProperties);
        instance->SetDWORD(u"PrinterPropertyFlags", *s.printerPropertyFlags);
        instance->SetCHString(u"ListenToWTSCreateCmd", *s.listenToWTSCreateCmd);
        instance->SetCHString(u"ListenToWTSDeleteCmd", *s.listenToWTSDeleteCmd);
        return platform::WBEM_S_NO_ERROR;
    });
}

HRESULT COVASWMI::ExecQuery(platform::MethodContext*, const platform::CFrameworkQuery&, long) {
    return platform::WBEM_E_PROVIDER_NOT_CAPABLE;
}

HRESULT COVASWMI::DeleteInstance(const CInstance&, long) {
    return platform::WBEM_E_PROVIDER_NOT_CAPABLE;
}

HRESULT COVASWMI::PutInstance(const CInstance& instance, long) {
    return RunAtBoundary("COVASWMI::PutInstance", platform::WBEM_E_FAILED, [&] {
        if (!WMI::IsAdmin()) {
            return platform::E_ACCESSDENIED;
        }
        platform::UniqueKey key;
        if (config::OpenProductKey(platform::KEY_ALL_ACCESS, &key) != platform::ERROR_SUCCESS) {
            OVTRACE(ERR | NORM, "Cannot open %s", std::u16string(kProductKey));
            return platform::WBEM_E_FAILED;
        }
        // A property the caller did not supply is left as it is stored.
        config::ProviderSettings s;
        auto text = [&](const char16_t* name, std::optional<std::u16string>* to) {
            std::u16string value;
            if (instance.GetCHString(name, &value)) {
                *to = value;
            }
        };
        auto number = [&](const char16_t* name, std::optional<std::uint32_t>* to) {
            std::uint32_t value = 0;
            if (instance.GetDWORD(name, &value)) {
                *to = value;
            }
        };
        auto flag = [&](const char16_t* name, std::optional<bool>* to) {
            bool value = false;
            if (instance.Getbool(name, &value)) {
                *to = value;
            }
        };
        text(u"Protocol", &s.protocol);
        if (s.protocol && !config::IsKnownProtocol(*s.protocol)) {
            OVTRACE(ERR | NORM, "Protocol %s is invalid", *s.protocol);
            return platform::WBEM_E_INVALID_PARAMETER;
        }
        text(u"ConnectToClient", &s.connectToClient);
        number(u"RightsWin2000", &s.rightsWin2000);
        number(u"RightsWinNT", &s.rightsWinNT);
        number(u"TimeOutService", &s.timeOutService);
        number(u"TimeOutClient", &s.timeOutClient);
        flag(u"ListenToWTS", &s.listenToWTS);
        flag(u"ListenToWTSOnDisconnect", &s.listenToWTSOnDisconnect);
        number(u"ListenToWTSTries", &s.listenToWTSTries);
        number(u"PrinterProperties", &s.printerProperties);
        number(u"PrinterPropertyFlags", &s.printerPropertyFlags);
        number(u"ListenToWTSTryDelay", &s.listenToWTSTryDelay);
        text(u"ListenToWTSCreateCmd", &s.listenToWTSCreateCmd);
        text(u"ListenToWTSDeleteCmd", &s.listenToWTSDeleteCmd);
        return config::WriteProviderSettings(key.get(), s) ? platform::WBEM_S_NO_ERROR
                                                           : platform::WBEM_E_FAILED;
    });
}

HRESULT COVASWMI::ExecMethod(const CInstance&, std::u16string_view method, CInstance* inParams,
                             CInstance* outParams, long) {
    return RunAtBoundary("COVASWMI::ExecMethod", platform::WBEM_E_FAILED, [&] {
        if (!WMI::IsAdmin()) {
            return platform::E_ACCESSDENIED;
        }
        const bool both = inParams != nullptr && outParams != nullptr;
        if (method == u"RestartOVAS" && outParams != nullptr) {
            ServiceStop(kServiceName);
            const int started = ServiceStart(kServiceName);
            outParams->SetDWORD(u"ReturnValue", started == 0 ? 0 : 0xFFFFFFFFu);
            return platform::WBEM_S_NO_ERROR;
        }
        if (method == u"Repair" && both) {
            outParams->SetDWORD(u"ReturnValue", static_cast<std::uint32_t>(OVADLLRepair()));
            return platform::WBEM_S_NO_ERROR;
        }
        if (method == u"DelPrinter" && both) {
            Arguments a(*inParams);
            const std::uint32_t session = a.Number(u"nSessionID");
            const bool all = a.Flag(u"fAll");
            if (!a.ok()) {
                return platform::WBEM_E_INVALID_METHOD_PARAMETERS;
            }
            outParams->SetDWORD(u"ReturnValue",
                                static_cast<std::uint32_t>(OVADLLDelPrinter(session, all ? 1 : 0)));
            return platform::WBEM_S_NO_ERROR;
        }
        if ((method == u"AddPrinter" || method == u"AddPrinterEx") && both) {
            return AddPrinterMethod(method == u"AddPrinterEx", *inParams, outParams);
        }
        OVTRACE(WRN | NORM, "Method %s not supported", std::u16string(method));
        return platform::WBEM_E_PROVIDER_NOT_CAPABLE;
    });
}

// ---- service control ---------------------------------------------------------------------

int COVASWMI::WaitForServiceToReachState(platform::SC_HANDLE service, DWORD state,
                                         platform::SERVICE_STATUS* status, DWORD timeout) {
    const std::uint64_t start = platform::GetTickCount64();
    if (!platform::QueryServiceStatus(service, status)) {
        return 0;
    }
    DWORD lastState = 0;
    DWORD lastCheckPoint = 0;
    std::uint64_t deadline = 0;
    bool first = true;
    for (;;) {
        if (status->dwCurrentState == state) {
            return 1;
        }
        const std::uint64_t now = platform::GetTickCount64();
        if (timeout != kInfinite && now - start > timeout) {
            platform::SetLastError(platform::ERROR_TIMEOUT);
            return 0;
        }
        if (status->dwWaitHint == 0) {
            status->dwWaitHint = timeout;
        }
        if (first || status->dwCurrentState != lastState) {
            first = false;
            lastState = status->dwCurrentState;
            lastCheckPoint = status->dwCheckPoint;
            deadline = now + status->dwWaitHint;
        } else if (now > deadline) {
            if (status->dwCheckPoint <= lastCheckPoint) {
                OVTRACE(ERR | NORM, "Service is stuck in state %d", status->dwCurrentState);
                return 0;
            }
            lastCheckPoint = status->dwCheckPoint;
        }
        platform::Sleep(500);
        if (!platform::QueryServiceStatus(service, status)) {
            return 0;
        }
    }
}

int COVASWMI::ServiceStart(std::u16string_view name) {
    const platform::UniqueServiceHandle manager(
        platform::OpenSCManagerW(u"", u"", platform::SC_MANAGER_CONNECT));
    if (!manager) {
        OVTRACE(ERR | NORM, "OpenSCManager failed, err=%d", platform::GetLastError());
        return -1;
    }
    const platform::UniqueServiceHandle service(
        platform::OpenServiceW(manager.get(), name, platform::SERVICE_ALL_ACCESS));
    if (!service) {
        OVTRACE(ERR | NORM, "OpenService failed, err=%d", platform::GetLastError());
        return -1;
    }
    if (!platform::StartServiceW(service.get(), {})) {
        const DWORD error = platform::GetLastError();
        if (error != platform::ERROR_SERVICE_ALREADY_RUNNING) {
            OVTRACE(ERR | NORM, "StartService failed, err=%d", error);
            return -1;
        }
        OVTRACE(INF | NORM, "Service is already running");
    }
    platform::SERVICE_STATUS status;
    return WaitForServiceToReachState(service.get(), platform::SERVICE_RUNNING, &status,
                                      kServiceWait)
               ? 0
               : -1;
}

int COVASWMI::ServiceStop(std::u16string_view name) {
    const platform::UniqueServiceHandle manager(
        platform::OpenSCManagerW(u"", u"", platform::SC_MANAGER_CONNECT));
    if (!manager) {
        return -1;
    }
    const platform::UniqueServiceHandle service(
        platform::OpenServiceW(manager.get(), name, platform::SERVICE_ALL_ACCESS));
    if (!service) {
        return -1;
    }
    platform::SERVICE_STATUS status;
    platform::ControlService(service.get(), platform::SERVICE_CONTROL_STOP, &status);
    return WaitForServiceToReachState(service.get(), platform::SERVICE_STOPPED, &status,
                                      kServiceWait)
               ? 0
               : -1;
}

}  // namespace ovsvc
