// The module's exported functions: the client operations build a request,
// hand it to the channel and turn the reply into their results.
#include <cstring>

#include "channel/client_sync.h"
#include "channel/properties_trim.h"
#include "channel/service_loop.h"
#include "channel/startup.h"
#include "channel/timeouts.h"
#include "common/boundary.h"
#include "common/module_state.h"
#include "common/ovstring.h"
#include "manage/ovaspool_com.h"
#include "manage/wmi_provider_hooks.h"
#include "ovsvc.h"
#include "platform/kernel.h"
#include "session/logon_events.h"
#include "trace/trace.h"

namespace ovsvc {
namespace {

// OVCHAR is wchar_t on Windows and char16_t elsewhere; both hold UTF-16.
static_assert(sizeof(OVCHAR) == sizeof(char16_t));
char16_t* Utf16(OVCHAR* text) {
    return reinterpret_cast<char16_t*>(text);
}
const char16_t* Utf16(const OVCHAR* text) {
    return reinterpret_cast<const char16_t*>(text);
}

constexpr std::int32_t kInterfaceVersion = 8;
constexpr OVHRESULT kS_OK = 0;
constexpr OVHRESULT kS_FALSE = 1;
constexpr OVHRESULT kE_FAIL = static_cast<OVHRESULT>(0x80004005u);

// Copies the zero-terminated string at `unitOffset` of the reply into `out`
// (at most `units` units including the terminator).
void CopyReplyString(const ReplyBuffer& reply, std::size_t byteOffset, std::size_t units,
                     char16_t* out) {
    for (std::size_t i = 0; i < units; ++i) {
        char16_t c = 0;
        std::memcpy(&c, reply.bytes + byteOffset + i * 2, sizeof(c));
        out[i] = c;
        if (c == 0) {
            return;
        }
    }
    out[units - 1] = 0;
}

// Appends the zero-terminated string at `byteOffset` of the reply to `out`;
// returns the position after its terminator.
char16_t* AppendReplyString(const ReplyBuffer& reply, std::size_t byteOffset, char16_t* out) {
    for (std::size_t off = byteOffset; off + 1 < kReplyBytes; off += 2) {
        char16_t c = 0;
        std::memcpy(&c, reply.bytes + off, sizeof(c));
        *out++ = c;
        if (c == 0) {
            return out;
        }
    }
    *out++ = 0;
    return out;
}

std::int32_t SendSimpleCommand(std::uint32_t command) {
    OVTRACE(INF | SYNC, "ClientSync() wird ausgeführt...");
    ClientRequest request{};
    request.Command = command;
    const std::int32_t result = ClientSync(&request, nullptr);
    if (result < 0) {
        OVTRACE(ERR | SYNC, "1st ClientSync() returned error ...");
    }
    return result;
}

std::int32_t EnumPrinters(void* buffer, std::uint32_t bufferSize, std::uint32_t* neededSize) {
    OVTRACE(INF | SYNC, "ClientSync() wird ausgeführt (CMDEnumPrinter)...");
    ClientRequest request{};
    request.Command = CMDEnumPrinter;
    const std::int32_t needed = ClientSync(&request, nullptr);
    if (needed < 0) {
        OVTRACE(ERR | SYNC, "1st ClientSync() returned error ...");
        return needed;
    }
    if (buffer == nullptr || static_cast<std::uint32_t>(needed) > bufferSize) {
        if (neededSize != nullptr) {
            *neededSize = static_cast<std::uint32_t>(needed);
        }
        OVTRACE(INF | SYNC, "replying needed buffer size...");
        return kResultBufferTooSmall;
    }
    const std::u16string name = EnumMappingName(platform::GetCurrentThreadId());
    platform::UniqueMapping mapping =
        platform::CreateFileMappingW(nullptr, platform::PAGE_READWRITE, bufferSize, name);
    if (!mapping) {
        OVTRACE(ERR | SYNC, "Couldn't create FileMapping:(%s)", name);
        return kResultUnknownCommand;
    }
    if (platform::GetLastError() == platform::ERROR_ALREADY_EXISTS) {
        mapping.reset();
        OVTRACE(ERR | SYNC, "FileMapping alreay exists: %s", name);
        return kResultUnknownCommand;
    }
    OVTRACE(INF | SYNC, "ClientSync() wird ausgeführt (CMDEnumPrinter)...");
    request.PN = name.c_str();
    const std::int32_t result = ClientSync(&request, nullptr);
    if (result < 0) {
        OVTRACE(ERR | SYNC, "ClientSync with SHM failed.");
        return kResultUnknownCommand;
    }
    if (result == 0) {
        return 0;
    }
    platform::MappedView view =
        platform::MapViewOfFile(mapping.get(), platform::FILE_MAP_ALL_ACCESS, 0, bufferSize);
    if (!view) {
        OVTRACE(ERR | SYNC, "MapViewOfFile of the enumeration failed, err=%d",
                platform::GetLastError());
        return kResultUnknownCommand;
    }
    std::memcpy(buffer, view.data(), bufferSize);
    return result;
}

}  // namespace
}  // namespace ovsvc

