// The trace writer end to end: configuration from the product key, the file,
// filters, line format, life cycle of the effective level and last error.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/module_state.h"
#include "config/product_key.h"
#include "ovtest.h"
#include "platform/error.h"
#include "platform/kernel.h"
#include "platform/registry.h"
#include "trace/trace.h"

namespace {

using namespace ovsvc;
using ovtest::U16;

class TraceLogTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        ResetTraceStateForTesting();
        fIsService = false;
        file_ = root() + "/trace.log";
    }
    void TearDown() override {
        ResetTraceStateForTesting();
        fIsService = false;
        MachineTest::TearDown();
    }

    static platform::UniqueKey ProductKey() {
        platform::UniqueKey key;
        EXPECT_EQ(platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, kProductKey, 0,
                                            platform::KEY_ALL_ACCESS, &key, nullptr),
                  platform::ERROR_SUCCESS);
        return key;
    }
    static void SetDword(std::u16string_view name, std::uint32_t value) {
        auto key = ProductKey();
        ASSERT_EQ(
            platform::RegSetValueExW(key.get(), name, platform::REG_DWORD, &value, sizeof value),
            platform::ERROR_SUCCESS);
    }
    static void SetText(std::u16string_view name, const std::u16string& text,
                        platform::DWORD type = platform::REG_SZ) {
        auto key = ProductKey();
        ASSERT_EQ(platform::RegSetValueExW(key.get(), name, type, text.c_str(),
                                           static_cast<platform::DWORD>((text.size() + 1) * 2)),
                  platform::ERROR_SUCCESS);
    }
    void Configure(std::uint32_t level) {
        SetDword(u"DebugLevel", level);
        SetText(u"DebugFile", U16(file_));
    }

    std::string Content() const {
        std::ifstream in(file_, std::ios::binary);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    // The file's lines without their CR LF (every line must have one).
    std::vector<std::string> Lines() const {
        std::vector<std::string> lines;
        const std::string text = Content();
        std::size_t start = 0;
        for (std::size_t end = text.find("\r\n"); end != std::string::npos;
             end = text.find("\r\n", start)) {
            lines.push_back(text.substr(start, end - start));
            start = end + 2;
        }
        EXPECT_EQ(start, text.size()) << "the file ends in an unfinished line";
        return lines;
    }
    bool Has(const std::string& piece) const { return Content().find(piece) != std::string::npos; }

    std::string file_;
};

// Writes one INF, ERR and WRN line per category, tagged "<level>-<category>".
void WriteEveryLevelAndCategory() {
    for (std::uint32_t category : {NOTH, NORM, MAIN, SYNC, SACL, CACH}) {
        TraceLog("filter.cpp", 1, INF | category, u"INF-%u", category);
        TraceLog("filter.cpp", 1, ERR | category, u"ERR-%u", category);
        TraceLog("filter.cpp", 1, WRN | category, u"WRN-%u", category);
    }
}

TEST_F(TraceLogTest, LineHasDateTimeThreadCodeAndText) {
    Configure(0xFF);
    TraceLog("/src/module/channel/ovaipc.cpp", 111, INF | NORM, u"Hello %s %d", u"world", 42);
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 1u);
    const std::regex shape(
        R"(\d\d\.\d\d\.\d{4} \d\d:\d\d:\d\d:\d{3} Id:\d{3,} _INF_/NORM=01h: ovaipc%111 _CLIENT_ Hello world 42)");
    EXPECT_TRUE(std::regex_match(lines[0], shape)) << lines[0];
    const std::string id = "Id:" + std::to_string(platform::GetCurrentThreadId()) + " ";
    EXPECT_NE(lines[0].find(id), std::string::npos) << lines[0];
}

TEST_F(TraceLogTest, MacroUsesThisSourceFileAndLine) {
    Configure(0xFF);
    const unsigned line = __LINE__ + 1;
    OVTRACE(WRN | MAIN, "value %d", 7);
    EXPECT_TRUE(
        Has("_WRN_/MAIN=02h: trace_log_test%" + std::to_string(line) + " _CLIENT_ value 7\r\n"))
        << Content();
}

