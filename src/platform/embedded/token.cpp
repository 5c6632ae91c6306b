// Tokens: the account a process runs as, its groups and its session.
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>

#include "accounts_store.h"
#include "platform/machine.h"
#include "platform/registry.h"
#include "token_object.h"

namespace platform {

using admin::Account;

namespace {

using embedded::HandleKind;
using embedded::HandleTable;
using embedded::TokenGroup;
using embedded::TokenIdentity;
using embedded::TokenObject;

constexpr DWORD ERROR_BAD_LENGTH = 24;
constexpr DWORD kGroupAttributes =
    SE_GROUP_MANDATORY | SE_GROUP_ENABLED_BY_DEFAULT | SE_GROUP_ENABLED;
constexpr std::u16string_view kSystemAccount = u"NT AUTHORITY\\SYSTEM";

HANDLE PseudoHandle(std::intptr_t value) {
    return reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(value));
}

std::u16string Utf16(const std::string& s) {
    std::u16string out;
    for (std::size_t i = 0; i < s.size();) {
        const auto c = static_cast<unsigned char>(s[i]);
        char32_t cp = c;
        std::size_t len = 1;
        if (c >= 0xF0 && i + 3 < s.size() + 0) {
            cp = ((c & 0x07u) << 18) | ((static_cast<unsigned char>(s[i + 1]) & 0x3Fu) << 12) |
                 ((static_cast<unsigned char>(s[i + 2]) & 0x3Fu) << 6) |
                 (static_cast<unsigned char>(s[i + 3]) & 0x3Fu);
            len = 4;
        } else if (c >= 0xE0 && i + 2 < s.size()) {
            cp = ((c & 0x0Fu) << 12) | ((static_cast<unsigned char>(s[i + 1]) & 0x3Fu) << 6) |
                 (static_cast<unsigned char>(s[i + 2]) & 0x3Fu);
            len = 3;
        } else if (c >= 0xC0 && i + 1 < s.size()) {
            cp = ((c & 0x1Fu) << 6) | (static_cast<unsigned char>(s[i + 1]) & 0x3Fu);
            len = 2;
        }
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out += static_cast<char16_t>(0xD800 + (cp >> 10));
            out += static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
        } else {
            out += static_cast<char16_t>(cp);
        }
        i += len;
    }
    return out;
}

Sid WellKnown(WELL_KNOWN_SID_TYPE type) {
    Sid sid;
    CreateWellKnownSid(type, &sid);
    return sid;
}

struct ProcessState {
    std::mutex lock;
    std::optional<std::u16string> account;  // admin::SetProcessAccount
    std::map<std::u16string, std::shared_ptr<const TokenIdentity>> identities;
};

ProcessState& State() {
    static ProcessState* state = [] {
        auto* s = new ProcessState;
        machine::OnRootChange([s] {
            std::lock_guard guard(s->lock);
            s->identities.clear();
        });
        return s;
    }();
    return *state;
}

DWORD SessionOfProcess() {
    const char* text = std::getenv("OVSVC_SESSION_ID");
    return text != nullptr ? static_cast<DWORD>(std::strtoul(text, nullptr, 10)) : 0;
}

std::optional<std::u16string> SessionUser(DWORD session) {
    UniqueKey key;
    const std::u16string path =
        u"SOFTWARE\\OVSvc Embedded\\Sessions\\" + Utf16(std::to_string(session));
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &key) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    RegistryValue domain;
    RegistryValue user;
    if (RegGetValue(key.get(), u"UserName", &user) != ERROR_SUCCESS || user.type != REG_SZ) {
        return std::nullopt;
    }
    auto text = [](const RegistryValue& v) {
        std::u16string s(v.data.size() / 2, u'\0');
        std::memcpy(s.data(), v.data.data(), s.size() * 2);
        s.resize(std::min(s.find(u'\0'), s.size()));
        return s;
    };
    const std::u16string userName = text(user);
    if (userName.empty()) {
        return std::nullopt;
    }
    if (RegGetValue(key.get(), u"DomainName", &domain) == ERROR_SUCCESS && domain.type == REG_SZ &&
        !text(domain).empty()) {
        return text(domain) + u'\\' + userName;
    }
    return userName;
}

