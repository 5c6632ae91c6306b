// Names of autocreated printers: the client printer's name turned into a
// display name by the administrator's scheme, then placed into the name
// format of the template's port monitor.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ovsvc {

// "\\server\printer" rewritten by the PrinterNameScheme setting ("%P on %S"
// by default); any other name unchanged.
std::u16string ApplyPrinterNameScheme(std::u16string_view clientPrinterName);
// The scheme with "%P" the printer part, "%S" the server part, "%%" a "%".
std::u16string ExpandPrinterNameScheme(std::u16string_view printerPart,
                                       std::u16string_view serverPart);
// The format with "%A" the client name, "%I" the printer id (a positive id;
// otherwise nothing, and the character before it goes too), "%N" the display
// name, "%U" the account part of the user name, "%%" a "%".
std::u16string FormatPrinterName(std::u16string_view format, std::u16string_view clientName,
                                 std::int32_t printerId, std::u16string_view displayName,
                                 std::u16string_view userName);

}  // namespace ovsvc
