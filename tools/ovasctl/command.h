// ovasctl's command groups register themselves here; main() only parses.
#pragma once

#include <CLI/CLI.hpp>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ovasctl {

using Installer = void (*)(CLI::App& app);

std::vector<Installer>& Installers();

// static const ovasctl::AddCommands reg{&InstallRegCommands};
struct AddCommands {
    explicit AddCommands(Installer installer) { Installers().push_back(installer); }
};

// The exit code main() returns after the chosen command ran.
int& ExitCode();

std::u16string Utf16(std::string_view text);
std::string Utf8(std::u16string_view text);

// A JSON string literal (quotes included) for UTF-8 text.
std::string JsonString(std::string_view text);

// The packed form ("OVPPD" and one zlib stream per file) of PPD files.
bool PackPpdFiles(const std::vector<std::string>& paths, std::vector<std::byte>* packed,
                  std::string* error);
// What a client printer with the description in `path` sends: the file as
// it is when already packed, else its packed form.
bool ReadPpdForClient(const std::string& path, std::vector<std::byte>* packed, std::string* error);

}  // namespace ovasctl
