// File mappings: sizes, access rights, view ranges, lifetime, and memory
// shared between processes.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "ovtest.h"
#include "platform/kernel.h"
#include "product_settings.h"

namespace {

using namespace platform;
using ovtest::U16;

using ovtest::kPoison;
constexpr DWORD kErrorMappedAlignment = 1132;
constexpr std::size_t kAreaSize = 265304;  // the size of the module's request area

class KernelMapping : public ovtest::MachineTest {
  protected:
    std::u16string Name(const std::string& base) { return U16(ovtest::UniqueName(base)); }
};

TEST_F(KernelMapping, CreateRefusesZeroSizeAndUnknownProtectionOpenAnAbsentName) {
    OVTEST_EXPECT_FAIL(CreateFileMappingW(nullptr, PAGE_READWRITE, 0, Name("zero")),
                       ERROR_INVALID_PARAMETER);
    OVTEST_EXPECT_FAIL(
        CreateFileMappingW(nullptr, 0x40 /* PAGE_EXECUTE_READWRITE */, 4096, Name("x")),
        ERROR_INVALID_PARAMETER);
    OVTEST_EXPECT_FAIL(OpenFileMappingW(FILE_MAP_ALL_ACCESS, false, Name("absent")),
                       ERROR_FILE_NOT_FOUND);
}

TEST_F(KernelMapping, SecondCreateOpensTheFirstAndKeepsItsSize) {
    const auto name = u"Global\\" + Name("area");
    SetLastError(kPoison);
    UniqueMapping first = CreateFileMappingW(nullptr, PAGE_READWRITE, kAreaSize, name);
    ASSERT_TRUE(first);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    SetLastError(kPoison);
    UniqueMapping second = CreateFileMappingW(nullptr, PAGE_READWRITE, 2 * kAreaSize, name);
    ASSERT_TRUE(second);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);

    MappedView a = MapViewOfFile(first.get(), FILE_MAP_ALL_ACCESS, 0, kAreaSize);
    MappedView b = MapViewOfFile(second.get(), FILE_MAP_ALL_ACCESS, 0, kAreaSize);
    ASSERT_TRUE(a);
    ASSERT_TRUE(b);
    EXPECT_NE(a.data(), b.data());
    static_cast<char*>(a.data())[kAreaSize - 1] = 'z';
    EXPECT_EQ(static_cast<char*>(b.data())[kAreaSize - 1], 'z');
    EXPECT_EQ(static_cast<char*>(b.data())[0], '\0');  // new memory is zero-filled
}

TEST_F(KernelMapping, ViewsOfTheWholeMappingHaveTheSizeItWasCreatedWith) {
    OVTEST_SKIP_UNDER_WINE("a page-file mapping's size is rounded up to whole pages");
    const auto name = u"Global\\" + Name("sized");
    UniqueMapping first = CreateFileMappingW(nullptr, PAGE_READWRITE, kAreaSize, name);
    UniqueMapping second = CreateFileMappingW(nullptr, PAGE_READWRITE, 2 * kAreaSize, name);
    ASSERT_TRUE(first);
    ASSERT_TRUE(second);
    MappedView a = MapViewOfFile(first.get(), FILE_MAP_ALL_ACCESS, 0, 0);
    MappedView b = MapViewOfFile(second.get(), FILE_MAP_ALL_ACCESS, 0, 0);
    ASSERT_TRUE(a);
    ASSERT_TRUE(b);
    EXPECT_EQ(a.size(), kAreaSize);
    EXPECT_EQ(b.size(), kAreaSize);
    MappedView tail = MapViewOfFile(first.get(), FILE_MAP_READ, 65536, 0);
    ASSERT_TRUE(tail);
    EXPECT_EQ(tail.size(), kAreaSize - 65536);
}

TEST_F(KernelMapping, ReadOnlyHandleCannotBeMappedForWrite) {
    const auto name = Name("ro-handle");
    UniqueMapping owner = CreateFileMappingW(nullptr, PAGE_READWRITE, 4096, name);
    ASSERT_TRUE(owner);
    UniqueMapping reader = OpenFileMappingW(FILE_MAP_READ, false, name);
    ASSERT_TRUE(reader);
    OVTEST_EXPECT_FAIL(MapViewOfFile(reader.get(), FILE_MAP_WRITE, 0, 0), ERROR_ACCESS_DENIED);
    OVTEST_EXPECT_FAIL(MapViewOfFile(reader.get(), FILE_MAP_ALL_ACCESS, 0, 0), ERROR_ACCESS_DENIED);
    MappedView view = MapViewOfFile(reader.get(), FILE_MAP_READ, 0, 0);
    ASSERT_TRUE(view);
    EXPECT_EQ(view.size(), 4096u);

    UniqueMapping nothing = OpenFileMappingW(0, false, name);
    ASSERT_TRUE(nothing);
    OVTEST_EXPECT_FAIL(MapViewOfFile(nothing.get(), FILE_MAP_READ, 0, 0), ERROR_ACCESS_DENIED);
}

