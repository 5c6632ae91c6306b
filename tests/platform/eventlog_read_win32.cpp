// On Windows the entries are in the system's Application log, read with
// ReadEventLog: each record holds its source name after the fixed part and
// its strings at StringOffset, one after the other.
#include <string>
#include <vector>

#include "eventlog_test_support.h"
#include "ovtest.h"

// After the test's own headers, whose platform names <windows.h> has macros for.
#include <windows.h>

namespace evtest {

namespace {

std::string TypeName(WORD type) {
    switch (type) {
        case EVENTLOG_SUCCESS:
            return "Success";
        case EVENTLOG_ERROR_TYPE:
            return "Error";
        case EVENTLOG_WARNING_TYPE:
            return "Warning";
        case EVENTLOG_INFORMATION_TYPE:
            return "Information";
        case EVENTLOG_AUDIT_SUCCESS:
            return "Audit Success";
        case EVENTLOG_AUDIT_FAILURE:
            return "Audit Failure";
        default:
            return std::to_string(type);
    }
}

std::string Utf8(const wchar_t* text) {
    return ovtest::U8(std::u16string(reinterpret_cast<const char16_t*>(text)));
}

}  // namespace

std::vector<Entry> EntriesOf(const std::string& source) {
    std::vector<Entry> entries;
    HANDLE log = OpenEventLogW(nullptr, L"Application");
    if (log == nullptr) {
        ADD_FAILURE() << "OpenEventLog: error " << GetLastError();
        return entries;
    }
    std::vector<BYTE> buffer(64 * 1024);
    while (true) {
        DWORD read = 0;
        DWORD needed = 0;
        if (!ReadEventLogW(log, EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ, 0, buffer.data(),
                           static_cast<DWORD>(buffer.size()), &read, &needed)) {
            const DWORD error = GetLastError();
            if (error == ERROR_INSUFFICIENT_BUFFER) {
                buffer.resize(needed);
                continue;
            }
            if (error != ERROR_HANDLE_EOF) {
                ADD_FAILURE() << "ReadEventLog: error " << error;
            }
            break;
        }
        for (DWORD at = 0; at + sizeof(EVENTLOGRECORD) <= read;) {
            const auto* record = reinterpret_cast<const EVENTLOGRECORD*>(buffer.data() + at);
            if (record->Length == 0) {
                break;
            }
            const auto* name = reinterpret_cast<const wchar_t*>(record + 1);
            if (Utf8(name) == source) {
                Entry entry{source, TypeName(record->EventType), {}};
                const auto* text =
                    reinterpret_cast<const wchar_t*>(buffer.data() + at + record->StringOffset);
                for (WORD i = 0; i < record->NumStrings; ++i) {
                    if (i != 0) {
                        entry.text += " | ";
                    }
                    entry.text += Utf8(text);
                    text += wcslen(text) + 1;
                }
                entries.push_back(std::move(entry));
            }
            at += record->Length;
        }
    }
    CloseEventLog(log);
    return entries;
}

}  // namespace evtest
