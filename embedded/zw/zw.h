// System services: files through the I/O manager, handles, and the front end's side of the Nt interface.
//
// A Nt service runs for the mode of its caller (UserMode outside system threads), a Zw service for KernelMode. A
// service blocks until its request is completed when the file was opened synchronously, when the request is one that
// the I/O manager always makes synchronous (create, close, query, set, flush, unlock), or when the status says so.
//
// Status blocks are written for failed requests too, so that a caller sees what the driver completed with (the real
// I/O manager leaves the block alone when the driver fails a request at once).
#pragma once

#include "embedded/io/create.h"
#include "kernel/kernel.h"

namespace embedded {

// Opens or creates a file. Blocks until the driver has answered.
CreateResult CreateFile(const CreateParameters &Parameters) noexcept;

// A new event with a handle, for the Event argument of the services below.
NTSTATUS CreateEventHandle(EVENT_TYPE Type, bool Signalled, HANDLE *Handle) noexcept;

} // namespace embedded

// ---- Nt services for callers of the kernel -------------------------------------------------------------------
//
// What a user-mode caller of such a system expects, whether or not the program calls it.

NTKERNELAPI NTSTATUS NTAPI NtCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                                        POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                                        PLARGE_INTEGER AllocationSize, ULONG FileAttributes, ULONG ShareAccess,
                                        ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                                        ULONG EaLength) noexcept;
NTKERNELAPI NTSTATUS NTAPI NtOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                                      POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                                      ULONG ShareAccess, ULONG OpenOptions) noexcept;
NTKERNELAPI NTSTATUS NTAPI NtClose(HANDLE Handle) noexcept;
// ApcRoutine must be null in all of them (STATUS_NOT_IMPLEMENTED otherwise). ByteOffset null, or the marker
// FILE_USE_FILE_POINTER_POSITION with a high part of -1, means the current position of a synchronous file.
NTKERNELAPI NTSTATUS NTAPI NtReadFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                      PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                                      PLARGE_INTEGER ByteOffset, PULONG Key) noexcept;
NTKERNELAPI NTSTATUS NTAPI NtWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                       PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                                       PLARGE_INTEGER ByteOffset, PULONG Key) noexcept;
NTKERNELAPI NTSTATUS NTAPI NtFlushBuffersFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock) noexcept;
NTKERNELAPI NTSTATUS NTAPI NtLockFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                      PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER ByteOffset, PLARGE_INTEGER Length,
                                      ULONG Key, BOOLEAN FailImmediately, BOOLEAN ExclusiveLock) noexcept;
NTKERNELAPI NTSTATUS NTAPI NtUnlockFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER ByteOffset,
                                        PLARGE_INTEGER Length, ULONG Key) noexcept;
NTKERNELAPI NTSTATUS NTAPI NtDeviceIoControlFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                                                 PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, ULONG IoControlCode,
                                                 PVOID InputBuffer, ULONG InputBufferLength, PVOID OutputBuffer,
                                                 ULONG OutputBufferLength) noexcept;
NTKERNELAPI NTSTATUS NTAPI NtFsControlFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                                           PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, ULONG FsControlCode,
                                           PVOID InputBuffer, ULONG InputBufferLength, PVOID OutputBuffer,
                                           ULONG OutputBufferLength) noexcept;
NTKERNELAPI NTSTATUS NTAPI NtQueryInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock,
                                                  PVOID FileInformation, ULONG Length,
                                                  ULONG FileInformationClass) noexcept;
NTKERNELAPI NTSTATUS NTAPI NtSetInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock,
                                                PVOID FileInformation, ULONG Length,
                                                ULONG FileInformationClass) noexcept;
NTKERNELAPI NTSTATUS NTAPI NtQueryVolumeInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock,
                                                        PVOID FsInformation, ULONG Length,
                                                        ULONG FsInformationClass) noexcept;
// The pattern FileName may be null. Blocks on a synchronous file.
NTKERNELAPI NTSTATUS NTAPI NtQueryDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                                                PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,
                                                ULONG Length, ULONG FileInformationClass, BOOLEAN ReturnSingleEntry,
                                                PUNICODE_STRING FileName, BOOLEAN RestartScan) noexcept;
NTKERNELAPI NTSTATUS NTAPI NtNotifyChangeDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                                                       PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer,
                                                       ULONG Length, ULONG CompletionFilter,
                                                       BOOLEAN WatchTree) noexcept;
// Waits for an event or for the last request of an asynchronous file.
NTKERNELAPI NTSTATUS NTAPI NtWaitForSingleObject(HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout) noexcept;