// Builds what a logon of the account gives its token; unknown users are
// added to the account table as users of their domain, as a first logon of
// a domain user makes them known to the machine.
std::shared_ptr<const TokenIdentity> BuildIdentity(std::u16string_view accountName, DWORD* error) {
    LastErrorKeeper keep;
    Account account;
    if (!accounts::Resolve(accountName, &account)) {
        // Adding the user may fail because making its domain known made the
        // account known too (a domain's Administrator): look again then.
        if (!admin::AddAccount(accountName, SidTypeUser, {}, &account) &&
            !accounts::Resolve(accountName, &account)) {
            *error = ERROR_NONE_MAPPED;
            return nullptr;
        }
    }
    // Only users and the system's own service accounts log on.
    const bool logonAccount =
        account.use == SidTypeUser || (account.use == SidTypeWellKnownGroup &&
                                       accounts::Upper(account.domain) == u"NT AUTHORITY");
    if (!logonAccount) {
        *error = ERROR_NONE_MAPPED;
        return nullptr;
    }
    auto identity = std::make_shared<TokenIdentity>();
    const bool isSystem = account.sid == WellKnown(WinLocalSystemSid);
    auto add = [&](const Sid& sid, DWORD attributes) {
        for (TokenGroup& g : identity->groups) {
            if (g.sid == sid) {
                g.attributes |= attributes;
                return;
            }
        }
        identity->groups.push_back({sid, attributes});
    };
    add(WellKnown(WinWorldSid), kGroupAttributes);
    for (const Sid& sid : accounts::GroupsOf(account)) {
        add(sid, kGroupAttributes);
    }
    if (isSystem) {
        add(WellKnown(WinBuiltinAdministratorsSid), kGroupAttributes | SE_GROUP_OWNER);
        identity->primaryGroup = account.sid;
    } else {
        add(WellKnown(WinBuiltinUsersSid), kGroupAttributes);
        add(WellKnown(WinInteractiveSid), kGroupAttributes);
        identity->primaryGroup = WellKnown(WinBuiltinUsersSid);
    }
    add(WellKnown(WinAuthenticatedUserSid), kGroupAttributes);
    add(WellKnown(WinLocalSid), kGroupAttributes);
    identity->account = std::move(account);
    return identity;
}

std::shared_ptr<const TokenIdentity> IdentityFor(const std::u16string& accountName, DWORD* error) {
    ProcessState& state = State();
    const std::u16string key = accounts::Upper(accountName);
    {
        std::lock_guard guard(state.lock);
        if (auto it = state.identities.find(key); it != state.identities.end()) {
            return it->second;
        }
    }
    auto identity = BuildIdentity(accountName, error);
    if (identity) {
        std::lock_guard guard(state.lock);
        state.identities[key] = identity;
    }
    return identity;
}

ACCESS_MASK MapTokenAccess(ACCESS_MASK access) {
    static constexpr GENERIC_MAPPING kTokenMapping{0x00020008, 0x000200E0, 0x00020000,
                                                   TOKEN_ALL_ACCESS};
    if ((access & MAXIMUM_ALLOWED) != 0) {
        access = (access & ~MAXIMUM_ALLOWED) | TOKEN_ALL_ACCESS;
    }
    MapGenericMask(&access, kTokenMapping);
    return access;
}

bool InsertToken(std::shared_ptr<const TokenIdentity> identity, DWORD session, DWORD access,
                 UniqueToken* token) {
    auto object = std::make_shared<TokenObject>(std::move(identity), session);
    HANDLE handle = HandleTable::Instance().Insert(std::move(object), MapTokenAccess(access));
    if (handle == nullptr) {
        return false;  // the table set the error
    }
    token->reset(handle);
    return true;
}

// Writes `sid` into `buffer` at `at` and returns where it starts.
const void* PlaceSid(std::byte* buffer, std::size_t at, const Sid& sid) {
    std::memcpy(buffer + at, sid.data(), sid.size());
    return buffer + at;
}

template <typename T>
void PlaceStruct(std::byte* buffer, std::size_t at, const T& value) {
    std::memcpy(buffer + at, &value, sizeof value);
}

}  // namespace