using namespace ovsvc;

extern "C" {

OVSVC_API int32_t OVSVC_CALL OVADLLRunMain(void* statusHandle, OVSERVICE_STATUS* status) {
    return RunAtBoundary("OVADLLRunMain", int32_t(0), [&] {
        OVTRACE(INF | MAIN, "size of shared memory = %d", static_cast<int>(sizeof(SHM)));
        return ServiceLoop(statusHandle, status);
    });
}

OVSVC_API void OVSVC_CALL OVADLLServiceStoped(void) {
    RunAtBoundary("OVADLLServiceStoped", [&] { ServiceStop(); });
}

OVSVC_API int32_t OVSVC_CALL OVADLLAddPrinter(
    OVCHAR* strPrinterName, OVCHAR* strPrinterClass, const OVCHAR* strClientIP,
    uint32_t nClientType, const OVCHAR* strClientDriverName, uint32_t nPrinterId,
    uint32_t nSessionID, const OVCHAR* strClientName, const OVCHAR* strUserName,
    const OVCHAR* strComputerName, const void* PrinterProperties, uint32_t PropertiesLength,
    uint32_t PropertiesParts, uint32_t nPrinterPropertiesOptions, uint32_t nFlags) {
    return RunAtBoundary("OVADLLAddPrinter", int32_t(kResultUnknownCommand), [&] {
        OVTRACE(INF | SYNC, "ClientSync() wird ausgeführt...");
        OVTRACE(INF | SYNC,
                "AddPrinter: PN=%s,PC=%s,IP=%s,TYPE=%d,DRIVER=%s,PID=%d,SID=%d,ADDR=%s,UN=%s,CN=%s",
                View(Utf16(strPrinterName)), View(Utf16(strPrinterClass)), View(Utf16(strClientIP)),
                nClientType, View(Utf16(strClientDriverName)), nPrinterId, nSessionID,
                View(Utf16(strClientName)), View(Utf16(strUserName)), View(Utf16(strComputerName)));
        ClientRequest request{};
        ReplyBuffer reply{};
        request.Command = CMDAddPrinter;
        request.PN = Utf16(strPrinterName);
        request.PC = Utf16(strPrinterClass);
        request.IP = Utf16(strClientIP);
        request.TYPE = nClientType;
        request.DRIVER = Utf16(strClientDriverName);
        request.PID = nPrinterId;
        request.SID = nSessionID;
        request.ADDR = Utf16(strClientName);
        request.UN = Utf16(strUserName);
        request.CN = Utf16(strComputerName);
        request.PrinterProperties = PrinterProperties;
        request.PropertiesLength = PropertiesLength;
        request.PropertiesParts = PropertiesParts;
        request.nPrinterPropertiesOptions = nPrinterPropertiesOptions;
        request.nFlags = nFlags;
        TrimProperties(&request);
        const std::int32_t result = ClientSync(&request, &reply);
        if (strPrinterName != nullptr) {
            CopyReplyString(reply, kCreatedNameOffset - kReplyOffset, kCreatedNameUnits,
                            Utf16(strPrinterName));
        }
        if (strPrinterClass != nullptr) {
            CopyReplyString(reply, kCreatedClassOffset - kReplyOffset, kCreatedNameUnits,
                            Utf16(strPrinterClass));
        }
        return result;
    });
}

OVSVC_API int32_t OVSVC_CALL OVADLLDelPrinter(uint32_t nSessionID, uint32_t fAll) {
    return RunAtBoundary("OVADLLDelPrinter", int32_t(kResultUnknownCommand), [&] {
        OVTRACE(INF | SYNC, "ClientSync() wird ausgeführt...");
        ClientRequest request{};
        request.Command = CMDDelPrinter;
        request.SID = nSessionID;
        request.PID = fAll;
        return ClientSync(&request, nullptr);
    });
}

OVSVC_API int32_t OVSVC_CALL OVADLLEnumPrinters(void* buffer, uint32_t bufferSize,
                                                uint32_t* neededSize) {
    return RunAtBoundary("OVADLLEnumPrinters", int32_t(kResultUnknownCommand),
                         [&] { return EnumPrinters(buffer, bufferSize, neededSize); });
}

OVSVC_API int32_t OVSVC_CALL OVADLLRepair(void) {
    return RunAtBoundary("OVADLLRepair", int32_t(kResultUnknownCommand),
                         [&] { return SendSimpleCommand(CMDRepair); });
}

OVSVC_API int32_t OVSVC_CALL OVADLLLoadTranslationList(void) {
    return RunAtBoundary("OVADLLLoadTranslationList", int32_t(kResultUnknownCommand),
                         [&] { return SendSimpleCommand(CMDLoadTranslationList); });
}

OVSVC_API int32_t OVSVC_CALL OVADLLTranslate(const OVCHAR* strClientIP, const OVCHAR* strClientName,
                                             const OVCHAR* strClientDriverName,
                                             const OVCHAR* strPrinterName,
                                             const OVCHAR* strPrinterClass, uint32_t nClientType,
                                             OVCHAR* templates) {
    return RunAtBoundary("OVADLLTranslate", int32_t(kResultUnknownCommand), [&] {
        ClientRequest request{};
        ReplyBuffer reply{};
        OVTRACE(INF | SYNC, "ClientSync() wird ausgeführt (OVADLLTranslate)...");
        request.Command = CMDTranslate;
        request.IP = Utf16(strClientIP);
        request.ADDR = Utf16(strClientName);
        request.DRIVER = Utf16(strClientDriverName);
        request.PN = Utf16(strPrinterName);
        request.PC = Utf16(strPrinterClass);
        request.TYPE = nClientType;
        const std::int32_t result = ClientSync(&request, &reply);
        if (result < 0) {
            OVTRACE(ERR | SYNC, "ClientSync() returned error (OVADLLTranslate).");
            return result;
        }
        if (templates != nullptr) {
            char16_t* out = Utf16(templates);
            for (std::size_t offset : kTemplateOffsets) {
                out = AppendReplyString(reply, offset - kReplyOffset, out);
            }
            *out = 0;
        }
        return result;
    });
}

OVSVC_API int32_t OVSVC_CALL OVADLLGetVersion(void) {
    return RunAtBoundary("OVADLLGetVersion", int32_t(kInterfaceVersion),
                         [&] { return kInterfaceVersion; });
}

OVSVC_API uint32_t OVSVC_CALL OVADLLQueryTimeOutValue(uint32_t id) {
    return RunAtBoundary("OVADLLQueryTimeOutValue", uint32_t(0u),
                         [&] { return QueryTimeOutValue(id); });
}

OVSVC_API void OVSVC_CALL OVADLLDbgMessage(const OVCHAR* sourceFile, uint32_t line,
                                           const OVCHAR* message, const OVCHAR* section,
                                           uint32_t code) {
    RunAtBoundary("OVADLLDbgMessage", [&] {
        TraceDbgMessage(View(Utf16(sourceFile)), line, View(Utf16(message)), View(Utf16(section)),
                        code);
    });
}

// The logon manager's notifications: only the logoff has work to do.
OVSVC_API void OVSVC_CALL TSEventLogon(OVWLX_NOTIFICATION_INFO*) {
    RunAtBoundary("TSEventLogon", [] {});
}
OVSVC_API void OVSVC_CALL TSEventLogoff(OVWLX_NOTIFICATION_INFO* info) {
    RunAtBoundary("TSEventLogoff", [&] {
        if (info == nullptr) {
            return;
        }
        OVTRACE(INF | NORM, "PWLX_NOTIFICATION_INFO: %s %d %d %d %s %s", View(Utf16(info->Domain)),
                info->Flags, info->hDesktop, info->Size, View(Utf16(info->UserName)),
                View(Utf16(info->WindowStation)));
        OnLogoff(info->hToken);
    });
}
OVSVC_API void OVSVC_CALL TSEventReconnect(OVWLX_NOTIFICATION_INFO*) {
    RunAtBoundary("TSEventReconnect", [] {});
}
OVSVC_API void OVSVC_CALL TSEventDisconnect(OVWLX_NOTIFICATION_INFO*) {
    RunAtBoundary("TSEventDisconnect", [] {});
}
OVSVC_API void OVSVC_CALL TSEventStartup(OVWLX_NOTIFICATION_INFO*) {
    RunAtBoundary("TSEventStartup", [] {});
}
OVSVC_API void OVSVC_CALL TSEventShutdown(OVWLX_NOTIFICATION_INFO*) {
    RunAtBoundary("TSEventShutdown", [] {});
}

// The management provider takes part only when its framework accepted the
// module at load; the automation class always does.
OVSVC_API OVHRESULT OVSVC_CALL OVASRegister(void) {
    return RunAtBoundary("OVASRegister", OVHRESULT(kE_FAIL),
                         [&] { return fFrameworkLogin ? WmiRegisterProvider() : kS_OK; });
}
OVSVC_API OVHRESULT OVSVC_CALL OVASUnregister(void) {
    return RunAtBoundary("OVASUnregister", OVHRESULT(kE_FAIL),
                         [&] { return fFrameworkLogin ? WmiUnregisterProvider() : kS_OK; });
}
OVSVC_API OVHRESULT OVSVC_CALL DllRegisterServer(void) {
    return RunAtBoundary("DllRegisterServer", OVHRESULT(kE_FAIL), [&] {
        RegisterLogonNotification();
        return ComRegisterServer();
    });
}
OVSVC_API OVHRESULT OVSVC_CALL DllUnregisterServer(void) {
    return RunAtBoundary("DllUnregisterServer", OVHRESULT(kE_FAIL), [&] {
        UnregisterLogonNotification();
        return ComUnregisterServer();
    });
}
OVSVC_API OVHRESULT OVSVC_CALL DllGetClassObject(const void* clsid, const void* iid,
                                                 void** object) {
    return RunAtBoundary("DllGetClassObject", OVHRESULT(kE_FAIL), [&] {
        if (object == nullptr) {
            return platform::E_POINTER;
        }
        *object = nullptr;
        if (clsid == nullptr || iid == nullptr) {
            return platform::E_INVALIDARG;
        }
        const auto& classId = *static_cast<const platform::CLSID*>(clsid);
        const auto& interfaceId = *static_cast<const platform::IID*>(iid);
        if (fFrameworkLogin) {
            const platform::HRESULT hr = WmiGetClassObject(classId, interfaceId, object);
            if (hr != kE_FAIL) {
                return hr;
            }
        }
        return ComGetClassObject(classId, interfaceId, object);
    });
}
OVSVC_API OVHRESULT OVSVC_CALL DllCanUnloadNow(void) {
    return RunAtBoundary("DllCanUnloadNow", OVHRESULT(kS_FALSE), [&] {
        const bool providerDone = !fFrameworkLogin || WmiCanUnloadNow() == kS_OK;
        return providerDone && ComLockCount() == 0 ? kS_OK : kS_FALSE;
    });
}

}  // extern "C"
