// The kernel services that the driver calls, for the Linux build. The embedded kernel implements them; a service
// that is not declared here does not exist, and one that is not implemented does not link.
//
// None of them lets a C++ exception out (noexcept): an exception that left an ms_abi function would corrupt the
// registers of whoever catches it.
#pragma once

#include "kernel/linux/objects.h"
#include "kernel/linux/security.h"

// ---- Ex: executive -----------------------------------------------------------------------------------------

NTKERNELAPI PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) noexcept;
NTKERNELAPI VOID NTAPI ExFreePoolWithTag(PVOID Pointer, ULONG Tag) noexcept;

NTKERNELAPI NTSTATUS NTAPI ExInitializeResourceLite(PERESOURCE Resource) noexcept;
NTKERNELAPI NTSTATUS NTAPI ExDeleteResourceLite(PERESOURCE Resource) noexcept;
NTKERNELAPI BOOLEAN NTAPI ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait) noexcept;
NTKERNELAPI BOOLEAN NTAPI ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait) noexcept;
NTKERNELAPI VOID NTAPI ExReleaseResourceLite(PERESOURCE Resource) noexcept;
NTKERNELAPI VOID NTAPI ExConvertExclusiveToSharedLite(PERESOURCE Resource) noexcept;
NTKERNELAPI BOOLEAN NTAPI ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource) noexcept;
NTKERNELAPI ULONG NTAPI ExIsResourceAcquiredSharedLite(PERESOURCE Resource) noexcept;

NTKERNELAPI VOID NTAPI ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                                       PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag,
                                                       USHORT Depth) noexcept;
NTKERNELAPI VOID NTAPI ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside) noexcept;
NTKERNELAPI PSLIST_ENTRY NTAPI ExpInterlockedPopEntrySList(PSLIST_HEADER ListHead) noexcept;
NTKERNELAPI PSLIST_ENTRY NTAPI ExpInterlockedPushEntrySList(PSLIST_HEADER ListHead, PSLIST_ENTRY ListEntry) noexcept;
NTKERNELAPI USHORT NTAPI ExQueryDepthSList(PSLIST_HEADER ListHead) noexcept;
NTKERNELAPI VOID NTAPI ExSystemTimeToLocalTime(PLARGE_INTEGER SystemTime, PLARGE_INTEGER LocalTime) noexcept;

// Inline in the DDK as well: the list's own counters and routines, then the interlocked list. The counters are
// statistics and not interlocked, there as here: two threads at once may count for one.
static inline VOID CountInLookasideList(ULONG *Counter) {
    __atomic_store_n(Counter, __atomic_load_n(Counter, __ATOMIC_RELAXED) + 1, __ATOMIC_RELAXED);
}

static inline PVOID ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside) {
    CountInLookasideList(&Lookaside->L.TotalAllocates);
    PVOID Entry = ExpInterlockedPopEntrySList(&Lookaside->L.ListHead);
    if (Entry == nullptr) {
        CountInLookasideList(&Lookaside->L.AllocateMisses);
        Entry = Lookaside->L.Allocate(Lookaside->L.Type, Lookaside->L.Size, Lookaside->L.Tag);
    }
    return Entry;
}

static inline VOID ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry) {
    CountInLookasideList(&Lookaside->L.TotalFrees);
    if (ExQueryDepthSList(&Lookaside->L.ListHead) >= Lookaside->L.Depth) {
        CountInLookasideList(&Lookaside->L.FreeMisses);
        Lookaside->L.Free(Entry);
    } else {
        ExpInterlockedPushEntrySList(&Lookaside->L.ListHead, (PSLIST_ENTRY)Entry);
    }
}

// ---- Ke: kernel core ---------------------------------------------------------------------------------------

NTKERNELAPI KIRQL NTAPI KeGetCurrentIrql() noexcept;
NTKERNELAPI PKTHREAD NTAPI KeGetCurrentThread() noexcept;
NTKERNELAPI VOID NTAPI KeEnterCriticalRegion() noexcept;
NTKERNELAPI VOID NTAPI KeLeaveCriticalRegion() noexcept;
NTKERNELAPI KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock) noexcept;
NTKERNELAPI VOID NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) noexcept;
NTKERNELAPI VOID NTAPI KeInitializeEvent(PKEVENT Event, EVENT_TYPE Type, BOOLEAN State) noexcept;
NTKERNELAPI LONG NTAPI KeSetEvent(PKEVENT Event, KPRIORITY Increment, BOOLEAN Wait) noexcept;
NTKERNELAPI NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                                 BOOLEAN Alertable, PLARGE_INTEGER Timeout) noexcept;
NTKERNELAPI NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                                  PLARGE_INTEGER Interval) noexcept;
NTKERNELAPI VOID NTAPI KeQuerySystemTimePrecise(PLARGE_INTEGER CurrentTime) noexcept;
NTKERNELAPI ULONG64 NTAPI KeQueryInterruptTimePrecise(PULONG64 QpcTimeStamp) noexcept;
NTKERNELAPI [[noreturn]] VOID NTAPI KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR Parameter1, ULONG_PTR Parameter2,
                                                 ULONG_PTR Parameter3, ULONG_PTR Parameter4) noexcept;

