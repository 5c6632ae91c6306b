// Shared helpers of the spooler contract tests.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "ovtest.h"
#include "platform/error.h"
#include "platform/spooler.h"

namespace spooltest {

// A value no call leaves behind by accident.
inline constexpr platform::DWORD kPoison = 0xDEADBEEF;

inline void Poison() {
    platform::SetLastError(kPoison);
}

// A printer record the fresh machine accepts (its default driver, port and
// print processor).
inline platform::PrinterInfo2 Record(const std::u16string& name) {
    platform::PrinterInfo2 info;
    info.printerName = name;
    info.portName = u"LPT1:";
    info.driverName = u"Generic / Text Only";
    info.printProcessor = u"winprint";
    info.attributes = platform::PRINTER_ATTRIBUTE_LOCAL;
    return info;
}

inline platform::PrinterDefaults Access(platform::DWORD desired) {
    platform::PrinterDefaults defaults;
    defaults.desiredAccess = desired;
    return defaults;
}

inline platform::UniquePrinter OpenAll(const std::u16string& name) {
    const auto defaults = Access(platform::PRINTER_ALL_ACCESS);
    return platform::OpenPrinterW(name, &defaults);
}

class SpoolerTest : public ovtest::MachineTest {
  protected:
    // Adds a printer and closes the handle; fails the test when it cannot.
    void AddPrinter(const std::u16string& name) {
        auto printer = platform::AddPrinterW(u"", Record(name));
        ASSERT_TRUE(printer) << "AddPrinterW failed: " << platform::GetLastError();
    }
    std::size_t PrinterCount() {
        auto all = platform::EnumPrintersW(platform::PRINTER_ENUM_LOCAL, u"", 2);
        return all ? all->size() : static_cast<std::size_t>(-1);
    }
};

}  // namespace spooltest
