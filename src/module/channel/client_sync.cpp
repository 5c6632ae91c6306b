#include "channel/client_sync.h"

#include <algorithm>
#include <cstring>

#include "channel/startup.h"
#include "channel/timeouts.h"
#include "common/ovstring.h"
#include "platform/kernel.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

void CopyField(char16_t* field, std::size_t units, const char16_t* text) {
    std::fill_n(field, units, u'\0');
    if (text != nullptr) {
        const std::size_t n = std::min(StrLen(text), units - 1);
        std::copy_n(text, n, field);
    }
}

// Waiting clients see OVAck1 still set while the client whose turn it is has
// not yet reset it. A normal hand-over takes microseconds, so they yield;
// only a turn that stays stalled (its client died or hangs) makes them sleep,
// longer each time, so it costs no CPU. A new turn starts the yielding over,
// so a client is never asleep when a turn that moves normally reaches it.
class TurnBackoff {
  public:
    void Pause(std::int32_t act) {
        const std::uint64_t now = platform::GetTickCount64();
        if (act != act_) {
            act_ = act;
            since_ = now;
            sleepMs_ = 0;
        }
        if (now - since_ < kYieldMs) {
            platform::SwitchToThread();
            return;
        }
        sleepMs_ = std::min<platform::DWORD>(sleepMs_ + 1, kMaxSleepMs);
        platform::Sleep(sleepMs_);
    }

  private:
    static constexpr std::uint64_t kYieldMs = 2;
    static constexpr platform::DWORD kMaxSleepMs = 10;
    std::int32_t act_ = -1;
    std::uint64_t since_ = 0;
    platform::DWORD sleepMs_ = 0;
};

bool SetNamedEvent(const std::u16string& name) {
    platform::UniqueEvent event = platform::OpenEventW(platform::EVENT_MODIFY_STATE, false, name);
    if (!event) {
        return false;
    }
    platform::SetEvent(event.get());
    return true;
}

// Step 3: waits until the service grants this ticket. 0 when granted.
std::int32_t WaitForTurn(SHM* area, std::int32_t myNr, platform::DWORD timeout) {
    TurnBackoff backoff;
    for (;;) {
        platform::UniqueEvent ack1 =
            platform::OpenEventW(platform::EVENT_ALL_ACCESS, false, Names().ack1);
        if (!ack1) {
            OVTRACE(ERR | SYNC, "opening events OVAck1 failed");
            return kResultNoEvent;
        }
        OVTRACE(INF | SYNC, "wait for OVAck1...");
        const platform::DWORD wait = platform::WaitForSingleObject(ack1.get(), timeout);
        ack1.reset();
        if (wait == platform::WAIT_TIMEOUT) {
            OVTRACE(ERR | SYNC, "didn't get OVAck1! Timeout occurred!");
            return kResultTimeout;
        }
        if (wait != platform::WAIT_OBJECT_0) {
            OVTRACE(ERR | SYNC, "didn't get OVAck1! unknown error occurred!");
            return kResultWaitFailed;
        }
        OVTRACE(INF | SYNC, "got OVAck1!");
        const std::int32_t act = platform::InterlockedRead(&area->Act);
        if (act > myNr) {
            OVTRACE(ERR | SYNC, "lMyNr already processed!");
            return kResultTimeout;
        }
        if (act == myNr) {
            return 0;
        }
        backoff.Pause(act);  // another client's turn is still being taken
    }
}

}  // namespace

void PackRequest(const ClientRequest& request, SHM* area) {
    area->Command = request.Command;
    CopyField(area->PN, kNameUnits, request.PN);
    CopyField(area->PC, kNameUnits, request.PC);
    CopyField(area->IP, kAddressUnits, request.IP);
    CopyField(area->DRIVER, kNameUnits, request.DRIVER);
    CopyField(area->ADDR, kNameUnits, request.ADDR);
    CopyField(area->UN, kNameUnits, request.UN);
    CopyField(area->CN, kNameUnits, request.CN);
    std::uint32_t length = request.PropertiesLength;
    if (length > kMaxPropertiesBytes) {
        OVTRACE(WRN | SYNC, "PrinterProperties to large: %d --> shorten to %d", length,
                kMaxPropertiesBytes);
        length = kMaxPropertiesBytes;
    }
    area->PropertiesLength = length;
    area->PropertiesParts = request.PropertiesParts;
    area->nPrinterPropertiesOptions = request.nPrinterPropertiesOptions;
    std::memset(area->PrinterProperties, 0, sizeof(area->PrinterProperties));
    if (request.PrinterProperties != nullptr) {
        std::memcpy(area->PrinterProperties, request.PrinterProperties, length);
    }
    area->TYPE = request.TYPE;
    area->PID = request.PID;
    area->SID = request.SID;
    area->nFlags = request.nFlags;
}