TEST_F(KernelMapping, ReadOnlyMappingCannotBeMappedForWriteEvenWithAllAccess) {
    UniqueMapping m = CreateFileMappingW(nullptr, PAGE_READONLY, 4096, Name("ro-pages"));
    ASSERT_TRUE(m);
    OVTEST_EXPECT_FAIL(MapViewOfFile(m.get(), FILE_MAP_WRITE, 0, 0), ERROR_ACCESS_DENIED);
    EXPECT_TRUE(MapViewOfFile(m.get(), FILE_MAP_READ, 0, 0));
}

TEST_F(KernelMapping, ViewRangesAreCheckedAtTheExactBoundaries) {
    constexpr std::size_t kSize = 3 * 65536;
    UniqueMapping m = CreateFileMappingW(nullptr, PAGE_READWRITE, kSize, Name("ranges"));
    ASSERT_TRUE(m);
    EXPECT_TRUE(MapViewOfFile(m.get(), FILE_MAP_READ, 0, kSize - 1));
    EXPECT_TRUE(MapViewOfFile(m.get(), FILE_MAP_READ, 0, kSize));
    OVTEST_EXPECT_FAIL(MapViewOfFile(m.get(), FILE_MAP_READ, 0, kSize + 1),
                       ERROR_INVALID_PARAMETER);

    MappedView tail = MapViewOfFile(m.get(), FILE_MAP_READ, 2 * 65536, 0);
    ASSERT_TRUE(tail);
    EXPECT_EQ(tail.size(), 65536u);
    OVTEST_EXPECT_FAIL(MapViewOfFile(m.get(), FILE_MAP_READ, kSize, 0), ERROR_INVALID_PARAMETER);
    OVTEST_EXPECT_FAIL(MapViewOfFile(m.get(), FILE_MAP_READ, 4096, 0), kErrorMappedAlignment);
    OVTEST_EXPECT_FAIL(MapViewOfFile(m.get(), 0, 0, 0), ERROR_INVALID_PARAMETER);
}

TEST_F(KernelMapping, ViewKeepsTheMappingAliveAfterItsHandleCloses) {
    OVTEST_SKIP_UNDER_WINE("a mapping's name goes with its last handle even while views remain");
    const auto name = Name("kept");
    UniqueMapping m = CreateFileMappingW(nullptr, PAGE_READWRITE, 4096, name);
    MappedView view = MapViewOfFile(m.get(), FILE_MAP_WRITE, 0, 0);
    ASSERT_TRUE(view);
    std::strcpy(static_cast<char*>(view.data()), "still here");
    m.reset();

    UniqueMapping again = OpenFileMappingW(FILE_MAP_READ, false, name);
    ASSERT_TRUE(again);
    MappedView second = MapViewOfFile(again.get(), FILE_MAP_READ, 0, 0);
    EXPECT_STREQ(static_cast<const char*>(second.data()), "still here");
    again.reset();
    second.reset();
    view.reset();

    OVTEST_EXPECT_FAIL(OpenFileMappingW(FILE_MAP_READ, false, name), ERROR_FILE_NOT_FOUND);
}

TEST_F(KernelMapping, UnmapAcceptsOnlyMappedAddresses) {
    UniqueMapping m = CreateFileMappingW(nullptr, PAGE_READWRITE, 8192, u"");
    ASSERT_TRUE(m);
    MappedView view = MapViewOfFile(m.get(), FILE_MAP_ALL_ACCESS, 0, 0);
    ASSERT_TRUE(view);
    int local = 0;
    OVTEST_EXPECT_FAIL(UnmapViewOfFile(&local), ERROR_INVALID_ADDRESS);
    void* base = view.data();
    ASSERT_TRUE(UnmapViewOfFile(static_cast<char*>(base) + 100));  // inside the view
    OVTEST_EXPECT_FAIL(UnmapViewOfFile(base), ERROR_INVALID_ADDRESS);
    // The owner's own unmap of the already unmapped view fails quietly.
    SetLastError(kPoison);
    view.reset();
    EXPECT_EQ(GetLastError(), kPoison);
}

TEST_F(KernelMapping, BadHandleFailsWithInvalidHandle) {
    UniqueEvent e = CreateEventW(nullptr, false, false, u"");
    for (HANDLE bad : {static_cast<HANDLE>(nullptr), INVALID_HANDLE_VALUE, e.get()}) {
        OVTEST_EXPECT_FAIL(MapViewOfFile(bad, FILE_MAP_READ, 0, 0), ERROR_INVALID_HANDLE);
    }
}

