// Drivers: the driver directory, installing from it into the store,
// enumeration, a printer's driver, and deletion with its files.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/machine.h"
#include "spooler_fixture.h"

namespace {

using namespace platform;
using spooltest::Poison;
using spooltest::Record;
using spooltest::Upper;

namespace fs = std::filesystem;

// The driver directory's path as Windows spells it on a standard installation
// (Windows paths ignore case, and Windows' own spelling varies).
constexpr char16_t kDriverDirectory[] = u"C:\\Windows\\System32\\spool\\drivers\\x64";
constexpr char kNoFileFlagsUnderWine[] =
    "Wine's DeletePrinterDriverExW refuses DPD_DELETE_UNUSED_FILES (ERROR_INVALID_PARAMETER)";
// An environment no spooler knows.
constexpr char16_t kNoSuchEnvironment[] = u"Windows OV Test";

// Windows paths compare without case; the embedded machine spells them exactly.
void ExpectSamePath(const std::u16string& actual, const std::u16string& expected) {
    if (ovtest::IsWin32Platform()) {
        EXPECT_EQ(spooltest::Upper(actual), spooltest::Upper(expected));
    } else {
        EXPECT_EQ(actual, expected);
    }
}

class SpoolerDrivers : public spooltest::SpoolerTest {
  protected:
    void TearDown() override {
        DeleteOwnPrinters();  // first: a driver in use stays
        for (const auto& driver : drivers_) {
            DeletePrinterDriverExW(u"", u"Windows x64", driver, 0, 0);
        }
        std::error_code ignored;
        for (const auto& file : staged_) {
            fs::remove(DirectoryHost() / file, ignored);
            fs::remove(StoreHost() / file, ignored);
        }
        SpoolerTest::TearDown();
    }
    // Where the driver directory is for this test program.
    fs::path DirectoryHost() const {
        if (ovtest::IsWin32Platform()) {
            return fs::path(GetPrinterDriverDirectoryW(u"", u"Windows x64", 1).value_or(u""));
        }
        return fs::path(root()) / "drive_c/Windows/System32/spool/drivers/x64";
    }
    fs::path StoreHost() const { return DirectoryHost() / "3"; }
    // This test's name for a driver file.
    std::u16string File(const std::u16string& base) const { return Tag() + u"-" + base; }
    // Puts a file into the driver directory, as an installer would.
    void Stage(const std::u16string& name, const std::string& content) {
        ASSERT_TRUE(GetPrinterDriverDirectoryW(u"", u"Windows x64", 1).has_value());
        std::ofstream(DirectoryHost() / name) << content;
        staged_.push_back(name);
    }
    // Adds a driver this test removes again.
    bool AddDriver(const DriverInfo6& info) {
        drivers_.push_back(info.name);
        return AddPrinterDriverW(u"", 6, info);
    }
    static DriverInfo6 Driver(const std::u16string& name, const std::u16string& driverFile,
                              const std::u16string& dataFile) {
        DriverInfo6 info;
        info.name = name;
        info.environment = u"Windows x64";
        info.driverPath = driverFile;
        info.dataFile = dataFile;
        info.configFile = u"UNIDRVUI.DLL";
        info.dependentFiles = {u"UNIDRV.DLL"};
        info.mfgName = u"Orvelle";
        return info;
    }
    std::optional<DriverInfo6> Find(const std::u16string& name) {
        auto all = EnumPrinterDriversW(u"", u"Windows x64", 6);
        if (!all) {
            return std::nullopt;
        }
        for (auto& d : *all) {
            if (d.name == name) {
                return d;
            }
        }
        return std::nullopt;
    }

