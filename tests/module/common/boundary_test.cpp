// Nothing thrown inside the module crosses an entry point.
#include "common/boundary.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "config/product_key.h"
#include "ovtest.h"
#include "platform/registry.h"
#include "product_settings.h"
#include "trace/trace.h"

namespace ovsvc {
namespace {

class BoundaryTest : public ovtest::MachineTest {};

TEST_F(BoundaryTest, EscapedExceptionsBecomeTheFailureResultAndOneTraceLine) {
    const std::string path = ovtest::EnableTrace(root(), 1);
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
        EXPECT_NE(ovtest::ReadText(path).find(c.line), std::string::npos) << c.line;
    }
    EXPECT_EQ(RunAtBoundary("Entry", -1, [] { return 7; }), 7);
    bool ran = false;
    RunAtBoundary("Entry", [&] { ran = true; });
    EXPECT_TRUE(ran);
    ResetTraceStateForTesting();
}

}  // namespace
}  // namespace ovsvc
