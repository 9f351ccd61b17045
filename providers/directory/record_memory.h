// What is kept in extended attributes, remembered as long as the object's change time says that it is the same.
//
// One table for the process, of fixed size, 24 bytes an object; an object that is met later takes the place of another.
// No locks: an entry is three words, and the first tells whether they belong together. Safe for concurrent calls.
#pragma once

#include <cstdint>

#include "providers/directory/beneath.h"

namespace providers::directory {

// What is kept with an object beside what the file system itself knows of it.
struct KeptAttributes {
    uint32_t Attributes = 0;
    uint32_t WriteBits = 0; // write permissions that READONLY took away
    bool HasCreation = false;
    int64_t Creation = 0;

    bool operator==(const KeptAttributes &) const = default;
};

// An object is most likely to be asked for next whose inode number is that: what is remembered of it is fetched into
// the processor's cache meanwhile. A wrong number costs no more than that.
void Expect(uint64_t Inode);

// Whether it is known what the object with this change time has; it is in Out then.
bool Recall(const ObjectKey &Key, int64_t Changed, KeptAttributes &Out);

// The time, before something is read that is to be remembered, in nanoseconds.
int64_t TimeOfReading();

// Fd is open on a file system that is served and stays mounted. Finds out whether its change times are exact: of two
// changes with a look at the time between them each leaves its own.
void NoteFileSystem(int Fd);

// Remembers what was read from the object after the time Began, at which its change time was Changed. Where change
// times are not exact, one that had changed so recently that another change might leave the same time is not
// remembered.
void Remember(const ObjectKey &Key, int64_t Changed, int64_t Began, const KeptAttributes &Read);

// Forgets what is remembered of the object, whatever its change time: it is being changed here.
void Forget(const ObjectKey &Key);

} // namespace providers::directory
