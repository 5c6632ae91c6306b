// Tokens over advapi32: the process's and thread's real tokens, their
// information in Windows' own layouts, duplicates for access checks.
#include <cstddef>
#include <cstring>
#include <memory>

#include "platform/security.h"
#include "security_native.h"
#include "win32_api.h"

namespace platform {

using admin::Account;

namespace {

// The platform's information layouts are Windows' own, so GetTokenInformation
// writes the caller's buffer directly.
static_assert(sizeof(platform::SID_AND_ATTRIBUTES) == sizeof(::SID_AND_ATTRIBUTES));
static_assert(offsetof(platform::SID_AND_ATTRIBUTES, Attributes) ==
              offsetof(::SID_AND_ATTRIBUTES, Attributes));
static_assert(sizeof(platform::TOKEN_USER) == sizeof(::TOKEN_USER));
static_assert(offsetof(platform::TOKEN_GROUPS, Groups) == offsetof(::TOKEN_GROUPS, Groups));
static_assert(sizeof(platform::TOKEN_OWNER) == sizeof(::TOKEN_OWNER));
static_assert(sizeof(platform::TOKEN_PRIMARY_GROUP) == sizeof(::TOKEN_PRIMARY_GROUP));
constexpr bool SameClass(TOKEN_INFORMATION_CLASS mine, ::TOKEN_INFORMATION_CLASS windows) {
    return static_cast<int>(mine) == static_cast<int>(windows);
}
static_assert(SameClass(TokenUser, ::TokenUser) && SameClass(TokenGroups, ::TokenGroups) &&
              SameClass(TokenOwner, ::TokenOwner) &&
              SameClass(TokenPrimaryGroup, ::TokenPrimaryGroup) &&
              SameClass(TokenSessionId, ::TokenSessionId));

// One class of token information, read with the two-call protocol into a
// buffer aligned for the structures it holds. False with the last error as
// the final call left it.
bool Query(HANDLE token, TOKEN_INFORMATION_CLASS infoClass,
           std::unique_ptr<std::max_align_t[]>* out) {
    ::DWORD needed = 0;
    if (::GetTokenInformation(token, static_cast<::TOKEN_INFORMATION_CLASS>(infoClass), nullptr, 0,
                              &needed)) {
        needed = sizeof(std::max_align_t);
    } else if (::GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
        return false;
    }
    const std::size_t count = (needed + sizeof(std::max_align_t) - 1) / sizeof(std::max_align_t);
    auto buffer = std::make_unique<std::max_align_t[]>(count == 0 ? 1 : count);
    if (!::GetTokenInformation(token, static_cast<::TOKEN_INFORMATION_CLASS>(infoClass),
                               buffer.get(), needed, &needed)) {
        return false;
    }
    *out = std::move(buffer);
    return true;
}

bool RefuseNull(const void* output) {
    if (output == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return true;
    }
    return false;
}

}  // namespace

HANDLE GetCurrentProcess() noexcept {
    return ::GetCurrentProcess();
}

HANDLE GetCurrentThread() noexcept {
    return ::GetCurrentThread();
}

bool OpenProcessToken(HANDLE process, DWORD desiredAccess, UniqueToken* token) {
    if (RefuseNull(token)) {
        return false;
    }
    HANDLE opened = nullptr;
    if (!::OpenProcessToken(process, desiredAccess, &opened)) {
        return false;
    }
    token->reset(opened);
    return true;
}

bool OpenThreadToken(HANDLE thread, DWORD desiredAccess, bool openAsSelf, UniqueToken* token) {
    if (RefuseNull(token)) {
        return false;
    }
    HANDLE opened = nullptr;
    if (!::OpenThreadToken(thread, desiredAccess, openAsSelf ? TRUE : FALSE, &opened)) {
        return false;
    }
    token->reset(opened);
    return true;
}

bool GetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS infoClass, void* info,
                         DWORD infoLength, DWORD* returnLength) {
    if (RefuseNull(returnLength)) {
        return false;
    }
    ::DWORD returned = 0;
    const BOOL ok = ::GetTokenInformation(token, static_cast<::TOKEN_INFORMATION_CLASS>(infoClass),
                                          info, info != nullptr ? infoLength : 0, &returned);
    *returnLength = static_cast<DWORD>(returned);
    return ok != FALSE;
}

