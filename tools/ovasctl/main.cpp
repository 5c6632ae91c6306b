// ovasctl: administration of an embedded OVSvc machine.
#include "command.h"

#include <iostream>

#include "platform/machine.h"
#include "platform/text.h"

namespace ovasctl {

std::vector<Installer>& Installers() {
    static std::vector<Installer> installers;
    return installers;
}

int& ExitCode() {
    static int code = 0;
    return code;
}

namespace {
bool g_rootProblemShown = false;
}  // namespace

std::string RootProblem() {
    g_rootProblemShown = true;
    return platform::machine::RootProblem();
}

std::u16string Utf16(std::string_view text) {
    return platform::ToUtf16(text);
}

std::string Utf8(std::u16string_view text) {
    return platform::ToUtf8(text);
}

std::string JsonString(std::string_view text) {
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
                    static constexpr char kHex[] = "0123456789abcdef";
                    out += "\\u00";
                    out += kHex[(c >> 4) & 0xF];
                    out += kHex[c & 0xF];
                } else {
                    out += c;
                }
        }
    }
    out += '"';
    return out;
}

}  // namespace ovasctl

int main(int argc, char** argv) {
    CLI::App app{"ovasctl: administration of an embedded OVSvc machine ($OVSVC_ROOT)"};
    app.require_subcommand(1);
    for (auto installer : ovasctl::Installers()) {
        installer(app);
    }
    CLI11_PARSE(app, argc, argv);
    if (ovasctl::ExitCode() != 0 && !ovasctl::g_rootProblemShown) {
        if (const std::string problem = ovasctl::RootProblem(); !problem.empty()) {
            std::cerr << "ovasctl: " << problem << "\n";
        }
    }
    return ovasctl::ExitCode();
}
