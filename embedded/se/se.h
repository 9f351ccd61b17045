// Security reference monitor: logon sessions, tokens, access-control lists, access checks.
//
// A process has a primary token (the kernel's own, for SYSTEM, when it was given none); a thread may impersonate
// another. Both are fixed while they are in use, so that looking at the caller takes no lock. One mutex guards the list
// of logon sessions.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "embedded/base/thread.h"
#include "embedded/ob/ob.h"

inline bool operator==(const LUID &Left, const LUID &Right) {
    return Left.LowPart == Right.LowPart && Left.HighPart == Right.HighPart;
}

namespace embedded {

// ---- Identities and lists of access --------------------------------------------------------------------------

// A security identifier of the authority 5 (S-1-5-...), by its sub-authorities.
using Sid = std::vector<ULONG>;
inline const Sid SystemSid = {18};
inline const Sid AdministratorsSid = {32, 544};
// An account of this machine.
Sid UserSid(ULONG User);

struct AccessEntry {
    bool Allow = true;
    ACCESS_MASK Mask = 0;
    Sid Who;
};
// The bytes of an ACL, in the platform's layout.
std::vector<std::byte> MakeAcl(const std::vector<AccessEntry> &Entries);
// What such bytes say; empty for bytes that are no ACL.
std::vector<AccessEntry> ReadAcl(const std::vector<std::byte> &Acl);

// The security of one object: its DACL as a copy. Without one everybody has all access; an empty one lets nobody in.
struct Security {
    bool HasDacl = false;
    std::vector<std::byte> Dacl;
};
// What Descriptor (absolute, may be null) says; STATUS_INVALID_PARAMETER for one that is none.
NTSTATUS CaptureSecurity(PSECURITY_DESCRIPTOR Descriptor, Security *Captured) noexcept;

// ---- Logon sessions and tokens -------------------------------------------------------------------------------

enum class Elevation : ULONG { Default = 1, Full = 2, Limited = 3 };

inline constexpr LUID SystemLogonId = {0x3E7, 0};

struct LogonSession;

class TokenObject final : public Object {
public:
    TokenObject(std::shared_ptr<LogonSession> Of, ULONG Account, Elevation How, TOKEN_TYPE Type,
                SECURITY_IMPERSONATION_LEVEL Level);
    ~TokenObject() override;

    const std::shared_ptr<LogonSession> Session;
    const ULONG User; // 0 is SYSTEM
    const Elevation Kind;
    const TOKEN_TYPE Use;
    const SECURITY_IMPERSONATION_LEVEL Level;
    const LUID Id;
    // What objects get that its threads make without a descriptor. Set before the token is used.
    Security DefaultSecurity;
};
using TokenRef = Ref<TokenObject>;

struct LogonSession {
    LUID Id;
    ULONG User;
    ObjectRef DosDevices; // its directory below \Sessions\0\DosDevices, which \?? means for its threads
    // Guarded by the list's mutex.
    bool Live = true;
    TokenRef Primary;
    bool HasLinked = false;
    LUID Linked = {};
};

// A new logon session of an account, which has no directory yet, and its token. Id {0, 0} takes the next free one. Who
// logs on goes through names/logon.h.
Ref<TokenObject> NewSession(ULONG User, Elevation Kind, LUID Id);
// Each finds the other as its linked one.
void LinkSessions(const TokenObject &One, const TokenObject &Other);
// Nobody finds it as a linked session any more. Tokens that are still held stay usable.
void EndSession(LogonSession &Session) noexcept;

// Of the calling thread: the token it impersonates, else its process's.
TokenObject &EffectiveToken() noexcept;
inline ULONG CallerAccount() noexcept {
    return EffectiveToken().User;
}

// The calling thread acts for the client of Token during the life of this object.
class [[nodiscard]] Impersonate {
public:
    explicit Impersonate(TokenRef Token, SECURITY_IMPERSONATION_LEVEL Level = SecurityImpersonation);
    ~Impersonate();
    Impersonate(const Impersonate &) = delete;
    Impersonate &operator=(const Impersonate &) = delete;

private:
    TokenRef Token_;
    TokenObject *Old_;
};

// How Desired, which may name generic rights, reads for a kind of object.
struct GenericMapping {
    ACCESS_MASK Read, Write, Execute, All;
};
ACCESS_MASK MapGeneric(ACCESS_MASK Desired, const GenericMapping &Mapping) noexcept;

// Whether the caller's token has Desired (generic rights mapped) under Of. STATUS_ACCESS_DENIED when it has not.
NTSTATUS CheckAccess(const Security &Of, ACCESS_MASK Desired, const GenericMapping &Mapping,
                     ACCESS_MASK *Granted) noexcept;

// Forgets all logon sessions of a kernel that has stopped.
void ResetSecurity() noexcept;

} // namespace embedded
