// The module's string table, as the embedded platform is given it.
#include <map>
#include <string>

#include "res/resources.h"

namespace ovsvc::res {

const std::map<unsigned, std::u16string>& StringTable() {
    static const std::map<unsigned, std::u16string> table = {
#include "res/string_table.inc"  // generated from strings.list
    };
    return table;
}

}  // namespace ovsvc::res
