// Directory listing: searches, batches of the Provider's records, and the entries that callers get.
//
// The state of a search lives in the open's instance context and is touched under its SearchLock, with the FCB's
// Resource held shared or exclusive. The batch is data from outside: nothing of it is used before it is known to lie
// inside.
#pragma once

#include "names/fcb.h"

// Serves IRP_MJ_DIRECTORY_CONTROL: lists, queues a notification request, or refuses. Completes the IRP or posts it.
NTSTATUS NtFsdCommonDirectoryControl(PIRP_CONTEXT IrpContext);

// Queues a notification request on the directory's FCB: STATUS_PENDING, and the IRP with its context belongs to the
// entry. On failure the request is completed with the status returned.
NTSTATUS NtFsdNotifyDirectoryChange(PIRP_CONTEXT IrpContext);

// ---- Searches (dir/search.cpp)

// Whether there is a search. Written under its lock, read without it to choose the hold of the FCB.
inline bool NtFsdIsSearching(const INSTANCE_CONTEXT *Instance) {
    return __atomic_load_n(&Instance->SearchInitialized, __ATOMIC_ACQUIRE) != FALSE;
}
inline VOID NtFsdSetSearching(PINSTANCE_CONTEXT Instance, BOOLEAN Searching) {
    __atomic_store_n(&Instance->SearchInitialized, Searching, __ATOMIC_RELEASE);
}

inline constexpr ULONG ENUM_BUFFER_BYTES = 12288;

// Stores Mask and starts a search afresh. STATUS_INSUFFICIENT_RESOURCES leaves the open without a search.
NTSTATUS NtFsdInitializeSearch(PIRP_CONTEXT IrpContext, PFCB Fcb, PINSTANCE_CONTEXT Instance, PCUNICODE_STRING Mask)
    HOLDING(Instance->SearchLock);

// Rewrites the stored mask for the Provider and sets Wildcard and DotEntries.
VOID NtFsdAnalyzeSearchMask(PFCB Fcb, PINSTANCE_CONTEXT Instance) HOLDING(Instance->SearchLock);

// Reads "Enable Lazy Close" of the client's parameters key into g_bLazyClose, which keeps its value on failure.
NTSTATUS NtFsdReadLazyCloseConfig();

extern BOOLEAN g_bLazyClose; // searches that begin side by side read and write it
inline bool NtFsdIsLazyClose() {
    return __atomic_load_n(&g_bLazyClose, __ATOMIC_RELAXED) != FALSE;
}
inline VOID NtFsdSetLazyClose(bool LazyClose) {
    __atomic_store_n(&g_bLazyClose, LazyClose ? TRUE : FALSE, __ATOMIC_RELAXED);
}

// ---- Entries (dir/entries.cpp)

// Bytes before the file name in an entry of InfoClass; 0 for a class that is not supported.
ULONG NtFsdDirEntryFixedSize(ULONG InfoClass);

// The Provider's directory record as it lies in a batch, checked to lie inside. The pointers lead into the batch and
// may be unaligned: copy, do not dereference.
struct DIR_RECORD {
    ULONG NextOffset;  // 0: the last one
    const UCHAR *Head; // what both forms of the record begin with: attributes, times, size
    const UCHAR *Name;
    ULONG NameBytes;
    const UCHAR *ShortName; // NULL in a basic record
    ULONG ShortNameBytes;
};

// Reads the record at Offset of a batch of Bytes bytes. FALSE when record, name or next record lie outside, or the name
// is too long for a 16-bit size.
bool NtFsdParseDirRecord(const UCHAR *Batch, ULONG Bytes, ULONG Offset, bool WithShortName, DIR_RECORD *Record);

// Converts one record into an entry of InfoClass at Out, where Available bytes lie. STATUS_BUFFER_OVERFLOW, touching
// nothing, when it does not fit; *EntrySize receives the bytes written.
NTSTATUS NtFsdTarnwellDirToNtDir(ULONG InfoClass, const DIR_RECORD *Record, UCHAR *Out, ULONG Available,
                                 PULONG EntrySize);

// Hands out one entry at Out, refilling the batch when it is empty. On failure the record stays current.
// STATUS_NO_MORE_FILES at the end, STATUS_CONNECTION_DISCONNECTED, STATUS_UNEXPECTED_NETWORK_ERROR when the Provider's
// batch holds what is no record.
NTSTATUS NtFsdGetNextDirEntry(PIRP_CONTEXT IrpContext, PFCB Fcb, PINSTANCE_CONTEXT Instance, ULONG InfoClass,
                              UCHAR *Out, ULONG Available, PULONG EntrySize) HOLDING(Instance->SearchLock)
    HOLDING_SHARED(Instance->Fcb->Resource);
