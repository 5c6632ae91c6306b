// The automation class Ovaspool and its class object.
#include "manage/ovaspool_com.h"

#include <algorithm>
#include <atomic>

#include "common/boundary.h"
#include "common/format.h"
#include "platform/process.h"
#include "platform/text.h"
#include "res/com_description.h"
#include "res/resources.h"
#include "trace/trace.h"

namespace ovsvc {

using platform::BSTR;
using platform::DISPID;
using platform::HRESULT;
using platform::IID;
using platform::LCID;
using platform::LONG;
using platform::UINT;
using platform::ULONG;
using platform::VARIANT;

namespace {

std::atomic<long> g_lockCount{0};

constexpr char16_t kProgram[] = u"Ovaspool.exe";

bool IsUnknownOrDispatch(const IID& iid) {
    return iid == platform::IID_IUnknown || iid == platform::IID_IDispatch;
}

const platform::InterfaceDescription& Description() {
    return res::TypeLibrary().interfaces.front();
}

class COvaspool final : public IOvaspool {
  public:
    COvaspool() { ++g_lockCount; }

    HRESULT PLATFORM_STDMETHODCALLTYPE QueryInterface(const IID& iid, void** object) override {
        return RunAtBoundary("IOvaspool::QueryInterface", platform::E_FAIL, [&] {
            if (object == nullptr) {
                return platform::E_POINTER;
            }
            if (!IsUnknownOrDispatch(iid) && !(iid == res::IID_IOvaspool)) {
                *object = nullptr;
                return platform::E_NOINTERFACE;
            }
            *object = static_cast<IOvaspool*>(this);
            AddRef();
            return platform::S_OK;
        });
    }
    ULONG PLATFORM_STDMETHODCALLTYPE AddRef() override { return ++references_; }
    ULONG PLATFORM_STDMETHODCALLTYPE Release() override {
        const ULONG left = --references_;
        if (left == 0) {
            delete this;
        }
        return left;
    }

    HRESULT PLATFORM_STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
        if (count == nullptr) {
            return platform::E_POINTER;
        }
        *count = 1;
        return platform::S_OK;
    }
    HRESULT PLATFORM_STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID,
                                                   platform::ITypeInfo** info) override {
        return RunAtBoundary("IOvaspool::GetTypeInfo", platform::E_FAIL, [&] {
            if (info == nullptr) {
                return platform::E_POINTER;
            }
            *info = nullptr;
            if (index != 0) {
                return platform::DISP_E_BADINDEX;
            }
            return platform::LoadModuleTypeInfo(OwnModule(), res::IID_IOvaspool, info);
        });
    }
    HRESULT PLATFORM_STDMETHODCALLTYPE GetIDsOfNames(const IID& iid, char16_t** names, UINT count,
                                                     LCID, DISPID* ids) override {
        return RunAtBoundary("IOvaspool::GetIDsOfNames", platform::E_FAIL, [&] {
            if (!(iid == platform::IID_NULL)) {
                return platform::DISP_E_UNKNOWNINTERFACE;
            }
            return platform::DispatchGetIDsOfNames(Description(), names, count, ids);
        });
    }
    HRESULT PLATFORM_STDMETHODCALLTYPE Invoke(DISPID id, const IID& iid, LCID, platform::WORD flags,
                                              platform::DISPPARAMS* params, VARIANT* result,
                                              platform::EXCEPINFO* exception,
                                              UINT* argumentError) override {
        return RunAtBoundary("IOvaspool::Invoke", platform::E_FAIL, [&] {
            return platform::DispatchInvoke(this, Description(), &InvokeMethod, id, iid, flags,
                                            params, result, exception, argumentError);
        });
    }

    HRESULT PLATFORM_STDMETHODCALLTYPE OVASAddPrinter(VARIANT* pvarPrinterName,
                                                      BSTR bstrClientAddres, LONG nPort,
                                                      LONG nPrintJobId, LONG nSessionId,
                                                      LONG* piRetVal) override {
        return RunAtBoundary("IOvaspool::OVASAddPrinter", platform::E_FAIL, [&] {
            return AddPrinter(pvarPrinterName, bstrClientAddres, nPort, nPrintJobId, nSessionId,
                              piRetVal);
        });
    }
    HRESULT PLATFORM_STDMETHODCALLTYPE OVASDelPrinter(LONG dwSessionID, platform::VARIANT_BOOL fAll,
                                                      LONG* piRetVal) override {
        return RunAtBoundary("IOvaspool::OVASDelPrinter", platform::E_FAIL,
                             [&] { return DelPrinter(dwSessionID, fAll, piRetVal); });
    }

