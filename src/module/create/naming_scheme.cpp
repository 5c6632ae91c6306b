#include "create/naming_scheme.h"

#include "common/format.h"
#include "config/product_values.h"

namespace ovsvc {

namespace {

bool IsBlank(char16_t c) {
    return c == u' ' || (c >= u'\t' && c <= u'\r');
}

// The text after the first backslash up to the first blank; empty without
// a backslash.
std::u16string AccountPart(std::u16string_view userName) {
    const std::size_t slash = userName.find(u'\\');
    if (slash == std::u16string_view::npos) {
        return {};
    }
    std::u16string account;
    for (std::size_t i = slash + 1; i < userName.size() && !IsBlank(userName[i]); ++i) {
        account.push_back(userName[i]);
    }
    return account;
}

}  // namespace

std::u16string ApplyPrinterNameScheme(std::u16string_view clientPrinterName) {
    const std::u16string_view n = clientPrinterName;
    if (n.size() < 3 || !n.starts_with(u"\\\\")) {
        return std::u16string(n);
    }
    const std::size_t slash = n.find(u'\\', 2);
    if (slash == std::u16string_view::npos) {
        return std::u16string(n);
    }
    return ExpandPrinterNameScheme(n.substr(slash + 1), n.substr(2, slash - 2));
}

std::u16string ExpandPrinterNameScheme(std::u16string_view printerPart,
                                       std::u16string_view serverPart) {
    const std::u16string scheme = config::PrinterNameScheme();
    std::u16string result;
    for (std::size_t i = 0; i < scheme.size(); ++i) {
        if (scheme[i] == u'%' && i + 1 < scheme.size()) {
            const char16_t next = scheme[i + 1];
            if (next == u'%' || next == u'P' || next == u'S') {
                result += next == u'%'   ? std::u16string_view(u"%")
                          : next == u'P' ? printerPart
                                         : serverPart;
                ++i;
                continue;
            }
        }
        result.push_back(scheme[i]);
    }
    return result;
}

std::u16string FormatPrinterName(std::u16string_view format, std::u16string_view clientName,
                                 std::int32_t printerId, std::u16string_view displayName,
                                 std::u16string_view userName) {
    const std::u16string id = Format(u"%u", static_cast<std::uint32_t>(printerId));
    const std::u16string account = AccountPart(userName);
    std::u16string out;
    std::size_t i = 0;
    while (i + 1 < format.size()) {
        const char16_t c = format[i];
        if (c != u'%') {
            out.push_back(c);
            ++i;
            continue;
        }
        switch (format[i + 1]) {
            case u'%':
                out.push_back(u'%');
                break;
            case u'A':
                out += clientName;
                break;
            case u'N':
                out += displayName;
                break;
            case u'U':
                out += account;
                break;
            case u'I':
                if (printerId > 0) {
                    out += id;
                } else if (!out.empty()) {
                    out.pop_back();
                }
                break;
            default:
                out.push_back(u'%');
                out.push_back(format[i + 1]);
                break;
        }
        i += 2;
    }
    if (i + 1 == format.size()) {
        out.push_back(format[i]);
    }
    return out;
}

}  // namespace ovsvc
