#include "create/printer_properties.h"

#include <cstring>
#include <optional>

#include "common/ovstring.h"
#include "config/product_values.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

constexpr char16_t kMark = u'*';
constexpr char16_t kAreaMark = u'\u00B6';  // "¶": the printable area follows

// Reads one UTF-16 unit at `index` of unaligned data.
char16_t UnitAt(const void* data, std::size_t index) {
    char16_t unit = 0;
    std::memcpy(&unit, static_cast<const unsigned char*>(data) + index * 2, sizeof unit);
    return unit;
}

bool IsScanSpace(char16_t c) {
    return c == u' ' || (c >= u'\t' && c <= u'\r');
}

// One "%d" / "%u" conversion as the C library's scanf makes it: white space,
// an optional sign, at least one decimal digit. The value wraps to 32 bits.
std::optional<std::uint32_t> ScanNumber(std::u16string_view text, std::size_t* at) {
    std::size_t i = *at;
    while (i < text.size() && IsScanSpace(text[i])) {
        ++i;
    }
    bool negative = false;
    if (i < text.size() && (text[i] == u'+' || text[i] == u'-')) {
        negative = text[i] == u'-';
        ++i;
    }
    const std::size_t digits = i;
    std::uint32_t value = 0;
    while (i < text.size() && text[i] >= u'0' && text[i] <= u'9') {
        value = value * 10 + static_cast<std::uint32_t>(text[i] - u'0');
        ++i;
    }
    if (i == digits) {
        return std::nullopt;
    }
    *at = i;
    return negative ? 0u - value : value;
}

// "%d," and "%d": the leading number of an entry (a missing comma after it
// does not matter, as for scanf, which counts only conversions).
std::optional<std::int32_t> LeadingNumber(std::u16string_view entry) {
    std::size_t at = 0;
    const auto n = ScanNumber(entry, &at);
    if (!n) {
        return std::nullopt;
    }
    return static_cast<std::int32_t>(*n);
}

// "%u,%u,%u": number, width and length of a paper entry.
bool ScanPaper(std::u16string_view entry, std::uint32_t* width, std::uint32_t* length) {
    std::size_t at = 0;
    std::uint32_t values[3] = {};
    for (int i = 0; i < 3; ++i) {
        if (i > 0) {
            if (at >= entry.size() || entry[at] != u',') {
                return false;
            }
            ++at;
        }
        const auto n = ScanNumber(entry, &at);
        if (!n) {
            return false;
        }
        values[i] = *n;
    }
    *width = values[1];
    *length = values[2];
    return true;
}

// The list starting at character `start`: up to and including the first
// pair of zeros that lies wholly inside the data.
bool TakeList(const void* data, std::size_t units, std::size_t* end, std::u16string* list,
              std::uint32_t* count) {
    const std::size_t start = *end;
    std::uint32_t zeros = 0;
    for (std::size_t i = start; i + 2 <= units; ++i) {
        if (UnitAt(data, i) != u'\0') {
            continue;
        }
        if (UnitAt(data, i + 1) == u'\0') {
            list->resize(i + 2 - start);
            std::memcpy(list->data(), static_cast<const unsigned char*>(data) + start * 2,
                        list->size() * 2);
            *count = zeros + 1;
            *end = i + 2;
            return true;
        }
        ++zeros;
    }
    return false;
}

// Reads a REG_DWORD option of the printer's driver data; nullopt when it is
// missing, of another type or 0.
std::optional<platform::DWORD> DriverOption(platform::HANDLE printer, std::u16string_view name) {
    platform::DWORD type = 0;
    platform::DWORD value = 0;
    platform::DWORD needed = 0;
    if (platform::GetPrinterDataW(printer, name, &type, &value, sizeof value, &needed) !=
            platform::ERROR_SUCCESS ||
        type != platform::REG_DWORD || value == 0) {
        return std::nullopt;
    }
    return value;
}

bool ClearDriverOption(platform::HANDLE printer, std::u16string_view name) {
    const platform::DWORD zero = 0;
    return platform::SetPrinterDataW(printer, name, platform::REG_DWORD, &zero, sizeof zero) ==
           platform::ERROR_SUCCESS;
}

bool WriteList(platform::HANDLE printer, std::u16string_view name, const std::u16string& list) {
    return platform::SetPrinterDataW(printer, name, platform::REG_MULTI_SZ, list.data(),
                                     static_cast<platform::DWORD>(list.size() * 2)) ==
           platform::ERROR_SUCCESS;
}

}  // namespace