bool SetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS infoClass, const void* info,
                         DWORD infoLength) {
    // Without information there is nothing to read: Windows then answers for
    // the length.
    return ::SetTokenInformation(token, static_cast<::TOKEN_INFORMATION_CLASS>(infoClass),
                                 const_cast<void*>(info),
                                 info != nullptr ? infoLength : 0) != FALSE;
}

// Windows' DuplicateToken, with the access the platform asks for: an
// impersonation token of the same identity, as access checks want it.
bool DuplicateToken(HANDLE token, DWORD desiredAccess, UniqueToken* duplicate) {
    if (RefuseNull(duplicate)) {
        return false;
    }
    HANDLE made = nullptr;
    if (!::DuplicateTokenEx(token, desiredAccess, nullptr, ::SecurityImpersonation,
                            ::TokenImpersonation, &made)) {
        return false;
    }
    duplicate->reset(made);
    return true;
}

// Tokens for an account come from a logon with its password on Windows; the
// account-only form exists to configure the embedded machine.
bool admin::CreateTokenForAccount(std::u16string_view, DWORD, UniqueToken*) {
    ::SetLastError(ERROR_NOT_SUPPORTED);
    return false;
}

bool GetTokenUserSid(HANDLE token, Sid* user) {
    if (RefuseNull(user)) {
        return false;
    }
    std::unique_ptr<std::max_align_t[]> buffer;
    if (!Query(token, TokenUser, &buffer)) {
        return false;
    }
    *user = win32::SidFromNative(reinterpret_cast<const ::TOKEN_USER*>(buffer.get())->User.Sid);
    return true;
}

bool GetTokenGroupSids(HANDLE token, std::vector<Sid>* groups) {
    if (RefuseNull(groups)) {
        return false;
    }
    std::unique_ptr<std::max_align_t[]> buffer;
    if (!Query(token, TokenGroups, &buffer)) {
        return false;
    }
    const auto* list = reinterpret_cast<const ::TOKEN_GROUPS*>(buffer.get());
    groups->clear();
    for (::DWORD i = 0; i < list->GroupCount; ++i) {
        groups->push_back(win32::SidFromNative(list->Groups[i].Sid));
    }
    return true;
}

bool GetTokenSessionId(HANDLE token, DWORD* sessionId) {
    if (RefuseNull(sessionId)) {
        return false;
    }
    ::DWORD session = 0;
    ::DWORD returned = 0;
    if (!::GetTokenInformation(token, ::TokenSessionId, &session, sizeof session, &returned)) {
        return false;
    }
    *sessionId = static_cast<DWORD>(session);
    return true;
}

bool GetTokenAccountName(HANDLE token, std::u16string* accountName) {
    if (RefuseNull(accountName)) {
        return false;
    }
    Sid user;
    Account account;
    if (!GetTokenUserSid(token, &user) || !admin::FindAccountBySid(user, &account)) {
        return false;
    }
    *accountName = account.FullName();
    return true;
}

// The user of the process's token; empty when Windows cannot say.
std::u16string admin::CurrentProcessAccount() {
    LastErrorKeeper keep;
    UniqueToken token;
    std::u16string name;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token) ||
        !GetTokenAccountName(token.get(), &name)) {
        return {};
    }
    return name;
}

// A process runs as the account Windows started it as; choosing another
// one is how tests configure the embedded machine.
void admin::SetProcessAccount(std::u16string_view) {
    ::SetLastError(ERROR_NOT_SUPPORTED);
}

}  // namespace platform
