// Printer security: self-relative descriptors in Windows' binary layout, the
// printer's generic-rights mapping, the access check of the caller's token,
// and the descriptor a printer gets by default.
#include <cstring>
#include <optional>

#include "spool_caller.h"
#include "spool_store.h"

namespace platform::spool {

namespace {

using Bytes = std::vector<std::byte>;

constexpr std::uint16_t kOwnerDefaulted = 0x0001;
constexpr std::uint16_t kGroupDefaulted = 0x0002;
constexpr std::uint16_t kDaclPresent = 0x0004;
constexpr std::uint16_t kDaclDefaulted = 0x0008;
constexpr std::uint16_t kSaclPresent = 0x0010;
constexpr std::uint16_t kSaclDefaulted = 0x0020;
constexpr std::uint16_t kSelfRelative = 0x8000;
constexpr std::size_t kHeaderSize = 20;

constexpr std::uint8_t kAccessAllowed = 0;
constexpr std::uint8_t kAccessDenied = 1;
constexpr std::uint8_t kInheritOnly = 0x08;
constexpr std::uint8_t kObjectInherit = 0x01;

constexpr DWORD kGenericRead = 0x80000000;
constexpr DWORD kGenericWrite = 0x40000000;
constexpr DWORD kGenericExecute = 0x20000000;
constexpr DWORD kGenericAll = 0x10000000;
constexpr DWORD kMaximumAllowed = 0x02000000;
constexpr DWORD kReadControl = 0x00020000;
constexpr DWORD kWriteDac = 0x00040000;
constexpr DWORD kJobAllAccess = 0x000F0030;

template <typename T>
T Read(const Bytes& b, std::size_t at) {
    T v{};
    std::memcpy(&v, b.data() + at, sizeof(T));
    return v;
}

template <typename T>
void Write(Bytes& b, std::size_t at, T v) {
    std::memcpy(b.data() + at, &v, sizeof(T));
}

// Length of the SID at `at`, or 0 when it does not fit.
std::size_t SidLength(const Bytes& b, std::size_t at) {
    if (at + 8 > b.size() || Read<std::uint8_t>(b, at) != 1) {
        return 0;
    }
    const std::size_t length = 8 + 4 * std::size_t{Read<std::uint8_t>(b, at + 1)};
    return at + length <= b.size() && Read<std::uint8_t>(b, at + 1) <= 15 ? length : 0;
}

// Length of the ACL at `at` when its ACEs are well-formed, else 0.
std::size_t AclLength(const Bytes& b, std::size_t at) {
    if (at + 8 > b.size()) {
        return 0;
    }
    const auto revision = Read<std::uint8_t>(b, at);
    const std::size_t size = Read<std::uint16_t>(b, at + 2);
    const std::size_t count = Read<std::uint16_t>(b, at + 4);
    if ((revision != 2 && revision != 4) || size < 8 || at + size > b.size()) {
        return 0;
    }
    std::size_t ace = at + 8;
    for (std::size_t i = 0; i < count; ++i) {
        if (ace + 4 > at + size) {
            return 0;
        }
        const std::size_t aceSize = Read<std::uint16_t>(b, ace + 2);
        if (aceSize < 4 || ace + aceSize > at + size) {
            return 0;
        }
        ace += aceSize;
    }
    return size;
}

// A descriptor taken apart; each part holds its own bytes.
struct Parts {
    std::uint16_t control = kSelfRelative;
    std::optional<Bytes> owner;
    std::optional<Bytes> group;
    std::optional<Bytes> sacl;  // only meaningful with kSaclPresent
    std::optional<Bytes> dacl;  // with kDaclPresent: nullopt is a NULL DACL
};

std::optional<Parts> Split(const Bytes& b) {
    if (b.size() < kHeaderSize || Read<std::uint8_t>(b, 0) != 1) {
        return std::nullopt;
    }
    Parts parts;
    parts.control = Read<std::uint16_t>(b, 2);
    if ((parts.control & kSelfRelative) == 0) {
        return std::nullopt;
    }
    auto part = [&](std::size_t field, bool acl, std::optional<Bytes>* out) {
        const std::size_t at = Read<std::uint32_t>(b, field);
        if (at == 0) {
            return true;
        }
        if (at < kHeaderSize) {
            return false;
        }
        const std::size_t length = acl ? AclLength(b, at) : SidLength(b, at);
        if (length == 0) {
            return false;
        }
        *out = Bytes(b.begin() + static_cast<std::ptrdiff_t>(at),
                     b.begin() + static_cast<std::ptrdiff_t>(at + length));
        return true;
    };
    if (!part(4, false, &parts.owner) || !part(8, false, &parts.group) ||
        !part(12, true, &parts.sacl) || !part(16, true, &parts.dacl)) {
        return std::nullopt;
    }
    return parts;
}

Bytes Join(const Parts& parts) {
    Bytes out(kHeaderSize);
    Write<std::uint8_t>(out, 0, 1);
    Write<std::uint16_t>(out, 2, static_cast<std::uint16_t>(parts.control | kSelfRelative));
    auto append = [&](std::size_t field, const std::optional<Bytes>& part) {
        if (!part) {
            return;
        }
        Write<std::uint32_t>(out, field, static_cast<std::uint32_t>(out.size()));
        out.insert(out.end(), part->begin(), part->end());
    };
    append(4, parts.owner);
    append(8, parts.group);
    if ((parts.control & kSaclPresent) != 0) {
        append(12, parts.sacl);
    }
    if ((parts.control & kDaclPresent) != 0) {
        append(16, parts.dacl);
    }
    return out;
}

Bytes MakeAcl(const std::vector<std::tuple<Bytes, DWORD, std::uint8_t>>& aces) {
    Bytes acl(8);
    for (const auto& [sid, mask, flags] : aces) {
        Bytes ace(8 + sid.size());
        Write<std::uint8_t>(ace, 0, kAccessAllowed);
        Write<std::uint8_t>(ace, 1, flags);
        Write<std::uint16_t>(ace, 2, static_cast<std::uint16_t>(ace.size()));
        Write<DWORD>(ace, 4, mask);
        std::memcpy(ace.data() + 8, sid.data(), sid.size());
        acl.insert(acl.end(), ace.begin(), ace.end());
    }
    Write<std::uint8_t>(acl, 0, 2);
    Write<std::uint16_t>(acl, 2, static_cast<std::uint16_t>(acl.size()));
    Write<std::uint16_t>(acl, 4, static_cast<std::uint16_t>(aces.size()));
    return acl;
}

DWORD MapGeneric(DWORD mask) {
    DWORD mapped = mask & ~(kGenericRead | kGenericWrite | kGenericExecute | kGenericAll);
    if ((mask & (kGenericRead | kGenericWrite | kGenericExecute)) != 0) {
        mapped |= PRINTER_READ;
    }
    if ((mask & kGenericAll) != 0) {
        mapped |= PRINTER_ALL_ACCESS;
    }
    return mapped;
}

bool Contains(const std::vector<Bytes>& sids, const std::byte* sid, std::size_t length) {
    for (const auto& s : sids) {
        if (s.size() == length && std::memcmp(s.data(), sid, length) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

Bytes SidBytes(std::uint8_t authority, std::initializer_list<DWORD> subAuthorities) {
    Bytes sid(8 + 4 * subAuthorities.size());
    Write<std::uint8_t>(sid, 0, 1);
    Write<std::uint8_t>(sid, 1, static_cast<std::uint8_t>(subAuthorities.size()));
    Write<std::uint8_t>(sid, 7, authority);
    std::size_t at = 8;
    for (DWORD sub : subAuthorities) {
        Write<DWORD>(sid, at, sub);
        at += 4;
    }
    return sid;
}

bool ValidDescriptor(const Bytes& descriptor) {
    return Split(descriptor).has_value();
}

DWORD CheckAccess(const Bytes& descriptor, DWORD desired, DWORD* granted) {
    DWORD wanted = MapGeneric(desired == 0 ? PRINTER_ACCESS_USE : desired);
    const bool maximum = (wanted & kMaximumAllowed) != 0;
    wanted &= ~kMaximumAllowed;
    const auto parts = descriptor.empty() ? std::optional<Parts>(Parts{}) : Split(descriptor);
    if (!parts) {
        return ERROR_INVALID_SECURITY_DESCR;
    }
    // No DACL, or a NULL one: everybody gets everything.
    if ((parts->control & kDaclPresent) == 0 || !parts->dacl) {
        *granted = maximum ? (wanted | PRINTER_ALL_ACCESS) : wanted;
        return ERROR_SUCCESS;
    }
    const std::vector<Bytes> sids = CallerSids();
    DWORD allowed = 0;
    DWORD denied = 0;
    if (parts->owner && Contains(sids, parts->owner->data(), parts->owner->size())) {
        allowed |= kReadControl | kWriteDac;  // the owner may always read and change the DACL
    }
    const Bytes& acl = *parts->dacl;
    const std::size_t count = Read<std::uint16_t>(acl, 4);
    std::size_t at = 8;
    for (std::size_t i = 0; i < count; ++i) {
        const auto type = Read<std::uint8_t>(acl, at);
        const auto flags = Read<std::uint8_t>(acl, at + 1);
        const std::size_t size = Read<std::uint16_t>(acl, at + 2);
        if ((flags & kInheritOnly) == 0 && size >= 12 &&
            (type == kAccessAllowed || type == kAccessDenied) &&
            Contains(sids, acl.data() + at + 8, size - 8)) {
            const DWORD mask = MapGeneric(Read<DWORD>(acl, at + 4));
            if (type == kAccessAllowed) {
                allowed |= mask & ~denied;
            } else {
                denied |= mask & ~allowed;
            }
        }
        at += size;
    }
    if (maximum) {
        if (allowed == 0 || (wanted & ~allowed) != 0) {
            return ERROR_ACCESS_DENIED;
        }
        *granted = allowed;
        return ERROR_SUCCESS;
    }
    if ((wanted & ~allowed) != 0) {
        return ERROR_ACCESS_DENIED;
    }
    *granted = wanted;
    return ERROR_SUCCESS;
}

Bytes DefaultPrinterSecurity() {
    const Bytes system = SidBytes(5, {18});
    const Bytes admins = SidBytes(5, {32, 544});
    const Bytes everyone = SidBytes(1, {0});
    const Bytes creatorOwner = SidBytes(3, {0});
    Parts parts;
    parts.control = kSelfRelative | kDaclPresent;
    const auto caller = CallerSids();
    parts.owner = caller.empty() ? system : caller.front();
    parts.group = system;
    parts.dacl = MakeAcl({
        {admins, PRINTER_ALL_ACCESS, 0},
        {admins, kJobAllAccess, kObjectInherit | kInheritOnly},
        {system, PRINTER_ALL_ACCESS, 0},
        {system, kJobAllAccess, kObjectInherit | kInheritOnly},
        {creatorOwner, kJobAllAccess, kObjectInherit | kInheritOnly},
        {everyone, PRINTER_READ, 0},
    });
    return Join(parts);
}

Bytes MergeDescriptor(const Bytes& current, const Bytes& update) {
    auto result = current.empty() ? std::optional<Parts>(Parts{}) : Split(current);
    const auto changes = Split(update);
    if (!result || !changes) {
        return {};
    }
    if (changes->owner) {
        result->owner = changes->owner;
        result->control = static_cast<std::uint16_t>((result->control & ~kOwnerDefaulted) |
                                                     (changes->control & kOwnerDefaulted));
    }
    if (changes->group) {
        result->group = changes->group;
        result->control = static_cast<std::uint16_t>((result->control & ~kGroupDefaulted) |
                                                     (changes->control & kGroupDefaulted));
    }
    constexpr std::uint16_t kDaclBits = kDaclPresent | kDaclDefaulted;
    if ((changes->control & kDaclPresent) != 0) {
        result->dacl = changes->dacl;
        result->control = static_cast<std::uint16_t>((result->control & ~kDaclBits) |
                                                     (changes->control & kDaclBits));
    }
    constexpr std::uint16_t kSaclBits = kSaclPresent | kSaclDefaulted;
    if ((changes->control & kSaclPresent) != 0) {
        result->sacl = changes->sacl;
        result->control = static_cast<std::uint16_t>((result->control & ~kSaclBits) |
                                                     (changes->control & kSaclBits));
    }
    return Join(*result);
}

Bytes ReplaceOwner(const Bytes& descriptor, const Bytes& ownerSid) {
    auto parts = descriptor.empty() ? std::optional<Parts>(Parts{}) : Split(descriptor);
    if (!parts || ownerSid.empty() || SidLength(ownerSid, 0) != ownerSid.size()) {
        return {};
    }
    parts->owner = ownerSid;
    parts->control = static_cast<std::uint16_t>(parts->control & ~kOwnerDefaulted);
    return Join(*parts);
}

}  // namespace platform::spool
