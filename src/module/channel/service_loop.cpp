#include "channel/service_loop.h"

#include <array>
#include <cstring>

#include "channel/dispatch.h"
#include "channel/startup.h"
#include "channel/timeouts.h"
#include "common/module_state.h"
#include "ovsvc.h"
#include "platform/kernel.h"
#include "platform/scm.h"
#include "res/resources.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

constexpr std::uint32_t kServiceStopped = 1;
constexpr std::uint32_t kServiceRunning = 4;
constexpr std::uint32_t kAcceptStopAndShutdown = 5;
constexpr std::uint32_t kErrorServiceAlreadyRunning = 1056;
constexpr std::uint32_t kErrorServiceSpecific = 1066;

// Why the loop ended, for the status record its host reads afterwards.
struct LoopEnd {
    std::uint32_t error = 0;     // a Windows error, 0 after a stop request
    std::uint32_t specific = 0;  // with kErrorServiceSpecific: OVSVC_EXIT_...
};

constexpr LoopEnd Specific(std::uint32_t code) {
    return {kErrorServiceSpecific, code};
}

// String-table entries of the event-log reports.
constexpr unsigned kMsgCantCreateEvent = IDS_EVENT_CREATE_FAILED;
constexpr unsigned kMsgNoAcknowledge = IDS_NO_ACK;
constexpr unsigned kMsgWaitFailed = IDS_WAIT_FAILED;

void Report(unsigned message, std::uint16_t type, unsigned location) {
    ReportServiceEvent(LoadOwnString(message), type, location);
}

void ReportRunning(void* statusHandle, OVSERVICE_STATUS* status) {
    if (status == nullptr) {
        return;
    }
    status->dwCurrentState = kServiceRunning;
    status->dwControlsAccepted = kAcceptStopAndShutdown;
    status->dwWin32ExitCode = 0;
    status->dwServiceSpecificExitCode = 0;
    status->dwCheckPoint = 0;
    status->dwWaitHint = 0;
    if (statusHandle == nullptr) {
        return;  // in the foreground nobody asks for the state
    }
    platform::SERVICE_STATUS report;
    report.dwServiceType = status->dwServiceType;
    report.dwCurrentState = status->dwCurrentState;
    report.dwControlsAccepted = status->dwControlsAccepted;
    report.dwWin32ExitCode = status->dwWin32ExitCode;
    report.dwServiceSpecificExitCode = status->dwServiceSpecificExitCode;
    report.dwCheckPoint = status->dwCheckPoint;
    report.dwWaitHint = status->dwWaitHint;
    if (!platform::SetServiceStatus(static_cast<platform::SERVICE_STATUS_HANDLE>(statusHandle),
                                    &report)) {
        OVTRACE(WRN | MAIN, "SetServiceStatus(RUNNING) failed (%d)", platform::GetLastError());
    }
}

// Leaves the reason in the record; the host reports the stopped state once
// it has cleaned up.
void RecordEnd(OVSERVICE_STATUS* status, LoopEnd end) {
    if (status == nullptr) {
        return;
    }
    status->dwCurrentState = kServiceStopped;
    status->dwControlsAccepted = 0;
    status->dwWin32ExitCode = end.error;
    status->dwServiceSpecificExitCode = end.specific;
    status->dwCheckPoint = 0;
    status->dwWaitHint = 0;
}

class Loop {
  public:
    explicit Loop(SHM* area) : area_(area) {}

    // Creates the four events and, once this process owns the channel,
    // starts the tickets afresh. Fails (reported) when an event cannot be
    // made or another service owns them already.
    LoopEnd CreateEvents() {
        const platform::SecurityAttributes attributes{.nullDacl = true, .inheritHandle = true};
        req1_ = platform::CreateEventW(&attributes, true, false, Names().req1);
        if (!req1_) {
            const platform::DWORD error = platform::GetLastError();
            OVTRACE(ERR | MAIN, "couldn't create 'OVReq1' (%d)!", error);
            Report(kMsgCantCreateEvent, kEventError, 7);
            return {error};
        }
        if (platform::GetLastError() == platform::ERROR_ALREADY_EXISTS) {
            OVTRACE(ERR | MAIN, "Event 'OVReq1' already exists!");
            Report(kMsgCantCreateEvent, kEventError, 7);
            req1_.reset();
            return {kErrorServiceAlreadyRunning};
        }
        // Deliberately later than the classic order, which resets the
        // counters before it tries OVReq1: a second instance that finds
        // OVReq1 taken would by then have pulled the tickets from under the
        // running service's waiting clients (they would all time out, or be
        // handed other clients' replies). Only the instance that made OVReq1
        // touches them.
        platform::InterlockedExchange(&area_->Act, 0);
        platform::InterlockedExchange(&area_->Next, -1);
        // Clients still asleep on an earlier service's turns see the restart now.
        platform::WakeByAddressAll(&area_->Act);
        req2_ = platform::CreateEventW(&attributes, false, false, Names().req2);
        if (!req2_) {
            const platform::DWORD error = platform::GetLastError();
            OVTRACE(ERR | MAIN, "couldn't create 'OVReq2' (%d)!", error);
            Report(kMsgCantCreateEvent, kEventError, 8);
            return {error};
        }
        req3_ = platform::CreateEventW(&attributes, false, false, Names().req3);
        if (!req3_) {
            const platform::DWORD error = platform::GetLastError();
            OVTRACE(ERR | MAIN, "couldn't create 'OVReq3' (%d)!", error);
            Report(kMsgCantCreateEvent, kEventError, 9);
            return {error};
        }
        ack1_ = platform::CreateEventW(&attributes, true, false, Names().ack1);
        if (!ack1_) {
            const platform::DWORD error = platform::GetLastError();
            OVTRACE(ERR | MAIN, "couldn't create 'OVAck1' (%d)!", error);
            Report(kMsgCantCreateEvent, kEventError, 10);
            return {error};
        }
        return {};
    }

