// Windows security with the Win32 calls' meaning, layouts and results: SIDs,
// ACLs, security descriptors, explicit-access merging, account look-up,
// tokens and access checks.
//
// SIDs, ACEs, ACLs and self-relative descriptors keep Windows' binary layout
// in byte buffers, so every size the module computes from them (an ACL holds
// an 8-byte header plus, per access-allowed or access-denied ACE, 8 bytes and
// its SID's length) is the size Windows would give.
//
// Every call sets the thread's last error. Calls that return a status
// (SetEntriesInAclW) also leave it as the last error.
//
// Accounts live in the registry under
// HKLM\SOFTWARE\OVSvc Embedded\Accounts (see AddAccount). Local accounts
// belong to the machine's own domain, named after the computer
// (GetComputerNameW: the machine.conf key "computer_name", default
// "OVSERVER"); configured domain accounts default to the domain "OVDOMAIN".
// On Windows, look-ups and tokens are Windows' own, and the calls that
// administer the embedded account table answer ERROR_NOT_SUPPORTED.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"
#include "platform/handle.h"
#include "platform/kernel.h"

namespace platform {

using BYTE = std::uint8_t;
using ACCESS_MASK = DWORD;

inline constexpr DWORD ERROR_CALL_NOT_IMPLEMENTED = 120;
inline constexpr DWORD ERROR_INVALID_FLAGS = 1004;
inline constexpr DWORD ERROR_NO_TOKEN = 1008;
inline constexpr DWORD ERROR_INVALID_OWNER = 1307;
inline constexpr DWORD ERROR_INVALID_PRIMARY_GROUP = 1308;
inline constexpr DWORD ERROR_NO_SUCH_USER = 1317;
inline constexpr DWORD ERROR_USER_EXISTS = 1316;
inline constexpr DWORD ERROR_GROUP_EXISTS = 1318;
inline constexpr DWORD ERROR_NO_SUCH_GROUP = 1319;
inline constexpr DWORD ERROR_BAD_INHERITANCE_ACL = 1340;
inline constexpr DWORD ERROR_NO_SECURITY_ON_OBJECT = 1350;
inline constexpr DWORD ERROR_BAD_DESCRIPTOR_FORMAT = 1361;
inline constexpr DWORD ERROR_UNKNOWN_REVISION = 1305;
inline constexpr DWORD ERROR_REVISION_MISMATCH = 1306;
inline constexpr DWORD ERROR_GENERIC_NOT_MAPPED = 1360;

// ---- access rights ------------------------------------------------------------

// DELETE, READ_CONTROL, SYNCHRONIZE, STANDARD_RIGHTS_REQUIRED, GENERIC_READ and
// GENERIC_WRITE are in kernel.h.
inline constexpr ACCESS_MASK WRITE_DAC = 0x00040000;
inline constexpr ACCESS_MASK WRITE_OWNER = 0x00080000;
inline constexpr ACCESS_MASK ACCESS_SYSTEM_SECURITY = 0x01000000;
inline constexpr ACCESS_MASK MAXIMUM_ALLOWED = 0x02000000;
inline constexpr ACCESS_MASK GENERIC_ALL = 0x10000000;
inline constexpr ACCESS_MASK GENERIC_EXECUTE = 0x20000000;
inline constexpr ACCESS_MASK STANDARD_RIGHTS_READ = 0x00020000;
inline constexpr ACCESS_MASK STANDARD_RIGHTS_WRITE = 0x00020000;
inline constexpr ACCESS_MASK STANDARD_RIGHTS_EXECUTE = 0x00020000;
inline constexpr ACCESS_MASK STANDARD_RIGHTS_ALL = 0x001F0000;
inline constexpr ACCESS_MASK SPECIFIC_RIGHTS_ALL = 0x0000FFFF;

struct GENERIC_MAPPING {
    ACCESS_MASK GenericRead = 0;
    ACCESS_MASK GenericWrite = 0;
    ACCESS_MASK GenericExecute = 0;
    ACCESS_MASK GenericAll = 0;
};

// Replaces the generic bits of *mask by the mapping's rights.
void MapGenericMask(ACCESS_MASK* mask, const GENERIC_MAPPING& mapping) noexcept;

// ---- SIDs -------------------------------------------------------------------

inline constexpr BYTE SID_REVISION = 1;
inline constexpr BYTE SID_MAX_SUB_AUTHORITIES = 15;
// Bytes of a SID with n sub-authorities: 8 + 4n (at most 68).
inline constexpr DWORD SECURITY_MAX_SID_SIZE = 68;

struct SID_IDENTIFIER_AUTHORITY {
    std::array<BYTE, 6> Value{};
};
inline constexpr SID_IDENTIFIER_AUTHORITY SECURITY_NULL_SID_AUTHORITY{{0, 0, 0, 0, 0, 0}};
inline constexpr SID_IDENTIFIER_AUTHORITY SECURITY_WORLD_SID_AUTHORITY{{0, 0, 0, 0, 0, 1}};
inline constexpr SID_IDENTIFIER_AUTHORITY SECURITY_LOCAL_SID_AUTHORITY{{0, 0, 0, 0, 0, 2}};
inline constexpr SID_IDENTIFIER_AUTHORITY SECURITY_CREATOR_SID_AUTHORITY{{0, 0, 0, 0, 0, 3}};
inline constexpr SID_IDENTIFIER_AUTHORITY SECURITY_NT_AUTHORITY{{0, 0, 0, 0, 0, 5}};

inline constexpr DWORD SECURITY_NULL_RID = 0;
inline constexpr DWORD SECURITY_WORLD_RID = 0;
inline constexpr DWORD SECURITY_CREATOR_OWNER_RID = 0;
inline constexpr DWORD SECURITY_CREATOR_GROUP_RID = 1;
inline constexpr DWORD SECURITY_DIALUP_RID = 1;
inline constexpr DWORD SECURITY_NETWORK_RID = 2;
inline constexpr DWORD SECURITY_BATCH_RID = 3;
inline constexpr DWORD SECURITY_INTERACTIVE_RID = 4;
inline constexpr DWORD SECURITY_SERVICE_RID = 6;
inline constexpr DWORD SECURITY_AUTHENTICATED_USER_RID = 11;
inline constexpr DWORD SECURITY_TERMINAL_SERVER_RID = 13;
inline constexpr DWORD SECURITY_LOCAL_SYSTEM_RID = 18;
inline constexpr DWORD SECURITY_LOCAL_SERVICE_RID = 19;
inline constexpr DWORD SECURITY_NETWORK_SERVICE_RID = 20;
inline constexpr DWORD SECURITY_NT_NON_UNIQUE = 21;
inline constexpr DWORD SECURITY_BUILTIN_DOMAIN_RID = 32;
inline constexpr DWORD DOMAIN_ALIAS_RID_ADMINS = 544;
inline constexpr DWORD DOMAIN_ALIAS_RID_USERS = 545;
inline constexpr DWORD DOMAIN_ALIAS_RID_GUESTS = 546;
inline constexpr DWORD DOMAIN_ALIAS_RID_POWER_USERS = 547;
inline constexpr DWORD DOMAIN_ALIAS_RID_PRINT_OPS = 550;
inline constexpr DWORD DOMAIN_ALIAS_RID_REMOTE_DESKTOP_USERS = 555;

// A SID in its binary layout: revision, sub-authority count, 6-byte
// authority (big-endian), sub-authorities (little-endian DWORDs). A
// default-constructed Sid is empty and not valid.
class Sid {
  public:
    Sid() = default;
    // The SID whose layout starts at `bytes`; empty (not valid) when the bytes
    // do not hold a valid SID. Trailing bytes are ignored.
    static Sid FromBytes(std::span<const std::byte> bytes);
    static Sid FromBytes(const void* bytes, std::size_t size);

