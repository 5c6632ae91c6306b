// Packing requests into the shared area and fitting properties into it.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "channel/client_sync.h"
#include "channel/properties_trim.h"
#include "channel/shm.h"
#include "channel/startup.h"

namespace {

using ovsvc::ClientRequest;
using ovsvc::SHM;

std::unique_ptr<SHM> DirtyArea() {
    auto area = std::make_unique<SHM>();
    std::memset(area.get(), 0xAB, sizeof(SHM));
    return area;
}

std::u16string Field(const char16_t* field, std::size_t units) {
    return std::u16string(field, std::char_traits<char16_t>::length(field)).substr(0, units);
}

bool ZeroFrom(const char16_t* field, std::size_t from, std::size_t units) {
    for (std::size_t i = from; i < units; ++i) {
        if (field[i] != 0) {
            return false;
        }
    }
    return true;
}

TEST(PackRequest, StringsAreCutToTheirFieldsAndAlwaysTerminated) {
    auto area = DirtyArea();
    const std::u16string longName(400, u'n');
    const std::u16string longAddress = u"123.123.123.123.45";
    ClientRequest request{};
    request.Command = ovsvc::CMDAddPrinter;
    request.PN = longName.c_str();
    request.IP = longAddress.c_str();
    request.CN = u"host";
    ovsvc::PackRequest(request, area.get());

    EXPECT_EQ(area->Command, ovsvc::CMDAddPrinter);
    EXPECT_EQ(Field(area->PN, 256), std::u16string(255, u'n'));
    EXPECT_EQ(area->PN[255], 0);
    EXPECT_EQ(Field(area->IP, 16), u"123.123.123.123");
    EXPECT_EQ(area->IP[15], 0);
    EXPECT_EQ(Field(area->CN, 256), u"host");
    EXPECT_TRUE(ZeroFrom(area->CN, 4, 256)) << "the rest of a field is zero-filled";
    // Fields without a string are cleared, not left with an earlier request's text.
    EXPECT_TRUE(ZeroFrom(area->PC, 0, 256));
    EXPECT_TRUE(ZeroFrom(area->UN, 0, 256));
}

TEST(PackRequest, NumbersAndPropertiesAreCopied) {
    auto area = DirtyArea();
    const std::vector<char16_t> properties = {u'a', 0, 0, u'b', 0, 0};
    ClientRequest request{};
    request.Command = ovsvc::CMDAddPrinter;
    request.TYPE = 147;
    request.PID = 9;
    request.SID = 4;
    request.nFlags = 0x11;
    request.PrinterProperties = properties.data();
    request.PropertiesLength = 12;
    request.PropertiesParts = 2;
    request.nPrinterPropertiesOptions = 7;
    ovsvc::PackRequest(request, area.get());

    EXPECT_EQ(area->TYPE, 147u);
    EXPECT_EQ(area->PID, 9u);
    EXPECT_EQ(area->SID, 4u);
    EXPECT_EQ(area->nFlags, 0x11u);
    EXPECT_EQ(area->PropertiesLength, 12u);
    EXPECT_EQ(area->PropertiesParts, 2u);
    EXPECT_EQ(area->nPrinterPropertiesOptions, 7u);
    EXPECT_EQ(area->PrinterProperties[0], u'a');
    EXPECT_EQ(area->PrinterProperties[3], u'b');
    EXPECT_TRUE(ZeroFrom(area->PrinterProperties, 6, ovsvc::kPropertiesUnits));
}

TEST(PackRequest, PropertiesBeyondTheLimitAreCut) {
    auto area = DirtyArea();
    std::vector<unsigned char> properties(200000, 0x41);
    ClientRequest request{};
    request.PrinterProperties = properties.data();
    request.PropertiesLength = 200000;
    ovsvc::PackRequest(request, area.get());
    EXPECT_EQ(area->PropertiesLength, 131073u);
    const auto* bytes = reinterpret_cast<const unsigned char*>(area->PrinterProperties);
    EXPECT_EQ(bytes[131072], 0x41);
    EXPECT_EQ(bytes[131073], 0) << "nothing past the limit is copied";
}

TEST(PackRequest, NullPropertiesLeaveTheFieldZeroButKeepTheLength) {
    auto area = DirtyArea();
    ClientRequest request{};
    request.PropertiesLength = 40;
    ovsvc::PackRequest(request, area.get());
    EXPECT_EQ(area->PropertiesLength, 40u);
    EXPECT_TRUE(ZeroFrom(area->PrinterProperties, 0, ovsvc::kPropertiesUnits));
}

// A properties list: entries of `entryUnits` characters each, closed by a zero pair.
std::vector<char16_t> List(std::size_t entryUnits) {
    std::vector<char16_t> list(entryUnits, u'e');
    list.push_back(0);
    list.push_back(0);
    return list;
}

struct Properties {
    std::vector<char16_t> data;
    ClientRequest request{};

