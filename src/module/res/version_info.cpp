// The module's version information.
#include "res/resources.h"

// The build passes the project's version; these defaults only keep a stray
// compile of this file working.
#ifndef OVSVC_VERSION_MAJOR
#define OVSVC_VERSION_MAJOR 0
#endif
#ifndef OVSVC_VERSION_MINOR
#define OVSVC_VERSION_MINOR 0
#endif
#ifndef OVSVC_VERSION_PATCH
#define OVSVC_VERSION_PATCH 0
#endif
#ifndef OVSVC_VERSION_TWEAK
#define OVSVC_VERSION_TWEAK 0
#endif

namespace ovsvc::res {

platform::VersionBlock VersionInformation() {
    constexpr platform::DWORD kMs = (OVSVC_VERSION_MAJOR << 16) | OVSVC_VERSION_MINOR;
    constexpr platform::DWORD kLs = (OVSVC_VERSION_PATCH << 16) | OVSVC_VERSION_TWEAK;
    platform::VersionBlock block;
    platform::VS_FIXEDFILEINFO fixed;
    fixed.dwFileVersionMS = kMs;
    fixed.dwFileVersionLS = kLs;
    fixed.dwProductVersionMS = kMs;
    fixed.dwProductVersionLS = kLs;
    block.fixed = fixed;
    block.translations.push_back({0x0409, 0x04b0});
    block.strings = {
        {u"040904b0\\CompanyName", u"Orvelle"},
        {u"040904b0\\FileDescription", u"OVSvc printer autocreation module"},
        {u"040904b0\\InternalName", u"OVSvc"},
        {u"040904b0\\LegalCopyright", u"Copyright (C) Orvelle. All rights reserved."},
        {u"040904b0\\OriginalFilename", u"OVSvc.dll"},
        {u"040904b0\\ProductName", u"Ovaspool"},
    };
    return block;
}

}  // namespace ovsvc::res
