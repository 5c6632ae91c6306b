// An inclusive range of IPv4 addresses, read from a rule's address column.
#pragma once

#include <cstdint>
#include <string_view>

namespace ovsvc {

// Addresses are numbers with the first octet in the top byte. A fresh range
// covers every address.
class CIPRange {
  public:
    CIPRange() = default;
    virtual ~CIPRange() = default;
    CIPRange(const CIPRange&) = default;
    CIPRange& operator=(const CIPRange&) = default;

    // Accepts, with blanks around: "*" (every address), "a.b.c.d" (one
    // address), "a.b.c.d-e.f.g.h" (either order) and "a.b.c.d/n" (n up to
    // 32, no host bits set). Returns false for anything else and then leaves
    // the range as it was.
    virtual bool Parse(std::u16string_view text);

    std::uint32_t low = 0;
    std::uint32_t high = 0xFFFFFFFFu;
};

}  // namespace ovsvc
