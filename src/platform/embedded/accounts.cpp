// The account table: users, groups and well-known principals kept in the
// registry under HKLM\SOFTWARE\OVSvc Embedded\Accounts.
//
//   Accounts\<SID text>   "Domain" REG_SZ, "Name" REG_SZ, "Type" REG_DWORD
//                         (SID_NAME_USE), "MemberOf" REG_MULTI_SZ (group SIDs);
//                         a domain's key also holds "NextRid" REG_DWORD
//   Accounts\Names        one REG_SZ per account: "DOMAIN\NAME" in upper
//                         case -> SID text (well-known names have an empty
//                         domain: "\EVERYONE")
//
// The well-known principals, the BUILTIN aliases, the machine's own domain
// (named after the computer) with its Administrator and Guest, and the
// default domain are written on first use. Every other domain gets a SID of
// its own, derived from its name, when its first account is added.
#include <algorithm>
#include <atomic>
#include <cstring>

#include "accounts_store.h"
#include "fault.h"
#include "platform/machine.h"
#include "platform/registry.h"
#include "platform/security.h"
#include "platform/text.h"

namespace platform {

using admin::Account;

namespace {

constexpr std::u16string_view kAccountsKey = u"SOFTWARE\\OVSvc Embedded\\Accounts";
constexpr std::u16string_view kNamesKey = u"SOFTWARE\\OVSvc Embedded\\Accounts\\Names";
constexpr DWORD kFirstRid = 1000;
constexpr DWORD RPC_S_SERVER_UNAVAILABLE = 1722;

std::u16string Utf16(const std::string& s) {
    return {s.begin(), s.end()};
}

Sid ParseSid(std::u16string_view text) {
    Sid sid;
    LastErrorKeeper keep;
    return ConvertStringSidToSidW(text, &sid) ? sid : Sid{};
}

// Key under HKLM, created if missing.
UniqueKey CreateKey(std::u16string_view path) {
    UniqueKey key;
    RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, &key,
                    nullptr);
    return key;
}

UniqueKey OpenKey(std::u16string_view path) {
    UniqueKey key;
    RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &key);
    return key;
}

void SetString(HKEY key, std::u16string_view name, std::u16string_view value) {
    std::u16string data(value);
    RegSetValueExW(key, name, REG_SZ, data.c_str(),
                   static_cast<DWORD>((data.size() + 1) * sizeof(char16_t)));
}

void SetMultiString(HKEY key, std::u16string_view name, const std::vector<std::u16string>& list) {
    std::u16string data;
    for (const std::u16string& s : list) {
        data += s;
        data += u'\0';
    }
    data += u'\0';
    RegSetValueExW(key, name, REG_MULTI_SZ, data.data(),
                   static_cast<DWORD>(data.size() * sizeof(char16_t)));
}

void SetDword(HKEY key, std::u16string_view name, DWORD value) {
    RegSetValueExW(key, name, REG_DWORD, &value, sizeof value);
}

std::u16string TextOf(const RegistryValue& v) {
    std::u16string s(v.data.size() / 2, u'\0');
    std::memcpy(s.data(), v.data.data(), s.size() * 2);
    return s;
}

std::optional<std::u16string> GetString(HKEY key, std::u16string_view name) {
    RegistryValue v;
    if (RegGetValue(key, name, &v) != ERROR_SUCCESS ||
        (v.type != REG_SZ && v.type != REG_EXPAND_SZ)) {
        return std::nullopt;
    }
    std::u16string s = TextOf(v);
    if (const auto nul = s.find(u'\0'); nul != std::u16string::npos) {
        s.resize(nul);
    }
    return s;
}

std::vector<std::u16string> GetMultiString(HKEY key, std::u16string_view name) {
    std::vector<std::u16string> out;
    RegistryValue v;
    if (RegGetValue(key, name, &v) != ERROR_SUCCESS || v.type != REG_MULTI_SZ) {
        return out;
    }
    const std::u16string s = TextOf(v);
    std::size_t at = 0;
    while (at < s.size()) {
        const std::size_t nul = std::min(s.find(u'\0', at), s.size());
        if (nul == at) {
            break;
        }
        out.push_back(s.substr(at, nul - at));
        at = nul + 1;
    }
    return out;
}

