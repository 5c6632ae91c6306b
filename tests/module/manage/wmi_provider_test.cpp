// The management classes called as the management service calls them: the
// configuration's defaults and type rules, what writing stores (and what a
// refused write leaves alone), the list classes' validation, the methods'
// argument checks, and the service waits against services that start slowly
// or hang.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "manage/ovaswmi.h"
#include "manage/ovaswmi_tcreatelist.h"
#include "manage/ovaswmi_tlist.h"
#include "ovtest.h"
#include "platform/machine.h"
#include "platform/registry.h"
#include "platform/scm.h"
#include "platform/security.h"
#include "platform/wmi.h"
#include "product_settings.h"
#include "trace/trace.h"

namespace {

using namespace platform;
using ovsvc::COVASWMI;
using ovsvc::COVASWMITCreateList;
using ovsvc::COVASWMITList;
using Lines = std::vector<std::u16string>;

class WmiProviderTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        OVTEST_EMBEDDED_ONLY(
            "changes the process's account and the machine's product key (Wine cannot host "
            "third-party WMI providers)");
        ovtest::ResetProductKey();
        UniqueKey key;
        ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, ovtest::kProductKeyPath, 0, KEY_ALL_ACCESS,
                                  &key, nullptr),
                  ERROR_SUCCESS);
    }
    void TearDown() override {
        admin::SetProcessAccount(u"");
        MachineTest::TearDown();
    }
    static std::u16string ProductKeyText() {
        std::u16string text;
        EXPECT_EQ(RegExportText(HKEY_LOCAL_MACHINE, ovtest::kProductKeyPath, &text), ERROR_SUCCESS);
        return text;
    }
    static std::unique_ptr<CInstance> Read(Provider& provider) {
        auto instance = std::make_unique<CInstance>(provider.ClassName());
        EXPECT_EQ(provider.GetObject(instance.get(), 0), WBEM_S_NO_ERROR);
        return instance;
    }
    static Lines Strings(const CInstance& instance, const char16_t* name) {
        Lines lines;
        const VARIANT* v = instance.Find(name);
        EXPECT_TRUE(v != nullptr && ReadStringArray(v->parray, &lines)) << ovtest::U8(name);
        return lines;
    }
    static void SetList(const char16_t* name, const Lines& lines) {
        std::u16string data;
        for (const auto& l : lines) {
            data += l + u'\0';
        }
        ovtest::SetProductString(name, data + u'\0', REG_MULTI_SZ);
    }
    COVASWMI ovaspool_;
    COVASWMITList tlist_;
    COVASWMITCreateList createList_;
};

