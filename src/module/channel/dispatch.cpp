#include "channel/dispatch.h"

#include "channel/service_loop.h"
#include "common/module_state.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

std::int32_t HandleEnumerate(SHM* /*area*/) {
    OVTRACE(INF | MAIN, "calling MyEnumPrinter()...");
    if (pthePrinterList == nullptr) {
        TraceCheck("pthePrinterList != NULL", __FILE__, __LINE__);
        return kResultNoCache;
    }
    return kResultNoCache;
}

std::int32_t HandleRepair(SHM* /*area*/) {
    OVTRACE(INF | MAIN, "calling Repair()...");
    if (pthePrinterList == nullptr) {
        TraceCheck("pthePrinterList != NULL", __FILE__, __LINE__);
        return kResultNoCache;
    }
    return kResultNoCache;
}

}  // namespace

// The printer cache is not part of this build yet: no cache is created, and
// the requests that need one answer kResultNoCache.
bool InitPrinterList() {
    return pthePrinterList != nullptr;
}
void DestroyPrinterList() {
    pthePrinterList = nullptr;
}

bool LoadTranslationTableAtStart() {
    return true;
}

void Dispatch(SHM* area) {
    switch (area->Command) {
        case CMDEnumPrinter:
            area->Result = HandleEnumerate(area);
            break;
        case CMDRepair:
            area->Result = HandleRepair(area);
            break;
        default:
            area->Result = kResultUnknownCommand;
            break;
    }
}

}  // namespace ovsvc