  private:
    ~COvaspool() { --g_lockCount; }

    // Late binding hands the converted arguments here, in declaration order.
    static HRESULT InvokeMethod(platform::IDispatch* self, DISPID id, VARIANT* a) {
        auto* object = static_cast<COvaspool*>(static_cast<IOvaspool*>(self));
        switch (id) {
            case res::DISPID_OVASAddPrinter:
                return object->OVASAddPrinter(a[0].pvarVal, a[1].bstrVal, a[2].lVal, a[3].lVal,
                                              a[4].lVal, a[5].plVal);
            case res::DISPID_OVASDelPrinter:
                return object->OVASDelPrinter(a[0].lVal, a[1].boolVal, a[2].plVal);
            default:
                return platform::DISP_E_MEMBERNOTFOUND;
        }
    }

    static HRESULT AddPrinter(VARIANT* pvarPrinterName, BSTR bstrClientAddres, LONG nPort,
                              LONG nPrintJobId, LONG nSessionId, LONG* piRetVal) {
        if (pvarPrinterName == nullptr || piRetVal == nullptr) {
            OVTRACE(ERR | NORM, "pointer error, %lx, %lx",
                    static_cast<const void*>(pvarPrinterName), static_cast<const void*>(piRetVal));
            return platform::E_POINTER;
        }
        const std::u16string command =
            AddPrinterCommand(platform::BstrView(bstrClientAddres), nPort, nPrintJobId, nSessionId);
        OVTRACE(INF | NORM, "Command to execute  = %s", command);
        platform::DWORD dwExitCode = 0;
        std::u16string output;
        if (!RunCommand(command, &dwExitCode, &output)) {
            TraceCheck("fRtn != FALSE", __FILE__, __LINE__);
            *piRetVal = -1;
            return platform::S_OK;
        }
        if (dwExitCode != 0) {
            TraceCheck("dwExitCode == 0", __FILE__, __LINE__);
            *piRetVal = -2;
            return platform::S_OK;
        }
        std::u16string name;
        if (!CreatedPrinterName(output, &name)) {
            *piRetVal = -3;
            return platform::S_OK;
        }
        OVTRACE(INF | NORM, "Printer name is: >>%s<<", name);
        platform::VariantClear(pvarPrinterName);
        pvarPrinterName->vt = platform::VT_BSTR;
        pvarPrinterName->bstrVal =
            platform::SysAllocStringLen(name.data(), static_cast<UINT>(name.size()));
        if (pvarPrinterName->bstrVal == nullptr) {
            platform::VariantInit(pvarPrinterName);
            return platform::E_OUTOFMEMORY;
        }
        *piRetVal = static_cast<LONG>(dwExitCode);
        return platform::S_OK;
    }

    static HRESULT DelPrinter(LONG dwSessionID, platform::VARIANT_BOOL fAll, LONG* piRetVal) {
        if (piRetVal == nullptr) {
            OVTRACE(ERR | NORM, "pointer error, %lx", static_cast<const void*>(piRetVal));
            return platform::E_POINTER;
        }
        const bool all = fAll != platform::VARIANT_FALSE;
        OVTRACE(INF | NORM, "CALL OVADLLDelPrinter with: >>ID=%d,All=%d<<", dwSessionID,
                all ? 1 : 0);
        const std::u16string command = DelPrinterCommand(dwSessionID, all);
        OVTRACE(INF | NORM, "Delete Command to execute  = %s", command);
        platform::DWORD dwExitCode = 0;
        std::u16string output;
        if (!RunCommand(command, &dwExitCode, &output)) {
            TraceCheck("fRtn != FALSE", __FILE__, __LINE__);
            *piRetVal = -1;
            return platform::S_OK;
        }
        if (dwExitCode != 1) {
            TraceCheck("dwExitCode == 1", __FILE__, __LINE__);
            if (dwExitCode == 0) {
                OVTRACE(ERR | NORM, "No Printer deleted, Exitcode = %d", dwExitCode);
            } else {
                OVTRACE(ERR | NORM, "ERROR, Exitcode = %d", dwExitCode);
            }
        }
        *piRetVal = static_cast<LONG>(dwExitCode);
        return platform::S_OK;
    }

