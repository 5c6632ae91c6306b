// ovaspool: the client program of a terminal session. It learns the
// printers of its session's client machine and asks the service, through
// the module's exports, to create the matching server printers, or to
// delete them again. `ovaspool --help` describes the options; the module's
// automation object runs it as
//   "Ovaspool.exe" -I d -q -v [-p N] [-t N] [-s N] [-a ADDRESS]
//   "Ovaspool.exe" -v -q -d [all | N]
// and reads the exit code and the Create "<name>" from "<template>" line.
//
// Exit codes: creating 0 when every printer was made, 2 when any failed or
// the printers cannot be chosen; deleting 1 when printers were deleted, 0
// when none, 2 on an error; 3 for a bad command line.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "ovsvc.h"
#include "platform/kernel.h"
#include "platform/process.h"
#include "platform/text.h"
#include "platform/wts.h"

namespace {

static_assert(sizeof(OVCHAR) == sizeof(char16_t));
const OVCHAR* Ov(const std::u16string& text) {
    return reinterpret_cast<const OVCHAR*>(text.c_str());
}

struct Options {
    bool remove = false;
    bool removeAll = false;
    bool haveSession = false;
    platform::DWORD session = 0;
    int verbosity = 1;      // 0 quiet, 2 verbose; the last of -q and -v counts
    bool onDemand = false;  // -I d
    bool havePrinterId = false;
    platform::DWORD printerId = 0;
    bool haveJob = false;
    platform::DWORD job = 0;
    std::string address;
};

const char kUsage[] =
    "usage: ovaspool [-I a|d] [-p N] [-t N] [-s N] [-a ADDRESS] [-q|-v]\n"
    "                                  create server printers for client printers\n"
    "       ovaspool -d [N|all] [-q|-v]\n"
    "                                  delete this session's, session N's or all printers\n"
    "\n"
    "  -I a        every client printer of the session (the default)\n"
    "  -I d        on demand: one printer only, the one -p names, else the\n"
    "              session's first client printer\n"
    "  -p N        only the client printer whose id on the client machine is N\n"
    "  -t N        the client's print job N waits for the printer (shown with -v)\n"
    "  -s N        the printers of session N (default: this process's session)\n"
    "  -a ADDRESS  the client machine's address: without -s, the session is the\n"
    "              first one whose client has this address; with -s, that\n"
    "              session's client must have it\n"
    "  -q, -v      quiet (errors only) or verbose output; the last one counts\n"
    "\n"
    "Each printer made is reported as: Create \"<server printer>\" from \"<template>\"\n"
    "Exit codes: creating 0 when every printer was made, 2 otherwise; deleting 1\n"
    "when printers were deleted, 0 when none, 2 on an error; 3 for a bad command line.\n";

bool ParseNumber(const std::string& text, platform::DWORD* value) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos ||
        text.size() > 10) {
        return false;
    }
    const unsigned long long n = std::strtoull(text.c_str(), nullptr, 10);
    if (n > 0xFFFFFFFFull) {
        return false;
    }
    *value = static_cast<platform::DWORD>(n);
    return true;
}

// False with a message for a bad command line.
bool Parse(int argc, char** argv, Options* o) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasNext = i + 1 < argc && argv[i + 1][0] != '-';
        // An option with a value takes the next word, whatever it looks like.
        auto value = [&](const char* what, std::string* out) {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "ovaspool: %s needs %s\n", arg.c_str(), what);
                return false;
            }
            *out = argv[++i];
            return true;
        };
        auto number = [&](platform::DWORD* out) {
            std::string text;
            if (!value("a number", &text)) {
                return false;
            }
            if (!ParseNumber(text, out)) {
                std::fprintf(stderr, "ovaspool: %s needs a number from 0 to 4294967295, not %s\n",
                             arg.c_str(), text.c_str());
                return false;
            }
            return true;
        };
        if (arg == "-q") {
            o->verbosity = 0;
        } else if (arg == "-v") {
            o->verbosity = 2;
        } else if (arg == "-d") {
            o->remove = true;
            if (hasNext && std::string(argv[i + 1]) == "all") {
                o->removeAll = true;
                ++i;
            } else if (hasNext) {
                if (!ParseNumber(argv[++i], &o->session)) {
                    std::fprintf(stderr, "ovaspool: -d takes all or a session id, not %s\n",
                                 argv[i]);
                    return false;
                }
                o->haveSession = true;
            }
        } else if (arg == "-s") {
            if (!number(&o->session)) {
                return false;
            }
            o->haveSession = true;
        } else if (arg == "-I") {
            std::string mode;
            if (!value("a mode (a or d)", &mode)) {
                return false;
            }
            if (mode != "a" && mode != "d") {
                std::fprintf(stderr, "ovaspool: -I takes a or d, not %s\n", mode.c_str());
                return false;
            }
            o->onDemand = mode == "d";
        } else if (arg == "-p") {
            if (!number(&o->printerId)) {
                return false;
            }
            o->havePrinterId = true;
        } else if (arg == "-t") {
            if (!number(&o->job)) {
                return false;
            }
            o->haveJob = true;
        } else if (arg == "-a") {
            if (!value("an address", &o->address)) {
                return false;
            }
        } else if (arg == "-h" || arg == "--help") {
            std::printf("%s", kUsage);
            std::exit(0);
        } else {
            std::fprintf(stderr, "ovaspool: unknown option %s\n", arg.c_str());
            return false;
        }
    }
    if (o->remove && (o->onDemand || o->havePrinterId || o->haveJob || !o->address.empty())) {
        std::fprintf(stderr, "ovaspool: -I, -p, -t and -a belong to creating, not to -d\n");
        return false;
    }
    return true;
}

