// Names of kernel objects: namespace prefix, session scope and limits.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/error.h"

namespace platform::embedded {

// The scope of "Global\" names; other names are scoped by session id.
inline constexpr std::uint32_t kGlobalScope = 0xFFFFFFFF;

struct ObjectName {
    std::uint32_t scope = 0;
    std::u16string name;  // without the namespace prefix
};

// Splits a Win32 object name into scope and name. Returns ERROR_SUCCESS, or:
// ERROR_FILENAME_EXCED_RANGE when the name (without prefix) is longer than
// MAX_PATH characters, ERROR_PATH_NOT_FOUND when a backslash follows the
// prefix (object directories other than the two namespaces do not exist),
// ERROR_INVALID_NAME for a prefix with nothing after it, and
// ERROR_ACCESS_DENIED for a "Global\" name when the machine's global
// namespace is switched off. The name ends at its first NUL, as a C string
// argument would.
DWORD ParseObjectName(std::u16string_view raw, std::uint32_t session, bool globalAvailable,
                      ObjectName* out);

// ParseObjectName for the calling process: its session, and the machine's
// switch for the global namespace (read only for "Global\" names).
DWORD ParseObjectNameHere(std::u16string_view raw, ObjectName* out);

// Whether the machine offers "Global\" names (machine.conf global_namespace).
bool GlobalNamespaceAvailable();

}  // namespace platform::embedded
