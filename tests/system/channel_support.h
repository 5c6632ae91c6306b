// Helpers for tests that run the service host and client processes.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "channel/shm.h"
#include "ovsvc.h"
#include "ovtest.h"
#include "platform/kernel.h"

namespace channeltest {

// The exports take OVCHAR texts (wchar_t on Windows, char16_t elsewhere;
// UTF-16 on both); tests hold theirs as char16_t.
static_assert(sizeof(OVCHAR) == sizeof(char16_t));
inline const OVCHAR* Ov(const char16_t* text) {
    return reinterpret_cast<const OVCHAR*>(text);
}
inline OVCHAR* Ov(char16_t* text) {
    return reinterpret_cast<OVCHAR*>(text);
}

// Removes the product key with all its settings. A fresh embedded machine
// has none; on Windows the registry is the machine's own, and an earlier
// test may have left settings (a faulty translation list, say) behind.
void ResetProductKey();
// Sets a REG_DWORD / REG_SZ value of the product key.
void SetProductDword(const std::u16string& name, std::uint32_t value);
void SetProductString(const std::u16string& name, const std::u16string& value);
// Sets a translation table of one rule that answers every client printer
// with the template "<printer name>-T", so that a reply names its request.
void SetEchoTranslation();

// The machine most printer tests start from, through ovasctl as an
// administrator would set it up: the port OVAS1: of "Orvelle Port" (name
// format "%A:%I#%N"), the template printer "_#Relay" on it, and a translation
// list whose rules are the given lines (after the list's header line).
// Returns the first failure's output, empty when all went well.
std::string SetUpRelayTemplate(const std::vector<std::string>& rules);

// Turns tracing on into <root>/trace.log and returns that path.
std::string EnableTrace(const std::string& root, std::uint32_t level = 0xFF);
std::string ReadText(const std::string& path);
int CountOccurrences(const std::string& text, const std::string& needle);

// Starts ovaspoolsvc in the foreground, without waiting for it.
ovtest::Process StartServiceHost();
// Starts ovaspoolsvc and waits until its events exist.
ovtest::Process StartService();
bool WaitForServiceReady(std::chrono::milliseconds timeout);

// This process's view of the shared request area (opened, not created).
class AreaView {
  public:
    AreaView();
    ovsvc::SHM* get() const { return static_cast<ovsvc::SHM*>(view_.data()); }
    explicit operator bool() const { return view_.data() != nullptr; }

  private:
    platform::UniqueMapping mapping_;
    platform::MappedView view_;
};

// Polls `condition` every millisecond until it holds or the timeout passes.
template <typename Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        platform::Sleep(1);
    }
    return true;
}

// Runs ovasctl with the arguments: its exit code and everything it wrote.
struct CtlResult {
    int exit = -1;
    std::string out;
};
CtlResult Ctl(const std::vector<std::string>& args);

// Parses "result=<n>" from a child's output; INT32_MIN when absent.
std::int32_t ParseResult(const std::string& output);

}  // namespace channeltest
