// Files: Windows paths inside the machine root, creation dispositions, reads,
// writes, seeks, copies, directories and attributes.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "ovtest.h"
#include "platform/kernel.h"
#include "product_settings.h"

namespace {

using namespace platform;

using ovtest::kPoison;
constexpr DWORD kErrorNegativeSeek = 131;
constexpr DWORD kErrorDirectory = 267;

// New files carry the archive attribute on Windows.
constexpr DWORD kFileAttributeArchive = 0x20;

class KernelFile : public ovtest::MachineTest {
  protected:
    // A path in a directory of this test's own: the machine's drive C: on the
    // embedded platform, the machine root on Windows.
    std::u16string P(std::u16string_view relative) const {
        if (ovtest::IsWin32Platform()) {
            return ovtest::U16(root()) + u"\\" + std::u16string(relative);
        }
        return u"C:\\" + std::u16string(relative);
    }
    // The attributes GetFileAttributesW reports for a newly written file.
    static DWORD NewFileAttributes() {
        return ovtest::IsWin32Platform() ? kFileAttributeArchive : FILE_ATTRIBUTE_NORMAL;
    }
    static std::string Slurp(const std::string& host) {
        std::ifstream in(std::filesystem::path(ovtest::U16(host)), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    static bool Write(HANDLE h, const std::string& text) {
        DWORD written = 0;
        return WriteFile(h, text.data(), static_cast<DWORD>(text.size()), &written) &&
               written == text.size();
    }
};

TEST_F(KernelFile, DrivePathsLiveUnderTheMachineRoot) {
    OVTEST_EMBEDDED_ONLY("drive paths stand for directories of the machine root");
    EXPECT_EQ(HostPath(u"C:\\dir\\x.txt"), root() + "/drive_c/dir/x.txt");
    EXPECT_EQ(HostPath(u"d:\\a"), root() + "/drive_d/a");
    EXPECT_EQ(HostPath(u"\\\\?\\C:\\a\\b"), root() + "/drive_c/a/b");
    EXPECT_EQ(HostPath(u"C:\\a\\..\\..\\..\\b"), root() + "/drive_c/b");  // never above the drive
    EXPECT_EQ(HostPath(u"C:\\.\\a\\\\b\\"), root() + "/drive_c/a/b");
    EXPECT_EQ(HostPath(u"/tmp/plain"), "/tmp/plain");
    // Existing components keep their case.
    ASSERT_TRUE(CreateDirectoryW(u"C:\\Drivers"));
    UniqueFile f = CreateFileW(u"C:\\Drivers\\Model.PPD", GENERIC_WRITE, 0, CREATE_NEW, 0);
    ASSERT_TRUE(f);
    EXPECT_EQ(HostPath(u"c:\\DRIVERS\\model.ppd"), root() + "/drive_c/Drivers/Model.PPD");
}

TEST_F(KernelFile, ExistingComponentsAreFoundIgnoringCase) {
    ASSERT_TRUE(CreateDirectoryW(P(u"Drivers")));
    {
        UniqueFile f = CreateFileW(P(u"Drivers\\Model.PPD"), GENERIC_WRITE, 0, CREATE_NEW, 0);
        ASSERT_TRUE(f);
    }
    EXPECT_EQ(GetFileAttributesW(P(u"drivers\\MODEL.ppd")), NewFileAttributes());
    UniqueFile again = CreateFileW(P(u"DRIVERS\\model.ppd"), GENERIC_READ, 0, OPEN_EXISTING, 0);
    EXPECT_TRUE(again);
}

TEST_F(KernelFile, InvalidNameCharactersAreRefused) {
    for (const std::u16string& bad : {P(u"a?b"), P(u"a*"), P(u"x\\a:b"), P(u"<x>"), P(u"a|b")}) {
        OVTEST_EXPECT_FAIL(CreateFileW(bad, GENERIC_WRITE, 0, CREATE_ALWAYS, 0), ERROR_INVALID_NAME)
            << ovtest::U8(bad);
    }
    OVTEST_EXPECT_FAIL(CreateFileW(u"", GENERIC_READ, 0, OPEN_EXISTING, 0), ERROR_PATH_NOT_FOUND);
}

TEST_F(KernelFile, CreationDispositionsFollowWindows) {
    const std::u16string path = P(u"disp.txt");
    OVTEST_EXPECT_FAIL(CreateFileW(path, GENERIC_READ, 0, OPEN_EXISTING, 0), ERROR_FILE_NOT_FOUND);
    OVTEST_EXPECT_FAIL(CreateFileW(P(u"nodir\\disp.txt"), GENERIC_READ, 0, OPEN_EXISTING, 0),
                       ERROR_PATH_NOT_FOUND);
    OVTEST_EXPECT_FAIL(CreateFileW(path, GENERIC_WRITE, 0, TRUNCATE_EXISTING, 0),
                       ERROR_FILE_NOT_FOUND);

    SetLastError(kPoison);
    {
        UniqueFile f = CreateFileW(path, GENERIC_WRITE, 0, CREATE_NEW, 0);
        ASSERT_TRUE(f);
        EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
        ASSERT_TRUE(Write(f.get(), "first"));
    }
    OVTEST_EXPECT_FAIL(CreateFileW(path, GENERIC_WRITE, 0, CREATE_NEW, 0), ERROR_FILE_EXISTS);

    SetLastError(kPoison);
    EXPECT_TRUE(CreateFileW(path, GENERIC_READ, 0, OPEN_ALWAYS, 0));
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(Slurp(HostPath(path)), "first");  // open-always keeps the contents

    SetLastError(kPoison);
    EXPECT_TRUE(CreateFileW(path, GENERIC_WRITE, 0, CREATE_ALWAYS, 0));
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(Slurp(HostPath(path)), "");  // create-always truncates

    OVTEST_EXPECT_OK(CreateFileW(P(u"new.txt"), GENERIC_WRITE, 0, OPEN_ALWAYS, 0));

    OVTEST_EXPECT_FAIL(CreateFileW(path, GENERIC_READ, 0, TRUNCATE_EXISTING, 0),
                       ERROR_INVALID_PARAMETER);
    OVTEST_EXPECT_FAIL(CreateFileW(path, GENERIC_READ, 0, 0, 0), ERROR_INVALID_PARAMETER);
    OVTEST_EXPECT_FAIL(CreateFileW(path, GENERIC_READ, 0, 6, 0), ERROR_INVALID_PARAMETER);
}

TEST_F(KernelFile, ReadWriteAndSeek) {
    UniqueFile f = CreateFileW(P(u"rw.bin"), GENERIC_READ | GENERIC_WRITE, 0, CREATE_ALWAYS, 0);
    ASSERT_TRUE(f);
    ASSERT_TRUE(Write(f.get(), "0123456789"));
    SetLastError(kPoison);
    EXPECT_EQ(SetFilePointer(f.get(), 2, nullptr, FILE_BEGIN), 2u);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    char buffer[16] = {};
    DWORD read = 99;
    ASSERT_TRUE(ReadFile(f.get(), buffer, 3, &read));
    EXPECT_EQ(read, 3u);
    EXPECT_EQ(std::string(buffer, 3), "234");
    EXPECT_EQ(SetFilePointer(f.get(), -1, nullptr, FILE_CURRENT), 4u);
    EXPECT_EQ(SetFilePointer(f.get(), -2, nullptr, FILE_END), 8u);
    // Reading at the end succeeds with fewer bytes, then none.
    ASSERT_TRUE(ReadFile(f.get(), buffer, sizeof buffer, &read));
    EXPECT_EQ(read, 2u);
    ASSERT_TRUE(ReadFile(f.get(), buffer, sizeof buffer, &read));
    EXPECT_EQ(read, 0u);

    SetLastError(kPoison);
    EXPECT_EQ(SetFilePointer(f.get(), -11, nullptr, FILE_END), INVALID_SET_FILE_POINTER);
    EXPECT_EQ(GetLastError(), kErrorNegativeSeek);
    EXPECT_EQ(SetFilePointer(f.get(), 0, nullptr, FILE_CURRENT), 10u);  // position unchanged
    SetLastError(kPoison);
    EXPECT_EQ(SetFilePointer(f.get(), 0, nullptr, 7), INVALID_SET_FILE_POINTER);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);

    LONG high = 0;
    EXPECT_EQ(SetFilePointer(f.get(), 5, &high, FILE_BEGIN), 5u);
    EXPECT_EQ(high, 0);
}

TEST_F(KernelFile, AccessOfTheHandleIsEnforced) {
    {
        UniqueFile w = CreateFileW(P(u"acc.txt"), GENERIC_WRITE, 0, CREATE_ALWAYS, 0);
        ASSERT_TRUE(Write(w.get(), "data"));
        char c = 0;
        DWORD read = 0;
        OVTEST_EXPECT_FAIL(ReadFile(w.get(), &c, 1, &read), ERROR_ACCESS_DENIED);
    }
    UniqueFile r = CreateFileW(P(u"acc.txt"), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0);
    ASSERT_TRUE(r);
    DWORD written = 7;
    OVTEST_EXPECT_FAIL(WriteFile(r.get(), "x", 1, &written), ERROR_ACCESS_DENIED);
    EXPECT_EQ(written, 0u);
    r.reset();  // Windows enforces the sharing modes: the next open shares nothing

    UniqueFile append = CreateFileW(P(u"acc.txt"), FILE_APPEND_DATA, 0, OPEN_EXISTING, 0);
    ASSERT_TRUE(append);
    EXPECT_EQ(SetFilePointer(append.get(), 0, nullptr, FILE_BEGIN), 0u);
    ASSERT_TRUE(Write(append.get(), "+more"));
    append.reset();
    EXPECT_EQ(Slurp(HostPath(P(u"acc.txt"))), "data+more");
}

TEST_F(KernelFile, BadHandlesFailWithInvalidHandle) {
    UniqueEvent e = CreateEventW(nullptr, false, false, u"");
    char c = 0;
    DWORD n = 0;
    for (HANDLE bad : {INVALID_HANDLE_VALUE, static_cast<HANDLE>(nullptr), e.get()}) {
        OVTEST_EXPECT_FAIL(ReadFile(bad, &c, 1, &n), ERROR_INVALID_HANDLE);
        OVTEST_EXPECT_FAIL(WriteFile(bad, &c, 1, &n), ERROR_INVALID_HANDLE);
        SetLastError(kPoison);
        EXPECT_EQ(SetFilePointer(bad, 0, nullptr, FILE_BEGIN), INVALID_SET_FILE_POINTER);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    }
}

TEST_F(KernelFile, CopyAndDelete) {
    {
        UniqueFile f = CreateFileW(P(u"src.txt"), GENERIC_WRITE, 0, CREATE_NEW, 0);
        ASSERT_TRUE(Write(f.get(), std::string(100000, 'q') + "end"));
    }
    ASSERT_TRUE(CopyFileW(P(u"src.txt"), P(u"dst.txt"), true));
    EXPECT_EQ(Slurp(HostPath(P(u"dst.txt"))), std::string(100000, 'q') + "end");
    OVTEST_EXPECT_FAIL(CopyFileW(P(u"src.txt"), P(u"dst.txt"), true), ERROR_FILE_EXISTS);
    EXPECT_TRUE(CopyFileW(P(u"src.txt"), P(u"dst.txt"), false));
    OVTEST_EXPECT_FAIL(CopyFileW(P(u"missing.txt"), P(u"x.txt"), false), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(GetFileAttributesW(P(u"x.txt")), INVALID_FILE_ATTRIBUTES);

    ASSERT_TRUE(DeleteFileW(P(u"dst.txt")));
    OVTEST_EXPECT_FAIL(DeleteFileW(P(u"dst.txt")), ERROR_FILE_NOT_FOUND);
    OVTEST_EXPECT_FAIL(DeleteFileW(P(u"nodir\\dst.txt")), ERROR_PATH_NOT_FOUND);
}

TEST_F(KernelFile, DirectoriesAndAttributes) {
    SetLastError(kPoison);
    EXPECT_EQ(GetFileAttributesW(P(u"d")), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    ASSERT_TRUE(CreateDirectoryW(P(u"d")));
    EXPECT_EQ(GetFileAttributesW(P(u"d")), FILE_ATTRIBUTE_DIRECTORY);
    OVTEST_EXPECT_FAIL(CreateDirectoryW(P(u"d")), ERROR_ALREADY_EXISTS);
    OVTEST_EXPECT_FAIL(CreateDirectoryW(P(u"no\\such")), ERROR_PATH_NOT_FOUND);

    OVTEST_EXPECT_FAIL(CreateFileW(P(u"d"), GENERIC_READ, 0, OPEN_EXISTING, 0),
                       ERROR_ACCESS_DENIED);

    UniqueFile inside = CreateFileW(P(u"d\\f"), GENERIC_WRITE, 0, CREATE_NEW, 0);
    inside.reset();
    OVTEST_EXPECT_FAIL(RemoveDirectoryW(P(u"d")), ERROR_DIR_NOT_EMPTY);
    OVTEST_EXPECT_FAIL(RemoveDirectoryW(P(u"d\\f")), kErrorDirectory);
    OVTEST_EXPECT_FAIL(DeleteFileW(P(u"d")), ERROR_ACCESS_DENIED);
    ASSERT_TRUE(DeleteFileW(P(u"d\\f")));
    ASSERT_TRUE(RemoveDirectoryW(P(u"d")));
    OVTEST_EXPECT_FAIL(RemoveDirectoryW(P(u"d")), ERROR_FILE_NOT_FOUND);
}

}  // namespace
