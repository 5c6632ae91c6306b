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

namespace fs = std::filesystem;

class SpoolerDrivers : public spooltest::SpoolerTest {
  protected:
    fs::path DirectoryHost() const {
        return fs::path(root()) / "drive_c/Windows/System32/spool/drivers/x64";
    }
    fs::path StoreHost() const { return DirectoryHost() / "3"; }
    // Puts a file into the driver directory, as an installer would.
    void Stage(const std::string& name, const std::string& content) {
        ASSERT_TRUE(GetPrinterDriverDirectoryW(u"", u"Windows x64", 1).has_value());
        std::ofstream(DirectoryHost() / name) << content;
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
};

TEST_F(SpoolerDrivers, DriverDirectoryIsAWindowsPathInTheMachine) {
    Poison();
    auto dir = GetPrinterDriverDirectoryW(u"", u"Windows x64", 1);
    ASSERT_TRUE(dir.has_value());
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(*dir, u"C:\\Windows\\System32\\spool\\drivers\\x64");
    EXPECT_TRUE(fs::is_directory(DirectoryHost()));
    EXPECT_EQ(GetPrinterDriverDirectoryW(u"", u"", 1), dir);

    Poison();
    EXPECT_FALSE(GetPrinterDriverDirectoryW(u"", u"Windows NT x86", 1).has_value());
    EXPECT_EQ(GetLastError(), ERROR_INVALID_ENVIRONMENT);
    Poison();
    EXPECT_FALSE(GetPrinterDriverDirectoryW(u"", u"Windows x64", 2).has_value());
    EXPECT_EQ(GetLastError(), ERROR_INVALID_LEVEL);
}

TEST_F(SpoolerDrivers, FreshMachineHasTheGenericDriverWithStorePaths) {
    Poison();
    auto generic = Find(u"Generic / Text Only");
    ASSERT_TRUE(generic.has_value());
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(generic->cVersion, 3u);
    EXPECT_EQ(generic->environment, u"Windows x64");
    EXPECT_EQ(generic->driverPath, u"C:\\Windows\\System32\\spool\\drivers\\x64\\3\\GENTEXT.DLL");
    EXPECT_TRUE(fs::exists(StoreHost() / "GENTEXT.DLL"));
    ASSERT_EQ(generic->dependentFiles.size(), 1u);
    Poison();
    EXPECT_FALSE(EnumPrinterDriversW(u"", u"Windows x64", 7).has_value());
    EXPECT_EQ(GetLastError(), ERROR_INVALID_LEVEL);
}

TEST_F(SpoolerDrivers, AddCopiesFilesFromTheDriverDirectoryIntoTheStore) {
    Stage("OVPRN.DLL", "driver");
    Stage("ovrp.gpd", "data");
    Poison();
    ASSERT_TRUE(AddPrinterDriverW(u"", 6, Driver(u"OV Relay Printer", u"OVPRN.DLL", u"ovrp.gpd")));
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_TRUE(fs::exists(StoreHost() / "OVPRN.DLL"));
    EXPECT_TRUE(fs::exists(StoreHost() / "ovrp.gpd"));

    auto added = Find(u"OV Relay Printer");
    ASSERT_TRUE(added.has_value());
    EXPECT_EQ(added->dataFile, u"C:\\Windows\\System32\\spool\\drivers\\x64\\3\\ovrp.gpd");
    EXPECT_EQ(added->mfgName, u"Orvelle");

    auto info = Record(u"Relay");
    info.driverName = u"OV Relay Printer";
    auto printer = AddPrinterW(u"", info);
    ASSERT_TRUE(printer);
    Poison();
    auto driver = GetPrinterDriverW(printer.get(), u"", 2);
    ASSERT_TRUE(driver.has_value());
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(driver->name, u"OV Relay Printer");
    EXPECT_TRUE(driver->driverPath.ends_with(u"\\OVPRN.DLL"));
    Poison();
    EXPECT_FALSE(GetPrinterDriverW(printer.get(), u"Windows 4.0", 2).has_value());
    EXPECT_EQ(GetLastError(), ERROR_INVALID_ENVIRONMENT);
}

TEST_F(SpoolerDrivers, AddTakesFullPathsAndCopiesAnotherDriversRecord) {
    // The way a copy of an installed driver is made: its record, with a new
    // name and a new data file staged in the driver directory.
    Stage("copy.ppd", "*PPD-Adobe");
    auto generic = Find(u"Generic / Text Only");
    ASSERT_TRUE(generic.has_value());
    DriverInfo6 copy = *generic;
    copy.name = u"OV PS Driver 0123456789ABCDEF0123456789ABCDEF";
    copy.dataFile = u"C:\\Windows\\System32\\spool\\drivers\\x64\\copy.ppd";
    ASSERT_TRUE(AddPrinterDriverW(u"", 6, copy));
    auto added = Find(copy.name);
    ASSERT_TRUE(added.has_value());
    EXPECT_EQ(added->driverPath, generic->driverPath);
    EXPECT_TRUE(added->dataFile.ends_with(u"\\3\\copy.ppd"));
}

TEST_F(SpoolerDrivers, AddWithAMissingFileAddsNothing) {
    Stage("ONLY.DLL", "driver");
    Poison();
    EXPECT_FALSE(AddPrinterDriverW(u"", 6, Driver(u"Half", u"ONLY.DLL", u"missing.gpd")));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(Find(u"Half").has_value());
    EXPECT_FALSE(fs::exists(StoreHost() / "ONLY.DLL"));

    Poison();
    EXPECT_FALSE(AddPrinterDriverW(u"", 1, Driver(u"Half", u"ONLY.DLL", u"")));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_LEVEL);
    auto wrongEnvironment = Driver(u"Half", u"ONLY.DLL", u"");
    wrongEnvironment.environment = u"Windows IA64";
    Poison();
    EXPECT_FALSE(AddPrinterDriverW(u"", 6, wrongEnvironment));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_ENVIRONMENT);
}

