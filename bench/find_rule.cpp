// Rule lookup cost over tables of growing size: a hit on the last rule and a
// miss (no normal rule matches, so the lookup walks the whole table and ends
// with the try rules). Time per lookup should grow linearly with the table.
#include <benchmark/benchmark.h>

#include <array>
#include <string>
#include <vector>

#include "common/ovstring.h"
#include "rules/translation_table.h"

namespace {

using ovsvc::CTranslationRule;
using ovsvc::CTranslationTable;

// A table of `rules` normal rules, each for its own printer name, all for
// the same network and client names, followed by the two try rules: every
// rule gets as far as its printer-name pattern.
void BuildTable(CTranslationTable* table, int rules) {
    std::vector<std::u16string> list{u",,,,,,,,,,"};
    list.reserve(static_cast<std::size_t>(rules) + 1);
    for (int i = 0; i < rules; ++i) {
        const std::string line = "10.0.0.0/8,CLIENT*,*,Printer " + std::to_string(i) +
                                 " on*,*,true,true,true,true,Tmpl" + std::to_string(i) + ",";
        list.push_back(ovsvc::ToUtf16(line));
    }
    if (ovsvc::FillTable(table, list) != 1) {
        std::abort();
    }
}

void Lookup(benchmark::State& state, const CTranslationTable& table,
            const CTranslationRule& request, std::u16string_view expectFirst) {
    std::array<std::u16string, 3> templates;
    std::array<std::u16string, 3> lines;
    for (auto _ : state) {
        std::uint32_t count = 3;
        const int found = table.FindRule(request, templates, count, lines, true);
        benchmark::DoNotOptimize(found);
        benchmark::DoNotOptimize(templates.data());
    }
    if (templates[0] != expectFirst) {
        state.SkipWithError("lookup gave an unexpected template");
    }
    state.counters["rules"] = static_cast<double>(state.range(0));
    state.counters["ns_per_rule"] = benchmark::Counter(
        static_cast<double>(state.range(0)),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_FindRuleHitLast(benchmark::State& state) {
    const int rules = static_cast<int>(state.range(0));
    CTranslationTable table;
    BuildTable(&table, rules);
    const int last = rules - 1;
    const std::u16string name = ovsvc::ToUtf16("Printer " + std::to_string(last) + " on client");
    const CTranslationRule request = ovsvc::MakeTranslationRequest(
        name, u"HP LaserJet", u"10.0.7.9", u"CLIENT7", 1, u"HP PCL 6");
    Lookup(state, table, request, ovsvc::ToUtf16("Tmpl" + std::to_string(last)));
}

void BM_FindRuleMiss(benchmark::State& state) {
    CTranslationTable table;
    BuildTable(&table, static_cast<int>(state.range(0)));
    const CTranslationRule request = ovsvc::MakeTranslationRequest(
        u"Printer X on client", u"HP LaserJet", u"10.0.7.9", u"CLIENT7", 1, u"HP PCL 6");
    Lookup(state, table, request, u"Printer X on client");
}

}  // namespace

BENCHMARK(BM_FindRuleHitLast)->Arg(10)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FindRuleMiss)->Arg(10)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
