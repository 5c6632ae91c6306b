// Terminal services (wtsapi32).
//
// The embedded machine is a terminal server: its sessions are a table in the
// registry under HKLM\SOFTWARE\OVSvc Embedded\Sessions\<id>, with the values
// "WinStationName", "State", "UserName", "DomainName", "ClientName" and
// "ClientAddress" (dotted IPv4 text) and, below the subkey "Printers", one
// subkey per printer of the client machine. A fresh machine has the console
// session 0 (no user, connected) and the listener 65536 ("RDP-Tcp").
//
// Results are owned C++ values: nothing needs WTSFreeMemory.
//
// The module binds the session functions at run time (platform/library.h).
// On Windows the sessions are the system's own; the session functions bind
// WTSAPI32.DLL at run time themselves.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"
#include "platform/handle.h"
#include "platform/kernel.h"
#include "platform/library.h"

namespace platform {

inline constexpr DWORD ERROR_BAD_ARGUMENTS = 160;
inline constexpr DWORD ERROR_OLD_WIN_VERSION = 1150;
// No session with the id asked for.
inline constexpr DWORD ERROR_CTX_WINSTATION_NOT_FOUND = 7022;

inline constexpr HANDLE WTS_CURRENT_SERVER_HANDLE = nullptr;
// As a session id: the calling process's session.
inline constexpr DWORD WTS_CURRENT_SESSION = 0xFFFFFFFF;
// The id of the listener session of a fresh machine.
inline constexpr DWORD kListenerSessionId = 65536;

enum WTS_CONNECTSTATE_CLASS : DWORD {
    WTSActive = 0,
    WTSConnected = 1,
    WTSConnectQuery = 2,
    WTSShadow = 3,
    WTSDisconnected = 4,
    WTSIdle = 5,
    WTSListen = 6,
    WTSReset = 7,
    WTSDown = 8,
    WTSInit = 9,
};

enum WTS_INFO_CLASS : DWORD {
    WTSInitialProgram = 0,
    WTSApplicationName = 1,
    WTSWorkingDirectory = 2,
    WTSOEMId = 3,
    WTSSessionId = 4,
    WTSUserName = 5,
    WTSWinStationName = 6,
    WTSDomainName = 7,
    WTSConnectState = 8,
    WTSClientBuildNumber = 9,
    WTSClientName = 10,
    WTSClientDirectory = 11,
    WTSClientProductId = 12,
    WTSClientHardwareId = 13,
    WTSClientAddress = 14,
    WTSClientDisplay = 15,
    WTSClientProtocolType = 16,
};

struct WTS_SESSION_INFOW {
    DWORD SessionId = 0;
    std::u16string pWinStationName;
    WTS_CONNECTSTATE_CLASS State = WTSDown;
};

inline constexpr DWORD AF_UNSPEC = 0;
inline constexpr DWORD AF_INET = 2;

// Windows' layout: the family, then 20 address bytes; an IPv4 address sits in
// Address[2..5] (after the two port bytes of a sockaddr_in).
struct WTS_CLIENT_ADDRESS {
    DWORD AddressFamily = AF_UNSPEC;
    std::uint8_t Address[20] = {};
};
static_assert(sizeof(WTS_CLIENT_ADDRESS) == 24);

// WTSEnumerateSessionsW: every session of the server (version must be 1;
// reserved must be 0; otherwise ERROR_INVALID_PARAMETER). Sessions come in
// id order.
bool WTSEnumerateSessionsW(HANDLE server, DWORD reserved, DWORD version,
                           std::vector<WTS_SESSION_INFOW>* sessions);

// WTSQuerySessionInformationW: the bytes Windows returns for the class.
// Texts are UTF-16 with their terminator (size in bytes includes it);
// WTSSessionId and WTSConnectState are a DWORD; WTSClientAddress is a
// WTS_CLIENT_ADDRESS; WTSClientProtocolType a 16-bit number (0 console,
// 2 remote desktop). Other classes fail with ERROR_INVALID_PARAMETER; an
// unknown session with ERROR_CTX_WINSTATION_NOT_FOUND.
bool WTSQuerySessionInformationW(HANDLE server, DWORD sessionId, WTS_INFO_CLASS infoClass,
                                 std::vector<std::byte>* buffer);

// Releases a result early (it is released anyway when it goes away).
void WTSFreeMemory(std::vector<std::byte>* buffer) noexcept;

// Resolved by the module at run time but not used: report
// ERROR_CALL_NOT_IMPLEMENTED (120).
bool WTSEnumerateProcessesW(HANDLE server, DWORD reserved, DWORD version);
bool WTSWaitSystemEvent(HANDLE server, DWORD eventMask, DWORD* eventFlags);

// The session attached to the physical console: machine.conf
// "console_session=N", 0 by default (Windows: the system's answer).
DWORD WTSGetActiveConsoleSessionId() noexcept;

// The session a process runs in (its $OVSVC_SESSION_ID); fails with
// ERROR_INVALID_PARAMETER for a process that does not exist.
bool ProcessIdToSessionId(DWORD processId, DWORD* sessionId);

// ---- version checks (KERNEL32 / NTDLL exports) -------------------------------

inline constexpr DWORD VER_MINORVERSION = 0x0001;
inline constexpr DWORD VER_MAJORVERSION = 0x0002;
inline constexpr DWORD VER_BUILDNUMBER = 0x0004;
inline constexpr DWORD VER_PLATFORMID = 0x0008;
inline constexpr DWORD VER_SERVICEPACKMINOR = 0x0010;
inline constexpr DWORD VER_SERVICEPACKMAJOR = 0x0020;
inline constexpr DWORD VER_SUITENAME = 0x0040;
inline constexpr DWORD VER_PRODUCT_TYPE = 0x0080;

inline constexpr std::uint8_t VER_EQUAL = 1;
inline constexpr std::uint8_t VER_GREATER = 2;
inline constexpr std::uint8_t VER_GREATER_EQUAL = 3;
inline constexpr std::uint8_t VER_LESS = 4;
inline constexpr std::uint8_t VER_LESS_EQUAL = 5;
inline constexpr std::uint8_t VER_AND = 6;
inline constexpr std::uint8_t VER_OR = 7;

std::uint64_t VerSetConditionMask(std::uint64_t conditionMask, DWORD typeMask,
                                  std::uint8_t condition) noexcept;
// VerSetConditionMask sets the condition of one field, the first of
// product type, suite, service pack major and minor, platform, build, major
// and minor version named in typeMask, by OR into the mask; condition 0
// (after masking to three bits) or an empty typeMask leave the mask as it is.
// VerifyVersionInfoA: true when the running system matches every field named
// in typeMask; otherwise false with ERROR_OLD_WIN_VERSION. No info:
// ERROR_INVALID_PARAMETER; a typeMask or conditionMask of 0: Windows'
// ERROR_BAD_ARGUMENTS. The suite mask is what GetVersionExW reports.
bool VerifyVersionInfoA(const OSVERSIONINFOEXW* info, DWORD typeMask, std::uint64_t conditionMask);

}  // namespace platform