    [[nodiscard]] const std::byte* data() const noexcept { return bytes_.data(); }
    [[nodiscard]] std::size_t size() const noexcept { return bytes_.size(); }
    [[nodiscard]] bool empty() const noexcept { return bytes_.empty(); }
    [[nodiscard]] std::span<const std::byte> bytes() const noexcept { return bytes_; }
    // Textual form "S-1-5-32-544"; empty for an empty Sid.
    [[nodiscard]] std::u16string ToString() const;

    friend bool operator==(const Sid&, const Sid&) = default;

  private:
    std::vector<std::byte> bytes_;
};

bool AllocateAndInitializeSid(const SID_IDENTIFIER_AUTHORITY& authority, BYTE subAuthorityCount,
                              DWORD sub0, DWORD sub1, DWORD sub2, DWORD sub3, DWORD sub4,
                              DWORD sub5, DWORD sub6, DWORD sub7, Sid* sid);
bool IsValidSid(const Sid& sid) noexcept;
// Both must be valid; false with ERROR_SUCCESS when they differ.
bool EqualSid(const Sid& a, const Sid& b) noexcept;
DWORD GetLengthSid(const Sid& sid) noexcept;
// These two report success as ERROR_SUCCESS in the last error, as Windows'
// own do (their results cannot tell).
DWORD GetSidSubAuthorityCount(const Sid& sid) noexcept;
// The sub-authority at `index`; 0 with ERROR_INVALID_PARAMETER past the end.
DWORD GetSidSubAuthority(const Sid& sid, DWORD index) noexcept;
// Copies into a caller buffer of `size` bytes (ERROR_INSUFFICIENT_BUFFER when short).
bool CopySid(DWORD size, void* destination, const Sid& sid);

// "S-1-5-21-1-2-3-1001" and the two-letter aliases "WD", "SY", "BA", "BU",
// "CO", "CG", "IU", "NU", "AU", "PU", "PO", "AN"; ERROR_INVALID_SID otherwise.
bool ConvertStringSidToSidW(std::u16string_view text, Sid* sid);
bool ConvertSidToStringSidW(const Sid& sid, std::u16string* text);

enum WELL_KNOWN_SID_TYPE : int {
    WinNullSid = 0,
    WinWorldSid = 1,
    WinLocalSid = 2,
    WinCreatorOwnerSid = 3,
    WinCreatorGroupSid = 4,
    WinNtAuthoritySid = 7,
    WinDialupSid = 8,
    WinNetworkSid = 9,
    WinBatchSid = 10,
    WinInteractiveSid = 11,
    WinServiceSid = 12,
    WinAnonymousSid = 13,
    WinAuthenticatedUserSid = 17,
    WinLocalSystemSid = 22,
    WinLocalServiceSid = 23,
    WinNetworkServiceSid = 24,
    WinBuiltinDomainSid = 25,
    WinBuiltinAdministratorsSid = 26,
    WinBuiltinUsersSid = 27,
    WinBuiltinGuestsSid = 28,
    WinBuiltinPowerUsersSid = 29,
    WinBuiltinPrintOperatorsSid = 32,
    WinBuiltinRemoteDesktopUsersSid = 36,
};
// Only the machine-independent kinds above; ERROR_INVALID_PARAMETER otherwise.
bool CreateWellKnownSid(WELL_KNOWN_SID_TYPE type, Sid* sid);
bool IsWellKnownSid(const Sid& sid, WELL_KNOWN_SID_TYPE type) noexcept;

// ---- ACEs and ACLs ------------------------------------------------------------

inline constexpr DWORD ACL_REVISION = 2;
inline constexpr DWORD ACL_REVISION_DS = 4;
inline constexpr DWORD MAXDWORD = 0xFFFFFFFF;

inline constexpr BYTE ACCESS_ALLOWED_ACE_TYPE = 0;
inline constexpr BYTE ACCESS_DENIED_ACE_TYPE = 1;
inline constexpr BYTE SYSTEM_AUDIT_ACE_TYPE = 2;

inline constexpr BYTE OBJECT_INHERIT_ACE = 0x01;
inline constexpr BYTE CONTAINER_INHERIT_ACE = 0x02;
inline constexpr BYTE NO_PROPAGATE_INHERIT_ACE = 0x04;
inline constexpr BYTE INHERIT_ONLY_ACE = 0x08;
inline constexpr BYTE INHERITED_ACE = 0x10;
inline constexpr BYTE VALID_INHERIT_FLAGS = 0x1F;

// Bytes of an ACL header and of an allowed/denied ACE without its SID.
inline constexpr DWORD kAclHeaderSize = 8;
inline constexpr DWORD kAceFixedSize = 8;  // header (4) + mask (4)

struct ACE_HEADER {
    BYTE AceType = 0;
    BYTE AceFlags = 0;
    std::uint16_t AceSize = 0;
};

// One access-allowed or access-denied ACE (other types keep their raw bytes).
struct Ace {
    ACE_HEADER Header;
    ACCESS_MASK Mask = 0;
    Sid sid;
    // The ACE in its binary layout (AceSize bytes).
    std::vector<std::byte> raw;
};

// Builds the binary ACE for an allowed or denied entry.
Ace MakeAce(BYTE type, BYTE flags, ACCESS_MASK mask, const Sid& sid);

enum ACL_INFORMATION_CLASS : int { AclRevisionInformation = 1, AclSizeInformation = 2 };
struct ACL_SIZE_INFORMATION {
    DWORD AceCount = 0;
    DWORD AclBytesInUse = 0;
    DWORD AclBytesFree = 0;
};
struct ACL_REVISION_INFORMATION {
    DWORD AclRevision = 0;
};

// An ACL in its binary layout: AclRevision, Sbz1, AclSize (2 bytes), AceCount
// (2 bytes), Sbz2, then the ACEs. The buffer is AclSize bytes long; bytes
// past the last ACE are free.
class Acl {
  public:
    Acl() = default;
    // The ACL whose layout starts at `bytes` (AclSize bytes are taken); empty
    // (not valid) when they do not hold a valid ACL.
    static Acl FromBytes(std::span<const std::byte> bytes);

