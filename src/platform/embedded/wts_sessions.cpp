// The session table of the embedded terminal server, kept in the registry.
#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>

#include "platform/machine.h"
#include "platform/registry.h"
#include "platform/security.h"
#include "platform/wts.h"
#include "wts_internal.h"

namespace platform {

namespace {

constexpr char16_t kSessionsKey[] = u"SOFTWARE\\OVSvc Embedded\\Sessions";
constexpr char16_t kTerminalServerKey[] = u"SYSTEM\\CurrentControlSet\\Control\\Terminal Server";
constexpr char16_t kProductOptionsKey[] = u"System\\CurrentControlSet\\Control\\ProductOptions";
constexpr char16_t kPrintersSubkey[] = u"Printers";

std::u16string SessionKeyPath(DWORD id) {
    return std::u16string(kSessionsKey) + u"\\" + detail::Utf16(std::to_string(id));
}

void SetDword(HKEY key, std::u16string_view name, DWORD value) {
    RegSetValueExW(key, name, REG_DWORD, &value, sizeof value);
}

void SetText(HKEY key, std::u16string_view name, std::u16string_view text) {
    std::u16string data(text);
    RegSetValueExW(key, name, REG_SZ, data.c_str(),
                   static_cast<DWORD>((data.size() + 1) * sizeof(char16_t)));
}

void SetList(HKEY key, std::u16string_view name, const std::vector<std::u16string>& list) {
    std::u16string data;
    for (const auto& item : list) {
        data += item;
        data.push_back(u'\0');
    }
    data.push_back(u'\0');
    RegSetValueExW(key, name, REG_MULTI_SZ, data.data(),
                   static_cast<DWORD>(data.size() * sizeof(char16_t)));
}

bool ValueExists(HKEY key, std::u16string_view name) {
    DWORD type = 0;
    DWORD size = 0;
    return RegQueryValueExW(key, name, &type, nullptr, &size) == ERROR_SUCCESS;
}

std::u16string GetText(HKEY key, std::u16string_view name) {
    RegistryValue value;
    if (RegGetValue(key, name, &value) != ERROR_SUCCESS ||
        (value.type != REG_SZ && value.type != REG_EXPAND_SZ)) {
        return {};
    }
    std::u16string text(value.data.size() / sizeof(char16_t), u'\0');
    std::memcpy(text.data(), value.data.data(), text.size() * sizeof(char16_t));
    while (!text.empty() && text.back() == u'\0') {
        text.pop_back();
    }
    return text;
}

DWORD GetDword(HKEY key, std::u16string_view name, DWORD fallback) {
    DWORD value = 0;
    DWORD size = sizeof value;
    DWORD type = 0;
    if (RegQueryValueExW(key, name, &type, &value, &size) != ERROR_SUCCESS || type != REG_DWORD) {
        return fallback;
    }
    return value;
}

std::vector<std::u16string> GetList(HKEY key, std::u16string_view name) {
    RegistryValue value;
    std::vector<std::u16string> list;
    if (RegGetValue(key, name, &value) != ERROR_SUCCESS || value.type != REG_MULTI_SZ) {
        return list;
    }
    std::u16string all(value.data.size() / sizeof(char16_t), u'\0');
    std::memcpy(all.data(), value.data.data(), all.size() * sizeof(char16_t));
    std::size_t start = 0;
    while (start < all.size() && all[start] != u'\0') {
        std::size_t end = all.find(u'\0', start);
        if (end == std::u16string::npos) {
            end = all.size();
        }
        list.push_back(all.substr(start, end - start));
        start = end + 1;
    }
    return list;
}

void WriteSession(HKEY key, const terminal::Session& s) {
    SetText(key, u"WinStationName", s.winStationName);
    SetDword(key, u"State", s.state);
    SetText(key, u"UserName", s.userName);
    SetText(key, u"DomainName", s.domainName);
    SetText(key, u"ClientName", s.clientName);
    SetText(key, u"ClientAddress", s.clientAddress);
    RegDeleteTreeW(key, kPrintersSubkey);
    if (s.printers.empty()) {
        return;
    }
    UniqueKey printers;
    if (RegCreateKeyExW(key, kPrintersSubkey, 0, KEY_ALL_ACCESS, &printers, nullptr) !=
        ERROR_SUCCESS) {
        return;
    }
    for (std::size_t i = 0; i < s.printers.size(); ++i) {
        const auto& p = s.printers[i];
        UniqueKey pk;
        // Numbered in logon order, so enumeration gives the client's order.
        if (RegCreateKeyExW(printers.get(), detail::Utf16(std::to_string(i)), 0, KEY_ALL_ACCESS,
                            &pk, nullptr) != ERROR_SUCCESS) {
            continue;
        }
        SetText(pk.get(), u"Name", p.name);
        SetText(pk.get(), u"Class", p.printerClass);
        SetText(pk.get(), u"Driver", p.driver);
        SetDword(pk.get(), u"PrinterId", p.printerId);
        SetList(pk.get(), u"Trays", p.trays);
        SetList(pk.get(), u"Papers", p.papers);
        SetList(pk.get(), u"Resolutions", p.resolutions);
        SetDword(pk.get(), u"Duplex", p.duplex);
        if (!p.ppd.empty()) {
            RegSetValueExW(pk.get(), u"PPD", REG_BINARY, p.ppd.data(),
                           static_cast<DWORD>(p.ppd.size()));
        }
    }
}

std::vector<terminal::ClientPrinter> ReadPrinters(HKEY sessionKey) {
    std::vector<terminal::ClientPrinter> out;
    UniqueKey printers;
    if (RegOpenKeyExW(sessionKey, kPrintersSubkey, 0, KEY_READ, &printers) != ERROR_SUCCESS) {
        return out;
    }
    std::vector<std::u16string> names;
    RegEnumSubKeys(printers.get(), &names);
    std::vector<std::pair<DWORD, std::u16string>> ordered;
    for (const auto& n : names) {
        ordered.emplace_back(detail::ParseDword(detail::Utf8(n)).value_or(0xFFFFFFFF), n);
    }
    std::sort(ordered.begin(), ordered.end());
    for (const auto& [index, name] : ordered) {
        UniqueKey pk;
        if (RegOpenKeyExW(printers.get(), name, 0, KEY_READ, &pk) != ERROR_SUCCESS) {
            continue;
        }
        terminal::ClientPrinter p;
        p.name = GetText(pk.get(), u"Name");
        p.printerClass = GetText(pk.get(), u"Class");
        p.driver = GetText(pk.get(), u"Driver");
        p.printerId = GetDword(pk.get(), u"PrinterId", 0);
        p.trays = GetList(pk.get(), u"Trays");
        p.papers = GetList(pk.get(), u"Papers");
        p.resolutions = GetList(pk.get(), u"Resolutions");
        p.duplex = GetDword(pk.get(), u"Duplex", 0);
        if (RegistryValue ppd;
            RegGetValue(pk.get(), u"PPD", &ppd) == ERROR_SUCCESS && ppd.type == REG_BINARY) {
            p.ppd = std::move(ppd.data);
        }
        out.push_back(std::move(p));
    }
    return out;
}

bool ReadSession(DWORD id, terminal::Session* s, bool withPrinters = true) {
    UniqueKey key;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, SessionKeyPath(id), 0, KEY_READ, &key) != ERROR_SUCCESS) {
        return false;
    }
    s->id = id;
    s->winStationName = GetText(key.get(), u"WinStationName");
    s->state = static_cast<WTS_CONNECTSTATE_CLASS>(GetDword(key.get(), u"State", WTSDown));
    s->userName = GetText(key.get(), u"UserName");
    s->domainName = GetText(key.get(), u"DomainName");
    s->clientName = GetText(key.get(), u"ClientName");
    s->clientAddress = GetText(key.get(), u"ClientAddress");
    if (withPrinters) {
        s->printers = ReadPrinters(key.get());
    }
    return true;
}

