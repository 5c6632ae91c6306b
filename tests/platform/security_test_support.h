// Helpers shared by the security contract tests.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "platform/security.h"
#include "product_settings.h"

namespace platform {
// Readable SIDs in test failures.
inline void PrintTo(const Sid& sid, std::ostream* out) {
    const std::u16string text = sid.ToString();
    *out << (text.empty() ? std::string("<empty SID>") : std::string(text.begin(), text.end()));
}
}  // namespace platform

namespace sectest {

using ::ovtest::kPoison;

inline platform::Sid SidOf(const char16_t* text) {
    platform::Sid sid;
    platform::ConvertStringSidToSidW(text, &sid);
    return sid;
}

inline platform::Sid WellKnown(platform::WELL_KNOWN_SID_TYPE type) {
    platform::Sid sid;
    platform::CreateWellKnownSid(type, &sid);
    return sid;
}

// An ACL holding exactly the given ACEs (sized to fit).
struct AceSpec {
    platform::BYTE type;
    platform::BYTE flags;
    platform::ACCESS_MASK mask;
    platform::Sid sid;
};

inline platform::Acl AclOf(const std::vector<AceSpec>& aces) {
    platform::DWORD size = platform::kAclHeaderSize;
    for (const AceSpec& a : aces) {
        size += platform::kAceFixedSize + platform::GetLengthSid(a.sid);
    }
    platform::Acl acl;
    platform::InitializeAcl(&acl, size, platform::ACL_REVISION);
    for (const AceSpec& a : aces) {
        if (a.type == platform::ACCESS_ALLOWED_ACE_TYPE) {
            platform::AddAccessAllowedAceEx(&acl, platform::ACL_REVISION, a.flags, a.mask, a.sid);
        } else {
            platform::AddAccessDeniedAceEx(&acl, platform::ACL_REVISION, a.flags, a.mask, a.sid);
        }
    }
    return acl;
}

inline std::vector<platform::Ace> AcesOf(const platform::Acl& acl) {
    std::vector<platform::Ace> out;
    platform::ACL_SIZE_INFORMATION info;
    if (!platform::GetAclInformation(acl, &info)) {
        return out;
    }
    for (platform::DWORD i = 0; i < info.AceCount; ++i) {
        platform::Ace ace;
        platform::GetAce(acl, i, &ace);
        out.push_back(ace);
    }
    return out;
}

}  // namespace sectest
