// Sizes and offsets of kernel records on x64 Windows, asserted in both builds: against the DDK's headers in the Windows
// build, against kernel/linux in the other. What differs here would differ silently between a loaded image and the
// embedded kernel.
//
// The table is held as lists: RVFSD_LAYOUT(SIZE_OF, OFFSET_OF) expands SIZE_OF(Type, Bytes) for each record and
// OFFSET_OF(Type, Member, Offset) for each of its members, so that other code can print or compare the same table.
#pragma once

// clang-format off
#define RVFSD_LAYOUT_BASE(SIZE_OF, OFFSET_OF)                                                                          \
    SIZE_OF(LIST_ENTRY, 16)                                                                                            \
        OFFSET_OF(LIST_ENTRY, Flink, 0x0) OFFSET_OF(LIST_ENTRY, Blink, 0x8)                                            \
    SIZE_OF(LARGE_INTEGER, 8)                                                                                          \
        OFFSET_OF(LARGE_INTEGER, LowPart, 0x0) OFFSET_OF(LARGE_INTEGER, HighPart, 0x4)                                 \
        OFFSET_OF(LARGE_INTEGER, QuadPart, 0x0)                                                                        \
    SIZE_OF(LUID, 8)                                                                                                   \
        OFFSET_OF(LUID, LowPart, 0x0) OFFSET_OF(LUID, HighPart, 0x4)                                                   \
    SIZE_OF(GUID, 16)                                                                                                  \
        OFFSET_OF(GUID, Data1, 0x0) OFFSET_OF(GUID, Data2, 0x4) OFFSET_OF(GUID, Data3, 0x6)                            \
        OFFSET_OF(GUID, Data4, 0x8)                                                                                    \
    SIZE_OF(UNICODE_STRING, 16)                                                                                        \
        OFFSET_OF(UNICODE_STRING, Length, 0x0) OFFSET_OF(UNICODE_STRING, MaximumLength, 0x2)                           \
        OFFSET_OF(UNICODE_STRING, Buffer, 0x8)                                                                         \
    SIZE_OF(IO_STATUS_BLOCK, 16)                                                                                       \
        OFFSET_OF(IO_STATUS_BLOCK, Status, 0x0) OFFSET_OF(IO_STATUS_BLOCK, Pointer, 0x0)                               \
        OFFSET_OF(IO_STATUS_BLOCK, Information, 0x8)                                                                   \
    SIZE_OF(OBJECT_ATTRIBUTES, 48)                                                                                     \
        OFFSET_OF(OBJECT_ATTRIBUTES, Length, 0x0) OFFSET_OF(OBJECT_ATTRIBUTES, RootDirectory, 0x8)                     \
        OFFSET_OF(OBJECT_ATTRIBUTES, ObjectName, 0x10) OFFSET_OF(OBJECT_ATTRIBUTES, Attributes, 0x18)                  \
        OFFSET_OF(OBJECT_ATTRIBUTES, SecurityDescriptor, 0x20)                                                         \
        OFFSET_OF(OBJECT_ATTRIBUTES, SecurityQualityOfService, 0x28)                                                   \
    SIZE_OF(TIME_FIELDS, 16)                                                                                           \
        OFFSET_OF(TIME_FIELDS, Year, 0x0) OFFSET_OF(TIME_FIELDS, Month, 0x2) OFFSET_OF(TIME_FIELDS, Day, 0x4)          \
        OFFSET_OF(TIME_FIELDS, Hour, 0x6) OFFSET_OF(TIME_FIELDS, Minute, 0x8) OFFSET_OF(TIME_FIELDS, Second, 0xA)      \
        OFFSET_OF(TIME_FIELDS, Milliseconds, 0xC) OFFSET_OF(TIME_FIELDS, Weekday, 0xE)                                 \
    SIZE_OF(SYSTEM_TIMEOFDAY_INFORMATION, 48)                                                                          \
        OFFSET_OF(SYSTEM_TIMEOFDAY_INFORMATION, BootTime, 0x0)                                                         \
        OFFSET_OF(SYSTEM_TIMEOFDAY_INFORMATION, CurrentTime, 0x8)                                                      \
        OFFSET_OF(SYSTEM_TIMEOFDAY_INFORMATION, TimeZoneBias, 0x10)                                                    \
        OFFSET_OF(SYSTEM_TIMEOFDAY_INFORMATION, TimeZoneId, 0x18)                                                      \
        OFFSET_OF(SYSTEM_TIMEOFDAY_INFORMATION, BootTimeBias, 0x20)                                                    \
        OFFSET_OF(SYSTEM_TIMEOFDAY_INFORMATION, SleepTimeBias, 0x28)                                                   \
    SIZE_OF(KEY_VALUE_PARTIAL_INFORMATION, 16)                                                                         \
        OFFSET_OF(KEY_VALUE_PARTIAL_INFORMATION, TitleIndex, 0x0) OFFSET_OF(KEY_VALUE_PARTIAL_INFORMATION, Type, 0x4)  \
        OFFSET_OF(KEY_VALUE_PARTIAL_INFORMATION, DataLength, 0x8) OFFSET_OF(KEY_VALUE_PARTIAL_INFORMATION, Data, 0xC)  \
    SIZE_OF(KEY_VALUE_FULL_INFORMATION, 24)                                                                            \
        OFFSET_OF(KEY_VALUE_FULL_INFORMATION, TitleIndex, 0x0) OFFSET_OF(KEY_VALUE_FULL_INFORMATION, Type, 0x4)        \
        OFFSET_OF(KEY_VALUE_FULL_INFORMATION, DataOffset, 0x8) OFFSET_OF(KEY_VALUE_FULL_INFORMATION, DataLength, 0xC)  \
        OFFSET_OF(KEY_VALUE_FULL_INFORMATION, NameLength, 0x10) OFFSET_OF(KEY_VALUE_FULL_INFORMATION, Name, 0x14)      \
    SIZE_OF(ANSI_STRING, 16)                                                                                           \
        OFFSET_OF(ANSI_STRING, Length, 0x0) OFFSET_OF(ANSI_STRING, MaximumLength, 0x2)                                 \
        OFFSET_OF(ANSI_STRING, Buffer, 0x8)                                                                            \
    SIZE_OF(TOKEN_STATISTICS, 56)                                                                                      \
        OFFSET_OF(TOKEN_STATISTICS, TokenId, 0x0) OFFSET_OF(TOKEN_STATISTICS, AuthenticationId, 0x8)                   \
        OFFSET_OF(TOKEN_STATISTICS, ExpirationTime, 0x10) OFFSET_OF(TOKEN_STATISTICS, TokenType, 0x18)                 \
        OFFSET_OF(TOKEN_STATISTICS, ImpersonationLevel, 0x1C) OFFSET_OF(TOKEN_STATISTICS, ModifiedId, 0x30)            \
    SIZE_OF(TOKEN_DEFAULT_DACL, 8)                                                                                     \
        OFFSET_OF(TOKEN_DEFAULT_DACL, DefaultDacl, 0x0)                                                                \
    SIZE_OF(ACL, 8)                                                                                                    \
        OFFSET_OF(ACL, AclRevision, 0x0) OFFSET_OF(ACL, AclSize, 0x2) OFFSET_OF(ACL, AceCount, 0x4)                    \
    SIZE_OF(SECURITY_DESCRIPTOR, 40)                                                                                   \
        OFFSET_OF(SECURITY_DESCRIPTOR, Revision, 0x0) OFFSET_OF(SECURITY_DESCRIPTOR, Control, 0x2)                     \
        OFFSET_OF(SECURITY_DESCRIPTOR, Owner, 0x8) OFFSET_OF(SECURITY_DESCRIPTOR, Group, 0x10)                         \
        OFFSET_OF(SECURITY_DESCRIPTOR, Sacl, 0x18) OFFSET_OF(SECURITY_DESCRIPTOR, Dacl, 0x20)

