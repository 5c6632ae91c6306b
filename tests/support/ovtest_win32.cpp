// Test processes and temporary directories on Windows (and Wine).
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <utility>

#include "ovtest.h"

namespace ovtest {

namespace {

// Exit code given to a process ended by Kill(), as a shell reports SIGKILL.
constexpr UINT kKilledExitCode = 128 + 9;

std::wstring Widen(const std::string& text) {
    if (text.empty()) {
        return {};
    }
    const int size =
        MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), size);
    return wide;
}

std::string Narrow(const std::wstring& wide) {
    if (wide.empty()) {
        return {};
    }
    const int size = WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()),
                                         nullptr, 0, nullptr, nullptr);
    std::string text(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), text.data(), size,
                        nullptr, nullptr);
    return text;
}

// One argument quoted so that the C runtime's parser gives it back unchanged.
void AppendQuoted(std::wstring& line, const std::wstring& arg) {
    if (!arg.empty() && arg.find_first_of(L" \t\n\v\"") == std::wstring::npos) {
        line += arg;
        return;
    }
    line += L'"';
    std::size_t backslashes = 0;
    for (const wchar_t c : arg) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        if (c == L'"') {
            line.append(backslashes * 2 + 1, L'\\');
        } else {
            line.append(backslashes, L'\\');
        }
        backslashes = 0;
        line += c;
    }
    line.append(backslashes * 2, L'\\');
    line += L'"';
}

// The test's environment with the extra "NAME=value" entries laid over it,
// as a sorted environment block.
std::wstring EnvironmentBlock(const std::vector<std::string>& extra) {
    struct NoCase {
        bool operator()(const std::wstring& a, const std::wstring& b) const {
            return _wcsicmp(a.c_str(), b.c_str()) < 0;
        }
    };
    std::map<std::wstring, std::wstring, NoCase> vars;
    auto add = [&vars](const std::wstring& entry) {
        const auto eq = entry.find(L'=', 1);  // "=C:=C:\..." entries start with '='
        if (eq != std::wstring::npos) {
            vars[entry.substr(0, eq)] = entry.substr(eq + 1);
        }
    };
    if (wchar_t* block = GetEnvironmentStringsW()) {
        for (const wchar_t* p = block; *p != L'\0'; p += wcslen(p) + 1) {
            add(p);
        }
        FreeEnvironmentStringsW(block);
    }
    for (const auto& entry : extra) {
        add(Widen(entry));
    }
    std::wstring out;
    for (const auto& [name, value] : vars) {
        out += name + L"=" + value;
        out += L'\0';
    }
    out += L'\0';
    return out;
}

// The system's temporary directory, ending in a backslash.
std::wstring TempDirectory() {
    wchar_t temp[MAX_PATH + 1];
    const DWORD n = GetTempPathW(MAX_PATH + 1, temp);
    return n == 0 || n > MAX_PATH ? std::wstring(L".\\") : std::wstring(temp, n);
}

using SuspendFn = LONG(WINAPI*)(HANDLE);

SuspendFn NtdllFunction(const char* name) {
    return reinterpret_cast<SuspendFn>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), name)));
}

}  // namespace

bool IsWin32Platform() {
    return true;
}

bool UnderWine() {
    static const bool wine =
        GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
    return wine;
}

int CurrentProcessId() {
    return static_cast<int>(GetCurrentProcessId());
}

void SetEnv(const std::string& name, const std::string& value) {
    _wputenv_s(Widen(name).c_str(), Widen(value).c_str());
}

void UnsetEnv(const std::string& name) {
    _wputenv_s(Widen(name).c_str(), L"");  // an empty value removes the variable
}

std::string SelfPath() {
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD n = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (n < path.size()) {
            path.resize(n);
            return Narrow(path);
        }
        path.resize(path.size() * 2);
    }
}