    [[nodiscard]] const std::byte* data() const noexcept { return bytes_.data(); }
    [[nodiscard]] std::size_t size() const noexcept { return bytes_.size(); }
    [[nodiscard]] bool empty() const noexcept { return bytes_.empty(); }
    [[nodiscard]] std::span<const std::byte> bytes() const noexcept { return bytes_; }
    [[nodiscard]] std::vector<std::byte>& mutable_bytes() noexcept { return bytes_; }

    friend bool operator==(const Acl&, const Acl&) = default;

  private:
    std::vector<std::byte> bytes_;
};

// `size` bytes: less than 8 gives ERROR_INSUFFICIENT_BUFFER; the size is
// rounded up to a DWORD multiple as Windows does, and more than 65532 gives
// ERROR_INVALID_PARAMETER, as does a revision other than 2 to 4.
bool InitializeAcl(Acl* acl, DWORD size, DWORD revision);
bool IsValidAcl(const Acl& acl) noexcept;
bool GetAclInformation(const Acl& acl, ACL_SIZE_INFORMATION* info);
bool GetAclInformation(const Acl& acl, ACL_REVISION_INFORMATION* info);
// ERROR_INVALID_PARAMETER past the last ACE.
bool GetAce(const Acl& acl, DWORD index, Ace* ace);
// Inserts the ACE bytes of `aces` (one or more ACEs back to back) before
// `startingIndex` (MAXDWORD: at the end). ERROR_ALLOTTED_SPACE_EXCEEDED when
// they do not fit in the ACL's declared size.
bool AddAce(Acl* acl, DWORD revision, DWORD startingIndex, std::span<const std::byte> aces);
bool AddAce(Acl* acl, DWORD revision, DWORD startingIndex, const Ace& ace);
bool DeleteAce(Acl* acl, DWORD index);
bool AddAccessAllowedAce(Acl* acl, DWORD revision, ACCESS_MASK mask, const Sid& sid);
bool AddAccessAllowedAceEx(Acl* acl, DWORD revision, DWORD flags, ACCESS_MASK mask, const Sid& sid);
bool AddAccessDeniedAce(Acl* acl, DWORD revision, ACCESS_MASK mask, const Sid& sid);
bool AddAccessDeniedAceEx(Acl* acl, DWORD revision, DWORD flags, ACCESS_MASK mask, const Sid& sid);
// Writes the AceFlags byte of the ACE at `index` (what Windows code does
// through the pointer GetAce returns).
bool SetAceFlags(Acl* acl, DWORD index, BYTE flags);

// ---- security descriptors -----------------------------------------------------

inline constexpr DWORD SECURITY_DESCRIPTOR_REVISION = 1;
inline constexpr DWORD SECURITY_DESCRIPTOR_MIN_LENGTH = 40;  // absolute, 64-bit
inline constexpr DWORD kSelfRelativeHeaderSize = 20;

using SECURITY_DESCRIPTOR_CONTROL = std::uint16_t;
inline constexpr SECURITY_DESCRIPTOR_CONTROL SE_OWNER_DEFAULTED = 0x0001;
inline constexpr SECURITY_DESCRIPTOR_CONTROL SE_GROUP_DEFAULTED = 0x0002;
inline constexpr SECURITY_DESCRIPTOR_CONTROL SE_DACL_PRESENT = 0x0004;
inline constexpr SECURITY_DESCRIPTOR_CONTROL SE_DACL_DEFAULTED = 0x0008;
inline constexpr SECURITY_DESCRIPTOR_CONTROL SE_SACL_PRESENT = 0x0010;
inline constexpr SECURITY_DESCRIPTOR_CONTROL SE_SACL_DEFAULTED = 0x0020;
inline constexpr SECURITY_DESCRIPTOR_CONTROL SE_DACL_PROTECTED = 0x1000;
inline constexpr SECURITY_DESCRIPTOR_CONTROL SE_SELF_RELATIVE = 0x8000;

using SECURITY_INFORMATION = DWORD;
inline constexpr SECURITY_INFORMATION OWNER_SECURITY_INFORMATION = 0x1;
inline constexpr SECURITY_INFORMATION GROUP_SECURITY_INFORMATION = 0x2;
inline constexpr SECURITY_INFORMATION DACL_SECURITY_INFORMATION = 0x4;
inline constexpr SECURITY_INFORMATION SACL_SECURITY_INFORMATION = 0x8;

// An absolute security descriptor: revision, control, owner, group, DACL
// (a SACL is kept as given but not interpreted). A default-constructed one is
// uninitialised (revision 0) until InitializeSecurityDescriptor.
class SecurityDescriptor {
  public:
    SecurityDescriptor() = default;