#define RVFSD_LAYOUT_LOCKS(SIZE_OF, OFFSET_OF)                                                                         \
    SIZE_OF(KSPIN_LOCK, 8)                                                                                             \
    SIZE_OF(KEVENT, 24)                                                                                                \
        OFFSET_OF(KEVENT, Header.Type, 0x0) OFFSET_OF(KEVENT, Header.Size, 0x2)                                        \
        OFFSET_OF(KEVENT, Header.SignalState, 0x4) OFFSET_OF(KEVENT, Header.WaitListHead, 0x8)                         \
    SIZE_OF(FAST_MUTEX, 56)                                                                                            \
        OFFSET_OF(FAST_MUTEX, Count, 0x0) OFFSET_OF(FAST_MUTEX, Owner, 0x8) OFFSET_OF(FAST_MUTEX, Contention, 0x10)    \
        OFFSET_OF(FAST_MUTEX, Event, 0x18) OFFSET_OF(FAST_MUTEX, OldIrql, 0x30)                                        \
    SIZE_OF(OWNER_ENTRY, 16)                                                                                           \
        OFFSET_OF(OWNER_ENTRY, OwnerThread, 0x0)                                                                       \
    SIZE_OF(ERESOURCE, 104)                                                                                            \
        OFFSET_OF(ERESOURCE, SystemResourcesList, 0x0) OFFSET_OF(ERESOURCE, OwnerTable, 0x10)                          \
        OFFSET_OF(ERESOURCE, ActiveCount, 0x18) OFFSET_OF(ERESOURCE, Flag, 0x1A)                                       \
        OFFSET_OF(ERESOURCE, SharedWaiters, 0x20) OFFSET_OF(ERESOURCE, ExclusiveWaiters, 0x28)                         \
        OFFSET_OF(ERESOURCE, OwnerEntry, 0x30) OFFSET_OF(ERESOURCE, ActiveEntries, 0x40)                               \
        OFFSET_OF(ERESOURCE, ContentionCount, 0x44) OFFSET_OF(ERESOURCE, NumberOfSharedWaiters, 0x48)                  \
        OFFSET_OF(ERESOURCE, NumberOfExclusiveWaiters, 0x4C) OFFSET_OF(ERESOURCE, Address, 0x58)                       \
        OFFSET_OF(ERESOURCE, SpinLock, 0x60)                                                                           \
    SIZE_OF(SLIST_HEADER, 16)                                                                                          \
    SIZE_OF(SLIST_ENTRY, 16)                                                                                           \
        OFFSET_OF(SLIST_ENTRY, Next, 0x0)                                                                              \
    SIZE_OF(NPAGED_LOOKASIDE_LIST, 128)                                                                                \
        OFFSET_OF(NPAGED_LOOKASIDE_LIST, L.ListHead, 0x0) OFFSET_OF(NPAGED_LOOKASIDE_LIST, L.Depth, 0x10)              \
        OFFSET_OF(NPAGED_LOOKASIDE_LIST, L.MaximumDepth, 0x12)                                                         \
        OFFSET_OF(NPAGED_LOOKASIDE_LIST, L.TotalAllocates, 0x14)                                                       \
        OFFSET_OF(NPAGED_LOOKASIDE_LIST, L.AllocateMisses, 0x18) OFFSET_OF(NPAGED_LOOKASIDE_LIST, L.TotalFrees, 0x1C)  \
        OFFSET_OF(NPAGED_LOOKASIDE_LIST, L.FreeMisses, 0x20) OFFSET_OF(NPAGED_LOOKASIDE_LIST, L.Type, 0x24)            \
        OFFSET_OF(NPAGED_LOOKASIDE_LIST, L.Tag, 0x28) OFFSET_OF(NPAGED_LOOKASIDE_LIST, L.Size, 0x2C)                   \
        OFFSET_OF(NPAGED_LOOKASIDE_LIST, L.Allocate, 0x30) OFFSET_OF(NPAGED_LOOKASIDE_LIST, L.Free, 0x38)              \
        OFFSET_OF(NPAGED_LOOKASIDE_LIST, L.ListEntry, 0x40)

