// The request channel end to end: the real service host and real client
// processes on one embedded machine.

#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "channel_support.h"
#include "ovsvc.h"
#include "ovtest.h"
#include "platform/machine.h"
#include "platform/registry.h"

using namespace channeltest;
using namespace std::chrono_literals;

namespace {

std::int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

// A client process: runs one export and prints its result and when it returned.
OVTEST_CHILD(client_call) {
    const std::string call = args.empty() ? "" : args[0];
    std::int32_t result = INT32_MIN;
    if (call == "repair") {
        result = OVADLLRepair();
    } else if (call == "reload") {
        result = OVADLLLoadTranslationList();
    } else if (call == "del") {
        result = OVADLLDelPrinter(3, 0);
    } else if (call == "add-big-properties") {
        std::vector<char16_t> properties(100000, u'x');
        char16_t name[525] = u"Laser";
        char16_t cls[525] = u"PCL";
        result =
            OVADLLAddPrinter(Ov(name), Ov(cls), Ov(u"10.0.0.1"), 0, Ov(u"drv"), 1, 3, Ov(u"client"),
                             Ov(u"user"), Ov(u"computer"), Ov(properties.data()), 200000, 0, 0, 0);
    } else if (call == "add") {
        char16_t name[525] = u"Laser";
        char16_t cls[525] = u"PCL";
        result = OVADLLAddPrinter(Ov(name), Ov(cls), Ov(u"10.0.0.1"), 0, Ov(u"drv"), 1, 3,
                                  Ov(u"client"), Ov(u"user"), Ov(u"computer"), nullptr, 0, 0, 0, 0);
        std::printf("name=[%s] class=[%s]\n", ovtest::U8(name).c_str(), ovtest::U8(cls).c_str());
    } else if (call == "enum") {
        std::uint32_t needed = 0;
        result = OVADLLEnumPrinters(nullptr, 0, &needed);
    }
    std::printf("finished=%lld\nresult=%d\n", static_cast<long long>(NowMs()), result);
    return 0;
}

// Takes a ticket and asks for a turn, then goes away without sending a request.
OVTEST_CHILD(abandon_ticket) {
    AreaView area;
    if (!area) {
        return 2;
    }
    platform::InterlockedIncrement(&area.get()->Next);
    platform::UniqueEvent req1 =
        platform::OpenEventW(platform::EVENT_MODIFY_STATE, false, u"Global\\OVC-Req1");
    if (!req1) {
        return 3;
    }
    platform::SetEvent(req1.get());
    return 0;
}

// Runs the protocol by hand with a command code of its own choosing.
OVTEST_CHILD(raw_command) {
    const std::uint32_t command = static_cast<std::uint32_t>(std::stoul(args.at(0)));
    AreaView area;
    if (!area) {
        return 2;
    }
    ovsvc::SHM* shm = area.get();
    const std::int32_t ticket = platform::InterlockedIncrement(&shm->Next);
    {
        platform::UniqueEvent req1 =
            platform::OpenEventW(platform::EVENT_MODIFY_STATE, false, u"Global\\OVC-Req1");
        platform::SetEvent(req1.get());
    }
    for (;;) {
        platform::UniqueEvent ack1 =
            platform::OpenEventW(platform::EVENT_ALL_ACCESS, false, u"Global\\OVC-Ack1");
        if (platform::WaitForSingleObject(ack1.get(), 10000) != platform::WAIT_OBJECT_0) {
            return 4;
        }
        if (platform::InterlockedRead(&shm->Act) == ticket) {
            platform::ResetEvent(ack1.get());
            break;
        }
        platform::Sleep(1);
    }
    const platform::DWORD tid = platform::GetCurrentThreadId();
    shm->ThreadId = tid;
    shm->Command = command;
    char name[32];
    std::snprintf(name, sizeof(name), "Global\\OVC-Ack2-%.8x", tid);
    platform::UniqueEvent ack2 = platform::CreateEventW(nullptr, false, false, ovtest::U16(name));
    {
        platform::UniqueEvent req2 =
            platform::OpenEventW(platform::EVENT_MODIFY_STATE, false, u"Global\\OVC-Req2");
        platform::SetEvent(req2.get());
    }
    if (platform::WaitForSingleObject(ack2.get(), 10000) != platform::WAIT_OBJECT_0) {
        return 5;
    }
    const std::int32_t result = shm->Result;
    {
        platform::UniqueEvent req3 =
            platform::OpenEventW(platform::EVENT_MODIFY_STATE, false, u"Global\\OVC-Req3");
        platform::SetEvent(req3.get());
    }
    std::printf("result=%d\n", result);
    return 0;
}

// Raises the stop flag without waking the service.
OVTEST_CHILD(raise_stop_flag) {
    AreaView area;
    if (!area) {
        return 2;
    }
    platform::InterlockedExchange(reinterpret_cast<platform::LONG*>(&area.get()->StopFlag), 1);
    return 0;
}

class ChannelTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        ResetProductKey();
        trace_ = EnableTrace(root());
    }
    std::string Trace() const { return ReadText(trace_); }

    static std::int32_t RunClient(const std::string& call, std::string* output = nullptr) {
        ovtest::Process client = ovtest::Process::StartChild("client_call", {call});
        EXPECT_EQ(client.Wait(60s), 0);
        if (output != nullptr) {
            *output = client.output();
        }
        return ParseResult(client.output());
    }

    std::string trace_;
};