// ---- Ps: processes and threads -----------------------------------------------------------------------------

NTKERNELAPI NTSTATUS NTAPI PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess,
                                                POBJECT_ATTRIBUTES ObjectAttributes, HANDLE ProcessHandle,
                                                PVOID ClientId, PKSTART_ROUTINE StartRoutine,
                                                PVOID StartContext) noexcept;
NTKERNELAPI NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS ExitStatus) noexcept;
NTKERNELAPI NTSTATUS NTAPI ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                                     KPROCESSOR_MODE AccessMode, PVOID *Object,
                                                     POBJECT_HANDLE_INFORMATION HandleInformation) noexcept;
NTKERNELAPI LONG_PTR NTAPI ObfDereferenceObject(PVOID Object) noexcept;

// ---- Mm: memory --------------------------------------------------------------------------------------------

NTKERNELAPI MM_SYSTEMSIZE NTAPI MmQuerySystemSize() noexcept;
NTKERNELAPI VOID NTAPI MmUnlockPages(PMDL Mdl) noexcept;
NTKERNELAPI PVOID NTAPI MmMapLockedPagesSpecifyCache(PMDL Mdl, KPROCESSOR_MODE AccessMode,
                                                     MEMORY_CACHING_TYPE CacheType, PVOID RequestedAddress,
                                                     ULONG BugCheckOnFailure, ULONG Priority) noexcept;
NTKERNELAPI BOOLEAN NTAPI MmForceSectionClosed(PSECTION_OBJECT_POINTERS SectionObjectPointer,
                                               BOOLEAN DelayClose) noexcept;

// ---- Io: I/O manager ---------------------------------------------------------------------------------------

NTKERNELAPI NTSTATUS NTAPI IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize,
                                          PUNICODE_STRING DeviceName, ULONG DeviceType, ULONG DeviceCharacteristics,
                                          BOOLEAN Exclusive, PDEVICE_OBJECT *DeviceObject) noexcept;
NTKERNELAPI VOID NTAPI IoDeleteDevice(PDEVICE_OBJECT DeviceObject) noexcept;
NTKERNELAPI NTSTATUS NTAPI IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName) noexcept;
NTKERNELAPI VOID NTAPI IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost) noexcept;
NTKERNELAPI PIRP NTAPI IoGetTopLevelIrp() noexcept;
NTKERNELAPI VOID NTAPI IoSetTopLevelIrp(PIRP Irp) noexcept;
NTKERNELAPI VOID NTAPI IoAcquireCancelSpinLock(PKIRQL Irql) noexcept;
NTKERNELAPI VOID NTAPI IoReleaseCancelSpinLock(KIRQL Irql) noexcept;
NTKERNELAPI BOOLEAN NTAPI IoIsOperationSynchronous(PIRP Irp) noexcept;
NTKERNELAPI PEPROCESS NTAPI IoGetCurrentProcess() noexcept;
NTKERNELAPI PEPROCESS NTAPI IoGetRequestorProcess(PIRP Irp) noexcept;
NTKERNELAPI NTSTATUS NTAPI IoCsqInitializeEx(PIO_CSQ Csq, PIO_CSQ_INSERT_IRP_EX InsertIrp, PIO_CSQ_REMOVE_IRP RemoveIrp,
                                             PIO_CSQ_PEEK_NEXT_IRP PeekNextIrp, PIO_CSQ_ACQUIRE_LOCK AcquireLock,
                                             PIO_CSQ_RELEASE_LOCK ReleaseLock,
                                             PIO_CSQ_COMPLETE_CANCELED_IRP CompleteCanceledIrp) noexcept;
NTKERNELAPI NTSTATUS NTAPI IoCsqInsertIrpEx(PIO_CSQ Csq, PIRP Irp, PIO_CSQ_IRP_CONTEXT Context,
                                            PVOID InsertContext) noexcept;
NTKERNELAPI PIRP NTAPI IoCsqRemoveNextIrp(PIO_CSQ Csq, PVOID PeekContext) noexcept;
NTKERNELAPI PMDL NTAPI IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota,
                                     PIRP Irp) noexcept;