// The session whose client has the address given with -a (the first one,
// by id); false with a message when there is none.
bool SessionOfAddress(const std::string& address, platform::DWORD* session) {
    std::vector<platform::terminal::Session> sessions;
    if (const platform::DWORD rc = platform::terminal::ListSessions(&sessions); rc != 0) {
        std::fprintf(stderr, "ovaspool: the sessions cannot be listed (error %u)\n", rc);
        return false;
    }
    for (const platform::terminal::Session& s : sessions) {
        if (!s.userName.empty() && platform::ToUtf8(s.clientAddress) == address) {
            *session = s.id;
            return true;
        }
    }
    std::fprintf(stderr, "ovaspool: no session has a client with the address %s\n",
                 address.c_str());
    return false;
}

// The client printers the options choose; false with a message when the
// choice cannot be made.
bool ChoosePrinters(const Options& o, const platform::terminal::Session& session,
                    std::vector<platform::terminal::ClientPrinter>* chosen) {
    if (!o.address.empty() && platform::ToUtf8(session.clientAddress) != o.address) {
        std::fprintf(stderr, "ovaspool: the client of session %u has the address %s, not %s\n",
                     session.id, platform::ToUtf8(session.clientAddress).c_str(),
                     o.address.c_str());
        return false;
    }
    for (const platform::terminal::ClientPrinter& printer : session.printers) {
        if (!o.havePrinterId || printer.printerId == o.printerId) {
            chosen->push_back(printer);
        }
        if (o.onDemand && !chosen->empty()) {
            break;
        }
    }
    if (chosen->empty()) {
        if (o.havePrinterId) {
            std::fprintf(stderr, "ovaspool: session %u has no client printer with the id %u\n",
                         session.id, o.printerId);
        } else {
            std::fprintf(stderr, "ovaspool: session %u has no client printers\n", session.id);
        }
        return false;
    }
    if (o.haveJob && o.verbosity > 1) {
        std::printf("  for the client's print job %u\n", o.job);
    }
    return true;
}

// The client printer's trays, papers and resolutions as the service takes
// them: one list each (entries zero-terminated, the list closed by one more
// zero), trays first; lists after the last non-empty one are left out. The
// duplex ability becomes the option: no duplex unit 1, long edge 8
// (vertical), short edge 4 (horizontal).
struct ClientProperties {
    std::u16string lists;
    uint32_t parts = 0;
    uint32_t options = 0;
};

ClientProperties PropertiesOf(const platform::terminal::ClientPrinter& printer) {
    ClientProperties p;
    const std::vector<std::u16string>* lists[] = {&printer.trays, &printer.papers,
                                                  &printer.resolutions};
    for (uint32_t i = 0; i < 3; ++i) {
        if (!lists[i]->empty()) {
            p.parts = i + 1;
        }
    }
    for (uint32_t i = 0; i < p.parts; ++i) {
        bool entries = false;
        for (const std::u16string& entry : *lists[i]) {
            if (!entry.empty()) {  // an empty one would end the list early
                p.lists += entry;
                p.lists.push_back(u'\0');
                entries = true;
            }
        }
        if (!entries) {
            p.lists.push_back(u'\0');
        }
        p.lists.push_back(u'\0');
    }
    constexpr uint32_t kOptionByDuplex[] = {1, 8, 4};
    p.options = printer.duplex < 3 ? kOptionByDuplex[printer.duplex] : 0;
    return p;
}