// ---- the embedded machine's session table (administration) -------------------
//
// What `ovasctl session` and the tests use to log users on and off. Not a
// Windows interface: on Windows, Logon, Disconnect, Logoff and SetState
// answer ERROR_NOT_SUPPORTED, and GetSession and ListSessions read the
// system's sessions (without client printers, which Windows does not list).
namespace platform::terminal {

// A printer of the client machine, as the client program learns it.
// Trays, papers and resolutions list their entries with the current one
// marked by a leading "*".
struct ClientPrinter {
    std::u16string name;
    std::u16string printerClass;
    std::u16string driver;
    DWORD printerId = 0;
    std::vector<std::u16string> trays;
    std::vector<std::u16string> papers;
    std::vector<std::u16string> resolutions;
    DWORD duplex = 0;  // 0 none, 1 long edge, 2 short edge
    // A PostScript printer's packed description ("OVPPD" and zlib streams),
    // sent as its create request's data; empty for none.
    std::vector<std::byte> ppd;
};

struct Session {
    DWORD id = 0;
    std::u16string winStationName;
    WTS_CONNECTSTATE_CLASS state = WTSDown;
    std::u16string userName;
    std::u16string domainName;
    std::u16string clientName;
    std::u16string clientAddress;  // dotted IPv4 text, empty for none
    std::vector<ClientPrinter> printers;
};

// The state names used by the tools ("Active", "Disconnected", ...).
std::u16string_view StateName(WTS_CONNECTSTATE_CLASS state);

// Logs a user on: creates the session, or reconnects a disconnected one of
// the same user, active. A station name that is empty becomes "RDP-Tcp#<id>"
// ("Console" for session 0). Fails with ERROR_INVALID_PARAMETER for the
// listener, an empty user or an address that is not dotted IPv4, and with
// ERROR_ALREADY_EXISTS when another user is logged on in the session.
DWORD Logon(const Session& session);
// Active -> disconnected. ERROR_CTX_WINSTATION_NOT_FOUND for an unknown id,
// ERROR_INVALID_PARAMETER for a session without a user.
DWORD Disconnect(DWORD id);
// Ends the session (the console goes back to connected, without user).
DWORD Logoff(DWORD id);
// Any state, for tests (e.g. a session stuck in WTSReset).
DWORD SetState(DWORD id, WTS_CONNECTSTATE_CLASS state);

DWORD GetSession(DWORD id, Session* session);
DWORD ListSessions(std::vector<Session>* sessions);

}  // namespace platform::terminal
