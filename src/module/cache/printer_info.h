// One autocreated printer as the service remembers it: its name and the
// sessions that use it, each with the user who owns the session.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace ovsvc {

// Session ids while location strings are parsed, merged and compared.
using SessionIdSet = std::set<std::uint32_t>;

class OVPrinterInfo {
  public:
    using SessionMap = std::map<std::uint32_t, std::u16string>;

    // A null name is reported as a failed check and leaves the record nameless.
    explicit OVPrinterInfo(const char16_t* lpszName);
    virtual ~OVPrinterInfo();
    OVPrinterInfo(const OVPrinterInfo&) = delete;
    OVPrinterInfo& operator=(const OVPrinterInfo&) = delete;

    const std::u16string& Name() const { return m_lpszName; }

    // Number of sessions; 0 for a pending printer.
    std::uint32_t GetRefCount() const { return static_cast<std::uint32_t>(m_mapSession.size()); }
    bool HasSession(std::uint32_t dwSessionId) const { return m_mapSession.contains(dwSessionId); }
    // False when the session is not recorded.
    bool GetSessionUser(std::uint32_t dwSessionId, std::u16string* user) const;
    // Records the session's user; a session already present gets the new user.
    void SetSessionUser(std::uint32_t dwSessionId, std::u16string_view user);
    void RemoveSession(std::uint32_t dwSessionId);
    // Sessions whose user equals `user` exactly ("" counts unknown users).
    std::uint32_t CountUserSessions(std::u16string_view user) const;

    const SessionMap& Sessions() const { return m_mapSession; }

    // Appends "S<len>:<id>U<len>:<user>" for every session.
    void AppendSessionTokens(std::u16string* out) const;
    // Adds the record's sessions to `ids` and appends every id of the set as
    // "<id>;" to `out`.
    void MergeSessionsInto(std::u16string* out, SessionIdSet* ids) const;

  private:
    SessionMap m_mapSession;
    std::u16string m_lpszName;
    bool m_fNamed = false;
};

// "<id>;" for every id of the set: the Location field of a printer.
std::u16string LocationStringOf(const SessionIdSet& ids);

}  // namespace ovsvc
