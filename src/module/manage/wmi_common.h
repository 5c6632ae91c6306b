// What the management provider's four classes share: their namespace, the
// provider's name and CLSID, and the administrator check of every writing
// operation.
#pragma once

#include "platform/wmi.h"

namespace ovsvc {

inline constexpr char16_t kWmiNamespace[] = u"root\\Orvelle";
// The name the module logs in to the framework with and registers under.
inline constexpr char16_t kWmiProviderName[] = u"OvaspoolDLL";
inline constexpr char16_t kWmiProviderClsid[] = u"{6F3B1C2E-94A7-4D5B-8E21-0C7A5D93B4F6}";

namespace WMI {
// True when the caller may lock the service control manager's database: the
// manager opened with SC_MANAGER_LOCK, and the lock either taken (and given
// back at once) or held by someone else already (error 1055).
bool IsAdmin();
}  // namespace WMI

}  // namespace ovsvc
