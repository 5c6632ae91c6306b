// The terminal-services layer: whether terminal services are enabled, the
// run-time binding with its single-session simulation, and the session list.
#include "session/wts_layer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "config/product_key.h"
#include "ovtest.h"
#include "platform/machine.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "platform/wts.h"
#include "trace/trace.h"

namespace {

using namespace ovsvc;
using namespace platform;
using ovtest::U16;
using ovtest::U8;

constexpr char16_t kTsKey[] = u"SYSTEM\\CurrentControlSet\\Control\\Terminal Server";
constexpr char16_t kOptionsKey[] = u"System\\CurrentControlSet\\Control\\ProductOptions";

void SetDword(std::u16string_view key, std::u16string_view name, DWORD value) {
    UniqueKey k;
    ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, key, 0, KEY_ALL_ACCESS, &k, nullptr),
              ERROR_SUCCESS);
    ASSERT_EQ(RegSetValueExW(k.get(), name, REG_DWORD, &value, sizeof value), ERROR_SUCCESS);
}

void SetSuites(const std::u16string& zeroSeparated, DWORD type = REG_MULTI_SZ) {
    UniqueKey k;
    ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, kOptionsKey, 0, KEY_ALL_ACCESS, &k, nullptr),
              ERROR_SUCCESS);
    ASSERT_EQ(RegSetValueExW(k.get(), u"ProductSuite", type, zeroSeparated.data(),
                             static_cast<DWORD>(zeroSeparated.size() * 2)),
              ERROR_SUCCESS);
}

DWORD DwordOf(const std::vector<std::byte>& b) {
    DWORD v = 0;
    std::memcpy(&v, b.data(), sizeof v);
    return v;
}

std::u16string TextOf(const std::vector<std::byte>& b) {
    std::u16string t(b.size() / 2, u'\0');
    std::memcpy(t.data(), b.data(), t.size() * 2);
    return t;
}

class TerminalServicesTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        tracePath_ = root() + "/trace.log";
        SetDword(kProductKey, u"DebugLevel", 0xFF);
        UniqueKey k;
        ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, kProductKey, 0, KEY_ALL_ACCESS, &k),
                  ERROR_SUCCESS);
        const std::u16string file = U16(tracePath_);
        ASSERT_EQ(RegSetValueExW(k.get(), u"DebugFile", REG_SZ, file.c_str(),
                                 static_cast<DWORD>((file.size() + 1) * 2)),
                  ERROR_SUCCESS);
        ResetTraceStateForTesting();
        ResetSessionListForTesting();
        WTSLayer().ExitInstance();
        // The machine's terminal server exists from the first look at it.
        std::vector<WTS_SESSION_INFOW> sessions;
        ASSERT_TRUE(WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &sessions));
    }
    void TearDown() override {
        WTSLayer().ExitInstance();
        ResetSessionListForTesting();
        MachineTest::TearDown();
        ResetTraceStateForTesting();
    }

    std::string Trace() const {
        std::ifstream in(tracePath_);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    bool Traced(const std::string& text) const { return Trace().find(text) != std::string::npos; }
    void ClearTrace() const { std::ofstream(tracePath_, std::ios::trunc); }

    // Terminal services off as far as the machine's own settings go.
    void DenyTerminalServices() {
        SetDword(kTsKey, u"TSAppCompat", 0);
        SetDword(kTsKey, u"fDenyTSConnections", 1);
    }

    std::string tracePath_;
};

// ---- IsTerminalServicesEnabled ---------------------------------------------------

TEST_F(TerminalServicesTest, AFreshApplicationServerIsEnabled) {
    EXPECT_TRUE(IsTerminalServicesEnabled());
    EXPECT_TRUE(Traced("IsTerminalServicesEnabled return 1"));
}

