// Who a process runs as, and whether it is an administrator.
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
    *name = detail::Utf16(UserPart(detail::Utf8(admin::CurrentProcessAccount())));
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
    }
    return false;  // an account the machine does not know has no rights
}

std::string ServiceAccountName() {
    return "NT AUTHORITY\\SYSTEM";
}

}  // namespace embedded

}  // namespace platform
