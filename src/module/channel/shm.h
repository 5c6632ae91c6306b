// The shared request area and the request record of the request channel.
//
// The area is one page-file-backed mapping that every process of the machine
// maps; its layout is fixed (little-endian integers, zero-terminated UTF-16
// strings with the rest of each field zero-filled).
#pragma once

#include <cstddef>
#include <cstdint>

namespace ovsvc {

// Command codes.
inline constexpr std::uint32_t CMDAddPrinter = 1;
inline constexpr std::uint32_t CMDDelPrinter = 2;
inline constexpr std::uint32_t CMDEnumPrinter = 3;
inline constexpr std::uint32_t CMDRepair = 4;
inline constexpr std::uint32_t CMDTranslate = 5;
inline constexpr std::uint32_t CMDLoadTranslationList = 6;

// Results the channel itself produces on the client side.
inline constexpr std::int32_t kResultTimeout = -14;
inline constexpr std::int32_t kResultWaitFailed = -15;
inline constexpr std::int32_t kResultNoEvent = -16;
inline constexpr std::int32_t kResultAckUnexpected = -17;
// Results of the enumeration export and the service's dispatch.
inline constexpr std::int32_t kResultUnknownCommand = -1;
inline constexpr std::int32_t kResultNoCache = -10;
inline constexpr std::int32_t kResultBufferTooSmall = -19;

inline constexpr std::size_t kNameUnits = 256;    // PN, PC, DRIVER, ADDR, UN, CN
inline constexpr std::size_t kAddressUnits = 16;  // IP
inline constexpr std::size_t kPropertiesUnits = 131073;
inline constexpr std::uint32_t kMaxPropertiesBytes = 131073;

struct SHM {
    std::int32_t Act;        // ticket now served
    std::int32_t Next;       // last ticket handed out
    std::uint32_t ThreadId;  // client being served; names its acknowledge event
    std::uint32_t Command;
    std::uint32_t StopFlag;
    std::int32_t Result;
    char16_t PN[kNameUnits];
    char16_t PC[kNameUnits];
    char16_t IP[kAddressUnits];
    std::uint32_t TYPE;
    char16_t DRIVER[kNameUnits];
    char16_t ADDR[kNameUnits];
    char16_t UN[kNameUnits];
    char16_t CN[kNameUnits];
    std::uint32_t PID;
    std::uint32_t SID;
    std::uint32_t nFlags;
    char16_t PrinterProperties[kPropertiesUnits];
    std::uint16_t padding;
    std::uint32_t PropertiesParts;
    std::uint32_t PropertiesLength;  // bytes, at most kMaxPropertiesBytes
    std::uint32_t nPrinterPropertiesOptions;
};

static_assert(offsetof(SHM, Act) == 0);
static_assert(offsetof(SHM, Next) == 4);
static_assert(offsetof(SHM, ThreadId) == 8);
static_assert(offsetof(SHM, Command) == 12);
static_assert(offsetof(SHM, StopFlag) == 16);
static_assert(offsetof(SHM, Result) == 20);
static_assert(offsetof(SHM, PN) == 24);
static_assert(offsetof(SHM, PC) == 536);
static_assert(offsetof(SHM, IP) == 1048);
static_assert(offsetof(SHM, TYPE) == 1080);
static_assert(offsetof(SHM, DRIVER) == 1084);
static_assert(offsetof(SHM, ADDR) == 1596);
static_assert(offsetof(SHM, UN) == 2108);
static_assert(offsetof(SHM, CN) == 2620);
static_assert(offsetof(SHM, PID) == 3132);
static_assert(offsetof(SHM, SID) == 3136);
static_assert(offsetof(SHM, nFlags) == 3140);
static_assert(offsetof(SHM, PrinterProperties) == 3144);
static_assert(offsetof(SHM, padding) == 265290);
static_assert(offsetof(SHM, PropertiesParts) == 265292);
static_assert(offsetof(SHM, PropertiesLength) == 265296);
static_assert(offsetof(SHM, nPrinterPropertiesOptions) == 265300);
static_assert(sizeof(SHM) == 265304);

// The reply region: the 8400 bytes from PN on, copied out after a request.
inline constexpr std::size_t kReplyOffset = 24;
inline constexpr std::size_t kReplyBytes = 8400;
// Where the create reply puts the created printer's name and class (bytes
// into the area), each in a slot of kCreatedNameUnits units.
inline constexpr std::size_t kCreatedNameOffset = 24;
inline constexpr std::size_t kCreatedClassOffset = 1074;
inline constexpr std::size_t kCreatedNameUnits = 525;
// Where the translate reply puts its three template names (bytes into the area).
inline constexpr std::size_t kTemplateOffsets[3] = {24, 536, 1048};
static_assert(kCreatedClassOffset + kCreatedNameUnits * 2 <= kReplyOffset + kReplyBytes);

// A request as an in-process caller hands it over; zero it, then fill it.
struct ClientRequest {
    std::uint32_t Command;
    const char16_t* PN;
    const char16_t* PC;
    const char16_t* IP;
    const char16_t* DRIVER;
    const char16_t* ADDR;
    const char16_t* UN;
    const char16_t* CN;
    const void* PrinterProperties;
    std::uint32_t TYPE;
    std::uint32_t SID;
    std::uint32_t PropertiesLength;
    std::uint32_t PropertiesParts;
    std::uint32_t nPrinterPropertiesOptions;
    std::uint32_t PID;
    std::uint32_t nFlags;
};

// The reply region as the client receives it.
struct ReplyBuffer {
    alignas(4) unsigned char bytes[kReplyBytes];
};

}  // namespace ovsvc
