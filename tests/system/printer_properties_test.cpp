// A client printer's trays, papers, resolutions and duplex ability reach
// the server printer made for the virtual printer driver: logged on through
// the client program, and with the spooler refusing a printer-data write.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "autocreated_printers.h"
#include "channel_support.h"
#include "ovtest.h"
#include "platform/machine.h"

namespace {

using namespace std::chrono_literals;
using channeltest::Ctl;
using channeltest::CtlResult;

class PrinterPropertiesSystemTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        OVTEST_EMBEDDED_ONLY("needs the embedded session table and ovasctl spool administration");
        channeltest::ResetProductKey();
        trace_ = channeltest::EnableTrace(root());
        channeltest::SetProductDword(u"RightsWin2000", 1);
        ASSERT_TRUE(ovtest::EnsureUsers({u"OVDOMAIN\\ann"}));
        const std::string driverData =
            "HKLM\\SYSTEM\\CurrentControlSet\\Control\\Print\\Printers\\_#Relay\\PrinterDriverData";
        for (const auto& args : std::vector<std::vector<std::string>>{
                 {"spool", "port", "add", "Orvelle Port", "OVAS1:", "--info",
                  "Protocol=3\\nOVASScheme=%A:%I#%N"},
                 {"spool", "processor", "add", "ovwinprn"},
                 {"spool", "driver", "add", "OV Relay Printer", "--file", "OVPRN.DLL"},
                 // A template whose driver has a tray choice and a duplex unit.
                 {"spool", "template", "add", "Relay", "--driver", "OV Relay Printer", "--port",
                  "OVAS1:"},
                 {"reg", "set", driverData, "OptionTrays", "--type", "dword", "1"},
                 {"reg", "set", driverData, "OptionDuplex", "--type", "dword", "1"},
                 {"reg", "set", "HKLM\\Software\\Orvelle\\Ovaspool", "NameTranslationEx", "--type",
                  "multi_sz", "IP,Client,Driver,Printer,Class,T1,T2,T4,T8,Template,Flag",
                  "*,*,*,*,PCL,true,true,true,true,OVRP!OVAS1:,",
                  "*,*,*,*,RELAY,true,true,true,true,Relay,"}}) {
            const CtlResult r = Ctl(args);
            ASSERT_EQ(r.exit, 0) << r.out;
        }
    }
    // The printer's data values as `ovasctl spool show` prints them.
    static std::string Shown(const std::string& printer) {
        const CtlResult r = Ctl({"spool", "show", printer});
        EXPECT_EQ(r.exit, 0) << r.out;
        return r.out;
    }
    std::string trace_;
};

TEST_F(PrinterPropertiesSystemTest,
       ClientPrintersBringTheirChoicesAndFailedWritesLeaveThePrinterWhole) {
    ovtest::Process service = channeltest::StartService();
    const std::string lists =
        "trays=1,Upper;*4,Manual,papers=*9,2100,2970\u00B642,42,2058,2928;1,2159,2794,"
        "resolutions=300;*600,duplex=1";
    CtlResult r =
        Ctl({"session", "logon", "--id", "5", "--user", "OVDOMAIN\\ann", "--client", "PC1",
             "--address", "10.0.0.5", "--printer", "name=HP 4,class=PCL,driver=HP,id=2," + lists,
             "--printer", "name=HP 5,class=RELAY,driver=HP,id=3," + lists});
    ASSERT_EQ(r.exit, 0) << r.out;

    // Both printers hold the lists without their marks; FormData is the
    // papers list as received (all property flags set by default).
    for (const char* name : {"PC1:2#HP 4", "PC1:3#HP 5"}) {
        const std::string shown = Shown(name);
        for (const std::string line : {"TrayData = 1,Upper|4,Manual\n",
                                       "FormData = 9,2100,2970\u00B642,42,2058,2928|1,2159,2794\n",
                                       "ResolutionData = 300|600\n"}) {
            EXPECT_NE(shown.find(line), std::string::npos) << name << ": " << line << shown;
        }
    }
    // The new definition's driver has no tray or duplex options: source and
    // duplex stay the driver's; its OVPRN driver file takes paper and
    // resolution. The template's driver also takes tray 4 and long-edge
    // (vertical) duplex.
    struct Expected {
        const char16_t* printer;
        short source, duplex;
    };
    for (const Expected& e :
         {Expected{u"PC1:2#HP 4", platform::DMBIN_AUTO, platform::DMDUP_SIMPLEX},
          Expected{u"PC1:3#HP 5", 4, platform::DMDUP_VERTICAL}}) {
        const auto printer = ovtest::ReadPrinter(e.printer);
        ASSERT_TRUE(printer && printer->devMode) << ovtest::U8(e.printer);
        const platform::DevMode& dm = *printer->devMode;
        EXPECT_EQ(dm.dmDefaultSource, e.source) << ovtest::U8(e.printer);
        EXPECT_EQ(dm.dmDuplex, e.duplex) << ovtest::U8(e.printer);
        EXPECT_EQ(dm.dmPaperSize, platform::DMPAPER_A4) << ovtest::U8(e.printer);
        EXPECT_EQ(dm.dmFields & (platform::DM_PAPERSIZE | platform::DM_FORMNAME),
                  platform::DM_PAPERSIZE);
        EXPECT_EQ(dm.dmPrintQuality, 600);
        EXPECT_EQ(dm.dmYResolution, 600);
    }

    // The spooler refuses the first printer-data write (TrayData): the rest
    // is applied, and the printer is recorded for its session and user.
    platform::machine::SetSetting("fault.SetPrinterDataW", "1:5");
    r = Ctl({"call",     "add",           "--printer",    "HP 6", "--class",   "PCL",
             "--client", "PC1",           "--id",         "4",    "--session", "5",
             "--user",   "OVDOMAIN\\ann", "--computer",   "PC1",  "--tray",    "1,Upper",
             "--paper",  "9,2100,2970",   "--resolution", "600"});
    platform::machine::SetSetting("fault.SetPrinterDataW", "");
    EXPECT_NE(r.out.find("add: result 0"), std::string::npos) << r.out;
    const std::string shown = Shown("PC1:4#HP 6");
    EXPECT_EQ(shown.find("TrayData"), std::string::npos) << shown;
    EXPECT_NE(shown.find("FormData = 9,2100,2970\n"), std::string::npos) << shown;
    EXPECT_NE(shown.find("ResolutionData = 600\n"), std::string::npos) << shown;
    EXPECT_NE(channeltest::ReadText(trace_).find("SetPrinterData failed 0 err=5"),
              std::string::npos);
    const auto printer = ovtest::ReadPrinter(u"PC1:4#HP 6");
    ASSERT_TRUE(printer);
    EXPECT_EQ(printer->location, u"5;");
    EXPECT_EQ(ovtest::PrintingUsers(u"PC1:4#HP 6"),
              (std::vector<std::u16string>{u"OVDOMAIN\\ann"}));
    r = Ctl({"call", "enum", "--raw"});
    EXPECT_NE(r.out.find("P10:PC1:4#HP 6R1:1S1:5"), std::string::npos) << r.out;

    service.Terminate();
    EXPECT_EQ(service.Wait(10s), 0);
}

}  // namespace
