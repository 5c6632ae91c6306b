#include "create/postscript_driver.h"

#include "platform/spooler.h"
#include "trace/trace.h"

namespace ovsvc {

bool DeletePostScriptDriver(std::u16string_view driverName) {
    platform::SetLastError(platform::ERROR_SUCCESS);
    const bool deleted = platform::DeletePrinterDriverExW(
        u"", platform::kEnvironmentX64, driverName, platform::DPD_DELETE_UNUSED_FILES, 0);
    const platform::DWORD error = platform::GetLastError();
    if (deleted) {
        OVTRACE(INF | NORM, "DeletePrinterDriverEx <%s> = %d (ok)", driverName, error);
    } else {
        OVTRACE(ERR | NORM, "DeletePrinterDriverEx <%s> = %d", driverName, error);
    }
    platform::SetLastError(error);
    return deleted;
}

}  // namespace ovsvc