DWORD StoreSession(const terminal::Session& s) {
    UniqueKey key;
    const LSTATUS rc =
        RegCreateKeyExW(HKEY_LOCAL_MACHINE, SessionKeyPath(s.id), 0, KEY_ALL_ACCESS, &key, nullptr);
    if (rc != ERROR_SUCCESS) {
        return static_cast<DWORD>(rc);
    }
    WriteSession(key.get(), s);
    return ERROR_SUCCESS;
}

terminal::Session ConsoleSession() {
    terminal::Session s;
    s.id = 0;
    s.winStationName = u"Console";
    s.state = WTSConnected;
    return s;
}

terminal::Session ListenerSession() {
    terminal::Session s;
    s.id = kListenerSessionId;
    s.winStationName = u"RDP-Tcp";
    s.state = WTSListen;
    return s;
}

struct SeedState {
    std::mutex mutex;
    std::string seededRoot;
};

SeedState& Seed() {
    static SeedState* state = [] {
        auto* s = new SeedState;
        machine::OnRootChange([s] {
            std::lock_guard lock(s->mutex);
            s->seededRoot.clear();
        });
        return s;
    }();
    return *state;
}

bool ParseAddress(std::u16string_view text, std::uint8_t bytes[4]) {
    const std::string s = detail::Utf8(text);
    std::size_t start = 0;
    for (int part = 0; part < 4; ++part) {
        const std::size_t dot = part < 3 ? s.find('.', start) : s.size();
        if (dot == std::string::npos || dot == start || dot - start > 3) {
            return false;
        }
        auto v = detail::ParseDword(std::string_view(s).substr(start, dot - start));
        if (!v || *v > 255) {
            return false;
        }
        bytes[part] = static_cast<std::uint8_t>(*v);
        start = dot + 1;
    }
    return true;
}