    // Serves tickets until the stop flag is seen (no error) or a wait fails.
    LoopEnd Run(platform::DWORD timeout) {
        platform::DWORD wait = platform::WaitForSingleObject(req1_.get(), timeout);
        for (;;) {
            if (wait == platform::WAIT_FAILED) {
                OVTRACE(ERR | MAIN, "didn't get OVReq1! Unexpected error during waiting!");
                Report(kMsgWaitFailed, kEventError, 15);
                return Specific(OVSVC_EXIT_WAIT_FAILED);
            }
            if (wait == platform::WAIT_TIMEOUT) {
                if (Stopping()) {
                    return {};
                }
                wait = platform::WaitForSingleObject(req1_.get(), timeout);
                continue;
            }
            if (wait == platform::WAIT_OBJECT_0) {
                OVTRACE(INF | MAIN, "got OVReq1! (Act: %lu Next: %lu)", Act(), Next());
                if (Stopping()) {
                    return {};
                }
                if (!ServeTurn(timeout)) {
                    return waitFailed_ ? Specific(OVSVC_EXIT_WAIT_FAILED) : LoopEnd{};
                }
            }
            Advance();
            wait = platform::WaitForSingleObject(req1_.get(), timeout);
        }
    }

  private:
    bool Stopping() const { return platform::InterlockedRead(&StopWord()) == 1; }
    const platform::LONG& StopWord() const {
        return reinterpret_cast<const platform::LONG&>(area_->StopFlag);
    }
    std::uint32_t Act() const {
        return static_cast<std::uint32_t>(platform::InterlockedRead(&area_->Act));
    }
    std::uint32_t Next() const {
        return static_cast<std::uint32_t>(platform::InterlockedRead(&area_->Next));
    }

    // Grants the current ticket and handles its request. False ends the loop.
    bool ServeTurn(platform::DWORD timeout) {
        OVTRACE(INF | MAIN, "setting OVAck1...");
        platform::SetEvent(ack1_.get());
        OVTRACE(INF | MAIN, "waiting for OVReq2...");
        const platform::DWORD wait = platform::WaitForSingleObject(req2_.get(), timeout);
        if (wait == platform::WAIT_FAILED) {
            OVTRACE(ERR | MAIN, "didn't get OVReq2! Unexpected error during waiting!");
            Report(kMsgWaitFailed, kEventError, 14);
            waitFailed_ = true;
            return false;
        }
        if (wait == platform::WAIT_TIMEOUT) {
            OVTRACE(WRN | MAIN, "didn't get OVReq2! Timeout!");
            // The granted client never took its turn: take OVAck1 back so the
            // next client is not woken for a turn that is not its own.
            platform::ResetEvent(ack1_.get());
            return !Stopping();
        }
        if (wait != platform::WAIT_OBJECT_0) {
            return true;
        }
        OVTRACE(INF | MAIN, "got OVReq2!");
        if (pthePrinterList == nullptr) {
            OVTRACE(INF | MAIN, "InitPrinterList...");
            InitPrinterList();
        }
        if (Stopping()) {
            return false;
        }
        Dispatch(area_);
        return Acknowledge(timeout);
    }