std::int32_t ParsePrinterProperties(CPrinterProperties* props, const void* data) {
    props->m_pData = data;
    const std::size_t units = data == nullptr ? 0 : props->m_dwLength / 2;
    const std::uint32_t parts = props->m_dwParts;
    std::size_t end = 0;
    const bool complete =
        (parts < 1 || (props->m_dwLength >= 4 &&
                       TakeList(data, units, &end, &props->strTrays, &props->m_dwTrays))) &&
        (parts < 2 || TakeList(data, units, &end, &props->strPapers, &props->m_dwPapers)) &&
        (parts < 3 || TakeList(data, units, &end, &props->strResolutions, &props->m_dwRess));
    if (!complete) {
        OVTRACE(ERR | NORM,
                "Illegal PrinterProperties Format, lan reached while interpreting, len=%d",
                props->m_dwLength);
        props->strTrays.clear();
        props->strPapers.clear();
        props->strResolutions.clear();
        props->m_dwTrays = props->m_dwPapers = props->m_dwRess = 0;
        props->m_dwLength = 0;
        props->m_dwParts = 0;
        return -1;
    }
    if (parts > 3) {
        props->m_dwParts = 3;
    }
    if (props->m_dwLength != end * 2) {
        TraceCheck("m_dwLength == iEnd * sizeof(TCHAR)", __FILE__, __LINE__);
    }
    if (parts >= 2) {
        // With a lone trays list the mark stays in it.
        props->strDefaultTray = ExtractDefaultEntry(&props->strTrays);
        props->strDefaultPaper = ExtractDefaultEntry(&props->strPapers);
        if (parts >= 3) {
            props->strDefaultResolution = ExtractDefaultEntry(&props->strResolutions);
        }
        props->strZeroBorderPapers = SetZeroBorder(props->strPapers);
    }
    return static_cast<std::int32_t>(end);
}

std::u16string ExtractDefaultEntry(std::u16string* list) {
    std::optional<std::size_t> mark;
    if (!list->empty() && (*list)[0] == kMark) {
        mark = 0;
    } else {
        for (std::size_t i = 0; i + 1 < list->size(); ++i) {
            if ((*list)[i] == u'\0' && (*list)[i + 1] == kMark) {
                mark = i + 1;
            }
        }
    }
    if (!mark) {
        return {};
    }
    const std::size_t textStart = *mark + 1;
    std::size_t textEnd = list->find(u'\0', textStart);
    if (textEnd == std::u16string::npos) {
        textEnd = list->size();
    }
    std::u16string choice = list->substr(textStart, textEnd - textStart);
    list->erase(*mark, 1);
    return choice;
}

std::u16string SetZeroBorder(std::u16string_view papers) {
    std::u16string out;
    std::size_t at = 0;
    while (at < papers.size() && papers[at] != u'\0') {
        std::size_t next = papers.find(u'\0', at);
        if (next == std::u16string_view::npos) {
            next = papers.size();
        }
        const std::u16string_view entry = papers.substr(at, next - at);
        out += entry.substr(0, entry.find(kAreaMark));
        std::uint32_t width = 0;
        std::uint32_t length = 0;
        if (ScanPaper(entry, &width, &length)) {
            out += Format(u"%s0,0,%u,%u", std::u16string_view(&kAreaMark, 1), width, length);
        } else {
            OVTRACE(ERR | NORM, "SetZeroBorder: Could not interpret <%s>", entry);
        }
        out.push_back(u'\0');
        at = next + 1;
    }
    out.push_back(u'\0');
    return out;
}

bool IsOVPRNDriver(platform::HANDLE printer) {
    constexpr std::u16string_view kFile = u"OVPRN.DLL";
    const auto driver = platform::GetPrinterDriverW(printer, u"", 2);
    if (!driver || driver->driverPath.size() < kFile.size()) {
        return false;
    }
    return EqualsNoCase(
        std::u16string_view(driver->driverPath).substr(driver->driverPath.size() - kFile.size()),
        kFile);
}

