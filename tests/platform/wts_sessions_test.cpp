// The terminal server's session table and the session calls over it.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "ovtest.h"
#include "platform/machine.h"
#include "platform/registry.h"
#include "platform/wts.h"
#include "product_settings.h"

namespace {

using namespace platform;
using ovtest::U16;
using ovtest::U8;

using ovtest::kPoison;

terminal::Session Remote(DWORD id, const char* user, const char* address = "10.1.2.3") {
    terminal::Session s;
    s.id = id;
    s.domainName = u"CORP";
    s.userName = U16(user);
    s.clientName = u"PC-" + U16(user);
    s.clientAddress = U16(address);
    return s;
}

std::u16string TextOf(const std::vector<std::byte>& buffer) {
    std::u16string text(buffer.size() / 2, u'\0');
    std::memcpy(text.data(), buffer.data(), text.size() * 2);
    return text;
}

DWORD DwordOf(const std::vector<std::byte>& buffer) {
    DWORD v = 0;
    std::memcpy(&v, buffer.data(), sizeof v);
    return v;
}

std::vector<WTS_SESSION_INFOW> Enumerate() {
    std::vector<WTS_SESSION_INFOW> sessions;
    EXPECT_TRUE(WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &sessions));
    return sessions;
}

DWORD ReadDword(std::u16string_view key, std::u16string_view name) {
    UniqueKey k;
    EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, key, 0, KEY_READ, &k), ERROR_SUCCESS)
        << U8(std::u16string(key));
    DWORD v = kPoison;
    DWORD size = sizeof v;
    DWORD type = 0;
    EXPECT_EQ(RegQueryValueExW(k.get(), name, &type, &v, &size), ERROR_SUCCESS);
    EXPECT_EQ(type, REG_DWORD);
    return v;
}

class WtsSessions : public ovtest::MachineTest {};

TEST_F(WtsSessions, FreshMachineHasConsoleWithoutUserAndListener) {
    OVTEST_EMBEDDED_ONLY("a fresh embedded machine's session table");
    auto sessions = Enumerate();
    ASSERT_EQ(sessions.size(), 2u);
    EXPECT_EQ(sessions[0].SessionId, 0u);
    EXPECT_EQ(U8(sessions[0].pWinStationName), "Console");
    EXPECT_EQ(sessions[0].State, WTSConnected);
    EXPECT_EQ(sessions[1].SessionId, kListenerSessionId);
    EXPECT_EQ(U8(sessions[1].pWinStationName), "RDP-Tcp");
    EXPECT_EQ(sessions[1].State, WTSListen);
    // The console without a user: an empty text and no address.
    std::vector<std::byte> b;
    ASSERT_TRUE(WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, 0, WTSUserName, &b));
    EXPECT_EQ(b.size(), 2u);
    ASSERT_TRUE(WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, 0, WTSClientAddress, &b));
    ASSERT_EQ(b.size(), 24u);
    EXPECT_EQ(DwordOf(b), AF_UNSPEC);
}

TEST_F(WtsSessions, DefaultsMakeAnApplicationServerButKeepWhatAnAdministratorSet) {
    OVTEST_EMBEDDED_ONLY("the embedded terminal server's registry defaults");
    const std::u16string ts = u"SYSTEM\\CurrentControlSet\\Control\\Terminal Server";
    Enumerate();
    EXPECT_EQ(ReadDword(ts, u"TSAppCompat"), 1u);
    EXPECT_EQ(ReadDword(ts, u"fDenyTSConnections"), 0u);
    UniqueKey po;
    ASSERT_EQ(
        RegOpenKeyExW(HKEY_LOCAL_MACHINE, u"System\\CurrentControlSet\\Control\\ProductOptions", 0,
                      KEY_READ, &po),
        ERROR_SUCCESS);
    RegistryValue suite;
    ASSERT_EQ(RegGetValue(po.get(), u"ProductSuite", &suite), ERROR_SUCCESS);
    EXPECT_EQ(suite.type, REG_MULTI_SZ);
    EXPECT_EQ(TextOf(suite.data), std::u16string(u"Terminal Server\0\0", 17));

    // A fresh root whose administrator denied connections keeps that.
    const std::string other = ovtest::MakeTempDir("ovsvc-test-denied-");
    machine::UseRoot(other);
    UniqueKey key;
    ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, ts, 0, KEY_ALL_ACCESS, &key, nullptr),
              ERROR_SUCCESS);
    const DWORD deny = 1;
    ASSERT_EQ(RegSetValueExW(key.get(), u"fDenyTSConnections", REG_DWORD, &deny, 4), ERROR_SUCCESS);
    key.reset();
    Enumerate();
    EXPECT_EQ(ReadDword(ts, u"fDenyTSConnections"), 1u);
    EXPECT_EQ(ReadDword(ts, u"TSAppCompat"), 1u);
    machine::UseRoot(root());
    std::error_code ec;
    std::filesystem::remove_all(other, ec);
}

