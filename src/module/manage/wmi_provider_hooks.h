// Where the management provider joins the module's COM entry points and
// registration. Each hook is called only when the management framework
// accepted the module at load (fFrameworkLogin). The provider's four objects
// live as long as the module.
#pragma once

#include "platform/com.h"

namespace ovsvc {

// E_FAIL for a class that is not the provider's: the automation class is
// asked next.
platform::HRESULT WmiGetClassObject(const platform::CLSID& clsid, const platform::IID& iid,
                                    void** object);
// S_OK when the framework lets the module go.
platform::HRESULT WmiCanUnloadNow();
// Registers the provider's CLSID (HKLM\SOFTWARE\CLASSES\CLSID\{clsid} and its
// InprocServer32) and compiles the schema (MOF resource 114, or 215 from
// version 5.1 on) into the management namespace; the compiler's result.
// Unregistering deletes the four classes and the CLSID keys
// (SELFREG_E_CLASS when the keys cannot be deleted).
platform::HRESULT WmiRegisterProvider();
platform::HRESULT WmiUnregisterProvider();

}  // namespace ovsvc
