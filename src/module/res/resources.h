// The module's own resources: its string table and version information,
// known to the platform under the module's file name "OVSvc.dll".
#pragma once

#include <string>
#include <string_view>

#include "platform/resources.h"
#include "res/string_ids.h"  // generated from strings.list

namespace ovsvc {

inline constexpr char16_t kModuleFileName[] = u"OVSvc.dll";

// The resource data as the module brings it along.
const platform::ModuleResources& OwnResources();

// The module's handle. The resources are made known to the platform on the
// first call (thread-safe; later calls find them registered), so no load
// hook is needed.
platform::HMODULE OwnModule();

// A string of the module's string table; empty when the id is unknown.
std::u16string LoadOwnString(unsigned id);

// "<FileDescription>, <LegalCopyright>, a.b.c.d" from the version resource
// of the module file "OVSvc.dll", or "GetVersion failed" when any part of it
// cannot be read.
std::u16string GetModuleVersionString();
// The same for any module file known to the platform.
std::u16string ModuleVersionString(std::u16string_view fileName);

}  // namespace ovsvc