#define RVFSD_LAYOUT_IRP(SIZE_OF, OFFSET_OF)                                                                           \
    SIZE_OF(IRP, 208)                                                                                                  \
        OFFSET_OF(IRP, Type, 0x0) OFFSET_OF(IRP, Size, 0x2) OFFSET_OF(IRP, MdlAddress, 0x8)                            \
        OFFSET_OF(IRP, Flags, 0x10) OFFSET_OF(IRP, AssociatedIrp, 0x18)                                                \
        OFFSET_OF(IRP, AssociatedIrp.SystemBuffer, 0x18) OFFSET_OF(IRP, ThreadListEntry, 0x20)                         \
        OFFSET_OF(IRP, IoStatus, 0x30) OFFSET_OF(IRP, RequestorMode, 0x40) OFFSET_OF(IRP, PendingReturned, 0x41)       \
        OFFSET_OF(IRP, StackCount, 0x42) OFFSET_OF(IRP, CurrentLocation, 0x43) OFFSET_OF(IRP, Cancel, 0x44)            \
        OFFSET_OF(IRP, CancelIrql, 0x45) OFFSET_OF(IRP, AllocationFlags, 0x47) OFFSET_OF(IRP, UserIosb, 0x48)          \
        OFFSET_OF(IRP, UserEvent, 0x50) OFFSET_OF(IRP, Overlay, 0x58) OFFSET_OF(IRP, Overlay.AllocationSize, 0x58)     \
        OFFSET_OF(IRP, Overlay.AsynchronousParameters.UserApcRoutine, 0x58)                                            \
        OFFSET_OF(IRP, Overlay.AsynchronousParameters.UserApcContext, 0x60) OFFSET_OF(IRP, CancelRoutine, 0x68)        \
        OFFSET_OF(IRP, UserBuffer, 0x70) OFFSET_OF(IRP, Tail.Overlay.DriverContext, 0x78)                              \
        OFFSET_OF(IRP, Tail.Overlay.Thread, 0x98) OFFSET_OF(IRP, Tail.Overlay.AuxiliaryBuffer, 0xA0)                   \
        OFFSET_OF(IRP, Tail.Overlay.ListEntry, 0xA8) OFFSET_OF(IRP, Tail.Overlay.CurrentStackLocation, 0xB8)           \
        OFFSET_OF(IRP, Tail.Overlay.OriginalFileObject, 0xC0)                                                          \
    SIZE_OF(MDL, 48)                                                                                                   \
        OFFSET_OF(MDL, Next, 0x0) OFFSET_OF(MDL, Size, 0x8) OFFSET_OF(MDL, MdlFlags, 0xA)                              \
        OFFSET_OF(MDL, Process, 0x10) OFFSET_OF(MDL, MappedSystemVa, 0x18) OFFSET_OF(MDL, StartVa, 0x20)               \
        OFFSET_OF(MDL, ByteCount, 0x28) OFFSET_OF(MDL, ByteOffset, 0x2C)                                               \
    SIZE_OF(IO_SECURITY_CONTEXT, 24)                                                                                   \
        OFFSET_OF(IO_SECURITY_CONTEXT, SecurityQos, 0x0) OFFSET_OF(IO_SECURITY_CONTEXT, AccessState, 0x8)              \
        OFFSET_OF(IO_SECURITY_CONTEXT, DesiredAccess, 0x10) OFFSET_OF(IO_SECURITY_CONTEXT, FullCreateOptions, 0x14)    \
    SIZE_OF(SECURITY_SUBJECT_CONTEXT, 32)                                                                              \
        OFFSET_OF(SECURITY_SUBJECT_CONTEXT, ClientToken, 0x0)                                                          \
        OFFSET_OF(SECURITY_SUBJECT_CONTEXT, ImpersonationLevel, 0x8)                                                   \
        OFFSET_OF(SECURITY_SUBJECT_CONTEXT, PrimaryToken, 0x10)                                                        \
        OFFSET_OF(SECURITY_SUBJECT_CONTEXT, ProcessAuditId, 0x18)                                                      \
    SIZE_OF(ACCESS_STATE, 160)                                                                                         \
        OFFSET_OF(ACCESS_STATE, OperationID, 0x0) OFFSET_OF(ACCESS_STATE, SecurityEvaluated, 0x8)                      \
        OFFSET_OF(ACCESS_STATE, Flags, 0xC) OFFSET_OF(ACCESS_STATE, RemainingDesiredAccess, 0x10)                      \
        OFFSET_OF(ACCESS_STATE, PreviouslyGrantedAccess, 0x14) OFFSET_OF(ACCESS_STATE, OriginalDesiredAccess, 0x18)    \
        OFFSET_OF(ACCESS_STATE, SubjectSecurityContext, 0x20) OFFSET_OF(ACCESS_STATE, SecurityDescriptor, 0x40)        \
        OFFSET_OF(ACCESS_STATE, AuxData, 0x48) OFFSET_OF(ACCESS_STATE, Privileges, 0x50)                               \
        OFFSET_OF(ACCESS_STATE, AuditPrivileges, 0x7C) OFFSET_OF(ACCESS_STATE, ObjectName, 0x80)                       \
        OFFSET_OF(ACCESS_STATE, ObjectTypeName, 0x90)

