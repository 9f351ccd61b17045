// The fast I/O table, and the two records that its queries fill.
#pragma once

#include "kernel/linux/io_objects.h"

typedef struct _FILE_BASIC_INFORMATION {
    LARGE_INTEGER CreationTime;
    LARGE_INTEGER LastAccessTime;
    LARGE_INTEGER LastWriteTime;
    LARGE_INTEGER ChangeTime;
    ULONG FileAttributes;
} FILE_BASIC_INFORMATION, *PFILE_BASIC_INFORMATION;

typedef struct _FILE_STANDARD_INFORMATION {
    LARGE_INTEGER AllocationSize;
    LARGE_INTEGER EndOfFile;
    ULONG NumberOfLinks;
    BOOLEAN DeletePending;
    BOOLEAN Directory;
} FILE_STANDARD_INFORMATION, *PFILE_STANDARD_INFORMATION;

typedef BOOLEAN(NTAPI *PFAST_IO_CHECK_IF_POSSIBLE)(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length,
                                                   BOOLEAN Wait, ULONG LockKey, BOOLEAN CheckForReadOperation,
                                                   PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject);
typedef BOOLEAN(NTAPI *PFAST_IO_READ)(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, BOOLEAN Wait,
                                      ULONG LockKey, PVOID Buffer, PIO_STATUS_BLOCK IoStatus,
                                      PDEVICE_OBJECT DeviceObject);
typedef BOOLEAN(NTAPI *PFAST_IO_WRITE)(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, BOOLEAN Wait,
                                       ULONG LockKey, PVOID Buffer, PIO_STATUS_BLOCK IoStatus,
                                       PDEVICE_OBJECT DeviceObject);
typedef BOOLEAN(NTAPI *PFAST_IO_QUERY_BASIC_INFO)(PFILE_OBJECT FileObject, BOOLEAN Wait, PFILE_BASIC_INFORMATION Buffer,
                                                  PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject);
typedef BOOLEAN(NTAPI *PFAST_IO_QUERY_STANDARD_INFO)(PFILE_OBJECT FileObject, BOOLEAN Wait,
                                                     PFILE_STANDARD_INFORMATION Buffer, PIO_STATUS_BLOCK IoStatus,
                                                     PDEVICE_OBJECT DeviceObject);
typedef VOID(NTAPI *PFAST_IO_ACQUIRE_FILE)(PFILE_OBJECT FileObject);
typedef VOID(NTAPI *PFAST_IO_RELEASE_FILE)(PFILE_OBJECT FileObject);

typedef struct _FAST_IO_DISPATCH {
    ULONG SizeOfFastIoDispatch;
    PFAST_IO_CHECK_IF_POSSIBLE FastIoCheckIfPossible;
    PFAST_IO_READ FastIoRead;
    PFAST_IO_WRITE FastIoWrite;
    PFAST_IO_QUERY_BASIC_INFO FastIoQueryBasicInfo;
    PFAST_IO_QUERY_STANDARD_INFO FastIoQueryStandardInfo;
    PVOID FastIoLock;
    PVOID FastIoUnlockSingle;
    PVOID FastIoUnlockAll;
    PVOID FastIoUnlockAllByKey;
    PVOID FastIoDeviceControl;
    PFAST_IO_ACQUIRE_FILE AcquireFileForNtCreateSection;
    PFAST_IO_RELEASE_FILE ReleaseFileForNtCreateSection;
    PVOID FastIoDetachDevice;
    PVOID FastIoQueryNetworkOpenInfo;
    PVOID AcquireForModWrite;
    PVOID MdlRead;
    PVOID MdlReadComplete;
    PVOID PrepareMdlWrite;
    PVOID MdlWriteComplete;
    PVOID FastIoReadCompressed;
    PVOID FastIoWriteCompressed;
    PVOID MdlReadCompleteCompressed;
    PVOID MdlWriteCompleteCompressed;
    PVOID FastIoQueryOpen;
    PVOID ReleaseForModWrite;
    PVOID AcquireForCcFlush;
    PVOID ReleaseForCcFlush;
} FAST_IO_DISPATCH, *PFAST_IO_DISPATCH;
