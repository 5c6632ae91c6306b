#include "channel/service_loop.h"

#include <array>
#include <cstring>

#include "channel/dispatch.h"
#include "channel/startup.h"
#include "channel/timeouts.h"
#include "common/module_state.h"
#include "ovsvc.h"
#include "platform/kernel.h"
#include "res/resources.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

constexpr std::uint32_t kServiceRunning = 4;
constexpr std::uint32_t kAcceptStopAndShutdown = 5;

// String-table entries of the event-log reports.
constexpr unsigned kMsgCantCreateEvent = 104;
constexpr unsigned kMsgNoAcknowledge = 111;
constexpr unsigned kMsgWaitFailed = 113;

void Report(unsigned message, std::uint16_t type, unsigned location) {
    ReportServiceEvent(LoadOwnString(message), type, location);
}

void ReportRunning(OVSERVICE_STATUS* status) {
    if (status == nullptr) {
        return;
    }
    status->dwCurrentState = kServiceRunning;
    status->dwControlsAccepted = kAcceptStopAndShutdown;
    status->dwWin32ExitCode = 0;
    status->dwCheckPoint = 0;
    status->dwWaitHint = 0;
}

class Loop {
  public:
    explicit Loop(SHM* area) : area_(area) {}

    // Creates the four events; false (reported) when one cannot be made or
    // another service owns them already.
    bool CreateEvents() {
        const platform::SecurityAttributes attributes{.nullDacl = true, .inheritHandle = true};
        req1_ = platform::CreateEventW(&attributes, true, false, Names().req1);
        if (!req1_) {
            OVTRACE(ERR | MAIN, "couldn't create 'OVReq1' (%d)!", platform::GetLastError());
            Report(kMsgCantCreateEvent, kEventError, 7);
            return false;
        }
        if (platform::GetLastError() == platform::ERROR_ALREADY_EXISTS) {
            OVTRACE(ERR | MAIN, "Event 'OVReq1' already exists!");
            Report(kMsgCantCreateEvent, kEventError, 7);
            req1_.reset();
            return false;
        }
        req2_ = platform::CreateEventW(&attributes, false, false, Names().req2);
        if (!req2_) {
            OVTRACE(ERR | MAIN, "couldn't create 'OVReq2' (%d)!", platform::GetLastError());
            Report(kMsgCantCreateEvent, kEventError, 8);
            return false;
        }
        req3_ = platform::CreateEventW(&attributes, false, false, Names().req3);
        if (!req3_) {
            OVTRACE(ERR | MAIN, "couldn't create 'OVReq3' (%d)!", platform::GetLastError());
            Report(kMsgCantCreateEvent, kEventError, 9);
            return false;
        }
        ack1_ = platform::CreateEventW(&attributes, true, false, Names().ack1);
        if (!ack1_) {
            OVTRACE(ERR | MAIN, "couldn't create 'OVAck1' (%d)!", platform::GetLastError());
            Report(kMsgCantCreateEvent, kEventError, 10);
            return false;
        }
        return true;
    }

    void Run(platform::DWORD timeout) {
        platform::DWORD wait = platform::WaitForSingleObject(req1_.get(), timeout);
        for (;;) {
            if (wait == platform::WAIT_FAILED) {
                OVTRACE(ERR | MAIN, "didn't get OVReq1! Unexpected error during waiting!");
                Report(kMsgWaitFailed, kEventError, 15);
                return;
            }
            if (wait == platform::WAIT_TIMEOUT) {
                if (Stopping()) {
                    return;
                }
                wait = platform::WaitForSingleObject(req1_.get(), timeout);
                continue;
            }
            if (wait == platform::WAIT_OBJECT_0) {
                OVTRACE(INF | MAIN, "got OVReq1! (Act: %lu Next: %lu)", Act(), Next());
                if (Stopping()) {
                    return;
                }
                if (!ServeTurn(timeout)) {
                    return;
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
    platform::UniqueEvent req1_;
    platform::UniqueEvent req2_;
    platform::UniqueEvent req3_;
    platform::UniqueEvent ack1_;
};

}  // namespace

std::int32_t ServiceLoop(void* /*statusHandle*/, OVSERVICE_STATUS* status) {
    SHM* area = SharedArea();
    if (!LoadTranslationTableAtStart()) {
        OVTRACE(ERR | MAIN, "LoadTransationList() failed");
        OVTRACE(INF | MAIN, "Leaving OVADLLRunMain()!");
        return 0;
    }
    if (area == nullptr) {
        OVTRACE(ERR | MAIN, "no shared memory, the service cannot run");
        OVTRACE(INF | MAIN, "Leaving OVADLLRunMain()!");
        return 0;
    }
    std::uint32_t timeout = kDefaultTimeOutService;
    ReadTimeOutValue(u"TimeOutService", kDefaultTimeOutService, &timeout);
    platform::InterlockedExchange(&area->Act, 0);
    platform::InterlockedExchange(&area->Next, -1);
    OVTRACE(INF | MAIN, "creating events OVReq1,2,3 und OVAck1,2...");
    {
        Loop loop(area);
        if (loop.CreateEvents()) {
            area->StopFlag = 0;
            fIsService = true;
            OVTRACE(INF | MAIN, "waiting for OVReq1... (Act: %lu Next: %lu)",
                    static_cast<std::uint32_t>(area->Act), static_cast<std::uint32_t>(area->Next));
            ReportRunning(status);
            OVTRACE(INF | MAIN, "OVReq1 got");
            loop.Run(timeout);
        }
    }
    OVTRACE(INF | MAIN, "Leaving OVADLLRunMain()!");
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
