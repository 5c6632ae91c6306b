// Who may use an autocreated printer: the users of the sessions using it,
// besides the local system account and the Administrators group. Users are
// added to and removed from the printer's DACL with the rights configured
// for this Windows version.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/security.h"

namespace ovsvc {

inline constexpr int kAclAdd = 1;
inline constexpr int kAclRemove = 2;

// The rights code (201 to 208) configured for this Windows version, 0 for a
// version the product has no choice for, or a negative error: -1 no product
// key, -2 no version, -3/-4 the value for NT 4 / for 2000 and later
// missing, -5/-8 invalid, -9 not an NT platform.
std::int32_t QueryAccessRightsFromRegistry();

// Adds (kAclAdd) or removes (kAclRemove) the first user's access-allowed
// entries to or from the DACL of `oldDescriptor` (self-relative bytes;
// empty: none). 1 on success, with the new descriptor in `*newDescriptor`, or
// none when the user is the system account or Administrators (left alone).
int AddAccessRights(int mode, const std::vector<std::byte>& oldDescriptor,
                    const std::vector<std::u16string>& users,
                    std::optional<platform::SecurityDescriptor>* newDescriptor);

// Changes the DACL of a printer for one user ("DOMAIN\account"); 1 or 0.
int SetPrinterACL(int mode, std::u16string_view printerName, std::u16string_view userName);

// Appends "DOMAIN\account" of every access-allowed entry of the printer's
// DACL to `names` (each name once). Stops at the first failure, keeping what
// it found.
int GetUserNamesFromACL(std::u16string_view printerName, std::vector<std::u16string>* names);

}  // namespace ovsvc
