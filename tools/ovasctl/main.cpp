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
