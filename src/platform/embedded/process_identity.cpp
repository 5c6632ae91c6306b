// Who a process runs as: the account of $OVSVC_USER, else the user logged on
// in its session, else the local system account.
#include <cstdlib>
#include <string>

#include "handle_table.h"
#include "platform/process.h"
#include "platform/security.h"
#include "platform/wts.h"
#include "process_internal.h"
#include "scm_internal.h"
#include "wts_internal.h"

namespace platform {

namespace {

constexpr char kSystemAccount[] = "NT AUTHORITY\\SYSTEM";

// "DOMAIN\name" (or a bare name) of the calling process's account.
std::string CallerAccount() {
    if (const char* user = std::getenv("OVSVC_USER"); user != nullptr && *user != '\0') {
        return user;
    }
    terminal::Session session;
    if (terminal::GetSession(GetCurrentSessionId(), &session) == ERROR_SUCCESS &&
        !session.userName.empty()) {
        const std::string user = detail::Utf8(session.userName);
        return session.domainName.empty() ? user : detail::Utf8(session.domainName) + "\\" + user;
    }
    return kSystemAccount;
}

std::string UserPart(const std::string& account) {
    const auto slash = account.rfind('\\');
    return slash == std::string::npos ? account : account.substr(slash + 1);
}

}  // namespace

bool GetUserNameW(std::u16string* name) {
    if (name == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    *name = detail::Utf16(UserPart(CallerAccount()));
    SetLastError(ERROR_SUCCESS);
    return true;
}

namespace embedded {

bool IdentityFromToken(HANDLE token, ProcessIdentity* identity) {
    if (!HandleTable::Instance().LookupAs<HandleObject>(token, HandleKind::Token)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    std::u16string account;
    DWORD session = 0;
    if (!GetTokenAccountName(token, &account) || !GetTokenSessionId(token, &session)) {
        return false;
    }
    identity->set = true;
    identity->user = detail::Utf8(account);
    identity->sessionId = session;
    return true;
}

bool CallerIsAdministrator() {
    UniqueToken token;
    Sid user;
    std::vector<Sid> groups;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token) &&
        GetTokenUserSid(token.get(), &user) && GetTokenGroupSids(token.get(), &groups)) {
        if (IsWellKnownSid(user, WinLocalSystemSid)) {
            return true;
        }
        for (const auto& group : groups) {
            if (IsWellKnownSid(group, WinBuiltinAdministratorsSid)) {
                return true;
            }
        }
        return false;
    }
    if (GetLastError() != ERROR_CALL_NOT_IMPLEMENTED) {
        return false;  // no token, no rights
    }
    // Without the account table's tokens, go by the account's name.
    const std::string name = UserPart(CallerAccount());
    return detail::EqualsIgnoreCase(name, "SYSTEM") ||
           detail::EqualsIgnoreCase(name, "Administrator");
}

std::string ServiceAccountName() {
    return kSystemAccount;
}

}  // namespace embedded

}  // namespace platform