void PutBytes(std::vector<std::byte>* buffer, const void* data, std::size_t size) {
    buffer->resize(size);
    std::memcpy(buffer->data(), data, size);
}

void PutText(std::vector<std::byte>* buffer, std::u16string_view text) {
    std::u16string z(text);
    PutBytes(buffer, z.c_str(), (z.size() + 1) * sizeof(char16_t));
}

DWORD ReadAllSessions(std::vector<terminal::Session>* sessions, bool withPrinters) {
    detail::EnsureTerminalServer();
    UniqueKey key;
    if (LSTATUS rc = RegOpenKeyExW(HKEY_LOCAL_MACHINE, kSessionsKey, 0, KEY_READ, &key);
        rc != ERROR_SUCCESS) {
        return static_cast<DWORD>(rc);
    }
    std::vector<std::u16string> names;
    if (LSTATUS rc = RegEnumSubKeys(key.get(), &names); rc != ERROR_SUCCESS) {
        return static_cast<DWORD>(rc);
    }
    std::vector<DWORD> ids;
    for (const auto& n : names) {
        if (auto id = detail::ParseDword(detail::Utf8(n))) {
            ids.push_back(*id);
        }
    }
    std::sort(ids.begin(), ids.end());
    sessions->clear();
    for (DWORD id : ids) {
        terminal::Session s;
        if (ReadSession(id, &s, withPrinters)) {
            sessions->push_back(std::move(s));
        }
    }
    return ERROR_SUCCESS;
}

}  // namespace

