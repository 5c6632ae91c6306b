// Reports of the service's fatal conditions to the event log.
#include <vector>

#include "common/format.h"
#include "platform/eventlog.h"
#include "res/resources.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {
// The report's text buffer, in UTF-16 units with its terminator.
constexpr std::size_t kReportUnits = 1024;
}  // namespace

void ReportServiceEvent(std::u16string_view text, std::uint16_t type, unsigned location) {
    platform::LastErrorKeeper keep;
    const std::u16string suffix = Format(u" Location: %d", location);
    const std::size_t room = kReportUnits - 1 - suffix.size();
    std::u16string message(text.substr(0, room));
    if (!message.empty() && message.size() == room && message.back() >= 0xD800 &&
        message.back() <= 0xDBFF) {
        message.pop_back();  // do not leave half a surrogate pair
    }
    message += suffix;
    const std::u16string source = LoadOwnString(IDS_EVENT_SOURCE);
    platform::UniqueEventSource log(platform::RegisterEventSourceW(u"", source));
    if (!log) {
        return;
    }
    platform::ReportEventW(log.get(), type, 0, 0, nullptr, {message}, nullptr, 0);
}

}  // namespace ovsvc
