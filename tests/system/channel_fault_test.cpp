// The request channel under load and across a service that is killed and
// started again: every reply must answer its own request.

#include <chrono>
#include <cstdio>
#include <vector>

#include "channel_support.h"
#include "ovsvc.h"
#include "ovtest.h"
#include "platform/registry.h"

using namespace channeltest;
using namespace std::chrono_literals;

namespace {

bool IsChannelFailure(std::int32_t result) {
    return result >= ovsvc::kResultAckUnexpected && result <= ovsvc::kResultTimeout;
}

}  // namespace

// Translates distinct printer names for the given number of milliseconds (or
// requests, whichever ends first) and sorts the answers: the rule echoes the
// name, so a reply either names its own request or belongs to another one.
// Prints "ok= failed= wrong="; exits 1 on a wrong reply, and in strict mode
// on any failure too.
OVTEST_CHILD(translate_checked) {
    const std::string client = args.at(0);
    const int requests = std::stoi(args.at(1));
    const auto until =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(std::stoi(args.at(2)));
    const bool strict = args.at(3) == "strict";
    int ok = 0;
    int failed = 0;
    int wrong = 0;
    for (int i = 0; i < requests && std::chrono::steady_clock::now() < until; ++i) {
        const std::u16string printer = ovtest::U16(client + "-r" + std::to_string(i));
        std::vector<char16_t> templates(4200, u'?');
        const std::int32_t result =
            OVADLLTranslate(Ov(u"10.1.2.3"), Ov(u"client"), Ov(u"driver"), Ov(printer.c_str()),
                            Ov(u"PCL"), 3, Ov(templates.data()));
        if (result > 0 && std::u16string(templates.data()) == printer + u"-T") {
            ++ok;
        } else if (IsChannelFailure(result)) {
            ++failed;
        } else {
            ++wrong;
            std::printf("request %d: result %d, template %s\n", i, result,
                        ovtest::U8(templates.data()).c_str());
        }
    }
    std::printf("ok=%d failed=%d wrong=%d\n", ok, failed, wrong);
    return wrong == 0 && (!strict || failed == 0) ? 0 : 1;
}

class ChannelFaultTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        ResetProductKey();
        // One rule that echoes the client printer's name into the template.
        std::u16string multi;
        for (const std::u16string line :
             {u"IP,Client,Driver,Printer,Class,T1,T2,T4,T8,Template,Flag",
              u"*,*,*,*,*,true,true,true,true,%LCPRN%-T,"}) {
            multi += line;
            multi.push_back(u'\0');
        }
        multi.push_back(u'\0');
        platform::UniqueKey key;
        ASSERT_EQ(
            platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, u"Software\\Orvelle\\Ovaspool",
                                      0, platform::KEY_ALL_ACCESS, &key, nullptr),
            platform::ERROR_SUCCESS);
        ASSERT_EQ(
            platform::RegSetValueExW(key.get(), u"NameTranslationEx", platform::REG_MULTI_SZ,
                                     multi.data(), static_cast<platform::DWORD>(multi.size() * 2)),
            platform::ERROR_SUCCESS);
        SetProductDword(u"DebugLevel", 0);
    }

    static std::vector<ovtest::Process> StartClients(int count, int requests, int milliseconds,
                                                     const std::string& mode) {
        std::vector<ovtest::Process> clients;
        for (int c = 0; c < count; ++c) {
            clients.push_back(ovtest::Process::StartChild(
                "translate_checked", {"c" + std::to_string(c), std::to_string(requests),
                                      std::to_string(milliseconds), mode}));
        }
        return clients;
    }
};

// Waiting clients sleep until their turn; a wake-up that went missing would
// leave a client asleep until its timeout.
TEST_F(ChannelFaultTest, ManyClientsAllServedWithoutTimingOut) {
    SetProductDword(u"TimeOutClient", 20000);
    ovtest::Process service = StartService();
    std::vector<ovtest::Process> clients = StartClients(12, 250, 600000, "strict");
    for (auto& client : clients) {
        EXPECT_EQ(client.Wait(180s), 0) << client.output();
    }
}

// A client that drew its ticket from a service that was then killed gives up
// once a new service serves, rather than wait for the new service to hand its
// number to another client; the new service's clients, under load, each get
// their own replies.
TEST_F(ChannelFaultTest, ClientOfAKilledServiceGivesUpInsteadOfTakingAnotherClientsTurn) {
    ovtest::Process service = StartService();
    AreaView area;
    ASSERT_TRUE(area);
    ovtest::Process warmUp =
        ovtest::Process::StartChild("translate_checked", {"warm", "3", "600000", "strict"});
    ASSERT_EQ(warmUp.Wait(60s), 0) << warmUp.output();
    ASSERT_TRUE(WaitUntil([&] { return area.get()->Act == 3; }, 10s));
    // Ticket 3 is drawn and abandoned, ticket 4 waits behind it.
    service.Suspend();
    ovtest::Process ghost = ovtest::Process::StartChild("abandon_ticket");
    ASSERT_EQ(ghost.Wait(10s), 0);
    ovtest::Process stranded =
        ovtest::Process::StartChild("translate_checked", {"stranded", "1", "600000", "lenient"});
    ASSERT_TRUE(WaitUntil([&] { return area.get()->Next == 4; }, 10s));
    platform::Sleep(200);
    service.Kill();
    service.Wait(10s);
    // The stranded client keeps OVAck1 open, so the new service is ready
    // once its first event exists.
    service = StartServiceHost();
    ASSERT_TRUE(WaitUntil(
        [] {
            return static_cast<bool>(
                platform::OpenEventW(platform::SYNCHRONIZE, false, u"Global\\OVC-Req1"));
        },
        10s));
    std::vector<ovtest::Process> clients = StartClients(4, 30, 600000, "strict");
    for (auto& client : clients) {
        EXPECT_EQ(client.Wait(60s), 0) << client.output();
    }
    ASSERT_EQ(stranded.Wait(60s), 0) << stranded.output();
    EXPECT_NE(stranded.output().find("ok=0 failed=1 wrong=0"), std::string::npos)
        << stranded.output();
}
