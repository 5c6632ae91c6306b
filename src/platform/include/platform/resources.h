// Module look-ups and resources: the string table and the version
// information of a module, found by the module's file name.
//
// On Windows they come from the image's resource section. The embedded
// platform has no images: a module hands its resource data to
// RegisterModuleResources when it is loaded, under its Windows file name.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"
#include "platform/kernel.h"

namespace platform {

inline constexpr DWORD ERROR_RESOURCE_DATA_NOT_FOUND = 1812;
inline constexpr DWORD ERROR_RESOURCE_TYPE_NOT_FOUND = 1813;
inline constexpr DWORD ERROR_RESOURCE_NAME_NOT_FOUND = 1814;
inline constexpr DWORD ERROR_RESOURCE_LANG_NOT_FOUND = 1815;

struct ModuleObject;  // opaque
using HMODULE = ModuleObject*;

struct VS_FIXEDFILEINFO {
    DWORD dwSignature = 0xFEEF04BD;
    DWORD dwStrucVersion = 0x00010000;
    DWORD dwFileVersionMS = 0;
    DWORD dwFileVersionLS = 0;
    DWORD dwProductVersionMS = 0;
    DWORD dwProductVersionLS = 0;
    DWORD dwFileFlagsMask = 0x3F;
    DWORD dwFileFlags = 0;
    DWORD dwFileOS = 0x00040004;  // VOS_NT_WINDOWS32
    DWORD dwFileType = 2;         // VFT_DLL
    DWORD dwFileSubtype = 0;
    DWORD dwFileDateMS = 0;
    DWORD dwFileDateLS = 0;
};

struct LangCodePage {
    WORD language = 0;
    WORD codePage = 0;
};

// The version resource of a module (what GetFileVersionInfo returns).
struct VersionBlock {
    std::optional<VS_FIXEDFILEINFO> fixed;
    std::vector<LangCodePage> translations;  // "\VarFileInfo\Translation"
    // Keyed by "llllcccc\Name" (hexadecimal language and code page, lower case).
    std::map<std::u16string, std::u16string> strings;
};

// Resource data a module brings along.
struct ModuleResources {
    std::u16string fileName;  // e.g. u"OVSvc.dll"
    std::map<unsigned, std::u16string> strings;
    VersionBlock version;
    // Named text resources (type, name) -> content, e.g. scripts and schemas.
    std::map<std::pair<std::u16string, std::u16string>, std::string> texts;
};

// Embedded platform: make a module's resources known under its file name
// (compared case-insensitively). The data must outlive the registration.
// The Win32 platform ignores it. Returns the module's handle.
HMODULE RegisterModuleResources(const ModuleResources* resources);
void UnregisterModuleResources(const ModuleResources* resources);

// Switches off the thread attach and detach notifications of a library's
// entry point. The embedded platform sends none, and answers true.
bool DisableThreadLibraryCalls(HMODULE module);

// Null when no such module is loaded (ERROR_MOD_NOT_FOUND).
HMODULE GetModuleHandleW(std::u16string_view fileName);
// The module's full path (Windows form).
std::u16string GetModuleFileNameW(HMODULE module);

// Length of the string copied, 0 when the id is absent (the last error then
// reads ERROR_RESOURCE_NAME_NOT_FOUND).
int LoadStringW(HMODULE module, unsigned id, std::u16string* text);

// GetFileVersionInfoSize + GetFileVersionInfo in one: the version block of
// the named module file. Fails with ERROR_RESOURCE_TYPE_NOT_FOUND when the
// file has no version resource.
bool GetFileVersionInfoW(std::u16string_view fileName, VersionBlock* block);

// VerQueryValue on the three sub-blocks the module reads: "\",
// "\VarFileInfo\Translation" and "\StringFileInfo\llllcccc\Name".
bool VerQueryFixedFileInfo(const VersionBlock& block, VS_FIXEDFILEINFO* info);
bool VerQueryTranslations(const VersionBlock& block, std::vector<LangCodePage>* translations);
bool VerQueryString(const VersionBlock& block, std::u16string_view subBlock, std::u16string* value);

// A named text resource (FindResource/LoadResource/LockResource on a custom type).
bool LoadTextResource(HMODULE module, std::u16string_view type, std::u16string_view name,
                      std::string* text);

}  // namespace platform
