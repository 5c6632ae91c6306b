// CreateProcess and CreateProcessAsUser: the program is found as the
// platform documents (module directory, program directory, PATH), the
// command line goes to the child as given, standard handles reach it as
// inheritable copies and no process gets a window.
#include "platform/kernel.h"
#include "platform/process.h"

#include "win32_api.h"

#include "kernel_internal.h"

namespace platform {

namespace {

// An inheritable copy of a handle, closed when the call is done.
class InheritableCopy {
  public:
    InheritableCopy() = default;
    InheritableCopy(const InheritableCopy&) = delete;
    InheritableCopy& operator=(const InheritableCopy&) = delete;
    ~InheritableCopy() {
        if (handle_ != nullptr) {
            LastErrorKeeper keep;
            ::CloseHandle(handle_);
        }
    }
    // False with ERROR_INVALID_HANDLE for a handle that is not open.
    bool Copy(HANDLE source) {
        ::DWORD flags = 0;
        if (win32::IsNoHandle(source) || !::GetHandleInformation(source, &flags) ||
            !::DuplicateHandle(::GetCurrentProcess(), source, ::GetCurrentProcess(), &handle_, 0,
                               TRUE, DUPLICATE_SAME_ACCESS)) {
            handle_ = nullptr;
            ::SetLastError(ERROR_INVALID_HANDLE);
            return false;
        }
        return true;
    }
    // The null device, for a standard handle the caller left out.
    bool OpenNull(bool forReading) {
        ::SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
        HANDLE h =
            ::CreateFileW(L"NUL", forReading ? GENERIC_READ : GENERIC_WRITE,
                          FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit, OPEN_EXISTING, 0, nullptr);
        handle_ = h == INVALID_HANDLE_VALUE ? nullptr : h;
        return handle_ != nullptr;
    }
    [[nodiscard]] HANDLE get() const { return handle_; }