// The table other parts read, and the session calls' answers in Windows'
// layouts.
TEST_F(WtsSessions, LogonIsWrittenToTheTableAndQueriedInWindowsLayouts) {
    OVTEST_EMBEDDED_ONLY("logging sessions on in the embedded session table");
    ASSERT_EQ(terminal::Logon(Remote(3, "alice", "192.168.17.201")), ERROR_SUCCESS);
    const std::u16string path = u"SOFTWARE\\OVSvc Embedded\\Sessions\\3";
    UniqueKey key;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &key), ERROR_SUCCESS);
    for (const auto& [name, text] : {std::pair{u"UserName", std::u16string(u"alice\0", 6)},
                                     std::pair{u"DomainName", std::u16string(u"CORP\0", 5)}}) {
        RegistryValue value;
        ASSERT_EQ(RegGetValue(key.get(), name, &value), ERROR_SUCCESS);
        EXPECT_EQ(value.type, REG_SZ);
        EXPECT_EQ(TextOf(value.data), text);
    }
    EXPECT_EQ(ReadDword(path, u"State"), 0u);

    std::vector<std::byte> b;
    ASSERT_TRUE(WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, 3, WTSSessionId, &b));
    ASSERT_EQ(b.size(), 4u);
    EXPECT_EQ(DwordOf(b), 3u);
    ASSERT_TRUE(WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, 3, WTSConnectState, &b));
    EXPECT_EQ(DwordOf(b), static_cast<DWORD>(WTSActive));
    // Texts end in one terminator (the user name: five characters and it).
    for (const auto& [infoClass, text] :
         {std::pair{WTSUserName, std::u16string(u"alice\0", 6)},
          std::pair{WTSDomainName, std::u16string(u"CORP\0", 5)},
          std::pair{WTSClientName, std::u16string(u"PC-alice\0", 9)},
          std::pair{WTSWinStationName, std::u16string(u"RDP-Tcp#3\0", 10)}}) {
        ASSERT_TRUE(WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, 3, infoClass, &b));
        EXPECT_EQ(b.size(), text.size() * 2);
        EXPECT_EQ(TextOf(b), text);
    }
    // Family, two port bytes, the address, zeros.
    ASSERT_TRUE(WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, 3, WTSClientAddress, &b));
    ASSERT_EQ(b.size(), 24u);
    EXPECT_EQ(DwordOf(b), AF_INET);
    std::vector<unsigned char> address(24, 0);
    const unsigned char ip[] = {192, 168, 17, 201};
    std::memcpy(address.data() + 6, ip, 4);
    EXPECT_EQ(std::memcmp(b.data() + 4, address.data() + 4, 20), 0);
}

TEST_F(WtsSessions, AnUnknownSessionIsNotFound) {
    OVTEST_SKIP_UNDER_WINE("WTSQuerySessionInformationW answers the user name for any session id");
    std::vector<std::byte> b;
    OVTEST_EXPECT_FAIL(
        WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, 4242, WTSUserName, &b),
        ERROR_CTX_WINSTATION_NOT_FOUND);
}