    BYTE revision = 0;
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    std::optional<Sid> owner;
    std::optional<Sid> group;
    // Meaningful when control has SE_DACL_PRESENT: nullopt is a NULL DACL.
    std::optional<Acl> dacl;
    std::optional<Acl> sacl;

    friend bool operator==(const SecurityDescriptor&, const SecurityDescriptor&) = default;
};

bool InitializeSecurityDescriptor(SecurityDescriptor* sd, DWORD revision);
bool IsValidSecurityDescriptor(const SecurityDescriptor& sd) noexcept;
bool GetSecurityDescriptorControl(const SecurityDescriptor& sd,
                                  SECURITY_DESCRIPTOR_CONTROL* control, DWORD* revision);
// *present: whether the descriptor has a DACL; *dacl: the DACL, or null for a
// NULL DACL (and when absent); *defaulted: SE_DACL_DEFAULTED.
bool GetSecurityDescriptorDacl(const SecurityDescriptor& sd, bool* present, const Acl** dacl,
                               bool* defaulted);
// `dacl` null with present = true sets a NULL DACL. The ACL is copied.
bool SetSecurityDescriptorDacl(SecurityDescriptor* sd, bool present, const Acl* dacl,
                               bool defaulted);
// *owner is null when the descriptor has none.
bool GetSecurityDescriptorOwner(const SecurityDescriptor& sd, const Sid** owner, bool* defaulted);
bool SetSecurityDescriptorOwner(SecurityDescriptor* sd, const Sid* owner, bool defaulted);
bool GetSecurityDescriptorGroup(const SecurityDescriptor& sd, const Sid** group, bool* defaulted);
bool SetSecurityDescriptorGroup(SecurityDescriptor* sd, const Sid* group, bool defaulted);

// Length of the descriptor in self-relative form.
DWORD GetSecurityDescriptorLength(const SecurityDescriptor& sd) noexcept;
// The self-relative layout (20-byte header: revision, Sbz1, control with
// SE_SELF_RELATIVE, offsets of owner, group, SACL, DACL; then SACL, DACL,
// owner, group), with the two-call protocol: *size short gives
// ERROR_INSUFFICIENT_BUFFER and the size needed.
bool MakeSelfRelativeSD(const SecurityDescriptor& sd, void* buffer, DWORD* size);
// Convenience: the whole self-relative form.
std::vector<std::byte> ToSelfRelative(const SecurityDescriptor& sd);
// Parses a self-relative descriptor (ERROR_INVALID_SECURITY_DESCR when the
// bytes are not one: short, bad revision, offsets or parts out of range).
bool MakeAbsoluteSD(std::span<const std::byte> selfRelative, SecurityDescriptor* sd);
bool IsValidSelfRelativeSecurityDescriptor(std::span<const std::byte> bytes) noexcept;

// ---- explicit access ----------------------------------------------------------

enum ACCESS_MODE : int {
    NOT_USED_ACCESS = 0,
    GRANT_ACCESS = 1,
    SET_ACCESS = 2,
    DENY_ACCESS = 3,
    REVOKE_ACCESS = 4,
};
enum TRUSTEE_FORM : int { TRUSTEE_IS_SID = 0, TRUSTEE_IS_NAME = 1 };
enum TRUSTEE_TYPE : int {
    TRUSTEE_IS_UNKNOWN = 0,
    TRUSTEE_IS_USER = 1,
    TRUSTEE_IS_GROUP = 2,
    TRUSTEE_IS_DOMAIN = 3,
    TRUSTEE_IS_ALIAS = 4,
    TRUSTEE_IS_WELL_KNOWN_GROUP = 5,
};
inline constexpr DWORD NO_INHERITANCE = 0;
inline constexpr DWORD SUB_OBJECTS_ONLY_INHERIT = 0x1;
inline constexpr DWORD SUB_CONTAINERS_ONLY_INHERIT = 0x2;
inline constexpr DWORD SUB_CONTAINERS_AND_OBJECTS_INHERIT = 0x3;

struct TRUSTEE_W {
    TRUSTEE_FORM TrusteeForm = TRUSTEE_IS_SID;
    TRUSTEE_TYPE TrusteeType = TRUSTEE_IS_UNKNOWN;
    Sid sid;              // TRUSTEE_IS_SID
    std::u16string name;  // TRUSTEE_IS_NAME: "DOMAIN\name" or a well-known name
};

struct EXPLICIT_ACCESS_W {
    ACCESS_MASK grfAccessPermissions = 0;
    ACCESS_MODE grfAccessMode = NOT_USED_ACCESS;
    DWORD grfInheritance = NO_INHERITANCE;  // ACE flags
    TRUSTEE_W Trustee;
};

// Merges the entries into a copy of `oldAcl` (null: none) and returns the
// result in *newAcl, sized to fit exactly. Returns ERROR_SUCCESS or a Win32
// error (ERROR_INVALID_PARAMETER, ERROR_NONE_MAPPED for an unknown trustee
// name, ERROR_INVALID_SID, ERROR_INVALID_ACL); *newAcl is untouched on error.
DWORD SetEntriesInAclW(std::span<const EXPLICIT_ACCESS_W> entries, const Acl* oldAcl, Acl* newAcl);

// ---- accounts -------------------------------------------------------------------

enum SID_NAME_USE : int {
    SidTypeUser = 1,
    SidTypeGroup = 2,
    SidTypeDomain = 3,
    SidTypeAlias = 4,
    SidTypeWellKnownGroup = 5,
    SidTypeDeletedAccount = 6,
    SidTypeInvalid = 7,
    SidTypeUnknown = 8,
    SidTypeComputer = 9,
};

// The computer's name (also the domain of its local accounts).
std::u16string GetComputerNameW();
// The domain configured accounts belong to when no domain is given.
std::u16string DefaultDomainName();

// `systemName` empty means this machine. `accountName` is "DOMAIN\name",
// "name" (this machine, then the default domain, then the well-known names)
// or a well-known name ("Everyone", "SYSTEM", "NT AUTHORITY\SYSTEM"). Two-call
// protocol: *sidSize (bytes) and *domainLength (characters, with room for the
// terminator) too small gives ERROR_INSUFFICIENT_BUFFER and both sizes
// needed; on success *domainLength is the domain's length without the
// terminator and *sidSize the SID's length. Unknown names: ERROR_NONE_MAPPED.
bool LookupAccountNameW(std::u16string_view systemName, std::u16string_view accountName, void* sid,
                        DWORD* sidSize, char16_t* domain, DWORD* domainLength, SID_NAME_USE* use);
// Same protocol for the name and domain buffers (characters).
bool LookupAccountSidW(std::u16string_view systemName, const Sid& sid, char16_t* name,
                       DWORD* nameLength, char16_t* domain, DWORD* domainLength, SID_NAME_USE* use);

// Administration of the machine's accounts and of who a process runs as:
// what tools and tests use to set a machine up. The module itself only looks
// accounts up through the Win32 calls above.
namespace admin {

struct Account {
    std::u16string domain;
    std::u16string name;
    Sid sid;
    SID_NAME_USE use = SidTypeUser;
    // Groups the account is a direct member of, as "DOMAIN\name".
    std::vector<std::u16string> memberOf;

