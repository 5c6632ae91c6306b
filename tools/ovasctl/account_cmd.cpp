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

// The account table's own reading of the codes it gives.
const char* AccountWords(DWORD error) {
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
            return "";
    }
}

std::string AccountJson(const admin::Account& a) {
    std::vector<std::string> groups;
    for (const std::u16string& g : a.memberOf) {
        groups.push_back(Utf8(g));
    }
    return JsonObject()
        .Text("domain", Utf8(a.domain))
        .Text("name", Utf8(a.name))
        .Text("type", UseName(a.use))
        .Text("sid", Utf8(a.sid.ToString()))
        .Raw("groups", JsonTexts(groups))
        .str();
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
    admin::Account added;
    if (!admin::AddAccount(Utf16(o.name), o.isGroup ? SidTypeGroup : SidTypeUser, groups, &added)) {
        const DWORD error = GetLastError();
        Fail("account add", o.name, error, AccountWords(error));
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
    std::vector<admin::Account> accounts;
    if (!admin::EnumAccounts(&accounts)) {
        Fail("account list", "failed", GetLastError());
        return;
    }
    if (Options().json) {
        std::vector<std::string> out;
        for (const admin::Account& a : accounts) {
            out.push_back(AccountJson(a));
        }
        std::cout << JsonArray(out) << "\n";
        return;
    }
    std::vector<std::vector<std::string>> rows = {{"Name", "Type", "SID", "Groups"}};
    for (const admin::Account& a : accounts) {
        rows.push_back(
            {Utf8(a.FullName()), UseName(a.use), Utf8(a.sid.ToString()), Joined(a.memberOf)});
    }
    PrintTable(rows);
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