TEST_F(WmiProviderTest, ConfigurationShowsStoredValuesOnlyOfTheRightTypeAndSize) {
    // With nothing stored every property shows its default.
    std::unique_ptr<CInstance> empty = Read(ovaspool_);
    std::u16string text;
    std::uint32_t number = 0;
    bool flag = false;
    for (const auto& [name, expected] : std::vector<std::pair<const char16_t*, const char16_t*>>{
             {u"ConnectToClient", u"AUTO"},
             {u"Protocol", u"TCPIP"},
             {u"ListenToWTSCreateCmd", u"Ovaspool -q"},
             {u"ListenToWTSDeleteCmd", u"Ovaspool -q -d"}}) {
        ASSERT_TRUE(empty->GetCHString(name, &text)) << ovtest::U8(name);
        EXPECT_EQ(text, expected) << ovtest::U8(name);
    }
    for (const auto& [name, expected] :
         std::vector<std::pair<const char16_t*, std::uint32_t>>{{u"RightsWin2000", 3},
                                                                {u"RightsWinNT", 0},
                                                                {u"TimeOutService", 5000},
                                                                {u"TimeOutClient", 120000},
                                                                {u"ListenToWTSTries", 20},
                                                                {u"ListenToWTSTryDelay", 2000},
                                                                {u"PrinterProperties", 1},
                                                                {u"PrinterPropertyFlags", 65535},
                                                                {u"Version", 0x08000000}}) {
        ASSERT_TRUE(empty->GetDWORD(name, &number)) << ovtest::U8(name);
        EXPECT_EQ(number, expected) << ovtest::U8(name);
    }
    for (const char16_t* name : {u"ListenToWTS", u"ListenToWTSOnDisconnect"}) {
        ASSERT_TRUE(empty->Getbool(name, &flag));
        EXPECT_TRUE(flag);
    }

    // Stored values of another type, too long or badly terminated show the
    // default; well-formed ones of any text type show as stored.
    struct Stored {
        const char16_t* value;
        DWORD type;
        std::u16string data;  // DWORDs as two units
        const char16_t* property;
        const char16_t* shown;  // for numbers: decimal
    };
    const std::u16string longText(128, u'x');
    const std::u16string fitting(127, u'y');
    const Stored cases[] = {
        {u"Protocol", REG_DWORD, std::u16string(u"\x0005\x0000", 2), u"Protocol", u"TCPIP"},
        {u"TimeOutClient", REG_SZ, std::u16string(u"30000\0", 6), u"TimeOutClient", u"120000"},
        {u"ConnectToClient", REG_SZ, longText + u'\0', u"ConnectToClient", u"AUTO"},
        {u"ConnectToClient", REG_SZ, fitting + u'\0', u"ConnectToClient", fitting.c_str()},
        {u"ConnectToClient", REG_SZ, u"RDP", u"ConnectToClient", u"AUTO"},  // no terminator
        {u"ConnectToClient", REG_MULTI_SZ, std::u16string(u"VC\0\0", 4), u"ConnectToClient", u"VC"},
        {u"ConnectToClient", REG_MULTI_SZ, std::u16string(u"VC\0", 3), u"ConnectToClient", u"AUTO"},
        {u"ListenToWTSDeleteCmd", REG_EXPAND_SZ, std::u16string(u"del %d\0", 7),
         u"ListenToWTSDeleteCmd", u"del %d"},
        {u"ListenToWTSTries", REG_DWORD, std::u16string(u"\x0007\x0000", 2), u"ListenToWTSTries",
         u"20"},  // stored under the property's name: not read
        {u"ListenToWTSTrys", REG_DWORD, std::u16string(u"\x0007\x0000", 2), u"ListenToWTSTries",
         u"7"},
        {u"ListenToWTS", REG_BINARY, std::u16string(u"\0\0", 2), u"ListenToWTS", u"true"},
        {u"ListenToWTS", REG_DWORD, std::u16string(u"\0\0", 2), u"ListenToWTS", u"false"},
    };
    for (const Stored& c : cases) {
        ovtest::ResetProductKey();
        ovtest::SetProductValue(c.value, c.type, c.data.data(),
                                static_cast<DWORD>(c.data.size() * 2));
        std::unique_ptr<CInstance> shown = Read(ovaspool_);
        std::u16string got;
        if (shown->GetCHString(c.property, &got)) {
        } else if (shown->GetDWORD(c.property, &number)) {
            got = ovtest::U16(std::to_string(number));
        } else if (shown->Getbool(c.property, &flag)) {
            got = flag ? u"true" : u"false";
        }
        EXPECT_EQ(got, c.shown) << ovtest::U8(c.value) << " type " << c.type;
    }
}

TEST_F(WmiProviderTest, WritingChecksTheProtocolFirstAndStoresUnderTheRegistryNames) {
    const std::u16string before = ProductKeyText();
    CInstance refused(u"Ovaspool");
    refused.SetCHString(u"Protocol", u"tcpip");
    refused.SetDWORD(u"TimeOutClient", 1);
    EXPECT_EQ(ovaspool_.PutInstance(refused, 0), WBEM_E_INVALID_PARAMETER);
    EXPECT_EQ(ProductKeyText(), before);

    CInstance written(u"Ovaspool");
    written.SetCHString(u"Protocol", u"ICA");
    written.SetDWORD(u"ListenToWTSTries", 5);
    written.SetCHString(u"ListenToWTSCreateCmd", u"Ovaspool -q -x");
    written.Setbool(u"ListenToWTS", false);
    EXPECT_EQ(ovaspool_.PutInstance(written, 0), WBEM_S_NO_ERROR);
    const std::string stored = ovtest::U8(ProductKeyText());
    EXPECT_NE(stored.find("\"ListenToWTSTrys\"=dword:00000005"), std::string::npos) << stored;
    EXPECT_NE(stored.find("\"ListenToWTSCreatCmd\"=\"Ovaspool -q -x\""), std::string::npos);
    EXPECT_NE(stored.find("\"ListenToWTS\"=dword:00000000"), std::string::npos);
    EXPECT_EQ(stored.find("ListenToWTSTries"), std::string::npos);
    // What was not supplied stays as it was (here: not stored at all).
    EXPECT_EQ(stored.find("TimeOutClient"), std::string::npos);
    std::uint32_t tries = 0;
    EXPECT_TRUE(Read(ovaspool_)->GetDWORD(u"ListenToWTSTries", &tries));
    EXPECT_EQ(tries, 5u);
}

