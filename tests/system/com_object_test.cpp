// The automation class end to end: registration writes the logon manager's
// entry and the class (twice the same), unregistration leaves the registry
// as it was; a script's calls through ovasctl make the real client program
// create and delete a printer through a running service.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "autocreated_printers.h"
#include "channel_support.h"
#include "ovtest.h"
#include "platform/registry.h"

namespace {

using namespace std::chrono_literals;
using channeltest::Ctl;
using channeltest::CtlResult;

class ComObjectTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        OVTEST_EMBEDDED_ONLY("compares and changes the whole machine registry");
    }
    static std::string Export() {
        const CtlResult r = Ctl({"reg", "export", "HKLM\\SOFTWARE"});
        EXPECT_EQ(r.exit, 0) << r.out;
        return r.out;
    }
};

TEST_F(ComObjectTest, RegisteringTwiceWritesTheSameAndUnregisteringRestores) {
    // Keys every Windows machine has: registration adds below them and
    // unregistration leaves them.
    for (const char16_t* standing :
         {u"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon\\Notify\\Other",
          u"SOFTWARE\\Classes\\CLSID", u"SOFTWARE\\Classes\\Interface",
          u"SOFTWARE\\Classes\\TypeLib"}) {
        platform::UniqueKey key;
        ASSERT_EQ(platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, standing, 0,
                                            platform::KEY_ALL_ACCESS, &key, nullptr),
                  platform::ERROR_SUCCESS);
    }
    const std::string before = Export();
    CtlResult r = Ctl({"com", "register"});
    ASSERT_EQ(r.exit, 0) << r.out;
    const std::string once = Export();
    r = Ctl({"com", "register"});
    ASSERT_EQ(r.exit, 0) << r.out;
    EXPECT_EQ(Export(), once);
    for (const std::string& expected : std::vector<std::string>{
             "Winlogon\\Notify\\OVSvc]\n\"Asynchronous\"=dword:00000000\n\"Impersonate\"="
             "dword:00000000\n\"DllName\"=\"OVSvc.dll\"\n\"Startup\"=\"TSEventStartup\"\n"
             "\"Shutdown\"=\"TSEventShutdown\"",
             "Classes\\OvaspoolLib.Ovaspool]\n@=\"Ovaspool Class\"",
             "Classes\\OvaspoolLib.Ovaspool\\CurVer]\n@=\"OvaspoolDll.Ovaspool.1\"",
             "Classes\\OvaspoolLib.Ovaspool.1\\CLSID]\n@=\"{",
             "\\ProgID]\n@=\"OvaspoolDll.Ovaspool.1\"",
             "\\VersionIndependentProgID]\n@=\"OvaspoolDll.Ovaspool\"",
             "\\InprocServer32]\n@=\"" + ovtest::BinDir() +
                 "/OVSvc.dll\"\n"
                 "\"ThreadingModel\"=\"Apartment\"",
             "\\1.0]\n@=\"Ovaspool 1.0 Type Library\"",
             "\\1.0\\HELPDIR]\n@=\"" + ovtest::BinDir() + "\"",
             "\\ProxyStubClsid32]\n@=\"{00020424-0000-0000-C000-000000000046}\"",
         }) {
        EXPECT_NE(once.find(expected), std::string::npos) << expected;
    }
    r = Ctl({"com", "unregister"});
    ASSERT_EQ(r.exit, 0) << r.out;
    EXPECT_EQ(Export(), before);
}

TEST_F(ComObjectTest, ScriptCallsCreateAndDeleteThroughTheClientProgram) {
    channeltest::ResetProductKey();
    channeltest::SetProductDword(u"RightsWin2000", 1);
    // Logons create nothing by themselves here: only the object does.
    channeltest::SetProductString(u"ListenToWTSCreatCmd", u"Ovaspool -q -p 99");
    ASSERT_TRUE(ovtest::EnsureUsers({u"OVDOMAIN\\ann"}));
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"spool", "port", "add", "Orvelle Port", "OVAS1:", "--info",
              "Protocol=3\\nOVASScheme=%A:%I#%N"},
             {"spool", "template", "add", "Relay", "--driver", "Generic / Text Only", "--port",
              "OVAS1:"},
             {"reg", "set", "HKLM\\Software\\Orvelle\\Ovaspool", "NameTranslationEx", "--type",
              "multi_sz", "IP,Client,Driver,Printer,Class,T1,T2,T4,T8,Template,Flag",
              "*,*,*,*,PCL,true,true,true,true,Relay,"},
             {"com", "register"},
             {"session", "logon", "--id", "4", "--user", "OVDOMAIN\\ann", "--client", "ANN-PC",
              "--address", "10.0.0.4", "--printer", "name=HP 4,class=PCL,driver=HP,id=2",
              "--printer", "name=Laser,class=PCL,driver=HP,id=3"}}) {
        const CtlResult r = Ctl(args);
        ASSERT_EQ(r.exit, 0) << r.out;
    }
    ovtest::Process service = channeltest::StartService();
    EXPECT_FALSE(ovtest::ReadPrinter(u"ANN-PC:3#Laser"));

    // The session is found by its client's address; -p picks printer 3.
    CtlResult r = Ctl({"com", "call", "OvaspoolLib.Ovaspool", "OVASAddPrinter", "@name", "10.0.0.4",
                       "3", "17", "-1"});
    EXPECT_EQ(r.exit, 0) << r.out;
    EXPECT_NE(r.out.find("name = \"ANN-PC:3#Laser\"\nresult = 0\nhresult = S_OK"),
              std::string::npos)
        << r.out;
    EXPECT_TRUE(ovtest::ReadPrinter(u"ANN-PC:3#Laser"));
    EXPECT_FALSE(ovtest::ReadPrinter(u"ANN-PC:2#HP 4"));

    // The program fails (no printer 9 on the client): -2, the variable untouched.
    r = Ctl({"com", "call", "OvaspoolLib.Ovaspool", "OVASAddPrinter", "@name", "", "9", "0", "4"});
    EXPECT_NE(r.out.find("name = (empty)\nresult = -2\nhresult = S_OK"), std::string::npos)
        << r.out;

    // Deleting: 1 while printers went, then 0.
    for (const char* expected : {"result = 1\n", "result = 0\n"}) {
        r = Ctl({"com", "call", "OvaspoolLib.Ovaspool", "OVASDelPrinter", "4", "false"});
        EXPECT_NE(r.out.find(expected), std::string::npos) << r.out;
    }
    EXPECT_FALSE(ovtest::ReadPrinter(u"ANN-PC:3#Laser"));
    service.Terminate();
    EXPECT_EQ(service.Wait(10s), 0);
}

}  // namespace
