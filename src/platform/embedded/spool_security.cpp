// TEMPORARY
#include "spool_store.h"
namespace platform::spool {
std::u16string CallerName() {
    return u"NT AUTHORITY\\SYSTEM";
}
DWORD CheckAccess(const std::vector<std::byte>&, DWORD desired, DWORD* granted) {
    *granted = desired == 0 ? PRINTER_ACCESS_USE : desired;
    return 0;
}
std::vector<std::byte> DefaultPrinterSecurity() {
    return {std::byte{1}};
}
bool ValidDescriptor(const std::vector<std::byte>&) {
    return true;
}
std::vector<std::byte> MergeDescriptor(const std::vector<std::byte>&,
                                       const std::vector<std::byte>& u) {
    return u;
}
std::vector<std::byte> ReplaceOwner(const std::vector<std::byte>& d,
                                    const std::vector<std::byte>&) {
    return d;
}
}  // namespace platform::spool
