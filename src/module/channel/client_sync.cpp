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

bool SetNamedEvent(const std::u16string& name) {
    platform::UniqueEvent event = platform::OpenEventW(platform::EVENT_MODIFY_STATE, false, name);
    if (!event) {
        return false;
    }
    platform::SetEvent(event.get());
    return true;
}

// Waiting for a turn costs no CPU. A client sleeps on the turn counter `Act`
// under its own ticket as key until the counter reaches its ticket (the
// service wakes that key whenever it advances, and all keys when it starts),
// and only then waits on OVAck1 for the service to grant the turn. So an
// advance wakes one client, and OVAck1 wakes only the one it is meant for.
// A sleep is cut short after kPollMs all the same, to notice a service that
// stopped advancing (it died) within the client's timeout.
constexpr platform::DWORD kPollMs = 500;

// What a waiting client knows about the turns: the last value of `Act` it
// saw and when the turns last moved. The turns standing still for the
// client's timeout means the service stopped or died; the counters going
// back below what the client saw means the service restarted and will hand
// this ticket's number to another client.
class TurnWatch {
  public:
    TurnWatch(SHM* area, std::int32_t myNr, std::int32_t actAtTicket, platform::DWORD timeout)
        : area_(area),
          myNr_(myNr),
          seen_(actAtTicket),
          timeout_(timeout),
          since_(platform::GetTickCount64()) {}

    // The turn now served; false when the service restarted.
    bool Read(std::int32_t* act) {
        const std::int32_t now = platform::InterlockedRead(&area_->Act);
        const std::int32_t next = platform::InterlockedRead(&area_->Next);
        if (now < seen_ || next < myNr_) {
            OVTRACE(ERR | SYNC,
                    "service restarted (Act: %ld, was %ld, Next: %ld), MyNr %ld given up",
                    static_cast<long>(now), static_cast<long>(seen_), static_cast<long>(next),
                    static_cast<long>(myNr_));
            return false;
        }
        if (now != seen_) {
            seen_ = now;
            since_ = platform::GetTickCount64();
        }
        *act = now;
        return true;
    }

    // Milliseconds left before the client gives up; 0 when the time is up.
    platform::DWORD Left() const {
        const std::uint64_t waited = platform::GetTickCount64() - since_;
        return waited >= timeout_ ? 0 : static_cast<platform::DWORD>(timeout_ - waited);
    }

  private:
    SHM* area_;
    std::int32_t myNr_;
    std::int32_t seen_;
    platform::DWORD timeout_;
    std::uint64_t since_;
};

// Step 3: waits until the service grants this ticket. 0 when granted.
std::int32_t WaitForTurn(SHM* area, std::int32_t myNr, std::int32_t actAtTicket,
                         platform::DWORD timeout) {
    TurnWatch watch(area, myNr, actAtTicket, timeout);
    const auto key = static_cast<platform::DWORD>(myNr);
    for (;;) {
        std::int32_t act = 0;
        if (!watch.Read(&act)) {
            return kResultTimeout;
        }
        if (act > myNr) {
            OVTRACE(ERR | SYNC, "lMyNr already processed!");
            return kResultTimeout;
        }
        if (watch.Left() == 0) {
            OVTRACE(ERR | SYNC, "didn't get OVAck1! Timeout occurred!");
            return kResultTimeout;
        }
        if (act < myNr) {
            platform::WaitOnAddress(&area->Act, act, std::min(watch.Left(), kPollMs), key);
            continue;
        }
        platform::UniqueEvent ack1 =
            platform::OpenEventW(platform::EVENT_ALL_ACCESS, false, Names().ack1);
        if (!ack1) {
            OVTRACE(ERR | SYNC, "opening events OVAck1 failed");
            return kResultNoEvent;
        }
        OVTRACE(INF | SYNC, "wait for OVAck1...");
        const platform::DWORD wait = platform::WaitForSingleObject(ack1.get(), watch.Left());
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
        if (!watch.Read(&act)) {
            return kResultTimeout;
        }
        if (act > myNr) {
            OVTRACE(ERR | SYNC, "lMyNr already processed!");
            return kResultTimeout;
        }
        if (act == myNr) {
            return 0;
        }
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

    // The turn counter as it stood before the ticket: seeing it lower later
    // means the service restarted.
    const std::int32_t actAtTicket = platform::InterlockedRead(&area->Act);
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

    if (const std::int32_t rc = WaitForTurn(area, myNr, actAtTicket, timeout); rc != 0) {
        return rc;
    }
    if (myNr == 0) {
        // The first turn of a service: clients still holding tickets of an
        // earlier one wake and see the counters gone back.
        platform::WakeByAddressAll(&area->Act);
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
