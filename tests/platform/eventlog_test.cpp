// The event log: sources, entries as single lines in the machine's log file,
// and appends from several processes at once.
#include "platform/eventlog.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "ovtest.h"
#include "platform/machine.h"

namespace {

using namespace platform;

constexpr DWORD kPoison = 0xDEADBEEF;

std::vector<std::string> LogLines() {
    std::ifstream in(machine::EventLogPath());
    std::vector<std::string> lines;
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> Fields(const std::string& line) {
    std::vector<std::string> fields;
    std::stringstream in(line);
    std::string field;
    while (std::getline(in, field, '\t')) {
        fields.push_back(field);
    }
    return fields;
}

class EventLog : public ovtest::MachineTest {};

TEST_F(EventLog, EntryIsOneLineWithTimeSourceTypeAndText) {
    UniqueEventSource log(RegisterEventSourceW(u"", u"OvaspoolSvc"));
    ASSERT_TRUE(log);
    SetLastError(kPoison);
    ASSERT_TRUE(ReportEventW(log.get(), EVENTLOG_ERROR_TYPE, 0, 0, nullptr,
                             {u"Can't create SHM segment. Location: 2"}, nullptr, 0));
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    ASSERT_TRUE(
        ReportEventW(log.get(), EVENTLOG_WARNING_TYPE, 0, 0, nullptr, {u"second"}, nullptr, 0));

    const auto lines = LogLines();
    ASSERT_EQ(lines.size(), 2u);
    const auto first = Fields(lines[0]);
    ASSERT_EQ(first.size(), 4u) << lines[0];
    EXPECT_EQ(first[0].size(), std::string("2026-11-23 09:41:10.123").size());
    EXPECT_EQ(first[1], "OvaspoolSvc");
    EXPECT_EQ(first[2], "Error");
    EXPECT_EQ(first[3], "Can't create SHM segment. Location: 2");
    EXPECT_EQ(Fields(lines[1])[2], "Warning");
}

TEST_F(EventLog, LineBreaksAndTabsInTextsStayOnOneLine) {
    UniqueEventSource log(RegisterEventSourceW(u"", u"Src"));
    ASSERT_TRUE(log);
    ASSERT_TRUE(ReportEventW(log.get(), EVENTLOG_INFORMATION_TYPE, 3, 9, nullptr,
                             {u"two\r\nlines\tand\\slash", u"\u00fcber"}, nullptr, 0));
    const auto lines = LogLines();
    ASSERT_EQ(lines.size(), 1u);
    const auto fields = Fields(lines[0]);
    ASSERT_EQ(fields.size(), 4u);
    EXPECT_EQ(fields[2], "Information");
    EXPECT_EQ(fields[3],
              "two\\r\\nlines\\tand\\\\slash | \xc3\xbc"
              "ber");
}

TEST_F(EventLog, BadHandlesAndArgumentsAreRefused) {
    SetLastError(kPoison);
    EXPECT_FALSE(ReportEventW(nullptr, EVENTLOG_ERROR_TYPE, 0, 0, nullptr, {u"x"}, nullptr, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);

    HANDLE log = RegisterEventSourceW(u"", u"Src");
    ASSERT_NE(log, nullptr);
    SetLastError(kPoison);
    EXPECT_FALSE(ReportEventW(log, 0x0003, 0, 0, nullptr, {u"x"}, nullptr, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    SetLastError(kPoison);
    EXPECT_FALSE(ReportEventW(log, EVENTLOG_ERROR_TYPE, 0, 0, nullptr,
                              {std::u16string(40000, u'x')}, nullptr, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(LogLines().empty());  // nothing half-written

    EXPECT_TRUE(DeregisterEventSource(log));
    SetLastError(kPoison);
    EXPECT_FALSE(DeregisterEventSource(log));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    SetLastError(kPoison);
    EXPECT_FALSE(ReportEventW(log, EVENTLOG_ERROR_TYPE, 0, 0, nullptr, {u"x"}, nullptr, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST_F(EventLog, SourcesOnlyOnTheLocalMachine) {
    UniqueEventSource local(RegisterEventSourceW(u".", u"Src"));
    EXPECT_TRUE(local);
    SetLastError(kPoison);
    EXPECT_EQ(RegisterEventSourceW(u"\\\\elsewhere", u"Src"), nullptr);
    EXPECT_NE(GetLastError(), kPoison);
    SetLastError(kPoison);
    EXPECT_EQ(RegisterEventSourceW(u"", u""), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST_F(EventLog, EntriesGoToTheCurrentMachineRoot) {
    UniqueEventSource log(RegisterEventSourceW(u"", u"Src"));
    ASSERT_TRUE(log);
    ASSERT_TRUE(ReportEventW(log.get(), EVENTLOG_ERROR_TYPE, 0, 0, nullptr, {u"one"}, nullptr, 0));
    const std::string other = ovtest::MakeTempDir("ovsvc-eventlog-other-");
    const std::string first = machine::Root();
    machine::UseRoot(other);
    ASSERT_TRUE(ReportEventW(log.get(), EVENTLOG_ERROR_TYPE, 0, 0, nullptr, {u"two"}, nullptr, 0));
    EXPECT_EQ(LogLines().size(), 1u);
    machine::UseRoot(first);
    EXPECT_EQ(LogLines().size(), 1u);
}

OVTEST_CHILD(eventlog_writer) {
    const std::string tag = args.at(0);
    const int count = std::stoi(args.at(1));
    UniqueEventSource log(RegisterEventSourceW(u"", u"Writer"));
    if (!log) {
        return 2;
    }
    // Long texts make a torn or interleaved line easy to see.
    const std::u16string padding(600, u'p');
    for (int i = 0; i < count; ++i) {
        const std::string text = tag + "-" + std::to_string(i) + "-";
        std::u16string wide(text.begin(), text.end());
        if (!ReportEventW(log.get(), EVENTLOG_WARNING_TYPE, 0, 0, nullptr, {wide + padding},
                          nullptr, 0)) {
            return 3;
        }
    }
    return 0;
}

TEST_F(EventLog, SeveralProcessesAppendingLoseNothing) {
    constexpr int kProcesses = 4;
    constexpr int kEntries = 200;
    std::vector<ovtest::Process> children;
    for (int p = 0; p < kProcesses; ++p) {
        children.push_back(ovtest::Process::StartChild(
            "eventlog_writer", {"w" + std::to_string(p), std::to_string(kEntries)}));
    }
    for (auto& child : children) {
        ASSERT_EQ(child.Wait(std::chrono::seconds(60)), 0) << child.output();
    }
    const auto lines = LogLines();
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(kProcesses * kEntries));
    std::set<std::string> seen;
    const std::string padding(600, 'p');
    for (const auto& line : lines) {
        const auto fields = Fields(line);
        ASSERT_EQ(fields.size(), 4u) << line;
        const std::string& text = fields[3];
        ASSERT_GE(text.size(), padding.size());
        ASSERT_EQ(text.substr(text.size() - padding.size()), padding) << line;
        seen.insert(text.substr(0, text.size() - padding.size()));
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(kProcesses * kEntries));
}

}  // namespace
