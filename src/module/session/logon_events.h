// What the logon manager's notifications do: at logoff, the client
// program's delete command runs in the user's session and is waited for.
#pragma once

#include <string_view>

#include "platform/kernel.h"

namespace ovsvc {

// The logoff of the user whose token is given: starts the configured delete
// command ("Ovaspool -q -d" by default) unless ListenToWTS is 0.
void OnLogoff(platform::HANDLE userToken);

// Starts `commandLine` as the token's user without a window and, with
// `wait`, waits for it to end. Nothing is started without terminal
// services, nor in the console session unless ForceListenToWTS is set.
void RunInSessionContext(platform::HANDLE userToken, std::u16string_view eventName,
                         std::u16string_view commandLine, bool wait);

// The module's entry "OVSvc" under the logon manager's Notify key (the
// startup and shutdown handlers, synchronous): written by registration,
// removed with its subtree by unregistration. Failures are only traced.
void RegisterLogonNotification();
void UnregisterLogonNotification();

}  // namespace ovsvc
