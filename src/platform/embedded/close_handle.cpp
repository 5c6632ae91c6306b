#include "handle_table.h"
#include "platform/handle.h"

namespace platform {

bool CloseHandle(HANDLE handle) noexcept {
    std::shared_ptr<embedded::HandleObject> object =
        embedded::HandleTable::Instance().Remove(handle);
    if (object == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    LastErrorKeeper keep;  // a successful close leaves the last error as it was
    object.reset();        // the backend's destructor releases what the handle held
    return true;
}

}  // namespace platform
