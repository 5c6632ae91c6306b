// Jobs: queued entries per printer, kept until they are deleted.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>

#include "spool_store.h"

namespace platform {

using namespace spool;

namespace {

constexpr DWORD kSplNoStartDoc = 3003;  // ERROR_SPL_NO_STARTDOC
constexpr char16_t kNextJobIdValue[] = u"NextJobId";

std::u16string JobsKey(std::u16string_view printer) {
    return Join(PrinterKey(printer), kJobsKey);
}

// Ten digits, so that key order is submission order.
std::u16string JobKeyName(DWORD id) {
    std::string digits = std::to_string(id);
    digits.insert(0, 10 - std::min<std::size_t>(10, digits.size()), '0');
    return std::u16string(digits.begin(), digits.end());
}

std::u16string JobKey(std::u16string_view printer, DWORD id) {
    return Join(JobsKey(printer), JobKeyName(id));
}

std::vector<std::byte> Int64Bytes(std::int64_t value) {
    std::vector<std::byte> bytes(sizeof(value));
    std::memcpy(bytes.data(), &value, sizeof(value));
    return bytes;
}

std::int64_t Int64(const std::vector<std::byte>& bytes) {
    std::int64_t value = 0;
    if (bytes.size() == sizeof(value)) {
        std::memcpy(&value, bytes.data(), sizeof(value));
    }
    return value;
}

DWORD NextJobId() {
    UniqueKey key;
    if (CreateKey(kPrintKey, &key) != ERROR_SUCCESS) {
        return 0;
    }
    ValueMap values;
    ReadValues(key.get(), &values);
    DWORD id = values.Dword(kNextJobIdValue, 1);
    if (id == 0) {
        id = 1;
    }
    if (WriteDword(key.get(), kNextJobIdValue, id + 1 == 0 ? 1 : id + 1) != ERROR_SUCCESS) {
        return 0;
    }
    return id;
}

DWORD ParseJobId(std::u16string_view name) {
    DWORD id = 0;
    for (char16_t c : name) {
        if (c < u'0' || c > u'9') {
            return 0;
        }
        id = id * 10 + static_cast<DWORD>(c - u'0');
    }
    return id;
}

std::optional<HandleState> PrinterHandle(HANDLE printer) {
    auto state = FindHandle(printer);
    if (state && state->kind != HandleKind::Printer) {
        SetLastError(ERROR_INVALID_HANDLE);
        return std::nullopt;
    }
    return state;
}

DWORD PrinterStatus(std::u16string_view printer, bool* exists) {
    UniqueKey key;
    *exists = OpenKey(PrinterKey(printer), KEY_READ, &key) == ERROR_SUCCESS;
    ValueMap values;
    if (*exists) {
        ReadValues(key.get(), &values);
    }
    return values.Dword(u"Status");
}

}  // namespace

namespace spool {

DWORD CountJobs(std::u16string_view printerKey) {
    std::vector<std::u16string> jobs;
    ReadSubKeys(JobsKey(printerKey), &jobs);
    return static_cast<DWORD>(jobs.size());
}

}  // namespace spool

DWORD StartDocPrinterW(HANDLE printer, const DocInfo1& doc) {
    auto h = PrinterHandle(printer);
    if (!h) {
        return 0;
    }
    if ((h->granted & (PRINTER_ACCESS_USE | PRINTER_ACCESS_ADMINISTER)) == 0) {
        SetLastError(ERROR_ACCESS_DENIED);
        return 0;
    }
    if (h->currentJob != 0) {
        SetLastError(ERROR_INVALID_PRINTER_STATE);
        return 0;
    }
    Lock lock(Lock::kWrites);
    bool exists = false;
    const DWORD status = PrinterStatus(h->name, &exists);
    if (!exists) {
        SetLastError(ERROR_INVALID_PRINTER_NAME);
        return 0;
    }
    if ((status & PRINTER_STATUS_PENDING_DELETION) != 0) {
        SetLastError(ERROR_INVALID_PRINTER_STATE);
        return 0;
    }
    const DWORD id = NextJobId();
    UniqueKey key;
    LSTATUS rc = id == 0 ? ERROR_CANTWRITE : CreateKey(JobKey(h->name, id), &key);
    const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    auto str = [&](std::u16string_view name, std::u16string_view value) {
        if (rc == ERROR_SUCCESS) {
            rc = WriteString(key.get(), name, value);
        }
    };
    str(u"Document", doc.documentName);
    str(u"User", h->user);
    str(u"Datatype", doc.datatype.empty() ? std::u16string(u"RAW") : doc.datatype);
    str(u"Output File", doc.outputFile);
    if (rc == ERROR_SUCCESS) {
        rc = WriteDword(key.get(), u"Status", JOB_STATUS_SPOOLING);
    }
    if (rc == ERROR_SUCCESS) {
        rc = WriteBinary(key.get(), u"Submitted", Int64Bytes(now));
    }
    if (rc != ERROR_SUCCESS) {
        if (key) {
            key.reset();
            RegDeleteKeyW(HKEY_LOCAL_MACHINE, JobKey(h->name, id));
        }
        SetLastError(rc);
        return 0;
    }
    h->currentJob = id;
    UpdateHandle(printer, *h);
    SetLastError(ERROR_SUCCESS);
    return id;
}

bool EndDocPrinter(HANDLE printer) {
    auto h = PrinterHandle(printer);
    if (!h) {
        return false;
    }
    if (h->currentJob == 0) {
        return Fail(kSplNoStartDoc);
    }
    Lock lock(Lock::kWrites);
    UniqueKey key;
    if (OpenKey(JobKey(h->name, h->currentJob), KEY_ALL_ACCESS, &key) == ERROR_SUCCESS) {
        ValueMap values;
        ReadValues(key.get(), &values);
        WriteDword(key.get(), u"Status", values.Dword(u"Status") & ~JOB_STATUS_SPOOLING);
    }
    h->currentJob = 0;
    UpdateHandle(printer, *h);
    return Succeed();
}

bool SetJobW(HANDLE printer, DWORD jobId, DWORD command) {
    auto h = PrinterHandle(printer);
    if (!h) {
        return false;
    }
    Lock lock(Lock::kWrites);
    UniqueKey key;
    if (jobId == 0 || OpenKey(JobKey(h->name, jobId), KEY_ALL_ACCESS, &key) != ERROR_SUCCESS) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    ValueMap values;
    ReadValues(key.get(), &values);
    const bool administers =
        (h->granted & (PRINTER_ACCESS_ADMINISTER | JOB_ACCESS_ADMINISTER)) != 0;
    if (!administers && !SameName(values.String(u"User"), h->user)) {
        return Fail(ERROR_ACCESS_DENIED);
    }
    const DWORD status = values.Dword(u"Status");
    switch (command) {
        case JOB_CONTROL_PAUSE:
            return WriteDword(key.get(), u"Status", status | JOB_STATUS_PAUSED) == ERROR_SUCCESS
                       ? Succeed()
                       : Fail(ERROR_CANTWRITE);
        case JOB_CONTROL_RESUME:
            return WriteDword(key.get(), u"Status", status & ~JOB_STATUS_PAUSED) == ERROR_SUCCESS
                       ? Succeed()
                       : Fail(ERROR_CANTWRITE);
        case JOB_CONTROL_CANCEL:
        case JOB_CONTROL_DELETE:
            break;
        default:
            return Fail(ERROR_INVALID_PARAMETER);
    }
    key.reset();
    if (const LSTATUS rc = RegDeleteKeyW(HKEY_LOCAL_MACHINE, JobKey(h->name, jobId));
        rc != ERROR_SUCCESS) {
        return Fail(rc);
    }
    if (h->currentJob == jobId) {
        h->currentJob = 0;
        UpdateHandle(printer, *h);
    }
    bool exists = false;
    const DWORD printerStatus = PrinterStatus(h->name, &exists);
    if (exists && (printerStatus & PRINTER_STATUS_PENDING_DELETION) != 0 &&
        CountJobs(h->name) == 0) {
        RemovePrinterKey(h->name);
    }
    return Succeed();
}

std::optional<std::vector<JobInfo1>> EnumJobsW(HANDLE printer, DWORD firstJob, DWORD count,
                                               DWORD level) {
    auto h = PrinterHandle(printer);
    if (!h) {
        return std::nullopt;
    }
    if (level != 1) {
        SetLastError(ERROR_INVALID_LEVEL);
        return std::nullopt;
    }
    Lock lock;
    UniqueKey printerKey;
    if (OpenKey(PrinterKey(h->name), KEY_READ, &printerKey) != ERROR_SUCCESS) {
        SetLastError(ERROR_INVALID_PRINTER_NAME);
        return std::nullopt;
    }
    std::vector<std::u16string> names;
    ReadSubKeys(JobsKey(h->name), &names);
    std::sort(names.begin(), names.end());
    ValueMap printerValues;
    ReadValues(printerKey.get(), &printerValues);
    std::vector<JobInfo1> jobs;
    for (DWORD position = firstJob; position < names.size() && jobs.size() < count; ++position) {
        UniqueKey key;
        ValueMap values;
        if (OpenKey(Join(JobsKey(h->name), names[position]), KEY_READ, &key) != ERROR_SUCCESS ||
            ReadValues(key.get(), &values) != ERROR_SUCCESS) {
            continue;
        }
        JobInfo1 job;
        job.jobId = ParseJobId(names[position]);
        job.printerName = printerValues.String(u"Name");
        job.userName = values.String(u"User");
        job.document = values.String(u"Document");
        job.datatype = values.String(u"Datatype");
        job.status = values.Dword(u"Status");
        job.priority = 1;
        job.position = position + 1;
        job.submitted = Int64(values.Binary(u"Submitted"));
        jobs.push_back(std::move(job));
    }
    SetLastError(ERROR_SUCCESS);
    return jobs;
}

}  // namespace platform
