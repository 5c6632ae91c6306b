// Printers: add, open, get and set at levels 0, 2, 3 and 8, delete, printer
// data, and the spooler's state across processes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "ovtest.h"
#include "platform/registry.h"
#include "spooler_fixture.h"

namespace {

using namespace platform;
using spooltest::kPoison;
using spooltest::OpenAll;
using spooltest::Poison;
using spooltest::Record;
using spooltest::Upper;

class SpoolerPrinters : public spooltest::SpoolerTest {};

// ---- add -----------------------------------------------------------------------

TEST_F(SpoolerPrinters, AddedPrinterReadsBackWithDefaults) {
    OVTEST_SKIP_UNDER_WINE(
        "Wine's AddPrinterW fills in no defaults (no data type, which then keeps the printer "
        "from opening; priority 0; no security descriptor; a device mode named after its "
        "PostScript driver)");
    const auto name = Name(u"Office");
    auto info = Record(name);
    info.datatype.clear();  // the spooler's default, RAW
    info.comment = u"second floor";
    info.location = u"3;";
    Poison();
    auto printer = AddPrinterW(u"", info);
    ASSERT_TRUE(printer);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);

    PrinterInfo2 read;
    OVTEST_ASSERT_OK(GetPrinterW(printer.get(), &read));
    EXPECT_EQ(read.printerName, name);
    EXPECT_EQ(read.portName, u"LPT1:");
    EXPECT_EQ(read.driverName, u"Generic / Text Only");
    EXPECT_EQ(read.comment, u"second floor");
    EXPECT_EQ(read.location, u"3;");
    EXPECT_EQ(read.printProcessor, u"winprint");
    EXPECT_EQ(read.datatype, u"RAW");
    EXPECT_EQ(read.attributes, PRINTER_ATTRIBUTE_LOCAL);
    EXPECT_EQ(read.priority, 1u);
    EXPECT_EQ(read.cJobs, 0u);
    EXPECT_FALSE(read.securityDescriptor.empty());
    // No device mode given: the driver's default one, named after the printer.
    ASSERT_TRUE(read.devMode.has_value());
    EXPECT_EQ(read.devMode->dmDeviceName, name.substr(0, 31));
    EXPECT_NE(read.devMode->dmFields & DM_PAPERSIZE, 0u);
    EXPECT_EQ(read.devMode->dmDuplex, DMDUP_SIMPLEX);
}

TEST_F(SpoolerPrinters, GivenDeviceModeIsKeptAsGiven) {
    auto info = Record(Name(u"Duplexer"));
    DevMode dm;
    dm.dmDeviceName = u"Duplexer";
    dm.dmFields = DM_DUPLEX | DM_PAPERSIZE;
    dm.dmDuplex = DMDUP_HORIZONTAL;
    dm.dmPaperSize = DMPAPER_A4;
    dm.driverExtra = {std::byte{1}, std::byte{2}};
    info.devMode = dm;
    auto printer = AddPrinterW(u"", info);
    ASSERT_TRUE(printer);
    PrinterInfo8 level8;
    ASSERT_TRUE(GetPrinterW(printer.get(), &level8));
    ASSERT_TRUE(level8.devMode.has_value());
    EXPECT_EQ(*level8.devMode, dm);
}

TEST_F(SpoolerPrinters, DefaultDeviceModeOfALongNameHoldsItsFirst31Characters) {
    OVTEST_SKIP_UNDER_WINE("Wine names a new printer's default device mode \"wineps.drv\"");
    const std::u16string name =
        Name(u"PC-WITH-A-LONG-NAME:12#Laser Printer on PC-WITH-A-LONG-NAME");
    auto printer = AddPrinterW(u"", Record(name));
    ASSERT_TRUE(printer);
    PrinterInfo8 level8;
    ASSERT_TRUE(GetPrinterW(printer.get(), &level8));
    ASSERT_TRUE(level8.devMode.has_value());
    EXPECT_EQ(level8.devMode->dmDeviceName, name.substr(0, 31));
}

