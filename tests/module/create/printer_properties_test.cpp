// The client printer's properties: how the lists are read, and what a
// printer of the virtual printer driver gets from them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "config/product_key.h"
#include "create/install_printer.h"
#include "create/printer_properties.h"
#include "ovtest.h"
#include "platform/machine.h"
#include "platform/registry.h"
#include "platform/spooler.h"
#include "trace/trace.h"

namespace ovsvc {
namespace {

using namespace std::string_literals;

class PrinterPropertiesTest : public ovtest::MachineTest {
  protected:
    void SetUp() override {
        ovtest::MachineTest::SetUp();
        OVTEST_EMBEDDED_ONLY("adds drivers and printers to a fresh spooler");
        ASSERT_EQ(platform::RegCreateKeyExW(platform::HKEY_LOCAL_MACHINE, kProductKey, 0,
                                            platform::KEY_ALL_ACCESS, &key_, nullptr),
                  0);
        tracePath_ = root() + "/trace.log";
        SetDword(u"DebugLevel", 0xFF);
        const std::u16string file = ovtest::U16(tracePath_);
        ASSERT_EQ(platform::RegSetValueExW(key_.get(), u"DebugFile", platform::REG_SZ, file.c_str(),
                                           static_cast<platform::DWORD>((file.size() + 1) * 2)),
                  0);
        ResetTraceStateForTesting();
    }
    void TearDown() override {
        ResetTraceStateForTesting();
        ovtest::MachineTest::TearDown();
    }