    std::atomic<ULONG> references_{1};
};

// The class object: one for the module's life; it keeps the module only
// through LockServer.
class COvaspoolFactory final : public platform::IClassFactory {
  public:
    HRESULT PLATFORM_STDMETHODCALLTYPE QueryInterface(const IID& iid, void** object) override {
        if (object == nullptr) {
            return platform::E_POINTER;
        }
        if (!(iid == platform::IID_IUnknown) && !(iid == platform::IID_IClassFactory)) {
            *object = nullptr;
            return platform::E_NOINTERFACE;
        }
        *object = static_cast<platform::IClassFactory*>(this);
        return platform::S_OK;
    }
    ULONG PLATFORM_STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG PLATFORM_STDMETHODCALLTYPE Release() override { return 1; }

    HRESULT PLATFORM_STDMETHODCALLTYPE CreateInstance(platform::IUnknown* outer, const IID& iid,
                                                      void** object) override {
        return RunAtBoundary("IClassFactory::CreateInstance", platform::E_OUTOFMEMORY, [&] {
            if (object == nullptr) {
                return platform::E_POINTER;
            }
            *object = nullptr;
            if (outer != nullptr) {
                return platform::CLASS_E_NOAGGREGATION;
            }
            auto* created = new COvaspool;
            const HRESULT hr = created->QueryInterface(iid, object);
            created->Release();
            return hr;
        });
    }
    HRESULT PLATFORM_STDMETHODCALLTYPE LockServer(platform::BOOL lock) override {
        if (lock != 0) {
            ++g_lockCount;
        } else {
            --g_lockCount;
        }
        return platform::S_OK;
    }
};

COvaspoolFactory g_factory;

}  // namespace

std::u16string AddPrinterCommand(std::u16string_view clientAddress, LONG nPort, LONG nPrintJobId,
                                 LONG nSessionId) {
    std::u16string command = Format(u"\"%s\"", kProgram) + u" -I d -q -v";
    if (nPort != 0) {
        command += Format(u" -p %d", nPort);
    }
    if (nPrintJobId != 0) {
        command += Format(u" -t %d", nPrintJobId);
    }
    if (nSessionId != -1) {
        command += Format(u" -s %d", nSessionId);
    }
    if (!clientAddress.empty()) {
        command += u" -a ";
        command += clientAddress;
    }
    return command;
}

std::u16string DelPrinterCommand(LONG dwSessionID, bool fAll) {
    std::u16string command = Format(u"\"%s\"", kProgram) + u" -v -q";
    if (fAll) {
        command += u" -d all";
    } else if (dwSessionID != -1) {
        command += Format(u" -d %d", dwSessionID);
    } else {
        command += u" -d";
    }
    return command;
}

bool RunCommand(const std::u16string& commandLine, platform::DWORD* exitCode,
                std::u16string* output) {
    const platform::SecurityAttributes inheritable{.inheritHandle = true};
    platform::UniquePipe readEnd;
    platform::UniquePipe writeEnd;
    if (!platform::CreatePipe(&readEnd, &writeEnd, &inheritable, 0)) {
        OVTRACE(ERR | NORM, "start of Command <%s> fails with %d", commandLine,
                platform::GetLastError());
        return false;
    }
    platform::STARTUPINFOW startup;
    startup.dwFlags = platform::STARTF_USESTDHANDLES;
    startup.hStdOutput = writeEnd.get();
    startup.hStdError = writeEnd.get();
    platform::PROCESS_INFORMATION process;
    if (!platform::CreateProcessW(u"", commandLine, nullptr, nullptr, true,
                                  platform::CREATE_NO_WINDOW | platform::NORMAL_PRIORITY_CLASS,
                                  nullptr, u"", startup, &process)) {
        OVTRACE(ERR | NORM, "start of Command <%s> fails with %d", commandLine,
                platform::GetLastError());
        return false;
    }
    // Only the program writes from here on.
    writeEnd.reset();
    char chunk[100];
    bool ended = false;
    while (true) {
        platform::DWORD available = 0;
        if (!platform::PeekNamedPipe(readEnd.get(), &available)) {
            break;  // empty, and nobody can write any more
        }
        if (available == 0) {
            if (ended) {
                break;  // the program ended and everything it wrote is read
            }
            ended = platform::WaitForSingleObject(process.hProcess.get(), 20) ==
                    platform::WAIT_OBJECT_0;
            continue;
        }
        platform::DWORD got = 0;
        if (!platform::ReadFile(readEnd.get(), chunk,
                                std::min<platform::DWORD>(available, sizeof chunk), &got) ||
            got == 0) {
            break;
        }
        *output += platform::AnsiToWide(std::string_view(chunk, got));
    }
    platform::WaitForSingleObject(process.hProcess.get(), platform::INFINITE);
    platform::DWORD code = 0;
    platform::GetExitCodeProcess(process.hProcess.get(), &code);
    OVTRACE(INF | NORM, "Exitcode = %d", code);
    *exitCode = code;
    return true;
}

