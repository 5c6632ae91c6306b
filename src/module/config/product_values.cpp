#include "config/product_values.h"

#include <algorithm>

#include "config/product_key.h"

namespace ovsvc::config {

namespace {

using platform::DWORD;

bool IsText(DWORD type, TextTypes types) {
    return type == platform::REG_SZ || (types.expandSz && type == platform::REG_EXPAND_SZ) ||
           (types.multiSz && type == platform::REG_MULTI_SZ);
}

constexpr TextTypes kAllTextTypes{true, true};

std::uint32_t NumberOr(std::u16string_view name, NumberRule rule, std::uint32_t fallback,
                       bool* taken = nullptr) {
    std::uint32_t value = 0;
    const bool read = ReadNumber(name, rule, &value) == ReadStatus::kRead;
    if (taken != nullptr) {
        *taken = read;
    }
    return read ? value : fallback;
}

std::u16string TextOr(std::u16string_view name, TextTypes types, std::u16string_view fallback) {
    std::u16string text;
    return ReadText(name, types, 0, &text) == ReadStatus::kRead ? text : std::u16string(fallback);
}

}  // namespace

platform::LSTATUS OpenProductKey(platform::REGSAM access, platform::UniqueKey* key) {
    return platform::RegOpenKeyExW(platform::HKEY_LOCAL_MACHINE, kProductKey, 0, access, key);
}

namespace {

// Opens the key for reading and asks for the value's type and size.
ReadStatus OpenAndQuery(std::u16string_view name, platform::UniqueKey* key, DWORD* type,
                        DWORD* size) {
    if (OpenProductKey(platform::KEY_READ, key) != platform::ERROR_SUCCESS) {
        return ReadStatus::kNoKey;
    }
    if (platform::RegQueryValueExW(key->get(), name, type, nullptr, size) !=
        platform::ERROR_SUCCESS) {
        return ReadStatus::kMissing;
    }
    return ReadStatus::kRead;
}

}  // namespace

ReadStatus ReadNumber(std::u16string_view name, NumberRule rule, std::uint32_t* value) {
    platform::UniqueKey key;
    DWORD type = 0;
    DWORD size = 0;
    if (const ReadStatus status = OpenAndQuery(name, &key, &type, &size);
        status != ReadStatus::kRead) {
        return status;
    }
    if ((rule == NumberRule::kDwordOnly && type != platform::REG_DWORD) || size != sizeof(DWORD)) {
        return ReadStatus::kWrongType;
    }
    DWORD data = 0;
    size = sizeof data;
    if (platform::RegQueryValueExW(key.get(), name, &type, &data, &size) !=
            platform::ERROR_SUCCESS ||
        size != sizeof data) {
        return ReadStatus::kMissing;
    }
    *value = data;
    return ReadStatus::kRead;
}

ReadStatus ReadText(std::u16string_view name, TextTypes types, std::size_t maxChars,
                    std::u16string* text) {
    platform::UniqueKey key;
    DWORD type = 0;
    DWORD size = 0;
    if (const ReadStatus status = OpenAndQuery(name, &key, &type, &size);
        status != ReadStatus::kRead) {
        return status;
    }
    if (!IsText(type, types)) {
        return ReadStatus::kWrongType;
    }
    // Room beyond the reported size, in case the value grows between the
    // two reads; the text is ended here rather than trusted to be.
    std::u16string data(size / sizeof(char16_t) + 64, u'\0');
    DWORD got = static_cast<DWORD>(data.size() * sizeof(char16_t));
    if (platform::RegQueryValueExW(key.get(), name, &type, data.data(), &got) !=
            platform::ERROR_SUCCESS ||
        !IsText(type, types)) {
        return ReadStatus::kMissing;
    }
    data.resize(got / sizeof(char16_t));
    data.resize(std::min(data.size(), data.find(u'\0')));  // the first string
    if (maxChars != 0 && data.size() > maxChars) {
        return ReadStatus::kWrongType;
    }
    *text = std::move(data);
    return ReadStatus::kRead;
}

std::optional<TraceSettings> ReadTraceSettings() {
    TraceSettings settings;
    if (ReadNumber(u"DebugLevel", NumberRule::kDwordOnly, &settings.level) != ReadStatus::kRead) {
        return std::nullopt;
    }
    settings.level &= 0x00FFFFFF;
    if (settings.level == 0 ||
        ReadText(u"DebugFile", {}, kMaxDebugFileChars, &settings.file) != ReadStatus::kRead) {
        return std::nullopt;
    }
    return settings;
}

std::uint32_t TimeOutService(bool* taken) {
    return NumberOr(u"TimeOutService", NumberRule::kDwordOnly, kDefaultTimeOutService, taken);
}

std::uint32_t TimeOutClient(bool* taken) {
    return NumberOr(u"TimeOutClient", NumberRule::kDwordOnly, kDefaultTimeOutClient, taken);
}

std::u16string PrinterNameScheme() {
    std::u16string scheme;
    switch (ReadText(u"PrinterNameScheme", kAllTextTypes, 0, &scheme)) {
        case ReadStatus::kRead:
            return scheme;
        case ReadStatus::kWrongType:
            return u"";
        default:
            return kDefaultPrinterNameScheme;
    }
}

std::uint32_t PrinterPropertyFlags() {
    return NumberOr(u"PrinterPropertyFlags", NumberRule::kAnyFourBytes,
                    kDefaultPrinterPropertyFlags);
}

ReadStatus RightsWinNT(std::uint32_t* value) {
    return ReadNumber(u"RightsWinNT", NumberRule::kDwordOnly, value);
}

ReadStatus RightsWin2000(std::uint32_t* value) {
    return ReadNumber(u"RightsWin2000", NumberRule::kDwordOnly, value);
}

bool ForceListenToWTS() {
    return NumberOr(u"ForceListenToWTS", NumberRule::kAnyFourBytes, 0) != 0;
}

bool ListenToWTS() {
    return NumberOr(u"ListenToWTS", NumberRule::kAnyFourBytes, 1) != 0;
}

std::u16string ListenToWTSDeleteCmd() {
    std::u16string command;
    if (ReadText(u"ListenToWTSDeleteCmd", kAllTextTypes, 0, &command) != ReadStatus::kRead ||
        command.empty()) {
        return kDefaultDeleteCommand;
    }
    return command;
}

bool ListenToWTSOnDisconnect() {
    return NumberOr(u"ListenToWTSOnDisconnect", NumberRule::kDwordOnly, 1) != 0;
}

std::uint32_t ListenToWTSTrys() {
    return NumberOr(u"ListenToWTSTrys", NumberRule::kDwordOnly, 20);
}

std::uint32_t ListenToWTSTryDelay() {
    return NumberOr(u"ListenToWTSTryDelay", NumberRule::kDwordOnly, 2000);
}

std::u16string ListenToWTSCreatCmd(std::uint32_t osMajorVersion) {
    return TextOr(u"ListenToWTSCreatCmd", {},
                  osMajorVersion < 4 ? u"Ovaspool -q -s %d" : u"Ovaspool -q");
}

std::u16string ConnectToClient() {
    return TextOr(u"ConnectToClient", {}, u"AUTO");
}

std::u16string Protocol() {
    return TextOr(u"Protocol", {}, u"TCPIP");
}

std::uint32_t PrinterProperties() {
    return NumberOr(u"PrinterProperties", NumberRule::kDwordOnly, 1);
}

}  // namespace ovsvc::config