TEST_F(SpoolerPrinters, AddRefusesDuplicatesWhateverTheCase) {
    OVTEST_SKIP_UNDER_WINE("Wine's AddPrinterW accepts the name of an existing printer");
    AddPrinter(Name(u"Office"));
    OVTEST_EXPECT_FAIL(AddPrinterW(u"", Record(Upper(Name(u"Office")))),
                       ERROR_PRINTER_ALREADY_EXISTS);
    EXPECT_EQ(PrinterCount(), 1u);
}

TEST_F(SpoolerPrinters, AddRefusesInvalidNames) {
    OVTEST_EXPECT_FAIL(AddPrinterW(u"", Record(u"")), ERROR_INVALID_PRINTER_NAME);
    OVTEST_SKIP_UNDER_WINE("Wine's AddPrinterW takes backslashes, commas and overlong names");
    for (const std::u16string& name : {Name(u"a\\b"), Name(u"a,b"), NameOfLength(221)}) {
        OVTEST_EXPECT_FAIL(AddPrinterW(u"", Record(name)), ERROR_INVALID_PRINTER_NAME)
            << ovtest::U8(name);
    }
    EXPECT_EQ(PrinterCount(), 0u);
}

TEST_F(SpoolerPrinters, AddTakesTheLongestNameAndTheCharactersAutocreatedNamesUse) {
    AddPrinter(NameOfLength(220));
    AddPrinter(Name(u"PC1:3#HP 4 on PC1"));
    AddPrinter(Name(u"_#Template$(VC)"));
    EXPECT_EQ(PrinterCount(), 3u);
}

// A record with one field changed, and the error AddPrinterW must answer.
struct BrokenRecord {
    void (*change)(PrinterInfo2&);
    DWORD error;
};

class SpoolerPrintersRefused : public SpoolerPrinters {
  protected:
    void ExpectRefused(std::initializer_list<BrokenRecord> cases) {
        for (const auto& c : cases) {
            auto info = Record(Name(u"Broken"));
            c.change(info);
            OVTEST_EXPECT_FAIL(AddPrinterW(u"", info), c.error);
        }
        EXPECT_EQ(PrinterCount(), 0u);
    }
};

TEST_F(SpoolerPrintersRefused, UnknownDriverAndPrintProcessor) {
    ExpectRefused({
        {[](PrinterInfo2& i) { i.driverName = u"No Such Driver"; }, ERROR_UNKNOWN_PRINTER_DRIVER},
        {[](PrinterInfo2& i) { i.printProcessor = u"ovwinprn"; }, ERROR_UNKNOWN_PRINTPROCESSOR},
    });
}

TEST_F(SpoolerPrintersRefused, MissingDriverUnknownPortsAndTooHighPriority) {
    OVTEST_SKIP_UNDER_WINE(
        "Wine's AddPrinterW takes an empty driver name, any port and any priority");
    ExpectRefused({
        {[](PrinterInfo2& i) { i.driverName.clear(); }, ERROR_UNKNOWN_PRINTER_DRIVER},
        {[](PrinterInfo2& i) { i.portName = u"NOPE:"; }, ERROR_UNKNOWN_PORT},
        {[](PrinterInfo2& i) { i.portName = u"LPT1:,NOPE:"; }, ERROR_UNKNOWN_PORT},
        {[](PrinterInfo2& i) { i.portName.clear(); }, ERROR_UNKNOWN_PORT},
        {[](PrinterInfo2& i) { i.priority = 100; }, ERROR_INVALID_PRIORITY},
    });
}

TEST_F(SpoolerPrinters, AddAcceptsPortLists) {
    auto info = Record(Name(u"Both"));
    info.portName = u"LPT1:,LPT2:";
    ASSERT_TRUE(AddPrinterW(u"", info));
    auto printer = OpenAll(info.printerName);
    PrinterInfo2 read = Read(printer.get());
    EXPECT_EQ(read.portName, u"LPT1:,LPT2:");
}

