// The product key under the local machine that holds every setting.
#pragma once

namespace ovsvc {

inline constexpr char16_t kProductKey[] = u"Software\\Orvelle\\Ovaspool";

}  // namespace ovsvc
