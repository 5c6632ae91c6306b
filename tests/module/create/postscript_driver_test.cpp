// Generated PostScript drivers: a copy of the template driver under a new
// name, with the client's PPD or the template's own as its data file, and
// no temporary file left in the driver directory.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "create/packed_ppd.h"
#include "create/postscript_driver.h"
#include "ovtest.h"
#include "platform/kernel.h"
#include "platform/spooler.h"

namespace ovsvc {
namespace {

namespace fs = std::filesystem;

constexpr char kTemplatePpd[] = "*PPD-Adobe: \"4.3\"\n*ModelName: \"Template\"\n";

std::string HostText(std::u16string_view path) {
    std::ifstream in(platform::HostPath(path), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::u16string FileName(std::u16string_view path) {
    return std::u16string(path.substr(path.find_last_of(u'\\') + 1));
}

class PostScriptDriverTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        MachineTest::SetUp();
        OVTEST_EMBEDDED_ONLY("installs drivers into the embedded spooler");
        const auto directory = platform::GetPrinterDriverDirectoryW(u"", u"Windows x64", 1);
        ASSERT_TRUE(directory);
        directory_ = *directory;
        platform::DriverInfo6 info;
        info.name = kPostScriptTemplateDriver;
        info.environment = platform::kEnvironmentX64;
        const std::vector<std::pair<std::u16string, std::string>> files = {
            {u"tdrv.dll", "driver"}, {u"TEMPLATE.PPD", kTemplatePpd},
            {u"tui.dll", "ui"},      {u"ovps.ini", "ini"},
            {u"ovps.dll", "dll"},    {u"t.ntf", "ntf"}};
        for (const auto& [name, text] : files) {
            std::ofstream(platform::HostPath(directory_ + u'\\' + name)) << text;
        }
        info.driverPath = u"tdrv.dll";
        info.dataFile = u"TEMPLATE.PPD";
        info.configFile = u"tui.dll";
        info.dependentFiles = {u"ovps.ini", u"ovps.dll", u"t.ntf"};
        ASSERT_TRUE(platform::AddPrinterDriverW(u"", 6, info)) << platform::GetLastError();
        for (const auto& [name, text] : files) {
            platform::DeleteFileW(directory_ + u'\\' + name);
        }
    }
    // Files directly in the driver directory.
    std::set<std::string> DirectoryFiles() const {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(platform::HostPath(directory_))) {
            if (entry.is_regular_file()) {
                names.insert(entry.path().filename().string());
            }
        }
        return names;
    }
    static std::optional<platform::DriverInfo6> Driver(std::u16string_view name) {
        auto drivers = platform::EnumPrinterDriversW(u"", u"Windows x64", 6);
        for (auto& d : drivers.value()) {
            if (d.name == name) {
                return d;
            }
        }
        return std::nullopt;
    }
    std::u16string directory_;
};

TEST_F(PostScriptDriverTest, DriverGetsTheClientsPpdOrTheTemplatesWithoutItsOwnFiles) {
    const std::string own = "*PPD-Adobe: \"4.3\"\n*ModelName: \"Client\"\n";
    const std::vector<std::byte> packed = PackPpd({own});
    const std::string unsigned_ = "XXXXX" + std::string(20, 'x');
    struct Case {
        const char* what;
        const void* data;
        std::size_t size;
        std::string dataFile;
        std::set<std::u16string> dependents;
    };
    const std::set<std::u16string> all = {u"ovps.ini", u"ovps.dll", u"t.ntf"};
    const Case cases[] = {
        {"own PPD", packed.data(), packed.size(), own, all},
        {"no PPD", nullptr, 0, kTemplatePpd, {u"t.ntf"}},
        {"unsigned data", unsigned_.data(), unsigned_.size(), kTemplatePpd, {u"t.ntf"}},
    };
    const std::set<std::string> before = DirectoryFiles();
    const std::regex generated("OV PS Driver [0-9A-F]{12}[0-9a-f]{4}[0-9A-F]{16}");
    std::set<std::u16string> names;
    for (const Case& c : cases) {
        std::u16string name;
        {
            PostScriptDriver driver(c.data, static_cast<std::uint32_t>(c.size));
            ASSERT_EQ(driver.GetError(), 0u) << c.what;
            ASSERT_NE(driver.Install(kPostScriptDriverBase), 0) << c.what;
            name = driver.GetNewDriverName();
        }
        EXPECT_TRUE(std::regex_match(ovtest::U8(name), generated)) << ovtest::U8(name);
        names.insert(name);
        const auto installed = Driver(name);
        ASSERT_TRUE(installed) << c.what;
        EXPECT_EQ(HostText(installed->dataFile), c.dataFile) << c.what;
        EXPECT_EQ(FileName(installed->dataFile), name + u".ppd");
        EXPECT_EQ(FileName(installed->driverPath), u"tdrv.dll");
        EXPECT_EQ(installed->mfgName, u"Orvelle");
        std::set<std::u16string> dependents;
        for (const auto& file : installed->dependentFiles) {
            dependents.insert(FileName(file));
        }
        EXPECT_EQ(dependents, c.dependents) << c.what;
        EXPECT_EQ(DirectoryFiles(), before) << c.what << ": temporary files left";

        // Deleting it takes its PPD from the store, never the template's files.
        ASSERT_TRUE(DeletePostScriptDriver(name));
        EXPECT_FALSE(Driver(name));
        EXPECT_FALSE(fs::exists(platform::HostPath(installed->dataFile)));
        EXPECT_EQ(HostText(Driver(kPostScriptTemplateDriver)->dataFile), kTemplatePpd);
    }
    EXPECT_EQ(names.size(), std::size(cases));
}

TEST_F(PostScriptDriverTest, MissingTemplateOrBadPpdInstallsNothing) {
    PostScriptDriver missing(nullptr, 0, u"No Such Template");
    EXPECT_EQ(missing.GetError(), 2u);
    EXPECT_EQ(missing.Install(kPostScriptDriverBase), 0);

    const std::set<std::string> before = DirectoryFiles();
    const std::size_t drivers = platform::EnumPrinterDriversW(u"", u"Windows x64", 6)->size();
    std::vector<std::byte> cut = PackPpd({std::string(4000, 'p')});
    cut.resize(cut.size() - 8);
    std::vector<std::byte> bomb = PackPpd({std::string(4 << 20, '\0')});
    for (const auto* data : {&cut, &bomb}) {
        {
            PostScriptDriver driver(data->data(), static_cast<std::uint32_t>(data->size()));
            ASSERT_EQ(driver.GetError(), 0u);
            EXPECT_EQ(driver.Install(kPostScriptDriverBase), 0);
        }
        EXPECT_EQ(DirectoryFiles(), before);
        EXPECT_EQ(platform::EnumPrinterDriversW(u"", u"Windows x64", 6)->size(), drivers);
    }
}

}  // namespace
}  // namespace ovsvc
