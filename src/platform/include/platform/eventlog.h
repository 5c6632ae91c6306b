// The event log (RegisterEventSource / ReportEvent / DeregisterEventSource).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"
#include "platform/handle.h"
#include "platform/kernel.h"

namespace platform {

inline constexpr WORD EVENTLOG_SUCCESS = 0x0000;
inline constexpr WORD EVENTLOG_ERROR_TYPE = 0x0001;
inline constexpr WORD EVENTLOG_WARNING_TYPE = 0x0002;
inline constexpr WORD EVENTLOG_INFORMATION_TYPE = 0x0004;

// An empty server name means the local machine. Returns null on failure.
HANDLE RegisterEventSourceW(std::u16string_view server, std::u16string_view source);
bool ReportEventW(HANDLE eventLog, WORD type, WORD category, DWORD eventId, const void* userSid,
                  const std::vector<std::u16string>& strings, const void* rawData,
                  DWORD rawDataSize);
bool DeregisterEventSource(HANDLE eventLog);

struct EventSourceTraits {
    using pointer = HANDLE;
    static pointer invalid() noexcept { return nullptr; }
    static void close(pointer h) noexcept { DeregisterEventSource(h); }
};
using UniqueEventSource = UniqueHandle<EventSourceTraits>;

}  // namespace platform
