// PostScript client printers: each gets a printer with its own generated
// driver whose data file is the PPD the client sent (or the standard one),
// and the driver and its files go with the printer.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "autocreated_printers.h"
#include "channel_support.h"
#include "ovtest.h"
#include "platform/machine.h"
#include "platform/spooler.h"

namespace {

using namespace std::chrono_literals;
using channeltest::Ctl;
using channeltest::CtlResult;
namespace fs = std::filesystem;

constexpr char kClientPpd[] = "*PPD-Adobe: \"4.3\"\n*ModelName: \"Client PS 9\"\n";
constexpr char16_t kDirectory[] = u"C:\\Windows\\System32\\spool\\drivers\\x64";

std::string HostText(std::u16string_view path) {
    std::ifstream in(platform::HostPath(path), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Every file of the driver directory and its store, by relative path.
std::set<std::string> DriverFiles() {
    std::set<std::string> files;
    const fs::path root = platform::HostPath(kDirectory);
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file()) {
            files.insert(fs::relative(entry.path(), root).string());
        }
    }
    return files;
}

std::vector<platform::DriverInfo6> GeneratedDrivers() {
    std::vector<platform::DriverInfo6> out;
    auto drivers = platform::EnumPrinterDriversW(u"", platform::kEnvironmentX64, 6);
    for (auto& d : drivers.value()) {
        if (d.name.starts_with(u"OV PS Driver ")) {
            out.push_back(std::move(d));
        }
    }
    return out;
}

std::optional<platform::DriverInfo6> DriverOf(std::u16string_view printer) {
    const auto record = ovtest::ReadPrinter(printer);
    if (!record) {
        return std::nullopt;
    }
    auto drivers = platform::EnumPrinterDriversW(u"", platform::kEnvironmentX64, 6);
    for (auto& d : drivers.value()) {
        if (d.name == record->driverName) {
            return std::move(d);
        }
    }
    return std::nullopt;
}

class PostScriptPrinterTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        OVTEST_EMBEDDED_ONLY("needs ovasctl setup and sessions of the embedded machine");
        channeltest::ResetProductKey();
        trace_ = channeltest::EnableTrace(root());
        channeltest::SetProductDword(u"RightsWin2000", 1);
        ASSERT_TRUE(ovtest::EnsureUsers({u"OVDOMAIN\\ann"}));
        ppd_ = root() + "/client.ppd";
        std::ofstream(ppd_) << kClientPpd;
        for (const auto& args : std::vector<std::vector<std::string>>{
                 {"setup"},
                 {"setup"},  // a second run changes nothing
                 {"spool", "port", "add", "Orvelle Port", "OVAS1:", "--info",
                  "Protocol=3\\nOVASScheme=%A:%I#%N"},
                 {"reg", "set", "HKLM\\Software\\Orvelle\\Ovaspool", "NameTranslationEx", "--type",
                  "multi_sz", "IP,Client,Driver,Printer,Class,T1,T2,T4,T8,Template,Flag",
                  "*,*,*,*,PS,true,true,true,true,OVPS!OVAS1:,"}}) {
            const CtlResult r = Ctl(args);
            ASSERT_EQ(r.exit, 0) << r.out;
        }
    }
    CtlResult Logon(const std::string& session = "4") const {
        return Ctl({"session", "logon", "--id", session, "--user", "OVDOMAIN\\ann", "--client",
                    "ANN-PC", "--address", "10.0.0.4", "--printer",
                    "name=Office PS,class=PS,driver=PS 9,id=7,ppd=" + ppd_, "--printer",
                    "name=Plain PS,class=PS,driver=PS,id=8"});
    }
    std::string trace_;
    std::string ppd_;
};

TEST_F(PostScriptPrinterTest, EachPrinterGetsItsOwnDriverThatGoesWithIt) {
    ovtest::Process service = channeltest::StartService();
    const std::set<std::string> before = DriverFiles();
    const CtlResult r = Logon();
    ASSERT_EQ(r.exit, 0) << r.out;

    const auto withPpd = DriverOf(u"ANN-PC:7#Office PS");
    const auto standard = DriverOf(u"ANN-PC:8#Plain PS");
    ASSERT_TRUE(withPpd) << r.out;
    ASSERT_TRUE(standard) << r.out;
    EXPECT_NE(withPpd->name, standard->name);
    EXPECT_EQ(HostText(withPpd->dataFile), kClientPpd);
    EXPECT_NE(HostText(standard->dataFile).find("*ModelName: \"OV Relay Printer PS\""),
              std::string::npos);
    const auto hasOvpsFiles = [](const platform::DriverInfo6& d) {
        int n = 0;
        for (const auto& f : d.dependentFiles) {
            n += f.ends_with(u"\\ovps.ini") || f.ends_with(u"\\ovps.dll");
        }
        return n;
    };
    EXPECT_EQ(hasOvpsFiles(*withPpd), 2);
    EXPECT_EQ(hasOvpsFiles(*standard), 0);
    const std::string trace = channeltest::ReadText(trace_);
    EXPECT_NE(trace.find("1. Versuch NEW PS DRIVER added to port OVAS1:"), std::string::npos);
    EXPECT_NE(trace.find("no PPD file, , take standard"), std::string::npos);
    EXPECT_NE(trace.find("AddPrinterDriver <" + ovtest::U8(withPpd->name) + "> added ok"),
              std::string::npos);

    // The logoff deletes both printers, their drivers and the drivers' PPDs.
    EXPECT_EQ(Ctl({"session", "logoff", "--id", "4"}).exit, 0);
    EXPECT_FALSE(ovtest::ReadPrinter(u"ANN-PC:7#Office PS"));
    EXPECT_TRUE(GeneratedDrivers().empty());
    EXPECT_EQ(DriverFiles(), before);
    EXPECT_NE(channeltest::ReadText(trace_).find("DeletePrinterDriverEx <" +
                                                 ovtest::U8(withPpd->name) + "> = 0 (ok)"),
              std::string::npos);
    service.Terminate();
    EXPECT_EQ(service.Wait(10s), 0);
}