TEST_F(ChannelTest, ClientWithoutServiceFailsAtOnceAndEmptiesTheReplyStrings) {
    std::string output;
    EXPECT_EQ(RunClient("add", &output), -16);
    EXPECT_NE(output.find("name=[] class=[]"), std::string::npos) << output;
    EXPECT_NE(Trace().find("opening events OVReq1 failed err=2"), std::string::npos);
}

TEST_F(ChannelTest, FirstRequestBuildsTheCacheAndUnknownCodesAnswerMinusOne) {
    ovtest::Process service = StartService();
    // With no printers a repair changes nothing; the size query of
    // an enumeration answers -19; unknown codes answer -1.
    EXPECT_EQ(RunClient("repair"), 0);
    std::string output;
    EXPECT_EQ(RunClient("enum", &output), -19) << output;
    ovtest::Process raw = ovtest::Process::StartChild("raw_command", {"77"});
    ASSERT_EQ(raw.Wait(30s), 0) << raw.output();
    EXPECT_EQ(ParseResult(raw.output()), -1);
    const std::string trace = Trace();
    EXPECT_EQ(trace.find("_SVC_ pthePrinterList != NULL"), std::string::npos);
    EXPECT_EQ(trace.find("InitPrinterList..."), trace.rfind("InitPrinterList..."));
    EXPECT_NE(trace.find("calling Repair()..."), std::string::npos);
    service.Terminate();
    EXPECT_EQ(service.Wait(10s), 0);
}

TEST_F(ChannelTest, TicketsAreServedInOrder) {
    SetProductDword(u"TimeOutService", 3000);
    ovtest::Process service = StartService();
    AreaView area;
    ASSERT_TRUE(area);
    service.Suspend();  // hold the service so both clients queue up
    ovtest::Process first = ovtest::Process::StartChild("client_call", {"repair"});
    ASSERT_TRUE(WaitUntil([&] { return area.get()->Next == 0; }, 10s));
    ovtest::Process second = ovtest::Process::StartChild("client_call", {"repair"});
    ASSERT_TRUE(WaitUntil([&] { return area.get()->Next == 1; }, 10s));
    service.Resume();
    ASSERT_EQ(first.Wait(30s), 0);
    ASSERT_EQ(second.Wait(30s), 0);
    EXPECT_EQ(ParseResult(first.output()), 0);
    EXPECT_EQ(ParseResult(second.output()), 0);
    // The holder of ticket 0 hands its request over before the holder of
    // ticket 1 (told apart by the thread ids of their trace lines).
    const std::string trace = Trace();
    const auto threadOf = [&](const std::string& marker) {
        const std::size_t at = trace.find(marker);
        const std::size_t line = trace.rfind('\n', at) + 1;
        const std::size_t id = trace.find(" Id:", line);
        return trace.substr(id, trace.find(' ', id + 1) - id);
    };
    const std::string firstId = threadOf("setting OVReq1... (MyNr: 0)");
    const std::string secondId = threadOf("setting OVReq1... (MyNr: 1)");
    ASSERT_NE(firstId, secondId);
    const auto handedOver = [&](const std::string& id) {
        std::size_t at = 0;
        while ((at = trace.find("copy data into SHM", at + 1)) != std::string::npos) {
            const std::size_t line = trace.rfind('\n', at) + 1;
            if (trace.compare(trace.find(" Id:", line), id.size(), id) == 0) {
                return at;
            }
        }
        return std::string::npos;
    };
    EXPECT_LT(handedOver(firstId), handedOver(secondId));
    // The service moves the turn on after the client's last event; the
    // client may have ended first.
    EXPECT_TRUE(WaitUntil([&] { return area.get()->Act == 2; }, 10s)) << area.get()->Act;
}