std::int32_t ClientSync(const ClientRequest* request, ReplyBuffer* reply) {
    SHM* area = SharedArea();
    if (area == nullptr) {
        OVTRACE(ERR | SYNC, "no shared memory, request not sent");
        return kResultNoEvent;
    }
    std::uint32_t timeout = kDefaultTimeOutClient;
    ReadTimeOutValue(u"TimeOutClient", kDefaultTimeOutClient, &timeout);

    const std::int32_t myNr = platform::InterlockedIncrement(&area->Next);
    OVTRACE(INF | SYNC, "setting OVReq1... (MyNr: %lu)", static_cast<std::uint32_t>(myNr));
    {
        platform::UniqueEvent req1 =
            platform::OpenEventW(platform::EVENT_MODIFY_STATE, false, Names().req1);
        if (!req1) {
            OVTRACE(ERR | SYNC, "opening events OVReq1 failed err=%d", platform::GetLastError());
            return kResultNoEvent;
        }
        platform::SetEvent(req1.get());
        if (!platform::CloseHandle(req1.release())) {
            OVTRACE(ERR | SYNC, "closing Event Request1 failed (%d)!", platform::GetLastError());
        }
    }

    if (const std::int32_t rc = WaitForTurn(area, myNr, timeout); rc != 0) {
        return rc;
    }

    {
        platform::UniqueEvent ack1 =
            platform::OpenEventW(platform::EVENT_MODIFY_STATE, false, Names().ack1);
        if (!ack1) {
            OVTRACE(ERR | SYNC, "opening event OVAck1 failed");
            return kResultNoEvent;
        }
        OVTRACE(INF | SYNC, "reset event OVAck1...");
        platform::ResetEvent(ack1.get());
    }

    OVTRACE(INF | SYNC, "copy data into SHM ...");
    const std::uint32_t threadId = platform::GetCurrentThreadId();
    area->ThreadId = threadId;
    if (request != nullptr) {
        PackRequest(*request, area);
    }

    OVTRACE(INF | SYNC, "rise OVReq2 ...");
    platform::UniqueEvent ack2;
    {
        platform::UniqueEvent req2 =
            platform::OpenEventW(platform::EVENT_MODIFY_STATE, false, Names().req2);
        if (!req2) {
            OVTRACE(ERR | SYNC, "opening event OVReq2 failed");
            return kResultNoEvent;
        }
        const platform::SecurityAttributes attributes{.nullDacl = true, .inheritHandle = true};
        ack2 = platform::CreateEventW(&attributes, false, false, Ack2Name(threadId));
        if (!ack2) {
            OVTRACE(ERR | SYNC, "Creating event OVAck2 failed (%d)!", platform::GetLastError());
            return kResultNoEvent;
        }
        platform::SetEvent(req2.get());
        if (!platform::CloseHandle(req2.release())) {
            OVTRACE(ERR | SYNC, "closing OVReq2 failed!");
        }
    }

    OVTRACE(INF | SYNC, "wait for OVAck2...");
    const platform::DWORD wait = platform::WaitForSingleObject(ack2.get(), timeout);
    ack2.reset();
    if (wait == platform::WAIT_FAILED) {
        OVTRACE(ERR | SYNC, "didn't get OVAck2! unknown error occurred!");
        return kResultWaitFailed;
    }
    if (wait == platform::WAIT_TIMEOUT) {
        OVTRACE(ERR | SYNC, "didn't get OVAck2! Timeout occurred!");
        return kResultTimeout;
    }
    if (wait != platform::WAIT_OBJECT_0) {
        return kResultAckUnexpected;
    }

    OVTRACE(INF | SYNC, "got OVAck2!");
    const std::int32_t result = area->Result;
    if (reply != nullptr) {
        OVTRACE(INF | SYNC, "sizeof(SHM) = %d", static_cast<int>(sizeof(SHM)));
        OVTRACE(INF | SYNC, "sizeof(oOutPut) = %d", static_cast<int>(kReplyBytes));
        OVTRACE(INF | SYNC, "CopySharedMemory2Output(%d)", area->Command);
        std::memcpy(reply->bytes, reinterpret_cast<const unsigned char*>(area) + kReplyOffset,
                    kReplyBytes);
    }

    OVTRACE(INF | SYNC, "rise OVReq3 ...");
    if (!SetNamedEvent(Names().req3)) {
        OVTRACE(ERR | SYNC, "opening event OVReq3 failed");
        return kResultNoEvent;
    }
    return result;
}

}  // namespace ovsvc