TEST_F(TerminalServicesTest, SettingsDecideWithTheSystemsSuites) {
    OSVERSIONINFOEXW system;
    ASSERT_TRUE(GetVersionExW(&system));
    const bool terminal = (system.wSuiteMask & VER_SUITE_TERMINAL) != 0;
    const bool singleUser = (system.wSuiteMask & VER_SUITE_SINGLEUSERTS) != 0;
    for (DWORD appCompat : {0u, 1u, 7u}) {
        for (DWORD deny : {0u, 1u}) {
            SetDword(kTsKey, u"TSAppCompat", appCompat);
            SetDword(kTsKey, u"fDenyTSConnections", deny);
            const bool expected = (singleUser && deny == 0) || (terminal && appCompat != 0);
            EXPECT_EQ(IsTerminalServicesEnabled(), expected) << appCompat << "/" << deny;
        }
    }
    DenyTerminalServices();
    ClearTrace();
    EXPECT_FALSE(IsTerminalServicesEnabled());
    EXPECT_TRUE(Traced("IsTerminalServicesEnabled return 0"));
}

TEST_F(TerminalServicesTest, ForceListenToWtsWinsWithoutAskingTheSystem) {
    DenyTerminalServices();
    SetDword(kProductKey, u"ForceListenToWTS", 1);
    ClearTrace();
    EXPECT_TRUE(IsTerminalServicesEnabled());
    EXPECT_TRUE(Traced("dwForceWTS == TRUE found, IsTerminalServicesEnabled return TRUE"));
    EXPECT_FALSE(Traced("IsTerminalServicesEnabled return 1"));
    // Even a system outside the NT family is not asked.
    machine::SetSetting("os_version", "3.51.1057");
    EXPECT_TRUE(IsTerminalServicesEnabled());

    SetDword(kProductKey, u"ForceListenToWTS", 0);
    machine::SetSetting("os_version", "6.1.7601");
    ClearTrace();
    EXPECT_FALSE(IsTerminalServicesEnabled());
    EXPECT_FALSE(Traced("dwForceWTS"));
}

TEST_F(TerminalServicesTest, OlderSystemsLookAtTheProductSuiteList) {
    machine::SetSetting("os_version", "4.0.1381");
    DenyTerminalServices();  // not looked at on these systems
    SetSuites(std::u16string(u"Terminal Server\0\0", 17));
    EXPECT_TRUE(IsTerminalServicesEnabled());
    SetSuites(std::u16string(u"Enterprise\0Terminal Server\0\0", 28));
    EXPECT_TRUE(IsTerminalServicesEnabled());
    // The comparison is exact.
    SetSuites(std::u16string(u"terminal server\0\0", 17));
    EXPECT_FALSE(IsTerminalServicesEnabled());
    SetSuites(std::u16string(u"Terminal Server Extra\0\0", 23));
    EXPECT_FALSE(IsTerminalServicesEnabled());
    // Only a list counts.
    SetSuites(std::u16string(u"Terminal Server\0", 16), REG_SZ);
    EXPECT_FALSE(IsTerminalServicesEnabled());
    SetSuites(std::u16string(u"\0", 1));
    EXPECT_FALSE(IsSuiteInProductSuite(u"Terminal Server"));
    ASSERT_EQ(RegDeleteTreeW(HKEY_LOCAL_MACHINE, kOptionsKey), ERROR_SUCCESS);
    EXPECT_FALSE(IsSuiteInProductSuite(u"Terminal Server"));
}

// ---- the run-time binding ------------------------------------------------------

