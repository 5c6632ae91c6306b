// Test helpers for the Win32 platform.
#include "security_test_support.h"

namespace sectest {

// Windows decides the account a process runs as when it starts it: there is
// nothing to forget.
void ForgetAccountOverride() {}

}  // namespace sectest
