#include "cache/printer_info.h"

#include "channel/token_fields.h"
#include "common/format.h"
#include "trace/trace.h"

namespace ovsvc {

OVPrinterInfo::OVPrinterInfo(const char16_t* lpszName) {
    if (lpszName == nullptr) {
        TraceCheck("lpszName != NULL", __FILE__, __LINE__);
        return;
    }
    m_lpszName = lpszName;
    m_fNamed = true;
}

OVPrinterInfo::~OVPrinterInfo() {
    if (!m_fNamed) {
        TraceCheck("m_lpszName != NULL", __FILE__, __LINE__);
    }
}

bool OVPrinterInfo::GetSessionUser(std::uint32_t dwSessionId, std::u16string* user) const {
    if (m_mapSession.empty()) {
        TraceCheck("m_mapSession.GetCount() >= 1", __FILE__, __LINE__);
        return false;
    }
    const auto it = m_mapSession.find(dwSessionId);
    if (it == m_mapSession.end()) {
        return false;
    }
    *user = it->second;
    return true;
}

void OVPrinterInfo::SetSessionUser(std::uint32_t dwSessionId, std::u16string_view user) {
    if (m_mapSession.contains(dwSessionId)) {
        TraceCheck("m_mapSession.Lookup(dwSessionId, dummy) == 0", __FILE__, __LINE__);
    }
    m_mapSession[dwSessionId] = std::u16string(user);
}

void OVPrinterInfo::RemoveSession(std::uint32_t dwSessionId) {
    if (m_mapSession.empty()) {
        TraceCheck("m_mapSession.GetCount() >= 1", __FILE__, __LINE__);
    }
    if (m_mapSession.erase(dwSessionId) == 0) {
        TraceCheck("success", __FILE__, __LINE__);
    }
}

std::uint32_t OVPrinterInfo::CountUserSessions(std::u16string_view user) const {
    std::uint32_t count = 0;
    for (const auto& [id, name] : m_mapSession) {
        if (name == user) {
            ++count;
        }
    }
    return count;
}

void OVPrinterInfo::AppendSessionTokens(std::u16string* out) const {
    for (const auto& [id, name] : m_mapSession) {
        *out += OVASerToken::FormatToken(u"S", Format(u"%d", static_cast<std::int32_t>(id)));
        *out += OVASerToken::FormatToken(u"U", name);
    }
}

void OVPrinterInfo::MergeSessionsInto(std::u16string* out, SessionIdSet* ids) const {
    for (const auto& entry : m_mapSession) {
        ids->insert(entry.first);
    }
    *out += LocationStringOf(*ids);
}

std::u16string LocationStringOf(const SessionIdSet& ids) {
    std::u16string text;
    for (const std::uint32_t id : ids) {
        text += Format(u"%d", static_cast<std::int32_t>(id));
        text += u';';
    }
    return text;
}

}  // namespace ovsvc
