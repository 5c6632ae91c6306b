// Terminal sessions over WTSAPI32.DLL, bound at run time (wts_internal.h).
//
// The embedded machine's session-table administration has no Windows
// counterpart: sessions come and go with real logons, so Logon, Disconnect,
// Logoff and SetState answer ERROR_NOT_SUPPORTED here. Reading the table
// (GetSession, ListSessions) is answered from the real sessions; Windows does
// not tell a server which printers a client machine has, so those lists are
// empty.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "platform/kernel.h"
#include "platform/wts.h"
#include "win32_api.h"
#include "wts_internal.h"

namespace platform {

namespace win32 {

const WtsApi* BoundWtsApi() noexcept {
    struct Binding {
        WtsApi api;
        bool ok = false;
        DWORD error = ERROR_SUCCESS;
    };
    // Loaded once and never released: the functions handed out by
    // GetProcAddress stay callable for the life of the process.
    static const Binding binding = [] {
        Binding b;
        const DWORD before = ::GetLastError();
        HMODULE module = ::LoadLibraryExW(L"wtsapi32.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
        if (module == nullptr) {
            b.error = ::GetLastError();
            return b;
        }
        auto resolve = [&](const char* name) {
            ::FARPROC f = ::GetProcAddress(module, name);
            if (f == nullptr && b.error == ERROR_SUCCESS) {
                b.error = ::GetLastError();
            }
            return f;
        };
        b.api.enumerateSessions = reinterpret_cast<decltype(b.api.enumerateSessions)>(
            reinterpret_cast<void (*)()>(resolve("WTSEnumerateSessionsW")));
        b.api.querySessionInformation = reinterpret_cast<decltype(b.api.querySessionInformation)>(
            reinterpret_cast<void (*)()>(resolve("WTSQuerySessionInformationW")));
        b.api.freeMemory = reinterpret_cast<decltype(b.api.freeMemory)>(
            reinterpret_cast<void (*)()>(resolve("WTSFreeMemory")));
        b.ok = b.error == ERROR_SUCCESS;
        ::SetLastError(before);
        return b;
    }();
    if (!binding.ok) {
        ::SetLastError(binding.error);
        return nullptr;
    }
    return &binding.api;
}

}  // namespace win32

namespace {

// Owns a block WTSAPI32 allocated.
template <typename T>
class WtsMemory {
  public:
    explicit WtsMemory(const win32::WtsApi* api) : api_(api) {}
    WtsMemory(const WtsMemory&) = delete;
    WtsMemory& operator=(const WtsMemory&) = delete;
    ~WtsMemory() {
        if (block_ != nullptr) {
            const DWORD error = ::GetLastError();
            api_->freeMemory(block_);
            ::SetLastError(error);
        }
    }
    T** out() { return &block_; }
    T* get() const { return block_; }

