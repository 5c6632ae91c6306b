// The event log: sources, entries (on the embedded platform single lines in
// the machine's log file), and appends from several processes at once.
#include "platform/eventlog.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "eventlog_test_support.h"
#include "ovtest.h"
#include "platform/machine.h"
#include "product_settings.h"

namespace {

using namespace platform;

using ovtest::kPoison;
constexpr const char* kNoStoredLog = "it stores no event-log entries to read back";

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

// Each test reports under a source of its own: on Windows the log is the
// machine's, shared with everything else.
class EventLog : public ovtest::MachineTest {
  protected:
    const std::string source_ = ovtest::UniqueName("OvTestSource");
    const std::u16string source16_ = ovtest::U16(source_);
};

TEST_F(EventLog, ReportedEntriesAreReadBackWithTheirTypeAndText) {
    UniqueEventSource log(RegisterEventSourceW(u"", source16_));
    ASSERT_TRUE(log);
    OVTEST_ASSERT_OK(ReportEventW(log.get(), EVENTLOG_ERROR_TYPE, 0, 0, nullptr,
                                  {u"Can't create SHM segment. Location: 2"}, nullptr, 0));
    ASSERT_TRUE(ReportEventW(log.get(), EVENTLOG_WARNING_TYPE, 0, 0, nullptr, {u"second", u"third"},
                             nullptr, 0));
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);

    OVTEST_SKIP_UNDER_WINE(kNoStoredLog);
    const auto entries = evtest::EntriesOf(source_);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].type, "Error");
    EXPECT_EQ(entries[0].text, "Can't create SHM segment. Location: 2");
    EXPECT_EQ(entries[1].type, "Warning");
    EXPECT_EQ(entries[1].text, "second | third");
}

TEST_F(EventLog, EntryIsOneEscapedLineWithTimeSourceTypeAndText) {
    OVTEST_EMBEDDED_ONLY("the event-log file's line format");
    UniqueEventSource log(RegisterEventSourceW(u"", u"OvaspoolSvc"));
    ASSERT_TRUE(log);
    OVTEST_ASSERT_OK(ReportEventW(log.get(), EVENTLOG_ERROR_TYPE, 0, 0, nullptr,
                                  {u"Can't create SHM segment. Location: 2"}, nullptr, 0));
    ASSERT_TRUE(
        ReportEventW(log.get(), EVENTLOG_WARNING_TYPE, 0, 0, nullptr, {u"second"}, nullptr, 0));
    // Line breaks, tabs and backslashes in texts are escaped.
    ASSERT_TRUE(ReportEventW(log.get(), EVENTLOG_INFORMATION_TYPE, 3, 9, nullptr,
                             {u"two\r\nlines\tand\\slash", u"\u00fcber"}, nullptr, 0));

    const auto lines = LogLines();
    ASSERT_EQ(lines.size(), 3u);
    const auto first = Fields(lines[0]);
    ASSERT_EQ(first.size(), 4u) << lines[0];
    EXPECT_EQ(first[0].size(), std::string("2026-11-23 09:41:10.123").size());
    EXPECT_EQ(first[1], "OvaspoolSvc");
    EXPECT_EQ(first[2], "Error");
    EXPECT_EQ(first[3], "Can't create SHM segment. Location: 2");
    EXPECT_EQ(Fields(lines[1])[2], "Warning");
    const auto third = Fields(lines[2]);
    ASSERT_EQ(third.size(), 4u);
    EXPECT_EQ(third[2], "Information");
    EXPECT_EQ(third[3],
              "two\\r\\nlines\\tand\\\\slash | \xc3\xbc"
              "ber");
}

