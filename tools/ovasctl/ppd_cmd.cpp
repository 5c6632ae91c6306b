// ovasctl ppd: the packed form of printer descriptions (PPD files) that
// PostScript client printers send with their create requests.
//
//   ovasctl ppd pack FILE... -o OUT    "OVPPD", then one zlib stream per file
//   ovasctl ppd unpack IN -o OUT       the files' texts, one after the other
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "create/packed_ppd.h"

namespace ovasctl {

namespace fs = std::filesystem;

namespace {

bool ReadWhole(const std::string& path, std::string* bytes, std::string* error) {
    std::error_code ec;
    if (fs::is_directory(path, ec)) {
        *error = path + ": is a directory";
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = path + ": cannot be read";
        return false;
    }
    bytes->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (in.bad()) {
        *error = path + ": read error";
        return false;
    }
    return true;
}

// Writes OUT through a temporary file beside it, so a failure leaves an
// existing OUT as it was.
class OutputFile {
  public:
    explicit OutputFile(std::string path) : path_(std::move(path)), temp_(path_ + ".partial") {
        out_.open(temp_, std::ios::binary | std::ios::trunc);
    }
    ~OutputFile() {
        if (!committed_) {
            out_.close();
            std::error_code ec;
            fs::remove(temp_, ec);
        }
    }
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    bool ok() const { return static_cast<bool>(out_); }
    bool Write(const void* data, std::size_t size) {
        out_.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
        return static_cast<bool>(out_);
    }
    bool Commit(std::string* error) {
        out_.close();
        if (!out_) {
            *error = path_ + ": write error";
            return false;
        }
        std::error_code ec;
        fs::rename(temp_, path_, ec);
        if (ec) {
            *error = path_ + ": " + ec.message();
            return false;
        }
        committed_ = true;
        return true;
    }

  private:
    std::string path_;
    std::string temp_;
    std::ofstream out_;
    bool committed_ = false;
};

int Error(const std::string& text) {
    return Fail("ppd", text);
}

int Pack(const std::vector<std::string>& inputs, const std::string& output) {
    std::vector<std::byte> packed;
    std::string error;
    if (!PackPpdFiles(inputs, &packed, &error)) {
        return Error(error);
    }
    if (packed.size() >= ovsvc::kPackedPpdCutOffBytes) {
        return Error("the packed description would be " + std::to_string(packed.size()) +
                     " bytes; a create request carries at most " +
                     std::to_string(ovsvc::kPackedPpdCutOffBytes - 1) +
                     ", so the service would take the standard description (nothing written)");
    }
    OutputFile out(output);
    if (!out.ok()) {
        return Error(output + ": cannot be created");
    }
    if (!out.Write(packed.data(), packed.size()) || !out.Commit(&error)) {
        return Error(error.empty() ? output + ": write error" : error);
    }
    std::printf("packed %zu file(s) into %s (%zu bytes)\n", inputs.size(), output.c_str(),
                packed.size());
    return 0;
}

int Unpack(const std::string& input, const std::string& output) {
    std::string bytes;
    std::string error;
    if (!ReadWhole(input, &bytes, &error)) {
        return Error(error);
    }
    if (bytes.size() < ovsvc::kPackedPpdSignatureBytes ||
        bytes.compare(0, ovsvc::kPackedPpdSignatureBytes, ovsvc::kPackedPpdSignature) != 0) {
        return Error(input + ": not a packed description (it does not begin with \"OVPPD\")");
    }
    OutputFile out(output);
    if (!out.ok()) {
        return Error(output + ": cannot be created");
    }
    const auto* streams = reinterpret_cast<const std::byte*>(bytes.data());
    const ovsvc::PpdUnpackResult result = ovsvc::UnpackPpdStreams(
        std::span<const std::byte>(streams + ovsvc::kPackedPpdSignatureBytes,
                                   bytes.size() - ovsvc::kPackedPpdSignatureBytes),
        [&](std::span<const std::byte> piece) { return out.Write(piece.data(), piece.size()); });
    if (!result.ok()) {
        std::string why = result.message;
        if (result.status == ovsvc::PpdUnpackStatus::kTooBig) {
            why += " (a compression bomb: the service refuses it too)";
        }
        if (result.status == ovsvc::PpdUnpackStatus::kZlibError) {
            why = "not valid zlib data (zlib " + std::to_string(result.zlibCode) + ": " + why + ")";
        }
        return Error(input + ": " + why + "; nothing written");
    }
    if (!out.Commit(&error)) {
        return Error(error);
    }
    std::printf("unpacked %s into %s (%llu bytes)\n", input.c_str(), output.c_str(),
                static_cast<unsigned long long>(result.bytes));
    return 0;
}

void InstallPpdCommands(CLI::App& app) {
    auto* ppd =
        app.add_subcommand("ppd", "packed printer descriptions (PPD) of PostScript printers");
    ppd->require_subcommand(1);

    struct PackOptions {
        std::vector<std::string> inputs;
        std::string output;
    };
    auto pack = std::make_shared<PackOptions>();
    auto* cmdPack = ppd->add_subcommand("pack", "write the packed form of PPD files");
    cmdPack->add_option("files", pack->inputs, "PPD files, unpacked one after the other")
        ->required();
    cmdPack->add_option("-o,--output", pack->output, "packed file to write")->required();
    cmdPack->callback([pack] { Pack(pack->inputs, pack->output); });

    struct UnpackOptions {
        std::string input;
        std::string output;
    };
    auto unpack = std::make_shared<UnpackOptions>();
    auto* cmdUnpack = ppd->add_subcommand("unpack", "write the PPD text of a packed file");
    cmdUnpack->add_option("file", unpack->input, "packed file")->required();
    cmdUnpack->add_option("-o,--output", unpack->output, "PPD file to write")->required();
    cmdUnpack->callback([unpack] { Unpack(unpack->input, unpack->output); });
}

const AddCommands reg{&InstallPpdCommands};

}  // namespace

bool PackPpdFiles(const std::vector<std::string>& paths, std::vector<std::byte>* packed,
                  std::string* error) {
    std::vector<std::string> texts(paths.size());
    std::vector<std::string_view> views;
    for (std::size_t i = 0; i < paths.size(); ++i) {
        if (!ReadWhole(paths[i], &texts[i], error)) {
            return false;
        }
        views.emplace_back(texts[i]);
    }
    *packed = ovsvc::PackPpd(views);
    if (packed->empty()) {
        *error = "zlib could not pack the description";
        return false;
    }
    return true;
}

bool ReadPpdForClient(const std::string& path, std::vector<std::byte>* packed, std::string* error) {
    std::string bytes;
    if (!ReadWhole(path, &bytes, error)) {
        return false;
    }
    if (bytes.compare(0, ovsvc::kPackedPpdSignatureBytes, ovsvc::kPackedPpdSignature) == 0) {
        const auto* data = reinterpret_cast<const std::byte*>(bytes.data());
        packed->assign(data, data + bytes.size());
        return true;
    }
    *packed = ovsvc::PackPpd({bytes});
    if (packed->empty()) {
        *error = "zlib could not pack the description";
        return false;
    }
    return true;
}

}  // namespace ovasctl