    void SetDword(std::u16string_view name, platform::DWORD value) {
        ASSERT_EQ(
            platform::RegSetValueExW(key_.get(), name, platform::REG_DWORD, &value, sizeof value),
            0);
    }
    std::string Trace() const {
        std::ifstream in(tracePath_, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    // A printer of a driver whose file is `driverFile`.
    platform::UniquePrinter AddPrinter(const std::u16string& name, const std::string& driverFile) {
        const std::filesystem::path dir = std::filesystem::path(platform::machine::Root()) /
                                          "drive_c/Windows/System32/spool/drivers/x64";
        std::filesystem::create_directories(dir);
        std::ofstream(dir / driverFile) << "";
        platform::DriverInfo6 driver;
        driver.name = u"Relay " + ovtest::U16(driverFile);
        driver.environment = platform::kEnvironmentX64;
        driver.driverPath = ovtest::U16(driverFile);
        EXPECT_TRUE(platform::AddPrinterDriverW(u"", 6, driver));
        platform::PrinterInfo2 info;
        info.printerName = name;
        info.portName = u"LPT1:";
        info.driverName = driver.name;
        info.printProcessor = u"winprint";
        info.attributes = platform::PRINTER_ATTRIBUTE_LOCAL;
        return platform::AddPrinterW(u"", info);
    }

    platform::UniqueKey key_;
    std::string tracePath_;
};

// Text of a UTF-16 list with its zeros shown as "|".
std::string Shown(std::u16string list) {
    for (char16_t& c : list) {
        c = c == u'\0' ? u'|' : c;
    }
    return ovtest::U8(list);
}

const std::u16string kTwoTrays = u"1,Upper\0*4,Manual\0\0"s;
const std::u16string kPapers = u"*9,2100,2970\u00B642,42,2058,2928\0001,2159,2794\0\0"s;
const std::u16string kResolutions = u"300\0*600\0\0"s;

// The parse in one line: end index, lists present, each list with its
// count, the three choices, the zero-margin papers.
std::string Parsed(std::int32_t end, const CPrinterProperties& p) {
    return std::to_string(end) + " " + std::to_string(p.m_dwParts) + " T" + Shown(p.strTrays) +
           "#" + std::to_string(p.m_dwTrays) + " P" + Shown(p.strPapers) + "#" +
           std::to_string(p.m_dwPapers) + " R" + Shown(p.strResolutions) + "#" +
           std::to_string(p.m_dwRess) + " D" + ovtest::U8(p.strDefaultTray) + "/" +
           ovtest::U8(p.strDefaultPaper) + "/" + ovtest::U8(p.strDefaultResolution) + " Z" +
           Shown(p.strZeroBorderPapers);
}

TEST_F(PrinterPropertiesTest, ListsAreSplitCountedAndTheirChoicesTakenOut) {
    struct Case {
        const char* what;
        std::u16string data;
        int length;  // bytes; -1: the whole data
        std::uint32_t parts;
        std::string parsed;
        std::string traced;  // a line the parse writes, or empty
    };
    const std::string kCheck = "m_dwLength == iEnd * sizeof(TCHAR)";
    const std::string kIllegal =
        "Illegal PrinterProperties Format, lan reached while interpreting, len=";
    const std::string kNothing = "-1 0 T#0 P#0 R#0 D// Z";
    const Case cases[] = {
        {"a lone trays list keeps its mark", kTwoTrays, -1, 1,
         "19 1 T1,Upper|*4,Manual||#2 P#0 R#0 D// Z", ""},
        {"a second list takes the marks out", kTwoTrays + u"\0\0"s, -1, 2,
         "21 2 T1,Upper|4,Manual||#2 P||#1 R#0 D4,Manual// Z|", ""},
        {"three lists", kTwoTrays + kPapers + kResolutions, -1, 3,
         "71 3 T1,Upper|4,Manual||#2 P9,2100,2970\u00B642,42,2058,2928|1,2159,2794||#2 "
         "R300|600||#2 D4,Manual/9,2100,2970\u00B642,42,2058,2928/600 "
         "Z9,2100,2970\u00B60,0,2100,2970|1,2159,2794\u00B60,0,2159,2794||",
         ""},
        {"a marked first entry wins, else the last marked one", u"*a\0*b\0\0c\0*d\0*e\0\0"s, -1, 2,
         "16 2 Ta|*b||#2 Pc|*d|e||#3 R#0 Da/e/ Zc|*d|e||",
         "SetZeroBorder: Could not interpret <*d>"},
        {"a bare mark leaves an empty entry", u"1,Upper\0*\0\0\0\0"s, -1, 2,
         "13 2 T1,Upper|||#2 P||#1 R#0 D// Z|", ""},
        {"a paper without three numbers keeps its text before the area",
         u"\0\0Letter\u00B6x\0 9, 5,+7\0\0"s, -1, 2,
         "21 2 T||#1 PLetter\u00B6x| 9, 5,+7||#2 R#0 D// ZLetter| 9, 5,+7\u00B60,0,5,7||",
         "SetZeroBorder: Could not interpret <Letter\u00B6x>"},
        {"more than three parts read three lists", u"\0\0\0\0\0\0"s, -1, 7,
         "6 3 T||#1 P||#1 R||#1 D// Z|", ""},
        {"bytes after the lists are a check entry only", kTwoTrays + u"xyz"s, -1, 1,
         "19 1 T1,Upper|*4,Manual||#2 P#0 R#0 D// Z", kCheck},
        {"an odd length counts whole characters", u"a\0\0"s, 7, 1, "3 1 Ta||#1 P#0 R#0 D// Z",
         kCheck},
        {"no parts", u"1,Upper\0\0"s, 0, 0, "0 0 T#0 P#0 R#0 D// Z", ""},
        {"two bytes", u"\0\0"s, 2, 1, kNothing, kIllegal + "2"},
        {"the closing zeros beyond the length", u"a\0\0"s, 4, 1, kNothing, kIllegal + "4"},
        {"a list without its closing zeros", u"1,Upper\0"s, -1, 1, kNothing, kIllegal + "16"},
        {"a missing second list discards the first", kTwoTrays + u"9,1,1\0"s, -1, 2, kNothing,
         kIllegal + "50"},
        {"a missing third list discards all", kTwoTrays + u"\0\0"s, -1, 3, kNothing,
         kIllegal + "42"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const std::size_t traceBefore = Trace().size();
        // The data in a buffer of its own, so that a read past the length
        // shows under the address sanitizer.
        std::vector<char16_t> buffer(c.data.begin(), c.data.end());
        CPrinterProperties props(c.length < 0 ? static_cast<std::uint32_t>(buffer.size() * 2)
                                              : static_cast<std::uint32_t>(c.length),
                                 c.parts);
        const std::int32_t end = ParsePrinterProperties(&props, buffer.data());
        EXPECT_EQ(Parsed(end, props), c.parsed);
        const std::string written = Trace().substr(traceBefore);
        if (c.traced.empty()) {
            EXPECT_EQ(written.find(kCheck), std::string::npos) << written;
            EXPECT_EQ(written.find("Illegal"), std::string::npos) << written;
        } else {
            EXPECT_NE(written.find(c.traced), std::string::npos) << written;
        }
    }
}

// What a printer gets, by PrinterPropertyFlags, duplex option, driver file
// and the driver's options. The device mode starts blank (the settings at
// stake zero and their field bits clear), so that every setting made shows;
// 0 below means left alone.
TEST_F(PrinterPropertiesTest, FlagsChooseTheDataAndDeviceSettingsApplied) {
    struct Case {
        const char* what;
        std::uint32_t flags;
        std::u16string data;
        std::uint32_t parts;
        std::uint32_t option;
        std::string driverFile;
        std::optional<platform::DWORD> optionTrays, optionDuplex;  // the driver's, before
        std::string trayData, formData, resolutionData;            // "" when not written
        std::optional<platform::DWORD> optionTraysAfter, optionDuplexAfter;
        short source, duplex, paper, quality;
    };
    constexpr auto no = std::nullopt;
    const std::u16string all = kTwoTrays + kPapers + kResolutions;
    const std::string trays = "1,Upper|4,Manual||";
    const std::string papers = "9,2100,2970\u00B642,42,2058,2928|1,2159,2794||";
    const std::string zeroBorder =
        "9,2100,2970\u00B60,0,2100,2970|1,2159,2794\u00B60,0,2159,2794||";
    const std::string res = "300|600||";
    const Case cases[] = {
        {"everything", 0xFFFF, all, 3, PROP_DUPLEX_VERTICAL, "OVPRN.DLL", 1, 1, trays, papers, res,
         1, 1, 4, platform::DMDUP_VERTICAL, 9, 600},
        {"papers with the whole sheet printable", 0x01, all, 3, 0, "ovprn.dll", 1, 1, "",
         zeroBorder, "", 1, 1, 0, 0, 9, 0},
        {"0x02 alone writes no forms", 0x02, all, 3, 0, "OVPRN.DLL", no, no, "", "", "", no, no, 0,
         0, 0, 0},
        {"simplex only removes the duplex unit", 0x1C, all, 3, PROP_SIMPLEX, "UNIDRV.DLL", 1, 1,
         trays, "", res, 1, 0, 4, platform::DMDUP_SIMPLEX, 0, 0},
        {"a duplex unit with simplex chosen", 0x10, all, 3, PROP_DUPLEX_SIMPLEX, "OVPRN.DLL", 1, 1,
         "", "", "", 1, 1, 0, platform::DMDUP_SIMPLEX, 0, 0},
        {"horizontal duplex", 0x10, all, 3, PROP_DUPLEX_HORIZONTAL | 0x30, "OVPRN.DLL", 1, 1, "",
         "", "", 1, 1, 0, platform::DMDUP_HORIZONTAL, 0, 0},
        {"an unknown duplex option", 0x10, all, 3, 3, "OVPRN.DLL", 1, 1, "", "", "", 1, 1, 0, 0, 0,
         0},
        {"a driver without the options keeps its defaults", 0xFFFF, all, 3, PROP_DUPLEX_VERTICAL,
         "OVPRN.DLL", no, 0, trays, papers, res, no, 0, 0, 0, 9, 600},
        {"without 0x10 the option is not looked at", 0x0F, all, 3, PROP_DUPLEX_VERTICAL,
         "OVPRN.DLL", 1, 1, trays, papers, res, 1, 1, 4, 0, 9, 600},
        {"one tray: the driver's tray option goes", 0x04, u"*2,Only\0\0\0\0"s, 2, 0, "OVPRN.DLL", 1,
         1, "2,Only||", "", "", 0, 1, 0, 0, 0, 0},
        {"a lone trays list keeps its mark and sets no source", 0xFFFF, kTwoTrays, 1, 0,
         "OVPRN.DLL", 1, 1, "1,Upper|*4,Manual||", "", "", 1, 1, 0, 0, 0, 0},
        {"a user-defined paper is not set", 0x01, u"\0\0*256,1000,1000\0\0"s, 2, 0, "OVPRN.DLL", no,
         no, "", "256,1000,1000\u00B60,0,1000,1000||", "", no, no, 0, 0, 0, 0},
        {"a format error applies nothing", 0xFFFF, u"\0"s, 1, PROP_DUPLEX_VERTICAL, "OVPRN.DLL", 1,
         1, "", "", "", 1, 1, 0, 0, 0, 0},
    };
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        SetDword(u"PrinterPropertyFlags", c.flags);
        const std::u16string name = u"P" + ovtest::U16(std::to_string(++n));
        platform::UniquePrinter printer = AddPrinter(name, c.driverFile);
        ASSERT_TRUE(printer);
        for (const auto& [option, value] : {std::pair{u"OptionTrays", c.optionTrays},
                                            std::pair{u"OptionDuplex", c.optionDuplex}}) {
            if (value) {
                ASSERT_EQ(platform::SetPrinterDataW(printer.get(), option, platform::REG_DWORD,
                                                    &*value, 4),
                          0u);
            }
        }
        platform::PrinterInfo2 record;
        ASSERT_TRUE(platform::GetPrinterW(printer.get(), &record));
        platform::DevMode& dm = *record.devMode;
        dm.dmFields &= ~(platform::DM_DEFAULTSOURCE | platform::DM_DUPLEX | platform::DM_PAPERSIZE |
                         platform::DM_PRINTQUALITY | platform::DM_YRESOLUTION);
        dm.dmDefaultSource = dm.dmDuplex = dm.dmPaperSize = dm.dmPrintQuality = dm.dmYResolution =
            0;
        platform::DevMode expected = dm;
        EXPECT_EQ(SetPrinterProperties(c.data.data(), static_cast<std::uint32_t>(c.data.size() * 2),
                                       c.parts, c.option, printer.get(), &record),
                  0);

        const auto data = [&](std::u16string_view value) -> std::optional<platform::RegistryValue> {
            std::vector<std::byte> bytes(4096);
            platform::DWORD type = 0;
            platform::DWORD needed = 0;
            if (platform::GetPrinterDataW(printer.get(), value, &type, bytes.data(),
                                          static_cast<platform::DWORD>(bytes.size()),
                                          &needed) != 0) {
                return std::nullopt;
            }
            bytes.resize(needed);
            return platform::RegistryValue{std::u16string(value), type, bytes};
        };
        for (const auto& [value, text] :
             {std::pair{u"TrayData", c.trayData}, std::pair{u"FormData", c.formData},
              std::pair{u"ResolutionData", c.resolutionData}}) {
            const auto got = data(value);
            if (text.empty()) {
                EXPECT_FALSE(got) << ovtest::U8(value);
                continue;
            }
            ASSERT_TRUE(got) << ovtest::U8(value);
            EXPECT_EQ(got->type, platform::REG_MULTI_SZ);
            std::u16string list(got->data.size() / 2, u'\0');
            std::memcpy(list.data(), got->data.data(), list.size() * 2);
            EXPECT_EQ(Shown(list), text) << ovtest::U8(value);
        }
        for (const auto& [value, after] : {std::pair{u"OptionTrays", c.optionTraysAfter},
                                           std::pair{u"OptionDuplex", c.optionDuplexAfter}}) {
            const auto got = data(value);
            ASSERT_EQ(got.has_value(), after.has_value()) << ovtest::U8(value);
            if (after) {
                platform::DWORD stored = 0;
                std::memcpy(&stored, got->data.data(), 4);
                EXPECT_EQ(stored, *after) << ovtest::U8(value);
            }
        }
        const auto set = [&](short value, platform::DWORD fields, auto... members) {
            if (value != 0) {
                ((expected.*members = value), ...);
                expected.dmFields |= fields;
            }
        };
        set(c.source, platform::DM_DEFAULTSOURCE, &platform::DevMode::dmDefaultSource);
        set(c.duplex, platform::DM_DUPLEX, &platform::DevMode::dmDuplex);
        set(c.paper, platform::DM_PAPERSIZE, &platform::DevMode::dmPaperSize);
        set(c.quality, platform::DM_PRINTQUALITY | platform::DM_YRESOLUTION,
            &platform::DevMode::dmPrintQuality, &platform::DevMode::dmYResolution);
        if (c.paper != 0) {
            expected.dmFields &= ~platform::DM_FORMNAME;
        }
        EXPECT_EQ(*record.devMode, expected);
    }
    const std::string trace = Trace();
    for (const char* line :
         {"OVPRN detected", "UNIDRV detected", "PROP_SIMPLEX", "PROP_DUPLEX_VERTICAL",
          "pobjProps->m_dwTrays(4,Manual) = 2", "SetPrinterProperties: no entries found"}) {
        EXPECT_NE(trace.find(line), std::string::npos) << line;
    }

    // No data at all is the one failure; it changes nothing.
    platform::PrinterInfo2 record;
    EXPECT_EQ(SetPrinterProperties(nullptr, 10, 3, 0, nullptr, &record), -1);
    EXPECT_NE(Trace().find("Printer properties not <>, "), std::string::npos);
}

// A template's driver data goes to the new printer value by value; a value
// whose name is longer than a value name may be is left out instead of
// being asked for again and again.
TEST_F(PrinterPropertiesTest, TemplateDriverDataIsCopiedValueByValue) {
    platform::UniquePrinter templ = AddPrinter(u"_#Relay", "OVPRN.DLL");
    platform::UniquePrinter target = AddPrinter(u"Copy", "OVPRN.DLL");
    ASSERT_TRUE(templ && target);
    const platform::DWORD one = 1;
    const std::vector<std::byte> big(5000, std::byte{0x5A});
    const std::u16string longName(300, u'N');
    for (const auto& [name, type, data, size] :
         {std::tuple{std::u16string(u"OptionTrays"), platform::REG_DWORD,
                     static_cast<const void*>(&one), platform::DWORD{4}},
          std::tuple{longName, platform::REG_DWORD, static_cast<const void*>(&one),
                     platform::DWORD{4}},
          std::tuple{std::u16string(u"Big"), platform::REG_BINARY,
                     static_cast<const void*>(big.data()), platform::DWORD{5000}}}) {
        ASSERT_EQ(platform::SetPrinterDataW(templ.get(), name, type, data, size), 0u);
    }
    EXPECT_EQ(CopyPrinterDriverData(u"_#Relay", target.get()), 0);
    platform::DWORD type = 0;
    platform::DWORD needed = 0;
    std::vector<std::byte> got(8000);
    EXPECT_EQ(platform::GetPrinterDataW(target.get(), u"Big", &type, got.data(), 8000, &needed),
              0u);
    EXPECT_EQ(type, platform::REG_BINARY);
    EXPECT_TRUE(std::equal(big.begin(), big.end(), got.begin()) && needed == big.size());
    EXPECT_EQ(
        platform::GetPrinterDataW(target.get(), u"OptionTrays", &type, got.data(), 4, &needed), 0u);
    EXPECT_EQ(platform::GetPrinterDataW(target.get(), longName, &type, got.data(), 4, &needed),
              platform::ERROR_FILE_NOT_FOUND);

    EXPECT_EQ(CopyPrinterDriverData(u"_#Missing", target.get()),
              static_cast<std::int32_t>(platform::ERROR_FILE_NOT_FOUND));
    EXPECT_NE(Trace().find("CopyPrinterDriverData(_#Missing,0x"), std::string::npos);
    EXPECT_NE(Trace().find(") failed at 0 with Rtn=2, GetLastError "), std::string::npos);
}

}  // namespace
}  // namespace ovsvc
