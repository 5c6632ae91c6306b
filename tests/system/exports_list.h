// The module's documented entry points: what the library must export, and
// nothing more.
#pragma once

#include <set>
#include <string>

namespace exportstest {

inline const std::set<std::string> kEntryPoints = {"OVADLLRunMain",
                                                   "OVADLLServiceStoped",
                                                   "OVADLLAddPrinter",
                                                   "OVADLLDelPrinter",
                                                   "OVADLLEnumPrinters",
                                                   "OVADLLRepair",
                                                   "OVADLLLoadTranslationList",
                                                   "OVADLLTranslate",
                                                   "OVADLLGetVersion",
                                                   "OVADLLQueryTimeOutValue",
                                                   "OVADLLDbgMessage",
                                                   "TSEventLogon",
                                                   "TSEventLogoff",
                                                   "TSEventReconnect",
                                                   "TSEventDisconnect",
                                                   "TSEventStartup",
                                                   "TSEventShutdown",
                                                   "OVASRegister",
                                                   "OVASUnregister",
                                                   "DllRegisterServer",
                                                   "DllUnregisterServer",
                                                   "DllGetClassObject",
                                                   "DllCanUnloadNow"};

}  // namespace exportstest
