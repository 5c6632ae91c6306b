// What the Win32 kernel, file and process files share: the rules the
// platform adds to Windows' own for object names, paths and handles, and the
// SECURITY_ATTRIBUTES of a create call.
//
// Include after "win32_api.h".
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/kernel.h"

namespace platform::win32 {

// ERROR_SUCCESS for a name a kernel object may have (an empty one included:
// the object is then unnamed), otherwise the error the platform documents:
// ERROR_FILENAME_EXCED_RANGE for more than MAX_PATH characters after the
// namespace prefix, ERROR_INVALID_NAME for a prefix alone and
// ERROR_PATH_NOT_FOUND for a backslash after it.
DWORD CheckObjectName(std::u16string_view name);

// The name as the Windows call takes it: null for an empty one.
class ObjectName {
  public:
    explicit ObjectName(std::u16string_view name) : text_(name) {}
    [[nodiscard]] const wchar_t* get() const { return text_.empty() ? nullptr : Wide(text_); }

  private:
    std::u16string text_;
};

// ERROR_SUCCESS for a path whose components hold only characters Windows
// allows in file names, otherwise ERROR_INVALID_NAME (an alternate data
// stream, a wildcard, a control character). The "\\?\" and drive prefixes
// are not components.
DWORD CheckPath(std::u16string_view path);

// The handle values no platform call hands out for a kernel object: null and
// INVALID_HANDLE_VALUE (which Windows reads as the current process).
inline bool IsNoHandle(HANDLE handle) {
    return handle == nullptr || handle == INVALID_HANDLE_VALUE;
}

// A SECURITY_ATTRIBUTES built from the platform's, alive as long as this.
class Win32SecurityAttributes {
  public:
    // False (with the last error set) when the descriptor cannot be converted.
    bool Build(const SecurityAttributes* attributes);
    // Null when the call had no attributes.
    [[nodiscard]] ::SECURITY_ATTRIBUTES* get() { return present_ ? &attributes_ : nullptr; }

  private:
    bool present_ = false;
    ::SECURITY_ATTRIBUTES attributes_{};
    ::SECURITY_DESCRIPTOR nullDacl_{};
    std::vector<std::byte> selfRelative_;
};

// The directory of the module the platform code is linked into (OVSvc.dll or
// a program), without a trailing backslash.
std::u16string ModuleDirectory();

}  // namespace platform::win32