// A failed driver add ends the request with 221 before any printer; a
// failed printer add (-13) takes the driver added for it away again.
TEST_F(PostScriptPrinterTest, FailuresLeaveNoPrinterDriverOrFileBehind) {
    ovtest::Process service = channeltest::StartService();
    const std::set<std::string> before = DriverFiles();
    struct Case {
        const char* failing;
        const char* healthy;
        const char* session;
        const char* answer;
        const char* traced;
    };
    for (const Case& c : {Case{"AddPrinterDriverW", "AddPrinterW", "4", "221", "> = 5"},
                          Case{"AddPrinterW", "AddPrinterDriverW", "5", "-13",
                               "API-Fkt. AddPrinter() schlug fehl (5)!"}}) {
        platform::machine::SetSetting(std::string("fault.") + c.failing, "*:5");
        platform::machine::SetSetting(std::string("fault.") + c.healthy, "off");
        const CtlResult r = Logon(c.session);
        for (const char* printer : {"Office PS", "Plain PS"}) {
            EXPECT_NE(r.out.find(std::string("\"") + printer +
                                 "\" was not created: the service answered " + c.answer),
                      std::string::npos)
                << r.out;
        }
        EXPECT_FALSE(ovtest::ReadPrinter(u"ANN-PC:7#Office PS")) << c.failing;
        EXPECT_TRUE(GeneratedDrivers().empty()) << c.failing;
        EXPECT_EQ(DriverFiles(), before) << c.failing;
        EXPECT_NE(channeltest::ReadText(trace_).find(c.traced), std::string::npos) << c.failing;
    }
    service.Terminate();
    EXPECT_EQ(service.Wait(10s), 0);
}

// Packed descriptions that cannot be unpacked (cut short, not zlib, or
// expanding far beyond their size) create no printer and leave no driver
// or file behind; a good printer of the same logon is created all the same.
TEST_F(PostScriptPrinterTest, UnusableDescriptionsCreateNothingAndLeaveNothing) {
    const std::string packed = root() + "/good.ovppd";
    const std::string huge = root() + "/huge.ppd";
    std::ofstream(huge) << "*PPD-Adobe: \"4.3\"\n" << std::string(4 << 20, ' ');
    const std::string bomb = root() + "/bomb.ovppd";
    ASSERT_EQ(Ctl({"ppd", "pack", ppd_, "-o", packed}).exit, 0);
    ASSERT_EQ(Ctl({"ppd", "pack", huge, "-o", bomb}).exit, 0);
    ASSERT_LT(fs::file_size(bomb), 8192u) << "a small input that expands a thousandfold";
    std::ifstream in(packed, std::ios::binary);
    std::string cut{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    cut.resize(cut.size() - 6);
    std::ofstream(root() + "/cut.ovppd", std::ios::binary) << cut;
    std::ofstream(root() + "/junk.ovppd", std::ios::binary) << "OVPPDthis is not zlib data";

    ovtest::Process service = channeltest::StartService();
    const std::set<std::string> before = DriverFiles();
    std::vector<std::string> args = {"session",   "logon",         "--id",     "4",
                                     "--user",    "OVDOMAIN\\ann", "--client", "ANN-PC",
                                     "--address", "10.0.0.4"};
    int id = 1;
    for (const char* file : {"cut", "junk", "bomb"}) {
        args.insert(args.end(), {"--printer", std::string("name=") + file +
                                                  ",class=PS,driver=PS,id=" + std::to_string(id++) +
                                                  ",ppd=" + root() + "/" + file + ".ovppd"});
    }
    args.insert(args.end(), {"--printer", "name=Good,class=PS,driver=PS,id=9,ppd=" + packed});
    const CtlResult r = Ctl(args);
    ASSERT_EQ(r.exit, 0) << r.out;
    for (const char* file : {"cut", "junk", "bomb"}) {
        EXPECT_NE(r.out.find(std::string("\"") + file + "\" was not created: the service answered"),
                  std::string::npos)
            << r.out;
    }
    const auto good = DriverOf(u"ANN-PC:9#Good");
    ASSERT_TRUE(good) << r.out;
    EXPECT_EQ(HostText(good->dataFile), kClientPpd);
    EXPECT_EQ(GeneratedDrivers().size(), 1u);
    const std::string trace = channeltest::ReadText(trace_);
    EXPECT_NE(trace.find("PPD file ZIP ERROR"), std::string::npos);
    EXPECT_NE(trace.find("PPD file refused: unpacked it exceeds"), std::string::npos);

    EXPECT_EQ(Ctl({"session", "logoff", "--id", "4"}).exit, 0);
    EXPECT_TRUE(GeneratedDrivers().empty());
    EXPECT_EQ(DriverFiles(), before);
    service.Terminate();
    EXPECT_EQ(service.Wait(10s), 0);
}

}  // namespace
