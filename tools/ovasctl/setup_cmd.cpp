// ovasctl setup: installs the product on an embedded machine, as its
// installer would on Windows. Running it again changes nothing.
//
// It installs the PostScript template driver "OV Relay Printer PS", the
// driver that the create flow copies for every PostScript client printer:
// its data file is a standard PPD (used when a client printer brings none),
// and its dependent files include ovps.ini and ovps.dll. The driver's
// program files are placeholders on the embedded machine.
#include <cstdio>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "command.h"
#include "platform/kernel.h"
#include "platform/spooler.h"

namespace ovasctl {

namespace {

using platform::DWORD;

#ifdef _WIN32
constexpr bool kEmbeddedMachine = false;
#else
constexpr bool kEmbeddedMachine = true;
#endif

constexpr char16_t kPostScriptTemplate[] = u"OV Relay Printer PS";

// The standard description of the relay PostScript printer: A4 and Letter,
// 600 dpi, colour, the base fonts.
constexpr std::string_view kStandardPpd = R"PPD(*PPD-Adobe: "4.3"
*% Standard description of the OV Relay Printer PS: the description a
*% generated PostScript driver gets when its client printer sent none.
*FormatVersion: "4.3"
*FileVersion: "1.0"
*LanguageVersion: English
*LanguageEncoding: ISOLatin1
*PCFileName: "OVRELAY.PPD"
*Manufacturer: "Orvelle"
*Product: "(OV Relay Printer PS)"
*ModelName: "OV Relay Printer PS"
*ShortNickName: "OV Relay Printer PS"
*NickName: "OV Relay Printer PS"
*PSVersion: "(3010.000) 0"
*LanguageLevel: "3"
*ColorDevice: True
*DefaultColorSpace: RGB
*FileSystem: False
*Throughput: "20"
*LandscapeOrientation: Plus90
*TTRasterizer: Type42

*OpenUI *PageSize/Paper Size: PickOne
*OrderDependency: 10 AnySetup *PageSize
*DefaultPageSize: A4
*PageSize A4/A4: "<</PageSize[595 842]/ImagingBBox null>>setpagedevice"
*PageSize Letter/Letter: "<</PageSize[612 792]/ImagingBBox null>>setpagedevice"
*CloseUI: *PageSize

*OpenUI *PageRegion/Paper Region: PickOne
*OrderDependency: 10 AnySetup *PageRegion
*DefaultPageRegion: A4
*PageRegion A4/A4: "<</PageSize[595 842]/ImagingBBox null>>setpagedevice"
*PageRegion Letter/Letter: "<</PageSize[612 792]/ImagingBBox null>>setpagedevice"
*CloseUI: *PageRegion

*DefaultImageableArea: A4
*ImageableArea A4/A4: "12 12 583 830"
*ImageableArea Letter/Letter: "12 12 600 780"
*DefaultPaperDimension: A4
*PaperDimension A4/A4: "595 842"
*PaperDimension Letter/Letter: "612 792"

*OpenUI *Resolution/Resolution: PickOne
*OrderDependency: 20 AnySetup *Resolution
*DefaultResolution: 600dpi
*Resolution 600dpi/600 dpi: "<</HWResolution[600 600]>>setpagedevice"
*CloseUI: *Resolution

*DefaultFont: Courier
*Font Courier: Standard "(002.004S)" Standard ROM
*Font Helvetica: Standard "(001.006S)" Standard ROM
*Font Times-Roman: Standard "(001.007S)" Standard ROM
*Font Symbol: Special "(001.007S)" Special ROM
*% End of the standard description
)PPD";

constexpr std::string_view kOvpsIni =
    "; Settings of the OV Relay PostScript printer\n[OVPS]\nRelay=1\n";

struct DriverFile {
    const char16_t* name;
    std::string_view content;  // empty: a placeholder text naming the file
};

// Driver, data, configuration and help file, then the dependent files.
const DriverFile kPostScriptFiles[] = {
    {u"ovpsdrv.dll", {}}, {u"OVRELAYPS.PPD", kStandardPpd}, {u"ovpsui.dll", {}},
    {u"ovps.hlp", {}},    {u"ovps.ini", kOvpsIni},          {u"ovps.dll", {}},
    {u"ovps.ntf", {}},
};

int Fail(const std::string& what, DWORD error) {
    return ovasctl::Fail("setup", what + " failed", error);
}

bool DriverInstalled(const std::u16string& name, bool* installed) {
    const auto drivers = platform::EnumPrinterDriversW(u"", platform::kEnvironmentX64, 6);
    if (!drivers) {
        return false;
    }
    *installed = false;
    for (const auto& d : *drivers) {
        *installed = *installed || d.name == name;
    }
    return true;
}

bool WriteDriverFile(const std::u16string& path, std::string_view content) {
    platform::UniqueFile file = platform::CreateFileW(
        path, platform::GENERIC_WRITE, 0, platform::CREATE_ALWAYS, platform::FILE_ATTRIBUTE_NORMAL);
    if (!file) {
        return false;
    }
    DWORD written = 0;
    return platform::WriteFile(file.get(), content.data(), static_cast<DWORD>(content.size()),
                               &written) &&
           written == content.size();
}

// Puts the files into the driver directory and adds the driver from there;
// the staged files go again either way (the spooler keeps its copies).
int InstallPostScriptTemplate() {
    bool installed = false;
    if (!DriverInstalled(kPostScriptTemplate, &installed)) {
        return Fail("EnumPrinterDrivers", platform::GetLastError());
    }
    if (installed) {
        std::printf("driver \"%s\": installed already\n", Utf8(kPostScriptTemplate).c_str());
        return 0;
    }
    const auto directory = platform::GetPrinterDriverDirectoryW(u"", platform::kEnvironmentX64, 1);
    if (!directory) {
        return Fail("GetPrinterDriverDirectory", platform::GetLastError());
    }
    std::vector<std::u16string> staged;
    const auto removeStaged = [&] {
        for (const auto& path : staged) {
            platform::DeleteFileW(path);
        }
    };
    for (const DriverFile& f : kPostScriptFiles) {
        const std::u16string path = *directory + u'\\' + f.name;
        const std::string placeholder =
            "embedded placeholder of the driver file " + Utf8(f.name) + "\n";
        if (!WriteDriverFile(path, f.content.empty() ? placeholder : f.content)) {
            const DWORD error = platform::GetLastError();
            removeStaged();
            return Fail("writing " + Utf8(path), error);
        }
        staged.push_back(path);
    }
    platform::DriverInfo6 info;
    info.name = kPostScriptTemplate;
    info.environment = platform::kEnvironmentX64;
    info.driverPath = kPostScriptFiles[0].name;
    info.dataFile = kPostScriptFiles[1].name;
    info.configFile = kPostScriptFiles[2].name;
    info.helpFile = kPostScriptFiles[3].name;
    for (std::size_t i = 4; i < std::size(kPostScriptFiles); ++i) {
        info.dependentFiles.emplace_back(kPostScriptFiles[i].name);
    }
    info.defaultDataType = u"RAW";
    info.mfgName = u"Orvelle";
    info.provider = u"Orvelle";
    const bool added = platform::AddPrinterDriverW(u"", 6, info);
    const DWORD error = platform::GetLastError();
    removeStaged();
    if (!added) {
        return Fail("AddPrinterDriver \"" + Utf8(kPostScriptTemplate) + "\"", error);
    }
    std::printf("driver \"%s\": installed\n", Utf8(kPostScriptTemplate).c_str());
    return 0;
}

void InstallSetupCommand(CLI::App& app) {
    auto* setup = app.add_subcommand(
        "setup", "install the product on this embedded machine (its drivers); idempotent");
    setup->callback([] {
        if (!kEmbeddedMachine) {
            ovasctl::Fail("setup",
                          "only embedded machines are set up this way; on Windows the product's "
                          "installer does it");
            return;
        }
        InstallPostScriptTemplate();
    });
}

const AddCommands reg{&InstallSetupCommand};

}  // namespace

}  // namespace ovasctl
