// What the kernel and process tests need from the host beyond the platform:
// environment variables of this process (seen by the children it starts)
// and byte-exact output from child processes.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#endif

namespace kerneltest {

#ifdef _WIN32
inline constexpr char kPathListSeparator = ';';

// An empty value removes the variable, as Windows has no empty ones.
inline void PutEnvironment(const std::string& name, const std::optional<std::string>& value) {
    _putenv_s(name.c_str(), value ? value->c_str() : "");
}

// Standard output and error without the C runtime's "\n" -> "\r\n".
inline void BinaryOutput() {
    std::fflush(stdout);
    std::fflush(stderr);
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
}
#else
inline constexpr char kPathListSeparator = ':';

inline void PutEnvironment(const std::string& name, const std::optional<std::string>& value) {
    if (value) {
        setenv(name.c_str(), value->c_str(), 1);
    } else {
        unsetenv(name.c_str());
    }
}

inline void BinaryOutput() {}
#endif

// Sets (or removes) a variable for the scope, then puts the old value back.
class EnvironmentScope {
  public:
    EnvironmentScope(std::string name, const std::optional<std::string>& value)
        : name_(std::move(name)) {
        if (const char* old = std::getenv(name_.c_str()); old != nullptr) {
            old_ = old;
        }
        PutEnvironment(name_, value);
    }
    ~EnvironmentScope() { PutEnvironment(name_, old_); }
    EnvironmentScope(const EnvironmentScope&) = delete;
    EnvironmentScope& operator=(const EnvironmentScope&) = delete;

  private:
    std::string name_;
    std::optional<std::string> old_;
};

}  // namespace kerneltest