    explicit Properties(std::initializer_list<std::size_t> entryUnits) {
        for (std::size_t units : entryUnits) {
            const auto list = List(units);
            data.insert(data.end(), list.begin(), list.end());
        }
        request.PrinterProperties = data.data();
        request.PropertiesLength = static_cast<std::uint32_t>(data.size() * 2);
        request.PropertiesParts = static_cast<std::uint32_t>(entryUnits.size());
        request.nPrinterPropertiesOptions = 5;
    }
};

TEST(TrimProperties, ListsThatFitAreSentUnchanged) {
    Properties p({100, 200, 300});
    const auto length = p.request.PropertiesLength;
    ovsvc::TrimProperties(&p.request);
    EXPECT_EQ(p.request.PropertiesLength, length);
    EXPECT_EQ(p.request.PropertiesParts, 3u);
}

TEST(TrimProperties, TrailingListsThatDoNotFitAreDropped) {
    // Trays 40,002 bytes and papers 60,002 fit; resolutions push past 131,073.
    Properties p({19999, 29999, 20000});
    ovsvc::TrimProperties(&p.request);
    EXPECT_EQ(p.request.PropertiesParts, 2u);
    EXPECT_EQ(p.request.PropertiesLength, (20001u + 30001u) * 2);

    Properties q({40000, 40000, 10});
    ovsvc::TrimProperties(&q.request);
    EXPECT_EQ(q.request.PropertiesParts, 1u);
    EXPECT_EQ(q.request.PropertiesLength, 40002u * 2);
}

TEST(TrimProperties, AFirstListTooLargeDropsAllProperties) {
    Properties p({70000});
    ovsvc::TrimProperties(&p.request);
    EXPECT_EQ(p.request.PrinterProperties, nullptr);
    EXPECT_EQ(p.request.PropertiesLength, 0u);
    EXPECT_EQ(p.request.PropertiesParts, 0u);
    EXPECT_EQ(p.request.nPrinterPropertiesOptions, 0u);
}

TEST(TrimProperties, ExactLimitAndUnsplittableDataAreLeftAlone) {
    Properties exact({70000});
    exact.request.PropertiesLength = ovsvc::kMaxPropertiesBytes;
    ovsvc::TrimProperties(&exact.request);
    EXPECT_NE(exact.request.PrinterProperties, nullptr);
    EXPECT_EQ(exact.request.PropertiesLength, ovsvc::kMaxPropertiesBytes);

    std::vector<char16_t> noPair(80000, u'x');
    ClientRequest request{};
    request.PrinterProperties = noPair.data();
    request.PropertiesLength = 160000;
    request.PropertiesParts = 1;
    ovsvc::TrimProperties(&request);
    EXPECT_EQ(request.PropertiesLength, 160000u) << "left for the area's own limit";
    EXPECT_EQ(request.PropertiesParts, 1u);
}

TEST(ObjectNames, AcknowledgeAndEnumerationNamesCarryTheThreadId) {
    EXPECT_EQ(ovsvc::Ack2Name(0x1a2b), u"Global\\OVC-Ack2-00001a2b");
    EXPECT_EQ(ovsvc::Ack2Name(0xFFFFFFFF), u"Global\\OVC-Ack2-ffffffff");
    EXPECT_EQ(ovsvc::EnumMappingName(4711), u"Global\\OVC-ENUMSHM4711");
}

}  // namespace