bool CreatedPrinterName(std::u16string_view output, std::u16string* name) {
    const std::u16string open = LoadOwnString(IDS_CREATE_OPEN);
    const std::u16string from = LoadOwnString(IDS_CREATE_FROM);
    const std::size_t start = open.empty() ? std::u16string_view::npos : output.find(open);
    const std::size_t end = from.empty() ? std::u16string_view::npos : output.find(from);
    if (start == std::u16string_view::npos || end == std::u16string_view::npos ||
        end < start + open.size()) {
        return false;
    }
    OVTRACE(INF | NORM, "%d--%d", start, end);
    *name = std::u16string(output.substr(start + open.size(), end - start - open.size()));
    return true;
}

HRESULT ComGetClassObject(const platform::CLSID& clsid, const IID& iid, void** object) {
    if (object == nullptr) {
        return platform::E_POINTER;
    }
    *object = nullptr;
    if (!(clsid == res::CLSID_Ovaspool)) {
        return platform::CLASS_E_CLASSNOTAVAILABLE;
    }
    return g_factory.QueryInterface(iid, object);
}

long ComLockCount() {
    return g_lockCount;
}

namespace {

std::vector<platform::RegistrarReplacement> Replacements(const std::u16string& modulePath) {
    return {{u"MODULE", modulePath},
            {u"CLSID", platform::GuidToString(res::CLSID_Ovaspool)},
            {u"LIBID", platform::GuidToString(res::LIBID_OVASPOOLLib)}};
}

// The registrar script of resource REGISTRY 214; empty when it is missing.
std::u16string RegistryScriptText() {
    std::string text;
    if (!platform::LoadTextResource(OwnModule(), u"REGISTRY", u"#214", &text)) {
        OVTRACE(ERR | NORM, "The registry script cannot be loaded: %d", platform::GetLastError());
        return {};
    }
    return platform::ToUtf16(text);
}

}  // namespace

HRESULT ComRegisterServer() {
    const std::u16string modulePath = platform::GetModuleFileNameW(OwnModule());
    const std::u16string script = RegistryScriptText();
    if (modulePath.empty() || script.empty()) {
        return platform::E_UNEXPECTED;
    }
    std::string error;
    HRESULT hr = platform::RegistrarRun(script, Replacements(modulePath), true, &error);
    if (platform::FAILED(hr)) {
        OVTRACE(ERR | NORM, "Registering the class failed (%x): %S", hr, error);
        return hr;
    }
    const std::size_t slash = modulePath.find_last_of(u"\\/");
    const std::u16string directory =
        slash == std::u16string::npos ? std::u16string() : modulePath.substr(0, slash);
    hr = platform::RegisterTypeLibrary(OwnModule(), res::TypeLibrary(), directory);
    if (platform::FAILED(hr)) {
        OVTRACE(ERR | NORM, "Registering the type library failed (%x)", hr);
    }
    return hr;
}

HRESULT ComUnregisterServer() {
    const std::u16string modulePath = platform::GetModuleFileNameW(OwnModule());
    const std::u16string script = RegistryScriptText();
    if (script.empty()) {
        return platform::E_UNEXPECTED;
    }
    std::string error;
    HRESULT hr = platform::RegistrarRun(script, Replacements(modulePath), false, &error);
    if (platform::FAILED(hr)) {
        OVTRACE(ERR | NORM, "Unregistering the class failed (%x): %S", hr, error);
        return hr;
    }
    hr = platform::UnregisterTypeLibrary(res::TypeLibrary());
    if (hr == platform::TYPE_E_REGISTRYACCESS) {
        hr = platform::S_OK;  // not registered: nothing to take away
    }
    return hr;
}

}  // namespace ovsvc