TEST_F(TraceLogTest, PrefixOfAHeaderInTheServiceProcess) {
    Configure(0xFF);
    fIsService = true;
    TraceLog("include/Foo.h", 12, INF | NORM, u"text");
    EXPECT_TRUE(Has(": Foo%%12 _SVC_ text\r\n")) << Content();
}

TEST_F(TraceLogTest, MaskOfCacheOnlyPassesErrorsWarningsAndCacheInfo) {
    Configure(0x10);
    WriteEveryLevelAndCategory();
    for (std::uint32_t category : {NOTH, NORM, MAIN, SYNC, SACL, CACH}) {
        const std::string c = std::to_string(category);
        EXPECT_TRUE(Has(" _CLIENT_ ERR-" + c + "\r\n")) << c;
        EXPECT_TRUE(Has(" _CLIENT_ WRN-" + c + "\r\n")) << c;
        EXPECT_EQ(Has(" _CLIENT_ INF-" + c + "\r\n"), category == CACH) << c;
    }
    EXPECT_EQ(Lines().size(), 13u);
}

TEST_F(TraceLogTest, TopByteOfTheMaskIsIgnored) {
    Configure(0xFF000004);
    for (std::uint32_t category : {NOTH, NORM, MAIN, SYNC, SACL, CACH}) {
        TraceLog("f.cpp", 1, INF | category, u"INF-%u", category);
        TraceLog("f.cpp", 1, RAW | category, u"");
    }
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 2u) << Content();
    EXPECT_NE(lines[0].find("_INF_/SYNC=04h: f%1 _CLIENT_ INF-4"), std::string::npos);
    EXPECT_NE(lines[1].find("_RAW_/SYNC=04h    no data"), std::string::npos) << lines[1];
}

TEST_F(TraceLogTest, UnknownLevelIsShownInHexAndFilteredLikeInfo) {
    Configure(NORM);
    TraceLog("f.cpp", 1, 0x05000000 | NORM, u"odd");
    TraceLog("f.cpp", 1, 0x05000000 | MAIN, u"filtered");
    EXPECT_TRUE(Has("_?5000000_/NORM=01h: f%1 _CLIENT_ odd\r\n")) << Content();
    EXPECT_FALSE(Has("filtered"));
}

TEST_F(TraceLogTest, RawLinesDumpTheData) {
    Configure(NORM);
    unsigned char data[20];
    for (int i = 0; i < 20; ++i) {
        data[i] = static_cast<unsigned char>('a' + i);
    }
    TraceWrite(u"ignored", RAW | NORM, data, 20);
    TraceWrite(u"ignored", RAW | NORM, data, 0);
    const auto lines = Lines();
    // The first row follows the code piece, the second stands alone, and the
    // line's own end follows the rows.
    ASSERT_EQ(lines.size(), 4u) << Content();
    EXPECT_NE(lines[0].find("_RAW_/NORM=01h    61 62 63 64 65 66 67 68 69 6a 6b 6c 6d 6e 6f 70 "
                            "  :abcdefghijklmnop"),
              std::string::npos)
        << lines[0];
    EXPECT_EQ(lines[1], "    71 72 73 74   :qrst");
    EXPECT_EQ(lines[2], "");
    EXPECT_NE(lines[3].find("_RAW_/NORM=01h    no data"), std::string::npos) << lines[3];
    EXPECT_FALSE(Has("ignored"));
}

TEST_F(TraceLogTest, ChecksAreErrorAndInfoLinesWithTheExpression) {
    Configure(NORM);
    TraceCheck("pthePrinterList != NULL", "cache/list.cpp", 55);
    TraceInfoCheck("!fIsService || pthePrinterList != NULL", "dllmain.cpp", 9);
    EXPECT_TRUE(Has("_ERR_/NORM=01h: list%55 _CLIENT_ pthePrinterList != NULL\r\n")) << Content();
    EXPECT_TRUE(Has("_INF_/NORM=01h: dllmain%9 _CLIENT_ !fIsService || pthePrinterList != NULL"));
}