  private:
    HANDLE handle_ = nullptr;
};

// "NAME=value" entries as a UTF-16 environment block.
std::u16string EnvironmentBlock(const std::vector<std::u16string>& environment) {
    std::u16string block;
    for (const auto& entry : environment) {
        const std::u16string_view text = std::u16string_view(entry).substr(0, entry.find(u'\0'));
        if (!text.empty()) {
            block.append(text);
            block.push_back(u'\0');
        }
    }
    block.push_back(u'\0');
    if (block.size() == 1) {
        block.push_back(u'\0');  // an empty block still ends in two NULs
    }
    return block;
}

std::u16string Quoted(const std::u16string& program) {
    return u"\"" + program + u"\"";
}

bool Create(HANDLE token, std::u16string_view applicationName, std::u16string_view commandLine,
            const SecurityAttributes* processAttributes, const SecurityAttributes* threadAttributes,
            bool inheritHandles, DWORD creationFlags,
            const std::vector<std::u16string>* environment, std::u16string_view currentDirectory,
            const STARTUPINFOW& startup, PROCESS_INFORMATION* information) {
    if (information == nullptr || (applicationName.empty() && commandLine.empty())) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    const std::vector<std::u16string> words = CommandLineToArgv(commandLine);
    const std::u16string program = applicationName.empty()
                                       ? (words.empty() ? std::u16string() : words.front())
                                       : std::u16string(applicationName);
    if (program.empty()) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    const std::u16string path = SearchProgram(program);
    if (path.empty()) {
        ::SetLastError(ERROR_FILE_NOT_FOUND);
        return false;
    }
    // CreateProcessW may write into the command line it is given.
    std::u16string line = commandLine.empty() ? Quoted(path) : std::u16string(commandLine);

    ::STARTUPINFOW si{};
    si.cb = sizeof(si);
    si.dwFlags = startup.dwFlags;
    si.wShowWindow = startup.wShowWindow;
    InheritableCopy standard[3];
    if ((startup.dwFlags & STARTF_USESTDHANDLES) != 0) {
        const HANDLE given[3] = {startup.hStdInput, startup.hStdOutput, startup.hStdError};
        HANDLE* wanted[3] = {&si.hStdInput, &si.hStdOutput, &si.hStdError};
        for (int i = 0; i < 3; ++i) {
            if (!inheritHandles) {
                // Nothing reaches a child that inherits nothing (Wine would
                // hand it the handles anyway).
                *wanted[i] = nullptr;
                continue;
            }
            const bool ok = win32::IsNoHandle(given[i]) ? standard[i].OpenNull(i == 0)
                                                        : standard[i].Copy(given[i]);
            if (!ok) {
                return false;
            }
            *wanted[i] = standard[i].get();
        }
    }

    win32::Win32SecurityAttributes processSecurity;
    win32::Win32SecurityAttributes threadSecurity;
    if (!processSecurity.Build(processAttributes) || !threadSecurity.Build(threadAttributes)) {
        return false;
    }
    ::DWORD flags = creationFlags;
    if ((flags & DETACHED_PROCESS) == 0) {
        flags |= CREATE_NO_WINDOW;
    }
    std::u16string block;
    if (environment != nullptr) {
        block = EnvironmentBlock(*environment);
        flags |= CREATE_UNICODE_ENVIRONMENT;
    }
    const std::u16string directory(currentDirectory);
    const wchar_t* directoryArg = directory.empty() ? nullptr : win32::Wide(directory);
    void* blockArg = environment != nullptr ? block.data() : nullptr;

    ::PROCESS_INFORMATION pi{};
    const ::BOOL started =
        token != nullptr
            ? ::CreateProcessAsUserW(token, win32::Wide(path), win32::WideBuffer(line),
                                     processSecurity.get(), threadSecurity.get(),
                                     inheritHandles ? TRUE : FALSE, flags, blockArg, directoryArg,
                                     &si, &pi)
            : ::CreateProcessW(win32::Wide(path), win32::WideBuffer(line), processSecurity.get(),
                               threadSecurity.get(), inheritHandles ? TRUE : FALSE, flags, blockArg,
                               directoryArg, &si, &pi);
    if (!started) {
        return false;
    }
    information->hProcess = UniqueProcess(pi.hProcess);
    information->hThread = UniqueThread(pi.hThread);
    information->dwProcessId = static_cast<DWORD>(pi.dwProcessId);
    information->dwThreadId = static_cast<DWORD>(pi.dwThreadId);
    ::SetLastError(ERROR_SUCCESS);
    return true;
}

}  // namespace

bool CreateProcessW(std::u16string_view applicationName, std::u16string_view commandLine,
                    const SecurityAttributes* processAttributes,
                    const SecurityAttributes* threadAttributes, bool inheritHandles,
                    DWORD creationFlags, const std::vector<std::u16string>* environment,
                    std::u16string_view currentDirectory, const STARTUPINFOW& startup,
                    PROCESS_INFORMATION* information) {
    return Create(nullptr, applicationName, commandLine, processAttributes, threadAttributes,
                  inheritHandles, creationFlags, environment, currentDirectory, startup,
                  information);
}

bool CreateProcessAsUserW(HANDLE token, std::u16string_view applicationName,
                          std::u16string_view commandLine,
                          const SecurityAttributes* processAttributes,
                          const SecurityAttributes* threadAttributes, bool inheritHandles,
                          DWORD creationFlags, const std::vector<std::u16string>* environment,
                          std::u16string_view currentDirectory, const STARTUPINFOW& startup,
                          PROCESS_INFORMATION* information) {
    // Only a token names a user to start as (Windows would take a null one
    // as the caller's own).
    ::TOKEN_TYPE type{};
    ::DWORD length = 0;
    if (win32::IsNoHandle(token)) {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    if (!::GetTokenInformation(token, TokenType, &type, sizeof(type), &length)) {
        return false;
    }
    return Create(token, applicationName, commandLine, processAttributes, threadAttributes,
                  inheritHandles, creationFlags, environment, currentDirectory, startup,
                  information);
}

}  // namespace platform