TEST_F(WmiProviderTest, NonAdministratorsWriteNothingAndCallNoMethod) {
    admin::Account clerk;
    ASSERT_TRUE(admin::AddAccount(u"OVTEST\\clerk", SidTypeUser, {}, &clerk)) << GetLastError();
    admin::SetProcessAccount(u"OVTEST\\clerk");
    const std::u16string before = ProductKeyText();
    CInstance config(u"Ovaspool");
    config.SetCHString(u"Protocol", u"RDP");
    CInstance tlist(u"OVASTranslationList");
    tlist.SetStringArray(u"TranslationList", {u"a", u"b"});
    CInstance createList(u"OVASPrinterCreateList");
    createList.SetStringArray(u"PrinterCreateList", {u"IP"});
    EXPECT_EQ(ovaspool_.PutInstance(config, 0), E_ACCESSDENIED);
    EXPECT_EQ(tlist_.PutInstance(tlist, 0), E_ACCESSDENIED);
    EXPECT_EQ(createList_.PutInstance(createList, 0), E_ACCESSDENIED);
    for (const char16_t* method : {u"Repair", u"RestartOVAS", u"DelPrinter", u"AddPrinterEx"}) {
        CInstance in(u"__PARAMETERS");
        CInstance out(u"__PARAMETERS");
        EXPECT_EQ(ovaspool_.ExecMethod(CInstance(u"Ovaspool"), method, &in, &out, 0),
                  E_ACCESSDENIED)
            << ovtest::U8(method);
        EXPECT_TRUE(out.IsNull(u"ReturnValue"));
    }
    EXPECT_EQ(ProductKeyText(), before);
    // Reading needs no rights.
    EXPECT_EQ(ovaspool_.GetObject(&config, 0), WBEM_S_NO_ERROR);
}

TEST_F(WmiProviderTest, MethodsNeedTheirExactNameTheirObjectsAndTheirArguments) {
    struct Call {
        const char16_t* method;
        bool in;
        bool out;
        HRESULT expected;
    };
    for (const Call& c : {Call{u"repair", true, true, WBEM_E_PROVIDER_NOT_CAPABLE},
                          Call{u"Reboot", true, true, WBEM_E_PROVIDER_NOT_CAPABLE},
                          Call{u"Repair", false, true, WBEM_E_PROVIDER_NOT_CAPABLE},
                          Call{u"DelPrinter", true, false, WBEM_E_PROVIDER_NOT_CAPABLE},
                          Call{u"AddPrinter", false, false, WBEM_E_PROVIDER_NOT_CAPABLE},
                          // Present objects, absent arguments.
                          Call{u"DelPrinter", true, true, WBEM_E_INVALID_METHOD_PARAMETERS},
                          Call{u"AddPrinterEx", true, true, WBEM_E_INVALID_METHOD_PARAMETERS}}) {
        CInstance in(u"__PARAMETERS");
        in.SetSint32(u"nSessionID", 3);  // fAll missing for DelPrinter
        CInstance out(u"__PARAMETERS");
        EXPECT_EQ(ovaspool_.ExecMethod(CInstance(u"Ovaspool"), c.method, c.in ? &in : nullptr,
                                       c.out ? &out : nullptr, 0),
                  c.expected)
            << ovtest::U8(c.method);
    }
    // A properties array of two dimensions is still taken (its first row),
    // with the failed expectation in the trace; the call then reaches the
    // channel, which has no service here.
    const std::string trace = ovtest::EnableTrace(root());
    ovsvc::ResetTraceStateForTesting();
    CInstance in(u"__PARAMETERS");
    for (const char16_t* text :
         {u"strPrinterName", u"strPrinterClass", u"strClientIP", u"strClientDriverName",
          u"strClientName", u"strUserName", u"strComputerName"}) {
        in.SetCHString(text, u"x");
    }
    for (const char16_t* number :
         {u"nClientType", u"nPrinterId", u"nSessionID", u"nPrinterPropertiesOptions", u"nFlags"}) {
        in.SetDWORD(number, 1);
    }
    const SAFEARRAYBOUND bounds[2] = {{2, 0}, {2, 0}};
    UniqueSafeArray square(SafeArrayCreate(VT_BSTR, 2, bounds));
    VARIANT trays;
    trays.vt = VT_ARRAY | VT_BSTR;
    trays.parray = square.get();
    in.SetVariant(u"strTrays", trays);
    CInstance out(u"__PARAMETERS");
    EXPECT_EQ(ovaspool_.ExecMethod(CInstance(u"Ovaspool"), u"AddPrinterEx", &in, &out, 0),
              WBEM_S_NO_ERROR);
    std::uint32_t result = 0;
    EXPECT_TRUE(out.GetDWORD(u"ReturnValue", &result));
    EXPECT_EQ(static_cast<std::int32_t>(result), -16);  // no service runs
    std::u16string created = u"?";
    EXPECT_TRUE(out.GetCHString(u"strCreatedPrinterName", &created));
    EXPECT_EQ(created, u"");
    EXPECT_NE(ovtest::ReadText(trace).find("SafeArrayGetDim(psaPrinterProperties) == 1"),
              std::string::npos);
    ovtest::ResetProductKey();
    ovsvc::ResetTraceStateForTesting();
}

