// Waiting locks that an unlock grants, or ends when the grant fails.
//
// The run-time library grants a waiting lock in the middle of the unlock that made room for it, before the server has
// heard of the unlock. Told of the new lock then, the server would refuse it. So whoever unlocks collects the grants,
// and lets them complete when its own calls are made and the FCB's Resource is released.
#pragma once

#include "names/fcb.h"

// Grants on Fcb made by this thread go to Grants, which is made empty. Resource held exclusive.
VOID NtFsdCollectLockGrants(PFCB Fcb, PLIST_ENTRY Grants) HOLDING(Fcb->Resource);

// Ends the collecting; Grants keeps what it has. Resource still held.
VOID NtFsdStopCollectingLockGrants(PFCB Fcb) HOLDING(Fcb->Resource);

// Completes the collected grants, one after the other, and those that they make in turn. Called with no hold of the
// FCB, which the caller does not touch afterwards: it may be gone.
VOID NtFsdPostLockGrants(PLIST_ENTRY Grants);
