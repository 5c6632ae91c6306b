#include "manage/wmi_common.h"

#include "platform/scm.h"
#include "trace/trace.h"

namespace ovsvc::WMI {

namespace {
constexpr platform::DWORD kDatabaseLocked = 1055;  // ERROR_SERVICE_DATABASE_LOCKED
}

bool IsAdmin() {
    const platform::UniqueServiceHandle manager(
        platform::OpenSCManagerW(u"", u"", platform::SC_MANAGER_LOCK));
    if (!manager) {
        OVTRACE(WRN | NORM, "OpenSCManager failed, err=%d", platform::GetLastError());
        return false;
    }
    platform::UniqueServiceLock lock(platform::LockServiceDatabase(manager.get()));
    if (lock) {
        return true;
    }
    return platform::GetLastError() == kDatabaseLocked;
}

}  // namespace ovsvc::WMI