    // Wakes the served client and waits until it has taken the reply.
    bool Acknowledge(platform::DWORD timeout) {
        const std::uint32_t threadId = area_->ThreadId;
        platform::UniqueEvent ack2 =
            platform::OpenEventW(platform::EVENT_MODIFY_STATE, false, Ack2Name(threadId));
        if (!ack2) {
            OVTRACE(ERR | MAIN, "opening event OVAck2 for thread %.8x failed: error: %d", threadId,
                    platform::GetLastError());
            Report(kMsgNoAcknowledge, kEventWarning, 11);
            return true;
        }
        OVTRACE(INF | MAIN, "setting OVAck2...");
        platform::SetEvent(ack2.get());
        ack2.reset();
        OVTRACE(INF | MAIN, "waiting for OVReq3...");
        const platform::DWORD wait = platform::WaitForSingleObject(req3_.get(), timeout);
        if (wait == platform::WAIT_FAILED) {
            OVTRACE(ERR | MAIN, "didn't get OVReq3! Unexpected error during waiting!");
            Report(kMsgWaitFailed, kEventError, 13);
            waitFailed_ = true;
            return false;
        }
        if (wait == platform::WAIT_OBJECT_0) {
            OVTRACE(INF | MAIN, "got OVReq3!");
            return !Stopping();
        }
        if (wait == platform::WAIT_TIMEOUT) {
            OVTRACE(WRN | MAIN, "didn't get OVReq3! Timeout!");
            if (Stopping()) {
                return false;
            }
            Report(kMsgNoAcknowledge, kEventWarning, 12);
        }
        return true;
    }

    // Moves on to the next ticket; when none is waiting, OVReq1 is reset.
    void Advance() {
        const std::int32_t act = platform::InterlockedIncrement(&area_->Act);
        // The client whose turn it is now sleeps on the counter until it
        // reaches its ticket.
        platform::WakeByAddressKey(&area_->Act, static_cast<platform::DWORD>(act));
        OVTRACE(INF | MAIN, "InterlockedIncrement(), Next Act: %lu Next: %lu",
                static_cast<std::uint32_t>(act), Next());
        if (act > platform::InterlockedRead(&area_->Next)) {
            platform::ResetEvent(req1_.get());
            // A client may have drawn a ticket and set OVReq1 between the
            // test and the reset; its request must not wait for a timeout.
            if (act <= platform::InterlockedRead(&area_->Next)) {
                platform::SetEvent(req1_.get());
            }
        }
    }

    SHM* area_;
    bool waitFailed_ = false;
    platform::UniqueEvent req1_;
    platform::UniqueEvent req2_;
    platform::UniqueEvent req3_;
    platform::UniqueEvent ack1_;
};

}  // namespace

std::int32_t ServiceLoop(void* statusHandle, OVSERVICE_STATUS* status) {
    SHM* area = SharedArea();
    if (!LoadTranslationTableAtStart()) {
        OVTRACE(ERR | MAIN, "LoadTransationList() failed");
        OVTRACE(INF | MAIN, "Leaving OVADLLRunMain()!");
        RecordEnd(status, Specific(OVSVC_EXIT_TRANSLATION_TABLE));
        return 0;
    }
    if (area == nullptr) {
        OVTRACE(ERR | MAIN, "no shared memory, the service cannot run");
        OVTRACE(INF | MAIN, "Leaving OVADLLRunMain()!");
        RecordEnd(status, Specific(OVSVC_EXIT_NO_SHARED_AREA));
        return 0;
    }
    std::uint32_t timeout = kDefaultTimeOutService;
    ReadTimeOutValue(u"TimeOutService", kDefaultTimeOutService, &timeout);
    OVTRACE(INF | MAIN, "creating events OVReq1,2,3 und OVAck1,2...");
    LoopEnd end;
    {
        Loop loop(area);
        end = loop.CreateEvents();
        if (end.error == 0) {
            area->StopFlag = 0;
            fIsService = true;
            OVTRACE(INF | MAIN, "waiting for OVReq1... (Act: %lu Next: %lu)",
                    static_cast<std::uint32_t>(area->Act), static_cast<std::uint32_t>(area->Next));
            ReportRunning(statusHandle, status);
            OVTRACE(INF | MAIN, "OVReq1 got");
            end = loop.Run(timeout);
        }
    }
    OVTRACE(INF | MAIN, "Leaving OVADLLRunMain()!");
    RecordEnd(status, end);
    return 0;
}

void ServiceStop() {
    SHM* area = SharedArea();
    if (area != nullptr) {
        platform::InterlockedExchange(reinterpret_cast<platform::LONG*>(&area->StopFlag), 1);
    }
    OVTRACE(INF | MAIN, "rise OVReq1 ...");
    platform::UniqueEvent req1 =
        platform::OpenEventW(platform::EVENT_MODIFY_STATE, false, Names().req1);
    if (!req1) {
        OVTRACE(ERR | MAIN, "Opening events OVReq1 failed");
        return;
    }
    if (!platform::SetEvent(req1.get())) {
        platform::SetEvent(req1.get());
    }
}

}  // namespace ovsvc