TEST_F(SpoolerDrivers, DeleteIsRefusedWhileAPrinterUsesTheDriver) {
    Stage("OWN.DLL", "driver");
    ASSERT_TRUE(AddPrinterDriverW(u"", 6, Driver(u"Own", u"OWN.DLL", u"")));
    auto info = Record(u"User Of Own");
    info.driverName = u"own";
    auto printer = AddPrinterW(u"", info);
    ASSERT_TRUE(printer);
    Poison();
    EXPECT_FALSE(DeletePrinterDriverExW(u"", u"Windows x64", u"Own", DPD_DELETE_UNUSED_FILES, 0));
    EXPECT_EQ(GetLastError(), ERROR_PRINTER_DRIVER_IN_USE);
    EXPECT_TRUE(Find(u"Own").has_value());

    ASSERT_TRUE(DeletePrinter(printer.get()));
    Poison();
    EXPECT_TRUE(DeletePrinterDriverExW(u"", u"Windows x64", u"OWN", DPD_DELETE_UNUSED_FILES, 0));
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_FALSE(Find(u"Own").has_value());
}

TEST_F(SpoolerDrivers, DeleteUnusedFilesKeepsFilesOtherDriversName) {
    Stage("SOLE.DLL", "driver");
    ASSERT_TRUE(AddPrinterDriverW(u"", 6, Driver(u"Sole", u"SOLE.DLL", u"")));
    ASSERT_TRUE(fs::exists(StoreHost() / "SOLE.DLL"));
    ASSERT_TRUE(DeletePrinterDriverExW(u"", u"Windows x64", u"Sole", DPD_DELETE_UNUSED_FILES, 0));
    EXPECT_FALSE(fs::exists(StoreHost() / "SOLE.DLL"));
    // UNIDRV.DLL and UNIDRVUI.DLL belong to the generic driver as well.
    EXPECT_TRUE(fs::exists(StoreHost() / "UNIDRV.DLL"));
    EXPECT_TRUE(fs::exists(StoreHost() / "UNIDRVUI.DLL"));
}

TEST_F(SpoolerDrivers, DeleteWithoutFileFlagsLeavesTheFiles) {
    Stage("KEEP.DLL", "driver");
    ASSERT_TRUE(AddPrinterDriverW(u"", 6, Driver(u"Keep", u"KEEP.DLL", u"")));
    ASSERT_TRUE(DeletePrinterDriverExW(u"", u"Windows x64", u"Keep", 0, 0));
    EXPECT_TRUE(fs::exists(StoreHost() / "KEEP.DLL"));
}

TEST_F(SpoolerDrivers, DeleteUnknownDriverOrEnvironmentFails) {
    Poison();
    EXPECT_FALSE(
        DeletePrinterDriverExW(u"", u"Windows x64", u"Nobody", DPD_DELETE_UNUSED_FILES, 0));
    EXPECT_EQ(GetLastError(), ERROR_UNKNOWN_PRINTER_DRIVER);
    Poison();
    EXPECT_FALSE(DeletePrinterDriverExW(u"", u"Windows x86", u"Generic / Text Only", 0, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_ENVIRONMENT);
    Poison();
    EXPECT_FALSE(DeletePrinterDriverExW(u"", u"Windows x64", u"Generic / Text Only",
                                        DPD_DELETE_SPECIFIC_VERSION, 2));
    EXPECT_EQ(GetLastError(), ERROR_UNKNOWN_PRINTER_DRIVER);
}

}  // namespace
