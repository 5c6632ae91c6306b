// ovasctl's command groups register themselves here; main() only parses.
#pragma once

#include <CLI/CLI.hpp>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "output.h"

namespace ovasctl {

using Installer = void (*)(CLI::App& app);

std::vector<Installer>& Installers();

// static const ovasctl::AddCommands reg{&InstallRegCommands};
struct AddCommands {
    explicit AddCommands(Installer installer) { Installers().push_back(installer); }
};

// The exit code main() returns after the chosen command ran.
int& ExitCode();

// When the machine root cannot be used, the sentence that says so ("machine
// root <path> is read-only"): a failure then most likely comes from it, so
// error messages show it instead of the error's own text. Empty when the
// root is fine. A failed command that did not ask gets it from main() as a
// last line.
std::string RootProblem();

std::u16string Utf16(std::string_view text);
std::string Utf8(std::u16string_view text);

// The packed form ("OVPPD" and one zlib stream per file) of PPD files.
bool PackPpdFiles(const std::vector<std::string>& paths, std::vector<std::byte>* packed,
                  std::string* error);
// What a client printer with the description in `path` sends: the file as
// it is when already packed, else its packed form.
bool ReadPpdForClient(const std::string& path, std::vector<std::byte>* packed, std::string* error);

}  // namespace ovasctl
