#include "channel/timeouts.h"

#include "config/product_key.h"
#include "platform/registry.h"
#include "trace/trace.h"

namespace ovsvc {

bool ReadTimeOutValue(std::u16string_view valueName, std::uint32_t defaultValue,
                      std::uint32_t* value) {
    *value = defaultValue;
    platform::UniqueKey key;
    if (platform::RegOpenKeyExW(platform::HKEY_LOCAL_MACHINE, kProductKey, 0, platform::KEY_READ,
                                &key) != platform::ERROR_SUCCESS) {
        OVTRACE(ERR | NORM, "cannot open regkey <%s>", kProductKey);
        return false;
    }
    platform::DWORD type = 0;
    platform::DWORD size = 0;
    if (platform::RegQueryValueExW(key.get(), valueName, &type, nullptr, &size) !=
            platform::ERROR_SUCCESS ||
        type != platform::REG_DWORD || size == 0) {
        return false;
    }
    std::uint32_t data = 0;
    size = sizeof(data);
    if (platform::RegQueryValueExW(key.get(), valueName, &type, &data, &size) !=
            platform::ERROR_SUCCESS ||
        type != platform::REG_DWORD || size == 0) {
        return false;
    }
    *value = data;
    return true;
}

std::uint32_t QueryTimeOutValue(std::uint32_t id) {
    std::u16string_view name;
    std::uint32_t defaultValue = 0;
    if (id == kTimeOutServiceId) {
        name = u"TimeOutService";
        defaultValue = kDefaultTimeOutService;
    } else if (id == kTimeOutClientId) {
        name = u"TimeOutClient";
        defaultValue = kDefaultTimeOutClient;
    } else {
        return 0;
    }
    std::uint32_t value = 0;
    const bool ok = ReadTimeOutValue(name, defaultValue, &value);
    OVTRACE(INF | NORM, "Read Regvalue %s %s=%d", ok ? u"OK" : u"NOTOK", name, value);
    return value;
}

}  // namespace ovsvc