std::optional<DWORD> GetDword(HKEY key, std::u16string_view name) {
    RegistryValue v;
    if (RegGetValue(key, name, &v) != ERROR_SUCCESS || v.type != REG_DWORD || v.data.size() != 4) {
        return std::nullopt;
    }
    DWORD d = 0;
    std::memcpy(&d, v.data.data(), 4);
    return d;
}

std::u16string AccountKeyPath(const Sid& sid) {
    return std::u16string(kAccountsKey) + u'\\' + sid.ToString();
}

bool ResolveStored(std::u16string_view accountName, Account* account);

// Writes one account record and its name index entry.
void WriteAccount(const Account& a) {
    UniqueKey key = CreateKey(AccountKeyPath(a.sid));
    if (!key) {
        return;
    }
    SetString(key.get(), u"Domain", a.domain);
    SetString(key.get(), u"Name", a.name);
    SetDword(key.get(), u"Type", static_cast<DWORD>(a.use));
    std::vector<std::u16string> groups;
    for (const std::u16string& g : a.memberOf) {
        Account group;
        if (ResolveStored(g, &group)) {
            groups.push_back(group.sid.ToString());
        }
    }
    SetMultiString(key.get(), u"MemberOf", groups);
    UniqueKey names = CreateKey(kNamesKey);
    if (names) {
        SetString(names.get(), accounts::IndexName(a.domain, a.name), a.sid.ToString());
    }
}

bool ReadAccount(const Sid& sid, Account* out) {
    UniqueKey key = OpenKey(AccountKeyPath(sid));
    if (!key) {
        return false;
    }
    const auto domain = GetString(key.get(), u"Domain");
    const auto name = GetString(key.get(), u"Name");
    const auto type = GetDword(key.get(), u"Type");
    if (!domain || !name || !type) {
        return false;
    }
    Account a;
    a.domain = *domain;
    a.name = *name;
    a.sid = sid;
    a.use = static_cast<SID_NAME_USE>(*type);
    for (const std::u16string& text : GetMultiString(key.get(), u"MemberOf")) {
        Account group;
        const Sid groupSid = ParseSid(text);
        if (!groupSid.empty() && ReadAccount(groupSid, &group)) {
            a.memberOf.push_back(group.FullName());
        }
    }
    *out = std::move(a);
    return true;
}

Sid MakeSid(BYTE authority, std::initializer_list<DWORD> subs) {
    std::vector<DWORD> s(subs);
    s.resize(8, 0);
    Sid sid;
    AllocateAndInitializeSid(SID_IDENTIFIER_AUTHORITY{{0, 0, 0, 0, 0, authority}},
                             static_cast<BYTE>(subs.size()), s[0], s[1], s[2], s[3], s[4], s[5],
                             s[6], s[7], &sid);
    return sid;
}

// The SID of a domain, derived from its name so every process agrees on it.
Sid DomainSidFor(std::u16string_view domain) {
    const std::u16string upper = accounts::Upper(domain);
    if (upper == accounts::Upper(GetComputerNameW())) {
        return MakeSid(5, {21, 1170612803, 2830157329, 3306434118});
    }
    std::uint32_t h[3] = {2166136261u, 84696351u, 3735928559u};
    for (char16_t c : upper) {
        for (std::uint32_t& v : h) {
            v = (v ^ c) * 16777619u;
            v ^= v >> 13;
        }
    }
    return MakeSid(5, {21, h[0] | 0x10000000u, h[1] | 0x10000000u, h[2] | 0x10000000u});
}

Sid Child(const Sid& domain, DWORD rid) {
    std::vector<std::byte> bytes(domain.bytes().begin(), domain.bytes().end());
    bytes[1] = static_cast<std::byte>(std::to_integer<unsigned>(bytes[1]) + 1);
    for (int i = 0; i < 4; ++i) {
        bytes.push_back(static_cast<std::byte>((rid >> (8 * i)) & 0xFF));
    }
    return Sid::FromBytes(bytes);
}

