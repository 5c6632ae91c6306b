// A second service host on a machine whose service already runs: it is
// refused, says so, and leaves the running service and its clients alone.

#include <chrono>
#include <string>
#include <vector>

#include "channel_support.h"
#include "ovtest.h"

using namespace channeltest;
using namespace std::chrono_literals;

namespace {

class ServiceInstanceTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        ResetProductKey();
    }
};

// "translate_many" (the channel tests' client) checks every reply against
// its own request and exits non-zero on the first wrong or failed one.
ovtest::Process StartTranslatingClient(int id, int requests) {
    return ovtest::Process::StartChild("translate_many",
                                       {std::to_string(id), std::to_string(requests)});
}

TEST_F(ServiceInstanceTest, ASecondHostIsRefusedWhileClientsAreMidTurn) {
    SetEchoTranslation();
    // A client that lost its turn would wait this long before failing.
    SetProductDword(u"TimeOutClient", 8000);
    ovtest::Process service = StartService();
    AreaView area;
    ASSERT_TRUE(area);

    constexpr int kClients = 4;
    constexpr int kRequests = 500;
    std::vector<ovtest::Process> clients;
    for (int c = 0; c < kClients; ++c) {
        clients.push_back(StartTranslatingClient(c, kRequests));
    }
    ASSERT_TRUE(WaitUntil([&] { return area.get()->Next >= 20; }, 30s));
    // Held, the service keeps every client mid-turn while the others start.
    service.Suspend();
    EXPECT_LT(area.get()->Next, kClients * kRequests - 1) << "the clients ended too soon";
    for (int attempt = 0; attempt < 3; ++attempt) {
        ovtest::Process second = StartServiceHost();
        EXPECT_NE(second.Wait(20s), 0) << "a refused host must not exit 0";
        EXPECT_NE(second.output().find("another instance of the service is already running"),
                  std::string::npos)
            << second.output();
    }
    service.Resume();
    for (auto& client : clients) {
        EXPECT_EQ(client.Wait(120s), 0) << client.output();
    }
    // Later clients are still served, and by the first host.
    ovtest::Process later = StartTranslatingClient(kClients, 5);
    EXPECT_EQ(later.Wait(60s), 0) << later.output();
    EXPECT_TRUE(service.Running());
}

}  // namespace