TEST_F(TerminalServicesTest, WithoutTheLibraryASingleLocalSessionAnswers) {
    machine::SetSetting("wtsapi32", "0");
    ovtest::SetEnv("USERDOMAIN", "TESTDOM");
    CWTSAbstractionLayer layer;
    std::vector<std::byte> b;
    DWORD bytes = 0;

    ASSERT_TRUE(layer.QuerySessionInformation(WTS_CURRENT_SERVER_HANDLE, WTS_CURRENT_SESSION,
                                              WTSSessionId, &b, &bytes));
    EXPECT_EQ(bytes, 4u);
    EXPECT_EQ(DwordOf(b), 0xFFFFFFFFu);

    ASSERT_TRUE(layer.QuerySessionInformation(nullptr, 0, WTSClientName, &b, &bytes));
    EXPECT_EQ(bytes, 9u);  // characters, not bytes
    EXPECT_EQ(TextOf(b), std::u16string(u"localhost\0", 10));

    ASSERT_TRUE(layer.QuerySessionInformation(nullptr, 0, WTSDomainName, &b, &bytes));
    EXPECT_EQ(bytes, 7u);
    EXPECT_EQ(TextOf(b), std::u16string(u"TESTDOM\0", 8));

    std::u16string account;
    ASSERT_TRUE(GetUserNameW(&account));
    ASSERT_TRUE(layer.QuerySessionInformation(nullptr, 0, WTSUserName, &b, &bytes));
    EXPECT_EQ(bytes, account.size());
    EXPECT_EQ(TextOf(b), account + u'\0');

    ASSERT_TRUE(layer.QuerySessionInformation(nullptr, 0, WTSClientAddress, &b, &bytes));
    ASSERT_EQ(bytes, 24u);
    ASSERT_EQ(b.size(), 24u);
    WTS_CLIENT_ADDRESS address;
    std::memcpy(&address, b.data(), sizeof address);
    EXPECT_EQ(address.AddressFamily, AF_INET);
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(address.Address[i], i == 2 ? 127 : 0) << i;
    }

    EXPECT_FALSE(layer.QuerySessionInformation(nullptr, 0, WTSWinStationName, &b, &bytes));
    EXPECT_FALSE(layer.QuerySessionInformation(nullptr, 0, WTSConnectState, &b, &bytes));

    // The simulated session is never the console's.
    EXPECT_EQ(layer.GetActiveConsoleSessionId(), 0u);
    std::vector<WTS_SESSION_INFOW> sessions;
    DWORD count = 99;
    EXPECT_EQ(layer.EnumerateSessions(nullptr, 0, 1, &sessions, &count), 0);
    EXPECT_EQ(count, 0u);
    EXPECT_FALSE(layer.IsTerminalServicesLibraryLoaded());
    EXPECT_TRUE(Traced("no Terminal Serices found 'wtsapi32.dll'!"));
    EXPECT_TRUE(Traced("_ERR_/NORM=01h: wts_layer%"));
    EXPECT_TRUE(Traced("_CLIENT_ m_hWTSApi32"));
    ovtest::UnsetEnv("USERDOMAIN");
}

TEST_F(TerminalServicesTest, WithTheLibraryTheSessionTableAnswers) {
    terminal::Session s;
    s.id = 3;
    s.userName = u"alice";
    s.domainName = u"CORP";
    s.clientName = u"PC-7";
    s.clientAddress = u"10.0.0.7";
    ASSERT_EQ(terminal::Logon(s), ERROR_SUCCESS);
    CWTSAbstractionLayer layer;
    std::vector<std::byte> b;
    DWORD bytes = 0;
    ASSERT_TRUE(layer.QuerySessionInformation(nullptr, 3, WTSUserName, &b, &bytes));
    EXPECT_EQ(bytes, 12u);
    EXPECT_EQ(TextOf(b), std::u16string(u"alice\0", 6));
    ASSERT_TRUE(layer.QuerySessionInformation(nullptr, 3, WTSSessionId, &b, &bytes));
    EXPECT_EQ(DwordOf(b), 3u);
    EXPECT_FALSE(layer.QuerySessionInformation(nullptr, 77, WTSSessionId, &b, &bytes));
    EXPECT_EQ(bytes, 0u);
    EXPECT_TRUE(layer.IsTerminalServicesLibraryLoaded());

    std::vector<WTS_SESSION_INFOW> sessions;
    DWORD count = 0;
    ASSERT_EQ(layer.EnumerateSessions(nullptr, 0, 1, &sessions, &count), 1);
    EXPECT_EQ(count, 3u);
    layer.FreeMemory(&b);
    EXPECT_TRUE(b.empty());
    layer.FreeMemory(&sessions);
    EXPECT_TRUE(sessions.empty());
}

TEST_F(TerminalServicesTest, MissingFunctionsAreTracedAndSimulated) {
    machine::SetSetting("wtsapi32_missing", "WTSQuerySessionInformationW,WTSWaitSystemEvent");
    CWTSAbstractionLayer layer;
    layer.InitInstance(true);
    const std::string trace = Trace();
    EXPECT_NE(trace.find("CWTSAbstractionLayer::InitInstance called"), std::string::npos);
    EXPECT_NE(trace.find("_CLIENT_ m_pWTSQuerySessionInformation"), std::string::npos);
    EXPECT_NE(trace.find("_CLIENT_ m_pWTSWaitSystemEvent"), std::string::npos);
    EXPECT_EQ(trace.find("_CLIENT_ m_pWTSEnumerateSessions"), std::string::npos);
    EXPECT_EQ(trace.find("_CLIENT_ m_pWTSFreeMemory"), std::string::npos);
    EXPECT_EQ(trace.find("m_hWTSApi32"), std::string::npos);
    EXPECT_TRUE(layer.IsTerminalServicesLibraryLoaded());
    std::vector<std::byte> b;
    DWORD bytes = 0;
    ASSERT_TRUE(layer.QuerySessionInformation(nullptr, 0, WTSSessionId, &b, &bytes));
    EXPECT_EQ(DwordOf(b), 0xFFFFFFFFu);
}

