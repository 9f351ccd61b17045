// Logon sessions and the links of drive letters in them.
//
// Everything here runs in the calling user's thread, whose token decides the sessions: the token it impersonates, else
// its process's. No lock is taken. IRQL PASSIVE_LEVEL.
#pragma once

#include "provider/framework.h"

// One logon session as the messages print it.
inline ULONG64 LuidBits(LUID Luid) {
    return static_cast<ULONG64>(static_cast<ULONG>(Luid.HighPart)) << 32 | Luid.LowPart;
}
inline bool IsEqualLuid(LUID Left, LUID Right) {
    return LuidBits(Left) == LuidBits(Right);
}

// The caller's logon session into *Luid, which keeps its value on failure.
NTSTATUS GetCallerLogonSessionLuid(PLUID Luid);

// The session that is linked to Token's (a kernel handle). DefaultDacl may be NULL; what it receives is the linked
// token's default DACL behind its structure, or NULL when that could not be had, which is no failure. The caller frees
// it through RVPL. STATUS_OBJECT_TYPE_MISMATCH for a token that is not linked.
NTSTATUS GetLinkedTokenLogonSessionLUID(HANDLE Token, PLUID LinkedLuid, PTOKEN_DEFAULT_DACL *DefaultDacl);

// The same for the caller's own token.
NTSTATUS GetLinkedLogonSessionLUID(PLUID LinkedLuid, PTOKEN_DEFAULT_DACL *DefaultDacl);

// Makes or deletes the permanent link of that name (at most 63 characters). Target is where a new link leads. For a
// deletion it may be NULL, or have a length without a buffer; a link that is known to lead elsewhere is somebody
// else's, stays, and STATUS_OBJECT_NAME_NOT_FOUND is the answer. SecurityDescriptor may be NULL. Returns the status of
// the last service that was called for it.
NTSTATUS CreateOrDeleteSymbolicLink(PCSTR LinkName, PUNICODE_STRING Target, BOOLEAN Create,
                                    PSECURITY_DESCRIPTOR SecurityDescriptor);

// The link of Letter in the caller's DOS device directory, with default security. It is deleted by the session's name:
// a name below "\??" that is gone there leads on to everybody's letters.
NTSTATUS CreateOrDeleteSymbolicLinkInCurrentSession(CHAR Letter, PUNICODE_STRING Target, BOOLEAN Create);

// The value EnableLinkedConnections of a key into *Value. STATUS_OBJECT_TYPE_MISMATCH when it has no 32-bit word.
NTSTATUS GetEnableLinkedConnectionsConfig(PUNICODE_STRING KeyPath, PULONG Value);

// The link of Letter in the session linked to the caller's, with the linked token's default DACL. It is made only while
// the policy asks for it, STATUS_NO_TOKEN otherwise; it is deleted whatever the policy says. Linked, which may be NULL,
// receives the session once it is known.
NTSTATUS CreateOrDeleteSymbolicLinkInLinkedSession(CHAR Letter, PUNICODE_STRING Target, BOOLEAN Create,
                                                   PLUID Linked = nullptr);

// Deletes the link of Letter in the directory of session Luid, whoever calls.
NTSTATUS DeleteSymbolicLinkInSession(LUID Luid, CHAR Letter, PUNICODE_STRING Target);
// The same for the link that a caller of session Luid made for himself: the system's is everybody's.
NTSTATUS DeleteSymbolicLinkMadeInSession(LUID Luid, CHAR Letter, PUNICODE_STRING Target);
