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
// Of a lock: those that are taken before it, and after it.
#define BEHIND(...) LOCK_RULE(acquired_after(__VA_ARGS__))
#define BEFORE(...) LOCK_RULE(acquired_before(__VA_ARGS__))

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

// The order of frame/locks.h for the compiler: what lies between one kind of lock and the next. Each lock says behind
// which of these it is taken and before which; they are names without an object. The order is checked where a hold of a
// scope is made (ExclusiveHold, SharedHold, SpinLockHold), against all that is held there; a ResourceHold's or
// SearchHold's own acquisition is not. That two locks of one kind are never nested cannot be said: it would be an order
// both ways.
struct IS_LOCK("place in the order") LOCK_PLACE {};
extern LOCK_PLACE BelowTable;
extern LOCK_PLACE BelowFcbs BEHIND(BelowTable);
extern LOCK_PLACE BelowSearches BEHIND(BelowFcbs);
extern LOCK_PLACE BelowLeaves BEHIND(BelowSearches);
extern LOCK_PLACE BelowSpinLocks BEHIND(BelowLeaves);

// The analysis reads what stands at a lock where a hold of a scope takes it. This lets it read a lock's place in every
// file, before anything else; what is after Lock are the parameters of a routine that is never called, by which Lock is
// reached.
#if defined(__clang__) && !defined(_WIN32)
class IS_HOLD PlaceReading {
public:
    template <typename LOCK>
    explicit PlaceReading(LOCK &Lock) TAKES(Lock);
    ~PlaceReading() GIVES_BACK;
};
#define READ_PLACE(Name, Lock, ...)                                                                                    \
    inline void ReadPlaceOf##Name(__VA_ARGS__) {                                                                       \
        const PlaceReading Reading(Lock);                                                                              \
    }                                                                                                                  \
    static_assert(true)
#else
#define READ_PLACE(Name, Lock, ...) static_assert(true)
#endif
