// The management classes end to end: ovasctl finds the provider through
// its registration and the module, and its calls reach the running service
// through the request channel, as an administrator's tool would.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "autocreated_printers.h"
#include "channel_support.h"
#include "ovsvc.h"
#include "ovtest.h"
#include "platform/com.h"

namespace {

using namespace std::chrono_literals;
using channeltest::Ctl;
using channeltest::CtlResult;

// The module hands out the provider's class factory on every backend, also
// where no management service would load it, and the factory makes
// providers.
TEST(WmiProviderFactory, AnswersForTheProviderAndMakesProviders) {
    platform::CLSID provider;
    ASSERT_TRUE(platform::GuidFromString(u"{6F3B1C2E-94A7-4D5B-8E21-0C7A5D93B4F6}", &provider));
    void* object = nullptr;
    ASSERT_EQ(DllGetClassObject(&provider, &platform::IID_IClassFactory, &object), platform::S_OK);
    ASSERT_NE(object, nullptr);
    auto* factory = static_cast<platform::IClassFactory*>(object);
    void* instance = nullptr;
    EXPECT_EQ(factory->CreateInstance(nullptr, platform::IID_IUnknown, &instance), platform::S_OK);
    ASSERT_NE(instance, nullptr);
    static_cast<platform::IUnknown*>(instance)->Release();
    factory->Release();
}

class WmiSystemTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        OVTEST_EMBEDDED_ONLY(
            "needs the embedded management service and account table (Wine cannot host "
            "third-party WMI providers; the provider's class factory is tested on both)");
        channeltest::ResetProductKey();
        channeltest::SetProductDword(u"RightsWin2000", 1);
        ASSERT_TRUE(ovtest::EnsureUsers({u"OVDOMAIN\\ann", u"OVDOMAIN\\bob"}));
        const CtlResult r = Ctl({"wmi", "register"});
        ASSERT_EQ(r.exit, 0) << r.out;
    }
    static bool Has(const CtlResult& r, const std::string& text) {
        return r.out.find(text) != std::string::npos;
    }
    std::string ServicePid() const {
        std::ifstream in(root() + "/services/OvaspoolSvc.pid");
        std::string pid;
        in >> pid;
        return pid;
    }
};

TEST_F(WmiSystemTest, AddPrinterExCreatesWhatOVASPrintersListsAndDelPrinterRemoves) {
    const std::string failed =
        channeltest::SetUpRelayTemplate({"*,*,*,*,PCL,true,true,true,true,Relay,"});
    ASSERT_TRUE(failed.empty()) << failed;
    ovtest::Process service = channeltest::StartService();

    CtlResult r = Ctl({"wmi",
                       "--json",
                       "call",
                       "Ovaspool",
                       "AddPrinterEx",
                       "strPrinterName=\\\\PC1\\HP 4",
                       "strPrinterClass=PCL",
                       "strClientIP=10.0.0.4",
                       "nClientType=0",
                       "strClientDriverName=HP",
                       "nPrinterId=3",
                       "nSessionID=5",
                       "strClientName=PC1",
                       "strUserName=OVDOMAIN\\ann",
                       "strComputerName=PC1",
                       "strPapers=[]",
                       "strTrays=[]",
                       "strResolutions=[]",
                       "nPrinterPropertiesOptions=0",
                       "nFlags=0"});
    ASSERT_EQ(r.exit, 0) << r.out;
    EXPECT_TRUE(Has(r, "\"strCreatedPrinterName\":\"PC1:3#HP 4 on PC1\"")) << r.out;
    EXPECT_TRUE(Has(r, "\"ReturnValue\":0")) << r.out;
    EXPECT_TRUE(ovtest::ReadPrinter(u"PC1:3#HP 4 on PC1"));

    r = Ctl({"wmi", "--json", "enum", "OVASPrinters"});
    EXPECT_EQ(r.out,
              "[{\"PrinterName\":\"PC1:3#HP 4 on PC1\",\"ReferenceCount\":1,\"SessionID\":[5],"
              "\"UserName\":[\"OVDOMAIN\\\\ann\"]}]\n");
    // A query compares without regard to case; the provider's own look-up
    // by key does not.
    r = Ctl({"wmi", "query", "SELECT * FROM OVASPrinters WHERE PrinterName = 'pc1:3#hp 4 on pc1'"});
    EXPECT_TRUE(Has(r, "PC1:3#HP 4 on PC1  1")) << r.out;
    r = Ctl({"wmi", "--json", "get", "OVASPrinters", "PrinterName=pc1:3#hp 4 on pc1"});
    EXPECT_EQ(r.out,
              "{\"PrinterName\":\"pc1:3#hp 4 on pc1\",\"ReferenceCount\":null,"
              "\"SessionID\":null,\"UserName\":null}\n");

    // A user who is no administrator is refused before anything is done.
    r = Ctl({"wmi", "--as", "OVDOMAIN\\bob", "call", "Ovaspool", "DelPrinter", "nSessionID=5",
             "fAll=false"});
    EXPECT_NE(r.exit, 0);
    EXPECT_TRUE(Has(r, "E_ACCESSDENIED (0x80070005)")) << r.out;
    EXPECT_TRUE(ovtest::ReadPrinter(u"PC1:3#HP 4 on PC1"));

    r = Ctl({"wmi", "call", "Ovaspool", "DelPrinter", "nSessionID=5", "fAll=false"});
    EXPECT_TRUE(Has(r, "ReturnValue  1")) << r.out;
    EXPECT_FALSE(ovtest::ReadPrinter(u"PC1:3#HP 4 on PC1"));
    r = Ctl({"wmi", "--json", "enum", "OVASPrinters"});
    EXPECT_EQ(r.out, "[]\n");
    service.Terminate();
    EXPECT_EQ(service.Wait(10s), 0);
}

TEST_F(WmiSystemTest, RestartOVASStartsAStoppedServiceAndRestartsARunningOne) {
    CtlResult r = Ctl({"wmi", "call", "Ovaspool", "RestartOVAS"});
    EXPECT_TRUE(Has(r, "ReturnValue  0")) << r.out;
    const std::string first = ServicePid();
    ASSERT_FALSE(first.empty());
    r = Ctl({"wmi", "call", "Ovaspool", "RestartOVAS"});
    EXPECT_TRUE(Has(r, "ReturnValue  0")) << r.out;
    EXPECT_NE(ServicePid(), first);
    r = Ctl({"service", "stop"});
    EXPECT_EQ(r.exit, 0) << r.out;
}

}  // namespace
