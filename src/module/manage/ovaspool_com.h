// The automation class Ovaspool: its interface IOvaspool runs the session
// client program ("Ovaspool.exe") with a command line built from the call's
// arguments, waits for it and reports its outcome. Also the class's side of
// the module's COM entry points (class objects, unloading, registration).
#pragma once

#include <string>

#include "platform/com.h"

namespace ovsvc {

// The dual interface, in the type library's slot order after IDispatch.
class IOvaspool : public platform::IDispatch {
  public:
    virtual platform::HRESULT PLATFORM_STDMETHODCALLTYPE OVASAddPrinter(
        platform::VARIANT* pvarPrinterName, platform::BSTR bstrClientAddres, platform::LONG nPort,
        platform::LONG nPrintJobId, platform::LONG nSessionId, platform::LONG* piRetVal) = 0;
    virtual platform::HRESULT PLATFORM_STDMETHODCALLTYPE OVASDelPrinter(
        platform::LONG dwSessionID, platform::VARIANT_BOOL fAll, platform::LONG* piRetVal) = 0;

  protected:
    ~IOvaspool() = default;
};

// The command lines the two methods run.
std::u16string AddPrinterCommand(std::u16string_view clientAddress, platform::LONG nPort,
                                 platform::LONG nPrintJobId, platform::LONG nSessionId);
std::u16string DelPrinterCommand(platform::LONG dwSessionID, bool fAll);

// Runs a command line without a window, its standard output and error going
// into one pipe that is drained while it runs (decoded from the ANSI code
// page); waits for it without a time limit. False when it cannot be started.
bool RunCommand(const std::u16string& commandLine, platform::DWORD* exitCode,
                std::u16string* output);

// The created printer's name in the client program's output: the text
// between the first "Create "" and the first "" from ""; false when either
// is missing (or they overlap).
bool CreatedPrinterName(std::u16string_view output, std::u16string* name);

// The module's COM side: the class object for CLSID_Ovaspool
// (CLASS_E_CLASSNOTAVAILABLE for any other class), whether objects or
// server locks are alive, and registration from the REGISTRY resource and
// the type library.
platform::HRESULT ComGetClassObject(const platform::CLSID& clsid, const platform::IID& iid,
                                    void** object);
long ComLockCount();
platform::HRESULT ComRegisterServer();
platform::HRESULT ComUnregisterServer();

}  // namespace ovsvc