#define RVFSD_LAYOUT_STACK(SIZE_OF, OFFSET_OF)                                                                         \
    SIZE_OF(IO_STACK_LOCATION, 72)                                                                                     \
        OFFSET_OF(IO_STACK_LOCATION, MajorFunction, 0x0) OFFSET_OF(IO_STACK_LOCATION, MinorFunction, 0x1)              \
        OFFSET_OF(IO_STACK_LOCATION, Flags, 0x2) OFFSET_OF(IO_STACK_LOCATION, Control, 0x3)                            \
        OFFSET_OF(IO_STACK_LOCATION, Parameters, 0x8) OFFSET_OF(IO_STACK_LOCATION, DeviceObject, 0x28)                 \
        OFFSET_OF(IO_STACK_LOCATION, FileObject, 0x30) OFFSET_OF(IO_STACK_LOCATION, CompletionRoutine, 0x38)           \
        OFFSET_OF(IO_STACK_LOCATION, Context, 0x40)                                                                    \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.Create.SecurityContext, 0x8)                                           \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.Create.Options, 0x10)                                                  \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.Create.FileAttributes, 0x18)                                           \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.Create.ShareAccess, 0x1A)                                              \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.Create.EaLength, 0x20)                                                 \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.Read.Length, 0x8)                                                      \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.Read.Key, 0x10)                                                        \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.Read.ByteOffset, 0x18)                                                 \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.Write.Length, 0x8)                                                     \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.Write.Key, 0x10)                                                       \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.Write.ByteOffset, 0x18)                                                \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.LockControl.Length, 0x8)                                               \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.LockControl.Key, 0x10)                                                 \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.LockControl.ByteOffset, 0x18)                                          \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.QueryFile.Length, 0x8)                                                 \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.QueryFile.FileInformationClass, 0x10)                                  \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.SetFile.Length, 0x8)                                                   \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.SetFile.FileInformationClass, 0x10)                                    \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.SetFile.FileObject, 0x18)                                              \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.SetFile.ReplaceIfExists, 0x20)                                         \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.SetFile.AdvanceOnly, 0x21)                                             \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.SetFile.ClusterCount, 0x20)                                            \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.SetFile.DeleteHandle, 0x20)                                            \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.QueryEa.Length, 0x8)                                                   \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.QueryEa.EaList, 0x10)                                                  \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.QueryEa.EaListLength, 0x18)                                            \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.QueryEa.EaIndex, 0x20)                                                 \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.SetEa.Length, 0x8)                                                     \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.QueryVolume.Length, 0x8)                                               \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.QueryVolume.FsInformationClass, 0x10)                                  \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.QueryDirectory.Length, 0x8)                                            \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.QueryDirectory.FileName, 0x10)                                         \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.QueryDirectory.FileInformationClass, 0x18)                             \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.QueryDirectory.FileIndex, 0x20)                                        \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.NotifyDirectory.Length, 0x8)                                           \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.NotifyDirectory.CompletionFilter, 0x10)                                \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.FileSystemControl.InputBufferLength, 0x10)                             \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.FileSystemControl.Type3InputBuffer, 0x20)                              \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.Others.Argument1, 0x8)                                                 \
        OFFSET_OF(IO_STACK_LOCATION, Parameters.Others.Argument3, 0x18)