TEST_F(TraceLogTest, CheckMacroWritesOnlyWhenTheExpressionFails) {
    Configure(NORM);
    const int* nothing = nullptr;
    OVCHECK(nothing == nullptr);
    OVCHECK(nothing != nullptr);
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("_ERR_/NORM=01h: trace_log_test%"), std::string::npos);
    EXPECT_NE(lines[0].find(" _CLIENT_ nothing != nullptr"), std::string::npos) << lines[0];
}

TEST_F(TraceLogTest, DbgMessageTakesTheCategoryFromTheSection) {
    Configure(SYNC | MAIN);
    TraceDbgMessage(u"C:\\src\\Ovaspool.cpp", 321, u"step 100%d", u"DLL: ClientSync()", 0x01000000);
    TraceDbgMessage(u"Ovaspool.c", 5, u"run", u"DLL: OVADLLRunMain()", INF);
    TraceDbgMessage(u"Ovaspool.c", 6, u"norm", u"other section", INF);  // NORM: filtered
    TraceDbgMessage(u"Ovaspool.c", 7, u"kept", u"DLL: ClientSync()", INF | MAIN);
    EXPECT_TRUE(Has("_INF_/SYNC=04h: Ovaspool%321 _CLIENT_ step 100%d\r\n")) << Content();
    EXPECT_TRUE(Has("_INF_/MAIN=02h: Ovaspool%%5 _CLIENT_ run\r\n"));
    EXPECT_FALSE(Has("norm"));
    EXPECT_TRUE(Has("_INF_/MAIN=02h: Ovaspool%%7 _CLIENT_ kept\r\n"));
}

TEST_F(TraceLogTest, LongTextsAreCutAtTheByteLimit) {
    Configure(NORM);
    TraceLog("f.cpp", 1, ERR | NORM, u"%s", std::u16string(20000, u'x'));
    TraceLog("f.cpp", 2, ERR | NORM, u"after");
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 2u);
    const std::size_t text = lines[0].find("=01h") + 4;
    EXPECT_EQ(lines[0].size() - text, 5024u);
    EXPECT_NE(lines[1].find("after"), std::string::npos);
}

TEST_F(TraceLogTest, NonAsciiTextIsWrittenAsUtf8) {
    Configure(NORM);
    TraceLog("f.cpp", 1, ERR | NORM, u"Drucker \u00fcber %s", u"K\u00f6ln");
    EXPECT_TRUE(
        Has("Drucker \xc3\xbc"
            "ber K\xc3\xb6ln\r\n"))
        << Content();
}

TEST_F(TraceLogTest, LinesAreAppendedToAnExistingFile) {
    {
        std::ofstream out(file_, std::ios::binary);
        out << "earlier\r\n";
    }
    Configure(NORM);
    TraceLog("f.cpp", 1, ERR | NORM, u"one");
    TraceLog("f.cpp", 2, ERR | NORM, u"two");
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "earlier");
}

TEST_F(TraceLogTest, WindowsPathsLandInTheMachineRoot) {
    std::filesystem::create_directories(platform::HostPath(u"C:\\ovtrace"));
    SetDword(u"DebugLevel", NORM);
    SetText(u"DebugFile", u"C:\\ovtrace\\trace.log");
    TraceLog("f.cpp", 1, ERR | NORM, u"windows path");
    file_ = platform::HostPath(u"C:\\ovtrace\\trace.log");
    EXPECT_EQ(file_.rfind(root(), 0), 0u) << file_;
    EXPECT_TRUE(Has("windows path\r\n"));
}

TEST_F(TraceLogTest, ChangedMaskAndPathTakeEffectWithTheNextLine) {
    Configure(NORM);
    TraceLog("f.cpp", 1, INF | MAIN, u"before");
    SetDword(u"DebugLevel", MAIN);
    TraceLog("f.cpp", 2, INF | MAIN, u"after");
    EXPECT_FALSE(Has("before"));
    EXPECT_TRUE(Has("after"));

    const std::string second = root() + "/second.log";
    SetText(u"DebugFile", U16(second));
    TraceLog("f.cpp", 3, INF | MAIN, u"moved");
    EXPECT_FALSE(Has("moved"));
    file_ = second;
    EXPECT_TRUE(Has("moved"));
}

