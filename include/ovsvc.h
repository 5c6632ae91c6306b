/* OVSvc: the module's exported functions.
 *
 * Every export has an undecorated C name. Strings are zero-terminated UTF-16
 * (OVCHAR), numbers 32-bit. Client operations return the service's result,
 * or the channel's own codes when the exchange itself fails:
 *   -14  a wait timed out, or the caller's turn had already passed
 *   -15  a wait failed
 *   -16  a request event could not be opened or created (no service runs)
 *   -17  the acknowledge wait ended in an unexpected way
 */
#ifndef OVSVC_H
#define OVSVC_H

#include <stdint.h>

#ifdef _WIN32
typedef wchar_t OVCHAR;
#define OVSVC_CALL __stdcall
#ifdef OVSVC_BUILDING_MODULE
#define OVSVC_API __declspec(dllexport)
#else
#define OVSVC_API __declspec(dllimport)
#endif
#else
#ifndef __cplusplus
#include <uchar.h>
#endif
typedef char16_t OVCHAR;
#define OVSVC_CALL
#define OVSVC_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The service's status record, laid out as Windows' SERVICE_STATUS. */
typedef struct OVSERVICE_STATUS {
    uint32_t dwServiceType;
    uint32_t dwCurrentState;
    uint32_t dwControlsAccepted;
    uint32_t dwWin32ExitCode;
    uint32_t dwServiceSpecificExitCode;
    uint32_t dwCheckPoint;
    uint32_t dwWaitHint;
} OVSERVICE_STATUS;

/* The logon manager's notification record (WLX_NOTIFICATION_INFO). */
typedef struct OVWLX_NOTIFICATION_INFO {
    uint32_t Size;
    uint32_t Flags;
    OVCHAR* UserName;
    OVCHAR* Domain;
    OVCHAR* WindowStation;
    void* hToken;
    void* hDesktop;
    void* pStatusCallback;
} OVWLX_NOTIFICATION_INFO;

typedef int32_t OVHRESULT;

/* Service side: runs the service loop on the calling thread until the
 * service stops; returns 0. `statusHandle` may be null (console mode);
 * otherwise the loop reports running through it once it serves requests.
 * On return `status` says why the loop ended: dwCurrentState is
 * SERVICE_STOPPED (1) and dwWin32ExitCode 0 when the service was asked to
 * stop; otherwise a Windows error: 1056 (ERROR_SERVICE_ALREADY_RUNNING) when
 * another service instance owns the request channel, the error of a request
 * event that could not be created, or 1066 (ERROR_SERVICE_SPECIFIC_ERROR)
 * with one of these in dwServiceSpecificExitCode: */
#define OVSVC_EXIT_TRANSLATION_TABLE 1 /* the translation table could not be loaded */
#define OVSVC_EXIT_NO_SHARED_AREA 2    /* the shared request area does not exist */
#define OVSVC_EXIT_WAIT_FAILED 3       /* a wait of the loop failed */
OVSVC_API int32_t OVSVC_CALL OVADLLRunMain(void* statusHandle, OVSERVICE_STATUS* status);
/* Called by the service's control handler: asks the loop to stop. */
OVSVC_API void OVSVC_CALL OVADLLServiceStoped(void);

/* Client operations. strPrinterName and strPrinterClass are in/out buffers
 * of at least 525 units: on return they hold the created printer's name and
 * class (empty when no reply came). */
OVSVC_API int32_t OVSVC_CALL OVADLLAddPrinter(
    OVCHAR* strPrinterName, OVCHAR* strPrinterClass, const OVCHAR* strClientIP,
    uint32_t nClientType, const OVCHAR* strClientDriverName, uint32_t nPrinterId,
    uint32_t nSessionID, const OVCHAR* strClientName, const OVCHAR* strUserName,
    const OVCHAR* strComputerName, const void* PrinterProperties, uint32_t PropertiesLength,
    uint32_t PropertiesParts, uint32_t nPrinterPropertiesOptions, uint32_t nFlags);
OVSVC_API int32_t OVSVC_CALL OVADLLDelPrinter(uint32_t nSessionID, uint32_t fAll);
/* Two calls: without a buffer (or with one too small) stores the needed size
 * in bytes and returns -19; with a large enough buffer copies the text. */
OVSVC_API int32_t OVSVC_CALL OVADLLEnumPrinters(void* buffer, uint32_t bufferSize,
                                                uint32_t* neededSize);
OVSVC_API int32_t OVSVC_CALL OVADLLRepair(void);
OVSVC_API int32_t OVSVC_CALL OVADLLLoadTranslationList(void);
/* Writes the three template names found, each zero-terminated, and a final
 * zero into `templates`. */
OVSVC_API int32_t OVSVC_CALL OVADLLTranslate(const OVCHAR* strClientIP, const OVCHAR* strClientName,
                                             const OVCHAR* strClientDriverName,
                                             const OVCHAR* strPrinterName,
                                             const OVCHAR* strPrinterClass, uint32_t nClientType,
                                             OVCHAR* templates);
OVSVC_API int32_t OVSVC_CALL OVADLLGetVersion(void);
OVSVC_API uint32_t OVSVC_CALL OVADLLQueryTimeOutValue(uint32_t id);
OVSVC_API void OVSVC_CALL OVADLLDbgMessage(const OVCHAR* sourceFile, uint32_t line,
                                           const OVCHAR* message, const OVCHAR* section,
                                           uint32_t code);

/* Logon manager notifications. */
OVSVC_API void OVSVC_CALL TSEventLogon(OVWLX_NOTIFICATION_INFO* info);
OVSVC_API void OVSVC_CALL TSEventLogoff(OVWLX_NOTIFICATION_INFO* info);
OVSVC_API void OVSVC_CALL TSEventReconnect(OVWLX_NOTIFICATION_INFO* info);
OVSVC_API void OVSVC_CALL TSEventDisconnect(OVWLX_NOTIFICATION_INFO* info);
OVSVC_API void OVSVC_CALL TSEventStartup(OVWLX_NOTIFICATION_INFO* info);
OVSVC_API void OVSVC_CALL TSEventShutdown(OVWLX_NOTIFICATION_INFO* info);

/* Registration and COM. */
OVSVC_API OVHRESULT OVSVC_CALL OVASRegister(void);
OVSVC_API OVHRESULT OVSVC_CALL OVASUnregister(void);
OVSVC_API OVHRESULT OVSVC_CALL DllRegisterServer(void);
OVSVC_API OVHRESULT OVSVC_CALL DllUnregisterServer(void);
OVSVC_API OVHRESULT OVSVC_CALL DllGetClassObject(const void* clsid, const void* iid, void** object);
OVSVC_API OVHRESULT OVSVC_CALL DllCanUnloadNow(void);

#ifdef __cplusplus
}
#endif

#endif /* OVSVC_H */