TEST_F(SpoolerPrinters, AddAcceptsAddedPrintProcessors) {
    OVTEST_EMBEDDED_ONLY(
        "adds a print processor without its DLL, which a real spooler loads; and the "
        "platform cannot remove a print processor again");
    ASSERT_TRUE(AddPrintProcessorW(u"", u"Windows x64", u"ovwinprn.dll", u"ovwinprn"));
    auto info = Record(Name(u"Processed"));
    info.printProcessor = u"OVWINPRN";
    EXPECT_TRUE(AddPrinterW(u"", info));
}

TEST_F(SpoolerPrinters, SharedPrinterNeedsAFreeShareName) {
    OVTEST_SKIP_UNDER_WINE("Wine's spooler does not keep share names apart");
    auto first = Record(Name(u"First"));
    first.attributes |= PRINTER_ATTRIBUTE_SHARED;
    first.shareName = Name(u"Common");
    ASSERT_TRUE(AddPrinterW(u"", first));
    auto second = Record(Name(u"Second"));
    second.attributes |= PRINTER_ATTRIBUTE_SHARED;
    second.shareName = Upper(Name(u"Common"));
    OVTEST_EXPECT_FAIL(AddPrinterW(u"", second), ERROR_INVALID_SHARENAME);
    second.shareName = Name(u"Other");
    EXPECT_TRUE(AddPrinterW(u"", second));
}

// ---- open and close ------------------------------------------------------------------

TEST_F(SpoolerPrinters, OpenByNameIgnoresCase) {
    const auto name = Name(u"_#Template");
    AddPrinter(name);
    Poison();
    auto byName = OpenAll(Upper(name));
    ASSERT_TRUE(byName);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    PrinterInfo2 read = Read(byName.get());
    EXPECT_EQ(read.printerName, name);
}

TEST_F(SpoolerPrinters, ShareNameFollowsChangesRenamesAndDeletion) {
    OVTEST_SKIP_UNDER_WINE(
        "Wine's OpenPrinterW does not look printers up by share name, and its SetPrinterW "
        "does not rename");
    auto info = Record(Name(u"Front Desk"));
    info.shareName = Name(u"Desk");
    info.attributes |= PRINTER_ATTRIBUTE_SHARED;
    ASSERT_TRUE(AddPrinterW(u"", info));
    {
        auto printer = OpenAll(Upper(Name(u"desk")));  // the share name finds its owner
        ASSERT_TRUE(printer);
        PrinterInfo2 read = Read(printer.get());
        EXPECT_EQ(read.printerName, Name(u"Front Desk"));
        EXPECT_EQ(read.shareName, Name(u"Desk"));
        read.shareName = Name(u"Reception");
        read.printerName = Name(u"Reception Printer");
        read.devMode.reset();
        ASSERT_TRUE(SetPrinterW(printer.get(), read, 0));
    }
    OVTEST_EXPECT_FAIL(OpenAll(Name(u"Desk")), ERROR_INVALID_PRINTER_NAME);
    auto byShare = OpenAll(Upper(Name(u"reception")));
    ASSERT_TRUE(byShare);
    PrinterInfo2 read = Read(byShare.get());
    EXPECT_EQ(read.printerName, Name(u"Reception Printer"));
    // The old share name is free for another printer.
    auto other = Record(Name(u"Other"));
    other.shareName = Name(u"Desk");
    other.attributes |= PRINTER_ATTRIBUTE_SHARED;
    EXPECT_TRUE(AddPrinterW(u"", other));

    ASSERT_TRUE(DeletePrinter(byShare.get()));
    OVTEST_EXPECT_FAIL(OpenAll(Name(u"Reception")), ERROR_INVALID_PRINTER_NAME);
}

TEST_F(SpoolerPrinters, OpenUnknownOrMalformedNamesFails) {
    AddPrinter(Name(u"Office"));
    for (const std::u16string& name : {Name(u"Offic"), std::u16string(u"\\\\srv\\p")}) {
        OVTEST_EXPECT_FAIL(OpenAll(name), ERROR_INVALID_PRINTER_NAME) << ovtest::U8(name);
    }
}