// The DDK of mingw leaves out the 16-byte alignment of DEVICE_OBJECT, and with it the last eight bytes.
#ifdef _WIN32
#define RVFSD_DEVICE_OBJECT_BYTES 328
#else
#define RVFSD_DEVICE_OBJECT_BYTES 336
#endif

#define RVFSD_LAYOUT_OBJECTS(SIZE_OF, OFFSET_OF)                                                                       \
    SIZE_OF(DEVICE_OBJECT, RVFSD_DEVICE_OBJECT_BYTES)                                                                  \
        OFFSET_OF(DEVICE_OBJECT, Type, 0x0) OFFSET_OF(DEVICE_OBJECT, Size, 0x2)                                        \
        OFFSET_OF(DEVICE_OBJECT, ReferenceCount, 0x4) OFFSET_OF(DEVICE_OBJECT, DriverObject, 0x8)                      \
        OFFSET_OF(DEVICE_OBJECT, NextDevice, 0x10) OFFSET_OF(DEVICE_OBJECT, AttachedDevice, 0x18)                      \
        OFFSET_OF(DEVICE_OBJECT, CurrentIrp, 0x20) OFFSET_OF(DEVICE_OBJECT, Timer, 0x28)                               \
        OFFSET_OF(DEVICE_OBJECT, Flags, 0x30) OFFSET_OF(DEVICE_OBJECT, Characteristics, 0x34)                          \
        OFFSET_OF(DEVICE_OBJECT, Vpb, 0x38) OFFSET_OF(DEVICE_OBJECT, DeviceExtension, 0x40)                            \
        OFFSET_OF(DEVICE_OBJECT, DeviceType, 0x48) OFFSET_OF(DEVICE_OBJECT, StackSize, 0x4C)                           \
        OFFSET_OF(DEVICE_OBJECT, Queue, 0x50) OFFSET_OF(DEVICE_OBJECT, AlignmentRequirement, 0x98)                     \
        OFFSET_OF(DEVICE_OBJECT, DeviceQueue, 0xA0) OFFSET_OF(DEVICE_OBJECT, Dpc, 0xC8)                                \
        OFFSET_OF(DEVICE_OBJECT, ActiveThreadCount, 0x108) OFFSET_OF(DEVICE_OBJECT, SecurityDescriptor, 0x110)         \
        OFFSET_OF(DEVICE_OBJECT, DeviceLock, 0x118) OFFSET_OF(DEVICE_OBJECT, SectorSize, 0x130)                        \
        OFFSET_OF(DEVICE_OBJECT, DeviceObjectExtension, 0x138)                                                         \
    SIZE_OF(DRIVER_OBJECT, 336)                                                                                        \
        OFFSET_OF(DRIVER_OBJECT, Type, 0x0) OFFSET_OF(DRIVER_OBJECT, Size, 0x2)                                        \
        OFFSET_OF(DRIVER_OBJECT, DeviceObject, 0x8) OFFSET_OF(DRIVER_OBJECT, Flags, 0x10)                              \
        OFFSET_OF(DRIVER_OBJECT, DriverStart, 0x18) OFFSET_OF(DRIVER_OBJECT, DriverSize, 0x20)                         \
        OFFSET_OF(DRIVER_OBJECT, DriverSection, 0x28) OFFSET_OF(DRIVER_OBJECT, DriverExtension, 0x30)                  \
        OFFSET_OF(DRIVER_OBJECT, DriverName, 0x38) OFFSET_OF(DRIVER_OBJECT, HardwareDatabase, 0x48)                    \
        OFFSET_OF(DRIVER_OBJECT, FastIoDispatch, 0x50) OFFSET_OF(DRIVER_OBJECT, DriverInit, 0x58)                      \
        OFFSET_OF(DRIVER_OBJECT, DriverStartIo, 0x60) OFFSET_OF(DRIVER_OBJECT, DriverUnload, 0x68)                     \
        OFFSET_OF(DRIVER_OBJECT, MajorFunction, 0x70)                                                                  \
    SIZE_OF(FILE_OBJECT, 216)                                                                                          \
        OFFSET_OF(FILE_OBJECT, Type, 0x0) OFFSET_OF(FILE_OBJECT, Size, 0x2) OFFSET_OF(FILE_OBJECT, DeviceObject, 0x8)  \
        OFFSET_OF(FILE_OBJECT, Vpb, 0x10) OFFSET_OF(FILE_OBJECT, FsContext, 0x18)                                      \
        OFFSET_OF(FILE_OBJECT, FsContext2, 0x20) OFFSET_OF(FILE_OBJECT, SectionObjectPointer, 0x28)                    \
        OFFSET_OF(FILE_OBJECT, PrivateCacheMap, 0x30) OFFSET_OF(FILE_OBJECT, FinalStatus, 0x38)                        \
        OFFSET_OF(FILE_OBJECT, RelatedFileObject, 0x40) OFFSET_OF(FILE_OBJECT, LockOperation, 0x48)                    \
        OFFSET_OF(FILE_OBJECT, DeletePending, 0x49) OFFSET_OF(FILE_OBJECT, ReadAccess, 0x4A)                           \
        OFFSET_OF(FILE_OBJECT, WriteAccess, 0x4B) OFFSET_OF(FILE_OBJECT, DeleteAccess, 0x4C)                           \
        OFFSET_OF(FILE_OBJECT, SharedRead, 0x4D) OFFSET_OF(FILE_OBJECT, SharedWrite, 0x4E)                             \
        OFFSET_OF(FILE_OBJECT, SharedDelete, 0x4F) OFFSET_OF(FILE_OBJECT, Flags, 0x50)                                 \
        OFFSET_OF(FILE_OBJECT, FileName, 0x58) OFFSET_OF(FILE_OBJECT, CurrentByteOffset, 0x68)                         \
        OFFSET_OF(FILE_OBJECT, Waiters, 0x70) OFFSET_OF(FILE_OBJECT, Busy, 0x74)                                       \
        OFFSET_OF(FILE_OBJECT, LastLock, 0x78) OFFSET_OF(FILE_OBJECT, Lock, 0x80) OFFSET_OF(FILE_OBJECT, Event, 0x98)  \
        OFFSET_OF(FILE_OBJECT, CompletionContext, 0xB0) OFFSET_OF(FILE_OBJECT, IrpListLock, 0xB8)                      \
        OFFSET_OF(FILE_OBJECT, IrpList, 0xC0) OFFSET_OF(FILE_OBJECT, FileObjectExtension, 0xD0)                        \
    SIZE_OF(SECTION_OBJECT_POINTERS, 24)                                                                               \
        OFFSET_OF(SECTION_OBJECT_POINTERS, DataSectionObject, 0x0)                                                     \
        OFFSET_OF(SECTION_OBJECT_POINTERS, SharedCacheMap, 0x8)                                                        \
        OFFSET_OF(SECTION_OBJECT_POINTERS, ImageSectionObject, 0x10)                                                   \
    SIZE_OF(FAST_IO_DISPATCH, 224)                                                                                     \
        OFFSET_OF(FAST_IO_DISPATCH, SizeOfFastIoDispatch, 0x0)                                                         \
        OFFSET_OF(FAST_IO_DISPATCH, FastIoCheckIfPossible, 0x8) OFFSET_OF(FAST_IO_DISPATCH, FastIoRead, 0x10)          \
        OFFSET_OF(FAST_IO_DISPATCH, FastIoWrite, 0x18) OFFSET_OF(FAST_IO_DISPATCH, FastIoQueryBasicInfo, 0x20)         \
        OFFSET_OF(FAST_IO_DISPATCH, FastIoQueryStandardInfo, 0x28) OFFSET_OF(FAST_IO_DISPATCH, FastIoLock, 0x30)       \
        OFFSET_OF(FAST_IO_DISPATCH, FastIoUnlockSingle, 0x38) OFFSET_OF(FAST_IO_DISPATCH, FastIoUnlockAll, 0x40)       \
        OFFSET_OF(FAST_IO_DISPATCH, FastIoUnlockAllByKey, 0x48)                                                        \
        OFFSET_OF(FAST_IO_DISPATCH, FastIoDeviceControl, 0x50)                                                         \
        OFFSET_OF(FAST_IO_DISPATCH, AcquireFileForNtCreateSection, 0x58)                                               \
        OFFSET_OF(FAST_IO_DISPATCH, ReleaseFileForNtCreateSection, 0x60)                                               \
        OFFSET_OF(FAST_IO_DISPATCH, FastIoDetachDevice, 0x68)                                                          \
        OFFSET_OF(FAST_IO_DISPATCH, FastIoQueryNetworkOpenInfo, 0x70)                                                  \
        OFFSET_OF(FAST_IO_DISPATCH, AcquireForModWrite, 0x78) OFFSET_OF(FAST_IO_DISPATCH, MdlRead, 0x80)               \
        OFFSET_OF(FAST_IO_DISPATCH, MdlReadComplete, 0x88) OFFSET_OF(FAST_IO_DISPATCH, PrepareMdlWrite, 0x90)          \
        OFFSET_OF(FAST_IO_DISPATCH, MdlWriteComplete, 0x98) OFFSET_OF(FAST_IO_DISPATCH, FastIoReadCompressed, 0xA0)    \
        OFFSET_OF(FAST_IO_DISPATCH, FastIoWriteCompressed, 0xA8)                                                       \
        OFFSET_OF(FAST_IO_DISPATCH, MdlReadCompleteCompressed, 0xB0)                                                   \
        OFFSET_OF(FAST_IO_DISPATCH, MdlWriteCompleteCompressed, 0xB8)                                                  \
        OFFSET_OF(FAST_IO_DISPATCH, FastIoQueryOpen, 0xC0) OFFSET_OF(FAST_IO_DISPATCH, ReleaseForModWrite, 0xC8)       \
        OFFSET_OF(FAST_IO_DISPATCH, AcquireForCcFlush, 0xD0) OFFSET_OF(FAST_IO_DISPATCH, ReleaseForCcFlush, 0xD8)

