// What the compiler checks of locks: clang's analysis of the Linux build. Elsewhere these are nothing.
//
// A field or variable says under which lock it stands, a routine which locks its caller holds. The analysis sees holds
// that last a scope from beginning to end (ExclusiveHold, SharedHold, SpinLockHold). A ResourceHold can be acquired on
// condition, released early and passed on, which it cannot follow: from an acquisition on it takes the resource for
// held until the routine's end, and does not see a use after an early release. Nor does it see what is reached through
// an address: InsertTailList(&List, ...) passes without the list's lock. So a routine that uses a list or a table by
// its address alone says itself which lock its caller holds.
#pragma once

#if defined(__clang__) && !defined(_WIN32)
#define LOCK_RULE(Rule) __attribute__((Rule))
#else
#define LOCK_RULE(Rule)
#endif

#define IS_LOCK(Kind) LOCK_RULE(capability(Kind))
#define IS_HOLD LOCK_RULE(scoped_lockable)

// Of a field or variable.
#define UNDER(Lock) LOCK_RULE(guarded_by(Lock))
// Of a lock: those that are taken before it. Checked only for locks that stand by their names.
#define BEHIND(...) LOCK_RULE(acquired_after(__VA_ARGS__))

// Of a routine.
#define HOLDING(...) LOCK_RULE(requires_capability(__VA_ARGS__))
#define HOLDING_SHARED(...) LOCK_RULE(requires_shared_capability(__VA_ARGS__))
#define TAKES(...) LOCK_RULE(acquire_capability(__VA_ARGS__))
#define TAKES_SHARED(...) LOCK_RULE(acquire_shared_capability(__VA_ARGS__))
#define GIVES_BACK LOCK_RULE(release_generic_capability())
// The lock is held from this call on, as far as the analysis can tell.
#define HELD_FROM_HERE(Lock) LOCK_RULE(assert_capability(Lock))
#define SHARED_FROM_HERE(Lock) LOCK_RULE(assert_shared_capability(Lock))
// Not analysed; the reason stands beside it.
#define UNCHECKED_LOCKS LOCK_RULE(no_thread_safety_analysis)