TEST_F(SpoolerPrinters, OpenOfAnUnknownMonitorFailsAsAnUnknownName) {
    OVTEST_SKIP_UNDER_WINE("Wine answers ERROR_UNKNOWN_PORT for a monitor it does not have");
    OVTEST_EXPECT_FAIL(OpenAll(u",XcvMonitor " + Name(u"No Such Monitor")),
                       ERROR_INVALID_PRINTER_NAME);
}

TEST_F(SpoolerPrinters, ClosedHandlesAndWrongKindsAreInvalid) {
    auto printer = AddAndOpen(Name(u"Office"));
    HANDLE raw = printer.release();
    OVTEST_EXPECT_OK(ClosePrinter(raw));
    OVTEST_EXPECT_FAIL(ClosePrinter(raw), ERROR_INVALID_HANDLE);
    PrinterInfo2 info;
    OVTEST_EXPECT_FAIL(GetPrinterW(raw, &info), ERROR_INVALID_HANDLE);

    auto server = OpenPrinterW(u"");
    ASSERT_TRUE(server);
    OVTEST_EXPECT_FAIL(GetPrinterW(server.get(), &info), ERROR_INVALID_HANDLE);
}

TEST_F(SpoolerPrinters, HandleWithoutAdministerRightCannotChangeThePrinter) {
    OVTEST_SKIP_UNDER_WINE("Wine's spooler does not check a handle's rights");
    AddPrinter(Name(u"Office"));
    auto user = OpenPrinterW(Name(u"Office"));  // no defaults: PRINTER_ACCESS_USE
    ASSERT_TRUE(user);
    PrinterInfo2 info = Read(user.get());
    info.location = u"5;";
    OVTEST_EXPECT_FAIL(SetPrinterW(user.get(), info, 0), ERROR_ACCESS_DENIED);
    OVTEST_EXPECT_FAIL(DeletePrinter(user.get()), ERROR_ACCESS_DENIED);
    const DWORD value = 1;
    OVTEST_EXPECT_STATUS(
        SetPrinterDataW(user.get(), u"OptionTrays", REG_DWORD, &value, sizeof(value)),
        ERROR_ACCESS_DENIED);
}

// ---- enumeration ---------------------------------------------------------------------

TEST_F(SpoolerPrinters, EnumerationListsEveryLocalPrinter) {
    Poison();
    auto before = EnumPrintersW(PRINTER_ENUM_LOCAL, u"", 2);
    ASSERT_TRUE(before.has_value());
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    if (!ovtest::IsWin32Platform()) {
        EXPECT_TRUE(before->empty());  // a fresh machine; Windows has printers of its own
    }
    EXPECT_EQ(PrinterCount(), 0u);

    AddPrinter(Name(u"A"));
    AddPrinter(Name(u"B"));
    AddPrinter(Name(u"C"));
    auto all = EnumPrintersW(PRINTER_ENUM_LOCAL, u"", 2);
    ASSERT_TRUE(all.has_value());
    EXPECT_EQ(all->size(), before->size() + 3);
    std::vector<std::u16string> names;
    for (const auto& p : OwnPrinters()) {
        names.push_back(p.printerName);
        EXPECT_EQ(p.driverName, u"Generic / Text Only");
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::u16string>{Name(u"A"), Name(u"B"), Name(u"C")}));

    OVTEST_EXPECT_FAIL(EnumPrintersW(PRINTER_ENUM_LOCAL, u"", 1).has_value(), ERROR_INVALID_LEVEL);
}

// ---- set --------------------------------------------------------------------------------

TEST_F(SpoolerPrinters, SetLevel2WritesBackTheWholeRecord) {
    OVTEST_SKIP_UNDER_WINE("Wine's spooler keeps no security descriptor for a printer");
    auto printer = AddAndOpen(Name(u"Office"));
    PrinterInfo2 info = Read(printer.get());
    const auto devModeBefore = info.devMode;
    info.location = u"1;4;";
    info.comment = u"Printer created by Ovaspool";
    info.devMode.reset();  // absent: the printer keeps its own
    info.securityDescriptor.clear();
    OVTEST_ASSERT_OK(SetPrinterW(printer.get(), info, 0));

    PrinterInfo2 read = Read(printer.get());
    EXPECT_EQ(read.location, u"1;4;");
    EXPECT_EQ(read.comment, u"Printer created by Ovaspool");
    EXPECT_EQ(read.devMode, devModeBefore);
    EXPECT_FALSE(read.securityDescriptor.empty());
}

