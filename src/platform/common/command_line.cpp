// CommandLineToArgv: a command line split as Windows programs split theirs.
// The program name ends at the first blank (or its closing quote) and keeps
// backslashes as they are; the arguments follow the C runtime's rules for
// quotes and backslashes.
#include "platform/process.h"

namespace platform {

std::vector<std::u16string> CommandLineToArgv(std::u16string_view line) {
    std::vector<std::u16string> args;
    line = line.substr(0, line.find(u'\0'));  // a command line is a C string
    std::size_t i = 0;
    auto isBlank = [](char16_t c) { return c == u' ' || c == u'\t'; };
    while (i < line.size() && isBlank(line[i])) {
        ++i;
    }
    if (i >= line.size()) {
        return args;
    }
    // The program name: up to the closing quote, or to the first blank.
    std::u16string first;
    if (line[i] == u'"') {
        ++i;
        while (i < line.size() && line[i] != u'"') {
            first.push_back(line[i++]);
        }
        if (i < line.size()) {
            ++i;
        }
    } else {
        while (i < line.size() && !isBlank(line[i])) {
            first.push_back(line[i++]);
        }
    }
    args.push_back(std::move(first));
    while (true) {
        while (i < line.size() && isBlank(line[i])) {
            ++i;
        }
        if (i >= line.size()) {
            break;
        }
        std::u16string arg;
        bool quoted = false;
        while (i < line.size() && (quoted || !isBlank(line[i]))) {
            if (line[i] == u'\\') {
                std::size_t n = 0;
                while (i < line.size() && line[i] == u'\\') {
                    ++n;
                    ++i;
                }
                if (i < line.size() && line[i] == u'"') {
                    arg.append(n / 2, u'\\');
                    if (n % 2 == 1) {
                        arg.push_back(u'"');
                        ++i;
                    }
                } else {
                    arg.append(n, u'\\');
                }
            } else if (line[i] == u'"') {
                if (quoted && i + 1 < line.size() && line[i + 1] == u'"') {
                    arg.push_back(u'"');
                    i += 2;
                } else {
                    quoted = !quoted;
                    ++i;
                }
            } else {
                arg.push_back(line[i++]);
            }
        }
        args.push_back(std::move(arg));
    }
    return args;
}

}  // namespace platform
