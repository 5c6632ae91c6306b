// The conversions of platform/text.h under the names embedded code uses.
#pragma once

#include "platform/text.h"

namespace platform::embedded {

using platform::ToUtf16;
using platform::ToUtf8;

}  // namespace platform::embedded