#define RVFSD_LAYOUT_FSRTL(SIZE_OF, OFFSET_OF)                                                                         \
    SIZE_OF(FSRTL_COMMON_FCB_HEADER, 48)                                                                               \
        OFFSET_OF(FSRTL_COMMON_FCB_HEADER, NodeTypeCode, 0x0) OFFSET_OF(FSRTL_COMMON_FCB_HEADER, NodeByteSize, 0x2)    \
        OFFSET_OF(FSRTL_COMMON_FCB_HEADER, Flags, 0x4) OFFSET_OF(FSRTL_COMMON_FCB_HEADER, IsFastIoPossible, 0x5)       \
        OFFSET_OF(FSRTL_COMMON_FCB_HEADER, Flags2, 0x6) OFFSET_OF(FSRTL_COMMON_FCB_HEADER, Resource, 0x8)              \
        OFFSET_OF(FSRTL_COMMON_FCB_HEADER, PagingIoResource, 0x10)                                                     \
        OFFSET_OF(FSRTL_COMMON_FCB_HEADER, AllocationSize, 0x18) OFFSET_OF(FSRTL_COMMON_FCB_HEADER, FileSize, 0x20)    \
        OFFSET_OF(FSRTL_COMMON_FCB_HEADER, ValidDataLength, 0x28)                                                      \
    SIZE_OF(FSRTL_ADVANCED_FCB_HEADER, 88)                                                                             \
        OFFSET_OF(FSRTL_ADVANCED_FCB_HEADER, FastMutex, 0x30)                                                          \
        OFFSET_OF(FSRTL_ADVANCED_FCB_HEADER, FilterContexts, 0x38)                                                     \
        OFFSET_OF(FSRTL_ADVANCED_FCB_HEADER, PushLock, 0x48)                                                           \
        OFFSET_OF(FSRTL_ADVANCED_FCB_HEADER, FileContextSupportPointer, 0x50)                                          \
    SIZE_OF(IO_CSQ, 64)                                                                                                \
        OFFSET_OF(IO_CSQ, Type, 0x0) OFFSET_OF(IO_CSQ, CsqInsertIrp, 0x8) OFFSET_OF(IO_CSQ, CsqRemoveIrp, 0x10)        \
        OFFSET_OF(IO_CSQ, CsqPeekNextIrp, 0x18) OFFSET_OF(IO_CSQ, CsqAcquireLock, 0x20)                                \
        OFFSET_OF(IO_CSQ, CsqReleaseLock, 0x28) OFFSET_OF(IO_CSQ, CsqCompleteCanceledIrp, 0x30)                        \
        OFFSET_OF(IO_CSQ, ReservePointer, 0x38)                                                                        \
    SIZE_OF(FILE_LOCK_INFO, 48)                                                                                        \
        OFFSET_OF(FILE_LOCK_INFO, StartingByte, 0x0) OFFSET_OF(FILE_LOCK_INFO, Length, 0x8)                            \
        OFFSET_OF(FILE_LOCK_INFO, ExclusiveLock, 0x10) OFFSET_OF(FILE_LOCK_INFO, Key, 0x14)                            \
        OFFSET_OF(FILE_LOCK_INFO, FileObject, 0x18) OFFSET_OF(FILE_LOCK_INFO, ProcessId, 0x20)                         \
        OFFSET_OF(FILE_LOCK_INFO, EndingByte, 0x28)                                                                    \
    SIZE_OF(FILE_LOCK, 96)                                                                                             \
        OFFSET_OF(FILE_LOCK, CompleteLockIrpRoutine, 0x0) OFFSET_OF(FILE_LOCK, UnlockRoutine, 0x8)                     \
        OFFSET_OF(FILE_LOCK, FastIoIsQuestionable, 0x10) OFFSET_OF(FILE_LOCK, LockInformation, 0x18)                   \
        OFFSET_OF(FILE_LOCK, LastReturnedLockInfo, 0x20) OFFSET_OF(FILE_LOCK, LastReturnedLock, 0x50)                  \
        OFFSET_OF(FILE_LOCK, LockRequestsInProgress, 0x58)                                                             \
    SIZE_OF(SHARE_ACCESS, 28)                                                                                          \
        OFFSET_OF(SHARE_ACCESS, OpenCount, 0x0) OFFSET_OF(SHARE_ACCESS, Readers, 0x4)                                  \
        OFFSET_OF(SHARE_ACCESS, Writers, 0x8) OFFSET_OF(SHARE_ACCESS, Deleters, 0xC)                                   \
        OFFSET_OF(SHARE_ACCESS, SharedRead, 0x10) OFFSET_OF(SHARE_ACCESS, SharedWrite, 0x14)                           \
        OFFSET_OF(SHARE_ACCESS, SharedDelete, 0x18)                                                                    \
    SIZE_OF(RTL_SPLAY_LINKS, 24)                                                                                       \
        OFFSET_OF(RTL_SPLAY_LINKS, Parent, 0x0) OFFSET_OF(RTL_SPLAY_LINKS, LeftChild, 0x8)                             \
        OFFSET_OF(RTL_SPLAY_LINKS, RightChild, 0x10)                                                                   \
    SIZE_OF(UNICODE_PREFIX_TABLE_ENTRY, 56)                                                                            \
        OFFSET_OF(UNICODE_PREFIX_TABLE_ENTRY, NodeTypeCode, 0x0)                                                       \
        OFFSET_OF(UNICODE_PREFIX_TABLE_ENTRY, NameLength, 0x2)                                                         \
        OFFSET_OF(UNICODE_PREFIX_TABLE_ENTRY, NextPrefixTree, 0x8)                                                     \
        OFFSET_OF(UNICODE_PREFIX_TABLE_ENTRY, CaseMatch, 0x10) OFFSET_OF(UNICODE_PREFIX_TABLE_ENTRY, Links, 0x18)      \
        OFFSET_OF(UNICODE_PREFIX_TABLE_ENTRY, Prefix, 0x30)                                                            \
    SIZE_OF(UNICODE_PREFIX_TABLE, 24)                                                                                  \
        OFFSET_OF(UNICODE_PREFIX_TABLE, NodeTypeCode, 0x0) OFFSET_OF(UNICODE_PREFIX_TABLE, NameLength, 0x2)            \
        OFFSET_OF(UNICODE_PREFIX_TABLE, NextPrefixTree, 0x8) OFFSET_OF(UNICODE_PREFIX_TABLE, LastNextEntry, 0x10)      \
    SIZE_OF(QUERY_PATH_REQUEST_EX, 80)                                                                                 \
        OFFSET_OF(QUERY_PATH_REQUEST_EX, pSecurityContext, 0x0) OFFSET_OF(QUERY_PATH_REQUEST_EX, EaLength, 0x8)        \
        OFFSET_OF(QUERY_PATH_REQUEST_EX, pEaBuffer, 0x10) OFFSET_OF(QUERY_PATH_REQUEST_EX, PathName, 0x18)             \
        OFFSET_OF(QUERY_PATH_REQUEST_EX, DomainServiceName, 0x28) OFFSET_OF(QUERY_PATH_REQUEST_EX, Reserved, 0x38)     \
    SIZE_OF(QUERY_PATH_RESPONSE, 4)                                                                                    \
        OFFSET_OF(QUERY_PATH_RESPONSE, LengthAccepted, 0x0)

