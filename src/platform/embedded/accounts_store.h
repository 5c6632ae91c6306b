// Account-table helpers shared by the account, token and access-check code.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/security.h"

namespace platform::accounts {

using admin::Account;

// Account names upper-cased as Windows compares names.
std::u16string Upper(std::u16string_view text);
// Key of an account in the name index: "DOMAIN\NAME" upper-cased.
std::u16string IndexName(std::u16string_view domain, std::u16string_view name);
// Look-ups that do not touch the thread's last error.
bool Resolve(std::u16string_view accountName, Account* account);
bool ResolveSid(const Sid& sid, Account* account);
// The account's groups, memberships of groups included, without duplicates.
std::vector<Sid> GroupsOf(const Account& account);

}  // namespace platform::accounts
