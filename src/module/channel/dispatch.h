// The service's handlers behind the channel's command codes.
#pragma once

namespace ovsvc {

// Loads the translation table when the service starts; false stops the
// service before it creates anything.
bool LoadTranslationTableAtStart();

}  // namespace ovsvc
