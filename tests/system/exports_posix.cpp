// The shared library exports exactly the module's documented entry points.
#include <cstdio>
#include <set>
#include <string>

#include "exports_list.h"
#include "ovsvc.h"
#include "ovtest.h"

namespace {

std::set<std::string> DefinedDynamicSymbols(const std::string& library) {
    std::set<std::string> names;
    const std::string command = "nm -D --defined-only " + library + " 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return names;
    }
    char line[1024];
    while (std::fgets(line, sizeof(line), pipe) != nullptr) {
        std::string text(line);
        const auto last = text.find_last_of(' ');
        std::string name = text.substr(last + 1);
        while (!name.empty() && (name.back() == '\n' || name.back() == '\r')) {
            name.pop_back();
        }
        const char kind = text.size() > 17 ? text[17] : '?';
        if (kind == 'T' || kind == 'W' || kind == 'D' || kind == 'B' || kind == 'V') {
            names.insert(name);
        }
    }
    pclose(pipe);
    return names;
}

TEST(Exports, TheLibraryExportsExactlyTheEntryPoints) {
    const std::set<std::string>& expected = exportstest::kEntryPoints;
    const auto actual = DefinedDynamicSymbols(ovtest::BinDir() + "/libOVSvc.so");
    ASSERT_FALSE(actual.empty()) << "nm found no symbols";
    EXPECT_EQ(actual, expected);
}

TEST(Exports, InterfaceVersionIsEightWithoutAService) {
    EXPECT_EQ(OVADLLGetVersion(), 8);
}

}  // namespace