    // "DOMAIN\\name"; just the name for well-known principals without a
    // domain ("Everyone") and for domains themselves.
    [[nodiscard]] std::u16string FullName() const {
        return domain.empty() || use == SidTypeDomain ? name : domain + u'\\' + name;
    }
};

// Look-ups returning the whole record (ERROR_NONE_MAPPED when unknown).
bool FindAccountByName(std::u16string_view accountName, Account* account);
bool FindAccountBySid(const Sid& sid, Account* account);
// Every account, well-known ones first, then configured ones by name.
bool EnumAccounts(std::vector<Account>* accounts);
// Adds a user (use SidTypeUser) or a group (SidTypeGroup) to the table: a new
// SID in its domain, memberships in existing groups. ERROR_USER_EXISTS or
// ERROR_GROUP_EXISTS when the name is taken, ERROR_NO_SUCH_GROUP for an
// unknown group, ERROR_INVALID_NAME for a bad name. *added (may be null)
// receives the record.
bool AddAccount(std::u16string_view accountName, SID_NAME_USE use,
                std::span<const std::u16string> groups, Account* added);
// Adds `member` to the group `group` (both must exist).
bool AddGroupMember(std::u16string_view group, std::u16string_view member);
bool DeleteAccount(std::u16string_view accountName);

}  // namespace admin

// ---- tokens ---------------------------------------------------------------------

inline constexpr DWORD TOKEN_ASSIGN_PRIMARY = 0x0001;
inline constexpr DWORD TOKEN_DUPLICATE = 0x0002;
inline constexpr DWORD TOKEN_IMPERSONATE = 0x0004;
inline constexpr DWORD TOKEN_QUERY = 0x0008;
inline constexpr DWORD TOKEN_ADJUST_DEFAULT = 0x0080;
inline constexpr DWORD TOKEN_ADJUST_SESSIONID = 0x0100;
inline constexpr DWORD TOKEN_ALL_ACCESS = 0x000F01FF;

inline constexpr DWORD SE_GROUP_MANDATORY = 0x00000001;
inline constexpr DWORD SE_GROUP_ENABLED_BY_DEFAULT = 0x00000002;
inline constexpr DWORD SE_GROUP_ENABLED = 0x00000004;
inline constexpr DWORD SE_GROUP_OWNER = 0x00000008;
inline constexpr DWORD SE_GROUP_LOGON_ID = 0xC0000000;

enum TOKEN_INFORMATION_CLASS : int {
    TokenUser = 1,
    TokenGroups = 2,
    TokenOwner = 4,
    TokenPrimaryGroup = 5,
    TokenSessionId = 12,
};

// Layouts written by GetTokenInformation into the caller's buffer (which
// must be aligned for a pointer); the SIDs follow in the same buffer.
struct SID_AND_ATTRIBUTES {
    const void* Sid = nullptr;
    DWORD Attributes = 0;
};
struct TOKEN_USER {
    SID_AND_ATTRIBUTES User;
};
struct TOKEN_GROUPS {
    DWORD GroupCount = 0;
    SID_AND_ATTRIBUTES Groups[1];
};
struct TOKEN_OWNER {
    const void* Owner = nullptr;
};
struct TOKEN_PRIMARY_GROUP {
    const void* PrimaryGroup = nullptr;
};

using UniqueToken = UniqueHandle<NullHandleTraits>;

// The pseudo handle of the calling process.
HANDLE GetCurrentProcess() noexcept;
// Only the current process (GetCurrentProcess() or a handle to it) has a
// token here; other handles fail with ERROR_INVALID_HANDLE.
bool OpenProcessToken(HANDLE process, DWORD desiredAccess, UniqueToken* token);
// No thread impersonates here: fails with ERROR_NO_TOKEN.
bool OpenThreadToken(HANDLE thread, DWORD desiredAccess, bool openAsSelf, UniqueToken* token);
HANDLE GetCurrentThread() noexcept;
// Two-call protocol: `infoLength` too small gives ERROR_INSUFFICIENT_BUFFER
// and *returnLength the bytes needed. Needs TOKEN_QUERY on the handle
// (ERROR_ACCESS_DENIED otherwise).
bool GetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS infoClass, void* info,
                         DWORD infoLength, DWORD* returnLength);
