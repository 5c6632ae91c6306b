// ovasctl eventlog shows what the event log holds, also to scripts.
#include <gtest/gtest.h>

#include <string>

#include "ovtest.h"
#include "platform/eventlog.h"

namespace {

using namespace platform;

class EventLogCommand : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        OVTEST_EMBEDDED_ONLY("ovasctl eventlog reads the event log file of an embedded machine");
        MachineTest::SetUp();
    }
    static void Report(std::u16string_view source, WORD type, const std::u16string& text) {
        UniqueEventSource log(RegisterEventSourceW(u"", source));
        ASSERT_TRUE(log);
        ASSERT_TRUE(ReportEventW(log.get(), type, 0, 0, nullptr, {text}, nullptr, 0));
    }
    static std::string Run(const std::vector<std::string>& args) {
        auto process = ovtest::Process::Start(ovtest::BinDir() + "/ovasctl", args);
        EXPECT_EQ(process.Wait(std::chrono::seconds(30)), 0) << process.output();
        return process.output();
    }
};

TEST_F(EventLogCommand, TableAndJsonWithFilters) {
    Report(u"OvaspoolSvc", EVENTLOG_ERROR_TYPE, u"Can't create SHM segment. Location: 2");
    Report(u"Other", EVENTLOG_WARNING_TYPE, u"two\nlines \"quoted\"");
    Report(u"OvaspoolSvc", EVENTLOG_WARNING_TYPE, u"last");

    const std::string table = Run({"eventlog"});
    EXPECT_NE(table.find("OvaspoolSvc  Error    Can't create SHM segment. Location: 2"),
              std::string::npos)
        << table;
    EXPECT_NE(table.find("two\\nlines"), std::string::npos) << table;  // one row per entry

    const std::string json = Run({"eventlog", "--json", "--source", "OvaspoolSvc", "--last", "1"});
    EXPECT_NE(json.find("\"source\":\"OvaspoolSvc\",\"type\":\"Warning\",\"text\":\"last\""),
              std::string::npos)
        << json;
    EXPECT_EQ(json.find("SHM"), std::string::npos) << json;

    const std::string other = Run({"eventlog", "--json", "--source", "Other"});
    EXPECT_NE(other.find("\"text\":\"two\\nlines \\\"quoted\\\"\""), std::string::npos) << other;
}

TEST_F(EventLogCommand, EmptyLogGivesAnEmptyList) {
    EXPECT_EQ(Run({"eventlog", "--json"}), "[]\n");
}

}  // namespace