NTKERNELAPI VOID NTAPI IoFreeMdl(PMDL Mdl) noexcept;
NTKERNELAPI VOID NTAPI IoSetShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess, PFILE_OBJECT FileObject,
                                        PSHARE_ACCESS ShareAccess) noexcept;
NTKERNELAPI NTSTATUS NTAPI IoCheckShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess,
                                              PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess,
                                              BOOLEAN Update) noexcept;
NTKERNELAPI VOID NTAPI IoRemoveShareAccess(PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess) noexcept;

// ---- FsRtl: file system run-time library -------------------------------------------------------------------

NTKERNELAPI NTSTATUS NTAPI FsRtlRegisterUncProviderEx(PHANDLE MupHandle, PUNICODE_STRING RedirDevName,
                                                      PDEVICE_OBJECT DeviceObject, ULONG Flags) noexcept;
NTKERNELAPI VOID NTAPI FsRtlDeregisterUncProvider(HANDLE Handle) noexcept;
NTKERNELAPI BOOLEAN NTAPI FsRtlCopyRead(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, BOOLEAN Wait,
                                        ULONG LockKey, PVOID Buffer, PIO_STATUS_BLOCK IoStatus,
                                        PDEVICE_OBJECT DeviceObject) noexcept;
NTKERNELAPI BOOLEAN NTAPI FsRtlCopyWrite(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, BOOLEAN Wait,
                                         ULONG LockKey, PVOID Buffer, PIO_STATUS_BLOCK IoStatus,
                                         PDEVICE_OBJECT DeviceObject) noexcept;
NTKERNELAPI VOID NTAPI FsRtlInitializeFileLock(PFILE_LOCK FileLock, PCOMPLETE_LOCK_IRP_ROUTINE CompleteLockIrpRoutine,
                                               PUNLOCK_ROUTINE UnlockRoutine) noexcept;
NTKERNELAPI VOID NTAPI FsRtlUninitializeFileLock(PFILE_LOCK FileLock) noexcept;
NTKERNELAPI NTSTATUS NTAPI FsRtlProcessFileLock(PFILE_LOCK FileLock, PIRP Irp, PVOID Context) noexcept;
NTKERNELAPI PFILE_LOCK_INFO NTAPI FsRtlGetNextFileLock(PFILE_LOCK FileLock, BOOLEAN Restart) noexcept;
NTKERNELAPI NTSTATUS NTAPI FsRtlFastUnlockSingle(PFILE_LOCK FileLock, PFILE_OBJECT FileObject,
                                                 LARGE_INTEGER *FileOffset, PLARGE_INTEGER Length, PEPROCESS Process,
                                                 ULONG Key, PVOID Context, BOOLEAN AlreadySynchronized) noexcept;
NTKERNELAPI VOID NTAPI FsRtlNotifyUninitializeSync(PNOTIFY_SYNC *NotifySync) noexcept;
NTKERNELAPI VOID NTAPI FsRtlTeardownPerStreamContexts(PFSRTL_ADVANCED_FCB_HEADER AdvancedHeader) noexcept;

// ---- Rtl: run-time library ---------------------------------------------------------------------------------

NTKERNELAPI VOID NTAPI RtlInitializeUnicodePrefix(PUNICODE_PREFIX_TABLE PrefixTable) noexcept;
NTKERNELAPI BOOLEAN NTAPI RtlInsertUnicodePrefix(PUNICODE_PREFIX_TABLE PrefixTable, PUNICODE_STRING Prefix,
                                                 PUNICODE_PREFIX_TABLE_ENTRY PrefixTableEntry) noexcept;
NTKERNELAPI VOID NTAPI RtlRemoveUnicodePrefix(PUNICODE_PREFIX_TABLE PrefixTable,
                                              PUNICODE_PREFIX_TABLE_ENTRY PrefixTableEntry) noexcept;
NTKERNELAPI PUNICODE_PREFIX_TABLE_ENTRY NTAPI RtlFindUnicodePrefix(PUNICODE_PREFIX_TABLE PrefixTable,
                                                                   PUNICODE_STRING FullName,
                                                                   ULONG CaseInsensitiveIndex) noexcept;
NTKERNELAPI PUNICODE_PREFIX_TABLE_ENTRY NTAPI RtlNextUnicodePrefix(PUNICODE_PREFIX_TABLE PrefixTable,
                                                                   BOOLEAN Restart) noexcept;