int Delete(const Options& o) {
    const int32_t result = OVADLLDelPrinter(o.session, o.removeAll ? 1 : 0);
    if (result < 0) {
        std::fprintf(stderr, "ovaspool: deleting printers failed: the service answered %d\n",
                     result);
        return 2;
    }
    if (o.verbosity > 0) {
        std::printf("%d printer(s) released\n", result);
    }
    return result > 0 ? 1 : 0;
}

int Create(const Options& o) {
    platform::terminal::Session session;
    if (const platform::DWORD rc = platform::terminal::GetSession(o.session, &session); rc != 0) {
        std::fprintf(stderr,
                     "ovaspool: session %u: its client printers cannot be read (error %u)\n",
                     o.session, rc);
        return 2;
    }
    const std::u16string user = session.domainName.empty()
                                    ? session.userName
                                    : session.domainName + u'\\' + session.userName;
    std::vector<platform::terminal::ClientPrinter> chosen;
    if (!ChoosePrinters(o, session, &chosen)) {
        return 2;
    }
    int failures = 0;
    for (const platform::terminal::ClientPrinter& printer : chosen) {
        std::vector<OVCHAR> name(525, 0);
        std::vector<OVCHAR> templ(525, 0);
        for (std::size_t i = 0; i < printer.name.size() && i < 524; ++i) {
            name[i] = static_cast<OVCHAR>(printer.name[i]);
        }
        for (std::size_t i = 0; i < printer.printerClass.size() && i < 524; ++i) {
            templ[i] = static_cast<OVCHAR>(printer.printerClass[i]);
        }
        // A PostScript printer's data is its packed description; any other
        // printer sends its trays, papers and resolutions.
        const ClientProperties props = PropertiesOf(printer);
        const bool ppd = !printer.ppd.empty();
        const void* data = ppd ? static_cast<const void*>(printer.ppd.data())
                               : (props.parts != 0 ? props.lists.data() : nullptr);
        const auto bytes = static_cast<uint32_t>(ppd ? printer.ppd.size() : props.lists.size() * 2);
        const int32_t result = OVADLLAddPrinter(
            name.data(), templ.data(), Ov(session.clientAddress), 3, Ov(printer.driver),
            printer.printerId, o.session, Ov(session.clientName), Ov(user), Ov(session.clientName),
            data, bytes, ppd ? 0 : props.parts, ppd ? 0 : props.options, 0);
        // In the ANSI code page, as a Windows program writes into a pipe: the
        // automation object reads the line that way.
        const std::string created(
            platform::WideToAnsi(reinterpret_cast<const char16_t*>(name.data())));
        const std::string from(
            platform::WideToAnsi(reinterpret_cast<const char16_t*>(templ.data())));
        if (result == 0) {
            if (o.verbosity > 0) {
                std::printf("Create \"%s\" from \"%s\"\n", created.c_str(), from.c_str());
            }
        } else {
            ++failures;
            std::fprintf(stderr, "ovaspool: \"%s\" was not created: the service answered %d\n",
                         platform::ToUtf8(printer.name).c_str(), result);
        }
        if (o.verbosity > 1) {
            std::printf("  client printer \"%s\" (class %s, driver %s): result %d\n",
                        platform::ToUtf8(printer.name).c_str(),
                        platform::ToUtf8(printer.printerClass).c_str(),
                        platform::ToUtf8(printer.driver).c_str(), result);
        }
    }
    return failures == 0 ? 0 : 2;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!Parse(argc, argv, &o)) {
        std::fprintf(stderr, "%s", kUsage);
        return 3;
    }
    if (!o.haveSession && !o.address.empty()) {
        if (!SessionOfAddress(o.address, &o.session)) {
            return 2;
        }
        o.haveSession = true;
    }
    if (!o.haveSession && !o.removeAll &&
        !platform::ProcessIdToSessionId(platform::GetCurrentProcessId(), &o.session)) {
        std::fprintf(stderr, "ovaspool: the session of this process is unknown (error %u)\n",
                     platform::GetLastError());
        return 2;
    }
    return o.remove ? Delete(o) : Create(o);
}