// Makes sure the domain has its record; returns its SID.
Sid EnsureDomain(std::u16string_view domain) {
    const Sid sid = DomainSidFor(domain);
    Account existing;
    if (!ReadAccount(sid, &existing)) {
        WriteAccount({std::u16string(domain), std::u16string(domain), sid, SidTypeDomain, {}});
        UniqueKey key = CreateKey(AccountKeyPath(sid));
        if (key) {
            SetDword(key.get(), u"NextRid", kFirstRid);
        }
        // Every domain has its built-in administrator and guest accounts.
        const std::u16string name(domain);
        WriteAccount(
            {name, u"Administrator", Child(sid, 500), SidTypeUser, {u"BUILTIN\\Administrators"}});
        WriteAccount({name, u"Guest", Child(sid, 501), SidTypeUser, {u"BUILTIN\\Guests"}});
    }
    return sid;
}

// Whether this process has seen the table seeded on the current root.
std::atomic<bool>& SeededHere() {
    static std::atomic<bool>* flag = [] {
        auto* f = new std::atomic<bool>(false);
        machine::OnRootChange([f] { f->store(false); });
        return f;
    }();
    return *flag;
}

void Seed() {
    if (SeededHere().load()) {
        return;
    }
    UniqueKey root = CreateKey(kAccountsKey);
    if (!root) {
        return;
    }
    if (GetDword(root.get(), u"Seeded").value_or(0) == 1) {
        SeededHere().store(true);
        return;
    }
    const std::u16string nt = u"NT AUTHORITY";
    const std::u16string builtin = u"BUILTIN";
    const std::vector<Account> wellKnown = {
        {u"", u"NULL SID", MakeSid(0, {0}), SidTypeWellKnownGroup, {}},
        {u"", u"Everyone", MakeSid(1, {0}), SidTypeWellKnownGroup, {}},
        {u"", u"LOCAL", MakeSid(2, {0}), SidTypeWellKnownGroup, {}},
        {u"", u"CREATOR OWNER", MakeSid(3, {0}), SidTypeWellKnownGroup, {}},
        {u"", u"CREATOR GROUP", MakeSid(3, {1}), SidTypeWellKnownGroup, {}},
        {nt, u"DIALUP", MakeSid(5, {1}), SidTypeWellKnownGroup, {}},
        {nt, u"NETWORK", MakeSid(5, {2}), SidTypeWellKnownGroup, {}},
        {nt, u"BATCH", MakeSid(5, {3}), SidTypeWellKnownGroup, {}},
        {nt, u"INTERACTIVE", MakeSid(5, {4}), SidTypeWellKnownGroup, {}},
        {nt, u"SERVICE", MakeSid(5, {6}), SidTypeWellKnownGroup, {}},
        {nt, u"ANONYMOUS LOGON", MakeSid(5, {7}), SidTypeWellKnownGroup, {}},
        {nt, u"Authenticated Users", MakeSid(5, {11}), SidTypeWellKnownGroup, {}},
        {nt, u"TERMINAL SERVER USER", MakeSid(5, {13}), SidTypeWellKnownGroup, {}},
        {nt, u"SYSTEM", MakeSid(5, {18}), SidTypeWellKnownGroup, {}},
        {nt, u"LOCAL SERVICE", MakeSid(5, {19}), SidTypeWellKnownGroup, {}},
        {nt, u"NETWORK SERVICE", MakeSid(5, {20}), SidTypeWellKnownGroup, {}},
        {builtin, builtin, MakeSid(5, {32}), SidTypeDomain, {}},
        {builtin, u"Administrators", MakeSid(5, {32, 544}), SidTypeAlias, {}},
        {builtin, u"Users", MakeSid(5, {32, 545}), SidTypeAlias, {}},
        {builtin, u"Guests", MakeSid(5, {32, 546}), SidTypeAlias, {}},
        {builtin, u"Power Users", MakeSid(5, {32, 547}), SidTypeAlias, {}},
        {builtin, u"Print Operators", MakeSid(5, {32, 550}), SidTypeAlias, {}},
        {builtin, u"Remote Desktop Users", MakeSid(5, {32, 555}), SidTypeAlias, {}},
    };
    for (const Account& a : wellKnown) {
        WriteAccount(a);
    }
    EnsureDomain(GetComputerNameW());
    EnsureDomain(DefaultDomainName());
    SetDword(root.get(), u"Seeded", 1);
    SeededHere().store(true);
}

