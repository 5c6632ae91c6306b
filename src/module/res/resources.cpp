#include "res/resources.h"

#include <map>

#include "common/format.h"
#include "res/com_description.h"

namespace ovsvc {

namespace res {
const std::map<unsigned, std::u16string>& StringTable();
platform::VersionBlock VersionInformation();
}  // namespace res

const platform::ModuleResources& OwnResources() {
    static const platform::ModuleResources resources = [] {
        platform::ModuleResources r;
        r.fileName = kModuleFileName;
        r.strings = res::StringTable();
        r.version = res::VersionInformation();
        r.texts[{u"REGISTRY", u"#214"}] = res::RegistryScript();
        // The management schema, before and from version 5.1.
        static const std::pair<const char16_t*, const char*> kSchemas[] = {
#include "res/mof_schema.inc"
        };
        for (const auto& [name, text] : kSchemas) {
            r.texts[{u"MOF", name}] = text;
        }
        return r;
    }();
    return resources;
}

platform::HMODULE OwnModule() {
    // Registering again yields the module already registered, so this also
    // recovers from an unregistration (at unload) that something outlived.
    return platform::RegisterModuleResources(&OwnResources());
}

std::u16string LoadOwnString(unsigned id) {
    std::u16string text;
    if (platform::LoadStringW(OwnModule(), id, &text) <= 0) {
        text.clear();
    }
    return text;
}

std::u16string ModuleVersionString(std::u16string_view fileName) {
    const std::u16string failed = u"GetVersion failed";
    platform::VersionBlock block;
    if (!platform::GetFileVersionInfoW(fileName, &block)) {
        return failed;
    }
    std::vector<platform::LangCodePage> translations;
    if (!platform::VerQueryTranslations(block, &translations) || translations.empty()) {
        return failed;
    }
    const platform::LangCodePage first = translations.front();
    std::u16string text;
    for (const char16_t* name : {u"FileDescription", u"LegalCopyright"}) {
        const std::u16string subBlock =
            Format(u"\\StringFileInfo\\%04x%04x\\%s", first.language, first.codePage, name);
        std::u16string value;
        if (!platform::VerQueryString(block, subBlock, &value)) {
            return failed;
        }
        text += value;
        text += u", ";
    }
    platform::VS_FIXEDFILEINFO fixed;
    if (!platform::VerQueryFixedFileInfo(block, &fixed)) {
        return failed;
    }
    text += Format(u"%i.%i.%i.%i", fixed.dwFileVersionMS >> 16, fixed.dwFileVersionMS & 0xFFFF,
                   fixed.dwFileVersionLS >> 16, fixed.dwFileVersionLS & 0xFFFF);
    return text;
}

std::u16string GetModuleVersionString() {
    OwnModule();
    return ModuleVersionString(kModuleFileName);
}

}  // namespace ovsvc
