// Autocreated printers made directly through the platform's spooler, the
// way the service creates them: the marker at the start of the Comment, the
// session ids in the Location field, and a DACL that gives SYSTEM and
// Administrators full control and each user the right to print. Used by
// tests that need printers before any client asked for one.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/spooler.h"

namespace ovtest {

inline constexpr char16_t kAutocreatedMarker[] = u"Printer created by Ovaspool";

struct PrinterSpec {
    PrinterSpec(std::u16string printerName, std::map<std::uint32_t, std::u16string> users)
        : name(std::move(printerName)), sessions(std::move(users)) {}
    std::u16string name;
    // Session id -> user ("DOMAIN\account"); written into Location and DACL.
    std::map<std::uint32_t, std::u16string> sessions;
    std::u16string comment = std::u16string(kAutocreatedMarker) + u" for a test";
    std::u16string driver = u"Generic / Text Only";
    std::u16string location;  // when set, written instead of the sessions
    bool locationGiven = false;
};

// Adds accounts (users in OVDOMAIN) that do not exist yet; false on failure.
bool EnsureUsers(const std::vector<std::u16string>& users);
// Adds the printer; false (with the error printed by gtest) on failure.
bool AddAutocreatedPrinter(const PrinterSpec& wanted);
// The printer's whole level-2 record, or nullopt when it does not exist.
std::optional<platform::PrinterInfo2> ReadPrinter(std::u16string_view name);
// "DOMAIN\account" of each access-allowed entry of the printer's DACL that
// grants printing, in ACL order.
std::vector<std::u16string> PrintingUsers(std::u16string_view name);
// The ids of a Location field, sorted; nullopt when it is not a clean list.
std::optional<std::vector<std::uint32_t>> LocationIds(std::u16string_view location);
// Queues a job as `user` (the printer's DACL must let him print); 0 on failure.
std::uint32_t QueueJob(std::u16string_view printer, std::u16string_view user);
// Deletes every queued job of the printer.
bool FinishJobs(std::u16string_view printer);

}  // namespace ovtest