TEST_F(WmiProviderTest, TranslationListWritesOneFormAndRefusesFaultyLists) {
    const Lines header{u",,,,,,,,,,"};
    const Lines rule{u"*,*,*,*,*,true,true,true,true,PrnA,"};
    SetList(u"NameTranslationEx", {header[0], rule[0]});
    SetList(u"NameTranslation", {u"*", u"Old"});
    std::unique_ptr<CInstance> both = Read(tlist_);
    EXPECT_EQ(Strings(*both, u"TranslationListEx"), (Lines{header[0], rule[0]}));
    EXPECT_EQ(Strings(*both, u"TranslationList"), Lines{});

    struct Put {
        const char* what;
        Lines ex;  // empty: not supplied
        Lines older;
        HRESULT expected;
    };
    const Put refused[] = {
        {"extended form with an empty template",
         {header[0], u"*,*,*,*,*,true,true,true,true,,", rule[0]},
         {},
         WBEM_E_FAILED},
        {"older form with a blank name", {}, {u"a", u"A", u" \t ", u"B"}, WBEM_E_FAILED},
    };
    for (const Put& p : refused) {
        const std::u16string before = ProductKeyText();
        CInstance in(u"OVASTranslationList");
        in.SetStringArray(u"TranslationList", p.older);
        if (!p.ex.empty()) {
            in.SetStringArray(u"TranslationListEx", p.ex);
        }
        EXPECT_EQ(tlist_.PutInstance(in, 0), p.expected) << p.what;
        EXPECT_EQ(ProductKeyText(), before) << p.what;
    }
    CInstance noList(u"OVASTranslationList");
    EXPECT_EQ(tlist_.PutInstance(noList, 0), WBEM_E_FAILED);

    // Two extended lines are too few: the older form is written (trimmed,
    // the odd last element left out) and the extended one deleted.
    CInstance older(u"OVASTranslationList");
    older.SetStringArray(u"TranslationListEx", {header[0], rule[0]});
    older.SetStringArray(u"TranslationList", {u" lp* ", u"\tTmplA", u"lq*", u"TmplB", u"odd"});
    EXPECT_EQ(tlist_.PutInstance(older, 0), WBEM_S_NO_ERROR);
    std::unique_ptr<CInstance> shown = Read(tlist_);
    EXPECT_EQ(Strings(*shown, u"TranslationList"), (Lines{u"lp*", u"TmplA", u"lq*", u"TmplB"}));
    EXPECT_EQ(Strings(*shown, u"TranslationListEx"), Lines{});
}

