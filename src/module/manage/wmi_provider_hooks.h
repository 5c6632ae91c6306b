// Where the management provider joins the module's COM entry points and
// registration. Each hook is called only when the management framework
// accepted the module at load (fFrameworkLogin); until the provider exists
// they answer as a provider that serves nothing would.
#pragma once

#include "platform/com.h"

namespace ovsvc {

// E_FAIL for a class that is not the provider's: the automation class is
// asked next.
platform::HRESULT WmiGetClassObject(const platform::CLSID& clsid, const platform::IID& iid,
                                    void** object);
// S_OK when the framework lets the module go.
platform::HRESULT WmiCanUnloadNow();
// Compiles the provider's schema and registration into the management
// namespace, and takes it out again.
platform::HRESULT WmiRegisterProvider();
platform::HRESULT WmiUnregisterProvider();

}  // namespace ovsvc
