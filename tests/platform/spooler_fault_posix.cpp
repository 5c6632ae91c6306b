// The embedded machine's switch that makes chosen platform calls fail.
#include <gtest/gtest.h>

#include "ovtest.h"
#include "platform/machine.h"
#include "platform/spooler.h"

namespace {

using namespace platform;

class FaultSwitchTest : public ovtest::MachineTest {};

TEST_F(FaultSwitchTest, NthCallOrEveryCallFailsWithTheGivenError) {
    struct Case {
        const char* rule;
        std::vector<DWORD> errors;  // of four calls of OpenPrinterW, 0 for success
    };
    const Case cases[] = {
        {"2:5", {0, 5, 0, 0}},    {"*:1801", {1801, 1801, 1801, 1801}},
        {"0:5", {0, 0, 0, 0}},     // malformed: ignored
        {"2:five", {0, 0, 0, 0}},  // malformed: ignored
        {"", {0, 0, 0, 0}},
    };
    for (const Case& c : cases) {
        machine::SetSetting("fault.OpenPrinterW", c.rule);
        std::vector<DWORD> seen;
        for (int i = 0; i < 4; ++i) {
            SetLastError(0xDEAD);
            const UniquePrinter printer = OpenPrinterW(u"");  // the local server
            seen.push_back(printer ? 0 : GetLastError());
        }
        EXPECT_EQ(seen, c.errors) << c.rule;
    }
}

}  // namespace
