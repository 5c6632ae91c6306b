// What a token handle stands for on the embedded platform.
#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "handle_table.h"
#include "platform/security.h"

namespace platform::embedded {

using admin::Account;

struct TokenGroup {
    Sid sid;
    DWORD attributes = 0;
};

// The identity a token carries; shared, never changed once built.
struct TokenIdentity {
    Account account;
    std::vector<TokenGroup> groups;
    Sid primaryGroup;
};

class TokenObject : public HandleObject {
  public:
    TokenObject(std::shared_ptr<const TokenIdentity> identity, DWORD sessionId)
        : HandleObject(HandleKind::Token), identity_(std::move(identity)), session_(sessionId) {}

    [[nodiscard]] const TokenIdentity& identity() const noexcept { return *identity_; }
    [[nodiscard]] std::shared_ptr<const TokenIdentity> shared_identity() const { return identity_; }
    [[nodiscard]] DWORD session() const noexcept { return session_.load(); }
    void set_session(DWORD id) noexcept { session_.store(id); }

  private:
    std::shared_ptr<const TokenIdentity> identity_;
    std::atomic<DWORD> session_;
};

// The token object behind a handle that grants `required` access; null with
// the last error set (ERROR_INVALID_HANDLE, ERROR_ACCESS_DENIED) otherwise.
std::shared_ptr<TokenObject> TokenFromHandle(HANDLE token, DWORD required);

// The identity of the calling process's account (cached per account name).
std::shared_ptr<const TokenIdentity> CurrentProcessIdentity(DWORD* error);

// Whether the identity holds `sid` as its user or one of its enabled groups.
bool HoldsSid(const TokenIdentity& identity, const Sid& sid);

}  // namespace platform::embedded