TEST_F(EventLog, BadHandlesAndArgumentsAreRefused) {
    OVTEST_EXPECT_FAIL(
        ReportEventW(nullptr, EVENTLOG_ERROR_TYPE, 0, 0, nullptr, {u"x"}, nullptr, 0),
        ERROR_INVALID_HANDLE);

    HANDLE log = RegisterEventSourceW(u"", source16_);
    ASSERT_NE(log, nullptr);
    OVTEST_EXPECT_FAIL(ReportEventW(log, 0x0003, 0, 0, nullptr, {u"x"}, nullptr, 0),
                       ERROR_INVALID_PARAMETER);
    OVTEST_EXPECT_FAIL(ReportEventW(log, EVENTLOG_ERROR_TYPE, 0, 0, nullptr,
                                    {std::u16string(40000, u'x')}, nullptr, 0),
                       ERROR_INVALID_PARAMETER);
    OVTEST_EXPECT_FAIL(ReportEventW(log, EVENTLOG_ERROR_TYPE, 0, 0, nullptr, {u"x"}, nullptr, 4),
                       ERROR_INVALID_PARAMETER)
        << "raw data size without data";
    OVTEST_EXPECT_OK(DeregisterEventSource(log));

    UniqueEventSource local(RegisterEventSourceW(u".", source16_));
    EXPECT_TRUE(local) << "\".\" is the local machine";
    OVTEST_EXPECT_FAIL(RegisterEventSourceW(u"", u""), ERROR_INVALID_PARAMETER)
        << "a source needs a name";
}

TEST_F(EventLog, RefusedEntriesWriteNothing) {
    UniqueEventSource log(RegisterEventSourceW(u"", source16_));
    ASSERT_TRUE(log);
    EXPECT_FALSE(ReportEventW(log.get(), 0x0003, 0, 0, nullptr, {u"x"}, nullptr, 0));
    EXPECT_FALSE(ReportEventW(log.get(), EVENTLOG_ERROR_TYPE, 0, 0, nullptr,
                              {u"short", std::u16string(40000, u'x')}, nullptr, 0));
    if (!ovtest::IsWin32Platform()) {
        EXPECT_TRUE(LogLines().empty());  // not even a part of a line
    }
    OVTEST_SKIP_UNDER_WINE(kNoStoredLog);
    EXPECT_TRUE(evtest::EntriesOf(source_).empty());
}

TEST_F(EventLog, ADeregisteredSourceIsAnInvalidHandle) {
    HANDLE log = RegisterEventSourceW(u"", source16_);
    ASSERT_NE(log, nullptr);
    ASSERT_TRUE(DeregisterEventSource(log));
    OVTEST_SKIP_UNDER_WINE("its event-log handles are never checked");
    OVTEST_EXPECT_FAIL(DeregisterEventSource(log), ERROR_INVALID_HANDLE);
    OVTEST_EXPECT_FAIL(ReportEventW(log, EVENTLOG_ERROR_TYPE, 0, 0, nullptr, {u"x"}, nullptr, 0),
                       ERROR_INVALID_HANDLE);
}

TEST_F(EventLog, SourcesOnlyOnTheLocalMachine) {
    OVTEST_SKIP_UNDER_WINE("it gives every server name a source");
    SetLastError(kPoison);
    EXPECT_EQ(RegisterEventSourceW(u"\\\\elsewhere", source16_), nullptr);
    EXPECT_NE(GetLastError(), kPoison);
}

TEST_F(EventLog, EntriesGoToTheCurrentMachineRoot) {
    OVTEST_EMBEDDED_ONLY("each machine root has its own event-log file");
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

// Reports `count` warnings under source `source`, tagged `tag`.
OVTEST_CHILD(eventlog_writer) {
    const std::u16string source = ovtest::U16(args.at(0));
    const std::string tag = args.at(1);
    const int count = std::stoi(args.at(2));
    UniqueEventSource log(RegisterEventSourceW(u"", source));
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
            "eventlog_writer", {source_, "w" + std::to_string(p), std::to_string(kEntries)}));
    }
    for (auto& child : children) {
        ASSERT_EQ(child.Wait(std::chrono::seconds(60)), 0) << child.output();
    }
    OVTEST_SKIP_UNDER_WINE(kNoStoredLog);
    if (!ovtest::IsWin32Platform()) {
        // Every line whole: the log file holds nothing but these entries.
        for (const auto& line : LogLines()) {
            ASSERT_EQ(Fields(line).size(), 4u) << line;
        }
    }
    const auto entries = evtest::EntriesOf(source_);
    ASSERT_EQ(entries.size(), static_cast<std::size_t>(kProcesses * kEntries));
    std::set<std::string> seen;
    const std::string padding(600, 'p');
    for (const auto& entry : entries) {
        EXPECT_EQ(entry.type, "Warning");
        const std::string& text = entry.text;
        ASSERT_GE(text.size(), padding.size());
        ASSERT_EQ(text.substr(text.size() - padding.size()), padding) << text;
        seen.insert(text.substr(0, text.size() - padding.size()));
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(kProcesses * kEntries));
}

}  // namespace