TEST_F(TerminalServicesTest, InitialisingTwiceKeepsTheLibrary) {
    CWTSAbstractionLayer layer;
    layer.InitInstance(true);
    EXPECT_TRUE(Traced("HANDLE="));
    EXPECT_TRUE(Traced("Get Active-ConsoleSessionId hXPKernel32 = "));
    EXPECT_TRUE(Traced("Funktion Pointer Active-ConsoleSessionId = "));
    EXPECT_FALSE(Traced("Already successful initialized!"));
    layer.InitInstance(true);
    EXPECT_TRUE(Traced("CWTSAbstractionLayer: Already successful initialized!"));
    layer.InitInstance(false);
    ClearTrace();
    EXPECT_EQ(layer.GetActiveConsoleSessionId(), 0u);
    EXPECT_TRUE(Traced("WTSGetActiveConsoleSessionId simulated with 0"));
}

TEST_F(TerminalServicesTest, ConsoleSessionComesFromKernel32FromVersion51On) {
    machine::SetSetting("console_session", "2");
    CWTSAbstractionLayer layer;
    layer.InitInstance(true);
    EXPECT_EQ(layer.GetActiveConsoleSessionId(), 2u);
    EXPECT_TRUE(Traced("WTSGetActiveConsoleSessionId called with 2"));

    machine::SetSetting("os_version", "5.0.2195");
    CWTSAbstractionLayer old;
    old.InitInstance(true);
    ClearTrace();
    EXPECT_EQ(old.GetActiveConsoleSessionId(), 0u);
    EXPECT_TRUE(Traced("WTSGetActiveConsoleSessionId simulated with 0"));
}

TEST_F(TerminalServicesTest, TheLayerFollowsForceListenToWtsOnEveryCall) {
    DenyTerminalServices();
    CWTSAbstractionLayer layer;
    EXPECT_FALSE(layer.IsTerminalServicesLibraryLoaded());
    SetDword(kProductKey, u"ForceListenToWTS", 1);
    EXPECT_TRUE(layer.IsTerminalServicesLibraryLoaded());
    SetDword(kProductKey, u"ForceListenToWTS", 0);
    EXPECT_FALSE(layer.IsTerminalServicesLibraryLoaded());
    // Released: the simulation answers even though the library exists.
    std::vector<std::byte> b;
    DWORD bytes = 0;
    ASSERT_TRUE(layer.QuerySessionInformation(nullptr, 0, WTSSessionId, &b, &bytes));
    EXPECT_EQ(DwordOf(b), 0xFFFFFFFFu);
}

// ---- the session list -----------------------------------------------------------

TEST(SessionStateNames, AreFifteenCharactersExactly) {
    const char* names[] = {"WTSActive      ", "WTSConnected   ", "WTSConnectQuery",
                           "WTSShadow      ", "WTSDisconnected", "WTSIdle        ",
                           "WTSListen      ", "WTSReset       ", "WTSDown        ",
                           "WTSInit        "};
    for (DWORD state = 0; state < 10; ++state) {
        EXPECT_EQ(U8(std::u16string(SessionStateName(state))), names[state]);
        EXPECT_EQ(SessionStateName(state).size(), 15u);
    }
    EXPECT_EQ(U8(std::u16string(SessionStateName(10))), "undefined");
    EXPECT_EQ(U8(std::u16string(SessionStateName(12))), "undefined");
    EXPECT_EQ(U8(std::u16string(SessionStateName(0xFFFFFFFF))), "undefined");
}

