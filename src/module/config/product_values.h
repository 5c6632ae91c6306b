// The values of the product key, one reader each, with their defaults and
// type rules. Every reader opens the key for reading, takes its value and
// closes the key again, so a changed value counts from the next read;
// nothing is kept between reads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/registry.h"

namespace ovsvc::config {

// ---- the key and the value kinds -----------------------------------------------

// Opens the product key of the local machine (KEY_READ for readers,
// KEY_ALL_ACCESS for writers); the status of the open.
platform::LSTATUS OpenProductKey(platform::REGSAM access, platform::UniqueKey* key);

enum class ReadStatus {
    kNoKey,      // the product key cannot be opened
    kMissing,    // the value does not exist or cannot be read
    kWrongType,  // it exists with a type the reader does not take
    kRead,
};

// Numbers: either only a REG_DWORD is taken, or any value of exactly four
// bytes (as a DWORD of another type still reads).
enum class NumberRule { kDwordOnly, kAnyFourBytes };
ReadStatus ReadNumber(std::u16string_view name, NumberRule rule, std::uint32_t* value);

// Texts of REG_SZ, and where allowed REG_EXPAND_SZ (not expanded) and
// REG_MULTI_SZ (its first string). `maxChars`: a longer text is not taken
// (0: no limit).
struct TextTypes {
    bool expandSz = false;
    bool multiSz = false;
};
ReadStatus ReadText(std::u16string_view name, TextTypes types, std::size_t maxChars,
                    std::u16string* text);

// ---- the values -----------------------------------------------------------------

// Tracing: DebugLevel (REG_DWORD, top byte ignored, 0 is off) and DebugFile
// (REG_SZ, at most 259 characters). Nullopt when tracing is off.
struct TraceSettings {
    std::uint32_t level = 0;
    std::u16string file;
};
inline constexpr std::size_t kMaxDebugFileChars = 259;
std::optional<TraceSettings> ReadTraceSettings();

// The channel's timeouts (REG_DWORD only); `taken` tells whether the stored
// value was used.
inline constexpr std::uint32_t kDefaultTimeOutService = 5000;
inline constexpr std::uint32_t kDefaultTimeOutClient = 120000;
std::uint32_t TimeOutService(bool* taken = nullptr);
std::uint32_t TimeOutClient(bool* taken = nullptr);

// Format of created printers' names: "%P on %S" when missing; a value of a
// non-text type gives an empty scheme.
inline constexpr char16_t kDefaultPrinterNameScheme[] = u"%P on %S";
std::u16string PrinterNameScheme();

// Which client printer properties are applied (any four bytes; 0xFFFF).
inline constexpr std::uint32_t kDefaultPrinterPropertyFlags = 0xFFFF;
std::uint32_t PrinterPropertyFlags();

// Access rights of a session's user (REG_DWORD only; no default).
ReadStatus RightsWinNT(std::uint32_t* value);
ReadStatus RightsWin2000(std::uint32_t* value);

// Logon notifications and the terminal-services switch.
bool ForceListenToWTS();  // any four bytes, nonzero; false
bool ListenToWTS();       // any four bytes, nonzero; true
inline constexpr char16_t kDefaultDeleteCommand[] = u"Ovaspool -q -d";
std::u16string ListenToWTSDeleteCmd();  // the three text types

// Values only the management provider shows and sets (REG_DWORD / REG_SZ).
bool ListenToWTSOnDisconnect();                                    // true
std::uint32_t ListenToWTSTrys();                                   // 20
std::uint32_t ListenToWTSTryDelay();                               // 2000
std::u16string ListenToWTSCreatCmd(std::uint32_t osMajorVersion);  // "Ovaspool -q"
std::u16string ConnectToClient();                                  // "AUTO"
std::u16string Protocol();                                         // "TCPIP"
std::uint32_t PrinterProperties();                                 // 1

}  // namespace ovsvc::config
