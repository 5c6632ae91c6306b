// The module's string table.
#include <map>
#include <string>

#include "res/resources.h"

namespace ovsvc::res {

const std::map<unsigned, std::u16string>& StringTable() {
    static const std::map<unsigned, std::u16string> table = {
        {IDS_AUTOCREATED_MARK, u"Printer created by Ovaspool"},
        {IDS_EVENT_CREATE_FAILED, u"Can't create the event!"},
        {IDS_KEY_OPEN_FAILED, u"Cannot open the 'Ovaspool' registry key (fatal error)!"},
        {IDS_RIGHTS_QUERY_FAILED, u"Query access rights from registry failed (%d)!"},
        {IDS_KEY_CREATE_FAILED, u"Cannot create registry key or values (fatal error)!"},
        {IDS_SHM_CREATE_FAILED, u"Can't create SHM segment."},
        {IDS_SHM_MAP_FAILED, u"Can't create mapping of SHM"},
        {IDS_NO_ACK, u"No response from client at the acknowledge (fatal error)!"},
        {IDS_EVENT_SOURCE, u"OvaspoolSvc"},
        {IDS_WAIT_FAILED, u"Waiting for single object is failed. Ovaspool service is stopped."},
        {IDS_CREATE_OPEN, u"Create \""},
        {IDS_CREATE_FROM, u"\" from \""},
    };
    return table;
}

}  // namespace ovsvc::res
