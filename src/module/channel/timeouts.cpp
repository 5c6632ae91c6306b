#include "channel/timeouts.h"

#include "config/product_key.h"
#include "config/product_values.h"
#include "trace/trace.h"

namespace ovsvc {

bool ReadTimeOutValue(std::u16string_view valueName, std::uint32_t defaultValue,
                      std::uint32_t* value) {
    *value = defaultValue;
    std::uint32_t data = 0;
    switch (config::ReadNumber(valueName, config::NumberRule::kDwordOnly, &data)) {
        case config::ReadStatus::kRead:
            *value = data;
            return true;
        case config::ReadStatus::kNoKey:
            OVTRACE(ERR | NORM, "cannot open regkey <%s>", kProductKey);
            return false;
        default:
            return false;
    }
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
