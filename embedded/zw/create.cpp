#include <cstring>

#include "embedded/ex/ex.h"
#include "embedded/mup.h"
#include "embedded/system_volume.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/rules.h"
#include "embedded/verifier/zw_rules.h"
#include "embedded/zw/request.h"
#include "embedded/zw/zw.h"

namespace embedded {
namespace {

constexpr ULONG SynchronousOptions = FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT;
constexpr ULONG ValidOptions = 0x00FFFFFF;
constexpr ULONG ValidAttributes = 0x00007FB7;
constexpr ULONG ValidShare = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
// What may stand beside FILE_DIRECTORY_FILE.
constexpr ULONG DirectoryOptions = FILE_DIRECTORY_FILE | SynchronousOptions | FILE_WRITE_THROUGH |
                                   FILE_OPEN_FOR_BACKUP_INTENT | FILE_DELETE_ON_CLOSE | FILE_OPEN_REMOTE_INSTANCE |
                                   FILE_COMPLETE_IF_OPLOCKED | FILE_OPEN_BY_FILE_ID | FILE_NO_COMPRESSION |
                                   FILE_OPEN_REPARSE_POINT | FILE_CREATE_TREE_CONNECTION | FILE_OPEN_NO_RECALL;

struct Generic {
    ACCESS_MASK Bit;
    ACCESS_MASK Access;
};
constexpr Generic GenericMapping[] = {
    {GENERIC_READ, FILE_GENERIC_READ},
    {GENERIC_WRITE, FILE_GENERIC_WRITE},
    {GENERIC_EXECUTE, FILE_GENERIC_EXECUTE},
    {GENERIC_ALL, FILE_ALL_ACCESS},
};

ACCESS_MASK MapGeneric(ACCESS_MASK Access) {
    for (const Generic &Each : GenericMapping) {
        if (Access & Each.Bit) {
            Access = (Access & ~Each.Bit) | Each.Access;
        }
    }
    return Access;
}

struct FlagPair {
    ULONG Option;
    ULONG FileFlag;
};
constexpr FlagPair FileFlags[] = {
    {FILE_SYNCHRONOUS_IO_ALERT, FO_SYNCHRONOUS_IO | FO_ALERTABLE_IO},
    {FILE_SYNCHRONOUS_IO_NONALERT, FO_SYNCHRONOUS_IO},
    {FILE_NO_INTERMEDIATE_BUFFERING, FO_NO_INTERMEDIATE_BUFFERING},
    {FILE_WRITE_THROUGH, FO_WRITE_THROUGH},
    {FILE_SEQUENTIAL_ONLY, FO_SEQUENTIAL_ONLY},
    {FILE_RANDOM_ACCESS, FileRandomAccess},
};

ULONG FlagsOf(const CreateParameters &Parameters) {
    ULONG Flags = 0;
    for (const FlagPair &Each : FileFlags) {
        Flags |= (Parameters.Options & Each.Option) ? Each.FileFlag : 0;
    }
    return Flags | ((Parameters.ObjectAttributes->Attributes & OBJ_CASE_INSENSITIVE) ? 0 : FileOpenedCaseSensitive);
}

// The checks that the I/O manager makes for callers in user mode.
bool AreValid(const CreateParameters &Parameters) {
    const ULONG Options = Parameters.Options;
    const ACCESS_MASK Access = Parameters.DesiredAccess;
    const ULONG Disposition = Parameters.Disposition;
    const bool Rules[] = {
        (Parameters.FileAttributes & ~ValidAttributes) == 0,
        (Parameters.ShareAccess & ~ValidShare) == 0,
        Disposition <= FILE_OVERWRITE_IF,
        (Options & ~ValidOptions) == 0,
        (Options & SynchronousOptions) == 0 || (Access & SYNCHRONIZE) != 0,
        (Options & SynchronousOptions) != SynchronousOptions,
        (Options & FILE_DELETE_ON_CLOSE) == 0 || (Access & DELETE) != 0,
        (Options & FILE_DIRECTORY_FILE) == 0 ||
            ((Options & ~DirectoryOptions) == 0 &&
             (Disposition == FILE_CREATE || Disposition == FILE_OPEN || Disposition == FILE_OPEN_IF)),
        (Options & FILE_COMPLETE_IF_OPLOCKED) == 0 || (Options & FILE_RESERVE_OPFILTER) == 0,
        (Options & FILE_NO_INTERMEDIATE_BUFFERING) == 0 || (Access & FILE_APPEND_DATA) == 0 ||
            (Access & FILE_WRITE_DATA) != 0,
        Parameters.AllocationSize == nullptr || Parameters.AllocationSize->QuadPart >= 0,
    };
    for (const bool Rule : Rules) {
        if (!Rule) {
            return false;
        }
    }
    return true;
}

// Where an open goes: a device with the rest of the name, or the system volume.
struct Destination {
    Ref<DeviceObject> Device;
    Ref<FileObject> Related;
    std::u16string_view Name;
    bool SystemVolume = false;
    ParsedName Parsed;
};

NTSTATUS FindRelative(const CreateParameters &Parameters, Destination *To) {
    ObjectRef Root;
    if (const NTSTATUS Status =
            ReferenceHandle(Parameters.ObjectAttributes->RootDirectory, ObjectType::File, 0, Parameters.Mode, &Root);
        !NT_SUCCESS(Status)) {
        return Status;
    }
    To->Related = std::move(Root).As<FileObject>();
    To->Device = To->Related->Device;
    To->Name = View(Parameters.ObjectAttributes->ObjectName);
    return STATUS_SUCCESS;
}

NTSTATUS FindDestination(const CreateParameters &Parameters, PIO_SECURITY_CONTEXT Security, Destination *To) {
    if (Parameters.ObjectAttributes->RootDirectory != nullptr) {
        return FindRelative(Parameters, To);
    }
    const bool CaseInsensitive = (Parameters.ObjectAttributes->Attributes & OBJ_CASE_INSENSITIVE) != 0;
    const NTSTATUS Status = LookupName(View(Parameters.ObjectAttributes->ObjectName), CaseInsensitive, &To->Parsed);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    To->Name = To->Parsed.Remaining;
    switch (To->Parsed.Target->Type()) {
    case ObjectType::Device:
        To->Device = std::move(To->Parsed.Target).As<DeviceObject>();
        return STATUS_SUCCESS;
    case ObjectType::UncProvider:
        To->Device = DeviceOfProvider(*To->Parsed.Target.Get());
        return STATUS_SUCCESS;
    case ObjectType::Mup:
        return To->Name.size() < 2 ? STATUS_BAD_NETWORK_PATH : ResolveUncPath(To->Name, Security, &To->Device);
    case ObjectType::SystemVolume:
        To->SystemVolume = true;
        return STATUS_SUCCESS;
    default:
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
}

void FillCreateIrp(IrpBlock &Block, const CreateParameters &Parameters, FileObject &File,
                   PIO_SECURITY_CONTEXT Security) {
    IRP &Irp = Block.Irp;
    Irp.Flags = IRP_CREATE_OPERATION | IRP_SYNCHRONOUS_API;
    Irp.RequestorMode = Parameters.Mode;
    Irp.Tail.Overlay.OriginalFileObject = &File.Nt;
    if (Parameters.AllocationSize != nullptr) {
        Irp.Overlay.AllocationSize = *Parameters.AllocationSize;
    }
    IO_STACK_LOCATION &Stack = *Irp.Tail.Overlay.CurrentStackLocation;
    Stack.MajorFunction = IRP_MJ_CREATE;
    Stack.FileObject = &File.Nt;
    Stack.Flags =
        static_cast<UCHAR>(Parameters.StackFlags | ((File.Nt.Flags & FileOpenedCaseSensitive) ? SL_CASE_SENSITIVE : 0));
    Stack.Parameters.Create.SecurityContext = Security;
    Stack.Parameters.Create.Options = (Parameters.Disposition << 24) | (Parameters.Options & ValidOptions);
    Stack.Parameters.Create.FileAttributes = static_cast<USHORT>(Parameters.FileAttributes);
    Stack.Parameters.Create.ShareAccess = static_cast<USHORT>(Parameters.ShareAccess);
    Stack.Parameters.Create.EaLength = Parameters.EaLength;
}

// The extended attributes in a buffer of the system's, or success without one.
NTSTATUS CopyEa(IrpBlock &Block, const CreateParameters &Parameters) {
    if (Parameters.EaLength == 0) {
        return STATUS_SUCCESS;
    }
    Block.SystemBuffer = AllocatePool(PoolKind::Object, NonPagedPoolNx, Parameters.EaLength, MakeTag("IoEa"));
    if (Block.SystemBuffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    memcpy(Block.SystemBuffer, Parameters.EaBuffer, Parameters.EaLength);
    Block.Irp.AssociatedIrp.SystemBuffer = Block.SystemBuffer;
    return STATUS_SUCCESS;
}

CreateResult OpenOnDevice(Destination &To, const CreateParameters &Parameters, PIO_SECURITY_CONTEXT Security) {
    CreateResult Result;
    DeviceObject &Device = *To.Device.Get();
    if (Result.Status = Device.BeginOpen(); !NT_SUCCESS(Result.Status)) {
        return Result;
    }
    const auto File = Ref<FileObject>::Adopt(FileObject::Create(To.Device, To.Name, FlagsOf(Parameters)));
    if (!File) {
        Device.EndOpen();
        Result.Status = STATUS_INSUFFICIENT_RESOURCES;
        return Result;
    }
    // Valid during the create only.
    File->Nt.RelatedFileObject = To.Related ? &To.Related->Nt : nullptr;
    {
        const IrpHolder Block(AllocateIrp(Device));
        FillCreateIrp(*Block, Parameters, *File.Get(), Security);
        if (Result.Status = CopyEa(*Block, Parameters); !NT_SUCCESS(Result.Status)) {
            return Result;
        }
        Result.Asked = true;
        Result.Status = CallDriverAndWait(Device, *Block);
        Result.Information = Block->FinalInformation;
    }
    File->Nt.RelatedFileObject = nullptr;
    if (Result.Status == STATUS_REPARSE) {
        Result.Status = STATUS_NOT_IMPLEMENTED; // reparsing is not simulated
    }
    if (!NT_SUCCESS(Result.Status)) {
        return Result;
    }
    File->Opened = true;
    File->Nt.Flags |= FO_FILE_OPEN;
    const ACCESS_MASK Granted =
        Security->DesiredAccess | ((Security->DesiredAccess & MAXIMUM_ALLOWED) ? FILE_ALL_ACCESS : 0);
    const NTSTATUS Status =
        InsertHandle(*File.Get(), Granted, Parameters.ObjectAttributes->Attributes, Parameters.Mode, &Result.Handle);
    if (!NT_SUCCESS(Status)) {
        Result.Status = Status;
    }
    return Result;
}

} // namespace

CreateResult CreateFile(const CreateParameters &Parameters) noexcept {
    RequireIrql(IrqlRuleOf("NtCreateFile"));
    CreateResult Result;
    if (Parameters.ObjectAttributes == nullptr || Parameters.ObjectAttributes->Length != sizeof(OBJECT_ATTRIBUTES) ||
        (Parameters.Mode == UserMode && Parameters.CheckParameters && !AreValid(Parameters))) {
        Result.Status = STATUS_INVALID_PARAMETER;
        return Result;
    }
    if (const PCUNICODE_STRING Name = Parameters.ObjectAttributes->ObjectName; Name != nullptr && (Name->Length & 1)) {
        Result.Status = STATUS_OBJECT_NAME_INVALID;
        return Result;
    }
    ACCESS_STATE State{};
    State.OriginalDesiredAccess = Parameters.DesiredAccess;
    State.RemainingDesiredAccess = MapGeneric(Parameters.DesiredAccess);
    State.SecurityDescriptor = Parameters.ObjectAttributes->SecurityDescriptor;
    if (Parameters.ObjectAttributes->ObjectName != nullptr) {
        State.ObjectName = *Parameters.ObjectAttributes->ObjectName;
    }
    IO_SECURITY_CONTEXT Security{};
    Security.AccessState = &State;
    Security.DesiredAccess = State.RemainingDesiredAccess;
    Security.FullCreateOptions = Parameters.Options;

    Destination To;
    if (Result.Status = FindDestination(Parameters, &Security, &To); !NT_SUCCESS(Result.Status)) {
        return Result;
    }
    return To.SystemVolume ? CreateSystemFile(To.Name, Parameters) : OpenOnDevice(To, Parameters, &Security);
}

} // namespace embedded

using namespace embedded;

namespace {

NTSTATUS CreateFor(KPROCESSOR_MODE Mode, PHANDLE FileHandle, PIO_STATUS_BLOCK Iosb, CreateParameters Parameters) {
    if (Mode == KernelMode) {
        CheckZwPointers("ZwCreateFile", FileHandle, Iosb, Parameters.ObjectAttributes, Parameters.AllocationSize);
        CheckZwString(Parameters.ObjectAttributes->ObjectName);
    }
    Parameters.Mode = Mode;
    const CreateResult Result = CreateFile(Parameters);
    if (!NT_ERROR(Result.Status)) {
        Iosb->Status = Result.Status;
        Iosb->Information = Result.Information;
    }
    if (NT_SUCCESS(Result.Status)) {
        *FileHandle = Result.Handle;
    }
    return Result.Status;
}

} // namespace

NTSTATUS NTAPI NtCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                            PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                            ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                            ULONG EaLength) noexcept {
    return CreateFor(PreviousMode(), FileHandle, IoStatusBlock,
                     {ObjectAttributes, DesiredAccess, AllocationSize, FileAttributes, ShareAccess, CreateDisposition,
                      CreateOptions, EaBuffer, EaLength});
}

NTSTATUS NTAPI ZwCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                            PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                            ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                            ULONG EaLength) noexcept {
    return CreateFor(KernelMode, FileHandle, IoStatusBlock,
                     {ObjectAttributes, DesiredAccess, AllocationSize, FileAttributes, ShareAccess, CreateDisposition,
                      CreateOptions, EaBuffer, EaLength});
}

