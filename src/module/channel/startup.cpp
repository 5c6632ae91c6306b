#include "channel/startup.h"

#include <atomic>
#include <mutex>

#include "common/module_state.h"
#include "manage/wmi_common.h"
#include "res/resources.h"
#include "session/wts_layer.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

ObjectNames MakeNames(bool global) {
    const std::u16string prefix = global ? u"Global\\" : u"";
    ObjectNames names;
    names.req1 = prefix + u"OVC-Req1";
    names.req2 = prefix + u"OVC-Req2";
    names.req3 = prefix + u"OVC-Req3";
    names.ack1 = prefix + u"OVC-Ack1";
    names.ack2Prefix = prefix + u"OVC-Ack2-";
    names.shm = prefix + u"OVC-SHM";
    // The local form ends in "-", the global one does not.
    names.enumPrefix = global ? u"Global\\OVC-ENUMSHM" : u"OVC-ENUMSHM-";
    names.global = global;
    return names;
}

struct ModuleState {
    ObjectNames names = MakeNames(true);
    platform::UniqueMapping shmMapping;
    platform::MappedView shmView;
    platform::CriticalSection cacheLock;
    platform::CriticalSection locationLock;
};

ModuleState& State() {
    static ModuleState state;
    return state;
}

std::u16string Hex8(std::uint32_t value) {
    static constexpr char16_t kDigits[] = u"0123456789abcdef";
    std::u16string out(8, u'0');
    for (int i = 7; i >= 0; --i) {
        out[static_cast<std::size_t>(i)] = kDigits[value & 0xF];
        value >>= 4;
    }
    return out;
}

std::u16string Decimal(std::uint32_t value) {
    std::u16string digits;
    do {
        digits.insert(digits.begin(), static_cast<char16_t>(u'0' + value % 10));
        value /= 10;
    } while (value != 0);
    return digits;
}

}  // namespace

const ObjectNames& Names() {
    return State().names;
}

std::u16string Ack2Name(std::uint32_t threadId) {
    return Names().ack2Prefix + Hex8(threadId);
}

std::u16string EnumMappingName(std::uint32_t threadId) {
    return Names().enumPrefix + Decimal(threadId);
}

SHM* SharedArea() {
    return static_cast<SHM*>(State().shmView.data());
}

platform::CriticalSection& CacheLock() {
    return State().cacheLock;
}
platform::CriticalSection& LocationParseLock() {
    return State().locationLock;
}

bool IsGlobalNamespaceAvailable() {
    const platform::SecurityAttributes attributes{.nullDacl = true};
    platform::UniqueEvent probe =
        platform::CreateEventW(&attributes, false, false, u"Global\\OVC-TestDummyGlobalEvent");
    if (!probe && platform::GetLastError() != platform::ERROR_ALREADY_EXISTS) {
        OVTRACE(INF | MAIN, "Global\\\\ is not possible!");
        return false;
    }
    OVTRACE(INF | MAIN, "Global\\\\ is possible!");
    return true;
}

bool CreateSharedMemory() {
    ModuleState& state = State();
    const platform::SecurityAttributes attributes{.nullDacl = true, .inheritHandle = true};
    state.shmMapping = platform::CreateFileMappingW(&attributes, platform::PAGE_READWRITE,
                                                    sizeof(SHM), state.names.shm);
    if (!state.shmMapping) {
        OVTRACE(ERR | MAIN, "CreateFileMapping of SHM failed, err=%d", platform::GetLastError());
        ReportServiceEvent(LoadOwnString(IDS_SHM_CREATE_FAILED), kEventError, 2);
        return false;
    }
    state.shmView = platform::MapViewOfFile(state.shmMapping.get(), platform::FILE_MAP_ALL_ACCESS,
                                            0, sizeof(SHM));
    if (!state.shmView) {
        OVTRACE(ERR | MAIN, "MapViewOfFile of SHM failed, err=%d", platform::GetLastError());
        state.shmMapping.reset();
        ReportServiceEvent(LoadOwnString(IDS_SHM_MAP_FAILED), kEventError, 3);
        return false;
    }
    return true;
}

void ModuleAttach() {
    OVTRACE(INF | MAIN, "DLL_PROCESS_ATTACH");
    ModuleState& state = State();
    OwnModule();
    if (!IsGlobalNamespaceAvailable()) {
        state.names = MakeNames(false);
    }
    OVTRACE(INF | MAIN, "%s", GetModuleVersionString());
    // Without the management framework the provider stays out of
    // registration and class-object requests.
    fFrameworkLogin = platform::CWbemProviderGlue::FrameworkLoginDLL(kWmiProviderName);
    OVTRACE(INF | MAIN, "Creating SHM...");
    CreateSharedMemory();
    fIsService = false;
    pthePrinterList = nullptr;
}

namespace {
std::once_flag g_started;
std::atomic<bool> g_startedFlag{false};
}  // namespace

void EnsureModuleStarted() {
    std::call_once(g_started, [] {
        ModuleAttach();
        g_startedFlag = true;
    });
}

bool ModuleStarted() {
    return g_startedFlag;
}

void ModuleReleaseQuietly() {
    ModuleState& state = State();
    state.shmView.reset();
    state.shmMapping.reset();
    DestroyPrinterList();
}

void ModuleDetach() {
    ModuleState& state = State();
    OVTRACE(INF | MAIN, "closing SHM ...");
    state.shmView.reset();
    state.shmMapping.reset();
    if (fIsService && pthePrinterList == nullptr) {
        TraceCheck("!fIsService || pthePrinterList != NULL", __FILE__, __LINE__);
    }
    DestroyPrinterList();
    // The translation table belongs to its own subsystem, which frees it.
    // Unloading must not load anything: only a library already held is let go.
    if (WTSLayer().HoldsLibrary()) {
        WTSLayer().ExitInstance();
    }
}

}  // namespace ovsvc
