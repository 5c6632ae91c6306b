#include "channel/properties_trim.h"

#include <cstring>
#include <optional>

namespace ovsvc {

namespace {

// Reads one UTF-16 unit at `index` of unaligned data.
char16_t UnitAt(const void* data, std::size_t index) {
    char16_t unit = 0;
    std::memcpy(&unit, static_cast<const unsigned char*>(data) + index * 2, sizeof(unit));
    return unit;
}

// End (in units, past the closing pair of zeros) of the list that starts at
// `start`, looking only at pairs wholly inside `units`.
std::optional<std::size_t> ListEnd(const void* data, std::size_t units, std::size_t start) {
    for (std::size_t i = start; i + 2 <= units; ++i) {
        if (UnitAt(data, i) == 0 && UnitAt(data, i + 1) == 0) {
            return i + 2;
        }
    }
    return std::nullopt;
}

}  // namespace

void TrimProperties(ClientRequest* request) {
    if (request->PrinterProperties == nullptr || request->PropertiesParts == 0 ||
        request->PropertiesLength == kMaxPropertiesBytes) {
        return;
    }
    const std::size_t units = request->PropertiesLength / 2;
    const std::uint32_t parts = request->PropertiesParts < 3 ? request->PropertiesParts : 3;
    std::uint64_t bytes[3] = {0, 0, 0};
    std::size_t start = 0;
    for (std::uint32_t part = 0; part < parts; ++part) {
        const auto end = ListEnd(request->PrinterProperties, units, start);
        if (!end) {
            return;  // not a list format the client can split; the service judges it
        }
        bytes[part] = (*end - start) * 2;
        start = *end;
    }
    if (bytes[0] > kMaxPropertiesBytes) {
        request->PrinterProperties = nullptr;
        request->PropertiesLength = 0;
        request->PropertiesParts = 0;
        request->nPrinterPropertiesOptions = 0;
    } else if (bytes[0] + bytes[1] > kMaxPropertiesBytes) {
        request->PropertiesLength = static_cast<std::uint32_t>(bytes[0]);
        request->PropertiesParts = 1;
    } else if (bytes[0] + bytes[1] + bytes[2] > kMaxPropertiesBytes) {
        request->PropertiesLength = static_cast<std::uint32_t>(bytes[0] + bytes[1]);
        request->PropertiesParts = 2;
    }
}

}  // namespace ovsvc
