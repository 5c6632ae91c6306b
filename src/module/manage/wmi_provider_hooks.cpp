#include "manage/wmi_provider_hooks.h"

namespace ovsvc {

platform::HRESULT WmiGetClassObject(const platform::CLSID&, const platform::IID&, void** object) {
    if (object != nullptr) {
        *object = nullptr;
    }
    return platform::E_FAIL;
}

platform::HRESULT WmiCanUnloadNow() {
    return platform::S_OK;
}

platform::HRESULT WmiRegisterProvider() {
    return platform::S_OK;
}

platform::HRESULT WmiUnregisterProvider() {
    return platform::S_OK;
}

}  // namespace ovsvc
