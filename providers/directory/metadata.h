// Attributes and times of a file or directory, read and set through its descriptor.
//
// Times are in 100 ns since 1601. READONLY of a file is the absence of all write permissions; the other attributes, and
// a creation time that was set, are kept in the extended attribute "user.rvfsd.attributes".
#pragma once

#include "providers/directory/beneath.h"
#include "providers/directory/errno_status.h"

namespace providers::directory {

struct Metadata {
    ULONG Attributes = 0;
    LONG64 Creation = 0;
    LONG64 LastWrite = 0;
    LONG64 LastAccess = 0;
    ULONG64 EndOfFile = 0;
    ULONG64 Allocated = 0;
    ObjectKey Key;
    mode_t Mode = 0;
    uid_t Owner = 0;
    nlink_t Links = 0;
};

// What to change; null leaves a value as it is, and so does a time of 0 or -1.
struct MetadataChange {
    const ULONG *Attributes = nullptr;
    const LONG64 *Creation = nullptr;
    const LONG64 *LastWrite = nullptr;
    const LONG64 *LastAccess = nullptr;
};

// Of the open object. NamesOnly: Fd is an O_PATH descriptor. ReadMetadata is one after the other.
RVSTATUS ReadStatus(int Fd, struct statx &Out);
Metadata MetadataOf(int Fd, bool NamesOnly, const struct statx &Stat);
RVSTATUS ReadMetadata(int Fd, bool NamesOnly, Metadata &Out);

// Of the entry Name of the directory Fd, the entry itself when it is a link.
RVSTATUS ReadEntryMetadata(int Fd, const char *Name, Metadata &Out);

// The attributes that are kept with that entry, which has just had the status Stat and is no link.
ULONG KeptAttributesOf(int Fd, const char *Name, const struct stat &Stat);

// Sets through the descriptor, which may be an O_PATH one. CODE_NOT_SUPPORTED when the file system cannot keep an
// attribute that is asked for, InvalidParameter for a time that is negative or that it cannot keep.
RVSTATUS ChangeMetadata(int Fd, const MetadataChange &Change);

// Whether this READONLY, as a listing shows it, is set on a file with the given mode.
constexpr bool IsReadOnlyMode(mode_t Mode) {
    return S_ISREG(Mode) && (Mode & 0222) == 0;
}

} // namespace providers::directory