OVTEST_CHILD(mapping_peer) {
    // args: mapping name, ready event. Checks the parent's pattern, answers with its own.
    UniqueMapping m = OpenFileMappingW(FILE_MAP_ALL_ACCESS, false, U16(args.at(0)));
    if (!m) {
        return 10;
    }
    MappedView v = MapViewOfFile(m.get(), FILE_MAP_ALL_ACCESS, 0, 0);
    // Wine rounds the mapping's size up to whole pages.
    if (!v || v.size() < kAreaSize || (!ovtest::UnderWine() && v.size() != kAreaSize)) {
        return 11;
    }
    auto* bytes = static_cast<unsigned char*>(v.data());
    for (std::size_t i = 0; i < kAreaSize; ++i) {
        if (bytes[i] != static_cast<unsigned char>(i * 7)) {
            return 12;
        }
    }
    for (std::size_t i = 0; i < kAreaSize; ++i) {
        bytes[i] = static_cast<unsigned char>(i * 13);
    }
    UniqueEvent done = OpenEventW(EVENT_MODIFY_STATE, false, U16(args.at(1)));
    return done && SetEvent(done.get()) ? 0 : 13;
}

TEST_F(KernelMapping, MappingWrittenByOneProcessIsReadByAnother) {
    const std::string name = "Global\\" + ovtest::UniqueName("xshm");
    const std::string doneName = ovtest::UniqueName("done");
    UniqueMapping m = CreateFileMappingW(nullptr, PAGE_READWRITE, kAreaSize, U16(name));
    ASSERT_TRUE(m);
    UniqueEvent done = CreateEventW(nullptr, false, false, U16(doneName));
    MappedView v = MapViewOfFile(m.get(), FILE_MAP_ALL_ACCESS, 0, 0);
    ASSERT_TRUE(v);
    auto* bytes = static_cast<unsigned char*>(v.data());
    for (std::size_t i = 0; i < kAreaSize; ++i) {
        bytes[i] = static_cast<unsigned char>(i * 7);
    }
    auto child = ovtest::Process::StartChild("mapping_peer", {name, doneName});
    ASSERT_EQ(WaitForSingleObject(done.get(), 30000), WAIT_OBJECT_0) << child.output();
    ASSERT_EQ(child.Wait(std::chrono::seconds(20)), 0) << child.output();
    for (std::size_t i = 0; i < kAreaSize; ++i) {
        ASSERT_EQ(bytes[i], static_cast<unsigned char>(i * 13)) << "at " << i;
    }
}

OVTEST_CHILD(count_along) {
    // args: mapping name, go event. Adds 100000 to the counter at offset 0.
    UniqueMapping m = OpenFileMappingW(FILE_MAP_WRITE, false, U16(args.at(0)));
    MappedView v = MapViewOfFile(m.get(), FILE_MAP_WRITE, 0, sizeof(LONG));
    UniqueEvent go = OpenEventW(SYNCHRONIZE, false, U16(args.at(1)));
    if (!v || !go || WaitForSingleObject(go.get(), 30000) != WAIT_OBJECT_0) {
        return 10;
    }
    for (int i = 0; i < 100000; ++i) {
        InterlockedIncrement(static_cast<LONG*>(v.data()));
    }
    return 0;
}

TEST_F(KernelMapping, InterlockedIncrementsFromTwoProcessesAreNotLost) {
    const std::string name = ovtest::UniqueName("counter");
    const std::string goName = ovtest::UniqueName("go");
    UniqueMapping m = CreateFileMappingW(nullptr, PAGE_READWRITE, 4096, U16(name));
    UniqueEvent go = CreateEventW(nullptr, true, false, U16(goName));
    MappedView v = MapViewOfFile(m.get(), FILE_MAP_ALL_ACCESS, 0, 0);
    ASSERT_TRUE(v);
    auto* counter = static_cast<LONG*>(v.data());
    auto child = ovtest::Process::StartChild("count_along", {name, goName});
    ASSERT_TRUE(SetEvent(go.get()));
    for (int i = 0; i < 100000; ++i) {
        InterlockedIncrement(counter);
    }
    ASSERT_EQ(child.Wait(std::chrono::seconds(30)), 0) << child.output();
    EXPECT_EQ(InterlockedRead(counter), 200000);
    EXPECT_EQ(InterlockedCompareExchange(counter, 7, 1), 200000);  // no match: unchanged
    EXPECT_EQ(InterlockedCompareExchange(counter, 7, 200000), 200000);
    EXPECT_EQ(InterlockedExchange(counter, 0), 7);
    EXPECT_EQ(InterlockedDecrement(counter), -1);
}

}  // namespace
