// Queries on a module's version block: the fixed part, the translations and
// the strings, as VerQueryValue answers them for the sub-blocks the module
// reads. The block itself comes from each backend's GetFileVersionInfoW.
#include <string>
#include <string_view>
#include <vector>

#include "platform/resources.h"

namespace platform {

namespace {

// Names in a version block compare without regard to case (ASCII and
// Latin-1 letters, which is all these names use).
char16_t Fold(char16_t c) {
    if ((c >= u'a' && c <= u'z') || (c >= 0xE0 && c <= 0xFE && c != 0xF7)) {
        return static_cast<char16_t>(c - 0x20);
    }
    return c;
}

bool SameName(std::u16string_view a, std::u16string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (Fold(a[i]) != Fold(b[i])) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool VerQueryFixedFileInfo(const VersionBlock& block, VS_FIXEDFILEINFO* info) {
    if (!block.fixed) {
        SetLastError(ERROR_RESOURCE_TYPE_NOT_FOUND);
        return false;
    }
    if (info != nullptr) {
        *info = *block.fixed;
    }
    SetLastError(ERROR_SUCCESS);
    return true;
}

bool VerQueryTranslations(const VersionBlock& block, std::vector<LangCodePage>* translations) {
    if (block.translations.empty()) {
        SetLastError(ERROR_RESOURCE_TYPE_NOT_FOUND);
        return false;
    }
    if (translations != nullptr) {
        *translations = block.translations;
    }
    SetLastError(ERROR_SUCCESS);
    return true;
}

bool VerQueryString(const VersionBlock& block, std::u16string_view subBlock,
                    std::u16string* value) {
    constexpr std::u16string_view kPrefix = u"\\StringFileInfo\\";
    if (subBlock.size() <= kPrefix.size() + 9 ||
        !SameName(subBlock.substr(0, kPrefix.size()), kPrefix) ||
        subBlock[kPrefix.size() + 8] != u'\\') {
        SetLastError(ERROR_RESOURCE_TYPE_NOT_FOUND);
        return false;
    }
    // Stored keys are "llllcccc\Name" with lower-case hexadecimal digits.
    std::u16string key(subBlock.substr(kPrefix.size()));
    for (std::size_t i = 0; i < 8; ++i) {
        if (key[i] >= u'A' && key[i] <= u'F') {
            key[i] = static_cast<char16_t>(key[i] - u'A' + u'a');
        }
    }
    for (const auto& [name, text] : block.strings) {
        if (SameName(name, key)) {
            if (value != nullptr) {
                *value = text;
            }
            SetLastError(ERROR_SUCCESS);
            return true;
        }
    }
    SetLastError(ERROR_RESOURCE_NAME_NOT_FOUND);
    return false;
}

}  // namespace platform
