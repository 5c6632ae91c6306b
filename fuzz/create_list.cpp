// Parsing an arbitrary printer create list (the bytes of a REG_MULTI_SZ
// value) and evaluating it for a client.
#include <array>
#include <cstdlib>
#include <span>

#include "platform/registry.h"
#include "rules/printer_create_list.h"
#include "rules/registry_list.h"

using namespace ovsvc;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto bytes = std::as_bytes(std::span(data, size));
    const std::vector<std::u16string> list = StringListFromData(platform::REG_MULTI_SZ, bytes);
    CPrinterCreateList createList;
    createList.Parse(list);

    const std::vector<std::u16string> groups{u"Domain Users", u"Sales EMEA"};
    CPrinterCreateRule request;
    request.SetIP(u"10.2.3.4");
    request.m_strClientName = u"PC1";
    request.m_pGroups = &groups;
    std::array<std::u16string, 3> destinations;
    std::array<std::u16string, 3> lines;
    std::uint32_t count = 3;
    createList.FindCreateRules(&request, destinations, count, lines);
    if (count > 3) {
        std::abort();
    }
    for (std::uint32_t i = 0; i < count; ++i) {
        if (destinations[i].empty()) {
            std::abort();  // disabled rules (empty destination) never apply
        }
    }
    return 0;
}
