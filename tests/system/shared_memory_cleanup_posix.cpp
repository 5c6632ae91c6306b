// The embedded machine's shared memory does not outlive its holders: a
// client killed while it waits for its turn and a killed service leave
// nothing behind in the host's shared-memory directory once any other
// process starts, on whatever machine root (theirs may be gone by then).

#include <dirent.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "../../src/platform/embedded/object_table.h"
#include "channel_support.h"
#include "ovtest.h"
#include "platform/machine.h"

using namespace channeltest;
using namespace std::chrono_literals;

namespace {

// Host files whose path starts with `prefix`.
std::vector<std::string> FilesStartingWith(const std::string& prefix) {
    const std::size_t slash = prefix.rfind('/');
    const std::string dir = prefix.substr(0, slash);
    const std::string start = prefix.substr(slash + 1);
    std::vector<std::string> found;
    if (DIR* d = opendir(dir.c_str())) {
        while (const dirent* item = readdir(d)) {
            if (std::strncmp(item->d_name, start.c_str(), start.size()) == 0) {
                found.push_back(item->d_name);
            }
        }
        closedir(d);
    }
    return found;
}

}  // namespace

// Uses named objects on a machine of its own, as any program does.
OVTEST_CHILD(touch_other_machine) {
    platform::machine::UseRoot(args.at(0));
    platform::UniqueEvent event = platform::CreateEventW(nullptr, true, false, u"Global\\touch");
    return event ? 0 : 1;
}

class SharedMemoryCleanupTest : public ovtest::MachineTest {};

TEST_F(SharedMemoryCleanupTest, KilledHoldersLeaveNoMemoryBehindOnceAnotherProcessStarts) {
    const std::string segments = platform::embedded::SegmentPathPrefix();
    ASSERT_FALSE(segments.empty());
    {
        ovtest::Process service = StartService();
        EXPECT_EQ(FilesStartingWith(segments).size(), 1u) << "the request area";
        service.Suspend();
        ovtest::Process client = ovtest::Process::StartChild("client_call", {"repair"});
        platform::Sleep(500);  // the client has taken a ticket and waits for its turn
        client.Kill();
        EXPECT_EQ(client.Wait(10s), 128 + 9);
        service.Kill();
        EXPECT_EQ(service.Wait(10s), 128 + 9);
    }
    // Only dead processes hold the area now.
    EXPECT_EQ(FilesStartingWith(segments).size(), 1u);
    const std::string other = ovtest::MakeTempDir("ovsvc-other");
    ovtest::Process next = ovtest::Process::StartChild("touch_other_machine", {other});
    EXPECT_EQ(next.Wait(30s), 0) << next.output();
    EXPECT_TRUE(FilesStartingWith(segments).empty());
    std::error_code ec;
    std::filesystem::remove_all(other, ec);
}