TEST_F(TraceLogTest, NoDebugLevelSwitchesTracingOffForGood) {
    SetText(u"DebugFile", U16(file_));
    EXPECT_TRUE(TraceEnabled());  // not read yet
    TraceLog("f.cpp", 1, ERR | NORM, u"first");
    EXPECT_FALSE(TraceEnabled());
    // Configured afterwards: the registry is not read again by this process.
    SetDword(u"DebugLevel", 0xFF);
    TraceLog("f.cpp", 2, ERR | NORM, u"second");
    TraceWrite(u"third", ERR | NORM);
    TraceDbgMessage(u"x.cpp", 1, u"fourth", u"", ERR);
    EXPECT_FALSE(std::filesystem::exists(file_));
}

int g_evaluations = 0;
int Evaluated() {
    return ++g_evaluations;
}

TEST_F(TraceLogTest, MacroArgumentsAreEvaluatedOnlyWhileTracingIsOn) {
    Configure(NORM);
    g_evaluations = 0;
    OVTRACE(INF | NORM, "on %d", Evaluated());
    EXPECT_EQ(g_evaluations, 1);
    EXPECT_TRUE(Has("on 1\r\n"));
    ResetTraceStateForTesting();
    platform::RegDeleteTreeW(platform::HKEY_LOCAL_MACHINE, kProductKey);
    OVTRACE(INF | NORM, "reads the registry");
    ASSERT_FALSE(TraceEnabled());
    OVTRACE(INF | NORM, "off %d", Evaluated());
    EXPECT_EQ(g_evaluations, 1);
}

TEST_F(TraceLogTest, TracingComesBackOnlyInANewProcess) {
    TraceLog("f.cpp", 1, ERR | NORM, u"no key at all");
    EXPECT_FALSE(TraceEnabled());
    Configure(NORM);
    ResetTraceStateForTesting();  // what a new process would see
    TraceLog("f.cpp", 2, ERR | NORM, u"back");
    EXPECT_TRUE(Has("back"));
}

TEST_F(TraceLogTest, ZeroOrOnlyTopByteMasksAreOff) {
    for (std::uint32_t level : {0u, 0xFF000000u}) {
        ResetTraceStateForTesting();
        Configure(level);
        TraceLog("f.cpp", 1, ERR | NORM, u"zero");
        EXPECT_FALSE(TraceEnabled()) << level;
    }
    EXPECT_FALSE(std::filesystem::exists(file_));
}

TEST_F(TraceLogTest, ValuesOfTheWrongTypeOrSizeAreOff) {
    struct Case {
        const char* name;
        void (*setup)(const std::string& file);
    };
    const Case cases[] = {
        {"level as text",
         [](const std::string& file) {
             SetText(u"DebugLevel", u"255");
             SetText(u"DebugFile", U16(file));
         }},
        {"file as expandable text",
         [](const std::string& file) {
             SetDword(u"DebugLevel", 0xFF);
             SetText(u"DebugFile", U16(file), platform::REG_EXPAND_SZ);
         }},
        {"file missing", [](const std::string&) { SetDword(u"DebugLevel", 0xFF); }},
        {"file path of 260 characters",
         [](const std::string& file) {
             SetDword(u"DebugLevel", 0xFF);
             std::string path = file + "-";
             path.resize(260, 'x');
             SetText(u"DebugFile", U16(path));
         }},
    };
    for (const Case& c : cases) {
        ResetTraceStateForTesting();
        platform::RegDeleteTreeW(platform::HKEY_LOCAL_MACHINE, kProductKey);
        c.setup(file_);
        TraceLog("f.cpp", 1, ERR | NORM, u"wrong");
        EXPECT_FALSE(TraceEnabled()) << c.name;
    }
    EXPECT_FALSE(Has("wrong"));
}

