// ovaspool: the client program of a terminal session. It learns the
// printers of its session's client machine and asks the service, through
// the module's exports, to create the matching server printers, or to
// delete them again.
//
//   ovaspool [-s N] [-q | -v]            create the session's printers;
//                                        prints Create "<name>" from "<template>"
//   ovaspool -d [N | all] [-q | -v]      delete this session's (session N's,
//                                        every) autocreated printer
//
// Exit codes: creating 0 when every printer was made, 2 when any failed;
// deleting 1 when printers were deleted, 0 when none, 2 on an error; 3 for
// a bad command line.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "ovsvc.h"
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
    int verbosity = 1;  // 0 quiet, 2 verbose
};

const char kUsage[] =
    "usage: ovaspool [-s N] [-q|-v]          create the session's client printers\n"
    "       ovaspool -d [N|all] [-q|-v]      delete this session's, session N's or all printers\n";

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

bool Parse(int argc, char** argv, Options* o) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasNext = i + 1 < argc && argv[i + 1][0] != '-';
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
                    return false;
                }
                o->haveSession = true;
            }
        } else if (arg == "-s" && hasNext) {
            if (!ParseNumber(argv[++i], &o->session)) {
                return false;
            }
            o->haveSession = true;
        } else if (arg == "-h" || arg == "--help") {
            std::printf("%s", kUsage);
            std::exit(0);
        } else {
            return false;
        }
    }
    return true;
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
    int failures = 0;
    for (const platform::terminal::ClientPrinter& printer : session.printers) {
        std::vector<OVCHAR> name(525, 0);
        std::vector<OVCHAR> templ(525, 0);
        for (std::size_t i = 0; i < printer.name.size() && i < 524; ++i) {
            name[i] = static_cast<OVCHAR>(printer.name[i]);
        }
        for (std::size_t i = 0; i < printer.printerClass.size() && i < 524; ++i) {
            templ[i] = static_cast<OVCHAR>(printer.printerClass[i]);
        }
        // A PostScript printer's data is its packed description (no lists).
        const void* ppd = printer.ppd.empty() ? nullptr : printer.ppd.data();
        const auto ppdBytes = static_cast<uint32_t>(printer.ppd.size());
        const int32_t result = OVADLLAddPrinter(
            name.data(), templ.data(), Ov(session.clientAddress), 3, Ov(printer.driver),
            printer.printerId, o.session, Ov(session.clientName), Ov(user), Ov(session.clientName),
            ppd, ppdBytes, 0, 0, 0);
        const std::string created(platform::ToUtf8(reinterpret_cast<const char16_t*>(name.data())));
        const std::string from(platform::ToUtf8(reinterpret_cast<const char16_t*>(templ.data())));
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
    if (!o.haveSession && !o.removeAll &&
        !platform::ProcessIdToSessionId(platform::GetCurrentProcessId(), &o.session)) {
        std::fprintf(stderr, "ovaspool: the session of this process is unknown (error %u)\n",
                     platform::GetLastError());
        return 2;
    }
    return o.remove ? Delete(o) : Create(o);
}