  private:
    const win32::WtsApi* api_;
    T* block_ = nullptr;
};

bool IsAnsweredClass(WTS_INFO_CLASS infoClass) {
    switch (infoClass) {
        case WTSSessionId:
        case WTSUserName:
        case WTSWinStationName:
        case WTSDomainName:
        case WTSConnectState:
        case WTSClientName:
        case WTSClientAddress:
        case WTSClientProtocolType:
            return true;
        default:
            return false;
    }
}

std::u16string TextOf(const std::vector<std::byte>& bytes) {
    std::u16string text(bytes.size() / sizeof(char16_t), u'\0');
    std::memcpy(text.data(), bytes.data(), text.size() * sizeof(char16_t));
    const auto end = text.find(u'\0');
    if (end != std::u16string::npos) {
        text.resize(end);
    }
    return text;
}

}  // namespace

bool WTSEnumerateSessionsW(HANDLE server, DWORD reserved, DWORD version,
                           std::vector<WTS_SESSION_INFOW>* sessions) {
    if (reserved != 0 || version != 1 || sessions == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    const win32::WtsApi* api = win32::BoundWtsApi();
    if (api == nullptr) {
        return false;
    }
    WtsMemory<::WTS_SESSION_INFOW> list(api);
    ::DWORD count = 0;
    if (!api->enumerateSessions(static_cast<::HANDLE>(server), 0, 1, list.out(), &count)) {
        return false;
    }
    std::vector<WTS_SESSION_INFOW> result;
    result.reserve(count);
    for (::DWORD i = 0; i < count && list.get() != nullptr; ++i) {
        const ::WTS_SESSION_INFOW& s = list.get()[i];
        result.push_back({static_cast<DWORD>(s.SessionId), win32::FromWide(s.pWinStationName),
                          static_cast<WTS_CONNECTSTATE_CLASS>(s.State)});
    }
    std::stable_sort(result.begin(), result.end(),
                     [](const auto& a, const auto& b) { return a.SessionId < b.SessionId; });
    *sessions = std::move(result);
    return true;
}

bool WTSQuerySessionInformationW(HANDLE server, DWORD sessionId, WTS_INFO_CLASS infoClass,
                                 std::vector<std::byte>* buffer) {
    if (buffer == nullptr || !IsAnsweredClass(infoClass)) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    const win32::WtsApi* api = win32::BoundWtsApi();
    if (api == nullptr) {
        return false;
    }
    WtsMemory<wchar_t> data(api);
    ::DWORD size = 0;
    if (!api->querySessionInformation(static_cast<::HANDLE>(server), sessionId,
                                      static_cast<::WTS_INFO_CLASS>(infoClass), data.out(),
                                      &size)) {
        return false;
    }
    const auto* bytes = reinterpret_cast<const std::byte*>(data.get());
    buffer->assign(bytes, bytes == nullptr ? bytes : bytes + size);
    return true;
}

void WTSFreeMemory(std::vector<std::byte>* buffer) noexcept {
    if (buffer != nullptr) {
        buffer->clear();
        buffer->shrink_to_fit();
    }
}

// The module resolves these two but never calls them; the platform offers no
// result shape for them.
bool WTSEnumerateProcessesW(HANDLE, DWORD, DWORD) {
    ::SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
    return false;
}

bool WTSWaitSystemEvent(HANDLE, DWORD, DWORD* eventFlags) {
    if (eventFlags != nullptr) {
        *eventFlags = 0;
    }
    ::SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
    return false;
}

DWORD WTSGetActiveConsoleSessionId() noexcept {
    return ::WTSGetActiveConsoleSessionId();
}

namespace terminal {

std::u16string_view StateName(WTS_CONNECTSTATE_CLASS state) {
    static constexpr std::u16string_view kNames[] = {
        u"Active", u"Connected", u"ConnectQuery", u"Shadow", u"Disconnected",
        u"Idle",   u"Listen",    u"Reset",        u"Down",   u"Init"};
    return state <= WTSInit ? kNames[state] : std::u16string_view(u"Unknown");
}

DWORD GetSession(DWORD id, Session* session) {
    if (session == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    Session s;
    s.id = id;
    std::vector<std::byte> b;
    auto query = [&](WTS_INFO_CLASS infoClass) {
        return WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, id, infoClass, &b);
    };
    ::SetLastError(ERROR_SUCCESS);  // a failure that names no error is an unknown session
    if (!query(WTSConnectState) || b.size() < sizeof(DWORD)) {
        const DWORD error = ::GetLastError();
        return error != ERROR_SUCCESS ? error : ERROR_CTX_WINSTATION_NOT_FOUND;
    }
    DWORD state = 0;
    std::memcpy(&state, b.data(), sizeof state);
    s.state = static_cast<WTS_CONNECTSTATE_CLASS>(state);
    struct Text {
        WTS_INFO_CLASS infoClass;
        std::u16string* field;
    };
    for (const Text& t :
         {Text{WTSWinStationName, &s.winStationName}, Text{WTSUserName, &s.userName},
          Text{WTSDomainName, &s.domainName}, Text{WTSClientName, &s.clientName}}) {
        if (query(t.infoClass)) {
            *t.field = TextOf(b);
        }
    }
    if (query(WTSClientAddress) && b.size() >= sizeof(WTS_CLIENT_ADDRESS)) {
        WTS_CLIENT_ADDRESS address;
        std::memcpy(&address, b.data(), sizeof address);
        if (address.AddressFamily == AF_INET) {
            const std::uint8_t* a = address.Address + 2;
            const std::string dotted = std::to_string(a[0]) + '.' + std::to_string(a[1]) + '.' +
                                       std::to_string(a[2]) + '.' + std::to_string(a[3]);
            s.clientAddress.assign(dotted.begin(), dotted.end());
        }
    }
    *session = std::move(s);
    return ERROR_SUCCESS;
}

DWORD ListSessions(std::vector<Session>* sessions) {
    if (sessions == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    std::vector<WTS_SESSION_INFOW> all;
    if (!WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &all)) {
        return ::GetLastError();
    }
    std::vector<Session> result;
    for (const auto& info : all) {
        Session s;
        if (GetSession(info.SessionId, &s) != ERROR_SUCCESS) {
            // Gone since it was listed, or not answering: what the list said.
            s = Session{};
            s.id = info.SessionId;
            s.state = info.State;
        }
        s.winStationName = info.pWinStationName;
        result.push_back(std::move(s));
    }
    *sessions = std::move(result);
    return ERROR_SUCCESS;
}

// Administration of the embedded machine's session table: Windows' sessions
// are made by real logons, so there is nothing to administer.
DWORD Logon(const Session&) {
    return ERROR_NOT_SUPPORTED;
}
DWORD Disconnect(DWORD) {
    return ERROR_NOT_SUPPORTED;
}
DWORD Logoff(DWORD) {
    return ERROR_NOT_SUPPORTED;
}
DWORD SetState(DWORD, WTS_CONNECTSTATE_CLASS) {
    return ERROR_NOT_SUPPORTED;
}

}  // namespace terminal

}  // namespace platform
