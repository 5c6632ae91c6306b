// Nothing thrown inside the module crosses an entry point.
#include "common/boundary.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "config/product_key.h"
#include "ovtest.h"
#include "platform/registry.h"
#include "trace/trace.h"

namespace ovsvc {
namespace {

class BoundaryTest : public ovtest::MachineTest {};

TEST_F(BoundaryTest, EscapedExceptionsBecomeTheFailureResultAndOneTraceLine) {
    const std::string path = root() + "/trace.log";
    {
        platform::UniqueKey key;
        ASSERT_EQ(platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, kProductKey, 0,
                                            platform::KEY_ALL_ACCESS, &key, nullptr),
                  0);
        const platform::DWORD level = 1;
        platform::RegSetValueExW(key.get(), u"DebugLevel", platform::REG_DWORD, &level, 4);
        const std::u16string file = ovtest::U16(path);
        platform::RegSetValueExW(key.get(), u"DebugFile", platform::REG_SZ, file.c_str(),
                                 static_cast<platform::DWORD>((file.size() + 1) * 2));
    }
    ResetTraceStateForTesting();
    struct Case {
        void (*thrower)();
        const char* line;
    };
    const Case cases[] = {
        {[] { throw std::bad_alloc(); }, "Entry: out of memory escaped; the call fails"},
        {[] { throw std::runtime_error("broken"); }, "Entry: broken escaped; the call fails"},
        {[] { throw 42; }, "Entry: an unknown exception escaped; the call fails"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(RunAtBoundary("Entry", -1,
                                [&] {
                                    c.thrower();
                                    return 0;
                                }),
                  -1);
        std::ifstream in(path);
        std::stringstream text;
        text << in.rdbuf();
        EXPECT_NE(text.str().find(c.line), std::string::npos) << c.line;
    }
    EXPECT_EQ(RunAtBoundary("Entry", -1, [] { return 7; }), 7);
    bool ran = false;
    RunAtBoundary("Entry", [&] { ran = true; });
    EXPECT_TRUE(ran);
    ResetTraceStateForTesting();
}

}  // namespace
}  // namespace ovsvc