TEST_F(WtsSessions, BadQueriesFailWithWindowsErrors) {
    std::vector<std::byte> b;
    OVTEST_EXPECT_FAIL(WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, 0, WTSOEMId, &b),
                       ERROR_INVALID_PARAMETER);
    std::vector<WTS_SESSION_INFOW> s;
    OVTEST_EXPECT_FAIL(WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 2, &s),
                       ERROR_INVALID_PARAMETER);
    OVTEST_EXPECT_FAIL(WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 1, 1, &s),
                       ERROR_INVALID_PARAMETER);
    OVTEST_EXPECT_FAIL(WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, nullptr),
                       ERROR_INVALID_PARAMETER);
    OVTEST_EXPECT_FAIL(WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, WTS_CURRENT_SESSION,
                                                   WTSUserName, nullptr),
                       ERROR_INVALID_PARAMETER);
}

// What any machine says about the caller's own session: it is listed, in id
// order, and every class comes back in Windows' layout.
TEST_F(WtsSessions, TheCallersSessionIsListedAndAnswersInWindowsLayouts) {
    OVTEST_SKIP_UNDER_WINE(
        "WTSEnumerateSessionsW lists no sessions and "
        "WTSQuerySessionInformationW answers only user and domain names");
    const DWORD self = GetCurrentSessionId();
    auto sessions = Enumerate();
    ASSERT_FALSE(sessions.empty());
    for (std::size_t i = 1; i < sessions.size(); ++i) {
        EXPECT_LT(sessions[i - 1].SessionId, sessions[i].SessionId);
    }
    const WTS_SESSION_INFOW* mine = nullptr;
    for (const auto& info : sessions) {
        if (info.SessionId == self) {
            mine = &info;
        }
    }
    ASSERT_NE(mine, nullptr) << self;

    std::vector<std::byte> b;
    ASSERT_TRUE(WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, WTS_CURRENT_SESSION,
                                            WTSSessionId, &b));
    ASSERT_EQ(b.size(), 4u);
    EXPECT_EQ(DwordOf(b), self);
    ASSERT_TRUE(WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, self, WTSConnectState, &b));
    ASSERT_EQ(b.size(), 4u);
    EXPECT_EQ(DwordOf(b), static_cast<DWORD>(mine->State));
    ASSERT_TRUE(
        WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, self, WTSWinStationName, &b));
    EXPECT_EQ(TextOf(b), mine->pWinStationName + u'\0');
    for (WTS_INFO_CLASS text : {WTSUserName, WTSDomainName, WTSClientName}) {
        ASSERT_TRUE(WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, self, text, &b)) << text;
        ASSERT_GE(b.size(), 2u) << text;
        EXPECT_EQ(b.size() % 2, 0u) << text;
        EXPECT_EQ(TextOf(b).find(u'\0'), b.size() / 2 - 1) << text;  // one terminator, at the end
    }
    ASSERT_TRUE(WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, self, WTSClientAddress, &b));
    ASSERT_EQ(b.size(), 24u);
    const DWORD family = DwordOf(b);
    EXPECT_TRUE(family == AF_UNSPEC || family == AF_INET) << family;
    ASSERT_TRUE(
        WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, self, WTSClientProtocolType, &b));
    EXPECT_EQ(b.size(), 2u);
}

TEST_F(WtsSessions, ReadingTheTableMatchesTheSessionCalls) {
    OVTEST_SKIP_UNDER_WINE("WTSEnumerateSessionsW lists no sessions");
    std::vector<terminal::Session> table;
    ASSERT_EQ(terminal::ListSessions(&table), ERROR_SUCCESS);
    auto sessions = Enumerate();
    ASSERT_EQ(table.size(), sessions.size());
    for (std::size_t i = 0; i < table.size(); ++i) {
        EXPECT_EQ(table[i].id, sessions[i].SessionId);
        EXPECT_EQ(table[i].winStationName, sessions[i].pWinStationName);
    }
    terminal::Session s;
    EXPECT_EQ(terminal::GetSession(4242, &s), ERROR_CTX_WINSTATION_NOT_FOUND);
    EXPECT_EQ(terminal::GetSession(0, nullptr), ERROR_INVALID_PARAMETER);
}

TEST_F(WtsSessions, WindowsHasNoSessionTableToAdminister) {
    if (!ovtest::IsWin32Platform()) {
        GTEST_SKIP() << "the embedded machine administers its own table (tests above)";
    }
    EXPECT_EQ(terminal::Logon(Remote(3, "alice")), ERROR_NOT_SUPPORTED);
    EXPECT_EQ(terminal::Disconnect(3), ERROR_NOT_SUPPORTED);
    EXPECT_EQ(terminal::Logoff(3), ERROR_NOT_SUPPORTED);
    EXPECT_EQ(terminal::SetState(3, WTSActive), ERROR_NOT_SUPPORTED);
}

