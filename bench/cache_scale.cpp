// The printer cache at scale: N autocreated printers with two sessions each
// (N = 1,000, 2,000, 5,000 by default; give others as arguments). Times the
// first-request load of the cache, an enumeration (size query and copy), the
// release of one session from every printer (Location and ACL writes
// included), and a repair after half the sessions vanished. Prints the time
// per printer and how it grows from the smallest size.
//
// Each size runs on its own fresh machine root under /tmp, in the service's
// role (the cache refuses other processes).
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "cache/printer_cache.h"
#include "common/module_state.h"
#include "config/product_key.h"
#include "platform/kernel.h"
#include "platform/machine.h"
#include "platform/registry.h"
#include "platform/security.h"
#include "platform/spooler.h"
#include "platform/wts.h"

namespace {

using namespace platform;
using Clock = std::chrono::steady_clock;

std::u16string U16(const std::string& text) {
    return std::u16string(text.begin(), text.end());
}

std::u16string UserName(int i) {
    return U16("OVDOMAIN\\user" + std::to_string(i));
}

bool Prepare(int printers) {
    HKEY raw = nullptr;
    UniqueKey key;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, ovsvc::kProductKey, 0, KEY_ALL_ACCESS, &key, nullptr) !=
        0) {
        return false;
    }
    (void)raw;
    const DWORD rights = 1;
    RegSetValueExW(key.get(), u"RightsWin2000", REG_DWORD, &rights, sizeof rights);
    // Sessions 1 .. 2N, each of its own user; printer i is used by 2i+1 and 2i+2.
    Sid admins;
    CreateWellKnownSid(WinBuiltinAdministratorsSid, &admins);
    for (int s = 1; s <= 2 * printers; ++s) {
        admin::Account account;
        if (!admin::AddAccount(UserName(s), SidTypeUser, {}, &account)) {
            return false;
        }
        terminal::Session session;
        session.id = static_cast<DWORD>(s);
        session.domainName = u"OVDOMAIN";
        session.userName = U16("user" + std::to_string(s));
        if (terminal::Logon(session) != 0) {
            return false;
        }
    }
    for (int i = 0; i < printers; ++i) {
        admin::Account a;
        admin::Account b;
        admin::FindAccountByName(UserName(2 * i + 1), &a);
        admin::FindAccountByName(UserName(2 * i + 2), &b);
        Acl acl;
        InitializeAcl(&acl, 512, ACL_REVISION);
        AddAccessAllowedAceEx(&acl, ACL_REVISION, 0, PRINTER_ALL_ACCESS, admins);
        AddAccessAllowedAceEx(&acl, ACL_REVISION, 0, 0x00020008, a.sid);
        AddAccessAllowedAceEx(&acl, ACL_REVISION, 0, 0x00020008, b.sid);
        SecurityDescriptor sd;
        InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION);
        SetSecurityDescriptorDacl(&sd, true, &acl, false);
        PrinterInfo2 info;
        info.printerName = U16("Printer " + std::to_string(i) + " on CLIENT");
        info.portName = u"FILE:";
        info.driverName = u"Generic / Text Only";
        info.printProcessor = u"winprint";
        info.comment = u"Printer created by Ovaspool";
        info.location = U16(std::to_string(2 * i + 1) + ";" + std::to_string(2 * i + 2) + ";");
        info.securityDescriptor = ToSelfRelative(sd);
        if (!AddPrinterW(u"", info)) {
            return false;
        }
    }
    return true;
}

double Seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

struct Row {
    int printers;
    double load, enumerate, release, repair;  // microseconds per printer
};

bool Run(int printers, Row* row) {
    std::string pattern = "/tmp/ovsvc-bench-cache-XXXXXX";
    const char* made = mkdtemp(pattern.data());
    if (made == nullptr) {
        return false;
    }
    const std::string root = made;
    machine::UseRoot(root);
    const bool ok = Prepare(printers);
    if (ok) {
        ovsvc::fIsService = true;
        const double n = printers;
        auto start = Clock::now();
        auto cache = std::make_unique<ovsvc::OVACache>();
        row->load = Seconds(start) * 1e6 / n;
        // The users of the sessions, as the creates would have named them.
        for (int i = 0; i < printers; ++i) {
            const std::u16string name = U16("Printer " + std::to_string(i) + " on CLIENT");
            cache->AddSessionIDUserName(name, 2 * i + 1, UserName(2 * i + 1));
            cache->AddSessionIDUserName(name, 2 * i + 2, UserName(2 * i + 2));
        }
        start = Clock::now();
        const std::uint32_t size = cache->MyEnumPrinters(u"");
        std::u16string mapping = u"bench-enum";
        {
            UniqueMapping m = CreateFileMappingW(nullptr, PAGE_READWRITE, size, mapping);
            cache->MyEnumPrinters(mapping);
        }
        row->enumerate = Seconds(start) * 1e6 / n;
        start = Clock::now();
        for (int i = 0; i < printers; ++i) {
            cache->DeleteSessionPrinters(u"", static_cast<std::uint32_t>(2 * i + 1));
        }
        row->release = Seconds(start) * 1e6 / n;
        // Half of the remaining sessions end without a logoff.
        for (int i = 0; i < printers; i += 2) {
            terminal::Logoff(static_cast<DWORD>(2 * i + 2));
        }
        start = Clock::now();
        cache->Repair();
        row->repair = Seconds(start) * 1e6 / n;
        cache.reset();
        ovsvc::fIsService = false;
    }
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
    row->printers = printers;
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<int> sizes;
    for (int i = 1; i < argc; ++i) {
        sizes.push_back(std::atoi(argv[i]));
    }
    if (sizes.empty()) {
        sizes = {1000, 2000, 5000};
    }
    std::printf("%-9s %14s %14s %14s %14s   (microseconds per printer; growth vs %d)\n", "printers",
                "cache load", "enumerate", "release", "repair", sizes.front());
    Row first{};
    for (const int n : sizes) {
        Row row{};
        if (!Run(n, &row)) {
            std::fprintf(stderr, "bench_cache_scale: setting up %d printers failed\n", n);
            return 1;
        }
        if (n == sizes.front()) {
            first = row;
        }
        std::printf("%-9d %8.1f %5.2fx %8.1f %5.2fx %8.1f %5.2fx %8.1f %5.2fx\n", n, row.load,
                    row.load / first.load, row.enumerate, row.enumerate / first.enumerate,
                    row.release, row.release / first.release, row.repair,
                    row.repair / first.repair);
    }
    return 0;
}
