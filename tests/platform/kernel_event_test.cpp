// Events: creation and opening by name, namespaces, access rights, waits,
// and their behaviour across processes.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kernel_test_support.h"
#include "ovtest.h"
#include "platform/kernel.h"
#include "platform/machine.h"
#include "product_settings.h"

namespace {

using namespace platform;
using ovtest::U16;

using ovtest::kPoison;

class KernelEvent : public ovtest::MachineTest {
  protected:
    std::u16string Name(const std::string& base) { return U16(ovtest::UniqueName(base)); }
};

// ---- creation, opening and names --------------------------------------------

TEST_F(KernelEvent, UnnamedEventsAreIndependent) {
    SetLastError(kPoison);
    UniqueEvent a = CreateEventW(nullptr, false, false, u"");
    ASSERT_TRUE(a);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    UniqueEvent b = CreateEventW(nullptr, false, true, u"");
    ASSERT_TRUE(b);
    EXPECT_NE(a.get(), b.get());
    EXPECT_EQ(WaitForSingleObject(a.get(), 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(b.get(), 0), WAIT_OBJECT_0);
}

TEST_F(KernelEvent, SecondCreateOpensTheSameEventAndReportsAlreadyExistsOpenDoesNot) {
    const auto name = Name("evt");
    SetLastError(kPoison);
    UniqueEvent first = CreateEventW(nullptr, true, false, name);
    ASSERT_TRUE(first);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);

    SetLastError(kPoison);
    // The mode and initial state of the second call are ignored.
    UniqueEvent second = CreateEventW(nullptr, false, true, name);
    ASSERT_TRUE(second);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_NE(first.get(), second.get());
    EXPECT_EQ(WaitForSingleObject(first.get(), 0), WAIT_TIMEOUT);

    ASSERT_TRUE(SetEvent(second.get()));
    EXPECT_EQ(WaitForSingleObject(first.get(), 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(first.get(), 0), WAIT_OBJECT_0);  // still manual reset

    // Opening says nothing about having existed; an absent or empty name fails.
    OVTEST_EXPECT_OK(OpenEventW(EVENT_ALL_ACCESS, false, name));
    OVTEST_EXPECT_FAIL(OpenEventW(EVENT_ALL_ACCESS, false, Name("absent")), ERROR_FILE_NOT_FOUND);
    OVTEST_EXPECT_FAIL(OpenEventW(EVENT_ALL_ACCESS, false, u""), ERROR_INVALID_PARAMETER);
}

TEST_F(KernelEvent, NameOfAnotherObjectTypeFailsWithInvalidHandle) {
    const auto name = Name("shared-name");
    UniqueMapping mapping = CreateFileMappingW(nullptr, PAGE_READWRITE, 4096, name);
    ASSERT_TRUE(mapping);
    OVTEST_EXPECT_FAIL(CreateEventW(nullptr, false, false, name), ERROR_INVALID_HANDLE);
    OVTEST_EXPECT_FAIL(OpenEventW(EVENT_ALL_ACCESS, false, name), ERROR_INVALID_HANDLE);

    const auto eventName = Name("event-first");
    UniqueEvent event = CreateEventW(nullptr, false, false, eventName);
    ASSERT_TRUE(event);
    OVTEST_EXPECT_FAIL(CreateFileMappingW(nullptr, PAGE_READWRITE, 4096, eventName),
                       ERROR_INVALID_HANDLE);
}

TEST_F(KernelEvent, NameLengthLimitIsMaxPathWithoutThePrefix) {
    for (const std::u16string prefix : {u"", u"Global\\", u"Local\\"}) {
        const std::u16string longest = prefix + std::u16string(MAX_PATH, u'n');
        SetLastError(kPoison);
        UniqueEvent ok = CreateEventW(nullptr, false, false, longest);
        EXPECT_TRUE(ok);
        EXPECT_EQ(GetLastError(), ERROR_SUCCESS);

        const std::u16string tooLong = prefix + std::u16string(MAX_PATH + 1, u'n');
        OVTEST_EXPECT_FAIL(CreateEventW(nullptr, false, false, tooLong),
                           ERROR_FILENAME_EXCED_RANGE);
        OVTEST_EXPECT_FAIL(OpenEventW(SYNCHRONIZE, false, tooLong), ERROR_FILENAME_EXCED_RANGE);
        OVTEST_EXPECT_FAIL(CreateFileMappingW(nullptr, PAGE_READWRITE, 4096, tooLong),
                           ERROR_FILENAME_EXCED_RANGE);
    }
}

TEST_F(KernelEvent, BackslashAfterTheNamespaceIsAMissingDirectory) {
    for (const std::u16string name : {u"a\\b", u"Global\\a\\b", u"Local\\a\\b", u"Other\\x"}) {
        OVTEST_EXPECT_FAIL(CreateEventW(nullptr, false, false, name), ERROR_PATH_NOT_FOUND);
    }
    OVTEST_EXPECT_FAIL(CreateEventW(nullptr, false, false, u"Global\\"), ERROR_INVALID_NAME);
}

TEST_F(KernelEvent, LocalPrefixIsTheSessionNamespaceAndGlobalIsSeparate) {
    if (ovtest::IsWin32Platform() && GetCurrentSessionId() == 0) {
        GTEST_SKIP() << "in session 0 Windows names session objects in the global namespace";
    }
    const std::string base = ovtest::UniqueName("ns");
    UniqueEvent plain = CreateEventW(nullptr, true, false, U16(base));
    ASSERT_TRUE(plain);
    SetLastError(kPoison);
    UniqueEvent local = CreateEventW(nullptr, true, false, U16("Local\\" + base));
    ASSERT_TRUE(local);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    SetLastError(kPoison);
    UniqueEvent global = CreateEventW(nullptr, true, false, U16("Global\\" + base));
    ASSERT_TRUE(global);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    // Names are case-sensitive.
    std::string upper = base;
    upper[0] = 'N';
    OVTEST_EXPECT_FAIL(OpenEventW(SYNCHRONIZE, false, U16(upper)), ERROR_FILE_NOT_FOUND);
}

class SessionScope : public kerneltest::EnvironmentScope {
  public:
    explicit SessionScope(const char* id) : EnvironmentScope("OVSVC_SESSION_ID", id) {}
};

TEST_F(KernelEvent, SessionNamesAreInvisibleToOtherSessionsGlobalNamesAreNot) {
    OVTEST_EMBEDDED_ONLY("a process's session is set from its environment");
    const auto local = Name("per-session");
    const auto global = u"Global\\" + Name("machine-wide");
    UniqueEvent mine;
    UniqueEvent machineWide;
    {
        SessionScope one("1");
        EXPECT_EQ(GetCurrentSessionId(), 1u);
        mine = CreateEventW(nullptr, false, false, local);
        machineWide = CreateEventW(nullptr, false, false, global);
        ASSERT_TRUE(mine);
        ASSERT_TRUE(machineWide);
    }
    SessionScope two("2");
    OVTEST_EXPECT_FAIL(OpenEventW(SYNCHRONIZE, false, local), ERROR_FILE_NOT_FOUND);
    SetLastError(kPoison);
    UniqueEvent other = CreateEventW(nullptr, false, false, local);
    EXPECT_TRUE(other);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_TRUE(OpenEventW(SYNCHRONIZE, false, global));
}

TEST_F(KernelEvent, GlobalNamesFailWhenTheGlobalNamespaceIsSwitchedOff) {
    OVTEST_EMBEDDED_ONLY("the global_namespace switch of machine.conf");
    const auto name = Name("gns");
    machine::SetSetting("global_namespace", "0");
    OVTEST_EXPECT_FAIL(CreateEventW(nullptr, false, false, u"Global\\" + name),
                       ERROR_ACCESS_DENIED);
    OVTEST_EXPECT_FAIL(OpenEventW(SYNCHRONIZE, false, u"Global\\" + name), ERROR_ACCESS_DENIED);
    OVTEST_EXPECT_FAIL(CreateFileMappingW(nullptr, PAGE_READWRITE, 4096, u"Global\\" + name),
                       ERROR_ACCESS_DENIED);
    // Session names still work.
    OVTEST_EXPECT_OK(CreateEventW(nullptr, false, false, name));

    machine::SetSetting("global_namespace", "1");
    EXPECT_TRUE(CreateEventW(nullptr, false, false, u"Global\\" + name));
}

TEST_F(KernelEvent, TwoMachineRootsNeverShareObjects) {
    OVTEST_EMBEDDED_ONLY("kernel objects belong to the machine root");
    const auto name = u"Global\\" + Name("rooted");
    UniqueEvent here = CreateEventW(nullptr, true, false, name);
    ASSERT_TRUE(here);
    const std::string first = machine::Root();
    const std::string second = ovtest::MakeTempDir("ovsvc-other-root-");
    machine::UseRoot(second);
    OVTEST_EXPECT_FAIL(OpenEventW(SYNCHRONIZE, false, name), ERROR_FILE_NOT_FOUND);
    SetLastError(kPoison);
    UniqueEvent there = CreateEventW(nullptr, true, false, name);
    EXPECT_TRUE(there);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    ASSERT_TRUE(SetEvent(there.get()));
    machine::UseRoot(first);
    EXPECT_EQ(WaitForSingleObject(here.get(), 0), WAIT_TIMEOUT);
    there.reset();
    std::filesystem::remove_all(second);
}

// ---- lifetime ----------------------------------------------------------------

TEST_F(KernelEvent, EventLivesUntilItsLastHandleCloses) {
    const auto name = Name("life");
    UniqueEvent a = CreateEventW(nullptr, true, true, name);
    UniqueEvent b = OpenEventW(SYNCHRONIZE, false, name);
    ASSERT_TRUE(a);
    ASSERT_TRUE(b);
    a.reset();
    UniqueEvent c = OpenEventW(SYNCHRONIZE, false, name);
    ASSERT_TRUE(c);
    EXPECT_EQ(WaitForSingleObject(c.get(), 0), WAIT_OBJECT_0);  // state survived
    b.reset();
    c.reset();
    OVTEST_EXPECT_FAIL(OpenEventW(SYNCHRONIZE, false, name), ERROR_FILE_NOT_FOUND);
    // A new event of the name starts fresh.
    UniqueEvent fresh = CreateEventW(nullptr, true, false, name);
    EXPECT_EQ(WaitForSingleObject(fresh.get(), 0), WAIT_TIMEOUT);
}

TEST_F(KernelEvent, FreedObjectsAreReusedWithoutLimit) {
    const std::string base = ovtest::UniqueName("churn");
    for (int i = 0; i < 6000; ++i) {
        UniqueEvent e = CreateEventW(nullptr, false, false, U16(base + std::to_string(i % 7)));
        UniqueMapping m =
            CreateFileMappingW(nullptr, PAGE_READWRITE, 4096, U16(base + "m" + std::to_string(i)));
        ASSERT_TRUE(e) << i;
        ASSERT_TRUE(m) << i;
    }
}

TEST_F(KernelEvent, FullObjectTableIsAClearErrorAndRecovers) {
    OVTEST_EMBEDDED_ONLY("the object table of the machine root has a fixed size");
    const std::string base = ovtest::UniqueName("full");
    std::vector<UniqueEvent> held;
    DWORD error = ERROR_SUCCESS;
    for (int i = 0; i < 10000; ++i) {
        SetLastError(kPoison);
        UniqueEvent e = CreateEventW(nullptr, false, false, U16(base + std::to_string(i)));
        if (!e) {
            error = GetLastError();
            break;
        }
        held.push_back(std::move(e));
    }
    EXPECT_EQ(error, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_GE(held.size(), 4000u);
    held.pop_back();
    EXPECT_TRUE(CreateEventW(nullptr, false, false, U16(base + "-after")));
}

// ---- access rights and bad handles -------------------------------------------

TEST_F(KernelEvent, HandleAccessRightsAreEnforced) {
    const auto name = Name("rights");
    UniqueEvent owner = CreateEventW(nullptr, true, false, name);
    ASSERT_TRUE(owner);

    UniqueEvent syncOnly = OpenEventW(SYNCHRONIZE, false, name);
    ASSERT_TRUE(syncOnly);
    OVTEST_EXPECT_FAIL(SetEvent(syncOnly.get()), ERROR_ACCESS_DENIED);
    OVTEST_EXPECT_FAIL(ResetEvent(syncOnly.get()), ERROR_ACCESS_DENIED);
    EXPECT_EQ(WaitForSingleObject(syncOnly.get(), 0), WAIT_TIMEOUT);

    UniqueEvent modifyOnly = OpenEventW(EVENT_MODIFY_STATE, false, name);
    ASSERT_TRUE(modifyOnly);
    EXPECT_TRUE(SetEvent(modifyOnly.get()));
    SetLastError(kPoison);
    EXPECT_EQ(WaitForSingleObject(modifyOnly.get(), 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_EQ(WaitForSingleObject(syncOnly.get(), 0), WAIT_OBJECT_0);

    // Generic rights map onto the event's own.
    constexpr DWORD kGenericWrite = 0x40000000;
    constexpr DWORD kGenericExecute = 0x20000000;
    UniqueEvent generic = OpenEventW(kGenericWrite | kGenericExecute, false, name);
    ASSERT_TRUE(generic);
    EXPECT_TRUE(ResetEvent(generic.get()));
    EXPECT_EQ(WaitForSingleObject(generic.get(), 0), WAIT_TIMEOUT);
}

TEST_F(KernelEvent, BadHandlesFailWithInvalidHandle) {
    UniqueMapping mapping = CreateFileMappingW(nullptr, PAGE_READWRITE, 4096, u"");
    ASSERT_TRUE(mapping);
    UniqueEvent closed = CreateEventW(nullptr, false, false, u"");
    const HANDLE stale = closed.get();
    closed.reset();
    for (HANDLE bad : {static_cast<HANDLE>(nullptr), INVALID_HANDLE_VALUE, stale, mapping.get()}) {
        OVTEST_EXPECT_FAIL(SetEvent(bad), ERROR_INVALID_HANDLE);
        OVTEST_EXPECT_FAIL(ResetEvent(bad), ERROR_INVALID_HANDLE);
        SetLastError(kPoison);
        EXPECT_EQ(WaitForSingleObject(bad, 0), WAIT_FAILED);
        // Windows checks the handle's right to wait (SYNCHRONIZE, which a
        // mapping handle lacks) before the kind of its object.
        const bool unwaitable = bad == mapping.get() && ovtest::IsWin32Platform();
        EXPECT_EQ(GetLastError(), unwaitable ? ERROR_ACCESS_DENIED : ERROR_INVALID_HANDLE);
    }
}

// ---- waits within one process --------------------------------------------------

TEST_F(KernelEvent, AutomaticResetIsConsumedByOneWaitManualResetIsNot) {
    UniqueEvent automatic = CreateEventW(nullptr, false, true, Name("auto"));
    EXPECT_EQ(WaitForSingleObject(automatic.get(), 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(automatic.get(), 0), WAIT_TIMEOUT);
    // Repeated sets with nobody waiting leave one release, not several.
    ASSERT_TRUE(SetEvent(automatic.get()));
    ASSERT_TRUE(SetEvent(automatic.get()));
    EXPECT_EQ(WaitForSingleObject(automatic.get(), 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(automatic.get(), 0), WAIT_TIMEOUT);

    UniqueEvent manual = CreateEventW(nullptr, true, false, Name("manual"));
    ASSERT_TRUE(SetEvent(manual.get()));
    EXPECT_EQ(WaitForSingleObject(manual.get(), 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(manual.get(), 0), WAIT_OBJECT_0);
    ASSERT_TRUE(ResetEvent(manual.get()));
    EXPECT_EQ(WaitForSingleObject(manual.get(), 0), WAIT_TIMEOUT);
}

TEST_F(KernelEvent, TimedWaitReturnsTimeoutNoSoonerThanAsked) {
    UniqueEvent e = CreateEventW(nullptr, false, false, u"");
    const auto start = std::chrono::steady_clock::now();
    SetLastError(kPoison);
    EXPECT_EQ(WaitForSingleObject(e.get(), 60), WAIT_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));
}

// ---- waiters in other threads and in other processes -------------------------

OVTEST_CHILD(event_waiter) {
    // args: event name, timeout ms, ready event name
    UniqueEvent e = OpenEventW(SYNCHRONIZE, false, U16(args.at(0)));
    if (!e) {
        return 10;
    }
    UniqueEvent ready = OpenEventW(EVENT_MODIFY_STATE, false, U16(args.at(2)));
    if (!ready || !SetEvent(ready.get())) {
        return 11;
    }
    const DWORD r = WaitForSingleObject(e.get(), static_cast<DWORD>(std::stoul(args.at(1))));
    return r == WAIT_OBJECT_0 ? 0 : r == WAIT_TIMEOUT ? 20 : 21;
}

enum class Where { kThread, kProcess };

// `count` waiters that open the event `name` themselves and wait on it for
// `timeout` ms, each in a thread of this process or in a process of its own.
// Each ends with what event_waiter returns: 0 released, 20 timed out.
class Waiters {
  public:
    Waiters(Where where, const std::string& name, int count, const std::string& timeout) {
        const std::string readyName = ovtest::UniqueName("ready");
        UniqueEvent ready = CreateEventW(nullptr, false, false, U16(readyName));
        for (int i = 0; i < count; ++i) {
            if (where == Where::kProcess) {
                processes_.push_back(
                    ovtest::Process::StartChild("event_waiter", {name, timeout, readyName}));
            } else {
                auto result = std::make_shared<std::atomic<int>>(-1);
                threadResults_.push_back(result);
                threads_.emplace_back([result, name, timeout, readyName] {
                    UniqueEvent e = OpenEventW(SYNCHRONIZE, false, U16(name));
                    UniqueEvent r = OpenEventW(EVENT_MODIFY_STATE, false, U16(readyName));
                    if (!e || !r || !SetEvent(r.get())) {
                        result->store(10);
                        return;
                    }
                    const DWORD w = WaitForSingleObject(e.get(), std::stoul(timeout));
                    result->store(w == WAIT_OBJECT_0 ? 0 : w == WAIT_TIMEOUT ? 20 : 21);
                });
            }
            EXPECT_EQ(WaitForSingleObject(ready.get(), 20000), WAIT_OBJECT_0);
        }
        Sleep(100);  // from "ready" into the wait itself
    }
    Waiters(Waiters&&) = default;
    ~Waiters() {
        for (auto& t : threads_) {
            t.join();
        }
    }

    int Finished() {
        int finished = 0;
        for (auto& p : processes_) {
            finished += p.Running() ? 0 : 1;
        }
        for (const auto& r : threadResults_) {
            finished += r->load() >= 0 ? 1 : 0;
        }
        return finished;
    }

    // Waits until `count` waiters ended (20 s at most); how many did.
    int AwaitFinished(int count) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (Finished() < count && std::chrono::steady_clock::now() < deadline) {
            Sleep(5);
        }
        return Finished();
    }

    // Every waiter's result, once all ended.
    std::vector<int> Results() {
        std::vector<int> out;
        for (auto& p : processes_) {
            out.push_back(p.Wait(std::chrono::seconds(20)));
        }
        for (auto& t : threads_) {
            t.join();
        }
        threads_.clear();
        for (const auto& r : threadResults_) {
            out.push_back(r->load());
        }
        return out;
    }

  private:
    std::vector<ovtest::Process> processes_;
    std::vector<std::thread> threads_;
    std::vector<std::shared_ptr<std::atomic<int>>> threadResults_;
};

class EventWaiters : public ovtest::MachineTest, public ::testing::WithParamInterface<Where> {
  protected:
    // A fresh named event; global so that processes of any session find it.
    UniqueEvent Create(bool manualReset, std::string* name) {
        *name = "Global\\" + ovtest::UniqueName("waited");
        return CreateEventW(nullptr, manualReset, false, U16(*name));
    }
    Waiters Start(const std::string& name, int count, const std::string& timeout = "30000") {
        return Waiters(GetParam(), name, count, timeout);
    }
};

TEST_P(EventWaiters, SetReleasesAWaiterAndIsConsumedOrTheWaiterTimesOut) {
    std::string name;
    UniqueEvent e = Create(false, &name);
    Waiters waiters = Start(name, 1);
    ASSERT_TRUE(SetEvent(e.get()));
    EXPECT_EQ(waiters.Results(), std::vector<int>{0});
    EXPECT_EQ(WaitForSingleObject(e.get(), 0), WAIT_TIMEOUT);
    EXPECT_EQ(Start(name, 1, "50").Results(), std::vector<int>{20}) << "a waiter times out";
}

TEST_P(EventWaiters, AutomaticResetReleasesExactlyOneWaiterPerSet) {
    std::string name;
    UniqueEvent e = Create(false, &name);
    constexpr int kWaiters = 3;
    Waiters waiters = Start(name, kWaiters);
    for (int set = 1; set <= kWaiters; ++set) {
        ASSERT_TRUE(SetEvent(e.get()));
        ASSERT_EQ(waiters.AwaitFinished(set), set);
        Sleep(200);  // nobody else may follow
        EXPECT_EQ(waiters.Finished(), set);
    }
    EXPECT_EQ(waiters.Results(), std::vector<int>(kWaiters, 0));
    EXPECT_EQ(WaitForSingleObject(e.get(), 0), WAIT_TIMEOUT);
}

TEST_P(EventWaiters, TwoQuickSetsReleaseTwoWaiters) {
    std::string name;
    UniqueEvent e = Create(false, &name);
    Waiters waiters = Start(name, 2);
    ASSERT_TRUE(SetEvent(e.get()));
    ASSERT_TRUE(SetEvent(e.get()));
    EXPECT_EQ(waiters.Results(), std::vector<int>(2, 0));
}

TEST_P(EventWaiters, ManualSetReleasesEveryWaiterEvenIfResetAtOnce) {
    std::string name;
    UniqueEvent e = Create(true, &name);
    Waiters waiters = Start(name, 3);
    ASSERT_TRUE(SetEvent(e.get()));
    ASSERT_TRUE(ResetEvent(e.get()));
    EXPECT_EQ(waiters.Results(), std::vector<int>(3, 0));
    EXPECT_EQ(WaitForSingleObject(e.get(), 0), WAIT_TIMEOUT);
}

INSTANTIATE_TEST_SUITE_P(ThreadsAndProcesses, EventWaiters,
                         ::testing::Values(Where::kThread, Where::kProcess),
                         [](const ::testing::TestParamInfo<Where>& param) {
                             return param.param == Where::kThread ? "Threads" : "Processes";
                         });

OVTEST_CHILD(hold_and_hang) {
    // args: event name, mapping name, ready event name
    UniqueEvent e = CreateEventW(nullptr, true, false, U16(args.at(0)));
    UniqueMapping m = CreateFileMappingW(nullptr, PAGE_READWRITE, 65536, U16(args.at(1)));
    MappedView v = MapViewOfFile(m.get(), FILE_MAP_ALL_ACCESS, 0, 0);
    UniqueEvent ready = OpenEventW(EVENT_MODIFY_STATE, false, U16(args.at(2)));
    if (!e || !m || !v || !ready || !SetEvent(ready.get())) {
        return 10;
    }
    Sleep(60000);
    return 0;
}

// A child that made the event and mapping of these names and holds them.
ovtest::Process StartHolder(const std::string& event, const std::string& mapping) {
    const std::string readyName = ovtest::UniqueName("ready");
    UniqueEvent ready = CreateEventW(nullptr, false, false, U16(readyName));
    auto child = ovtest::Process::StartChild("hold_and_hang", {event, mapping, readyName});
    EXPECT_EQ(WaitForSingleObject(ready.get(), 20000), WAIT_OBJECT_0) << child.output();
    return child;
}

TEST_F(KernelEvent, ObjectWhoseOnlyHolderWasKilledIsGoneForTheNextOpener) {
    const std::string event = "Global\\" + ovtest::UniqueName("orphan");
    const std::string mapping = ovtest::UniqueName("orphan-map");
    auto child = StartHolder(event, mapping);
    {
        UniqueEvent seen = OpenEventW(SYNCHRONIZE, false, U16(event));
        EXPECT_TRUE(seen);  // held by the child
    }
    child.Kill();
    EXPECT_EQ(child.Wait(std::chrono::seconds(20)), 128 + 9);

    OVTEST_EXPECT_FAIL(OpenEventW(SYNCHRONIZE, false, U16(event)), ERROR_FILE_NOT_FOUND);
    OVTEST_EXPECT_FAIL(OpenFileMappingW(FILE_MAP_READ, false, U16(mapping)), ERROR_FILE_NOT_FOUND);
    SetLastError(kPoison);
    UniqueEvent again = CreateEventW(nullptr, true, false, U16(event));
    EXPECT_TRUE(again);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
}

TEST_F(KernelEvent, ObjectSurvivesAKilledHolderWhileAnotherProcessHoldsIt) {
    const std::string event = ovtest::UniqueName("shared-orphan");
    auto child = StartHolder(event, ovtest::UniqueName("shared-orphan-map"));
    UniqueEvent mine = OpenEventW(EVENT_ALL_ACCESS, false, U16(event));
    ASSERT_TRUE(mine);
    ASSERT_TRUE(SetEvent(mine.get()));
    child.Kill();
    child.Wait(std::chrono::seconds(20));
    UniqueEvent again = OpenEventW(SYNCHRONIZE, false, U16(event));
    ASSERT_TRUE(again);
    EXPECT_EQ(WaitForSingleObject(again.get(), 0), WAIT_OBJECT_0);
}

}  // namespace