namespace embedded {

std::shared_ptr<TokenObject> TokenFromHandle(HANDLE token, DWORD required) {
    DWORD access = 0;
    auto object = HandleTable::Instance().LookupAs<TokenObject>(token, HandleKind::Token, &access);
    if (object == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    if ((access & required) != required) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    return object;
}

std::shared_ptr<const TokenIdentity> CurrentProcessIdentity(DWORD* error) {
    return IdentityFor(admin::CurrentProcessAccount(), error);
}

bool HoldsSid(const TokenIdentity& identity, const Sid& sid) {
    if (identity.account.sid == sid) {
        return true;
    }
    for (const TokenGroup& g : identity.groups) {
        if ((g.attributes & SE_GROUP_ENABLED) != 0 && g.sid == sid) {
            return true;
        }
    }
    return false;
}

}  // namespace embedded

HANDLE GetCurrentProcess() noexcept {
    return PseudoHandle(-1);
}
HANDLE GetCurrentThread() noexcept {
    return PseudoHandle(-2);
}

std::u16string admin::CurrentProcessAccount() {
    {
        ProcessState& state = State();
        std::lock_guard guard(state.lock);
        if (state.account) {
            return *state.account;
        }
    }
    if (const char* user = std::getenv("OVSVC_USER"); user != nullptr && *user != '\0') {
        return Utf16(user);
    }
    LastErrorKeeper keep;
    if (auto user = SessionUser(SessionOfProcess())) {
        return *user;
    }
    return std::u16string(kSystemAccount);
}

void admin::SetProcessAccount(std::u16string_view accountName) {
    ProcessState& state = State();
    std::lock_guard guard(state.lock);
    if (accountName.empty()) {
        state.account.reset();
    } else {
        state.account = std::u16string(accountName);
    }
}

bool OpenProcessToken(HANDLE process, DWORD desiredAccess, UniqueToken* token) {
    if (token == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (process != GetCurrentProcess()) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    DWORD error = ERROR_SUCCESS;
    auto identity = embedded::CurrentProcessIdentity(&error);
    if (!identity) {
        SetLastError(error);
        return false;
    }
    return InsertToken(std::move(identity), SessionOfProcess(), desiredAccess, token);
}

bool OpenThreadToken(HANDLE thread, DWORD, bool, UniqueToken* token) {
    if (token == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    SetLastError(thread == GetCurrentThread() ? ERROR_NO_TOKEN : ERROR_INVALID_HANDLE);
    return false;
}

bool admin::CreateTokenForAccount(std::u16string_view accountName, DWORD sessionId,
                                  UniqueToken* token) {
    if (token == nullptr || accountName.empty()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    DWORD error = ERROR_SUCCESS;
    auto identity = IdentityFor(std::u16string(accountName), &error);
    if (!identity) {
        SetLastError(error);
        return false;
    }
    return InsertToken(std::move(identity), sessionId, TOKEN_ALL_ACCESS, token);
}

bool DuplicateToken(HANDLE token, DWORD desiredAccess, UniqueToken* duplicate) {
    if (duplicate == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    auto source = embedded::TokenFromHandle(token, TOKEN_DUPLICATE);
    if (!source) {
        return false;
    }
    return InsertToken(source->shared_identity(), source->session(), desiredAccess, duplicate);
}

bool GetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS infoClass, void* info,
                         DWORD infoLength, DWORD* returnLength) {
    if (returnLength == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    auto object = embedded::TokenFromHandle(token, TOKEN_QUERY);
    if (!object) {
        return false;
    }
    const TokenIdentity& id = object->identity();
    std::size_t needed = 0;
    switch (infoClass) {
        case TokenUser:
            needed = sizeof(TOKEN_USER) + id.account.sid.size();
            break;
        case TokenGroups:
            needed = offsetof(TOKEN_GROUPS, Groups) + id.groups.size() * sizeof(SID_AND_ATTRIBUTES);
            needed = std::max(needed, sizeof(TOKEN_GROUPS));
            for (const TokenGroup& g : id.groups) {
                needed += g.sid.size();
            }
            break;
        case TokenOwner:
            needed = sizeof(TOKEN_OWNER) + id.account.sid.size();
            break;
        case TokenPrimaryGroup:
            needed = sizeof(TOKEN_PRIMARY_GROUP) + id.primaryGroup.size();
            break;
        case TokenSessionId:
            needed = sizeof(DWORD);
            break;
        default:
            SetLastError(ERROR_INVALID_PARAMETER);
            return false;
    }
    *returnLength = static_cast<DWORD>(needed);
    if (info == nullptr || infoLength < needed) {
        SetLastError(infoClass == TokenSessionId ? ERROR_BAD_LENGTH : ERROR_INSUFFICIENT_BUFFER);
        return false;
    }
    if (reinterpret_cast<std::uintptr_t>(info) % alignof(SID_AND_ATTRIBUTES) != 0 &&
        infoClass != TokenSessionId) {
        SetLastError(ERROR_NOACCESS);
        return false;
    }
    auto* out = static_cast<std::byte*>(info);
    switch (infoClass) {
        case TokenUser: {
            TOKEN_USER user;
            user.User.Sid = PlaceSid(out, sizeof(TOKEN_USER), id.account.sid);
            user.User.Attributes = 0;
            PlaceStruct(out, 0, user);
            break;
        }
        case TokenGroups: {
            const std::size_t arrayAt = offsetof(TOKEN_GROUPS, Groups);
            std::size_t sidAt = std::max(arrayAt + id.groups.size() * sizeof(SID_AND_ATTRIBUTES),
                                         sizeof(TOKEN_GROUPS));
            const auto count = static_cast<DWORD>(id.groups.size());
            PlaceStruct(out, offsetof(TOKEN_GROUPS, GroupCount), count);
            for (std::size_t i = 0; i < id.groups.size(); ++i) {
                SID_AND_ATTRIBUTES entry;
                entry.Sid = PlaceSid(out, sidAt, id.groups[i].sid);
                entry.Attributes = id.groups[i].attributes;
                PlaceStruct(out, arrayAt + i * sizeof(SID_AND_ATTRIBUTES), entry);
                sidAt += id.groups[i].sid.size();
            }
            break;
        }
        case TokenOwner: {
            TOKEN_OWNER owner;
            owner.Owner = PlaceSid(out, sizeof(TOKEN_OWNER), id.account.sid);
            PlaceStruct(out, 0, owner);
            break;
        }
        case TokenPrimaryGroup: {
            TOKEN_PRIMARY_GROUP group;
            group.PrimaryGroup = PlaceSid(out, sizeof(TOKEN_PRIMARY_GROUP), id.primaryGroup);
            PlaceStruct(out, 0, group);
            break;
        }
        default: {
            const DWORD session = object->session();
            PlaceStruct(out, 0, session);
            break;
        }
    }
    return true;
}

bool SetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS infoClass, const void* info,
                         DWORD infoLength) {
    if (infoClass != TokenSessionId) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    auto object = embedded::TokenFromHandle(token, TOKEN_ADJUST_SESSIONID);
    if (!object) {
        return false;
    }
    if (info == nullptr || infoLength != sizeof(DWORD)) {
        SetLastError(ERROR_BAD_LENGTH);
        return false;
    }
    DWORD session = 0;
    std::memcpy(&session, info, sizeof session);
    object->set_session(session);
    return true;
}

bool GetTokenUserSid(HANDLE token, Sid* user) {
    auto object = embedded::TokenFromHandle(token, TOKEN_QUERY);
    if (!object || user == nullptr) {
        if (object) {
            SetLastError(ERROR_INVALID_PARAMETER);
        }
        return false;
    }
    *user = object->identity().account.sid;
    return true;
}

bool GetTokenGroupSids(HANDLE token, std::vector<Sid>* groups) {
    auto object = embedded::TokenFromHandle(token, TOKEN_QUERY);
    if (!object || groups == nullptr) {
        if (object) {
            SetLastError(ERROR_INVALID_PARAMETER);
        }
        return false;
    }
    groups->clear();
    for (const TokenGroup& g : object->identity().groups) {
        groups->push_back(g.sid);
    }
    return true;
}

bool GetTokenSessionId(HANDLE token, DWORD* sessionId) {
    auto object = embedded::TokenFromHandle(token, TOKEN_QUERY);
    if (!object || sessionId == nullptr) {
        if (object) {
            SetLastError(ERROR_INVALID_PARAMETER);
        }
        return false;
    }
    *sessionId = object->session();
    return true;
}

bool GetTokenAccountName(HANDLE token, std::u16string* accountName) {
    auto object = embedded::TokenFromHandle(token, TOKEN_QUERY);
    if (!object || accountName == nullptr) {
        if (object) {
            SetLastError(ERROR_INVALID_PARAMETER);
        }
        return false;
    }
    *accountName = object->identity().account.FullName();
    return true;
}

}  // namespace platform
