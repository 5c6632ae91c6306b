// CreateProcess: a command line started as a host process.
#include <unistd.h>

#include "process_internal.h"
#include "wts_internal.h"

namespace platform {

namespace {

using embedded::HandleKind;
using embedded::HandleTable;

constexpr DWORD kThreadAllAccess = 0x001FFFFF;

// The host descriptor a standard handle stands for: -1 for none.
bool StdDescriptor(HANDLE handle, int* fd) {
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE) {
        *fd = -1;
        return true;
    }
    auto pipe = HandleTable::Instance().LookupAs<embedded::PipeObject>(handle, HandleKind::Pipe);
    if (!pipe) {
        return false;
    }
    *fd = pipe->fd();
    return true;
}

bool Create(const embedded::ProcessIdentity& identity, std::u16string_view applicationName,
            std::u16string_view commandLine, bool inheritHandles,
            const std::vector<std::u16string>* environment, std::u16string_view currentDirectory,
            const STARTUPINFOW& startup, PROCESS_INFORMATION* information) {
    if (information == nullptr || (applicationName.empty() && commandLine.empty())) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    std::vector<std::u16string> words = CommandLineToArgv(commandLine);
    const std::u16string program = applicationName.empty()
                                       ? (words.empty() ? std::u16string() : words.front())
                                       : std::u16string(applicationName);
    if (program.empty()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    const std::string path = embedded::FindProgram(detail::Utf8(program));
    if (path.empty()) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return false;
    }
    if (words.empty()) {
        words.push_back(program);
    }
    std::vector<std::string> argv;
    for (const auto& w : words) {
        argv.push_back(detail::Utf8(w));
    }

    std::vector<std::string> env;
    if (environment != nullptr) {
        for (const auto& e : *environment) {
            env.push_back(detail::Utf8(e));
        }
    } else {
        env = embedded::CurrentEnvironment();
    }
    if (identity.set) {
        env = embedded::EnvironmentWith(env,
                                        {"OVSVC_USER=" + identity.user,
                                         "OVSVC_SESSION_ID=" + std::to_string(identity.sessionId)});
    }

    std::string directory;
    if (!currentDirectory.empty()) {
        directory = HostPath(currentDirectory);
    }

    int fds[3] = {-2, -2, -2};
    if ((startup.dwFlags & STARTF_USESTDHANDLES) != 0) {
        const HANDLE handles[3] = {startup.hStdInput, startup.hStdOutput, startup.hStdError};
        for (int i = 0; i < 3; ++i) {
            if (!inheritHandles) {
                fds[i] = -1;
            } else if (!StdDescriptor(handles[i], &fds[i])) {
                SetLastError(ERROR_INVALID_HANDLE);
                return false;
            }
        }
    }

    embedded::ReapOrphans();
    const pid_t pid = embedded::SpawnProgram(path, argv, env, directory, fds, false);
    if (pid < 0) {
        return false;
    }
    auto process = std::make_shared<embedded::ProcessObject>(pid);
    auto thread = std::make_shared<embedded::ThreadObject>(process);
    UniqueProcess hProcess(HandleTable::Instance().Insert(process, PROCESS_ALL_ACCESS));
    UniqueThread hThread(HandleTable::Instance().Insert(std::move(thread), kThreadAllAccess));
    if (!hProcess || !hThread) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return false;  // the child runs on; it is reaped as an orphan
    }
    information->hProcess = std::move(hProcess);
    information->hThread = std::move(hThread);
    information->dwProcessId = static_cast<DWORD>(pid);
    information->dwThreadId = static_cast<DWORD>(pid);
    SetLastError(ERROR_SUCCESS);
    return true;
}

}  // namespace

bool CreateProcessW(std::u16string_view applicationName, std::u16string_view commandLine,
                    const SecurityAttributes*, const SecurityAttributes*, bool inheritHandles,
                    DWORD, const std::vector<std::u16string>* environment,
                    std::u16string_view currentDirectory, const STARTUPINFOW& startup,
                    PROCESS_INFORMATION* information) {
    return Create({}, applicationName, commandLine, inheritHandles, environment, currentDirectory,
                  startup, information);
}

bool CreateProcessAsUserW(HANDLE token, std::u16string_view applicationName,
                          std::u16string_view commandLine, const SecurityAttributes*,
                          const SecurityAttributes*, bool inheritHandles, DWORD,
                          const std::vector<std::u16string>* environment,
                          std::u16string_view currentDirectory, const STARTUPINFOW& startup,
                          PROCESS_INFORMATION* information) {
    embedded::ProcessIdentity identity;
    if (!embedded::IdentityFromToken(token, &identity)) {
        return false;
    }
    return Create(identity, applicationName, commandLine, inheritHandles, environment,
                  currentDirectory, startup, information);
}

}  // namespace platform
