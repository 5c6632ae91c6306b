// ovasctl account: the machine's account table.
//
//   account add DOMAIN\name [--group G]... [--is-group]
//                         adds a user (or, with --is-group, a group) with
//                         memberships in existing groups; a name without a
//                         domain belongs to the default domain
//   account list          every account: name, type, SID, groups
// --json gives machine-readable output.
#include <iostream>

#include "command.h"
#include "platform/security.h"

namespace ovasctl {

namespace {

using namespace platform;

struct AccountOptions {
    std::string name;
    std::vector<std::string> groups;
    bool isGroup = false;
    bool json = false;
};

AccountOptions& Options() {
    static AccountOptions options;
    return options;
}

const char* UseName(SID_NAME_USE use) {
    switch (use) {
        case SidTypeUser:
            return "user";
        case SidTypeGroup:
            return "group";
        case SidTypeDomain:
            return "domain";
        case SidTypeAlias:
            return "alias";
        case SidTypeWellKnownGroup:
            return "well-known group";
        default:
            return "other";
    }
}

std::string ErrorText(DWORD error) {
    switch (error) {
        case ERROR_USER_EXISTS:
            return "the user exists already";
        case ERROR_GROUP_EXISTS:
            return "the group exists already";
        case ERROR_NO_SUCH_GROUP:
            return "no such group";
        case ERROR_INVALID_NAME:
            return "invalid account name";
        case ERROR_ACCESS_DENIED:
            return "accounts cannot be added to that domain";
        default:
            return "failed";
    }
}

std::string Json(std::string_view text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned>(c));
            out += buf;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string AccountJson(const Account& a) {
    std::string groups = "[";
    for (std::size_t i = 0; i < a.memberOf.size(); ++i) {
        groups += (i ? ", " : "") + Json(Utf8(a.memberOf[i]));
    }
    groups += "]";
    return "{\"domain\": " + Json(Utf8(a.domain)) + ", \"name\": " + Json(Utf8(a.name)) +
           ", \"type\": " + Json(UseName(a.use)) + ", \"sid\": " + Json(Utf8(a.sid.ToString())) +
           ", \"groups\": " + groups + "}";
}

std::string Joined(const std::vector<std::u16string>& list) {
    std::string out;
    for (const std::u16string& s : list) {
        out += (out.empty() ? "" : ", ") + Utf8(s);
    }
    return out;
}

void RunAdd() {
    const AccountOptions& o = Options();
    std::vector<std::u16string> groups;
    for (const std::string& g : o.groups) {
        groups.push_back(Utf16(g));
    }
    Account added;
    if (!AddAccount(Utf16(o.name), o.isGroup ? SidTypeGroup : SidTypeUser, groups, &added)) {
        const DWORD error = GetLastError();
        std::cerr << "ovasctl account add: " << o.name << ": " << ErrorText(error) << " (error "
                  << error << ")\n";
        ExitCode() = 1;
        return;
    }
    if (o.json) {
        std::cout << AccountJson(added) << "\n";
    } else {
        std::cout << "Added " << UseName(added.use) << " " << Utf8(added.FullName()) << " "
                  << Utf8(added.sid.ToString()) << "\n";
    }
}

void RunList() {
    std::vector<Account> accounts;
    if (!EnumAccounts(&accounts)) {
        std::cerr << "ovasctl account list: failed (error " << GetLastError() << ")\n";
        ExitCode() = 1;
        return;
    }
    if (Options().json) {
        std::cout << "[";
        for (std::size_t i = 0; i < accounts.size(); ++i) {
            std::cout << (i ? ",\n " : "") << AccountJson(accounts[i]);
        }
        std::cout << "]\n";
        return;
    }
    std::size_t nameWidth = 4;
    std::size_t sidWidth = 3;
    for (const Account& a : accounts) {
        nameWidth = std::max(nameWidth, Utf8(a.FullName()).size());
        sidWidth = std::max(sidWidth, a.sid.ToString().size());
    }
    auto pad = [](std::string s, std::size_t width) {
        s.resize(std::max(s.size(), width), ' ');
        return s;
    };
    std::cout << pad("Name", nameWidth) << "  " << pad("Type", 16) << "  " << pad("SID", sidWidth)
              << "  Groups\n";
    for (const Account& a : accounts) {
        std::cout << pad(Utf8(a.FullName()), nameWidth) << "  " << pad(UseName(a.use), 16) << "  "
                  << pad(Utf8(a.sid.ToString()), sidWidth) << "  " << Joined(a.memberOf) << "\n";
    }
}

void InstallAccountCommands(CLI::App& app) {
    AccountOptions& o = Options();
    auto* account = app.add_subcommand("account", "Users and groups of the machine");
    account->require_subcommand(1);
    auto* add = account->add_subcommand("add", "Add a user or a group");
    add->add_option("name", o.name, "DOMAIN\\name (without DOMAIN: the default domain)")
        ->required();
    add->add_option("--group", o.groups, "A group the account belongs to (repeatable)");
    add->add_flag("--is-group", o.isGroup, "Add a group instead of a user");
    add->add_flag("--json", o.json, "JSON output");
    add->callback(RunAdd);
    auto* list = account->add_subcommand("list", "List every account");
    list->add_flag("--json", o.json, "JSON output");
    list->callback(RunList);
}

const AddCommands reg{&InstallAccountCommands};

}  // namespace

}  // namespace ovasctl