void SetPrinterPropertiesDevmode(const CPrinterProperties& props, std::uint32_t options,
                                 platform::HANDLE printer, platform::PrinterInfo2* record,
                                 std::uint32_t flags) {
    if (!record->devMode) {
        OVTRACE(INF | NORM, "SetPrinterPropertiesDevmode: pDevmode == NULL");
        return;
    }
    platform::DevMode& dm = *record->devMode;
    if ((flags & kPropTrays) != 0 && DriverOption(printer, u"OptionTrays")) {
        OVTRACE(INF | NORM, "pobjProps->m_dwTrays(%s) = %d", props.strDefaultTray, props.m_dwTrays);
        if (props.m_dwTrays < 2) {
            if (!ClearDriverOption(printer, u"OptionTrays")) {
                OVTRACE(ERR | NORM, "OptionTrays failed err=%d", platform::GetLastError());
            }
        } else if (const auto source = LeadingNumber(props.strDefaultTray)) {
            dm.dmFields |= platform::DM_DEFAULTSOURCE;
            dm.dmDefaultSource = static_cast<short>(*source);
        }
    }
    if ((flags & kPropDuplex) != 0) {
        OVTRACE(INF | NORM, "dwOptions = %d", options);
        if (DriverOption(printer, u"OptionDuplex")) {
            short duplex = 0;
            switch (options & 0x0F) {
                case PROP_SIMPLEX:
                    OVTRACE(INF | NORM, "PROP_SIMPLEX");
                    if (!ClearDriverOption(printer, u"OptionDuplex")) {
                        OVTRACE(ERR | NORM, "OptionDuplex failed err=%d", platform::GetLastError());
                    }
                    duplex = platform::DMDUP_SIMPLEX;
                    break;
                case PROP_DUPLEX_SIMPLEX:
                    OVTRACE(INF | NORM, "PROP_DUPLEX_SIMPLEX");
                    duplex = platform::DMDUP_SIMPLEX;
                    break;
                case PROP_DUPLEX_HORIZONTAL:
                    OVTRACE(INF | NORM, "PROP_DUPLEX_HORIZONTAL");
                    duplex = platform::DMDUP_HORIZONTAL;
                    break;
                case PROP_DUPLEX_VERTICAL:
                    OVTRACE(INF | NORM, "PROP_DUPLEX_VERTICAL");
                    duplex = platform::DMDUP_VERTICAL;
                    break;
                default:
                    break;
            }
            if (duplex != 0) {
                dm.dmFields |= platform::DM_DUPLEX;
                dm.dmDuplex = duplex;
            }
        }
    }
    if (!IsOVPRNDriver(printer)) {
        OVTRACE(INF | NORM, "UNIDRV detected");
        return;
    }
    OVTRACE(INF | NORM, "OVPRN detected");
    if ((flags & kPropPapers) != 0) {
        OVTRACE(INF | NORM, "pobjProps->m_dwPapers(%s) = %d", props.strDefaultPaper,
                props.m_dwPapers);
        constexpr std::int32_t kUserDefinedPaper = 256;
        if (const auto paper = LeadingNumber(props.strDefaultPaper);
            props.m_dwPapers != 0 && paper && *paper != kUserDefinedPaper) {
            dm.dmPaperSize = static_cast<short>(*paper);
            dm.dmFields &=
                ~(platform::DM_PAPERLENGTH | platform::DM_PAPERWIDTH | platform::DM_FORMNAME);
            dm.dmFields |= platform::DM_PAPERSIZE;
        }
    }
    if ((flags & kPropResolutions) != 0) {
        OVTRACE(INF | NORM, "pobjProps->m_dwRess(%s) = %d", props.strDefaultResolution,
                props.m_dwRess);
        if (const auto dpi = LeadingNumber(props.strDefaultResolution);
            props.m_dwRess != 0 && dpi) {
            dm.dmFields |= platform::DM_PRINTQUALITY | platform::DM_YRESOLUTION;
            dm.dmPrintQuality = static_cast<short>(*dpi);
            dm.dmYResolution = static_cast<short>(*dpi);
        }
    }
}

std::int32_t SetPrinterProperties(const void* properties, std::uint32_t length, std::uint32_t parts,
                                  std::uint32_t options, platform::HANDLE printer,
                                  platform::PrinterInfo2* record) {
    if (properties == nullptr) {
        OVTRACE(ERR | NORM, "Printer properties not <%s>, %d", u"", platform::GetLastError());
        return -1;
    }
    const std::uint32_t flags = config::PrinterPropertyFlags();
    CPrinterProperties props(length, parts);
    ParsePrinterProperties(&props, properties);
    if (props.m_dwParts == 0) {
        OVTRACE(INF | NORM, "SetPrinterProperties: no entries found");
        return 0;
    }
    if ((flags & kPropTrays) != 0 && props.strTrays.size() > 2 &&
        !WriteList(printer, u"TrayData", props.strTrays)) {
        OVTRACE(ERR | NORM, "SetPrinterData failed 0 err=%d", platform::GetLastError());
    }
    const std::u16string* forms = nullptr;
    switch (flags & (kPropPapers | kPropPapersAsReceived)) {
        case kPropPapers | kPropPapersAsReceived:
            forms = &props.strPapers;
            break;
        case kPropPapers:
            forms = &props.strZeroBorderPapers;
            break;
        default:
            break;
    }
    if (forms != nullptr && forms->size() > 2 && !WriteList(printer, u"FormData", *forms)) {
        OVTRACE(ERR | NORM, "SetPrinterData failed 1 err=%d", platform::GetLastError());
    }
    if ((flags & kPropResolutions) != 0 && props.strResolutions.size() > 2 &&
        !WriteList(printer, u"ResolutionData", props.strResolutions)) {
        OVTRACE(ERR | NORM, "SetPrinterData failed 2 err=%d", platform::GetLastError());
    }
    SetPrinterPropertiesDevmode(props, (flags & kPropDuplex) != 0 ? options : PROP_SIMPLEX, printer,
                                record, flags);
    return 0;
}

}  // namespace ovsvc
