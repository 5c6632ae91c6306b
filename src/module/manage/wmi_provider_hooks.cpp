#include "manage/wmi_provider_hooks.h"

#include <memory>

#include "manage/ovaswmi.h"
#include "manage/ovaswmi_printers.h"
#include "manage/ovaswmi_tcreatelist.h"
#include "manage/ovaswmi_tlist.h"
#include "manage/wmi_common.h"
#include "platform/kernel.h"
#include "platform/registry.h"
#include "platform/registry_text.h"
#include "platform/resources.h"
#include "platform/text.h"
#include "res/resources.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

// The provider objects, one per class, for the module's lifetime.
const COVASWMI g_ovasWmi;
const COVASWMITList g_ovasWmiTList;
const COVASWMITCreateList g_ovasWmiTCreateList;
const COVASWMIPrinters g_ovasWmiPrinters;

constexpr platform::HRESULT SELFREG_E_CLASS = platform::MakeHResult(0x80040201);

platform::CLSID ProviderClsid() {
    platform::CLSID clsid{};
    platform::GuidFromString(kWmiProviderClsid, &clsid);
    return clsid;
}

std::u16string ClsidKey() {
    return u"SOFTWARE\\CLASSES\\CLSID\\" + platform::GuidToString(ProviderClsid());
}

platform::LSTATUS SetText(platform::HKEY key, std::u16string_view name, std::u16string_view text) {
    const std::vector<std::byte> data = platform::regtext::StringBytes(text, true);
    return platform::RegSetValueExW(key, name, platform::REG_SZ, data.data(),
                                    static_cast<platform::DWORD>(data.size()));
}

// The schema for this system: MOF 215 from version 5.1 of the NT family on
// (it names the provider's hosting model), else MOF 114.
const char16_t* SchemaResource() {
    platform::OSVERSIONINFOEXW os;
    const bool modern =
        platform::GetVersionExW(&os) && os.dwPlatformId == platform::VER_PLATFORM_WIN32_NT &&
        (os.dwMajorVersion > 5 || (os.dwMajorVersion == 5 && os.dwMinorVersion > 0));
    return modern ? u"#215" : u"#114";
}

}  // namespace

platform::HRESULT WmiGetClassObject(const platform::CLSID& clsid, const platform::IID& iid,
                                    void** object) {
    if (object != nullptr) {
        *object = nullptr;
    }
    if (!(clsid == ProviderClsid())) {
        return platform::E_FAIL;
    }
    auto* factory = new (std::nothrow) platform::CWbemGlueFactory();
    if (factory == nullptr) {
        return platform::E_OUTOFMEMORY;
    }
    const platform::HRESULT hr = factory->QueryInterface(iid, object);
    factory->Release();
    return hr;
}

platform::HRESULT WmiCanUnloadNow() {
    return platform::CWbemProviderGlue::ObjectsInUse() == 0 &&
                   platform::CWbemProviderGlue::FrameworkLogoffDLL(kWmiProviderName)
               ? platform::S_OK
               : platform::S_FALSE;
}

platform::HRESULT WmiRegisterProvider() {
    OVTRACE(INF | NORM, "Entering WMIDllRegisterServer");
    platform::UniqueKey clsidKey;
    platform::UniqueKey server;
    if (platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, ClsidKey(), 0,
                                  platform::KEY_ALL_ACCESS, &clsidKey,
                                  nullptr) != platform::ERROR_SUCCESS ||
        SetText(clsidKey.get(), u"", u"") != platform::ERROR_SUCCESS ||
        platform::RegCreateKeyExW(clsidKey.get(), u"InprocServer32", 0, platform::KEY_ALL_ACCESS,
                                  &server, nullptr) != platform::ERROR_SUCCESS ||
        SetText(server.get(), u"", platform::GetModuleFileNameW(OwnModule())) !=
            platform::ERROR_SUCCESS ||
        SetText(server.get(), u"ThreadingModel", u"Apartment") != platform::ERROR_SUCCESS) {
        OVTRACE(ERR | NORM, "Cannot register the provider's class, err=%d",
                platform::GetLastError());
        return SELFREG_E_CLASS;
    }
    std::string schema;
    if (!platform::LoadTextResource(OwnModule(), u"MOF", SchemaResource(), &schema)) {
        OVTRACE(ERR | NORM, "MOF resource missing, err=%d", platform::GetLastError());
        return platform::WBEM_E_FAILED;
    }
    const bool initialised =
        platform::SUCCEEDED(platform::CoInitializeEx(platform::COINIT_MULTITHREADED));
    std::string error;
    const platform::HRESULT hr = platform::CompileMof(schema, &error);
    if (platform::FAILED(hr)) {
        OVTRACE(ERR | NORM, "CompileBuffer failed (%x): %s", hr, platform::ToUtf16(error));
    }
    if (initialised) {
        platform::CoUninitialize();
    }
    return hr;
}

platform::HRESULT WmiUnregisterProvider() {
    OVTRACE(INF | NORM, "Entering WMIDllUnregisterServer");
    platform::HRESULT result = platform::S_OK;
    std::unique_ptr<platform::WbemConnection> connection;
    if (platform::SUCCEEDED(
            platform::WbemConnection::Connect(u"\\\\.\\Root\\Orvelle", &connection))) {
        for (const char16_t* name :
             {u"Ovaspool", u"OVASTranslationList", u"OVASPrinters", u"OVASPrinterCreateList"}) {
            const platform::HRESULT hr = connection->DeleteClass(name);
            if (platform::FAILED(hr) && platform::SUCCEEDED(result)) {
                result = hr;
            }
        }
    } else {
        OVTRACE(WRN | NORM, "Cannot connect to %s", std::u16string(kWmiNamespace));
    }
    if (platform::RegDeleteKeyW(platform::HKEY_LOCAL_MACHINE, ClsidKey() + u"\\InProcServer32") !=
            platform::ERROR_SUCCESS ||
        platform::RegDeleteKeyW(platform::HKEY_LOCAL_MACHINE, ClsidKey()) !=
            platform::ERROR_SUCCESS) {
        return SELFREG_E_CLASS;
    }
    return result;
}

}  // namespace ovsvc
