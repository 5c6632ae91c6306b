// The channel's timeouts as read from the product key.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "channel/timeouts.h"
#include "ovtest.h"
#include "platform/registry.h"
#include "trace/trace.h"

namespace {

class TimeoutsTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        ovsvc::ResetTraceStateForTesting();
    }
    void Set(const std::u16string& name, platform::DWORD type, const void* data,
             platform::DWORD size) {
        platform::UniqueKey key;
        ASSERT_EQ(
            platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, u"Software\\Orvelle\\Ovaspool",
                                      0, platform::KEY_ALL_ACCESS, &key, nullptr),
            platform::ERROR_SUCCESS);
        ASSERT_EQ(platform::RegSetValueExW(key.get(), name, type, data, size),
                  platform::ERROR_SUCCESS);
    }
    void SetDword(const std::u16string& name, std::uint32_t value) {
        Set(name, platform::REG_DWORD, &value, sizeof(value));
    }
    std::string EnableTrace() {
        const std::string path = root() + "/trace.log";
        SetDword(u"DebugLevel", 0xFF);
        const std::u16string file = ovtest::U16(path);
        Set(u"DebugFile", platform::REG_SZ, file.c_str(),
            static_cast<platform::DWORD>((file.size() + 1) * 2));
        return path;
    }
    static std::string Read(const std::string& path) {
        std::ifstream in(path);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
};

TEST_F(TimeoutsTest, DefaultsWithoutTheProductKey) {
    EXPECT_EQ(ovsvc::QueryTimeOutValue(301), 5000u);
    EXPECT_EQ(ovsvc::QueryTimeOutValue(302), 120000u);
}

TEST_F(TimeoutsTest, RegistryValuesAreTakenAndLogged) {
    const std::string trace = EnableTrace();
    SetDword(u"TimeOutService", 750);
    SetDword(u"TimeOutClient", 0);
    EXPECT_EQ(ovsvc::QueryTimeOutValue(301), 750u);
    EXPECT_EQ(ovsvc::QueryTimeOutValue(302), 0u);
    const std::string text = Read(trace);
    EXPECT_NE(text.find("Read Regvalue OK TimeOutService=750"), std::string::npos) << text;
    EXPECT_NE(text.find("Read Regvalue OK TimeOutClient=0"), std::string::npos) << text;
}

TEST_F(TimeoutsTest, ValuesOfTheWrongTypeOrSizeKeepTheDefault) {
    const std::string trace = EnableTrace();
    const std::u16string text = u"1000";
    Set(u"TimeOutService", platform::REG_SZ, text.c_str(), 10);
    Set(u"TimeOutClient", platform::REG_DWORD, nullptr, 0);
    EXPECT_EQ(ovsvc::QueryTimeOutValue(301), 5000u);
    EXPECT_EQ(ovsvc::QueryTimeOutValue(302), 120000u);
    EXPECT_NE(Read(trace).find("Read Regvalue NOTOK TimeOutService=5000"), std::string::npos);
}

TEST_F(TimeoutsTest, OtherIdsGiveZeroAndLogNothing) {
    const std::string trace = EnableTrace();
    SetDword(u"TimeOutService", 750);
    EXPECT_EQ(ovsvc::QueryTimeOutValue(300), 0u);
    EXPECT_EQ(ovsvc::QueryTimeOutValue(303), 0u);
    EXPECT_EQ(ovsvc::QueryTimeOutValue(0), 0u);
    EXPECT_EQ(Read(trace).find("Read Regvalue"), std::string::npos);
}

}  // namespace
