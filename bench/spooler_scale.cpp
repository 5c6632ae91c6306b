// Spooler at scale: adding, changing and deleting 1,000 printers one by one,
// enumerating 5,000, and opening and reading one among 5,000.
//
// Each benchmark runs on its own fresh machine root under /tmp. Times are per
// operation (one iteration is one printer operation).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/machine.h"
#include "platform/spooler.h"

namespace {

using namespace platform;

std::string FreshRoot(const std::string& tag) {
    std::string pattern = "/tmp/ovsvc-bench-spool-" + tag + "-XXXXXX";
    const char* made = mkdtemp(pattern.data());
    const std::string root = made != nullptr ? made : "/tmp/ovsvc-bench-spool-" + tag;
    machine::UseRoot(root);
    return root;
}

void RemoveRoot(const std::string& root) {
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
}

std::u16string Name(std::int64_t i) {
    const std::string text = "PC" + std::to_string(i % 97) + ":" + std::to_string(i) + "#Printer " +
                             std::to_string(i) + " on CLIENT";
    return std::u16string(text.begin(), text.end());
}

PrinterInfo2 Record(std::int64_t i) {
    PrinterInfo2 info;
    info.printerName = Name(i);
    info.portName = u"LPT1:";
    info.driverName = u"Generic / Text Only";
    info.printProcessor = u"winprint";
    info.comment = u"Printer created by Ovaspool";
    info.location = u"1;";
    info.attributes = PRINTER_ATTRIBUTE_LOCAL;
    return info;
}

bool AddMany(std::int64_t count) {
    for (std::int64_t i = 0; i < count; ++i) {
        if (!AddPrinterW(u"", Record(i))) {
            return false;
        }
    }
    return true;
}

PrinterDefaults AllAccess() {
    PrinterDefaults d;
    d.desiredAccess = PRINTER_ALL_ACCESS;
    return d;
}

void BM_AddPrinter(benchmark::State& state) {
    const std::string root = FreshRoot("add");
    std::int64_t i = 0;
    for (auto _ : state) {
        auto printer = AddPrinterW(u"", Record(i++));
        if (!printer) {
            state.SkipWithError("AddPrinterW failed");
            break;
        }
    }
    RemoveRoot(root);
}
BENCHMARK(BM_AddPrinter)->Iterations(1000)->Unit(benchmark::kMicrosecond);

void BM_SetPrinterLevel2(benchmark::State& state) {
    const std::string root = FreshRoot("set");
    if (!AddMany(1000)) {
        state.SkipWithError("setup failed");
    }
    const auto defaults = AllAccess();
    std::int64_t i = 0;
    for (auto _ : state) {
        auto printer = OpenPrinterW(Name(i % 1000), &defaults);
        PrinterInfo2 info;
        if (!printer || !GetPrinterW(printer.get(), &info)) {
            state.SkipWithError("open or get failed");
            break;
        }
        info.location = u"1;" + std::u16string(1, static_cast<char16_t>(u'2' + i % 7)) + u";";
        if (!SetPrinterW(printer.get(), info, 0)) {
            state.SkipWithError("SetPrinterW failed");
            break;
        }
        ++i;
    }
    RemoveRoot(root);
}
BENCHMARK(BM_SetPrinterLevel2)->Iterations(1000)->Unit(benchmark::kMicrosecond);

void BM_DeletePrinter(benchmark::State& state) {
    const std::string root = FreshRoot("delete");
    if (!AddMany(1000)) {
        state.SkipWithError("setup failed");
    }
    const auto defaults = AllAccess();
    std::int64_t i = 0;
    for (auto _ : state) {
        auto printer = OpenPrinterW(Name(i++), &defaults);
        if (!printer || !DeletePrinter(printer.get())) {
            state.SkipWithError("delete failed");
            break;
        }
    }
    RemoveRoot(root);
}
BENCHMARK(BM_DeletePrinter)->Iterations(1000)->Unit(benchmark::kMicrosecond);

// One machine with 5,000 printers serves the two read benchmarks.
class FiveThousand {
  public:
    static FiveThousand& Get() {
        static FiveThousand instance;
        return instance;
    }
    bool ready() const { return ready_; }
    void Use() const { machine::UseRoot(root_); }
    ~FiveThousand() { RemoveRoot(root_); }

  private:
    FiveThousand() : root_(FreshRoot("5000")), ready_(AddMany(5000)) {}
    std::string root_;
    bool ready_;
};

void BM_EnumPrinters5000(benchmark::State& state) {
    auto& machine = FiveThousand::Get();
    machine.Use();
    if (!machine.ready()) {
        state.SkipWithError("setup failed");
    }
    for (auto _ : state) {
        auto all = EnumPrintersW(PRINTER_ENUM_LOCAL, u"", 2);
        if (!all || all->size() != 5000) {
            state.SkipWithError("EnumPrintersW failed");
            break;
        }
        benchmark::DoNotOptimize(all->data());
    }
}
BENCHMARK(BM_EnumPrinters5000)->Unit(benchmark::kMillisecond)->MinTime(2.0);

void BM_OpenGetOneAmong5000(benchmark::State& state) {
    auto& machine = FiveThousand::Get();
    machine.Use();
    if (!machine.ready()) {
        state.SkipWithError("setup failed");
    }
    const auto defaults = AllAccess();
    std::int64_t i = 0;
    for (auto _ : state) {
        auto printer = OpenPrinterW(Name((i++ * 7919) % 5000), &defaults);
        PrinterInfo2 info;
        if (!printer || !GetPrinterW(printer.get(), &info)) {
            state.SkipWithError("open or get failed");
            break;
        }
        benchmark::DoNotOptimize(info.location.data());
    }
}
BENCHMARK(BM_OpenGetOneAmong5000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
