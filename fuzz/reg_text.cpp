// .reg text from outside: parsing must never crash, and every value it
// accepts must come back unchanged through the notation the exporter writes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/registry_text.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::u16string text;
    for (std::size_t i = 0; i + 1 < size; i += 2) {
        text.push_back(static_cast<char16_t>(data[i] | (data[i + 1] << 8)));
    }
    std::vector<platform::regtext::Entry> entries;
    std::string error;
    if (!platform::regtext::ParseFile(text, &entries, &error)) {
        if (error.rfind("line ", 0) != 0) {
            std::abort();  // every refusal names its line
        }
        return 0;
    }
    for (const auto& entry : entries) {
        if (entry.kind != platform::regtext::Entry::Kind::SetValue) {
            continue;
        }
        const auto& value = entry.value;
        platform::DWORD type = 0;
        std::vector<std::byte> back;
        const std::u16string notation = platform::regtext::FormatData(value.type, value.data);
        if (!platform::regtext::ParseData(notation, &type, &back, &error) || type != value.type ||
            back != value.data) {
            std::abort();
        }
    }
    return 0;
}
