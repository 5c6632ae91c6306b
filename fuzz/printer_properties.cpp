// Reading a create request's printer properties. The first byte gives the
// number of lists (0 to 7); the rest is the data, in a buffer of exactly its
// size (odd sizes included), so that a read past the length is caught.
//
// Beyond "no crash": a format error keeps nothing; otherwise the lists fill
// the data up to the end index less at most one taken-out mark each, every
// list ends in its pair of zeros (with no pair before it, unless taking out
// a mark that was a whole entry emptied that entry), and the zero-margin
// papers list is itself a list that the same rewriting leaves unchanged
// (unless an entry began with the printable-area mark and was emptied).
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "create/printer_properties.h"

namespace {

void Check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// `whole`: no pair of zeros before the end. A marked entry that is only the
// mark leaves an empty entry behind when the mark is taken out, so a list
// whose choice came out empty may end early.
void CheckList(const std::u16string& list, bool whole = true) {
    if (list.empty()) {
        return;
    }
    Check(list.size() >= 2 && list[list.size() - 1] == u'\0' && list[list.size() - 2] == u'\0');
    Check(!whole || list.find(std::u16string(2, u'\0')) == list.size() - 2);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1 || size > 0x20000) {
        return 0;
    }
    const std::uint32_t parts = data[0] & 7;
    const std::vector<std::uint8_t> bytes(data + 1, data + size);
    ovsvc::CPrinterProperties props(static_cast<std::uint32_t>(bytes.size()), parts);
    const std::int32_t end = ovsvc::ParsePrinterProperties(&props, bytes.data());
    if (end < 0) {
        Check(end == -1 && props.m_dwParts == 0 && props.m_dwLength == 0 &&
              props.strTrays.empty() && props.strPapers.empty() && props.strResolutions.empty());
        return 0;
    }
    Check(static_cast<std::size_t>(end) * 2 <= bytes.size());
    const std::size_t held =
        props.strTrays.size() + props.strPapers.size() + props.strResolutions.size();
    Check(held <= static_cast<std::size_t>(end) && held + 3 >= static_cast<std::size_t>(end));
    CheckList(props.strTrays, parts < 2 || !props.strDefaultTray.empty());
    CheckList(props.strPapers, !props.strDefaultPaper.empty());
    CheckList(props.strResolutions, !props.strDefaultResolution.empty());
    for (const std::u16string* choice :
         {&props.strDefaultTray, &props.strDefaultPaper, &props.strDefaultResolution}) {
        Check(choice->find(u'\0') == std::u16string::npos);
    }
    if (parts >= 2) {
        const std::u16string& border = props.strZeroBorderPapers;
        Check(!border.empty() && border.back() == u'\0');
        bool emptied = false;
        for (std::size_t at = 0; at < props.strPapers.size(); ++at) {
            emptied |=
                props.strPapers[at] == u'\u00B6' && (at == 0 || props.strPapers[at - 1] == u'\0');
        }
        if (!emptied) {
            CheckList(border.size() >= 2 ? border : std::u16string());
            Check(ovsvc::SetZeroBorder(border) == border);
        }
    }
    return 0;
}
