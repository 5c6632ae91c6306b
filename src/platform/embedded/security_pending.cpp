// Security calls not yet backed by the account table and tokens: they fail
// with ERROR_CALL_NOT_IMPLEMENTED until their real implementation lands.
#include "platform/security.h"

namespace platform {

namespace {
bool NotYet() {
    SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
    return false;
}
}  // namespace

void MapGenericMask(ACCESS_MASK*, const GENERIC_MAPPING&) noexcept {}
Sid Sid::FromBytes(std::span<const std::byte>) {
    return {};
}
Sid Sid::FromBytes(const void*, std::size_t) {
    return {};
}
std::u16string Sid::ToString() const {
    return {};
}
bool AllocateAndInitializeSid(const SID_IDENTIFIER_AUTHORITY&, BYTE, DWORD, DWORD, DWORD, DWORD,
                              DWORD, DWORD, DWORD, DWORD, Sid*) {
    return NotYet();
}
bool IsValidSid(const Sid&) noexcept {
    return NotYet();
}
bool EqualSid(const Sid&, const Sid&) noexcept {
    return NotYet();
}
DWORD GetLengthSid(const Sid&) noexcept {
    return 0;
}
DWORD GetSidSubAuthorityCount(const Sid&) noexcept {
    return 0;
}
DWORD GetSidSubAuthority(const Sid&, DWORD) noexcept {
    return 0;
}
bool CopySid(DWORD, void*, const Sid&) {
    return NotYet();
}
bool ConvertStringSidToSidW(std::u16string_view, Sid*) {
    return NotYet();
}
bool ConvertSidToStringSidW(const Sid&, std::u16string*) {
    return NotYet();
}
bool CreateWellKnownSid(WELL_KNOWN_SID_TYPE, Sid*) {
    return NotYet();
}
bool IsWellKnownSid(const Sid&, WELL_KNOWN_SID_TYPE) noexcept {
    return NotYet();
}
Ace MakeAce(BYTE, BYTE, ACCESS_MASK, const Sid&) {
    return {};
}
Acl Acl::FromBytes(std::span<const std::byte>) {
    return {};
}
bool InitializeAcl(Acl*, DWORD, DWORD) {
    return NotYet();
}
bool IsValidAcl(const Acl&) noexcept {
    return NotYet();
}
bool GetAclInformation(const Acl&, ACL_SIZE_INFORMATION*) {
    return NotYet();
}
bool GetAclInformation(const Acl&, ACL_REVISION_INFORMATION*) {
    return NotYet();
}
bool GetAce(const Acl&, DWORD, Ace*) {
    return NotYet();
}
bool AddAce(Acl*, DWORD, DWORD, std::span<const std::byte>) {
    return NotYet();
}
bool AddAce(Acl*, DWORD, DWORD, const Ace&) {
    return NotYet();
}
bool DeleteAce(Acl*, DWORD) {
    return NotYet();
}
bool AddAccessAllowedAce(Acl*, DWORD, ACCESS_MASK, const Sid&) {
    return NotYet();
}
bool AddAccessAllowedAceEx(Acl*, DWORD, DWORD, ACCESS_MASK, const Sid&) {
    return NotYet();
}
bool AddAccessDeniedAce(Acl*, DWORD, ACCESS_MASK, const Sid&) {
    return NotYet();
}
bool AddAccessDeniedAceEx(Acl*, DWORD, DWORD, ACCESS_MASK, const Sid&) {
    return NotYet();
}
bool SetAceFlags(Acl*, DWORD, BYTE) {
    return NotYet();
}
bool InitializeSecurityDescriptor(SecurityDescriptor*, DWORD) {
    return NotYet();
}
bool IsValidSecurityDescriptor(const SecurityDescriptor&) noexcept {
    return NotYet();
}
bool GetSecurityDescriptorControl(const SecurityDescriptor&, SECURITY_DESCRIPTOR_CONTROL*, DWORD*) {
    return NotYet();
}
bool GetSecurityDescriptorDacl(const SecurityDescriptor&, bool*, const Acl**, bool*) {
    return NotYet();
}
bool SetSecurityDescriptorDacl(SecurityDescriptor*, bool, const Acl*, bool) {
    return NotYet();
}
bool GetSecurityDescriptorOwner(const SecurityDescriptor&, const Sid**, bool*) {
    return NotYet();
}
bool SetSecurityDescriptorOwner(SecurityDescriptor*, const Sid*, bool) {
    return NotYet();
}
bool GetSecurityDescriptorGroup(const SecurityDescriptor&, const Sid**, bool*) {
    return NotYet();
}
bool SetSecurityDescriptorGroup(SecurityDescriptor*, const Sid*, bool) {
    return NotYet();
}
DWORD GetSecurityDescriptorLength(const SecurityDescriptor&) noexcept {
    return 0;
}
bool MakeSelfRelativeSD(const SecurityDescriptor&, void*, DWORD*) {
    return NotYet();
}
std::vector<std::byte> ToSelfRelative(const SecurityDescriptor&) {
    return {};
}
bool MakeAbsoluteSD(std::span<const std::byte>, SecurityDescriptor*) {
    return NotYet();
}
bool IsValidSelfRelativeSecurityDescriptor(std::span<const std::byte>) noexcept {
    return NotYet();
}
DWORD SetEntriesInAclW(std::span<const EXPLICIT_ACCESS_W>, const Acl*, Acl*) {
    NotYet();
    return ERROR_CALL_NOT_IMPLEMENTED;
}
std::u16string GetComputerNameW() {
    return u"OVSERVER";
}
std::u16string DefaultDomainName() {
    return u"OVDOMAIN";
}
bool LookupAccountNameW(std::u16string_view, std::u16string_view, void*, DWORD*, char16_t*, DWORD*,
                        SID_NAME_USE*) {
    return NotYet();
}
bool LookupAccountSidW(std::u16string_view, const Sid&, char16_t*, DWORD*, char16_t*, DWORD*,
                       SID_NAME_USE*) {
    return NotYet();
}
bool FindAccountByName(std::u16string_view, Account*) {
    return NotYet();
}
bool FindAccountBySid(const Sid&, Account*) {
    return NotYet();
}
bool EnumAccounts(std::vector<Account>*) {
    return NotYet();
}
bool AddAccount(std::u16string_view, SID_NAME_USE, std::span<const std::u16string>, Account*) {
    return NotYet();
}
bool AddGroupMember(std::u16string_view, std::u16string_view) {
    return NotYet();
}
bool DeleteAccount(std::u16string_view) {
    return NotYet();
}
HANDLE GetCurrentProcess() noexcept {
    return reinterpret_cast<HANDLE>(~std::uintptr_t{0});
}
HANDLE GetCurrentThread() noexcept {
    return reinterpret_cast<HANDLE>(~std::uintptr_t{1});
}
bool OpenProcessToken(HANDLE, DWORD, UniqueToken*) {
    return NotYet();
}
bool OpenThreadToken(HANDLE, DWORD, bool, UniqueToken*) {
    return NotYet();
}
bool GetTokenInformation(HANDLE, TOKEN_INFORMATION_CLASS, void*, DWORD, DWORD*) {
    return NotYet();
}
bool SetTokenInformation(HANDLE, TOKEN_INFORMATION_CLASS, const void*, DWORD) {
    return NotYet();
}
bool DuplicateToken(HANDLE, DWORD, UniqueToken*) {
    return NotYet();
}
bool CreateTokenForAccount(std::u16string_view, DWORD, UniqueToken*) {
    return NotYet();
}
bool GetTokenUserSid(HANDLE, Sid*) {
    return NotYet();
}
bool GetTokenGroupSids(HANDLE, std::vector<Sid>*) {
    return NotYet();
}
bool GetTokenSessionId(HANDLE, DWORD*) {
    return NotYet();
}
bool GetTokenAccountName(HANDLE, std::u16string*) {
    return NotYet();
}
std::u16string CurrentProcessAccount() {
    return u"NT AUTHORITY\\SYSTEM";
}
void SetProcessAccount(std::u16string_view) {}
bool AccessCheck(const SecurityDescriptor&, HANDLE, ACCESS_MASK, const GENERIC_MAPPING&,
                 PRIVILEGE_SET*, DWORD*, ACCESS_MASK*, bool*) {
    return NotYet();
}
bool CheckCurrentProcessAccess(const SecurityDescriptor&, ACCESS_MASK, const GENERIC_MAPPING&,
                               ACCESS_MASK*) {
    return NotYet();
}

}  // namespace platform
