// ovasctl eventlog: the entries of the machine's event log.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "platform/machine.h"

namespace ovasctl {

namespace {

struct Entry {
    std::string time, source, type, text;  // text as stored: escapes kept
};

// Lines of another shape (a hand-edited file) are skipped.
std::vector<Entry> ReadEntries() {
    std::vector<Entry> entries;
    std::ifstream in(platform::machine::EventLogPath());
    for (std::string line; std::getline(in, line);) {
        Entry e;
        std::size_t a = line.find('\t');
        std::size_t b = a == std::string::npos ? a : line.find('\t', a + 1);
        std::size_t c = b == std::string::npos ? b : line.find('\t', b + 1);
        if (c == std::string::npos) {
            continue;
        }
        e.time = line.substr(0, a);
        e.source = line.substr(a + 1, b - a - 1);
        e.type = line.substr(b + 1, c - b - 1);
        e.text = line.substr(c + 1);
        entries.push_back(std::move(e));
    }
    return entries;
}

// The stored text's escapes (\\ \t \r \n) undone.
std::string Unescape(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out.push_back(text[i]);
            continue;
        }
        const char next = text[++i];
        out.push_back(next == 't' ? '\t' : next == 'r' ? '\r' : next == 'n' ? '\n' : next);
    }
    return out;
}

struct Options {
    std::string source;
    std::size_t last = 0;
    bool json = false;
};

void Show(const Options& options) {
    std::vector<Entry> entries;
    for (auto& e : ReadEntries()) {
        if (options.source.empty() || e.source == options.source) {
            entries.push_back(std::move(e));
        }
    }
    if (options.last != 0 && entries.size() > options.last) {
        entries.erase(entries.begin(), entries.end() - static_cast<std::ptrdiff_t>(options.last));
    }
    if (options.json) {
        std::vector<std::string> out;
        for (const Entry& e : entries) {
            out.push_back(JsonObject()
                              .Text("time", e.time)
                              .Text("source", e.source)
                              .Text("type", e.type)
                              .Text("text", Unescape(e.text))
                              .str());
        }
        std::cout << JsonArray(out) << "\n";
        return;
    }
    std::vector<std::vector<std::string>> rows = {{"TIME", "SOURCE", "TYPE", "TEXT"}};
    for (const auto& e : entries) {
        rows.push_back({e.time, e.source, e.type, e.text});
    }
    PrintTable(rows);
}

void InstallEventLogCommands(CLI::App& app) {
    auto options = std::make_shared<Options>();
    auto* eventlog = app.add_subcommand("eventlog", "show the machine's event-log entries");
    eventlog->add_option("--source", options->source, "only entries of this source");
    eventlog->add_option("--last", options->last, "only the last N entries");
    eventlog->add_flag("--json", options->json, "JSON output");
    eventlog->callback([options] { Show(*options); });
}

const AddCommands reg{&InstallEventLogCommands};

}  // namespace

}  // namespace ovasctl