TEST_F(WtsSessions, EverySessionStateIsKeptAndEnumerated) {
    OVTEST_EMBEDDED_ONLY("setting states in the embedded session table");
    const DWORD states[] = {WTSActive, WTSConnected, WTSConnectQuery, WTSShadow, WTSDisconnected,
                            WTSIdle,   WTSListen,    WTSReset,        WTSDown,   WTSInit,
                            12};
    for (DWORD i = 0; i < std::size(states); ++i) {
        ASSERT_EQ(terminal::SetState(100 + i, static_cast<WTS_CONNECTSTATE_CLASS>(states[i])),
                  ERROR_SUCCESS);
    }
    auto sessions = Enumerate();
    ASSERT_EQ(sessions.size(), 2u + std::size(states));
    for (DWORD i = 0; i < std::size(states); ++i) {
        EXPECT_EQ(sessions[1 + i].SessionId, 100 + i);
        EXPECT_EQ(static_cast<DWORD>(sessions[1 + i].State), states[i]);
    }
}

TEST_F(WtsSessions, DisconnectReconnectAndLogoff) {
    OVTEST_EMBEDDED_ONLY("logging sessions on in the embedded session table");
    ASSERT_EQ(terminal::Logon(Remote(4, "bob")), ERROR_SUCCESS);
    ASSERT_EQ(terminal::Disconnect(4), ERROR_SUCCESS);
    terminal::Session s;
    ASSERT_EQ(terminal::GetSession(4, &s), ERROR_SUCCESS);
    EXPECT_EQ(s.state, WTSDisconnected);
    EXPECT_EQ(U8(s.userName), "bob");

    // Only the same user can take the session back.
    EXPECT_EQ(terminal::Logon(Remote(4, "eve")), ERROR_ALREADY_EXISTS);
    ASSERT_EQ(terminal::Logon(Remote(4, "bob", "10.9.9.9")), ERROR_SUCCESS);
    ASSERT_EQ(terminal::GetSession(4, &s), ERROR_SUCCESS);
    EXPECT_EQ(s.state, WTSActive);
    EXPECT_EQ(U8(s.clientAddress), "10.9.9.9");

    ASSERT_EQ(terminal::Logoff(4), ERROR_SUCCESS);
    EXPECT_EQ(terminal::GetSession(4, &s), ERROR_CTX_WINSTATION_NOT_FOUND);
    EXPECT_EQ(terminal::Logoff(4), ERROR_CTX_WINSTATION_NOT_FOUND);
    EXPECT_EQ(terminal::Disconnect(4), ERROR_CTX_WINSTATION_NOT_FOUND);
    EXPECT_EQ(Enumerate().size(), 2u);
}