Process::Process(Process&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      status_(other.status_),
      handle_(std::exchange(other.handle_, nullptr)),
      outputPath_(std::move(other.outputPath_)) {}

Process& Process::operator=(Process&& other) noexcept {
    if (this != &other) {
        if (handle_ != nullptr) {
            Kill();
            Wait(std::chrono::seconds(10));
        }
        pid_ = std::exchange(other.pid_, -1);
        status_ = other.status_;
        handle_ = std::exchange(other.handle_, nullptr);
        outputPath_ = std::move(other.outputPath_);
    }
    return *this;
}

Process::~Process() {
    if (handle_ != nullptr) {
        Kill();
        Wait(std::chrono::seconds(10));
    }
    if (!outputPath_.empty()) {
        std::error_code ec;
        std::filesystem::remove(outputPath_, ec);
    }
}

Process Process::Start(const std::string& program, const std::vector<std::string>& args,
                       const std::vector<std::string>& env) {
    Process p;
    static std::atomic<int> counter{0};
    p.outputPath_ = Narrow(TempDirectory()) + "ovtest-out-" +
                    std::to_string(GetCurrentProcessId()) + "-" + std::to_string(counter++) +
                    ".txt";

    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    HANDLE out =
        CreateFileW(Widen(p.outputPath_).c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    &inherit, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (out == INVALID_HANDLE_VALUE) {
        return p;
    }
    std::wstring line;
    AppendQuoted(line, Widen(program));
    for (const auto& arg : args) {
        line += L' ';
        AppendQuoted(line, Widen(arg));
    }
    std::wstring block = EnvironmentBlock(env);

    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = out;
    startup.hStdError = out;
    PROCESS_INFORMATION info{};
    if (CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE,
                       CREATE_UNICODE_ENVIRONMENT | CREATE_NO_WINDOW, block.data(), nullptr,
                       &startup, &info)) {
        CloseHandle(info.hThread);
        p.handle_ = info.hProcess;
        p.pid_ = static_cast<int>(info.dwProcessId);
    } else {
        std::fprintf(stderr, "cannot start %s: error %lu\n", program.c_str(), GetLastError());
        p.status_ = 127;
    }
    CloseHandle(out);
    return p;
}

int Process::Wait(std::chrono::milliseconds timeout) {
    if (handle_ == nullptr) {
        return status_;
    }
    const DWORD ms = static_cast<DWORD>(timeout.count());
    if (WaitForSingleObject(handle_, ms) == WAIT_OBJECT_0) {
        DWORD code = 0;
        GetExitCodeProcess(handle_, &code);
        status_ = static_cast<int>(code);
    } else {
        TerminateProcess(handle_, kKilledExitCode);
        WaitForSingleObject(handle_, 10000);
        status_ = -1;
    }
    CloseHandle(std::exchange(handle_, nullptr));
    pid_ = -1;
    return status_;
}

bool Process::Running() {
    if (handle_ == nullptr) {
        return false;
    }
    if (WaitForSingleObject(handle_, 0) == WAIT_TIMEOUT) {
        return true;
    }
    Wait(std::chrono::milliseconds(0));
    return false;
}

void Process::Kill() {
    if (handle_ != nullptr) {
        TerminateProcess(handle_, kKilledExitCode);
    }
}

void Process::Terminate() {
    if (handle_ == nullptr) {
        return;
    }
    const std::wstring name = L"Local\\ovaspoolsvc-stop-" + std::to_wstring(pid_);
    if (HANDLE stop = OpenEventW(EVENT_MODIFY_STATE, FALSE, name.c_str())) {
        SetEvent(stop);
        CloseHandle(stop);
        return;
    }
    Kill();
}

void Process::Suspend() {
    static const SuspendFn suspend = NtdllFunction("NtSuspendProcess");
    if (handle_ != nullptr && suspend != nullptr) {
        suspend(handle_);
    }
}

void Process::Resume() {
    static const SuspendFn resume = NtdllFunction("NtResumeProcess");
    if (handle_ != nullptr && resume != nullptr) {
        resume(handle_);
    }
}

std::string Process::output() const {
    std::ifstream in(std::filesystem::path(Widen(outputPath_)));
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string MakeTempDir(const std::string& prefix) {
    const std::wstring temp = TempDirectory();
    static std::atomic<unsigned> counter{0};
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const std::wstring dir = temp + Widen(prefix) + std::to_wstring(GetCurrentProcessId()) +
                                 L"-" + std::to_wstring(GetTickCount64()) + L"-" +
                                 std::to_wstring(counter++);
        if (CreateDirectoryW(dir.c_str(), nullptr)) {
            return Narrow(dir);
        }
        if (GetLastError() != ERROR_ALREADY_EXISTS) {
            return {};
        }
    }
    return {};
}

void ReleaseHostLeftovers() {}

}  // namespace ovtest
