// The channel's timeouts as read from the product key.
#include <gtest/gtest.h>

#include "channel/timeouts.h"
#include "ovtest.h"
#include "platform/registry.h"
#include "product_settings.h"
#include "trace/trace.h"

namespace {

class TimeoutsTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        ovsvc::ResetTraceStateForTesting();
    }
    std::string EnableTrace() { return ovtest::EnableTrace(root()); }
};

TEST_F(TimeoutsTest, DefaultsWithoutTheProductKey) {
    EXPECT_EQ(ovsvc::QueryTimeOutValue(301), 5000u);
    EXPECT_EQ(ovsvc::QueryTimeOutValue(302), 120000u);
}

TEST_F(TimeoutsTest, RegistryValuesAreTakenAndLogged) {
    const std::string trace = EnableTrace();
    ovtest::SetProductDword(u"TimeOutService", 750);
    ovtest::SetProductDword(u"TimeOutClient", 0);
    EXPECT_EQ(ovsvc::QueryTimeOutValue(301), 750u);
    EXPECT_EQ(ovsvc::QueryTimeOutValue(302), 0u);
    const std::string text = ovtest::ReadText(trace);
    EXPECT_NE(text.find("Read Regvalue OK TimeOutService=750"), std::string::npos) << text;
    EXPECT_NE(text.find("Read Regvalue OK TimeOutClient=0"), std::string::npos) << text;
}

TEST_F(TimeoutsTest, ValuesOfTheWrongTypeOrSizeKeepTheDefault) {
    const std::string trace = EnableTrace();
    const std::u16string text = u"1000";
    ovtest::SetProductValue(u"TimeOutService", platform::REG_SZ, text.c_str(), 10);
    ovtest::SetProductValue(u"TimeOutClient", platform::REG_DWORD, nullptr, 0);
    EXPECT_EQ(ovsvc::QueryTimeOutValue(301), 5000u);
    EXPECT_EQ(ovsvc::QueryTimeOutValue(302), 120000u);
    EXPECT_NE(ovtest::ReadText(trace).find("Read Regvalue NOTOK TimeOutService=5000"),
              std::string::npos);
}

TEST_F(TimeoutsTest, OtherIdsGiveZeroAndLogNothing) {
    const std::string trace = EnableTrace();
    ovtest::SetProductDword(u"TimeOutService", 750);
    EXPECT_EQ(ovsvc::QueryTimeOutValue(300), 0u);
    EXPECT_EQ(ovsvc::QueryTimeOutValue(303), 0u);
    EXPECT_EQ(ovsvc::QueryTimeOutValue(0), 0u);
    EXPECT_EQ(ovtest::ReadText(trace).find("Read Regvalue"), std::string::npos);
}

}  // namespace
