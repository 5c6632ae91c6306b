// UUIDs, the system directory, the ANSI code page and startup information.
#include <gtest/gtest.h>

#include <set>

#include "ovtest.h"
#include "platform/kernel.h"
#include "platform/process.h"
#include "platform/text.h"

namespace {

using namespace platform;

class SystemText : public ovtest::MachineTest {};

TEST_F(SystemText, UuidsAreRandomVersion4AndPrintAsWindowsDoes) {
    std::set<std::u16string> seen;
    for (int i = 0; i < 64; ++i) {
        GUID g;
        ASSERT_EQ(UuidCreate(&g), RPC_S_OK);
        EXPECT_EQ(g.Data3 >> 12, 4) << "version 4";
        EXPECT_EQ(g.Data4[0] >> 6, 2) << "RFC 4122 variant";
        seen.insert(GuidToString(g));
    }
    EXPECT_EQ(seen.size(), 64u);
    GUID fixed{0x12345678, 0x9ABC, 0x4DEF, {0x8a, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07}};
    EXPECT_EQ(GuidToString(fixed), u"{12345678-9ABC-4DEF-8A01-020304050607}");
}

TEST_F(SystemText, SystemDirectoryAnsiTextAndStartupInfo) {
    const auto system = GetSystemDirectoryW();
    ASSERT_TRUE(system);
    EXPECT_TRUE(NamesEqual(system->substr(system->size() - 9), u"\\System32"))
        << ovtest::U8(*system);
    EXPECT_EQ(AnsiToWide("plain text 123"), u"plain text 123");
    if (!ovtest::IsWin32Platform()) {
        // Windows-1252: the euro sign, curly quotes, Latin-1 letters and the
        // five undefined bytes kept as their own code points.
        EXPECT_EQ(AnsiToWide("\x80\x93\xE9\x81\x9F\xFF"), u"\u20AC\u201C\u00E9\u0081\u0178\u00FF");
        // And back; what the code page lacks becomes '?'.
        EXPECT_EQ(WideToAnsi(u"\u20AC\u201C\u00E9\u0081\u0178\u00FF"), "\x80\x93\xE9\x81\x9F\xFF");
        EXPECT_EQ(WideToAnsi(u"Drucker B\u00FCro \u0416\u4E2D"), "Drucker B\xFCro ??");
    }
    EXPECT_EQ(WideToAnsi(u"plain text 123"), "plain text 123");
    STARTUPINFOW startup;
    startup.dwFlags = 0xDEAD;
    GetStartupInfoW(&startup);
    EXPECT_NE(startup.dwFlags, 0xDEADu);
}

}  // namespace
