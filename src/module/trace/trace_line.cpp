#include "trace/trace_line.h"

#include "common/format.h"
#include "common/ovstring.h"
#include "trace/trace.h"

namespace ovsvc::trace {

namespace {

constexpr std::uint32_t kLevelMask = 0xFF000000;
constexpr std::uint32_t kCategoryMask = 0x00FFFFFF;

bool IsSeparator(char16_t c) {
    return c == u'/' || c == u'\\' || c == u':';
}

}  // namespace

std::u16string LocationPrefix(std::u16string_view sourceFile, unsigned line, bool isService) {
    std::size_t start = sourceFile.size();
    while (start > 0 && !IsSeparator(sourceFile[start - 1])) {
        --start;
    }
    std::u16string_view name = sourceFile.substr(start);
    std::u16string_view extension;
    if (const std::size_t dot = name.rfind(u'.'); dot != std::u16string_view::npos) {
        extension = name.substr(dot);
        name = name.substr(0, dot);
    }
    const char16_t* mark = EqualsNoCase(extension, u".cpp") ? u"%" : u"%%";
    return Format(u"%s%s%u _%s_ ", name, mark, line, isService ? u"SVC" : u"CLIENT");
}

std::u16string LevelText(std::uint32_t code) {
    switch (code & kLevelMask) {
        case INF:
            return u"INF";
        case ERR:
            return u"ERR";
        case WRN:
            return u"WRN";
        case RAW:
            return u"RAW";
        default:
            return Format(u"?%02x", code & kLevelMask);
    }
}

std::u16string_view CategoryText(std::uint32_t code) {
    switch (code & kCategoryMask) {
        case NOTH:
            return u"NOTH";
        case NORM:
            return u"NORM";
        case MAIN:
            return u"MAIN";
        case SYNC:
            return u"SYNC";
        case SACL:
            return u"SACL";
        case CACH:
            return u"CACH";
        default:
            return u"????";
    }
}

bool PassesFilter(std::uint32_t code, std::uint32_t mask) {
    const std::uint32_t level = code & kLevelMask;
    if (level == ERR || level == WRN) {
        return true;
    }
    return (mask & code & kCategoryMask) != 0;
}

std::uint32_t CategoryOfSection(std::u16string_view section) {
    if (section == u"DLL: OVADLLRunMain()") {
        return MAIN;
    }
    if (section == u"DLL: ClientSync()") {
        return SYNC;
    }
    if (section == u"DLL: Add-Access-Rights()") {
        return SACL;
    }
    if (section == u"DLL: Cache consistence()") {
        return CACH;
    }
    return NORM;
}

std::u16string StampPiece(const Stamp& stamp) {
    return Format(u"%.2d.%.2d.%.4d %.2d:%.2d:%.2d:%.3d Id:%03d ", stamp.day, stamp.month,
                  stamp.year, stamp.hour, stamp.minute, stamp.second, stamp.millisecond,
                  stamp.threadId);
}

std::u16string CodePiece(std::uint32_t code) {
    return Format(u"_%s_/%s=%02xh", LevelText(code), CategoryText(code), code & kCategoryMask);
}

void AppendUtf8Limited(std::string* out, std::u16string_view text, std::size_t limit) {
    const std::string utf8 = ToUtf8(text);
    if (utf8.size() <= limit) {
        out->append(utf8);
        return;
    }
    std::size_t cut = limit;
    while (cut > 0 && (static_cast<unsigned char>(utf8[cut]) & 0xC0) == 0x80) {
        --cut;  // back to the start of the character that would be split
    }
    out->append(utf8, 0, cut);
}

void AppendDump(std::string* out, const void* data, std::int64_t length) {
    if (length <= 0 || data == nullptr) {
        out->append("    no data");
        return;
    }
    static constexpr char kHex[] = "0123456789abcdef";
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (std::int64_t row = 0; row < length; row += 16) {
        const std::int64_t count = length - row < 16 ? length - row : 16;
        std::string line = "    ";
        for (std::int64_t i = 0; i < count; ++i) {
            const unsigned char b = bytes[row + i];
            line.push_back(kHex[b >> 4]);
            line.push_back(kHex[b & 0xF]);
            line.push_back(' ');
        }
        line.append("  :");
        for (std::int64_t i = 0; i < count; ++i) {
            const unsigned char b = bytes[row + i];
            line.push_back(b >= 0x20 && b < 0x7F ? static_cast<char>(b) : '.');
        }
        line.append("\r\n");
        out->append(line, 0, kDumpRowLimit);
    }
}

}  // namespace ovsvc::trace
