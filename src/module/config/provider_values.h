// The product key's settings as the management provider shows and sets
// them. The provider's reading rules are its own: a text is taken only
// when it fits 256 bytes (127 characters and the terminator), has a text
// type and is properly terminated; a number or flag only when it is a
// REG_DWORD. Anything else shows the default.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/registry.h"

namespace ovsvc::config {

// Every setting; on writing, those left empty are not written.
struct ProviderSettings {
    std::optional<std::u16string> connectToClient;       // "AUTO"
    std::optional<std::uint32_t> rightsWin2000;          // 3
    std::optional<std::uint32_t> rightsWinNT;            // 0
    std::optional<std::u16string> protocol;              // "TCPIP"
    std::optional<std::uint32_t> timeOutService;         // 5000
    std::optional<std::uint32_t> timeOutClient;          // 120000
    std::optional<bool> listenToWTS;                     // true
    std::optional<bool> listenToWTSOnDisconnect;         // true
    std::optional<std::uint32_t> listenToWTSTries;       // 20, stored as ListenToWTSTrys
    std::optional<std::uint32_t> listenToWTSTryDelay;    // 2000
    std::optional<std::uint32_t> printerProperties;      // 1
    std::optional<std::uint32_t> printerPropertyFlags;   // 65535
    std::optional<std::u16string> listenToWTSCreateCmd;  // stored as ListenToWTSCreatCmd
    std::optional<std::u16string> listenToWTSDeleteCmd;  // "Ovaspool -q -d"
};

// Fills every setting from the open product key (stored value or default).
// The create command's default depends on the system's major version.
void ReadProviderSettings(platform::HKEY productKey, std::uint32_t osMajorVersion,
                          ProviderSettings* settings);

// The protocol words the provider accepts, compared exactly.
bool IsKnownProtocol(std::u16string_view protocol);

// Writes the settings that are set, in the provider's order (Protocol,
// ConnectToClient, RightsWin2000, RightsWinNT, TimeOutService,
// TimeOutClient, ListenToWTS, ListenToWTSOnDisconnect, ListenToWTSTrys,
// PrinterProperties, PrinterPropertyFlags, ListenToWTSTryDelay,
// ListenToWTSCreatCmd, ListenToWTSDeleteCmd); texts as REG_SZ with their
// terminator, the rest as REG_DWORD (flags 0 or 1). Every write is tried;
// true when all succeeded.
bool WriteProviderSettings(platform::HKEY productKey, const ProviderSettings& settings);

}  // namespace ovsvc::config
