#include "config/provider_values.h"

#include <cstring>

namespace ovsvc::config {

namespace {

using platform::DWORD;

constexpr DWORD kTextBufferBytes = 256;

std::u16string ProviderText(platform::HKEY key, std::u16string_view name,
                            std::u16string_view fallback) {
    unsigned char buffer[kTextBufferBytes] = {};
    DWORD type = 0;
    DWORD size = sizeof buffer;
    if (platform::RegQueryValueExW(key, name, &type, buffer, &size) != platform::ERROR_SUCCESS ||
        size % 2 != 0 || size > sizeof buffer) {
        return std::u16string(fallback);
    }
    std::u16string units(size / 2, u'\0');
    std::memcpy(units.data(), buffer, size);
    bool terminated = false;
    if (type == platform::REG_SZ || type == platform::REG_EXPAND_SZ) {
        terminated = !units.empty() && units.back() == 0;
    } else if (type == platform::REG_MULTI_SZ) {
        terminated =
            units.size() >= 2 && units[units.size() - 1] == 0 && units[units.size() - 2] == 0;
    }
    if (!terminated) {
        return std::u16string(fallback);
    }
    return std::u16string(units.c_str());
}

std::uint32_t ProviderNumber(platform::HKEY key, std::u16string_view name, std::uint32_t fallback) {
    DWORD value = 0;
    DWORD type = 0;
    DWORD size = sizeof value;
    if (platform::RegQueryValueExW(key, name, &type, &value, &size) != platform::ERROR_SUCCESS ||
        type != platform::REG_DWORD || size != sizeof value) {
        return fallback;
    }
    return value;
}

bool WriteText(platform::HKEY key, std::u16string_view name,
               const std::optional<std::u16string>& text) {
    if (!text) {
        return true;
    }
    const std::u16string data = *text + u'\0';
    return platform::RegSetValueExW(key, name, platform::REG_SZ, data.data(),
                                    static_cast<DWORD>(data.size() * 2)) == platform::ERROR_SUCCESS;
}

bool WriteNumber(platform::HKEY key, std::u16string_view name,
                 const std::optional<std::uint32_t>& number) {
    if (!number) {
        return true;
    }
    const DWORD value = *number;
    return platform::RegSetValueExW(key, name, platform::REG_DWORD, &value, sizeof value) ==
           platform::ERROR_SUCCESS;
}

std::optional<std::uint32_t> Flag(const std::optional<bool>& flag) {
    return flag ? std::optional<std::uint32_t>(*flag ? 1 : 0) : std::nullopt;
}

}  // namespace

void ReadProviderSettings(platform::HKEY key, std::uint32_t osMajorVersion, ProviderSettings* s) {
    s->connectToClient = ProviderText(key, u"ConnectToClient", u"AUTO");
    s->rightsWin2000 = ProviderNumber(key, u"RightsWin2000", 3);
    s->rightsWinNT = ProviderNumber(key, u"RightsWinNT", 0);
    s->protocol = ProviderText(key, u"Protocol", u"TCPIP");
    s->timeOutService = ProviderNumber(key, u"TimeOutService", 5000);
    s->timeOutClient = ProviderNumber(key, u"TimeOutClient", 120000);
    s->listenToWTS = ProviderNumber(key, u"ListenToWTS", 1) != 0;
    s->listenToWTSOnDisconnect = ProviderNumber(key, u"ListenToWTSOnDisconnect", 1) != 0;
    s->listenToWTSTries = ProviderNumber(key, u"ListenToWTSTrys", 20);
    s->listenToWTSTryDelay = ProviderNumber(key, u"ListenToWTSTryDelay", 2000);
    s->printerProperties = ProviderNumber(key, u"PrinterProperties", 1);
    s->printerPropertyFlags = ProviderNumber(key, u"PrinterPropertyFlags", 65535);
    s->listenToWTSCreateCmd = ProviderText(
        key, u"ListenToWTSCreatCmd", osMajorVersion >= 4 ? u"Ovaspool -q" : u"Ovaspool -q -s %d");
    s->listenToWTSDeleteCmd = ProviderText(key, u"ListenToWTSDeleteCmd", u"Ovaspool -q -d");
}

bool IsKnownProtocol(std::u16string_view protocol) {
    for (const char16_t* word : {u"TCPIP", u"AUTO", u"RDP", u"ICA", u"VC"}) {
        if (protocol == word) {
            return true;
        }
    }
    return false;
}

bool WriteProviderSettings(platform::HKEY key, const ProviderSettings& s) {
    bool ok = true;
    ok &= WriteText(key, u"Protocol", s.protocol);
    ok &= WriteText(key, u"ConnectToClient", s.connectToClient);
    ok &= WriteNumber(key, u"RightsWin2000", s.rightsWin2000);
    ok &= WriteNumber(key, u"RightsWinNT", s.rightsWinNT);
    ok &= WriteNumber(key, u"TimeOutService", s.timeOutService);
    ok &= WriteNumber(key, u"TimeOutClient", s.timeOutClient);
    ok &= WriteNumber(key, u"ListenToWTS", Flag(s.listenToWTS));
    ok &= WriteNumber(key, u"ListenToWTSOnDisconnect", Flag(s.listenToWTSOnDisconnect));
    ok &= WriteNumber(key, u"ListenToWTSTrys", s.listenToWTSTries);
    ok &= WriteNumber(key, u"PrinterProperties", s.printerProperties);
    ok &= WriteNumber(key, u"PrinterPropertyFlags", s.printerPropertyFlags);
    ok &= WriteNumber(key, u"ListenToWTSTryDelay", s.listenToWTSTryDelay);
    ok &= WriteText(key, u"ListenToWTSCreatCmd", s.listenToWTSCreateCmd);
    ok &= WriteText(key, u"ListenToWTSDeleteCmd", s.listenToWTSDeleteCmd);
    return ok;
}

}  // namespace ovsvc::config