bool ValidNamePart(std::u16string_view name) {
    if (name.empty() || name.size() > 64) {
        return false;
    }
    constexpr std::u16string_view bad = u"\\/[]:|<>+=;,?*\"@";
    return std::none_of(name.begin(), name.end(), [&](char16_t c) {
        return c < 0x20 || bad.find(c) != std::u16string_view::npos;
    });
}

}  // namespace

namespace accounts {

std::u16string Upper(std::u16string_view text) {
    return UpcaseName(text);
}

std::u16string IndexName(std::u16string_view domain, std::u16string_view name) {
    return Upper(domain) + u'\\' + Upper(name);
}

bool Resolve(std::u16string_view accountName, Account* account) {
    Seed();
    return ResolveStored(accountName, account);
}

}  // namespace accounts

namespace {

bool ResolveStored(std::u16string_view accountName, Account* account) {
    using accounts::IndexName;
    UniqueKey names = OpenKey(kNamesKey);
    if (!names) {
        return false;
    }
    std::vector<std::u16string> candidates;
    if (const auto slash = accountName.find(u'\\'); slash != std::u16string_view::npos) {
        candidates.push_back(
            IndexName(accountName.substr(0, slash), accountName.substr(slash + 1)));
    } else if (!accountName.empty()) {
        for (std::u16string_view domain :
             {std::u16string_view{}, std::u16string_view{u"NT AUTHORITY"},
              std::u16string_view{u"BUILTIN"}}) {
            candidates.push_back(IndexName(domain, accountName));
        }
        candidates.push_back(IndexName(GetComputerNameW(), accountName));
        candidates.push_back(IndexName(DefaultDomainName(), accountName));
    }
    for (const std::u16string& candidate : candidates) {
        const auto sidText = GetString(names.get(), candidate);
        if (sidText) {
            const Sid sid = ParseSid(*sidText);
            if (!sid.empty() && ReadAccount(sid, account)) {
                return true;
            }
        }
    }
    return false;
}

}  // namespace

namespace accounts {

bool ResolveSid(const Sid& sid, Account* account) {
    Seed();
    return ReadAccount(sid, account);
}

std::vector<Sid> GroupsOf(const Account& account) {
    std::vector<Sid> out;
    std::vector<std::u16string> pending = account.memberOf;
    while (!pending.empty()) {
        const std::u16string name = pending.back();
        pending.pop_back();
        Account group;
        if (!Resolve(name, &group) || std::find(out.begin(), out.end(), group.sid) != out.end()) {
            continue;
        }
        out.push_back(group.sid);
        pending.insert(pending.end(), group.memberOf.begin(), group.memberOf.end());
    }
    return out;
}

}  // namespace accounts

std::u16string GetComputerNameW() {
    return Utf16(machine::Setting("computer_name").value_or("OVSERVER"));
}

std::u16string DefaultDomainName() {
    return Utf16(machine::Setting("default_domain").value_or("OVDOMAIN"));
}