TEST_F(SpoolerPrinters, SetLevel2ChecksLikeAdd) {
    OVTEST_SKIP_UNDER_WINE("Wine's SetPrinterW neither checks the driver nor renames");
    AddPrinter(Name(u"Office"));
    AddPrinter(Name(u"Other"));
    auto printer = OpenAll(Name(u"Office"));
    PrinterInfo2 info = Read(printer.get());

    auto bad = info;
    bad.driverName = u"Missing";
    OVTEST_EXPECT_FAIL(SetPrinterW(printer.get(), bad, 0), ERROR_UNKNOWN_PRINTER_DRIVER);
    bad = info;
    bad.printerName = Upper(Name(u"other"));
    OVTEST_EXPECT_FAIL(SetPrinterW(printer.get(), bad, 0), ERROR_PRINTER_ALREADY_EXISTS);
    OVTEST_EXPECT_FAIL(SetPrinterW(printer.get(), info, PRINTER_CONTROL_PAUSE),
                       ERROR_INVALID_PARAMETER);

    PrinterInfo2 read = Read(printer.get());
    EXPECT_EQ(read.driverName, u"Generic / Text Only");
    EXPECT_EQ(read.printerName, Name(u"Office"));
}

TEST_F(SpoolerPrinters, SetLevel2RenamesWithDataAndHandlesFollow) {
    OVTEST_SKIP_UNDER_WINE("Wine's SetPrinterW changes the name field but not the printer's name");
    auto printer = AddAndOpen(Name(u"Old Name"));
    const DWORD trays = 3;
    ASSERT_EQ(SetPrinterDataW(printer.get(), u"OptionTrays", REG_DWORD, &trays, sizeof(trays)),
              ERROR_SUCCESS);
    PrinterInfo2 info = Read(printer.get());
    info.printerName = Name(u"New Name");
    info.devMode.reset();
    ASSERT_TRUE(SetPrinterW(printer.get(), info, 0));

    OVTEST_EXPECT_FAIL(OpenAll(Name(u"Old Name")), ERROR_INVALID_PRINTER_NAME);
    EXPECT_TRUE(OpenAll(Name(u"New Name")));
    PrinterInfo2 read = Read(printer.get());
    EXPECT_EQ(read.printerName, Name(u"New Name"));
    DWORD value = 0;
    DWORD type = 0;
    EXPECT_EQ(GetPrinterDataW(printer.get(), u"OptionTrays", &type, &value, sizeof(value), nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(value, 3u);
}

TEST_F(SpoolerPrinters, RenameThatOnlyChangesCaseKeepsEverything) {
    const auto name = Name(u"Office");
    const auto lower = Tag() + u" office";
    auto printer = AddAndOpen(lower);
    const DWORD trays = 2;
    ASSERT_EQ(SetPrinterDataW(printer.get(), u"OptionTrays", REG_DWORD, &trays, sizeof(trays)),
              ERROR_SUCCESS);
    PrinterInfo2 info = Read(printer.get());
    info.printerName = name;
    ASSERT_TRUE(SetPrinterW(printer.get(), info, 0));
    auto again = OpenAll(Upper(name));
    ASSERT_TRUE(again);
    PrinterInfo2 read = Read(again.get());
    EXPECT_EQ(read.printerName, name);
    DWORD value = 0;
    EXPECT_EQ(GetPrinterDataW(again.get(), u"OptionTrays", nullptr, &value, sizeof(value), nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(value, 2u);
    EXPECT_EQ(PrinterCount(), 1u);
}

TEST_F(SpoolerPrinters, DeletedPrinterDataIsGoneAndOthersStay) {
    OVTEST_SKIP_UNDER_WINE(
        "winspool has no DeletePrinterDataW, and its DeletePrinterDataExW deletes nothing "
        "(error 87)");
    auto printer = AddAndOpen(Name(u"Office"));
    const DWORD trays = 2;
    const DWORD duplex = 1;
    ASSERT_EQ(SetPrinterDataW(printer.get(), u"OptionTrays", REG_DWORD, &trays, sizeof(trays)),
              ERROR_SUCCESS);
    ASSERT_EQ(SetPrinterDataW(printer.get(), u"Duplex", REG_DWORD, &duplex, sizeof(duplex)),
              ERROR_SUCCESS);

    Poison();
    EXPECT_EQ(DeletePrinterDataW(printer.get(), u"optiontrays"), ERROR_SUCCESS);
    DWORD value = 0;
    EXPECT_EQ(
        GetPrinterDataW(printer.get(), u"OptionTrays", nullptr, &value, sizeof(value), nullptr),
        ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(GetPrinterDataW(printer.get(), u"Duplex", nullptr, &value, sizeof(value), nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(value, 1u);
    // A second delete finds nothing.
    EXPECT_EQ(DeletePrinterDataW(printer.get(), u"OptionTrays"), ERROR_FILE_NOT_FOUND);
}

TEST_F(SpoolerPrinters, Level8ReplacesTheDeviceMode) {
    auto printer = AddAndOpen(Name(u"Office"));
    PrinterInfo8 level8;
    ASSERT_TRUE(GetPrinterW(printer.get(), &level8));
    ASSERT_TRUE(level8.devMode.has_value());
    level8.devMode->dmFields |= DM_DUPLEX | DM_DEFAULTSOURCE;
    level8.devMode->dmDuplex = DMDUP_VERTICAL;
    level8.devMode->dmDefaultSource = 260;
    OVTEST_ASSERT_OK(SetPrinterW(printer.get(), level8, 0));
    PrinterInfo2 read = Read(printer.get());
    ASSERT_TRUE(read.devMode.has_value());
    EXPECT_EQ(read.devMode->dmDuplex, DMDUP_VERTICAL);
    EXPECT_EQ(read.devMode->dmDefaultSource, 260);

    OVTEST_EXPECT_FAIL(SetPrinterW(printer.get(), PrinterInfo8{}, 0), ERROR_INVALID_PARAMETER);
}

TEST_F(SpoolerPrinters, Level0CommandsPauseResumeAndRefuseUnknownOnes) {
    OVTEST_SKIP_UNDER_WINE("Wine's SetPrinterW has no level 0 (ERROR_INVALID_LEVEL)");
    auto printer = AddAndOpen(Name(u"Office"));
    PrinterInfo2 read;
    ASSERT_TRUE(SetPrinterW(printer.get(), PRINTER_CONTROL_PAUSE));
    ASSERT_TRUE(GetPrinterW(printer.get(), &read));
    EXPECT_EQ(read.status & PRINTER_STATUS_PAUSED, PRINTER_STATUS_PAUSED);
    ASSERT_TRUE(SetPrinterW(printer.get(), PRINTER_CONTROL_RESUME));
    ASSERT_TRUE(GetPrinterW(printer.get(), &read));
    EXPECT_EQ(read.status & PRINTER_STATUS_PAUSED, 0u);
    OVTEST_EXPECT_FAIL(SetPrinterW(printer.get(), 9), ERROR_INVALID_PRINTER_COMMAND);
}

// ---- delete -------------------------------------------------------------------------------

TEST_F(SpoolerPrinters, DeletedPrinterIsGoneWithItsData) {
    const auto name = Name(u"Office");
    AddPrinter(name);
    {
        auto printer = OpenAll(name);
        const DWORD v = 1;
        ASSERT_EQ(SetPrinterDataW(printer.get(), u"X", REG_DWORD, &v, sizeof(v)), ERROR_SUCCESS);
        OVTEST_ASSERT_OK(DeletePrinter(printer.get()));
        PrinterInfo2 info;
        OVTEST_EXPECT_FAIL(GetPrinterW(printer.get(), &info), ERROR_INVALID_PRINTER_NAME);
    }
    EXPECT_EQ(PrinterCount(), 0u);
    UniqueKey key;
    EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE,
                            u"SYSTEM\\CurrentControlSet\\Control\\Print\\Printers\\" + name, 0,
                            KEY_READ, &key),
              ERROR_FILE_NOT_FOUND);
    // The name is free again; the new printer has no old data.
    auto again = AddAndOpen(name);
    DWORD needed = 0;
    EXPECT_EQ(GetPrinterDataW(again.get(), u"X", nullptr, nullptr, 0, &needed),
              ERROR_FILE_NOT_FOUND);
}

// ---- printer data ----------------------------------------------------------------------------

TEST_F(SpoolerPrinters, PrinterDataFollowsTheTwoCallProtocol) {
    const auto name = Name(u"Office");
    auto printer = AddAndOpen(name);
    // A multi-string: two strings, each with its terminator, and the final one.
    const std::u16string trays(
        u"1,Upper\0"
        u"7,Manual\0\0",
        18);
    const auto bytes = static_cast<DWORD>(trays.size() * sizeof(char16_t));
    OVTEST_ASSERT_STATUS(
        SetPrinterDataW(printer.get(), u"TrayData", REG_MULTI_SZ, trays.data(), bytes),
        ERROR_SUCCESS);

    DWORD type = 0;
    DWORD needed = 0;
    OVTEST_EXPECT_STATUS(GetPrinterDataW(printer.get(), u"TrayData", &type, nullptr, 0, &needed),
                         ERROR_MORE_DATA);
    EXPECT_EQ(needed, bytes);
    EXPECT_EQ(type, REG_MULTI_SZ);

    std::vector<char> buffer(bytes + 1, 'x');
    needed = 0;
    Poison();
    EXPECT_EQ(GetPrinterDataW(printer.get(), u"TrayData", &type, buffer.data(), bytes - 1, &needed),
              ERROR_MORE_DATA);
    EXPECT_EQ(needed, bytes);
    for (DWORD size : {bytes, bytes + 1}) {
        std::fill(buffer.begin(), buffer.end(), 'x');
        OVTEST_EXPECT_STATUS(
            GetPrinterDataW(printer.get(), u"trAYdata", &type, buffer.data(), size, &needed),
            ERROR_SUCCESS);
        EXPECT_EQ(needed, bytes);
        EXPECT_EQ(std::memcmp(buffer.data(), trays.data(), bytes), 0);
        EXPECT_EQ(buffer[bytes], 'x');  // nothing written past the value
    }

    OVTEST_EXPECT_STATUS(
        GetPrinterDataW(printer.get(), u"Missing", &type, buffer.data(), bytes, &needed),
        ERROR_FILE_NOT_FOUND);

    // Kept where the template copy reads it from.
    UniqueKey key;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE,
                            u"SYSTEM\\CurrentControlSet\\Control\\Print\\Printers\\" + name +
                                u"\\PrinterDriverData",
                            0, KEY_READ, &key),
              ERROR_SUCCESS);
    RegistryValue value;
    ASSERT_EQ(RegGetValue(key.get(), u"TrayData", &value), ERROR_SUCCESS);
    EXPECT_EQ(value.type, REG_MULTI_SZ);
    EXPECT_EQ(value.data.size(), bytes);

    // An empty value reads back as empty, into a buffer left untouched.
    ASSERT_EQ(SetPrinterDataW(printer.get(), u"Empty", REG_BINARY, nullptr, 0), ERROR_SUCCESS);
    buffer[0] = 'x';
    EXPECT_EQ(GetPrinterDataW(printer.get(), u"Empty", &type, buffer.data(), 1, &needed),
              ERROR_SUCCESS);
    EXPECT_EQ(needed, 0u);
    EXPECT_EQ(type, REG_BINARY);
    EXPECT_EQ(buffer[0], 'x');
}

// ---- across processes -----------------------------------------------------------------------

OVTEST_CHILD(spool_add_printers) {
    // args: prefix count
    const std::string prefix = args.at(0);
    const int count = std::stoi(args.at(1));
    for (int i = 0; i < count; ++i) {
        auto info = Record(ovtest::U16(prefix + std::to_string(i)));
        info.location = ovtest::U16(std::to_string(i) + ";");
        auto printer = AddPrinterW(u"", info);
        if (!printer) {
            return 10;
        }
        const DWORD v = static_cast<DWORD>(i);
        if (SetPrinterDataW(printer.get(), u"Index", REG_DWORD, &v, sizeof(v)) != ERROR_SUCCESS) {
            return 11;
        }
    }
    return 0;
}

OVTEST_CHILD(spool_check_printer) {
    auto printer = OpenAll(ovtest::U16(args.at(0)));
    PrinterInfo2 info;
    if (!printer || !GetPrinterW(printer.get(), &info)) {
        return 10;
    }
    return info.location == ovtest::U16(args.at(1)) ? 0 : 11;
}

TEST_F(SpoolerPrinters, StateSurvivesTheProcessThatMadeIt) {
    const std::string prefix = ovtest::U8(Name(u"Persist "));
    auto child = ovtest::Process::StartChild("spool_add_printers", {prefix, "3"});
    ASSERT_EQ(child.Wait(), 0) << child.output();
    EXPECT_EQ(PrinterCount(), 3u);
    auto printer = OpenAll(Name(u"Persist 2"));
    ASSERT_TRUE(printer);
    PrinterInfo2 info = Read(printer.get());
    EXPECT_EQ(info.location, u"2;");
    info.location = u"7;";
    info.devMode.reset();
    ASSERT_TRUE(SetPrinterW(printer.get(), info, 0));
    auto checker = ovtest::Process::StartChild("spool_check_printer", {prefix + "2", "7;"});
    EXPECT_EQ(checker.Wait(), 0) << checker.output();
}

TEST_F(SpoolerPrinters, TwoProcessesAddingAtOnceStayConsistent) {
    constexpr int kEach = 25;
    auto a = ovtest::Process::StartChild("spool_add_printers",
                                         {ovtest::U8(Name(u"A-")), std::to_string(kEach)});
    auto b = ovtest::Process::StartChild("spool_add_printers",
                                         {ovtest::U8(Name(u"B-")), std::to_string(kEach)});
    ASSERT_EQ(a.Wait(), 0) << a.output();
    ASSERT_EQ(b.Wait(), 0) << b.output();
    const auto all = OwnPrinters();
    ASSERT_EQ(all.size(), 2u * kEach);
    for (const auto& p : all) {
        auto printer = OpenAll(p.printerName);
        ASSERT_TRUE(printer);
        DWORD index = 0;
        ASSERT_EQ(GetPrinterDataW(printer.get(), u"Index", nullptr, &index, sizeof(index), nullptr),
                  ERROR_SUCCESS);
        EXPECT_EQ(p.location, ovtest::U16(std::to_string(index) + ";"));
    }
}

OVTEST_CHILD(spool_race_same_name) {
    auto printer = AddPrinterW(u"", Record(ovtest::U16(args.at(0))));
    if (printer) {
        return 0;
    }
    return GetLastError() == ERROR_PRINTER_ALREADY_EXISTS ? 1 : 10;
}

TEST_F(SpoolerPrinters, OnlyOneOfTwoProcessesAddsTheSameName) {
    OVTEST_SKIP_UNDER_WINE("Wine's AddPrinterW accepts the name of an existing printer");
    std::vector<ovtest::Process> children;
    for (int i = 0; i < 4; ++i) {
        children.push_back(
            ovtest::Process::StartChild("spool_race_same_name", {ovtest::U8(Name(u"Contested"))}));
    }
    int added = 0;
    for (auto& child : children) {
        const int rc = child.Wait();
        ASSERT_TRUE(rc == 0 || rc == 1) << child.output();
        added += rc == 0 ? 1 : 0;
    }
    EXPECT_EQ(added, 1);
    EXPECT_EQ(PrinterCount(), 1u);
}

}  // namespace