NTSTATUS NTAPI NtOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                          PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions) noexcept {
    return NtCreateFile(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, nullptr, 0, ShareAccess, FILE_OPEN,
                        OpenOptions, nullptr, 0);
}

NTSTATUS NTAPI ZwOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                          PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions) noexcept {
    return ZwCreateFile(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, nullptr, 0, ShareAccess, FILE_OPEN,
                        OpenOptions, nullptr, 0);
}

NTSTATUS NTAPI ZwDeleteFile(POBJECT_ATTRIBUTES ObjectAttributes) noexcept {
    RequireIrql(IrqlRuleOf("ZwDeleteFile"));
    CheckZwPointers("ZwDeleteFile", ObjectAttributes);
    CheckZwString(ObjectAttributes->ObjectName);
    ParsedName Parsed;
    if (const NTSTATUS Status = LookupName(View(ObjectAttributes->ObjectName), true, &Parsed); !NT_SUCCESS(Status)) {
        return Status;
    }
    if (Parsed.Target->Type() == ObjectType::SystemVolume) {
        return DeleteSystemFile(Parsed.Remaining);
    }
    // Elsewhere it is an open that deletes when it is closed.
    HANDLE Handle = nullptr;
    IO_STATUS_BLOCK Iosb;
    const NTSTATUS Status = ZwCreateFile(&Handle, DELETE, ObjectAttributes, &Iosb, nullptr, 0,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN,
                                         FILE_DELETE_ON_CLOSE, nullptr, 0);
    return NT_SUCCESS(Status) ? ZwClose(Handle) : Status;
}
