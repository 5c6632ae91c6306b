// Print jobs over winspool: documents started and ended on a printer handle,
// job control and enumeration.
#include "platform/spooler.h"
#include "spool_records.h"
#include "win32_api.h"

namespace platform {

namespace {

using win32::FromWide;
using win32::spool::FillBuffer;
using win32::spool::In;
using win32::spool::InOrNull;
using win32::spool::RecordBuffer;

// A SYSTEMTIME in UTC as seconds since 1970 (0 when it is not a time).
std::int64_t UnixSeconds(const ::SYSTEMTIME& time) {
    constexpr std::int64_t kTicksPerSecond = 10000000;
    constexpr std::int64_t kEpochTicks = 116444736000000000;  // 1601 to 1970
    ::FILETIME file{};
    if (!::SystemTimeToFileTime(&time, &file)) {
        return 0;
    }
    const auto ticks = static_cast<std::int64_t>(
        (static_cast<std::uint64_t>(file.dwHighDateTime) << 32) | file.dwLowDateTime);
    return (ticks - kEpochTicks) / kTicksPerSecond;
}

JobInfo1 FromRecord(const ::JOB_INFO_1W& j) {
    JobInfo1 job;
    job.jobId = j.JobId;
    job.printerName = FromWide(j.pPrinterName);
    job.machineName = FromWide(j.pMachineName);
    job.userName = FromWide(j.pUserName);
    job.document = FromWide(j.pDocument);
    job.datatype = FromWide(j.pDatatype);
    job.pStatus = FromWide(j.pStatus);
    job.status = j.Status;
    job.priority = j.Priority;
    job.position = j.Position;
    job.totalPages = j.TotalPages;
    job.pagesPrinted = j.PagesPrinted;
    job.submitted = UnixSeconds(j.Submitted);
    return job;
}

}  // namespace

DWORD StartDocPrinterW(HANDLE printer, const DocInfo1& doc) {
    ::DOC_INFO_1W record{};
    record.pDocName = In(doc.documentName);
    record.pOutputFile = InOrNull(doc.outputFile);
    record.pDatatype = InOrNull(doc.datatype);
    const ::DWORD job = ::StartDocPrinterW(printer, 1, reinterpret_cast<::BYTE*>(&record));
    if (job != 0) {
        ::SetLastError(ERROR_SUCCESS);
    }
    return job;
}

bool EndDocPrinter(HANDLE printer) {
    if (!::EndDocPrinter(printer)) {
        return false;
    }
    ::SetLastError(ERROR_SUCCESS);
    return true;
}

bool SetJobW(HANDLE printer, DWORD jobId, DWORD command) {
    if (!::SetJobW(printer, jobId, 0, nullptr, command)) {
        return false;
    }
    ::SetLastError(ERROR_SUCCESS);
    return true;
}

std::optional<std::vector<JobInfo1>> EnumJobsW(HANDLE printer, DWORD firstJob, DWORD count,
                                               DWORD level) {
    // Level 1 is the one record this API has.
    if (level != 1) {
        ::SetLastError(ERROR_INVALID_LEVEL);
        return std::nullopt;
    }
    RecordBuffer buffer;
    ::DWORD returned = 0;
    const bool ok = FillBuffer(buffer, [&](::BYTE* data, ::DWORD size, ::DWORD* needed) {
        return ::EnumJobsW(printer, firstJob, count, 1, data, size, needed, &returned) != FALSE;
    });
    if (!ok) {
        return std::nullopt;
    }
    std::vector<JobInfo1> jobs;
    jobs.reserve(returned);
    for (::DWORD i = 0; i < returned; ++i) {
        jobs.push_back(FromRecord(buffer.As<::JOB_INFO_1W>()[i]));
    }
    ::SetLastError(ERROR_SUCCESS);
    return jobs;
}

}  // namespace platform
