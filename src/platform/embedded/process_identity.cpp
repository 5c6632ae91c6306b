// Who a process runs as: the account of $OVSVC_USER, else the user logged on
// in its session, else the local system account.
#include <cstdlib>
#include <string>

#include "platform/process.h"
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

bool IdentityFromToken(HANDLE token, ProcessIdentity*) {
    // Tokens are made by the security services; no other handle names a user.
    (void)token;
    SetLastError(ERROR_INVALID_HANDLE);
    return false;
}

bool CallerIsAdministrator() {
    const std::string user = UserPart(CallerAccount());
    return detail::EqualsIgnoreCase(user, "SYSTEM") ||
           detail::EqualsIgnoreCase(user, "Administrator");
}

std::string ServiceAccountName() {
    return kSystemAccount;
}

}  // namespace embedded

}  // namespace platform