TEST_F(WtsSessions, ConsoleLogoffLeavesTheConsoleConnected) {
    OVTEST_EMBEDDED_ONLY("logging sessions on in the embedded session table");
    terminal::Session admin = Remote(0, "admin");
    admin.clientName.clear();
    admin.clientAddress.clear();
    ASSERT_EQ(terminal::Logon(admin), ERROR_SUCCESS);
    terminal::Session s;
    ASSERT_EQ(terminal::GetSession(0, &s), ERROR_SUCCESS);
    EXPECT_EQ(U8(s.winStationName), "Console");
    EXPECT_EQ(s.state, WTSActive);
    ASSERT_EQ(terminal::Logoff(0), ERROR_SUCCESS);
    ASSERT_EQ(terminal::GetSession(0, &s), ERROR_SUCCESS);
    EXPECT_EQ(s.state, WTSConnected);
    EXPECT_TRUE(s.userName.empty());
    // Nobody is logged on any more.
    EXPECT_EQ(terminal::Logoff(0), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(terminal::Disconnect(0), ERROR_INVALID_PARAMETER);
}

TEST_F(WtsSessions, LogonRejectsBadInput) {
    OVTEST_EMBEDDED_ONLY("logging sessions on in the embedded session table");
    for (const char* bad : {"1.2.3", "1.2.3.4.5", "256.1.1.1", "a.b.c.d", "1..2.3", "-1.2.3.4",
                            "1.2.3.4 ", "01234.1.1.1"}) {
        EXPECT_EQ(terminal::Logon(Remote(5, "carol", bad)), ERROR_INVALID_PARAMETER) << bad;
    }
    EXPECT_EQ(terminal::Logon(Remote(kListenerSessionId, "carol")), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(terminal::Logon(Remote(5, "")), ERROR_INVALID_PARAMETER);
    terminal::Session s;
    EXPECT_EQ(terminal::GetSession(5, &s), ERROR_CTX_WINSTATION_NOT_FOUND);
    EXPECT_EQ(terminal::Logon(Remote(5, "carol", "0.0.0.0")), ERROR_SUCCESS);
}

TEST_F(WtsSessions, ClientPrintersRoundTripInOrder) {
    OVTEST_EMBEDDED_ONLY("logging sessions on in the embedded session table");
    terminal::Session s = Remote(6, "dave");
    for (DWORD i = 0; i < 12; ++i) {  // more than ten, so ordering by text would show
        terminal::ClientPrinter p;
        p.name = u"Printer " + U16(std::to_string(i));
        p.printerClass = u"PCL";
        p.driver = u"HP LaserJet 4";
        p.printerId = 100 + i;
        p.trays = {u"*Auto", u"Tray 1"};
        p.papers = {u"A4", u"*Letter"};
        p.resolutions = {u"*600x600"};
        p.duplex = i % 3;
        p.ppd.assign(i, std::byte{0xA5});  // binary, and none for the first printer
        s.printers.push_back(p);
    }
    ASSERT_EQ(terminal::Logon(s), ERROR_SUCCESS);
    terminal::Session back;
    ASSERT_EQ(terminal::GetSession(6, &back), ERROR_SUCCESS);
    ASSERT_EQ(back.printers.size(), 12u);
    for (DWORD i = 0; i < 12; ++i) {
        const auto& p = back.printers[i];
        EXPECT_EQ(U8(p.name), "Printer " + std::to_string(i));
        EXPECT_EQ(U8(p.printerClass), "PCL");
        EXPECT_EQ(U8(p.driver), "HP LaserJet 4");
        EXPECT_EQ(p.printerId, 100 + i);
        EXPECT_EQ(p.trays, (std::vector<std::u16string>{u"*Auto", u"Tray 1"}));
        EXPECT_EQ(p.papers, (std::vector<std::u16string>{u"A4", u"*Letter"}));
        EXPECT_EQ(p.resolutions, (std::vector<std::u16string>{u"*600x600"}));
        EXPECT_EQ(p.duplex, i % 3);
        EXPECT_EQ(p.ppd, std::vector<std::byte>(i, std::byte{0xA5}));
    }
    // A reconnect with fewer printers replaces the list.
    ASSERT_EQ(terminal::Disconnect(6), ERROR_SUCCESS);
    s.printers.resize(1);
    ASSERT_EQ(terminal::Logon(s), ERROR_SUCCESS);
    ASSERT_EQ(terminal::GetSession(6, &back), ERROR_SUCCESS);
    EXPECT_EQ(back.printers.size(), 1u);
}

TEST_F(WtsSessions, ConsoleSessionIdAndTableComeFromTheMachineRoot) {
    OVTEST_EMBEDDED_ONLY("machine.conf switch console_session and the table per machine root");
    EXPECT_EQ(WTSGetActiveConsoleSessionId(), 0u);
    machine::SetSetting("console_session", "3");
    EXPECT_EQ(WTSGetActiveConsoleSessionId(), 3u);
    machine::SetSetting("console_session", "x");
    EXPECT_EQ(WTSGetActiveConsoleSessionId(), 0u);

    // Each machine root has a table of its own.
    ASSERT_EQ(terminal::Logon(Remote(7, "erin")), ERROR_SUCCESS);
    const std::string other = ovtest::MakeTempDir("ovsvc-test-other-");
    machine::UseRoot(other);
    EXPECT_EQ(Enumerate().size(), 2u);
    machine::UseRoot(root());
    EXPECT_EQ(Enumerate().size(), 3u);
    std::error_code ec;
    std::filesystem::remove_all(other, ec);
}

}  // namespace

namespace {

using namespace platform;

// Reports what the session calls say about the calling process's session.
OVTEST_CHILD(own_session) {
    std::vector<std::byte> b;
    if (!WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, WTS_CURRENT_SESSION, WTSSessionId,
                                     &b) ||
        b.size() != 4) {
        return 90;
    }
    DWORD id = 0;
    std::memcpy(&id, b.data(), 4);
    DWORD viaPid = 0;
    if (!ProcessIdToSessionId(GetCurrentProcessId(), &viaPid) || viaPid != id) {
        return 91;
    }
    const bool hasUser = WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, WTS_CURRENT_SESSION,
                                                     WTSUserName, &b);
    if (args.at(0) == "user" && (!hasUser || b.size() != 12)) {  // "alice"
        return 92;
    }
    if (args.at(0) == "none" && (hasUser || GetLastError() != ERROR_CTX_WINSTATION_NOT_FOUND)) {
        return 93;
    }
    return static_cast<int>(id);
}