TEST_F(ChannelTest, AbandonedTicketCostsTheNextClientOneServiceTimeout) {
    SetProductDword(u"TimeOutService", 1000);
    ovtest::Process service = StartService();
    ovtest::Process ghost = ovtest::Process::StartChild("abandon_ticket");
    ASSERT_EQ(ghost.Wait(10s), 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(RunClient("repair"), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 900ms);
    EXPECT_EQ(CountOccurrences(Trace(), "didn't get OVReq2! Timeout!"), 1);
}

TEST_F(ChannelTest, ClientReturningAfterItsTicketPassedGetsMinus14) {
    SetProductDword(u"TimeOutService", 2000);
    ovtest::Process service = StartService();
    AreaView area;
    ASSERT_TRUE(area);
    // The late client draws ticket 0 while the service is held, and is held
    // itself while the service grants and then skips its turn.
    service.Suspend();
    ovtest::Process late = ovtest::Process::StartChild("client_call", {"repair"});
    ASSERT_TRUE(WaitUntil([&] { return area.get()->Next == 0; }, 10s));
    platform::Sleep(200);
    late.Suspend();
    service.Resume();
    ASSERT_TRUE(WaitUntil([&] { return area.get()->Act == 1; }, 10s));
    // Ticket 1 is granted and never taken: OVAck1 stays set for it while the
    // late client comes back.
    ovtest::Process ghost = ovtest::Process::StartChild("abandon_ticket");
    ASSERT_EQ(ghost.Wait(10s), 0);
    platform::Sleep(300);
    late.Resume();
    ASSERT_EQ(late.Wait(30s), 0);
    EXPECT_EQ(ParseResult(late.output()), -14);
    EXPECT_NE(Trace().find("lMyNr already processed!"), std::string::npos);
}

TEST_F(ChannelTest, SecondServiceInstanceStepsBack) {
    ovtest::Process service = StartService();
    ovtest::Process second = channeltest::StartServiceHost();
    EXPECT_EQ(second.Wait(10s), 1);
    EXPECT_NE(Trace().find("Event 'OVReq1' already exists!"), std::string::npos);
    if (!ovtest::IsWin32Platform()) {
        // The embedded machine keeps its event log as a file in the root;
        // Windows' own log is not read back here.
        EXPECT_NE(ReadText(root() + "/eventlog.log").find("Can't create the event! Location: 7"),
                  std::string::npos);
    }
    // The first instance still serves.
    EXPECT_EQ(RunClient("repair"), 0);
    EXPECT_TRUE(service.Running());
}

TEST_F(ChannelTest, OversizedPropertiesAreCutAndLogged) {
    ovtest::Process service = StartService();
    EXPECT_EQ(RunClient("add-big-properties"), 221) << "no template for the printer";
    AreaView area;
    ASSERT_TRUE(area);
    EXPECT_EQ(area.get()->PropertiesLength, 131073u);
    EXPECT_NE(Trace().find("PrinterProperties to large: 200000 --> shorten to 131073"),
              std::string::npos);
}

TEST_F(ChannelTest, ServiceKilledDuringARequestLeavesClientsWithATimeout) {
    SetProductDword(u"TimeOutClient", 1500);
    ovtest::Process service = StartService();
    AreaView area;
    ASSERT_TRUE(area);
    service.Suspend();
    ovtest::Process client = ovtest::Process::StartChild("client_call", {"repair"});
    ASSERT_TRUE(WaitUntil([&] { return area.get()->Next == 0; }, 10s));
    platform::Sleep(200);  // the client now waits for its turn
    service.Kill();
    EXPECT_EQ(service.Wait(10s), 128 + 9);  // killed, as a shell reports SIGKILL
    ASSERT_EQ(client.Wait(20s), 0) << "the client must not hang";
    EXPECT_EQ(ParseResult(client.output()), -14);
    EXPECT_NE(Trace().find("didn't get OVAck1! Timeout occurred!"), std::string::npos);
}

TEST_F(ChannelTest, StopEndsTheServiceAtOnceOrWithinOneTimeout) {
    SetProductDword(u"TimeOutService", 1000);
    {
        ovtest::Process service = StartService();
        service.Terminate();  // the stop export raises the flag and wakes the loop
        EXPECT_EQ(service.Wait(5s), 0);
    }
    {
        // The flag alone is seen at the next idle timeout.
        ovtest::Process service = StartService();
        ovtest::Process stopper = ovtest::Process::StartChild("raise_stop_flag");
        ASSERT_EQ(stopper.Wait(10s), 0);
        EXPECT_EQ(service.Wait(5s), 0);
    }
    EXPECT_EQ(CountOccurrences(Trace(), "Leaving OVADLLRunMain()!"), 2);
}

// Translates many distinct printer names and checks that every answer is
// the one for its own request.
OVTEST_CHILD(translate_many) {
    const int client = std::stoi(args.at(0));
    const int requests = std::stoi(args.at(1));
    int wrong = 0;
    for (int i = 0; i < requests; ++i) {
        const std::u16string printer =
            ovtest::U16("c" + std::to_string(client) + "-r" + std::to_string(i));
        std::vector<char16_t> templates(4200, u'?');
        const std::int32_t result =
            OVADLLTranslate(Ov(u"10.1.2.3"), Ov(u"client"), Ov(u"driver"), Ov(printer.c_str()),
                            Ov(u"PCL"), 3, Ov(templates.data()));
        if (result <= 0 || std::u16string(templates.data()) != printer + u"-T") {
            ++wrong;
            std::printf("request %d: result %d, template %s\n", i, result,
                        ovtest::U8(templates.data()).c_str());
        }
    }
    return wrong == 0 ? 0 : 1;
}

TEST_F(ChannelTest, ManyClientProcessesEachGetTheirOwnReplies) {
    // One rule that echoes the client printer's name into the template, so
    // every reply names the request it answers.
    const std::u16string table[] = {u"IP,Client,Driver,Printer,Class,T1,T2,T4,T8,Template,Flag",
                                    u"*,*,*,*,*,true,true,true,true,%LCPRN%-T,"};
    std::u16string multi;
    for (const auto& line : table) {
        multi += line;
        multi.push_back(u'\0');
    }
    multi.push_back(u'\0');
    {
        platform::UniqueKey key;
        ASSERT_EQ(
            platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, u"Software\\Orvelle\\Ovaspool",
                                      0, platform::KEY_ALL_ACCESS, &key, nullptr),
            platform::ERROR_SUCCESS);
        ASSERT_EQ(
            platform::RegSetValueExW(key.get(), u"NameTranslationEx", platform::REG_MULTI_SZ,
                                     multi.data(), static_cast<platform::DWORD>(multi.size() * 2)),
            platform::ERROR_SUCCESS);
    }
    SetProductDword(u"DebugLevel", 0);  // tracing off: this is about the protocol
    ovtest::Process service = StartService();
    constexpr int kClients = 16;
    constexpr int kRequests = 150;
    std::vector<ovtest::Process> clients;
    for (int c = 0; c < kClients; ++c) {
        clients.push_back(ovtest::Process::StartChild(
            "translate_many", {std::to_string(c), std::to_string(kRequests)}));
    }
    for (auto& client : clients) {
        EXPECT_EQ(client.Wait(120s), 0) << client.output();
    }
    AreaView area;
    ASSERT_TRUE(area);
    // The turn moves on after each client's last event, possibly after the
    // client has ended.
    EXPECT_TRUE(WaitUntil([&] { return area.get()->Act == kClients * kRequests; }, 10s))
        << area.get()->Act;
}

TEST_F(ChannelTest, WithoutTheGlobalNamespaceEveryProcessUsesLocalNames) {
    OVTEST_EMBEDDED_ONLY("the machine switch that makes Global\\ names unavailable");
    platform::machine::SetSetting("global_namespace", "0");
    ovtest::Process service = channeltest::StartServiceHost();
    ASSERT_TRUE(WaitUntil(
        [] {
            platform::UniqueEvent ack1 =
                platform::OpenEventW(platform::SYNCHRONIZE, false, u"OVC-Ack1");
            return static_cast<bool>(ack1);
        },
        10s));
    EXPECT_EQ(RunClient("repair"), 0);
    EXPECT_FALSE(platform::OpenFileMappingW(platform::FILE_MAP_READ, false, u"Global\\OVC-SHM"));
    platform::UniqueMapping local =
        platform::OpenFileMappingW(platform::FILE_MAP_READ, false, u"OVC-SHM");
    EXPECT_TRUE(local);
    EXPECT_NE(Trace().find("Global\\\\ is not possible!"), std::string::npos);
    service.Terminate();
    EXPECT_EQ(service.Wait(10s), 0);
}