// TokenSessionId only (a DWORD).
bool SetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS infoClass, const void* info,
                         DWORD infoLength);
// An impersonation token of the same identity, with `desiredAccess`.
bool DuplicateToken(HANDLE token, DWORD desiredAccess, UniqueToken* duplicate);

namespace admin {
// A token for an account, as a logon would produce (the account's groups
// and the ones every such account has), in the given session. For the
// process-start code and for tests. ERROR_NONE_MAPPED for an unknown account.
bool CreateTokenForAccount(std::u16string_view accountName, DWORD sessionId, UniqueToken* token);
}  // namespace admin

// Typed reads of a token (same errors as GetTokenInformation).
bool GetTokenUserSid(HANDLE token, Sid* user);
bool GetTokenGroupSids(HANDLE token, std::vector<Sid>* groups);
bool GetTokenSessionId(HANDLE token, DWORD* sessionId);
// "DOMAIN\name" of the token's user.
bool GetTokenAccountName(HANDLE token, std::u16string* accountName);

namespace admin {
// The account the calling process runs as: what SetProcessAccount set, else
// $OVSVC_USER ("DOMAIN\name"), else the user of the process's session in
// HKLM\SOFTWARE\OVSvc Embedded\Sessions\<id> ("DomainName", "UserName"),
// else NT AUTHORITY\SYSTEM.
std::u16string CurrentProcessAccount();
// Makes the calling process run as `accountName` (empty: back to the rule
// above). For tests; children get the account through OVSVC_USER.
void SetProcessAccount(std::u16string_view accountName);
}  // namespace admin