NTKERNELAPI BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                                BOOLEAN CaseInSensitive) noexcept;
NTKERNELAPI WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR SourceCharacter) noexcept;
NTKERNELAPI VOID NTAPI RtlTimeToTimeFields(PLARGE_INTEGER Time, PTIME_FIELDS TimeFields) noexcept;
NTKERNELAPI NTSTATUS NTAPI RtlCreateSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor,
                                                       ULONG Revision) noexcept;
NTKERNELAPI NTSTATUS NTAPI RtlSetDaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, BOOLEAN DaclPresent,
                                                        PACL Dacl, BOOLEAN DaclDefaulted) noexcept;
// With AllocateDestinationString FALSE the destination's own buffer is filled, or STATUS_BUFFER_OVERFLOW.
NTKERNELAPI NTSTATUS NTAPI RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, PCANSI_STRING SourceString,
                                                        BOOLEAN AllocateDestinationString) noexcept;
NTKERNELAPI VOID NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString) noexcept;

// ---- Zw, Nt: system services -------------------------------------------------------------------------------

NTKERNELAPI NTSTATUS NTAPI ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess,
                                     POBJECT_ATTRIBUTES ObjectAttributes) noexcept;
NTKERNELAPI NTSTATUS NTAPI ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                                           KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                                           PVOID KeyValueInformation, ULONG Length, PULONG ResultLength) noexcept;
NTKERNELAPI NTSTATUS NTAPI ZwClose(HANDLE Handle) noexcept;
NTKERNELAPI NTSTATUS NTAPI ZwOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                                      POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                                      ULONG ShareAccess, ULONG OpenOptions) noexcept;
NTKERNELAPI NTSTATUS NTAPI ZwCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                                        POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                                        PLARGE_INTEGER AllocationSize, ULONG FileAttributes, ULONG ShareAccess,
                                        ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                                        ULONG EaLength) noexcept;
NTKERNELAPI NTSTATUS NTAPI ZwWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                       PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                                       PLARGE_INTEGER ByteOffset, PULONG Key) noexcept;
NTKERNELAPI NTSTATUS NTAPI ZwDeleteFile(POBJECT_ATTRIBUTES ObjectAttributes) noexcept;
NTKERNELAPI NTSTATUS NTAPI ZwQuerySystemInformation(SYSTEM_INFORMATION_CLASS SystemInformationClass,
                                                    PVOID SystemInformation, ULONG SystemInformationLength,
                                                    PULONG ReturnLength) noexcept;
NTKERNELAPI NTSTATUS NTAPI NtSetSecurityObject(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                                               PSECURITY_DESCRIPTOR SecurityDescriptor) noexcept;

// Tokens. The handles are NtCurrentThread() and NtCurrentProcess() alone.
NTKERNELAPI NTSTATUS NTAPI ZwOpenThreadTokenEx(HANDLE ThreadHandle, ACCESS_MASK DesiredAccess, BOOLEAN OpenAsSelf,
                                               ULONG HandleAttributes, PHANDLE TokenHandle) noexcept;
NTKERNELAPI NTSTATUS NTAPI ZwOpenProcessTokenEx(HANDLE ProcessHandle, ACCESS_MASK DesiredAccess, ULONG HandleAttributes,
                                                PHANDLE TokenHandle) noexcept;
NTKERNELAPI NTSTATUS NTAPI ZwQueryInformationToken(HANDLE TokenHandle, TOKEN_INFORMATION_CLASS TokenInformationClass,
                                                   PVOID TokenInformation, ULONG TokenInformationLength,
                                                   PULONG ReturnLength) noexcept;

// Symbolic link objects.
NTKERNELAPI NTSTATUS NTAPI ZwCreateSymbolicLinkObject(PHANDLE LinkHandle, ACCESS_MASK DesiredAccess,
                                                      POBJECT_ATTRIBUTES ObjectAttributes,
                                                      PUNICODE_STRING LinkTarget) noexcept;
NTKERNELAPI NTSTATUS NTAPI ZwOpenSymbolicLinkObject(PHANDLE LinkHandle, ACCESS_MASK DesiredAccess,
                                                    POBJECT_ATTRIBUTES ObjectAttributes) noexcept;
NTKERNELAPI NTSTATUS NTAPI ZwQuerySymbolicLinkObject(HANDLE LinkHandle, PUNICODE_STRING LinkTarget,
                                                     PULONG ReturnedLength) noexcept;
NTKERNELAPI NTSTATUS NTAPI ZwMakeTemporaryObject(HANDLE Handle) noexcept;

// ---- Debug output ------------------------------------------------------------------------------------------

NTKERNELAPI ULONG NTAPI DbgPrint(PCSTR Format, ...) noexcept;
NTKERNELAPI ULONG NTAPI DbgPrintEx(ULONG ComponentId, ULONG Level, PCSTR Format, ...) noexcept;
