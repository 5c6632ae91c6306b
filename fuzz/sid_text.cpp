// SID texts from outside ("S-1-5-21-..."): parsing must never crash, and a
// SID that parses must format to a text that parses to the same SID.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "fuzz_input.h"
#include "platform/security.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace platform;
    const std::u16string text = ovfuzz::Utf16(data, size);
    Sid sid;
    if (!ConvertStringSidToSidW(text, &sid)) {
        if (GetLastError() != ERROR_INVALID_SID || !sid.empty()) {
            std::abort();
        }
        return 0;
    }
    if (!IsValidSid(sid) || GetLengthSid(sid) != 8 + 4 * GetSidSubAuthorityCount(sid)) {
        std::abort();
    }
    Sid again;
    if (!ConvertStringSidToSidW(sid.ToString(), &again) || !(again == sid)) {
        std::abort();
    }
    return 0;
}
