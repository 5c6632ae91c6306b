#include "object_names.h"

#include "platform/kernel.h"
#include "platform/machine.h"

namespace platform::embedded {

namespace {
constexpr std::u16string_view kGlobalPrefix = u"Global\\";
constexpr std::u16string_view kLocalPrefix = u"Local\\";
}  // namespace

DWORD ParseObjectName(std::u16string_view raw, std::uint32_t session, bool globalAvailable,
                      ObjectName* out) {
    if (const auto nul = raw.find(u'\0'); nul != std::u16string_view::npos) {
        raw = raw.substr(0, nul);
    }
    std::uint32_t scope = session;
    bool global = false;
    if (raw.starts_with(kGlobalPrefix)) {
        raw.remove_prefix(kGlobalPrefix.size());
        scope = kGlobalScope;
        global = true;
    } else if (raw.starts_with(kLocalPrefix)) {
        raw.remove_prefix(kLocalPrefix.size());
    }
    if (raw.size() > MAX_PATH) {
        return ERROR_FILENAME_EXCED_RANGE;
    }
    if (raw.empty()) {
        return ERROR_INVALID_NAME;
    }
    if (raw.find(u'\\') != std::u16string_view::npos) {
        return ERROR_PATH_NOT_FOUND;
    }
    if (global && !globalAvailable) {
        return ERROR_ACCESS_DENIED;
    }
    out->scope = scope;
    out->name.assign(raw);
    return ERROR_SUCCESS;
}

DWORD ParseObjectNameHere(std::u16string_view raw, ObjectName* out) {
    const DWORD error = ParseObjectName(raw, GetCurrentSessionId(), true, out);
    if (error == ERROR_SUCCESS && out->scope == kGlobalScope && !GlobalNamespaceAvailable()) {
        return ERROR_ACCESS_DENIED;
    }
    return error;
}

bool GlobalNamespaceAvailable() {
    const auto setting = machine::Setting("global_namespace");
    return !setting || *setting != "0";
}

}  // namespace platform::embedded