TEST_F(WmiProviderTest, ListsOfTenThousandLinesAndAHeaderAloneRoundTrip) {
    CInstance headerOnly(u"OVASPrinterCreateList");
    headerOnly.SetStringArray(u"PrinterCreateList", {u"IP,NAME,DEST,USER"});
    EXPECT_EQ(createList_.PutInstance(headerOnly, 0), WBEM_S_NO_ERROR);
    EXPECT_EQ(Strings(*Read(createList_), u"PrinterCreateList"), Lines{u"IP,NAME,DEST,USER"});

    Lines many;
    for (int i = 0; i < 5000; ++i) {
        many.push_back(u"printer" + ovtest::U16(std::to_string(i)) + u"*");
        many.push_back(u"Template" + ovtest::U16(std::to_string(i)));
    }
    CInstance big(u"OVASTranslationList");
    big.SetStringArray(u"TranslationList", many);
    EXPECT_EQ(tlist_.PutInstance(big, 0), WBEM_S_NO_ERROR);
    EXPECT_EQ(Strings(*Read(tlist_), u"TranslationList"), many);

    // Arrays of two dimensions are refused.
    const SAFEARRAYBOUND bounds[2] = {{2, 0}, {2, 0}};
    UniqueSafeArray square(SafeArrayCreate(VT_BSTR, 2, bounds));
    VARIANT v;
    v.vt = VT_ARRAY | VT_BSTR;
    v.parray = square.get();
    CInstance flat(u"OVASTranslationList");
    flat.SetVariant(u"TranslationList", v);
    EXPECT_EQ(tlist_.PutInstance(flat, 0), WBEM_E_FAILED);
}

// ---- waiting for a service state ------------------------------------------------------------

std::atomic<bool> g_stop{false};

// A service that advances its check point every 300 ms for 1.5 s before it
// runs ("slow"), or that never advances it ("hang").
OVTEST_CHILD(wmi_wait_service) {
    const bool hang = !args.empty() && args[0] == "hang";
    const SERVICE_STATUS_HANDLE handle =
        RegisterServiceCtrlHandlerW(u"OvaspoolSvc", [](DWORD) { g_stop = true; });
    if (handle == nullptr) {
        return 2;
    }
    SERVICE_STATUS status;
    status.dwCurrentState = SERVICE_START_PENDING;
    status.dwWaitHint = 1000;
    for (DWORD step = 1; step <= 5 || hang; ++step) {
        status.dwCheckPoint = hang ? 1 : step;
        SetServiceStatus(handle, &status);
        Sleep(300);
        if (g_stop) {
            break;
        }
    }
    status.dwCurrentState = SERVICE_RUNNING;
    status.dwCheckPoint = 0;
    SetServiceStatus(handle, &status);
    while (!g_stop) {
        Sleep(50);
    }
    status.dwCurrentState = SERVICE_STOPPED;
    SetServiceStatus(handle, &status);
    return 0;
}

TEST_F(WmiProviderTest, WaitingSeesASlowStartThroughAndGivesUpOnAHungOne) {
    machine::SetSetting("service_program", ovtest::SelfPath());
    const UniqueServiceHandle manager(OpenSCManagerW(u"", u"", SC_MANAGER_ALL_ACCESS));
    const UniqueServiceHandle service(
        OpenServiceW(manager.get(), u"OvaspoolSvc", SERVICE_ALL_ACCESS));
    ASSERT_TRUE(service);
    struct Case {
        const char* mode;
        DWORD timeout;
        int reached;
        bool timedOut;  // not reached because the time ran out (else: stuck)
    };
    for (const Case& c : {Case{"slow", 30000, 1, false}, Case{"hang", 30000, 0, false},
                          Case{"slow", 600, 0, true}}) {
        ASSERT_TRUE(
            StartServiceW(service.get(), {u"--child=wmi_wait_service", ovtest::U16(c.mode)}))
            << GetLastError();
        // The wait takes its deadline from the first status it reads: the
        // service's own report, not the manager's guess before it.
        SERVICE_STATUS status;
        for (int i = 0; i < 500 && status.dwWaitHint != 1000; ++i) {
            Sleep(10);
            QueryServiceStatus(service.get(), &status);
        }
        ASSERT_EQ(status.dwWaitHint, 1000u);
        SetLastError(ovtest::kPoison);
        EXPECT_EQ(COVASWMI::WaitForServiceToReachState(service.get(), SERVICE_RUNNING, &status,
                                                       c.timeout),
                  c.reached)
            << c.mode << " " << c.timeout;
        if (!c.reached) {
            EXPECT_EQ(GetLastError() == ERROR_TIMEOUT, c.timedOut) << c.mode;
        }
        EXPECT_EQ(status.dwCurrentState, c.reached ? SERVICE_RUNNING : SERVICE_START_PENDING);
        SERVICE_STATUS stopped;
        ControlService(service.get(), SERVICE_CONTROL_STOP, &stopped);
        ASSERT_TRUE(
            COVASWMI::WaitForServiceToReachState(service.get(), SERVICE_STOPPED, &stopped, 10000));
    }
}

}  // namespace