// clang-format on

#define RVFSD_LAYOUT(SIZE_OF, OFFSET_OF)                                                                               \
    RVFSD_LAYOUT_BASE(SIZE_OF, OFFSET_OF)                                                                              \
    RVFSD_LAYOUT_LOCKS(SIZE_OF, OFFSET_OF)                                                                             \
    RVFSD_LAYOUT_IRP(SIZE_OF, OFFSET_OF)                                                                               \
    RVFSD_LAYOUT_STACK(SIZE_OF, OFFSET_OF)                                                                             \
    RVFSD_LAYOUT_OBJECTS(SIZE_OF, OFFSET_OF)                                                                           \
    RVFSD_LAYOUT_FSRTL(SIZE_OF, OFFSET_OF)

#pragma GCC diagnostic push
// The advanced FCB header inherits from the common one; both compilers lay it out as the C structure.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
#define RVFSD_ASSERT_SIZE(Type, Bytes) static_assert(sizeof(Type) == Bytes, #Type);
#define RVFSD_ASSERT_FIELD(Type, Member, Offset) static_assert(offsetof(Type, Member) == Offset, #Type "." #Member);
RVFSD_LAYOUT(RVFSD_ASSERT_SIZE, RVFSD_ASSERT_FIELD)
static_assert(alignof(NPAGED_LOOKASIDE_LIST) == 64);
#undef RVFSD_ASSERT_FIELD
#undef RVFSD_ASSERT_SIZE
#pragma GCC diagnostic pop
