// The sessions that exist, as the cache repair needs to know them.
#include <algorithm>
#include <optional>

#include "session/wts_layer.h"
#include "trace/trace.h"

namespace ovsvc {

namespace {

using namespace platform;

struct SessionList {
    std::mutex lock;
    std::optional<std::vector<DWORD>> m_lstSessionId;
};

SessionList& List() {
    static auto* list = new SessionList;
    return *list;
}

}  // namespace

std::u16string_view SessionStateName(DWORD state) {
    static constexpr std::u16string_view kNames[] = {
        u"WTSActive      ", u"WTSConnected   ", u"WTSConnectQuery", u"WTSShadow      ",
        u"WTSDisconnected", u"WTSIdle        ", u"WTSListen      ", u"WTSReset       ",
        u"WTSDown        ", u"WTSInit        "};
    return state < std::size(kNames) ? kNames[state] : std::u16string_view(u"undefined");
}

bool RefreshSessionList() {
    SessionList& list = List();
    std::lock_guard lock(list.lock);
    list.m_lstSessionId.reset();
    CWTSAbstractionLayer& layer = WTSLayer();
    std::vector<WTS_SESSION_INFOW> sessions;
    DWORD count = 0;
    const bool fRtn =
        layer.EnumerateSessions(WTS_CURRENT_SERVER_HANDLE, 0, 1, &sessions, &count) != 0;
    OVTRACE(INF | NORM, "WTS-EnumerateSessions: %d Sessions found", count);
    if (!fRtn) {
        TraceCheck("fRtn", __FILE__, __LINE__);
        return false;
    }
    std::vector<DWORD> ids;
    ids.reserve(10);
    for (const auto& session : sessions) {
        OVTRACE(INF | NORM, "Adding SessionId=%d, Name=%s, State=%s", session.SessionId,
                session.pWinStationName, SessionStateName(session.State));
        if (session.State == WTSActive || session.State == WTSDisconnected) {
            if (ids.size() == ids.capacity()) {
                ids.reserve(ids.size() + 10);
            }
            ids.push_back(session.SessionId);
        }
    }
    layer.FreeMemory(&sessions);
    list.m_lstSessionId = std::move(ids);
    return true;
}

bool IsSessionInList(DWORD sessionId) {
    SessionList& list = List();
    std::lock_guard lock(list.lock);
    if (!list.m_lstSessionId) {
        TraceCheck("m_lstSessionId != NULL", __FILE__, __LINE__);
        return false;
    }
    return std::find(list.m_lstSessionId->begin(), list.m_lstSessionId->end(), sessionId) !=
           list.m_lstSessionId->end();
}

void ResetSessionListForTesting() {
    SessionList& list = List();
    std::lock_guard lock(list.lock);
    list.m_lstSessionId.reset();
}

}  // namespace ovsvc
