// The calling process's identity as the spooler sees it: the user and group
// SIDs of the process token, and its account name.
#include "spool_caller.h"

#include "platform/security.h"
#include "spool_store.h"

namespace platform::spool {

namespace {

std::vector<std::byte> Bytes(const Sid& sid) {
    return {sid.data(), sid.data() + sid.size()};
}

}  // namespace

std::vector<std::vector<std::byte>> CallerSids() {
    LastErrorKeeper keep;
    UniqueToken token;
    Sid user;
    std::vector<Sid> groups;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token) &&
        GetTokenUserSid(token.get(), &user) && GetTokenGroupSids(token.get(), &groups)) {
        std::vector<std::vector<std::byte>> sids;
        sids.push_back(Bytes(user));
        for (const auto& group : groups) {
            sids.push_back(Bytes(group));
        }
        return sids;
    }
    if (GetLastError() != ERROR_CALL_NOT_IMPLEMENTED) {
        return {};  // no token: only a missing or NULL DACL lets such a caller in
    }
    // A machine without tokens yet: the local system account, a member of
    // Administrators, Everyone and Authenticated Users.
    return {SidBytes(5, {18}), SidBytes(5, {32, 544}), SidBytes(1, {0}), SidBytes(5, {11})};
}

bool CallerIsAdministrator() {
    const auto system = SidBytes(5, {18});
    const auto admins = SidBytes(5, {32, 544});
    for (const auto& sid : CallerSids()) {
        if (sid == system || sid == admins) {
            return true;
        }
    }
    return false;
}

std::u16string CallerName() {
    LastErrorKeeper keep;
    return admin::CurrentProcessAccount();
}

}  // namespace platform::spool
