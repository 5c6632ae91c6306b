#include "channel/dispatch.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <utility>

#include "cache/printer_cache.h"
#include "channel/service_loop.h"
#include "common/module_state.h"
#include "common/ovstring.h"
#include "create/install_printer.h"
#include "rules/translation_rule.h"
#include "rules/translation_table.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

std::u16string_view FieldText(const char16_t* field, std::size_t units) {
    return std::u16string_view(field, std::find(field, field + units, u'\0') - field);
}

// Writes `text` at `byteOffset` of the area, cut to `units` - 1 characters and
// zero-padded to the end of its slot.
void PutString(SHM* area, std::size_t byteOffset, std::size_t units, std::u16string_view text);

std::int32_t HandleCreate(SHM* area) {
    OVTRACE(INF | MAIN, "calling Install-Printer()...");
    CreateRequest request;
    request.PN = FieldText(area->PN, kNameUnits);
    request.PC = FieldText(area->PC, kNameUnits);
    request.IP = FieldText(area->IP, kAddressUnits);
    request.TYPE = area->TYPE;
    request.DRIVER = FieldText(area->DRIVER, kNameUnits);
    request.PID = static_cast<std::int32_t>(area->PID);
    request.SID = area->SID;
    request.ADDR = FieldText(area->ADDR, kNameUnits);
    request.UN = FieldText(area->UN, kNameUnits);
    request.CN = FieldText(area->CN, kNameUnits);
    if (area->PropertiesLength != 0) {
        request.PrinterProperties = area->PrinterProperties;
        request.PropertiesLength = std::min(area->PropertiesLength, kMaxPropertiesBytes);
    }
    request.PropertiesParts = area->PropertiesParts;
    request.nPrinterPropertiesOptions = area->nPrinterPropertiesOptions;
    request.nFlags = area->nFlags;
    std::u16string name;
    std::u16string templateName;
    const std::int32_t result = InstallPrinter(request, &name, &templateName);
    PutString(area, kCreatedNameOffset, kCreatedNameUnits, name);
    PutString(area, kCreatedClassOffset, kCreatedNameUnits, templateName);
    return result;
}

std::int32_t HandleDelete(const SHM* area) {
    if (area->PID == 1) {
        OVTRACE(INF | MAIN, "calling UninstallPrintersAll()...");
        return static_cast<std::int32_t>(UninstallPrintersAll());
    }
    OVTRACE(INF | MAIN, "calling UninstallPrinter()...");
    return static_cast<std::int32_t>(UninstallPrinter(u"", area->SID));
}

std::int32_t HandleEnumerate(const SHM* area) {
    OVTRACE(INF | MAIN, "calling MyEnumPrinter()...");
    if (pthePrinterList == nullptr) {
        TraceCheck("pthePrinterList != NULL", __FILE__, __LINE__);
        return kResultNoCache;
    }
    return static_cast<std::int32_t>(
        pthePrinterList->MyEnumPrinters(FieldText(area->PN, kNameUnits)));
}

std::int32_t HandleRepair() {
    OVTRACE(INF | MAIN, "calling Repair()...");
    if (pthePrinterList == nullptr) {
        TraceCheck("pthePrinterList != NULL", __FILE__, __LINE__);
        return kResultNoCache;
    }
    return pthePrinterList->Repair();
}

// Writes `text` at `byteOffset` of the area, cut to `units` - 1 characters and
// zero-padded to the end of its slot.
void PutString(SHM* area, std::size_t byteOffset, std::size_t units, std::u16string_view text) {
    auto* slot = reinterpret_cast<unsigned char*>(area) + byteOffset;
    std::memset(slot, 0, units * 2);
    std::memcpy(slot, text.data(), std::min(text.size(), units - 1) * 2);
}

std::int32_t HandleTranslate(SHM* area) {
    OVTRACE(INF | MAIN, "calling Translate()...");
    const CTranslationRule request = MakeTranslationRequest(
        FieldText(area->PN, kNameUnits), FieldText(area->PC, kNameUnits),
        FieldText(area->IP, kAddressUnits), FieldText(area->ADDR, kNameUnits),
        ClientTypeBit(area->TYPE), FieldText(area->DRIVER, kNameUnits));
    OVTRACE(INF | MAIN, "Look for <%s>", request.ToString());
    std::array<std::u16string, 3> templates;
    std::array<std::u16string, 3> ruleLines;
    std::int32_t result = 0;
    if (g_pTTable != nullptr) {
        std::uint32_t count = 3;
        result = g_pTTable->FindRule(request, templates, count, ruleLines, true);
    }
    if (result == 0) {
        OVTRACE(INF | MAIN, "Findrule fails...");
    }
    // The first two names have slots of their own; the third may use the
    // rest of the reply region.
    const std::size_t slots[3] = {kNameUnits, kNameUnits,
                                  (kReplyOffset + kReplyBytes - kTemplateOffsets[2]) / 2};
    for (std::size_t i = 0; i < templates.size(); ++i) {
        PutString(area, kTemplateOffsets[i], slots[i], templates[i]);
    }
    return result;
}

std::int32_t HandleReload() {
    OVTRACE(INF | MAIN, "calling LoadTranslationList()...");
    return LoadTranslationList();
}

}  // namespace

bool InitPrinterList() {
    if (pthePrinterList == nullptr) {
        pthePrinterList = new (std::nothrow) OVACache();
    }
    return pthePrinterList != nullptr;
}
void DestroyPrinterList() {
    delete std::exchange(pthePrinterList, nullptr);
}

bool LoadTranslationTableAtStart() {
    return LoadTranslationList() != 0;
}

void Dispatch(SHM* area) {
    switch (area->Command) {
        case CMDAddPrinter:
            area->Result = HandleCreate(area);
            break;
        case CMDDelPrinter:
            area->Result = HandleDelete(area);
            break;
        case CMDEnumPrinter:
            area->Result = HandleEnumerate(area);
            break;
        case CMDRepair:
            area->Result = HandleRepair();
            break;
        case CMDTranslate:
            area->Result = HandleTranslate(area);
            break;
        case CMDLoadTranslationList:
            area->Result = HandleReload();
            break;
        default:
            area->Result = kResultUnknownCommand;
            break;
    }
}

}  // namespace ovsvc
