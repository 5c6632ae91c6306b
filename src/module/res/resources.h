// The module's own resources: its string table and version information,
// known to the platform under the module's file name "OVSvc.dll".
#pragma once

#include <string>
#include <string_view>

#include "platform/resources.h"

namespace ovsvc {

inline constexpr char16_t kModuleFileName[] = u"OVSvc.dll";

// String-table ids.
inline constexpr unsigned IDS_AUTOCREATED_MARK = 101;
inline constexpr unsigned IDS_EVENT_CREATE_FAILED = 104;
inline constexpr unsigned IDS_KEY_OPEN_FAILED = 106;
inline constexpr unsigned IDS_RIGHTS_QUERY_FAILED = 107;
inline constexpr unsigned IDS_KEY_CREATE_FAILED = 108;
inline constexpr unsigned IDS_SHM_CREATE_FAILED = 109;
inline constexpr unsigned IDS_SHM_MAP_FAILED = 110;
inline constexpr unsigned IDS_NO_ACK = 111;
inline constexpr unsigned IDS_EVENT_SOURCE = 112;
inline constexpr unsigned IDS_WAIT_FAILED = 113;
inline constexpr unsigned IDS_CREATE_OPEN = 114;
inline constexpr unsigned IDS_CREATE_FROM = 115;

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
