// What the kernel and process tests need from the host beyond the platform:
// environment variables set for a scope, and byte-exact output from child
// processes.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "ovtest.h"

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#endif

namespace kerneltest {

#ifdef _WIN32
inline constexpr char kPathListSeparator = ';';

// Standard output and error without the C runtime's "\n" -> "\r\n".
inline void BinaryOutput() {
    std::fflush(stdout);
    std::fflush(stderr);
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
}
#else
inline constexpr char kPathListSeparator = ':';

inline void BinaryOutput() {}
#endif

// Sets a variable, or removes it for no value.
inline void PutEnvironment(const std::string& name, const std::optional<std::string>& value) {
    if (value) {
        ovtest::SetEnv(name, *value);
    } else {
        ovtest::UnsetEnv(name);
    }
}

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