namespace detail {

void EnsureTerminalServer() {
    SeedState& seed = Seed();
    std::lock_guard lock(seed.mutex);
    const std::string& root = machine::Root();
    if (seed.seededRoot == root) {
        return;
    }
    LastErrorKeeper keep;
    UniqueKey sessions;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kSessionsKey, 0, KEY_READ, &sessions) != ERROR_SUCCESS) {
        // First use of this machine's terminal server: an application server
        // that accepts connections, with its console and its listener.
        UniqueKey ts;
        if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, kTerminalServerKey, 0, KEY_ALL_ACCESS, &ts,
                            nullptr) == ERROR_SUCCESS) {
            if (!ValueExists(ts.get(), u"TSAppCompat")) {
                SetDword(ts.get(), u"TSAppCompat", 1);
            }
            if (!ValueExists(ts.get(), u"fDenyTSConnections")) {
                SetDword(ts.get(), u"fDenyTSConnections", 0);
            }
        }
        UniqueKey po;
        if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, kProductOptionsKey, 0, KEY_ALL_ACCESS, &po,
                            nullptr) == ERROR_SUCCESS &&
            !ValueExists(po.get(), u"ProductSuite")) {
            SetList(po.get(), u"ProductSuite", {u"Terminal Server"});
        }
        StoreSession(ListenerSession());
        StoreSession(ConsoleSession());
    }
    seed.seededRoot = root;
}

}  // namespace detail

