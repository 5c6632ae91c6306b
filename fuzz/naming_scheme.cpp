// Printer names from arbitrary inputs: a client printer name turned into a
// display name by the default scheme ("%P on %S"), and a port monitor's
// name format filled in with arbitrary client, display and user names.
// The input is UTF-16 text: format, client name, display name and user name
// separated by zero characters; the first two bytes give the printer id.
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "create/naming_scheme.h"
#include "fuzz_input.h"
#include "platform/machine.h"

using namespace ovsvc;

// A machine of its own without a product key: the default scheme applies.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::random_device random;
    platform::machine::UseRoot(
        (std::filesystem::temp_directory_path() / ("ovsvc-fuzz-naming-" + std::to_string(random())))
            .string());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    const auto id = static_cast<std::int32_t>(static_cast<std::int16_t>(data[0] | data[1] << 8));
    const std::u16string text = ovfuzz::Utf16(data + 2, size - 2);
    std::vector<std::u16string> fields(4);
    std::size_t field = 0;
    for (const char16_t c : text) {
        if (c == u'\0' && field + 1 < fields.size()) {
            ++field;
        } else {
            fields[field].push_back(c);
        }
    }
    const std::u16string& format = fields[0];
    const std::u16string& client = fields[1];
    const std::u16string& display = fields[2];
    const std::u16string& user = fields[3];

    // A format's pieces never grow by more than the longest input each.
    const std::u16string name = FormatPrinterName(format, client, id, display, user);
    std::size_t bound = format.size();
    for (const char16_t c : format) {
        if (c == u'%') {
            bound += client.size() + display.size() + user.size() + 10;
        }
    }
    if (name.size() > bound) {
        std::abort();
    }
    // "%N" and a plain character: the display name and that character.
    if (FormatPrinterName(u"%N.", client, id, display, user) != display + u".") {
        std::abort();
    }

    // A name that is not "\\server\printer" stays as it is.
    const std::u16string scheme = ApplyPrinterNameScheme(display);
    const bool unc = display.size() >= 3 && display[0] == u'\\' && display[1] == u'\\' &&
                     display.find(u'\\', 2) != std::u16string::npos;
    if (!unc && scheme != display) {
        std::abort();
    }
    if (unc && scheme.find(u" on ") == std::u16string::npos) {
        std::abort();
    }
    return 0;
}
