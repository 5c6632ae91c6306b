// ovasctl session: log users on and off the embedded terminal server.
#include <cctype>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "command.h"
#include "ovsvc.h"
#include "platform/kernel.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "platform/security.h"
#include "platform/wts.h"

namespace ovasctl {

namespace {

using platform::DWORD;
using platform::GetLastError;
using platform::SetEnvironmentVariableW;
using platform::UniqueToken;
using platform::admin::CreateTokenForAccount;
namespace terminal = platform::terminal;

std::vector<std::u16string> SplitList(const std::string& text) {
    std::vector<std::u16string> out;
    std::size_t start = 0;
    while (start <= text.size() && !text.empty()) {
        std::size_t end = text.find(';', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        if (end > start) {
            out.push_back(Utf16(text.substr(start, end - start)));
        }
        start = end + 1;
    }
    return out;
}

// The comma that ends the field starting at `start`: the next one followed
// by a field name and "=", so that values may hold commas themselves (tray
// entries "7,Manual", paper entries "9,2100,2970").
std::size_t FieldEnd(const std::string& text, std::size_t start) {
    for (std::size_t comma = text.find(',', start); comma != std::string::npos;
         comma = text.find(',', comma + 1)) {
        std::size_t i = comma + 1;
        while (i < text.size() && std::isalpha(static_cast<unsigned char>(text[i]))) {
            ++i;
        }
        if (i > comma + 1 && i < text.size() && text[i] == '=') {
            return comma;
        }
    }
    return text.size();
}

// "name=..,class=..,driver=..,id=..[,trays=a;*b][,papers=..][,resolutions=..][,duplex=N]
// [,ppd=FILE]"; FILE is a PPD file (packed here) or one packed already.
// List entries are separated by ";" and may contain commas.
bool ParsePrinter(const std::string& text, terminal::ClientPrinter* p, std::string* error) {
    std::size_t start = 0;
    while (start < text.size()) {
        const std::size_t end = FieldEnd(text, start);
        const std::string field = text.substr(start, end - start);
        start = end + 1;
        const auto eq = field.find('=');
        if (eq == std::string::npos) {
            *error = "printer field without '=': " + field;
            return false;
        }
        const std::string key = field.substr(0, eq);
        const std::string value = field.substr(eq + 1);
        try {
            if (key == "name") {
                p->name = Utf16(value);
            } else if (key == "class") {
                p->printerClass = Utf16(value);
            } else if (key == "driver") {
                p->driver = Utf16(value);
            } else if (key == "id") {
                p->printerId = static_cast<DWORD>(std::stoul(value));
            } else if (key == "trays") {
                p->trays = SplitList(value);
            } else if (key == "papers") {
                p->papers = SplitList(value);
            } else if (key == "resolutions") {
                p->resolutions = SplitList(value);
            } else if (key == "duplex") {
                p->duplex = static_cast<DWORD>(std::stoul(value));
            } else if (key == "ppd") {
                if (!ReadPpdForClient(value, &p->ppd, error)) {
                    return false;
                }
            } else {
                *error = "unknown printer field: " + key;
                return false;
            }
        } catch (const std::exception&) {
            *error = "not a number: " + field;
            return false;
        }
    }
    if (p->name.empty()) {
        *error = "a printer needs name=";
        return false;
    }
    return true;
}

// Session administration's own reading of the codes it gets.
int Fail(const std::string& what, DWORD error) {
    const char* words = "";
    switch (error) {
        case platform::ERROR_ALREADY_EXISTS:
            words = "another user is logged on in that session";
            break;
        case platform::ERROR_CTX_WINSTATION_NOT_FOUND:
            words = "no such session";
            break;
        default:
            break;
    }
    return ovasctl::Fail("session " + what, "failed", error, words);
}

// One row per client printer; a session without printers has one row.
void PrintTable(const std::vector<terminal::Session>& sessions) {
    std::vector<std::vector<std::string>> rows = {
        {"ID", "STATION", "STATE", "USER", "CLIENT", "ADDRESS", "PRINTERS"}};
    for (const auto& s : sessions) {
        std::string user = Utf8(s.userName);
        if (!s.domainName.empty() && !user.empty()) {
            user = Utf8(s.domainName) + "\\" + user;
        }
        std::vector<std::string> row = {std::to_string(s.id),
                                        Utf8(s.winStationName),
                                        Utf8(terminal::StateName(s.state)),
                                        user,
                                        Utf8(s.clientName),
                                        Utf8(s.clientAddress),
                                        ""};
        if (s.printers.empty()) {
            rows.push_back(row);
        }
        for (const auto& p : s.printers) {
            row.back() = "printer " + std::to_string(p.printerId) + ": " + Utf8(p.name) +
                         " (class " + Utf8(p.printerClass) + ", driver " + Utf8(p.driver) + ")";
            if (!p.ppd.empty()) {
                row.back() += ", packed PPD of " + std::to_string(p.ppd.size()) + " bytes";
            }
            rows.push_back(row);
            row.assign(row.size() - 1, "");
            row.push_back("");
        }
    }
    ovasctl::PrintTable(rows);
}

std::string JsonList(const std::vector<std::u16string>& list) {
    std::vector<std::string> texts;
    for (const auto& item : list) {
        texts.push_back(Utf8(item));
    }
    return JsonTexts(texts);
}

void PrintJson(const std::vector<terminal::Session>& sessions) {
    std::vector<std::string> out;
    for (const auto& s : sessions) {
        std::vector<std::string> printers;
        for (const auto& p : s.printers) {
            printers.push_back(JsonObject()
                                   .Text("name", Utf8(p.name))
                                   .Text("class", Utf8(p.printerClass))
                                   .Text("driver", Utf8(p.driver))
                                   .Number("id", p.printerId)
                                   .Raw("trays", JsonList(p.trays))
                                   .Raw("papers", JsonList(p.papers))
                                   .Raw("resolutions", JsonList(p.resolutions))
                                   .Number("duplex", p.duplex)
                                   .Number("ppdBytes", static_cast<std::int64_t>(p.ppd.size()))
                                   .str());
        }
        out.push_back(JsonObject()
                          .Number("id", s.id)
                          .Text("station", Utf8(s.winStationName))
                          .Text("state", Utf8(terminal::StateName(s.state)))
                          .Number("stateCode", static_cast<DWORD>(s.state))
                          .Text("user", Utf8(s.userName))
                          .Text("domain", Utf8(s.domainName))
                          .Text("client", Utf8(s.clientName))
                          .Text("address", Utf8(s.clientAddress))
                          .Raw("printers", JsonArray(printers))
                          .str());
    }
    std::cout << JsonArray(out) << "\n";
}

struct LogonOptions {
    DWORD id = 0;
    std::string user;
    std::string client;
    std::string address;
    std::string station;
    std::vector<std::string> printers;
};

// A text or number of the product key, or nullopt.
std::optional<std::u16string> ProductText(std::u16string_view name) {
    platform::UniqueKey key;
    if (platform::RegOpenKeyExW(platform::HKEY_LOCAL_MACHINE, u"Software\\Orvelle\\Ovaspool", 0,
                                platform::KEY_READ, &key) != 0) {
        return std::nullopt;
    }
    platform::RegistryValue value;
    if (platform::RegGetValue(key.get(), name, &value) != 0 || value.type != platform::REG_SZ) {
        return std::nullopt;
    }
    std::u16string text(value.data.size() / 2, u'\0');
    std::memcpy(text.data(), value.data.data(), text.size() * 2);
    return text.substr(0, text.find(u'\0'));
}

// What a new session starts, as the real system does at logon: the
// client program's create command (ListenToWTSCreatCmd, "Ovaspool -q"), as
// the session's user in the session, waited for.
void RunCreateCommand(const terminal::Session& session) {
    std::u16string account = session.userName;
    if (!session.domainName.empty()) {
        account = session.domainName + u'\\' + session.userName;
    }
    std::u16string command = ProductText(u"ListenToWTSCreatCmd").value_or(u"Ovaspool -q");
    if (const auto at = command.find(u"%d"); at != std::u16string::npos) {
        command.replace(at, 2, Utf16(std::to_string(session.id)));
    }
    UniqueToken token;
    if (!CreateTokenForAccount(account, session.id, &token)) {
        std::printf("session %u: no account %s, so no printers are created\n", session.id,
                    Utf8(account).c_str());
        return;
    }
    platform::STARTUPINFOW startup;
    platform::PROCESS_INFORMATION process;
    if (!platform::CreateProcessAsUserW(token.get(), u"", command, nullptr, nullptr, false,
                                        platform::CREATE_NO_WINDOW, nullptr, u"", startup,
                                        &process)) {
        std::printf("session %u: \"%s\" cannot be started (error %u)\n", session.id,
                    Utf8(command).c_str(), GetLastError());
        return;
    }
    platform::WaitForSingleObject(process.hProcess.get(), platform::INFINITE);
}

// Tells the module of the logoff as the session's logon manager would: in
// the session, with a token of its user, before the session ends.
void NotifyLogoff(DWORD id) {
    terminal::Session session;
    if (terminal::GetSession(id, &session) != 0 || session.userName.empty()) {
        return;
    }
    std::u16string account = session.userName;
    if (!session.domainName.empty()) {
        account = session.domainName + u'\\' + session.userName;
    }
    UniqueToken token;
    if (!CreateTokenForAccount(account, id, &token)) {
        std::fprintf(stderr, "ovasctl session: no token for %s (error %u); logoff not announced\n",
                     Utf8(account).c_str(), GetLastError());
        return;
    }
    SetEnvironmentVariableW(u"OVSVC_SESSION_ID", Utf16(std::to_string(id)));
    std::u16string station = session.winStationName;
    OVWLX_NOTIFICATION_INFO info{};
    info.Size = sizeof info;
    info.UserName = const_cast<OVCHAR*>(reinterpret_cast<const OVCHAR*>(session.userName.c_str()));
    info.Domain = const_cast<OVCHAR*>(reinterpret_cast<const OVCHAR*>(session.domainName.c_str()));
    info.WindowStation = const_cast<OVCHAR*>(reinterpret_cast<const OVCHAR*>(station.c_str()));
    info.hToken = token.get();
    TSEventLogoff(&info);
}

void InstallSessionCommands(CLI::App& app) {
    auto* session = app.add_subcommand("session", "terminal sessions of the machine");
    session->require_subcommand(1);

    auto logon = std::make_shared<LogonOptions>();
    auto* cmdLogon = session->add_subcommand("logon", "log a user on (or reconnect)");
    cmdLogon->add_option("--id", logon->id, "session id")->required();
    cmdLogon->add_option("--user", logon->user, "DOMAIN\\name")->required();
    cmdLogon->add_option("--client", logon->client, "client machine name");
    cmdLogon->add_option("--address", logon->address, "client address A.B.C.D");
    cmdLogon->add_option("--station", logon->station, "window station name");
    cmdLogon->add_option("--printer", logon->printers,
                         "name=..,class=..,driver=..,id=..[,trays=a;*b][,papers=..]"
                         "[,resolutions=..][,duplex=N][,ppd=FILE (a PostScript printer's PPD)]");
    cmdLogon->callback([logon] {
        terminal::Session s;
        s.id = logon->id;
        const auto slash = logon->user.find('\\');
        if (slash == std::string::npos) {
            s.userName = Utf16(logon->user);
        } else {
            s.domainName = Utf16(logon->user.substr(0, slash));
            s.userName = Utf16(logon->user.substr(slash + 1));
        }
        s.clientName = Utf16(logon->client);
        s.clientAddress = Utf16(logon->address);
        s.winStationName = Utf16(logon->station);
        for (const auto& text : logon->printers) {
            terminal::ClientPrinter p;
            std::string error;
            if (!ParsePrinter(text, &p, &error)) {
                ovasctl::Fail("session logon", error);
                ExitCode() = 2;  // a usage error, as for a bad option
                return;
            }
            if (p.ppd.size() >= 131073) {
                std::cerr << "ovasctl session logon: warning: the packed PPD of \"" << Utf8(p.name)
                          << "\" has " << p.ppd.size()
                          << " bytes, more than a create request carries: the service will use "
                             "the standard PPD\n";
            }
            s.printers.push_back(std::move(p));
        }
        if (DWORD rc = terminal::Logon(s); rc != 0) {
            Fail("logon", rc);
            return;
        }
        std::printf("session %u: %s logged on\n", s.id, logon->user.c_str());
        std::fflush(stdout);
        RunCreateCommand(s);
    });

    auto disconnectId = std::make_shared<DWORD>(0);
    auto* cmdDisconnect = session->add_subcommand("disconnect", "disconnect a session");
    cmdDisconnect->add_option("--id", *disconnectId, "session id")->required();
    cmdDisconnect->callback([disconnectId] {
        if (DWORD rc = terminal::Disconnect(*disconnectId); rc != 0) {
            Fail("disconnect", rc);
            return;
        }
        std::printf("session %u: disconnected\n", *disconnectId);
    });

    auto logoffId = std::make_shared<DWORD>(0);
    auto* cmdLogoff = session->add_subcommand("logoff", "log the session's user off");
    cmdLogoff->add_option("--id", *logoffId, "session id")->required();
    cmdLogoff->callback([logoffId] {
        NotifyLogoff(*logoffId);
        if (DWORD rc = terminal::Logoff(*logoffId); rc != 0) {
            Fail("logoff", rc);
            return;
        }
        std::printf("session %u: logged off\n", *logoffId);
    });

    auto json = std::make_shared<bool>(false);
    auto* cmdList = session->add_subcommand("list", "list the sessions");
    cmdList->add_flag("--json", *json, "JSON output");
    cmdList->callback([json] {
        std::vector<terminal::Session> sessions;
        if (DWORD rc = terminal::ListSessions(&sessions); rc != 0) {
            Fail("list", rc);
            return;
        }
        if (*json) {
            PrintJson(sessions);
        } else {
            PrintTable(sessions);
        }
    });
}

const AddCommands reg{&InstallSessionCommands};

}  // namespace

}  // namespace ovasctl
