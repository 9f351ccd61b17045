// Identities, access-control lists and the check of an access against one.

#include <algorithm>
#include <cstring>

#include "embedded/se/se.h"
#include "embedded/verifier/rules.h"

namespace embedded {
namespace {

constexpr size_t SidFixedBytes = 8;
constexpr UCHAR NtAuthority = 5;
constexpr size_t MaximumSubAuthorities = 15;

void Append(std::vector<std::byte> &To, const void *From, size_t Bytes) {
    const auto *First = static_cast<const std::byte *>(From);
    To.insert(To.end(), First, First + Bytes);
}

std::vector<std::byte> SidBytes(const Sid &Who) {
    const UCHAR Fixed[SidFixedBytes] = {1, static_cast<UCHAR>(Who.size()), 0, 0, 0, 0, 0, NtAuthority};
    std::vector<std::byte> Bytes;
    Append(Bytes, Fixed, sizeof(Fixed));
    Append(Bytes, Who.data(), Who.size() * sizeof(ULONG));
    return Bytes;
}

// The identifier in Bytes bytes at From; false when they hold none of the authority 5.
bool ReadSid(const std::byte *From, size_t Bytes, Sid *Who) {
    UCHAR Fixed[SidFixedBytes];
    if (Bytes < sizeof(Fixed)) {
        return false;
    }
    memcpy(Fixed, From, sizeof(Fixed));
    const size_t Count = Fixed[1];
    if (Fixed[0] != 1 || Fixed[7] != NtAuthority || Count > MaximumSubAuthorities ||
        Bytes < sizeof(Fixed) + Count * sizeof(ULONG)) {
        return false;
    }
    Who->resize(Count);
    if (Count != 0) {
        memcpy(Who->data(), From + sizeof(Fixed), Count * sizeof(ULONG));
    }
    return true;
}

enum class Membership { None, Allows, DenyOnly };

// What Who means for the token: its user and its groups; the administrators' group of a filtered token only denies.
Membership MembershipOf(const TokenObject &Token, const Sid &Who) {
    if (Token.User == 0) {
        return Who == SystemSid || Who == AdministratorsSid ? Membership::Allows : Membership::None;
    }
    if (Who == UserSid(Token.User)) {
        return Membership::Allows;
    }
    if (Who == AdministratorsSid && Token.Kind != Elevation::Default) {
        return Token.Kind == Elevation::Full ? Membership::Allows : Membership::DenyOnly;
    }
    return Membership::None;
}

} // namespace

Sid UserSid(ULONG User) {
    return User == 0 ? SystemSid : Sid{21, 1, 2, 3, User};
}

std::vector<std::byte> MakeAcl(const std::vector<AccessEntry> &Entries) {
    std::vector<std::byte> Bytes(sizeof(ACL));
    for (const AccessEntry &Each : Entries) {
        const std::vector<std::byte> Who = SidBytes(Each.Who);
        const ACE_HEADER Header = {static_cast<UCHAR>(Each.Allow ? ACCESS_ALLOWED_ACE_TYPE : ACCESS_DENIED_ACE_TYPE), 0,
                                   static_cast<USHORT>(offsetof(ACCESS_ALLOWED_ACE, SidStart) + Who.size())};
        Append(Bytes, &Header, sizeof(Header));
        Append(Bytes, &Each.Mask, sizeof(Each.Mask));
        Append(Bytes, Who.data(), Who.size());
    }
    const ACL Header = {ACL_REVISION, 0, static_cast<USHORT>(Bytes.size()), static_cast<USHORT>(Entries.size()), 0};
    memcpy(Bytes.data(), &Header, sizeof(Header));
    return Bytes;
}

std::vector<AccessEntry> ReadAcl(const std::vector<std::byte> &Acl) {
    std::vector<AccessEntry> Entries;
    ACL Header = {};
    if (Acl.size() < sizeof(Header)) {
        return Entries;
    }
    memcpy(&Header, Acl.data(), sizeof(Header));
    size_t At = sizeof(Header);
    for (USHORT Index = 0; Index < Header.AceCount; ++Index) {
        ACE_HEADER Ace = {};
        AccessEntry Entry;
        constexpr size_t Fixed = offsetof(ACCESS_ALLOWED_ACE, SidStart);
        if (Acl.size() - At < Fixed) {
            return {};
        }
        memcpy(&Ace, Acl.data() + At, sizeof(Ace));
        memcpy(&Entry.Mask, Acl.data() + At + sizeof(Ace), sizeof(Entry.Mask));
        Entry.Allow = Ace.AceType == ACCESS_ALLOWED_ACE_TYPE;
        if (Ace.AceSize < Fixed || Ace.AceSize > Acl.size() - At ||
            !ReadSid(Acl.data() + At + Fixed, Ace.AceSize - Fixed, &Entry.Who)) {
            return {};
        }
        Entries.push_back(std::move(Entry));
        At += Ace.AceSize;
    }
    return Entries;
}

NTSTATUS CaptureSecurity(PSECURITY_DESCRIPTOR Descriptor, Security *Captured) noexcept {
    *Captured = {};
    if (Descriptor == nullptr) {
        return STATUS_SUCCESS;
    }
    const auto *Absolute = static_cast<const SECURITY_DESCRIPTOR *>(Descriptor);
    if (Absolute->Revision != SECURITY_DESCRIPTOR_REVISION) {
        return STATUS_UNKNOWN_REVISION;
    }
    if (!(Absolute->Control & SE_DACL_PRESENT) || Absolute->Dacl == nullptr) {
        return STATUS_SUCCESS;
    }
    const auto *Dacl = static_cast<const ACL *>(Absolute->Dacl);
    if (Dacl->AclRevision != ACL_REVISION || Dacl->AclSize < sizeof(ACL)) {
        return STATUS_INVALID_PARAMETER;
    }
    Captured->HasDacl = true;
    Captured->Dacl.resize(Dacl->AclSize);
    memcpy(Captured->Dacl.data(), Dacl, Dacl->AclSize);
    return ReadAcl(Captured->Dacl).size() == Dacl->AceCount ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

ACCESS_MASK MapGeneric(ACCESS_MASK Desired, const GenericMapping &Mapping) noexcept {
    constexpr ACCESS_MASK Generic = GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL;
    return (Desired & ~Generic) | (Desired & GENERIC_READ ? Mapping.Read : 0) |
           (Desired & GENERIC_WRITE ? Mapping.Write : 0) | (Desired & GENERIC_EXECUTE ? Mapping.Execute : 0) |
           (Desired & GENERIC_ALL ? Mapping.All : 0);
}

NTSTATUS CheckAccess(const Security &Of, ACCESS_MASK Desired, const GenericMapping &Mapping,
                     ACCESS_MASK *Granted) noexcept {
    const ACCESS_MASK Wanted = MapGeneric(Desired, Mapping);
    *Granted = 0;
    ACCESS_MASK Left = Wanted;
    if (Of.HasDacl) {
        const TokenObject &Token = EffectiveToken();
        for (const AccessEntry &Entry : ReadAcl(Of.Dacl)) {
            const Membership Member = MembershipOf(Token, Entry.Who);
            const ACCESS_MASK Mask = MapGeneric(Entry.Mask, Mapping);
            if (!Entry.Allow && Member != Membership::None && (Mask & Left) != 0) {
                return STATUS_ACCESS_DENIED;
            }
            if (Entry.Allow && Member == Membership::Allows) {
                Left &= ~Mask;
            }
        }
        if (Left != 0) {
            return STATUS_ACCESS_DENIED;
        }
    }
    *Granted = Wanted;
    return STATUS_SUCCESS;
}

} // namespace embedded

using namespace embedded;

NTSTATUS NTAPI RtlCreateSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Revision) noexcept {
    if (Revision != SECURITY_DESCRIPTOR_REVISION) {
        return STATUS_UNKNOWN_REVISION;
    }
    auto *Descriptor = static_cast<SECURITY_DESCRIPTOR *>(SecurityDescriptor);
    *Descriptor = {};
    Descriptor->Revision = SECURITY_DESCRIPTOR_REVISION;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlSetDaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, BOOLEAN DaclPresent, PACL Dacl,
                                            BOOLEAN) noexcept {
    RequireIrql(IrqlRuleOf("RtlSetDaclSecurityDescriptor"));
    auto *Descriptor = static_cast<SECURITY_DESCRIPTOR *>(SecurityDescriptor);
    if (Descriptor->Revision != SECURITY_DESCRIPTOR_REVISION) {
        return STATUS_UNKNOWN_REVISION;
    }
    Descriptor->Control = static_cast<USHORT>(DaclPresent ? Descriptor->Control | SE_DACL_PRESENT
                                                          : Descriptor->Control & ~SE_DACL_PRESENT);
    Descriptor->Dacl = DaclPresent ? Dacl : nullptr;
    return STATUS_SUCCESS;
}