bool WTSEnumerateSessionsW(HANDLE server, DWORD reserved, DWORD version,
                           std::vector<WTS_SESSION_INFOW>* sessions) {
    if (server != WTS_CURRENT_SERVER_HANDLE || reserved != 0 || version != 1 ||
        sessions == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    std::vector<terminal::Session> all;
    if (DWORD rc = ReadAllSessions(&all, false); rc != ERROR_SUCCESS) {
        SetLastError(rc);
        return false;
    }
    sessions->clear();
    for (const auto& s : all) {
        sessions->push_back({s.id, s.winStationName, s.state});
    }
    SetLastError(ERROR_SUCCESS);
    return true;
}

bool WTSQuerySessionInformationW(HANDLE server, DWORD sessionId, WTS_INFO_CLASS infoClass,
                                 std::vector<std::byte>* buffer) {
    if (server != WTS_CURRENT_SERVER_HANDLE || buffer == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    const DWORD id = sessionId == WTS_CURRENT_SESSION ? GetCurrentSessionId() : sessionId;
    if (sessionId == WTS_CURRENT_SESSION && infoClass == WTSSessionId) {
        // A process always knows its own session, even one already logged off.
        PutBytes(buffer, &id, sizeof id);
        SetLastError(ERROR_SUCCESS);
        return true;
    }
    terminal::Session s;
    if (DWORD rc = terminal::GetSession(id, &s); rc != ERROR_SUCCESS) {
        SetLastError(rc);
        return false;
    }
    switch (infoClass) {
        case WTSSessionId:
            PutBytes(buffer, &id, sizeof id);
            break;
        case WTSConnectState: {
            const DWORD state = s.state;
            PutBytes(buffer, &state, sizeof state);
            break;
        }
        case WTSUserName:
            PutText(buffer, s.userName);
            break;
        case WTSDomainName:
            PutText(buffer, s.domainName);
            break;
        case WTSWinStationName:
            PutText(buffer, s.winStationName);
            break;
        case WTSClientName:
            PutText(buffer, s.clientName);
            break;
        case WTSClientAddress: {
            WTS_CLIENT_ADDRESS address;
            std::uint8_t bytes[4];
            if (!s.clientAddress.empty() && ParseAddress(s.clientAddress, bytes)) {
                address.AddressFamily = AF_INET;
                std::memcpy(address.Address + 2, bytes, 4);
            }
            PutBytes(buffer, &address, sizeof address);
            break;
        }
        case WTSClientProtocolType: {
            const std::uint16_t protocol = s.clientName.empty() ? 0 : 2;
            PutBytes(buffer, &protocol, sizeof protocol);
            break;
        }
        default:
            SetLastError(ERROR_INVALID_PARAMETER);
            return false;
    }
    SetLastError(ERROR_SUCCESS);
    return true;
}

void WTSFreeMemory(std::vector<std::byte>* buffer) noexcept {
    if (buffer != nullptr) {
        buffer->clear();
        buffer->shrink_to_fit();
    }
}

bool WTSEnumerateProcessesW(HANDLE, DWORD, DWORD) {
    SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
    return false;
}

bool WTSWaitSystemEvent(HANDLE, DWORD, DWORD* eventFlags) {
    if (eventFlags != nullptr) {
        *eventFlags = 0;
    }
    SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
    return false;
}

DWORD WTSGetActiveConsoleSessionId() noexcept {
    try {
        if (auto v = machine::Setting("console_session")) {
            if (auto id = detail::ParseDword(*v)) {
                return *id;
            }
        }
    } catch (...) {
    }
    return 0;
}

namespace terminal {

std::u16string_view StateName(WTS_CONNECTSTATE_CLASS state) {
    static constexpr std::u16string_view kNames[] = {
        u"Active", u"Connected", u"ConnectQuery", u"Shadow", u"Disconnected",
        u"Idle",   u"Listen",    u"Reset",        u"Down",   u"Init"};
    return state <= WTSInit ? kNames[state] : std::u16string_view(u"Unknown");
}

DWORD GetSession(DWORD id, Session* session) {
    detail::EnsureTerminalServer();
    if (session == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    return ReadSession(id, session) ? ERROR_SUCCESS : ERROR_CTX_WINSTATION_NOT_FOUND;
}

DWORD ListSessions(std::vector<Session>* sessions) {
    return ReadAllSessions(sessions, true);
}

DWORD Logon(const Session& session) {
    detail::EnsureTerminalServer();
    std::uint8_t bytes[4];
    if (session.id == kListenerSessionId || session.id == WTS_CURRENT_SESSION ||
        session.userName.empty() ||
        (!session.clientAddress.empty() && !ParseAddress(session.clientAddress, bytes))) {
        return ERROR_INVALID_PARAMETER;
    }
    Session s = session;
    Session old;
    if (ReadSession(session.id, &old) && !old.userName.empty() &&
        (detail::Utf8(old.userName) != detail::Utf8(session.userName) ||
         detail::Utf8(old.domainName) != detail::Utf8(session.domainName))) {
        return ERROR_ALREADY_EXISTS;
    }
    if (s.winStationName.empty()) {
        s.winStationName =
            s.id == 0 ? u"Console" : u"RDP-Tcp#" + detail::Utf16(std::to_string(s.id));
    }
    s.state = WTSActive;
    return StoreSession(s);
}

DWORD Disconnect(DWORD id) {
    Session s;
    if (DWORD rc = GetSession(id, &s); rc != ERROR_SUCCESS) {
        return rc;
    }
    if (s.userName.empty()) {
        return ERROR_INVALID_PARAMETER;
    }
    s.state = WTSDisconnected;
    return StoreSession(s);
}

DWORD Logoff(DWORD id) {
    Session s;
    if (DWORD rc = GetSession(id, &s); rc != ERROR_SUCCESS) {
        return rc;
    }
    if (s.userName.empty()) {
        return ERROR_INVALID_PARAMETER;
    }
    if (id == 0) {
        return StoreSession(ConsoleSession());
    }
    return static_cast<DWORD>(RegDeleteTreeW(HKEY_LOCAL_MACHINE, SessionKeyPath(id)));
}

DWORD SetState(DWORD id, WTS_CONNECTSTATE_CLASS state) {
    Session s;
    if (GetSession(id, &s) != ERROR_SUCCESS) {
        s = Session{};
        s.id = id;
        s.winStationName = u"RDP-Tcp#" + detail::Utf16(std::to_string(id));
    }
    s.state = state;
    return StoreSession(s);
}

}  // namespace terminal

}  // namespace platform