// ---- access checks ----------------------------------------------------------------

struct PRIVILEGE_SET {
    DWORD PrivilegeCount = 0;
    DWORD Control = 0;
};

// Windows' discretionary check of `token` (on Windows an impersonation token,
// such as DuplicateToken makes; the embedded machine takes primary ones too) against `sd` for
// `desiredAccess` (generic bits must already be mapped, else ERROR_GENERIC_NOT_MAPPED): no DACL or
// a NULL DACL grants everything; otherwise ACEs are taken in order, inherit-only ACEs skipped, a
// denied right wins over a later grant; the owner is granted READ_CONTROL and WRITE_DAC.
// MAXIMUM_ALLOWED asks for everything grantable. Returns true when the check ran; *accessStatus
// tells whether all was granted (when not, *grantedAccess is 0 and the last error
// ERROR_ACCESS_DENIED).
bool AccessCheck(const SecurityDescriptor& sd, HANDLE token, ACCESS_MASK desiredAccess,
                 const GENERIC_MAPPING& mapping, PRIVILEGE_SET* privileges, DWORD* privilegesLength,
                 ACCESS_MASK* grantedAccess, bool* accessStatus);
// Convenience: maps `desiredAccess` with `mapping`, checks the calling
// process's token; false with ERROR_ACCESS_DENIED when not all was granted.
bool CheckCurrentProcessAccess(const SecurityDescriptor& sd, ACCESS_MASK desiredAccess,
                               const GENERIC_MAPPING& mapping, ACCESS_MASK* grantedAccess);

}  // namespace platform