TEST_F(TerminalServicesTest, OnlyActiveAndDisconnectedSessionsAreListed) {
    terminal::Session s;
    s.id = 3;
    s.userName = u"alice";
    ASSERT_EQ(terminal::Logon(s), ERROR_SUCCESS);
    s.id = 4;
    s.userName = u"bob";
    ASSERT_EQ(terminal::Logon(s), ERROR_SUCCESS);
    ASSERT_EQ(terminal::Disconnect(4), ERROR_SUCCESS);
    const DWORD others[] = {WTSConnected, WTSConnectQuery, WTSShadow, WTSIdle, WTSListen,
                            WTSReset,     WTSDown,         WTSInit,   12};
    for (DWORD i = 0; i < std::size(others); ++i) {
        ASSERT_EQ(terminal::SetState(20 + i, static_cast<WTS_CONNECTSTATE_CLASS>(others[i])),
                  ERROR_SUCCESS);
    }
    ASSERT_TRUE(RefreshSessionList());
    EXPECT_TRUE(IsSessionInList(3));
    EXPECT_TRUE(IsSessionInList(4));
    EXPECT_FALSE(IsSessionInList(0));  // the console, connected without a user
    EXPECT_FALSE(IsSessionInList(kListenerSessionId));
    for (DWORD i = 0; i < std::size(others); ++i) {
        EXPECT_FALSE(IsSessionInList(20 + i)) << others[i];
    }
    const std::string trace = Trace();
    EXPECT_NE(trace.find("WTS-EnumerateSessions: 13 Sessions found"), std::string::npos);
    EXPECT_NE(trace.find("Adding SessionId=3, Name=RDP-Tcp#3, State=WTSActive      \r\n"),
              std::string::npos);
    EXPECT_NE(trace.find("Adding SessionId=4, Name=RDP-Tcp#4, State=WTSDisconnected\r\n"),
              std::string::npos);
    EXPECT_NE(trace.find("Adding SessionId=20, Name=RDP-Tcp#20, State=WTSConnected   \r\n"),
              std::string::npos);
    EXPECT_NE(trace.find("Adding SessionId=24, Name=RDP-Tcp#24, State=WTSListen      \r\n"),
              std::string::npos);
    EXPECT_NE(trace.find("Adding SessionId=28, Name=RDP-Tcp#28, State=undefined\r\n"),
              std::string::npos);
    EXPECT_NE(trace.find("Adding SessionId=65536, Name=RDP-Tcp, State=WTSListen      \r\n"),
              std::string::npos);
}

TEST_F(TerminalServicesTest, EachRefreshStartsFromScratch) {
    terminal::Session s;
    s.id = 5;
    s.userName = u"carol";
    ASSERT_EQ(terminal::Logon(s), ERROR_SUCCESS);
    ASSERT_TRUE(RefreshSessionList());
    EXPECT_TRUE(IsSessionInList(5));
    ASSERT_EQ(terminal::Logoff(5), ERROR_SUCCESS);
    EXPECT_TRUE(IsSessionInList(5));  // until the next refresh
    ASSERT_TRUE(RefreshSessionList());
    EXPECT_FALSE(IsSessionInList(5));
}

TEST_F(TerminalServicesTest, NoListBeforeTheFirstRefresh) {
    EXPECT_FALSE(IsSessionInList(0));
    EXPECT_TRUE(Traced("_ERR_/NORM=01h: session_list%"));
    EXPECT_TRUE(Traced("_CLIENT_ m_lstSessionId != NULL"));
}

TEST_F(TerminalServicesTest, AFailedEnumerationLeavesNoList) {
    terminal::Session s;
    s.id = 6;
    s.userName = u"dave";
    ASSERT_EQ(terminal::Logon(s), ERROR_SUCCESS);
    ASSERT_TRUE(RefreshSessionList());
    machine::SetSetting("wtsapi32", "0");
    WTSLayer().ExitInstance();
    ClearTrace();
    EXPECT_FALSE(RefreshSessionList());
    EXPECT_TRUE(Traced("WTS-EnumerateSessions: 0 Sessions found"));
    EXPECT_TRUE(Traced("_CLIENT_ fRtn"));
    EXPECT_FALSE(IsSessionInList(6));
    EXPECT_TRUE(Traced("m_lstSessionId != NULL"));
}

}  // namespace