  private:
    std::vector<std::u16string> drivers_;
    std::vector<std::u16string> staged_;
};

TEST_F(SpoolerDrivers, DriverDirectoryIsAWindowsPathInTheMachine) {
    Poison();
    auto dir = GetPrinterDriverDirectoryW(u"", u"Windows x64", 1);
    ASSERT_TRUE(dir.has_value());
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    ExpectSamePath(*dir, kDriverDirectory);
    EXPECT_TRUE(fs::is_directory(DirectoryHost()));
    EXPECT_EQ(GetPrinterDriverDirectoryW(u"", u"", 1), dir);

    std::vector<std::u16string> unknown = {kNoSuchEnvironment};
    if (!ovtest::IsWin32Platform()) {
        unknown.push_back(u"Windows NT x86");  // the embedded machine has x64 only
    }
    for (const auto& environment : unknown) {
        OVTEST_EXPECT_FAIL(GetPrinterDriverDirectoryW(u"", environment, 1).has_value(),
                           ERROR_INVALID_ENVIRONMENT);
    }
    OVTEST_EXPECT_FAIL(GetPrinterDriverDirectoryW(u"", u"Windows x64", 2).has_value(),
                       ERROR_INVALID_LEVEL);
}

TEST_F(SpoolerDrivers, FreshMachineHasTheGenericDriverWithStorePaths) {
    Poison();
    auto generic = Find(u"Generic / Text Only");
    ASSERT_TRUE(generic.has_value());
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(generic->cVersion, 3u);
    EXPECT_EQ(generic->environment, u"Windows x64");
    ExpectSamePath(generic->driverPath, kDriverDirectory + std::u16string(u"\\3\\GENTEXT.DLL"));
    EXPECT_TRUE(fs::exists(StoreHost() / "GENTEXT.DLL"));
    ASSERT_EQ(generic->dependentFiles.size(), 1u);
    OVTEST_EXPECT_FAIL(EnumPrinterDriversW(u"", u"Windows x64", 7).has_value(),
                       ERROR_INVALID_LEVEL);
}

TEST_F(SpoolerDrivers, AddCopiesFilesFromTheDriverDirectoryIntoTheStore) {
    const auto driverFile = File(u"OVPRN.DLL");
    const auto dataFile = File(u"ovrp.gpd");
    const auto driverName = Name(u"OV Relay Printer");
    Stage(driverFile, "driver");
    Stage(dataFile, "data");
    OVTEST_ASSERT_OK(AddDriver(Driver(driverName, driverFile, dataFile)));
    EXPECT_TRUE(fs::exists(StoreHost() / driverFile));
    EXPECT_TRUE(fs::exists(StoreHost() / dataFile));

    auto added = Find(driverName);
    ASSERT_TRUE(added.has_value());
    ExpectSamePath(added->dataFile, kDriverDirectory + (u"\\3\\" + dataFile));

    auto info = Record(Name(u"Relay"));
    info.driverName = driverName;
    auto printer = AddPrinterW(u"", info);
    ASSERT_TRUE(printer);
    Poison();
    auto driver = GetPrinterDriverW(printer.get(), u"", 2);
    ASSERT_TRUE(driver.has_value());
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(driver->name, driverName);
    EXPECT_TRUE(driver->driverPath.ends_with(u"\\" + driverFile));
    OVTEST_EXPECT_FAIL(GetPrinterDriverW(printer.get(), kNoSuchEnvironment, 2).has_value(),
                       ERROR_INVALID_ENVIRONMENT);
    if (!ovtest::IsWin32Platform()) {
        // The embedded machine knows no environment but x64.
        OVTEST_EXPECT_FAIL(GetPrinterDriverW(printer.get(), u"Windows 4.0", 2).has_value(),
                           ERROR_INVALID_ENVIRONMENT);
    }
}

TEST_F(SpoolerDrivers, AddKeepsTheLevel6Fields) {
    OVTEST_SKIP_UNDER_WINE("Wine's AddPrinterDriverW keeps the level-3 fields only");
    const auto driverFile = File(u"MFG.DLL");
    Stage(driverFile, "driver");
    auto info = Driver(Name(u"Manufactured"), driverFile, u"");
    info.driverVersion = 0x0006000100020003;
    info.hardwareId = u"ovrelay_printer";
    info.provider = u"Orvelle Ltd";
    ASSERT_TRUE(AddDriver(info));
    auto added = Find(info.name);
    ASSERT_TRUE(added.has_value());
    EXPECT_EQ(added->mfgName, u"Orvelle");
    EXPECT_EQ(added->driverVersion, info.driverVersion);
    EXPECT_EQ(added->hardwareId, info.hardwareId);
    EXPECT_EQ(added->provider, info.provider);
}

TEST_F(SpoolerDrivers, AddTakesFullPathsAndCopiesAnotherDriversRecord) {
    // The way a copy of an installed driver is made: its record, with a new
    // name and a new data file staged in the driver directory.
    const auto ppd = File(u"copy.ppd");
    Stage(ppd, "*PPD-Adobe");
    auto generic = Find(u"Generic / Text Only");
    ASSERT_TRUE(generic.has_value());
    DriverInfo6 copy = *generic;
    copy.name = Name(u"OV PS Driver 0123456789ABCDEF0123456789ABCDEF");
    copy.dataFile = *GetPrinterDriverDirectoryW(u"", u"Windows x64", 1) + u"\\" + ppd;
    ASSERT_TRUE(AddDriver(copy));
    auto added = Find(copy.name);
    ASSERT_TRUE(added.has_value());
    EXPECT_EQ(added->driverPath, generic->driverPath);
    EXPECT_TRUE(added->dataFile.ends_with(u"\\3\\" + ppd));
}

TEST_F(SpoolerDrivers, AddWithAWrongLevelOrEnvironmentAddsNothing) {
    const auto only = File(u"ONLY.DLL");
    const auto half = Name(u"Half");
    Stage(only, "driver");
    OVTEST_EXPECT_FAIL(AddPrinterDriverW(u"", 1, Driver(half, only, u"")), ERROR_INVALID_LEVEL);
    OVTEST_SKIP_UNDER_WINE("Wine's AddPrinterDriverW does not check the environment");
    auto wrongEnvironment = Driver(half, only, u"");
    wrongEnvironment.environment = kNoSuchEnvironment;
    OVTEST_EXPECT_FAIL(AddDriver(wrongEnvironment), ERROR_INVALID_ENVIRONMENT);
    EXPECT_FALSE(Find(half).has_value());
}

TEST_F(SpoolerDrivers, AddWithAMissingFileAddsNothing) {
    OVTEST_SKIP_UNDER_WINE("Wine's AddPrinterDriverW adds a driver whose files are missing");
    const auto only = File(u"ONLY.DLL");
    const auto half = Name(u"Half");
    Stage(only, "driver");
    OVTEST_EXPECT_FAIL(AddDriver(Driver(half, only, File(u"missing.gpd"))), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(Find(half).has_value());
    EXPECT_FALSE(fs::exists(StoreHost() / only));
}

TEST_F(SpoolerDrivers, DeleteIsRefusedWhileAPrinterUsesTheDriver) {
    OVTEST_SKIP_UNDER_WINE(kNoFileFlagsUnderWine);
    const auto own = Name(u"Own");
    Stage(File(u"OWN.DLL"), "driver");
    ASSERT_TRUE(AddDriver(Driver(own, File(u"OWN.DLL"), u"")));
    auto info = Record(Name(u"User Of Own"));
    info.driverName = Tag() + u" own";
    auto printer = AddPrinterW(u"", info);
    ASSERT_TRUE(printer);
    OVTEST_EXPECT_FAIL(DeletePrinterDriverExW(u"", u"Windows x64", own, DPD_DELETE_UNUSED_FILES, 0),
                       ERROR_PRINTER_DRIVER_IN_USE);
    EXPECT_TRUE(Find(own).has_value());

    ASSERT_TRUE(DeletePrinter(printer.get()));
    OVTEST_EXPECT_OK(
        DeletePrinterDriverExW(u"", u"Windows x64", Upper(own), DPD_DELETE_UNUSED_FILES, 0));
    EXPECT_FALSE(Find(own).has_value());
}

TEST_F(SpoolerDrivers, DeleteRemovesFilesOnlyWhenAskedAndNoOtherDriverNamesThem) {
    const auto keep = File(u"KEEP.DLL");
    const auto sole = File(u"SOLE.DLL");
    Stage(keep, "driver");
    Stage(sole, "driver");
    ASSERT_TRUE(AddDriver(Driver(Name(u"Keep"), keep, u"")));
    ASSERT_TRUE(AddDriver(Driver(Name(u"Sole"), sole, u"")));
    ASSERT_TRUE(DeletePrinterDriverExW(u"", u"Windows x64", Name(u"Keep"), 0, 0));
    EXPECT_FALSE(Find(Name(u"Keep")).has_value());
    EXPECT_TRUE(fs::exists(StoreHost() / keep));
    OVTEST_SKIP_UNDER_WINE(kNoFileFlagsUnderWine);
    ASSERT_TRUE(fs::exists(StoreHost() / sole));
    ASSERT_TRUE(
        DeletePrinterDriverExW(u"", u"Windows x64", Name(u"Sole"), DPD_DELETE_UNUSED_FILES, 0));
    EXPECT_FALSE(fs::exists(StoreHost() / sole));
    // UNIDRV.DLL and UNIDRVUI.DLL belong to the generic driver as well.
    EXPECT_TRUE(fs::exists(StoreHost() / "UNIDRV.DLL"));
    EXPECT_TRUE(fs::exists(StoreHost() / "UNIDRVUI.DLL"));
}

TEST_F(SpoolerDrivers, DeleteUnknownDriverOrEnvironmentFails) {
    OVTEST_EXPECT_FAIL(
        DeletePrinterDriverExW(u"", kNoSuchEnvironment, u"Generic / Text Only", 0, 0),
        ERROR_INVALID_ENVIRONMENT);
    if (!ovtest::IsWin32Platform()) {
        // The embedded machine knows no environment but x64.
        OVTEST_EXPECT_FAIL(
            DeletePrinterDriverExW(u"", u"Windows x86", u"Generic / Text Only", 0, 0),
            ERROR_INVALID_ENVIRONMENT);
    }
    OVTEST_SKIP_UNDER_WINE(kNoFileFlagsUnderWine);
    OVTEST_EXPECT_FAIL(
        DeletePrinterDriverExW(u"", u"Windows x64", Name(u"Nobody"), DPD_DELETE_UNUSED_FILES, 0),
        ERROR_UNKNOWN_PRINTER_DRIVER);
    OVTEST_EXPECT_FAIL(DeletePrinterDriverExW(u"", u"Windows x64", u"Generic / Text Only",
                                              DPD_DELETE_SPECIFIC_VERSION, 2),
                       ERROR_UNKNOWN_PRINTER_DRIVER);
}

}  // namespace