OVTEST_CHILD(idle_in_session) {
    std::this_thread::sleep_for(std::chrono::seconds(30));
    return 0;
}

class WtsCurrentSession : public ovtest::MachineTest {};

TEST_F(WtsCurrentSession, AProcessKnowsItsSessionEvenWithoutATableEntry) {
    OVTEST_EMBEDDED_ONLY("starting processes in a chosen embedded session");
    terminal::Session s;
    s.id = 7;
    s.userName = u"alice";
    ASSERT_EQ(terminal::Logon(s), ERROR_SUCCESS);
    auto inSession = ovtest::Process::StartChild("own_session", {"user"}, {"OVSVC_SESSION_ID=7"});
    EXPECT_EQ(inSession.Wait(), 7);
    auto loggedOff = ovtest::Process::StartChild("own_session", {"none"}, {"OVSVC_SESSION_ID=9"});
    EXPECT_EQ(loggedOff.Wait(), 9);
}

TEST_F(WtsCurrentSession, AChildRunsInItsParentsSession) {
    OVTEST_SKIP_UNDER_WINE("WTSQuerySessionInformationW does not answer WTSSessionId");
    auto child = ovtest::Process::StartChild("own_session", {"any"});
    EXPECT_EQ(child.Wait(), static_cast<int>(GetCurrentSessionId()));
}

TEST_F(WtsCurrentSession, ProcessIdsMapToSessions) {
    DWORD self = 0xDEADBEEF;
    SetLastError(0xDEADBEEF);
    ASSERT_TRUE(ProcessIdToSessionId(GetCurrentProcessId(), &self));
    EXPECT_EQ(self, GetCurrentSessionId());
    DWORD id = 0xDEADBEEF;
    OVTEST_EXPECT_FAIL(ProcessIdToSessionId(0x7FFFFFF0, &id), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(id, 0xDEADBEEF);
    OVTEST_EXPECT_FAIL(ProcessIdToSessionId(GetCurrentProcessId(), nullptr),
                       ERROR_INVALID_PARAMETER);
}

TEST_F(WtsCurrentSession, ProcessIdsOfOtherProcessesMapToTheirSessions) {
    OVTEST_EMBEDDED_ONLY("starting processes in a chosen embedded session");
    auto child = ovtest::Process::StartChild("idle_in_session", {}, {"OVSVC_SESSION_ID=11"});
    // Until the child's program is in place it still has the parent's environment.
    DWORD id = 0xDEADBEEF;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        ASSERT_TRUE(ProcessIdToSessionId(static_cast<DWORD>(child.pid()), &id));
        if (id == 11) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_EQ(id, 11u);
    child.Kill();
    child.Wait();
}

TEST_F(WtsCurrentSession, AnotherProcessOfThisSessionMapsToIt) {
    auto child = ovtest::Process::StartChild("idle_in_session");
    DWORD id = 0xDEADBEEF;
    ASSERT_TRUE(ProcessIdToSessionId(static_cast<DWORD>(child.pid()), &id));
    EXPECT_EQ(id, GetCurrentSessionId());
    child.Kill();
    child.Wait();
}

}  // namespace
