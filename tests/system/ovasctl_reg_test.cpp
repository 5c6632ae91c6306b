// ovasctl reg, run as a separate program against the test's machine.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "ovtest.h"
#include "platform/registry.h"

using namespace platform;

namespace {

class OvasctlRegTest : public ovtest::MachineTest {
  protected:
    // Runs ovasctl; returns its exit code and leaves its output in out_.
    int Run(const std::vector<std::string>& args) {
        auto process = ovtest::Process::Start(ovtest::BinDir() + "/ovasctl", args);
        const int code = process.Wait(std::chrono::seconds(60));
        out_ = process.output();
        return code;
    }
    std::string out_;
};

constexpr char kProduct[] = "HKLM\\Software\\Orvelle\\Ovaspool";

}  // namespace

TEST_F(OvasctlRegTest, SetThenGetInEveryNotation) {
    ASSERT_EQ(Run({"reg", "set", kProduct, "DebugLevel", "dword:000000ff"}), 0) << out_;
    ASSERT_EQ(Run({"reg", "set", kProduct, "DebugFile", "C:\\ovsvc\\trace.log"}), 0) << out_;
    ASSERT_EQ(Run({"reg", "set", kProduct, "NameTranslationEx", "--type", "multi_sz", "a", "b"}), 0)
        << out_;
    ASSERT_EQ(Run({"reg", "set", kProduct, "TimeOutClient", "--type", "dword", "120000"}), 0)
        << out_;

    // What the module would read.
    UniqueKey key;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, u"Software\\Orvelle\\Ovaspool", 0, KEY_READ, &key),
              ERROR_SUCCESS);
    DWORD value = 0;
    DWORD size = sizeof value;
    DWORD type = 0;
    ASSERT_EQ(RegQueryValueExW(key.get(), u"TimeOutClient", &type, &value, &size), ERROR_SUCCESS);
    EXPECT_EQ(type, REG_DWORD);
    EXPECT_EQ(value, 120000u);
    RegistryValue file;
    ASSERT_EQ(RegGetValue(key.get(), u"DebugFile", &file), ERROR_SUCCESS);
    EXPECT_EQ(file.type, REG_SZ);
    EXPECT_EQ(file.data.size(), 38u) << "18 characters and the terminator";

    ASSERT_EQ(Run({"reg", "get", "HKEY_LOCAL_MACHINE\\software\\orvelle\\ovaspool", "debuglevel"}),
              0);
    EXPECT_EQ(out_, "dword:000000ff\n");
    ASSERT_EQ(Run({"reg", "get", kProduct, "NameTranslationEx", "--json"}), 0);
    EXPECT_NE(out_.find("\"value\":[\"a\",\"b\"]"), std::string::npos) << out_;
    ASSERT_EQ(Run({"reg", "get", kProduct}), 0);
    EXPECT_NE(out_.find("DebugFile"), std::string::npos);
    EXPECT_NE(out_.find("\"C:\\\\ovsvc\\\\trace.log\""), std::string::npos) << out_;
}

TEST_F(OvasctlRegTest, ErrorsExitNonZeroWithAReason) {
    EXPECT_EQ(Run({"reg", "get", kProduct, "Missing"}), 1);
    EXPECT_NE(out_.find("not found"), std::string::npos) << out_;
    EXPECT_EQ(Run({"reg", "get", "HKCU\\Software"}), 1);
    EXPECT_NE(out_.find("unknown root key"), std::string::npos) << out_;
    EXPECT_EQ(Run({"reg", "set", kProduct, "X", "--type", "dword", "4294967296"}), 1);
    EXPECT_EQ(Run({"reg", "set", kProduct, "X", "dword:xyz"}), 1);
    EXPECT_EQ(Run({"reg", "delete", "HKLM"}), 1);
}

TEST_F(OvasctlRegTest, ExportThenImportRestoresTheKey) {
    ASSERT_EQ(Run({"reg", "set", kProduct, "DebugLevel", "dword:00000003"}), 0);
    ASSERT_EQ(Run({"reg", "set", kProduct, "Bin", "hex:00,01,02"}), 0);
    const std::string utf16 = root() + "/saved16.reg";
    const std::string utf8 = root() + "/saved8.reg";
    ASSERT_EQ(Run({"reg", "export", "HKLM\\Software\\Orvelle", utf16, "--utf16"}), 0) << out_;
    ASSERT_EQ(Run({"reg", "export", "HKLM\\Software\\Orvelle", utf8}), 0) << out_;
    {
        std::ifstream in(utf16, std::ios::binary);
        char bom[2] = {};
        in.read(bom, 2);
        EXPECT_EQ(bom[0], '\xFF');
        EXPECT_EQ(bom[1], '\xFE');
    }
    for (const auto& path : {utf16, utf8}) {
        SCOPED_TRACE(path);
        ASSERT_EQ(Run({"reg", "delete", "HKLM\\Software\\Orvelle"}), 0) << out_;
        ASSERT_EQ(Run({"reg", "get", kProduct}), 1);
        ASSERT_EQ(Run({"reg", "import", path}), 0) << out_;
        ASSERT_EQ(Run({"reg", "get", kProduct, "Bin"}), 0);
        EXPECT_EQ(out_, "hex:00,01,02\n");
    }
}

TEST_F(OvasctlRegTest, AMalformedImportNamesItsLineAndChangesNothing) {
    const std::string path = root() + "/bad.reg";
    // A key no other test (or earlier run on a real machine) has made.
    const std::string key = "HKLM\\Software\\OvasctlTest\\" + ovtest::UniqueName("bad");
    {
        std::ofstream out(path);
        out << "Windows Registry Editor Version 5.00\n\n[" << key << "]\n"
            << "\"DebugLevel\"=dword:1\n\"Broken\"=hex:0g\n";
    }
    EXPECT_EQ(Run({"reg", "import", path}), 1);
    EXPECT_NE(out_.find("line 5: invalid byte"), std::string::npos) << out_;
    EXPECT_EQ(Run({"reg", "get", key}), 1) << "nothing of the file was applied";
}
