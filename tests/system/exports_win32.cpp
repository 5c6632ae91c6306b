// OVSvc.dll exports exactly the module's documented entry points, by name
// and undecorated, read from the export directory of the loaded image.
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <set>
#include <string>

#include "exports_list.h"
#include "ovsvc.h"
#include "ovtest.h"

namespace {

std::set<std::string> ExportedNames(HMODULE module) {
    std::set<std::string> names;
    const auto* base = reinterpret_cast<const unsigned char*>(module);
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& dir =
        nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    if (dir.VirtualAddress == 0) {
        return names;
    }
    const auto* exports =
        reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(base + dir.VirtualAddress);
    const auto* nameRvas = reinterpret_cast<const DWORD*>(base + exports->AddressOfNames);
    for (DWORD i = 0; i < exports->NumberOfNames; ++i) {
        names.insert(reinterpret_cast<const char*>(base + nameRvas[i]));
    }
    return names;
}

TEST(Exports, TheDllExportsExactlyTheEntryPoints) {
    HMODULE module = GetModuleHandleW(L"OVSvc.dll");
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(ExportedNames(module), exportstest::kEntryPoints);
}

TEST(Exports, EveryEntryPointResolvesByItsPlainName) {
    HMODULE module = GetModuleHandleW(L"OVSvc.dll");
    ASSERT_NE(module, nullptr);
    for (const auto& name : exportstest::kEntryPoints) {
        EXPECT_NE(reinterpret_cast<void*>(GetProcAddress(module, name.c_str())), nullptr) << name;
    }
}

TEST(Exports, InterfaceVersionIsEightWithoutAService) {
    EXPECT_EQ(OVADLLGetVersion(), 8);
}

}  // namespace
