// The module's entry under the logon manager's notification key, written and
// removed by the module's registration.
#include <string>
#include <vector>

#include "platform/registry.h"
#include "platform/registry_text.h"
#include "session/logon_events.h"
#include "trace/trace.h"

namespace ovsvc {
namespace {

constexpr char16_t kNotifyKey[] =
    u"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon\\Notify";
constexpr char16_t kOwnKey[] = u"OVSvc";

void SetDword(platform::HKEY key, std::u16string_view name, platform::DWORD value) {
    platform::RegSetValueExW(key, name, platform::REG_DWORD, &value, sizeof value);
}

void SetText(platform::HKEY key, std::u16string_view name, std::u16string_view text) {
    const std::vector<std::byte> data = platform::regtext::StringBytes(text, true);
    platform::RegSetValueExW(key, name, platform::REG_SZ, data.data(),
                             static_cast<platform::DWORD>(data.size()));
}

}  // namespace

void RegisterLogonNotification() {
    OVTRACE(INF | NORM, "Register Key %s\\OVSvc...", kNotifyKey);
    platform::UniqueKey notify;
    platform::LSTATUS status = platform::RegOpenKeyExW(platform::HKEY_LOCAL_MACHINE, kNotifyKey, 0,
                                                       platform::KEY_ALL_ACCESS, &notify);
    if (status != platform::ERROR_SUCCESS) {
        OVTRACE(ERR | NORM, "Cannot open Key %s: cause %d", kNotifyKey, status);
        return;
    }
    platform::UniqueKey own;
    status = platform::RegCreateKeyExW(notify.get(), kOwnKey, platform::REG_OPTION_NON_VOLATILE,
                                       platform::KEY_ALL_ACCESS, &own, nullptr);
    if (status != platform::ERROR_SUCCESS) {
        OVTRACE(ERR | NORM, "Cannot create Key %s\\OVSvc: cause %d", kNotifyKey, status);
        return;
    }
    SetDword(own.get(), u"Asynchronous", 0);
    SetDword(own.get(), u"Impersonate", 0);
    SetText(own.get(), u"DllName", u"OVSvc.dll");
    SetText(own.get(), u"Startup", u"TSEventStartup");
    SetText(own.get(), u"Shutdown", u"TSEventShutdown");
}

void UnregisterLogonNotification() {
    OVTRACE(INF | NORM, "Unregister Key %s\\OVSvc...", kNotifyKey);
    platform::UniqueKey notify;
    platform::LSTATUS status = platform::RegOpenKeyExW(platform::HKEY_LOCAL_MACHINE, kNotifyKey, 0,
                                                       platform::KEY_ALL_ACCESS, &notify);
    if (status != platform::ERROR_SUCCESS) {
        OVTRACE(ERR | NORM, "Cannot open Key %s: cause %d", kNotifyKey, status);
        return;
    }
    status = platform::RegDeleteTreeW(notify.get(), kOwnKey);
    if (status != platform::ERROR_SUCCESS) {
        OVTRACE(ERR | NORM, "Cannot delete Key %s\\OVSvc: cause %d", kNotifyKey, status);
    }
}

}  // namespace ovsvc
