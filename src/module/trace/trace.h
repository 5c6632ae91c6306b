// The trace log: diagnostic lines into the file the product key names, and
// reports of the service's fatal conditions to the event log.
//
// A trace call never fails towards its caller and leaves the thread's last
// error as it found it.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "common/format.h"

namespace ovsvc {

// Levels (top byte of a trace code).
inline constexpr std::uint32_t INF = 0x01000000;
inline constexpr std::uint32_t ERR = 0x02000000;
inline constexpr std::uint32_t WRN = 0x03000000;
inline constexpr std::uint32_t RAW = 0x04000000;
// Categories (low 24 bits).
inline constexpr std::uint32_t NOTH = 0;
inline constexpr std::uint32_t NORM = 1;
inline constexpr std::uint32_t MAIN = 2;
inline constexpr std::uint32_t SYNC = 4;
inline constexpr std::uint32_t SACL = 8;
inline constexpr std::uint32_t CACH = 16;

// Event types for ReportServiceEvent.
inline constexpr std::uint16_t kEventError = 1;
inline constexpr std::uint16_t kEventWarning = 2;

// False once tracing is known to be off for this process: the cheap test
// every trace call makes first.
bool TraceEnabled() noexcept;

// Writes one line: location prefix ("<file>%<line> _SVC_ " / "_CLIENT_"),
// then the message formatted from `format`.
void TraceLogV(std::string_view sourceFile, unsigned line, std::uint32_t code,
               std::u16string_view format, std::span<const FormatArg> args);

template <typename... Args>
void TraceLog(std::string_view sourceFile, unsigned line, std::uint32_t code,
              std::u16string_view format, const Args&... args) {
    if (!TraceEnabled()) {
        return;
    }
    if constexpr (sizeof...(Args) == 0) {
        TraceLogV(sourceFile, line, code, format, {});
    } else {
        const FormatArg list[] = {FormatArg(args)...};
        TraceLogV(sourceFile, line, code, format, list);
    }
}

// A failed non-fatal check: the expression's text as an ERR/NORM line
// (TraceCheck) or an INF/NORM line (TraceInfoCheck).
void TraceCheck(std::string_view expression, std::string_view sourceFile, unsigned line);
void TraceInfoCheck(std::string_view expression, std::string_view sourceFile, unsigned line);

// The writer: `text` is the whole message for every level but RAW; for RAW,
// `data`/`dataLength` are dumped in hexadecimal instead.
void TraceWrite(std::u16string_view text, std::uint32_t code, const void* data = nullptr,
                std::int64_t dataLength = 0);

// Writes a line for another program (the OVADLLDbgMessage export): the
// message is taken as it is, and a code without category takes it from the
// section label.
void TraceDbgMessage(std::u16string_view sourceFile, unsigned line, std::u16string_view message,
                     std::u16string_view section, std::uint32_t code);

// One entry in the event log: the text with " Location: <n>" appended, under
// the event source named by string 112 of the module's string table.
void ReportServiceEvent(std::u16string_view text, std::uint16_t type, unsigned location);

// Tests only: forget the effective level so the next line reads the
// registry again (as a new process would).
void ResetTraceStateForTesting();

}  // namespace ovsvc

// The arguments are evaluated only while tracing is on, so a line that is
// not written costs one test; arguments must not have side effects.
#define OVTRACE(code, format, ...)                                                              \
    (::ovsvc::TraceEnabled()                                                                    \
         ? ::ovsvc::TraceLog(__FILE__, __LINE__, (code), u"" format __VA_OPT__(, ) __VA_ARGS__) \
         : void())
#define OVCHECK(expr)                                       \
    do {                                                    \
        if (!(expr)) {                                      \
            ::ovsvc::TraceCheck(#expr, __FILE__, __LINE__); \
        }                                                   \
    } while (0)