bool admin::FindAccountByName(std::u16string_view accountName, Account* account) {
    if (account == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    bool found = false;
    {
        LastErrorKeeper keep;
        found = accounts::Resolve(accountName, account);
    }
    if (!found) {
        SetLastError(ERROR_NONE_MAPPED);
    }
    return found;
}

bool admin::FindAccountBySid(const Sid& sid, Account* account) {
    if (account == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (!IsValidSid(sid)) {
        return false;
    }
    bool found = false;
    {
        LastErrorKeeper keep;
        found = accounts::ResolveSid(sid, account);
    }
    if (!found) {
        SetLastError(ERROR_NONE_MAPPED);
    }
    return found;
}

bool admin::EnumAccounts(std::vector<Account>* list) {
    if (list == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    LastErrorKeeper keep;
    Seed();
    std::vector<Account> wellKnown;
    std::vector<Account> configured;
    UniqueKey root = OpenKey(kAccountsKey);
    std::vector<std::u16string> keys;
    if (root) {
        RegEnumSubKeys(root.get(), &keys);
    }
    for (const std::u16string& name : keys) {
        const Sid sid = ParseSid(name);
        Account a;
        if (sid.empty() || !ReadAccount(sid, &a)) {
            continue;
        }
        // Configured accounts are those of S-1-5-21 domains with a RID of 1000 or more.
        const bool isConfigured = GetSidSubAuthorityCount(sid) == 5 &&
                                  GetSidSubAuthority(sid, 0) == SECURITY_NT_NON_UNIQUE &&
                                  GetSidSubAuthority(sid, 4) >= kFirstRid;
        (isConfigured ? configured : wellKnown).push_back(std::move(a));
    }
    auto byName = [](const Account& x, const Account& y) {
        return accounts::IndexName(x.domain, x.name) < accounts::IndexName(y.domain, y.name);
    };
    std::sort(wellKnown.begin(), wellKnown.end(), byName);
    std::sort(configured.begin(), configured.end(), byName);
    wellKnown.insert(wellKnown.end(), configured.begin(), configured.end());
    *list = std::move(wellKnown);
    return true;
}

bool admin::AddAccount(std::u16string_view accountName, SID_NAME_USE use,
                       std::span<const std::u16string> groups, Account* added) {
    std::u16string domain = DefaultDomainName();
    std::u16string_view name = accountName;
    if (const auto slash = accountName.find(u'\\'); slash != std::u16string_view::npos) {
        domain = std::u16string(accountName.substr(0, slash));
        name = accountName.substr(slash + 1);
    }
    if (!ValidNamePart(domain) || !ValidNamePart(name) || domain.size() > 15) {
        SetLastError(ERROR_INVALID_NAME);
        return false;
    }
    if (use != SidTypeUser && use != SidTypeGroup) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    const std::u16string upperDomain = accounts::Upper(domain);
    if (upperDomain == u"NT AUTHORITY" || upperDomain == u"BUILTIN") {
        SetLastError(ERROR_ACCESS_DENIED);  // the system's own principals are fixed
        return false;
    }
    DWORD error = ERROR_SUCCESS;
    Account account;
    {
        LastErrorKeeper keep;
        Account existing;
        std::vector<std::u16string> memberOf;
        Seed();
        const Sid domainSid = EnsureDomain(domain);
        if (accounts::Resolve(domain + u'\\' + std::u16string(name), &existing)) {
            error = use == SidTypeUser ? ERROR_USER_EXISTS : ERROR_GROUP_EXISTS;
        }
        for (std::size_t i = 0; error == ERROR_SUCCESS && i < groups.size(); ++i) {
            Account group;
            if (!accounts::Resolve(groups[i], &group) ||
                (group.use != SidTypeGroup && group.use != SidTypeAlias &&
                 group.use != SidTypeWellKnownGroup)) {
                error = ERROR_NO_SUCH_GROUP;
            } else {
                memberOf.push_back(group.FullName());
            }
        }
        if (error == ERROR_SUCCESS) {
            Account domainRecord;
            ReadAccount(domainSid, &domainRecord);
            UniqueKey domainKey = CreateKey(AccountKeyPath(domainSid));
            DWORD rid =
                domainKey ? GetDword(domainKey.get(), u"NextRid").value_or(kFirstRid) : kFirstRid;
            // Claim the first free RID: creating its key is the atomic step.
            for (;; ++rid) {
                UniqueKey key;
                DWORD disposition = 0;
                if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, AccountKeyPath(Child(domainSid, rid)),
                                    REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, &key,
                                    &disposition) != ERROR_SUCCESS) {
                    error = ERROR_CANTWRITE;
                    break;
                }
                if (disposition == REG_CREATED_NEW_KEY) {
                    break;
                }
            }
            if (error == ERROR_SUCCESS) {
                if (domainKey) {
                    SetDword(domainKey.get(), u"NextRid", rid + 1);
                }
                account = {domainRecord.name.empty() ? domain : domainRecord.name,
                           std::u16string(name), Child(domainSid, rid), use, memberOf};
                WriteAccount(account);
            }
        }
    }
    if (error != ERROR_SUCCESS) {
        SetLastError(error);
        return false;
    }
    if (added != nullptr) {
        *added = std::move(account);
    }
    return true;
}

bool admin::AddGroupMember(std::u16string_view group, std::u16string_view member) {
    DWORD error = ERROR_SUCCESS;
    {
        LastErrorKeeper keep;
        Account g;
        Account m;
        if (!accounts::Resolve(group, &g) ||
            (g.use != SidTypeGroup && g.use != SidTypeAlias && g.use != SidTypeWellKnownGroup)) {
            error = ERROR_NO_SUCH_GROUP;
        } else if (!accounts::Resolve(member, &m)) {
            error = ERROR_NONE_MAPPED;
        } else if (std::find(m.memberOf.begin(), m.memberOf.end(), g.FullName()) ==
                   m.memberOf.end()) {
            m.memberOf.push_back(g.FullName());
            WriteAccount(m);
        }
    }
    if (error != ERROR_SUCCESS) {
        SetLastError(error);
        return false;
    }
    return true;
}

bool admin::DeleteAccount(std::u16string_view accountName) {
    DWORD error = ERROR_SUCCESS;
    {
        LastErrorKeeper keep;
        Account a;
        if (!accounts::Resolve(accountName, &a)) {
            error = ERROR_NONE_MAPPED;
        } else if (a.use != SidTypeUser && a.use != SidTypeGroup) {
            error = ERROR_ACCESS_DENIED;  // well-known principals and domains stay
        } else {
            UniqueKey names = CreateKey(kNamesKey);
            if (names) {
                RegDeleteValueW(names.get(), accounts::IndexName(a.domain, a.name));
            }
            RegDeleteTreeW(HKEY_LOCAL_MACHINE, AccountKeyPath(a.sid));
        }
    }
    if (error != ERROR_SUCCESS) {
        SetLastError(error);
        return false;
    }
    return true;
}

namespace {

bool IsThisMachine(std::u16string_view systemName) {
    if (systemName.starts_with(u"\\\\")) {
        systemName.remove_prefix(2);
    }
    return systemName.empty() ||
           accounts::Upper(systemName) == accounts::Upper(GetComputerNameW()) || systemName == u".";
}

// Copies `text` into a caller buffer of *length characters (with room for
// the terminator); false when it does not fit.
bool Fits(std::u16string_view text, const char16_t* buffer, const DWORD* length) {
    return buffer != nullptr && *length > text.size();
}

void CopyOut(std::u16string_view text, char16_t* buffer, DWORD* length) {
    std::copy(text.begin(), text.end(), buffer);
    buffer[text.size()] = u'\0';
    *length = static_cast<DWORD>(text.size());
}

}  // namespace

bool LookupAccountNameW(std::u16string_view systemName, std::u16string_view accountName, void* sid,
                        DWORD* sidSize, char16_t* domain, DWORD* domainLength, SID_NAME_USE* use) {
    if (fault::Inject("LookupAccountNameW")) {
        return false;
    }
    if (sidSize == nullptr || domainLength == nullptr || use == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (!IsThisMachine(systemName)) {
        SetLastError(RPC_S_SERVER_UNAVAILABLE);
        return false;
    }
    Account account;
    if (!admin::FindAccountByName(accountName, &account)) {
        return false;
    }
    const auto sidBytes = static_cast<DWORD>(account.sid.size());
    const bool sidFits = sid != nullptr && *sidSize >= sidBytes;
    if (!sidFits || !Fits(account.domain, domain, domainLength)) {
        *sidSize = sidBytes;
        *domainLength = static_cast<DWORD>(account.domain.size() + 1);
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return false;
    }
    std::memcpy(sid, account.sid.data(), sidBytes);
    *sidSize = sidBytes;
    CopyOut(account.domain, domain, domainLength);
    *use = account.use;
    return true;
}

bool LookupAccountSidW(std::u16string_view systemName, const Sid& sid, char16_t* name,
                       DWORD* nameLength, char16_t* domain, DWORD* domainLength,
                       SID_NAME_USE* use) {
    if (fault::Inject("LookupAccountSidW")) {
        return false;
    }
    if (nameLength == nullptr || domainLength == nullptr || use == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (!IsThisMachine(systemName)) {
        SetLastError(RPC_S_SERVER_UNAVAILABLE);
        return false;
    }
    Account account;
    if (!admin::FindAccountBySid(sid, &account)) {
        return false;
    }
    if (!Fits(account.name, name, nameLength) || !Fits(account.domain, domain, domainLength)) {
        *nameLength = static_cast<DWORD>(account.name.size() + 1);
        *domainLength = static_cast<DWORD>(account.domain.size() + 1);
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return false;
    }
    CopyOut(account.name, name, nameLength);
    CopyOut(account.domain, domain, domainLength);
    *use = account.use;
    return true;
}

}  // namespace platform
