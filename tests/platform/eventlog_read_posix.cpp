// The embedded platform's event log is a file of lines:
// "<time>\t<source>\t<type>\t<text>", with backslash, tab, CR and LF escaped.
#include <fstream>
#include <sstream>

#include "eventlog_test_support.h"
#include "platform/machine.h"

namespace evtest {

namespace {

std::string Unescape(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out.push_back(text[i]);
            continue;
        }
        switch (text[++i]) {
            case 't':
                out.push_back('\t');
                break;
            case 'r':
                out.push_back('\r');
                break;
            case 'n':
                out.push_back('\n');
                break;
            default:
                out.push_back(text[i]);
        }
    }
    return out;
}

}  // namespace

std::vector<Entry> EntriesOf(const std::string& source) {
    std::ifstream in(platform::machine::EventLogPath());
    std::vector<Entry> entries;
    std::string line;
    while (std::getline(in, line)) {
        std::vector<std::string> fields;
        std::stringstream split(line);
        std::string field;
        while (std::getline(split, field, '\t')) {
            fields.push_back(field);
        }
        if (fields.size() == 4 && Unescape(fields[1]) == source) {
            entries.push_back({Unescape(fields[1]), fields[2], Unescape(fields[3])});
        }
    }
    return entries;
}

}  // namespace evtest
