// Filling the translation table from arbitrary registry data (the bytes of
// a REG_MULTI_SZ value), looking a client up in it, and checking that the
// corrected list written after a faulty load always reads back cleanly.
#include <array>
#include <cstdlib>
#include <span>

#include "platform/registry.h"
#include "rules/registry_list.h"
#include "rules/translation_table.h"

using namespace ovsvc;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto bytes = std::as_bytes(std::span(data, size));
    const std::vector<std::u16string> list = StringListFromData(platform::REG_MULTI_SZ, bytes);

    CTranslationTable table;
    FillTable(&table, list);
    const CTranslationRule request = MakeTranslationRequest(
        u"\\\\srv\\lp1", u"HP LaserJet", u"10.1.2.3", u"CLIENT", ClientTypeBit(3), u"HP PCL");
    std::array<std::u16string, 3> templates;
    std::array<std::u16string, 3> lines;
    std::uint32_t count = 3;
    table.FindRule(request, templates, count, lines, true);
    if (count > 3) {
        std::abort();
    }

    const std::vector<std::u16string> corrected = CorrectedList(list);
    CTranslationTable reread;
    if (FillTable(&reread, corrected) != 1) {
        std::abort();
    }
    const std::vector<std::u16string> again = reread.ToLines();
    if (again.size() != corrected.size()) {
        std::abort();
    }
    for (std::size_t i = 1; i < again.size(); ++i) {
        if (again[i] != corrected[i]) {
            std::abort();
        }
    }

    CTranslationTable old;
    FillTableFromPairs(&old, list);
    count = 3;
    old.FindRule(request, templates, count, lines, false);
    return 0;
}
