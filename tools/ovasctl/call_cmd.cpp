// ovasctl call ...: invokes the module's client exports from the command line
// and prints their result and reply strings.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "command.h"
#include "ovsvc.h"

namespace ovasctl {
namespace {

struct CallOptions {
    bool json = false;
    // translate / add
    std::string ip;
    std::string client;
    std::string driver;
    std::string printer;
    std::string printerClass;
    std::uint32_t type = 0;
    // add
    std::string user;
    std::string computer;
    std::uint32_t printerId = 0;
    std::uint32_t session = 0;
    std::uint32_t flags = 0;
    std::vector<std::string> trays;
    std::vector<std::string> papers;
    std::vector<std::string> resolutions;
    // del
    bool all = false;
    // enum
    bool raw = false;
};

// One printer of the enumeration record.
struct EnumeratedPrinter {
    std::string name;
    std::string references;
    std::vector<std::pair<std::string, std::string>> sessions;  // id, user
};

// Decodes the record's token fields (tag, decimal length in UTF-16 units,
// ":", value): P and R per printer, then S and U per session. False for a
// text that is not such a record.
bool DecodeEnumRecord(std::u16string_view text, std::vector<EnumeratedPrinter>* printers) {
    std::size_t at = 0;
    while (at < text.size()) {
        const char16_t tag = text[at++];
        std::size_t length = 0;
        const std::size_t digits = at;
        while (at < text.size() && text[at] >= u'0' && text[at] <= u'9' && at - digits < 9) {
            length = length * 10 + static_cast<std::size_t>(text[at++] - u'0');
        }
        if (at == digits || at >= text.size() || text[at] != u':' ||
            text.size() - at - 1 < length) {
            return false;
        }
        const std::string value = Utf8(std::u16string(text.substr(at + 1, length)));
        at += 1 + length;
        if (tag == u'P') {
            printers->push_back({value, "", {}});
        } else if (printers->empty()) {
            return false;
        } else if (tag == u'R') {
            printers->back().references = value;
        } else if (tag == u'S') {
            printers->back().sessions.emplace_back(value, "");
        } else if (tag == u'U' && !printers->back().sessions.empty()) {
            printers->back().sessions.back().second = value;
        } else {
            return false;
        }
    }
    return true;
}

// A number of the enumeration record as JSON: as a number when it is one.
std::string JsonNumber(const std::string& text) {
    const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    return digits ? text : text.empty() ? "0" : JsonString(text);
}

void PrintEnumRecord(const std::vector<EnumeratedPrinter>& printers, bool json) {
    if (json) {
        std::vector<std::string> out;
        for (const auto& p : printers) {
            std::vector<std::string> sessions;
            for (const auto& [session, user] : p.sessions) {
                sessions.push_back(
                    JsonObject().Raw("session", JsonNumber(session)).Text("user", user).str());
            }
            out.push_back(JsonObject()
                              .Text("printer", p.name)
                              .Raw("references", JsonNumber(p.references))
                              .Raw("sessions", JsonArray(sessions))
                              .str());
        }
        std::printf("%s\n", JsonArray(out).c_str());
        return;
    }
    std::vector<std::vector<std::string>> rows = {{"PRINTER", "REFERENCES", "SESSION", "USER"}};
    for (const auto& p : printers) {
        if (p.sessions.empty()) {
            rows.push_back({p.name, p.references, "", ""});
        }
        for (const auto& [session, user] : p.sessions) {
            rows.push_back({p.name, p.references, session, user});
        }
    }
    PrintTable(rows);
}

void PrintResult(const CallOptions& options, const char* call, int32_t result,
                 const std::vector<std::pair<std::string, std::string>>& fields = {}) {
    if (options.json) {
        JsonObject line;
        line.Text("call", call).Number("result", result);
        for (const auto& [key, value] : fields) {
            line.Text(key, value);
        }
        std::printf("%s\n", line.str().c_str());
    } else {
        std::printf("%s: result %d\n", call, result);
        for (const auto& [key, value] : fields) {
            std::printf("  %s: %s\n", key.c_str(), value.c_str());
        }
    }
}

// The properties lists: entries each zero-terminated, the list closed by one
// more zero.
std::u16string PropertiesList(const std::vector<std::string>& entries) {
    std::u16string list;
    for (const auto& entry : entries) {
        list += Utf16(entry);
        list.push_back(u'\0');
    }
    if (entries.empty()) {
        list.push_back(u'\0');
    }
    list.push_back(u'\0');
    return list;
}

// The exports take OVCHAR texts: wchar_t on Windows, char16_t elsewhere,
// UTF-16 on both.
static_assert(sizeof(OVCHAR) == sizeof(char16_t));
const OVCHAR* Ov(const std::u16string& text) {
    return reinterpret_cast<const OVCHAR*>(text.c_str());
}
std::u16string FromOv(const OVCHAR* text) {
    return std::u16string(reinterpret_cast<const char16_t*>(text));
}

void RunTranslate(const CallOptions& o) {
    std::vector<OVCHAR> templates(4200, 0);
    const int32_t result =
        OVADLLTranslate(Ov(Utf16(o.ip)), Ov(Utf16(o.client)), Ov(Utf16(o.driver)),
                        Ov(Utf16(o.printer)), Ov(Utf16(o.printerClass)), o.type, templates.data());
    std::vector<std::pair<std::string, std::string>> fields;
    if (result >= 0) {
        const OVCHAR* p = templates.data();
        for (int i = 0; i < 3; ++i) {
            const std::u16string name = FromOv(p);
            fields.emplace_back("template" + std::to_string(i + 1), Utf8(name));
            p += name.size() + 1;
        }
    }
    PrintResult(o, "translate", result, fields);
    ExitCode() = result < 0 ? 1 : 0;
}

void RunEnum(const CallOptions& o) {
    uint32_t needed = 0;
    int32_t result = OVADLLEnumPrinters(nullptr, 0, &needed);
    if (result != -19) {
        PrintResult(o, "enum", result);
        ExitCode() = result < 0 ? 1 : 0;
        return;
    }
    std::vector<OVCHAR> buffer(needed / 2 + 1, 0);
    result = OVADLLEnumPrinters(buffer.data(), needed, &needed);
    const std::u16string text = FromOv(buffer.data());
    std::vector<EnumeratedPrinter> printers;
    if (o.raw || result != 1) {
        PrintResult(o, "enum", result, {{"text", Utf8(text)}});
    } else if (!DecodeEnumRecord(text, &printers)) {
        std::fprintf(stderr, "ovasctl call enum: the service's record is malformed: %s\n",
                     Utf8(text).c_str());
        ExitCode() = 1;
        return;
    } else {
        PrintEnumRecord(printers, o.json);
    }
    ExitCode() = result < 0 ? 1 : 0;
}

void RunAdd(const CallOptions& o) {
    std::vector<OVCHAR> name(525, 0);
    std::vector<OVCHAR> cls(525, 0);
    const std::u16string pn = Utf16(o.printer).substr(0, 524);
    const std::u16string pc = Utf16(o.printerClass).substr(0, 524);
    std::copy(pn.begin(), pn.end(), name.begin());
    std::copy(pc.begin(), pc.end(), cls.begin());
    std::u16string properties;
    uint32_t parts = 0;
    if (!o.trays.empty() || !o.papers.empty() || !o.resolutions.empty()) {
        properties = PropertiesList(o.trays);
        parts = 1;
        if (!o.papers.empty() || !o.resolutions.empty()) {
            properties += PropertiesList(o.papers);
            parts = 2;
        }
        if (!o.resolutions.empty()) {
            properties += PropertiesList(o.resolutions);
            parts = 3;
        }
    }
    const int32_t result =
        OVADLLAddPrinter(name.data(), cls.data(), Ov(Utf16(o.ip)), o.type, Ov(Utf16(o.driver)),
                         o.printerId, o.session, Ov(Utf16(o.client)), Ov(Utf16(o.user)),
                         Ov(Utf16(o.computer)), parts != 0 ? properties.data() : nullptr,
                         static_cast<uint32_t>(properties.size() * 2), parts, 0, o.flags);
    PrintResult(o, "add", result,
                {{"printer", Utf8(FromOv(name.data()))}, {"class", Utf8(FromOv(cls.data()))}});
    ExitCode() = result < 0 ? 1 : 0;
}

void Install(CLI::App& app) {
    static CallOptions o;
    auto* call = app.add_subcommand("call", "Call the module's client exports");
    call->require_subcommand(1);
    call->add_flag("--json", o.json, "Print JSON");

    call->add_subcommand("version", "OVADLLGetVersion")->callback([] {
        PrintResult(o, "version", OVADLLGetVersion());
    });
    call->add_subcommand("timeouts", "OVADLLQueryTimeOutValue for 301 and 302")->callback([] {
        PrintResult(o, "timeouts", 0,
                    {{"TimeOutService", std::to_string(OVADLLQueryTimeOutValue(301))},
                     {"TimeOutClient", std::to_string(OVADLLQueryTimeOutValue(302))}});
    });
    auto* translate = call->add_subcommand("translate", "OVADLLTranslate");
    translate->add_option("--ip", o.ip, "Client address");
    translate->add_option("--client", o.client, "Client name");
    translate->add_option("--driver", o.driver, "Client driver name");
    translate->add_option("--printer", o.printer, "Client printer name");
    translate->add_option("--class", o.printerClass, "Printer class");
    translate->add_option("--type", o.type, "Client type code");
    translate->callback([] { RunTranslate(o); });

    auto* enumerate = call->add_subcommand(
        "enum", "OVADLLEnumPrinters (both calls): the autocreated printers and their sessions");
    enumerate->add_flag("--raw", o.raw, "Print the record's token text as the service sent it");
    enumerate->callback([] { RunEnum(o); });
    call->add_subcommand("repair", "OVADLLRepair")->callback([] {
        const int32_t r = OVADLLRepair();
        PrintResult(o, "repair", r);
        ExitCode() = r < 0 ? 1 : 0;
    });
    call->add_subcommand("reload", "OVADLLLoadTranslationList")->callback([] {
        const int32_t r = OVADLLLoadTranslationList();
        PrintResult(o, "reload", r);
        ExitCode() = r < 0 ? 1 : 0;
    });
    auto* del = call->add_subcommand("del", "OVADLLDelPrinter");
    del->add_option("--session", o.session, "Session id");
    del->add_flag("--all", o.all, "Delete all autocreated printers");
    del->callback([] {
        const int32_t r = OVADLLDelPrinter(o.session, o.all ? 1 : 0);
        PrintResult(o, "del", r);
        ExitCode() = r < 0 ? 1 : 0;
    });
    auto* add = call->add_subcommand("add", "OVADLLAddPrinter");
    add->add_option("--printer", o.printer, "Client printer name")->required();
    add->add_option("--class", o.printerClass, "Printer class");
    add->add_option("--ip", o.ip, "Client address");
    add->add_option("--type", o.type, "Client type code");
    add->add_option("--driver", o.driver, "Client driver name");
    add->add_option("--id", o.printerId, "Printer id on the client");
    add->add_option("--session", o.session, "Session id");
    add->add_option("--client", o.client, "Client name");
    add->add_option("--user", o.user, "User name");
    add->add_option("--computer", o.computer, "Computer name");
    add->add_option("--flags", o.flags, "Create flags");
    add->add_option("--tray", o.trays, "Tray entry (repeatable; mark the default with *)");
    add->add_option("--paper", o.papers, "Paper entry (repeatable)");
    add->add_option("--resolution", o.resolutions, "Resolution entry (repeatable)");
    add->callback([] { RunAdd(o); });
}

const AddCommands reg{&Install};

}  // namespace
}  // namespace ovasctl
