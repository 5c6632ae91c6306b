// Jobs: queued entries per printer, the job count, and deletion of a printer
// that still has jobs.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "spooler_fixture.h"

namespace {

using namespace platform;
using spooltest::OpenAll;
using spooltest::Poison;

constexpr char kNoQueueUnderWine[] =
    "Wine's spooler keeps no queue: it sends a job to its port when the document ends "
    "(EndDocPrinter fails for LPT1: here) and its EnumJobsW lists nothing";

class SpoolerJobs : public spooltest::SpoolerTest {
  protected:
    DWORD Jobs(const std::u16string& printer) {
        auto h = OpenAll(printer);
        PrinterInfo2 info;
        return h && GetPrinterW(h.get(), &info) ? info.cJobs : 0xFFFFFFFF;
    }
    DWORD Submit(HANDLE printer, const std::u16string& document) {
        DocInfo1 doc;
        doc.documentName = document;
        const DWORD id = StartDocPrinterW(printer, doc);
        if (id != 0) {
            EXPECT_TRUE(EndDocPrinter(printer));
        }
        return id;
    }
};

TEST_F(SpoolerJobs, QueuedJobsCountInTheRecordUntilDeleted) {
    OVTEST_SKIP_UNDER_WINE(kNoQueueUnderWine);
    const auto name = Name(u"Office");
    AddPrinter(name);
    auto printer = OpenPrinterW(name);
    ASSERT_TRUE(printer);
    DocInfo1 doc;
    doc.documentName = u"report.txt";
    Poison();
    const DWORD first = StartDocPrinterW(printer.get(), doc);
    ASSERT_NE(first, 0u);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    // One document at a time per handle.
    OVTEST_EXPECT_FAIL(StartDocPrinterW(printer.get(), doc), ERROR_INVALID_PRINTER_STATE);
    ASSERT_TRUE(EndDocPrinter(printer.get()));
    const DWORD second = Submit(printer.get(), u"second");
    ASSERT_NE(second, 0u);
    EXPECT_NE(first, second);
    EXPECT_EQ(Jobs(name), 2u);

    auto jobs = EnumJobsW(printer.get(), 0, 10, 1);
    ASSERT_TRUE(jobs.has_value());
    ASSERT_EQ(jobs->size(), 2u);
    EXPECT_EQ((*jobs)[0].jobId, first);
    EXPECT_EQ((*jobs)[0].document, u"report.txt");
    EXPECT_EQ((*jobs)[0].printerName, name);
    EXPECT_EQ((*jobs)[0].status & JOB_STATUS_SPOOLING, 0u);
    EXPECT_FALSE((*jobs)[0].userName.empty());
    EXPECT_EQ((*jobs)[1].jobId, second);
    auto tail = EnumJobsW(printer.get(), 1, 10, 1);
    ASSERT_TRUE(tail.has_value());
    ASSERT_EQ(tail->size(), 1u);
    EXPECT_EQ((*tail)[0].jobId, second);

    OVTEST_EXPECT_OK(SetJobW(printer.get(), first, JOB_CONTROL_DELETE));
    EXPECT_EQ(Jobs(name), 1u);
    OVTEST_EXPECT_FAIL(SetJobW(printer.get(), first, JOB_CONTROL_DELETE), ERROR_INVALID_PARAMETER);
    OVTEST_EXPECT_FAIL(EndDocPrinter(printer.get()), 3003u);  // no document started
}

TEST_F(SpoolerJobs, PrinterWithJobsIsDeletedWhenItsLastJobEnds) {
    OVTEST_SKIP_UNDER_WINE(kNoQueueUnderWine);
    auto printer = AddAndOpen(Name(u"Busy"));
    const DWORD job = Submit(printer.get(), u"long document");
    ASSERT_NE(job, 0u);
    OVTEST_ASSERT_OK(DeletePrinter(printer.get()));
    EXPECT_EQ(PrinterCount(), 1u);
    PrinterInfo2 info = Read(printer.get());
    EXPECT_NE(info.status & PRINTER_STATUS_PENDING_DELETION, 0u);
    EXPECT_EQ(info.cJobs, 1u);
    // No new work for a printer on its way out.
    OVTEST_EXPECT_FAIL(StartDocPrinterW(printer.get(), DocInfo1{}), ERROR_INVALID_PRINTER_STATE);

    ASSERT_TRUE(SetJobW(printer.get(), job, JOB_CONTROL_DELETE));
    EXPECT_EQ(PrinterCount(), 0u);
}

TEST_F(SpoolerJobs, PauseAndResumeChangeOnlyTheStatusPurgeRemovesEveryJob) {
    OVTEST_SKIP_UNDER_WINE(kNoQueueUnderWine);
    auto printer = AddAndOpen(Name(u"Office"));
    const DWORD job = Submit(printer.get(), u"doc");
    ASSERT_TRUE(SetJobW(printer.get(), job, JOB_CONTROL_PAUSE));
    auto jobs = EnumJobsW(printer.get(), 0, 1, 1);
    ASSERT_TRUE(jobs && jobs->size() == 1);
    EXPECT_NE((*jobs)[0].status & JOB_STATUS_PAUSED, 0u);
    ASSERT_TRUE(SetJobW(printer.get(), job, JOB_CONTROL_RESUME));
    jobs = EnumJobsW(printer.get(), 0, 1, 1);
    ASSERT_TRUE(jobs && jobs->size() == 1);
    EXPECT_EQ((*jobs)[0].status & JOB_STATUS_PAUSED, 0u);
    OVTEST_EXPECT_FAIL(SetJobW(printer.get(), job, 77), ERROR_INVALID_PARAMETER);
    OVTEST_EXPECT_FAIL(EnumJobsW(printer.get(), 0, 1, 2).has_value(), ERROR_INVALID_LEVEL);

    for (int i = 0; i < 2; ++i) {
        ASSERT_NE(Submit(printer.get(), u"doc"), 0u);
    }
    ASSERT_TRUE(SetPrinterW(printer.get(), PRINTER_CONTROL_PURGE));
    EXPECT_EQ(Jobs(Name(u"Office")), 0u);
    EXPECT_NE(Submit(printer.get(), u"after purge"), 0u);
}

OVTEST_CHILD(spool_submit_jobs) {
    // args: printer count
    auto printer = OpenPrinterW(ovtest::U16(args.at(0)));
    if (!printer) {
        return 10;
    }
    for (int i = 0; i < std::stoi(args.at(1)); ++i) {
        DocInfo1 doc;
        doc.documentName = u"child";
        if (StartDocPrinterW(printer.get(), doc) == 0 || !EndDocPrinter(printer.get())) {
            return 11;
        }
    }
    return 0;
}

TEST_F(SpoolerJobs, JobIdsStayUniqueWhenProcessesSubmitAtOnce) {
    OVTEST_SKIP_UNDER_WINE(kNoQueueUnderWine);
    const auto name = Name(u"Shared Queue");
    AddPrinter(name);
    auto a = ovtest::Process::StartChild("spool_submit_jobs", {ovtest::U8(name), "20"});
    auto b = ovtest::Process::StartChild("spool_submit_jobs", {ovtest::U8(name), "20"});
    ASSERT_EQ(a.Wait(), 0) << a.output();
    ASSERT_EQ(b.Wait(), 0) << b.output();
    auto printer = OpenAll(name);
    auto jobs = EnumJobsW(printer.get(), 0, 1000, 1);
    ASSERT_TRUE(jobs.has_value());
    ASSERT_EQ(jobs->size(), 40u);
    std::set<DWORD> ids;
    for (const auto& job : *jobs) {
        ids.insert(job.jobId);
    }
    EXPECT_EQ(ids.size(), 40u);
}

}  // namespace
