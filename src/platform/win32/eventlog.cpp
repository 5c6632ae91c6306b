// The event log on Windows: entries go to the system's Application log
// through RegisterEventSource / ReportEvent.
//
// The arguments the platform documents as refused are checked before the
// system sees them, so that every Windows (and Wine, which accepts anything)
// gives the same answer.
#include "platform/eventlog.h"

#include <exception>
#include <string>
#include <vector>

#include "win32_api.h"

namespace platform {

namespace {

using win32::Wide;

// Windows' limit on one insertion string, in characters.
constexpr std::size_t kMaxStringChars = 31839;

bool KnownType(WORD type) {
    switch (type) {
        case EVENTLOG_SUCCESS:
        case EVENTLOG_ERROR_TYPE:
        case EVENTLOG_WARNING_TYPE:
        case EVENTLOG_INFORMATION_TYPE:
        case 0x0008:  // audit success
        case 0x0010:  // audit failure
            return true;
        default:
            return false;
    }
}

}  // namespace

HANDLE RegisterEventSourceW(std::u16string_view server, std::u16string_view source) {
    try {
        if (source.empty()) {
            ::SetLastError(ERROR_INVALID_PARAMETER);  // a source needs a name
            return nullptr;
        }
        const std::u16string serverName(server);
        const std::u16string sourceName(source);
        return ::RegisterEventSourceW(serverName.empty() ? nullptr : Wide(serverName),
                                      Wide(sourceName));
    } catch (const std::exception&) {
        ::SetLastError(ERROR_OUTOFMEMORY);
        return nullptr;
    }
}

bool ReportEventW(HANDLE eventLog, WORD type, WORD category, DWORD eventId, const void* userSid,
                  const std::vector<std::u16string>& strings, const void* rawData,
                  DWORD rawDataSize) {
    try {
        if (eventLog == nullptr) {
            ::SetLastError(ERROR_INVALID_HANDLE);
            return false;
        }
        if (!KnownType(type) || strings.size() > 0xFFFF ||
            (rawDataSize != 0 && rawData == nullptr)) {
            ::SetLastError(ERROR_INVALID_PARAMETER);
            return false;
        }
        std::vector<const wchar_t*> texts;
        texts.reserve(strings.size());
        for (const auto& text : strings) {
            if (text.size() > kMaxStringChars) {
                ::SetLastError(ERROR_INVALID_PARAMETER);
                return false;
            }
            texts.push_back(Wide(text));
        }
        if (!::ReportEventW(eventLog, type, category, static_cast<::DWORD>(eventId),
                            const_cast<void*>(userSid), static_cast<::WORD>(texts.size()),
                            static_cast<::DWORD>(rawDataSize),
                            texts.empty() ? nullptr : texts.data(), const_cast<void*>(rawData))) {
            return false;
        }
        ::SetLastError(ERROR_SUCCESS);
        return true;
    } catch (const std::exception&) {
        ::SetLastError(ERROR_OUTOFMEMORY);
        return false;
    }
}

bool DeregisterEventSource(HANDLE eventLog) {
    if (!::DeregisterEventSource(eventLog)) {
        return false;
    }
    ::SetLastError(ERROR_SUCCESS);
    return true;
}

}  // namespace platform
