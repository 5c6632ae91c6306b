// Reports of fatal service conditions to the event log.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "ovtest.h"
#include "platform/error.h"
#include "platform/machine.h"
#include "trace/trace.h"

namespace {

using namespace ovsvc;

std::vector<std::string> EventLines() {
    std::ifstream in(platform::machine::EventLogPath());
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

class EventReport : public ovtest::MachineTest {};

TEST_F(EventReport, TextGetsTheLocationAndTheServiceSource) {
    ReportServiceEvent(u"Can't create SHM segment.", kEventError, 2);
    ReportServiceEvent(u"No response from client at the acknowledge (fatal error)!", kEventWarning,
                       11);
    const auto lines = EventLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("\tOvaspoolSvc\tError\tCan't create SHM segment. Location: 2"),
              std::string::npos)
        << lines[0];
    EXPECT_NE(lines[1].find("\tOvaspoolSvc\tWarning\tNo response from client at the "
                            "acknowledge (fatal error)! Location: 11"),
              std::string::npos)
        << lines[1];
}

TEST_F(EventReport, OverlongTextIsCutSoTheLocationStillFits) {
    ReportServiceEvent(std::u16string(5000, u'y'), kEventError, 14);
    const auto lines = EventLines();
    ASSERT_EQ(lines.size(), 1u);
    const std::string tail = " Location: 14";
    ASSERT_GE(lines[0].size(), tail.size());
    EXPECT_EQ(lines[0].substr(lines[0].size() - tail.size()), tail);
    const std::size_t text = lines[0].rfind('\t') + 1;
    EXPECT_EQ(lines[0].size() - text, 1023u);  // the 1024-unit buffer less its terminator
}

TEST_F(EventReport, FailuresAreSilentAndKeepTheLastError) {
    platform::SetLastError(1450);
    ReportServiceEvent(u"bad type", 0x77, 1);  // refused by the event log
    EXPECT_EQ(platform::GetLastError(), 1450u);
    EXPECT_TRUE(EventLines().empty());
}

}  // namespace
