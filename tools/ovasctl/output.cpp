#include "output.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <utility>

#include "command.h"
#include "platform/com.h"

namespace ovasctl {

void PrintTable(const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t c = 0; c < row.size(); ++c) {
            widths[c] = std::max(widths[c], row[c].size());
        }
    }
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t c = 0; c < row.size(); ++c) {
            line += row[c];
            if (c + 1 < row.size()) {
                line += std::string(widths[c] - row[c].size() + 2, ' ');
            }
        }
        std::cout << line << "\n";
    }
}

std::string JsonString(std::string_view text) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out = "\"";
    for (const char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    out += "\\u00";
                    out += kHex[(c >> 4) & 0xF];
                    out += kHex[c & 0xF];
                } else {
                    out += c;
                }
        }
    }
    return out + '"';
}

void JsonObject::Key(std::string_view key) {
    if (!members_.empty()) {
        members_ += ',';
    }
    members_ += JsonString(key) + ':';
}

JsonObject& JsonObject::Text(std::string_view key, std::string_view value) {
    return Raw(key, JsonString(value));
}

JsonObject& JsonObject::Number(std::string_view key, std::int64_t value) {
    return Raw(key, std::to_string(value));
}

JsonObject& JsonObject::Bool(std::string_view key, bool value) {
    return Raw(key, value ? "true" : "false");
}

JsonObject& JsonObject::Raw(std::string_view key, std::string_view json) {
    Key(key);
    members_ += json;
    return *this;
}

std::string JsonArray(const std::vector<std::string>& elements) {
    std::string out = "[";
    for (std::size_t i = 0; i < elements.size(); ++i) {
        out += (i ? "," : "") + elements[i];
    }
    return out + "]";
}

std::string JsonTexts(const std::vector<std::string>& texts) {
    std::vector<std::string> quoted;
    quoted.reserve(texts.size());
    for (const std::string& t : texts) {
        quoted.push_back(JsonString(t));
    }
    return JsonArray(quoted);
}

std::string ErrorText(platform::DWORD error, std::string_view special) {
    using namespace platform;
    if (!special.empty()) {
        return std::string(special);
    }
    static const std::pair<DWORD, const char*> kWords[] = {
        {ERROR_FILE_NOT_FOUND, "not found"},
        {ERROR_PATH_NOT_FOUND, "path not found"},
        {ERROR_ACCESS_DENIED, "access denied"},
        {ERROR_INVALID_HANDLE, "invalid handle"},
        {ERROR_INVALID_DATA, "invalid data"},
        {ERROR_NOT_SUPPORTED, "not supported"},
        {ERROR_INVALID_PARAMETER, "invalid parameter"},
        {ERROR_INVALID_NAME, "invalid name"},
        {ERROR_BAD_PATHNAME, "bad path name"},
        {ERROR_ALREADY_EXISTS, "already exists"},
        {ERROR_KEY_DELETED, "key deleted"},
        {ERROR_CANTOPEN, "the store cannot be opened"},
        {ERROR_CANTREAD, "the store cannot be read"},
        {ERROR_CANTWRITE, "the store cannot be written"},
        {ERROR_SERVICE_ALREADY_RUNNING, "the service is already running"},
        {ERROR_SERVICE_NOT_ACTIVE, "the service is not running"},
        {ERROR_SERVICE_DOES_NOT_EXIST, "no such service"},
        {ERROR_NONE_MAPPED, "no such account"},
        {ERROR_INVALID_PRINTER_NAME, "no such printer"},
        {ERROR_PRINTER_ALREADY_EXISTS, "the printer exists already"},
        {ERROR_UNKNOWN_PRINTER_DRIVER, "unknown printer driver"},
        {ERROR_UNKNOWN_PORT, "unknown port"},
        {ERROR_PRINTER_DRIVER_IN_USE, "the driver is in use"},
        {ERROR_TIMEOUT, "timed out"},
    };
    for (const auto& [code, words] : kWords) {
        if (code == error) {
            return words;
        }
    }
    return "error";
}

std::string HResultText(std::int32_t hr) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%08X", static_cast<unsigned>(hr));
    const std::string name = platform::HResultName(hr);
    return name.empty() ? std::string(hex) : name + " (" + hex + ")";
}

int Fail(std::string_view command, std::string_view what) {
    std::cerr << "ovasctl " << command << ": " << what << "\n";
    ExitCode() = 1;
    return 1;
}

int Fail(std::string_view command, std::string_view what, platform::DWORD error,
         std::string_view special) {
    const std::string problem = RootProblem();
    return Fail(command, std::string(what) + ": " +
                             (problem.empty() ? ErrorText(error, special) : problem) + " (error " +
                             std::to_string(error) + ")");
}

}  // namespace ovasctl
