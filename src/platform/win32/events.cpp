// Named and unnamed events over the Windows object namespace.
#include "platform/kernel.h"

#include "win32_api.h"

#include "kernel_internal.h"

namespace platform {

UniqueEvent CreateEventW(const SecurityAttributes* attributes, bool manualReset, bool initialState,
                         std::u16string_view name) {
    if (const DWORD error = win32::CheckObjectName(name); error != ERROR_SUCCESS) {
        ::SetLastError(error);
        return UniqueEvent();
    }
    win32::Win32SecurityAttributes security;
    if (!security.Build(attributes)) {
        return UniqueEvent();
    }
    const win32::ObjectName objectName(name);
    UniqueEvent event(::CreateEventW(security.get(), manualReset ? TRUE : FALSE,
                                     initialState ? TRUE : FALSE, objectName.get()));
    if (event && ::GetLastError() != ERROR_ALREADY_EXISTS) {
        ::SetLastError(ERROR_SUCCESS);
    }
    return event;
}

UniqueEvent OpenEventW(DWORD desiredAccess, bool inheritHandle, std::u16string_view name) {
    if (const DWORD error = win32::CheckObjectName(name); error != ERROR_SUCCESS) {
        ::SetLastError(error);
        return UniqueEvent();
    }
    const win32::ObjectName objectName(name);  // null for "": ERROR_INVALID_PARAMETER
    UniqueEvent event(::OpenEventW(desiredAccess, inheritHandle ? TRUE : FALSE, objectName.get()));
    if (event) {
        ::SetLastError(ERROR_SUCCESS);
    }
    return event;
}

bool SetEvent(HANDLE event) {
    return ::SetEvent(event) != FALSE;
}

bool ResetEvent(HANDLE event) {
    return ::ResetEvent(event) != FALSE;
}

DWORD WaitForSingleObject(HANDLE object, DWORD milliseconds) {
    if (object == INVALID_HANDLE_VALUE) {  // the current process to Windows: would never end
        ::SetLastError(ERROR_INVALID_HANDLE);
        return WAIT_FAILED;
    }
    return static_cast<DWORD>(::WaitForSingleObject(object, milliseconds));
}

}  // namespace platform
