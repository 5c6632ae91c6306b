// Name and path rules, security attributes and the module's directory.
#include "platform/kernel.h"
#include "platform/security.h"

#include "win32_api.h"

#include "kernel_internal.h"

namespace platform::win32 {

namespace {

constexpr std::u16string_view kPrefixes[] = {u"Global\\", u"Local\\"};

}  // namespace

DWORD CheckObjectName(std::u16string_view name) {
    std::u16string_view rest = name;
    for (const auto prefix : kPrefixes) {
        if (rest.starts_with(prefix)) {
            rest.remove_prefix(prefix.size());
            if (rest.empty()) {
                return ERROR_INVALID_NAME;
            }
            break;
        }
    }
    if (rest.size() > MAX_PATH) {
        return ERROR_FILENAME_EXCED_RANGE;
    }
    if (rest.find(u'\\') != std::u16string_view::npos) {
        return ERROR_PATH_NOT_FOUND;
    }
    return ERROR_SUCCESS;
}

DWORD CheckPath(std::u16string_view path) {
    if (path.starts_with(u"\\\\?\\") || path.starts_with(u"\\\\.\\")) {
        path.remove_prefix(4);
    }
    if (path.size() >= 2 && path[1] == u':' &&
        ((path[0] >= u'A' && path[0] <= u'Z') || (path[0] >= u'a' && path[0] <= u'z'))) {
        path.remove_prefix(2);
    }
    for (const char16_t c : path) {
        if (c < 32 || c == u'<' || c == u'>' || c == u'"' || c == u'|' || c == u'?' || c == u'*' ||
            c == u':') {
            return ERROR_INVALID_NAME;
        }
    }
    return ERROR_SUCCESS;
}

bool Win32SecurityAttributes::Build(const SecurityAttributes* attributes) {
    present_ = attributes != nullptr;
    if (!present_) {
        return true;
    }
    attributes_.nLength = sizeof(attributes_);
    attributes_.bInheritHandle = attributes->inheritHandle ? TRUE : FALSE;
    attributes_.lpSecurityDescriptor = nullptr;
    if (attributes->descriptor != nullptr) {
        selfRelative_ = ToSelfRelative(*attributes->descriptor);
        if (selfRelative_.empty()) {
            return false;
        }
        attributes_.lpSecurityDescriptor = selfRelative_.data();
    } else if (attributes->nullDacl) {
        if (!::InitializeSecurityDescriptor(&nullDacl_, SECURITY_DESCRIPTOR_REVISION) ||
            !::SetSecurityDescriptorDacl(&nullDacl_, TRUE, nullptr, FALSE)) {
            return false;
        }
        attributes_.lpSecurityDescriptor = &nullDacl_;
    }
    return true;
}

std::u16string ModuleDirectory() {
    ::HMODULE self = nullptr;
    if (!::GetModuleHandleExW(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            reinterpret_cast<const wchar_t*>(&ModuleDirectory), &self)) {
        return {};
    }
    std::u16string path(MAX_PATH, u'\0');
    for (;;) {
        const ::DWORD n =
            ::GetModuleFileNameW(self, WideBuffer(path), static_cast<::DWORD>(path.size()));
        if (n == 0) {
            return {};
        }
        if (n < path.size()) {
            path.resize(n);
            break;
        }
        path.resize(path.size() * 2);
    }
    const auto slash = path.find_last_of(u"\\/");
    return slash == std::u16string::npos ? std::u16string() : path.substr(0, slash);
}

}  // namespace platform::win32