TEST_F(TraceLogTest, PathOf259CharactersIsAccepted) {
    SetDword(u"DebugLevel", NORM);
    std::string path = root() + "/";
    path.resize(259 - 4, 'p');
    path += ".log";
    ASSERT_EQ(path.size(), 259u);
    SetText(u"DebugFile", U16(path));
    TraceLog("f.cpp", 1, ERR | NORM, u"long path");
    file_ = path;
    EXPECT_TRUE(Has("long path"));
}

TEST_F(TraceLogTest, FileInAMissingDirectorySwitchesTracingOff) {
    SetDword(u"DebugLevel", 0xFF);
    const std::string missing = root() + "/no/such/dir/trace.log";
    SetText(u"DebugFile", U16(missing));
    TraceLog("f.cpp", 1, ERR | NORM, u"lost");
    EXPECT_FALSE(TraceEnabled());
    std::filesystem::create_directories(root() + "/no/such/dir");
    TraceLog("f.cpp", 2, ERR | NORM, u"still lost");
    EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST_F(TraceLogTest, LastErrorIsKeptByEveryTraceCall) {
    for (bool configured : {true, false}) {
        ResetTraceStateForTesting();
        if (configured) {
            Configure(0xFF);
        } else {
            platform::RegDeleteTreeW(platform::HKEY_LOCAL_MACHINE, kProductKey);
        }
        const platform::DWORD error = configured ? 1802 : 87;
        platform::SetLastError(error);
        TraceLog("f.cpp", 1, INF | NORM, u"a %d", 1);
        EXPECT_EQ(platform::GetLastError(), error) << configured;
        TraceCheck("x", "f.cpp", 2);
        EXPECT_EQ(platform::GetLastError(), error);
        TraceInfoCheck("x", "f.cpp", 3);
        EXPECT_EQ(platform::GetLastError(), error);
        TraceWrite(u"w", RAW | NORM, "abc", 3);
        EXPECT_EQ(platform::GetLastError(), error);
        TraceDbgMessage(u"f.cpp", 4, u"m", u"", INF);
        EXPECT_EQ(platform::GetLastError(), error);
        ReportServiceEvent(u"event", kEventError, 2);
        EXPECT_EQ(platform::GetLastError(), error);
    }
    // A failing file open inside the writer does not leak its error either.
    ResetTraceStateForTesting();
    SetDword(u"DebugLevel", 0xFF);
    SetText(u"DebugFile", U16(root() + "/missing/dir/t.log"));
    platform::SetLastError(1234);
    TraceLog("f.cpp", 1, ERR | NORM, u"x");
    EXPECT_EQ(platform::GetLastError(), 1234u);
}

TEST_F(TraceLogTest, ThreadsWritingAtOnceKeepTheirLinesWhole) {
    Configure(NORM);
    constexpr int kThreads = 4;
    constexpr int kLines = 100;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i) {
                TraceLog("mt.cpp", 1, INF | NORM, u"thread %d line %d %s", t, i,
                         std::u16string(300, u'.'));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLines));
    const std::regex shape(R"(.* _CLIENT_ thread \d line \d+ \.{300})");
    for (const auto& line : lines) {
        ASSERT_TRUE(std::regex_match(line, shape)) << line;
    }
}

OVTEST_CHILD(trace_writer) {
    const int tag = std::stoi(args.at(0));
    for (int i = 0; i < 200; ++i) {
        TraceLog("proc.cpp", 1, ERR | NORM, u"process %d line %d %s", tag, i,
                 std::u16string(200, u'#'));
    }
    return 0;
}

TEST_F(TraceLogTest, ProcessesAppendingAtOnceLoseNoLine) {
    Configure(NORM);
    std::vector<ovtest::Process> children;
    for (int p = 0; p < 3; ++p) {
        children.push_back(ovtest::Process::StartChild("trace_writer", {std::to_string(p)}));
    }
    for (auto& child : children) {
        ASSERT_EQ(child.Wait(std::chrono::seconds(60)), 0) << child.output();
    }
    const auto lines = Lines();
    EXPECT_EQ(lines.size(), 600u);
    const std::regex shape(R"(.* _CLIENT_ process \d line \d+ #{200})");
    for (const auto& line : lines) {
        ASSERT_TRUE(std::regex_match(line, shape)) << line;
    }
}

}  // namespace
