// Merging explicit-access entries into an ACL.
//
// The result is in canonical order: explicit access-denied ACEs, explicit
// access-allowed ACEs, any other explicit ACEs, then inherited ACEs in their
// old order. Within a group, ACEs kept from the old ACL come first, in their
// old order, then new ones in the order of the entries.
//   GRANT_ACCESS  adds the rights to the trustee's explicit allowed ACE with
//                 the same inheritance flags, or adds such an ACE.
//   SET_ACCESS    drops the trustee's explicit allowed and denied ACEs and
//                 adds one allowed ACE with exactly the given rights.
//   DENY_ACCESS   adds the rights to the trustee's explicit denied ACE with
//                 the same flags, or adds such an ACE.
//   REVOKE_ACCESS drops the trustee's explicit allowed ACEs (denied ones stay).
#include <algorithm>

#include "platform/security.h"

namespace platform {

using admin::Account;

namespace {

struct Entry {
    Ace ace;
    bool added = false;
};

bool Inherited(const Ace& ace) {
    return (ace.Header.AceFlags & INHERITED_ACE) != 0;
}

bool IsFor(const Ace& ace, BYTE type, const Sid& sid) {
    return !Inherited(ace) && ace.Header.AceType == type && ace.sid == sid;
}

DWORD ResolveTrustee(const TRUSTEE_W& trustee, Sid* sid) {
    if (trustee.TrusteeForm == TRUSTEE_IS_SID) {
        if (trustee.sid.empty() || !IsValidSid(trustee.sid)) {
            return ERROR_INVALID_SID;
        }
        *sid = trustee.sid;
        return ERROR_SUCCESS;
    }
    if (trustee.TrusteeForm == TRUSTEE_IS_NAME) {
        Account account;
        if (!admin::FindAccountByName(trustee.name, &account)) {
            return ERROR_NONE_MAPPED;
        }
        *sid = account.sid;
        return ERROR_SUCCESS;
    }
    return ERROR_INVALID_PARAMETER;
}

// Adds `mask` to the matching ACE or appends a new one.
void Merge(std::vector<Entry>* aces, BYTE type, BYTE flags, ACCESS_MASK mask, const Sid& sid) {
    if (mask == 0) {
        return;
    }
    for (Entry& e : *aces) {
        if (IsFor(e.ace, type, sid) && e.ace.Header.AceFlags == flags) {
            e.ace = MakeAce(type, flags, e.ace.Mask | mask, sid);
            return;
        }
    }
    aces->push_back({MakeAce(type, flags, mask, sid), true});
}

void Drop(std::vector<Entry>* aces, BYTE type, const Sid& sid) {
    std::erase_if(*aces, [&](const Entry& e) { return IsFor(e.ace, type, sid); });
}

int Group(const Entry& e) {
    if (Inherited(e.ace)) {
        return 3;
    }
    switch (e.ace.Header.AceType) {
        case ACCESS_DENIED_ACE_TYPE:
            return 0;
        case ACCESS_ALLOWED_ACE_TYPE:
            return 1;
        default:
            return 2;
    }
}

DWORD Apply(std::span<const EXPLICIT_ACCESS_W> entries, const Acl* oldAcl, Acl* newAcl) {
    std::vector<Entry> aces;
    if (oldAcl != nullptr) {
        if (!IsValidAcl(*oldAcl)) {
            return ERROR_INVALID_ACL;
        }
        ACL_SIZE_INFORMATION info;
        GetAclInformation(*oldAcl, &info);
        for (DWORD i = 0; i < info.AceCount; ++i) {
            Entry e;
            GetAce(*oldAcl, i, &e.ace);
            aces.push_back(std::move(e));
        }
    }
    for (const EXPLICIT_ACCESS_W& entry : entries) {
        Sid sid;
        if (const DWORD error = ResolveTrustee(entry.Trustee, &sid); error != ERROR_SUCCESS) {
            return error;
        }
        if ((entry.grfInheritance & ~static_cast<DWORD>(VALID_INHERIT_FLAGS)) != 0) {
            return ERROR_INVALID_PARAMETER;
        }
        const auto flags = static_cast<BYTE>(entry.grfInheritance);
        switch (entry.grfAccessMode) {
            case GRANT_ACCESS:
                Merge(&aces, ACCESS_ALLOWED_ACE_TYPE, flags, entry.grfAccessPermissions, sid);
                break;
            case SET_ACCESS:
                Drop(&aces, ACCESS_ALLOWED_ACE_TYPE, sid);
                Drop(&aces, ACCESS_DENIED_ACE_TYPE, sid);
                Merge(&aces, ACCESS_ALLOWED_ACE_TYPE, flags, entry.grfAccessPermissions, sid);
                break;
            case DENY_ACCESS:
                Merge(&aces, ACCESS_DENIED_ACE_TYPE, flags, entry.grfAccessPermissions, sid);
                break;
            case REVOKE_ACCESS:
                Drop(&aces, ACCESS_ALLOWED_ACE_TYPE, sid);
                break;
            case NOT_USED_ACCESS:
                break;
            default:
                return ERROR_INVALID_PARAMETER;
        }
    }
    std::stable_sort(aces.begin(), aces.end(), [](const Entry& a, const Entry& b) {
        const int ga = Group(a);
        const int gb = Group(b);
        if (ga != gb) {
            return ga < gb;
        }
        return !a.added && b.added;
    });
    std::size_t size = kAclHeaderSize;
    for (const Entry& e : aces) {
        size += e.ace.raw.size();
    }
    Acl result;
    if (size > 0xFFFC || !InitializeAcl(&result, static_cast<DWORD>(size), ACL_REVISION)) {
        return ERROR_INVALID_PARAMETER;
    }
    for (const Entry& e : aces) {
        if (!AddAce(&result, ACL_REVISION, MAXDWORD, e.ace)) {
            return GetLastError();
        }
    }
    *newAcl = std::move(result);
    return ERROR_SUCCESS;
}

}  // namespace

DWORD SetEntriesInAclW(std::span<const EXPLICIT_ACCESS_W> entries, const Acl* oldAcl, Acl* newAcl) {
    DWORD error = ERROR_SUCCESS;
    if (newAcl == nullptr) {
        error = ERROR_INVALID_PARAMETER;
    } else if (entries.empty() && oldAcl == nullptr) {
        *newAcl = Acl{};  // nothing to merge: no ACL, as Windows returns NULL
    } else {
        LastErrorKeeper keep;  // the helpers' own errors do not leak out
        error = Apply(entries, oldAcl, newAcl);
    }
    SetLastError(error);
    return error;
}

}  // namespace platform
