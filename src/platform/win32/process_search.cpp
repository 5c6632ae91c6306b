// Where CreateProcess finds a program: a name with a path is looked for
// there; a bare name in the module's directory, then the calling program's,
// then each PATH directory. Windows compares names ignoring case; ".exe" is
// optional both ways ("tool" finds tool.exe, "tool.exe" finds tool).
#include "platform/kernel.h"
#include "platform/process.h"

#include "win32_api.h"

#include "kernel_internal.h"

namespace platform {

namespace {

bool IsProgramFile(const std::u16string& path) {
    const ::DWORD attributes = ::GetFileAttributesW(win32::Wide(path));
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

bool EndsWithExe(std::u16string_view name) {
    if (name.size() <= 4) {
        return false;
    }
    const std::u16string_view tail = name.substr(name.size() - 4);
    const std::u16string_view exe = u".exe";
    for (std::size_t i = 0; i < 4; ++i) {
        const char16_t c = tail[i];
        const char16_t lower = (c >= u'A' && c <= u'Z') ? static_cast<char16_t>(c + 32) : c;
        if (lower != exe[i]) {
            return false;
        }
    }
    return true;
}

// The first of "dir\name", "dir\name.exe", "dir\name without .exe" that is a file.
std::u16string MatchInDirectory(const std::u16string& directory, const std::u16string& name) {
    std::u16string base = directory;
    if (!base.empty() && base.back() != u'\\' && base.back() != u'/') {
        base.push_back(u'\\');
    }
    std::u16string candidates[3] = {base + name, base + name + u".exe", {}};
    if (EndsWithExe(name)) {
        candidates[2] = base + name.substr(0, name.size() - 4);
    }
    for (const auto& candidate : candidates) {
        if (!candidate.empty() && IsProgramFile(candidate)) {
            return candidate;
        }
    }
    return {};
}

std::u16string ProgramDirectory() {
    std::u16string path(MAX_PATH, u'\0');
    for (;;) {
        const ::DWORD n = ::GetModuleFileNameW(nullptr, win32::WideBuffer(path),
                                               static_cast<::DWORD>(path.size()));
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

std::vector<std::u16string> PathDirectories() {
    std::vector<std::u16string> directories;
    const ::DWORD size = ::GetEnvironmentVariableW(L"PATH", nullptr, 0);
    if (size == 0) {
        return directories;
    }
    std::u16string value(size, u'\0');
    const ::DWORD n = ::GetEnvironmentVariableW(L"PATH", win32::WideBuffer(value), size);
    value.resize(n < size ? n : 0);
    std::u16string_view rest(value);
    while (true) {
        const auto semicolon = rest.find(u';');
        std::u16string_view entry = rest.substr(0, semicolon);
        if (entry.size() >= 2 && entry.front() == u'"' && entry.back() == u'"') {
            entry = entry.substr(1, entry.size() - 2);
        }
        if (!entry.empty()) {
            directories.emplace_back(entry);
        }
        if (semicolon == std::u16string_view::npos) {
            break;
        }
        rest.remove_prefix(semicolon + 1);
    }
    return directories;
}

std::u16string Find(const std::u16string& name) {
    if (name.empty()) {
        return {};
    }
    if (name.find_first_of(u"\\/:") != std::u16string::npos) {
        const auto slash = name.find_last_of(u"\\/:");
        return MatchInDirectory(name.substr(0, slash + 1), name.substr(slash + 1));
    }
    std::vector<std::u16string> directories{win32::ModuleDirectory(), ProgramDirectory()};
    for (auto& directory : PathDirectories()) {
        directories.push_back(std::move(directory));
    }
    for (const auto& directory : directories) {
        if (directory.empty()) {
            continue;
        }
        if (std::u16string found = MatchInDirectory(directory, name); !found.empty()) {
            return found;
        }
    }
    return {};
}

}  // namespace

std::u16string SearchProgram(std::u16string_view name) {
    std::u16string found;
    {
        LastErrorKeeper keep;  // the probes' own errors are not the answer's
        found = Find(std::u16string(name.substr(0, name.find(u'\0'))));
    }
    ::SetLastError(found.empty() ? ERROR_FILE_NOT_FOUND : ERROR_SUCCESS);
    return found;
}

}  // namespace platform
