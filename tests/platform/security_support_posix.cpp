// Test helpers that touch the embedded machine's process environment.
#include <cstdlib>

#include "security_test_support.h"

namespace sectest {

void ForgetAccountOverride() {
    unsetenv("OVSVC_USER");
}

}  // namespace sectest
