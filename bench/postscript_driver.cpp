// Generating a PostScript driver for one printer: reading the driver
// directory and the installed drivers, copying the template's files,
// unpacking the client's PPD, adding the driver, and deleting it again (one
// iteration is one install and one delete).
//
// Arguments: the unpacked PPD size in KiB (0: no PPD, the template's is
// copied; 768 KiB packs to about 112 KB, near the most a request carries)
// and how many generated drivers are installed already (every install
// enumerates them all). The bare add and delete of the same driver files is
// the baseline.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "create/packed_ppd.h"
#include "create/postscript_driver.h"
#include "platform/kernel.h"
#include "platform/machine.h"
#include "platform/spooler.h"

namespace {

using namespace platform;

constexpr char16_t kDirectory[] = u"C:\\Windows\\System32\\spool\\drivers\\x64";

std::string FreshRoot() {
    std::string pattern = "/tmp/ovsvc-bench-psdriver-XXXXXX";
    const char* made = mkdtemp(pattern.data());
    const std::string root = made != nullptr ? made : "/tmp/ovsvc-bench-psdriver";
    machine::UseRoot(root);
    return root;
}

void RemoveRoot(const std::string& root) {
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
}

// The template driver with files of realistic size.
bool InstallTemplate() {
    GetPrinterDriverDirectoryW(u"", kEnvironmentX64, 1);
    const std::vector<std::pair<std::u16string, std::size_t>> files = {
        {u"ovpsdrv.dll", 600 * 1024}, {u"OVRELAYPS.PPD", 40 * 1024}, {u"ovpsui.dll", 400 * 1024},
        {u"ovps.hlp", 50 * 1024},     {u"ovps.ini", 1024},           {u"ovps.dll", 100 * 1024}};
    for (const auto& [name, size] : files) {
        std::ofstream(HostPath(std::u16string(kDirectory) + u'\\' + name), std::ios::binary)
            << std::string(size, 'd');
    }
    DriverInfo6 info;
    info.name = ovsvc::kPostScriptTemplateDriver;
    info.environment = kEnvironmentX64;
    info.driverPath = u"ovpsdrv.dll";
    info.dataFile = u"OVRELAYPS.PPD";
    info.configFile = u"ovpsui.dll";
    info.helpFile = u"ovps.hlp";
    info.dependentFiles = {u"ovps.ini", u"ovps.dll"};
    const bool added = AddPrinterDriverW(u"", 6, info);
    for (const auto& [name, size] : files) {
        DeleteFileW(std::u16string(kDirectory) + u'\\' + name);
    }
    return added;
}

// PPD-like text: option lines with varying values, as real descriptions have.
std::string PpdText(std::size_t bytes) {
    std::string text = "*PPD-Adobe: \"4.3\"\n";
    for (int i = 0; text.size() < bytes; ++i) {
        text += "*Option" + std::to_string(i % 300) + " Choice" + std::to_string(i) +
                "/Choice: \"<</Value " + std::to_string(i * 7919 % 100003) + ">>setpagedevice\"\n";
    }
    return text;
}

void BM_PostScriptDriverCreate(benchmark::State& state) {
    const std::string root = FreshRoot();
    if (!InstallTemplate()) {
        state.SkipWithError("template driver not installed");
        RemoveRoot(root);
        return;
    }
    const std::vector<std::byte> packed =
        state.range(0) == 0
            ? std::vector<std::byte>()
            : ovsvc::PackPpd({PpdText(static_cast<std::size_t>(state.range(0)) * 1024)});
    if (packed.size() >= ovsvc::kPackedPpdCutOffBytes) {
        state.SkipWithError("the packed PPD is too big for a request");
        RemoveRoot(root);
        return;
    }
    for (std::int64_t i = 0; i < state.range(1); ++i) {
        ovsvc::PostScriptDriver other(nullptr, 0);
        other.Install(ovsvc::kPostScriptDriverBase);
    }
    for (auto _ : state) {
        std::u16string name;
        {
            ovsvc::PostScriptDriver driver(packed.empty() ? nullptr : packed.data(),
                                           static_cast<std::uint32_t>(packed.size()));
            if (driver.Install(ovsvc::kPostScriptDriverBase) == 0) {
                state.SkipWithError("install failed");
                break;
            }
            name = driver.GetNewDriverName();
        }
        if (!ovsvc::DeletePostScriptDriver(name)) {
            state.SkipWithError("delete failed");
            break;
        }
    }
    state.counters["packed_bytes"] = static_cast<double>(packed.size());
    RemoveRoot(root);
}
BENCHMARK(BM_PostScriptDriverCreate)
    ->Args({0, 0})
    ->Args({64, 0})
    ->Args({768, 0})
    ->Args({64, 50})
    ->Args({64, 200})
    ->Unit(benchmark::kMillisecond);

// The spooler's part alone: adding and deleting a copy of the template.
void BM_BareDriverAddDelete(benchmark::State& state) {
    const std::string root = FreshRoot();
    if (!InstallTemplate()) {
        state.SkipWithError("template driver not installed");
        RemoveRoot(root);
        return;
    }
    DriverInfo6 copy;
    const auto drivers = EnumPrinterDriversW(u"", kEnvironmentX64, 6);
    for (const auto& d : drivers.value()) {
        if (d.name == ovsvc::kPostScriptTemplateDriver) {
            copy = d;
        }
    }
    copy.name = u"OV PS Driver 00000000000000000000000000000000";
    for (auto _ : state) {
        if (!AddPrinterDriverW(u"", 6, copy) ||
            !DeletePrinterDriverExW(u"", kEnvironmentX64, copy.name, 0, 0)) {
            state.SkipWithError("add or delete failed");
            break;
        }
    }
    RemoveRoot(root);
}
BENCHMARK(BM_BareDriverAddDelete)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
