#include <gtest/gtest.h>

#include "ovtest.h"
#include "platform/machine.h"

int main(int argc, char** argv) {
    if (int rc = ovtest::RunChildIfRequested(argc, argv); rc >= 0) {
        return rc;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
