#include <algorithm>
#include <cstring>
#include <span>

#include "embedded/verifier/answers.h"
#include "embedded/verifier/faults.h"
#include "embedded/verifier/rules.h"
#include "embedded/zw/request.h"
#include "embedded/zw/zw.h"

namespace embedded {
namespace {

enum InformationClass : ULONG {
    ClassBasic = 4,
    ClassStandard = 5,
    ClassInternal = 6,
    ClassEa = 7,
    ClassAccess = 8,
    ClassName = 9,
    ClassRename = 10,
    ClassLink = 11,
    ClassDisposition = 13,
    ClassPosition = 14,
    ClassMode = 16,
    ClassAlignment = 17,
    ClassAll = 18,
    ClassAllocation = 19,
    ClassEndOfFile = 20,
    ClassAlternateName = 21,
    ClassStream = 22,
    ClassCompression = 28,
    ClassNetworkOpen = 34,
    ClassAttributeTag = 35,
    ClassValidDataLength = 39,
};

// What the I/O manager asks before the driver is called: the least length, and the access of the handle.
struct ClassRule {
    ULONG Class;
    ULONG MinimumLength;
    ACCESS_MASK Access;
};

constexpr ClassRule QueryRules[] = {
    {ClassBasic, 40, FILE_READ_ATTRIBUTES},
    {ClassStandard, 24, 0},
    {ClassInternal, 8, 0},
    {ClassEa, 4, 0},
    {ClassAccess, 4, 0},
    {ClassName, 8, 0},
    {ClassPosition, 8, 0},
    {ClassMode, 4, 0},
    {ClassAlignment, 4, 0},
    {ClassAll, 104, FILE_READ_ATTRIBUTES},
    {ClassAlternateName, 8, 0},
    {ClassStream, 32, 0},
    {ClassCompression, 16, 0},
    {ClassNetworkOpen, 56, FILE_READ_ATTRIBUTES},
    {ClassAttributeTag, 8, FILE_READ_ATTRIBUTES},
};

constexpr ClassRule SetRules[] = {
    {ClassBasic, 40, FILE_WRITE_ATTRIBUTES},
    {ClassRename, 24, DELETE},
    {ClassLink, 24, 0},
    {ClassDisposition, 1, DELETE},
    {ClassPosition, 8, FILE_READ_DATA | FILE_WRITE_DATA},
    {ClassAllocation, 8, FILE_WRITE_DATA},
    {ClassEndOfFile, 8, FILE_WRITE_DATA},
    {ClassValidDataLength, 8, FILE_WRITE_DATA},
};

constexpr ClassRule VolumeRules[] = {
    {1, 24, 0}, // volume
    {3, 24, 0}, // size
    {4, 8, 0},  // device
    {5, 16, 0}, // attribute
    {7, 32, 0}, // full size
};

NTSTATUS FindRule(std::span<const ClassRule> Rules, ULONG Class, ULONG Length, const ClassRule **Rule) {
    const auto Found =
        std::find_if(Rules.begin(), Rules.end(), [Class](const auto &Each) { return Each.Class == Class; });
    if (Found == Rules.end()) {
        return STATUS_INVALID_INFO_CLASS;
    }
    *Rule = &*Found;
    return Length < Found->MinimumLength ? STATUS_INFO_LENGTH_MISMATCH : STATUS_SUCCESS;
}

// Places in the record of all information that the I/O manager fills itself.
constexpr size_t AllAccess = 76;
constexpr size_t AllMode = 88;
constexpr size_t AllAlignment = 92;

ULONG ModeOf(const FILE_OBJECT &File) {
    const ULONG Flags = __atomic_load_n(&File.Flags, __ATOMIC_RELAXED);
    return ((Flags & FO_WRITE_THROUGH) ? FILE_WRITE_THROUGH : 0) |
           ((Flags & FO_SEQUENTIAL_ONLY) ? FILE_SEQUENTIAL_ONLY : 0) |
           ((Flags & FO_NO_INTERMEDIATE_BUFFERING) ? FILE_NO_INTERMEDIATE_BUFFERING : 0) |
           (!(Flags & FO_SYNCHRONOUS_IO) ? 0
            : (Flags & FO_ALERTABLE_IO)  ? FILE_SYNCHRONOUS_IO_ALERT
                                         : FILE_SYNCHRONOUS_IO_NONALERT);
}

NTSTATUS Answer(PIO_STATUS_BLOCK Iosb, PVOID To, const void *From, ULONG Length) {
    memcpy(To, From, Length);
    Iosb->Status = STATUS_SUCCESS;
    Iosb->Information = Length;
    return STATUS_SUCCESS;
}

// The classes that never reach a driver.
bool IsAnsweredHere(const FileObject &File, ULONG Class) {
    return Class == ClassAccess || Class == ClassMode || Class == ClassAlignment ||
           (Class == ClassPosition && File.IsSynchronous());
}

NTSTATUS AnswerHere(FileRequest &Request, ULONG Class, PVOID To, PIO_STATUS_BLOCK Iosb) {
    FileObject &File = Request.File();
    const ACCESS_MASK Access = Request.GrantedAccess();
    const ULONG Mode = ModeOf(File.Nt);
    switch (Class) {
    case ClassAccess:
        return Answer(Iosb, To, &Access, sizeof(Access));
    case ClassMode:
        return Answer(Iosb, To, &Mode, sizeof(Mode));
    case ClassPosition:
        return Answer(Iosb, To, &File.Nt.CurrentByteOffset, sizeof(LARGE_INTEGER));
    default:
        return Answer(Iosb, To, &File.Nt.DeviceObject->AlignmentRequirement, sizeof(ULONG));
    }
}

template <typename Record>
bool AskFast(BOOLEAN(NTAPI *Query)(PFILE_OBJECT, BOOLEAN, Record *, PIO_STATUS_BLOCK, PDEVICE_OBJECT),
             const char *Routine, FileObject &File, PVOID To, PIO_STATUS_BLOCK Iosb) {
    if (Query == nullptr) {
        return false;
    }
    Record Found{};
    const ULONG Garbage = Verifying() ? FillWithGarbage(&Found, sizeof(Found)) : 0;
    IO_STATUS_BLOCK Answered{};
    {
        RequireUnchanged Unchanged(DriverCall::FastIo, Routine);
        FaultScope Faults;
        bool Taken = false;
        OnDriverStack([&] { Taken = Query(&File.Nt, File.IsSynchronous(), &Found, &Answered, &File.Device->Nt); });
        if (!Taken) {
            return false;
        }
    }
    *Iosb = Answered; // of a failure too: this way is not the I/O manager's completion
    const auto Counted = std::min<ULONG_PTR>(Answered.Information, sizeof(Found));
    if (Garbage != 0) {
        CheckAnswer({IRP_MJ_MAXIMUM_FUNCTION + 1, 0, sizeof(Found)}, &Found, 0, Counted, Garbage, Routine);
    }
    memcpy(To, &Found, Counted);
    return true;
}

// The shortcut that the driver offers for two of the classes. False when it does not take it: a request follows.
bool IsAnsweredFast(FileObject &File, ULONG Class, PVOID To, PIO_STATUS_BLOCK Iosb) {
    const PFAST_IO_DISPATCH Table = File.Device->Nt.DriverObject->FastIoDispatch;
    if (Table == nullptr) {
        return false;
    }
    switch (Class) {
    case ClassBasic:
        return AskFast(Table->FastIoQueryBasicInfo, "FastIoQueryBasicInfo", File, To, Iosb);
    case ClassStandard:
        return AskFast(Table->FastIoQueryStandardInfo, "FastIoQueryStandardInfo", File, To, Iosb);
    default:
        return false;
    }
}

// ---- Rename --------------------------------------------------------------------------------------------------

struct RenameInformation {
    BOOLEAN ReplaceIfExists;
    HANDLE RootDirectory;
    ULONG FileNameLength;
    WCHAR FileName[1];
};
constexpr ULONG RenameNameOffset = 20;
static_assert(offsetof(RenameInformation, FileName) == RenameNameOffset);

// A name that leaves the file's own directory is opened first, as a target directory, and the driver gets that file
// object. Target stays null for a bare name.
NTSTATUS OpenRenameTarget(FileRequest &Request, const RenameInformation &Rename, ULONG Length, HANDLE *Handle,
                          Ref<FileObject> *Target) {
    if (Rename.FileNameLength == 0 || Rename.FileNameLength % 2 != 0 ||
        Rename.FileNameLength > Length - RenameNameOffset || Rename.FileNameLength > 0xFFFE) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Rename.FileName[0] != u'\\' && Rename.RootDirectory == nullptr) {
        return STATUS_SUCCESS;
    }
    UNICODE_STRING Name = ToUnicodeString({Rename.FileName, Rename.FileNameLength / sizeof(WCHAR)});
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, &Name, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, Rename.RootDirectory,
                               nullptr);
    CreateParameters Parameters;
    Parameters.ObjectAttributes = &Attributes;
    Parameters.DesiredAccess = FILE_WRITE_DATA | SYNCHRONIZE;
    Parameters.ShareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE;
    Parameters.Options = FILE_OPEN_FOR_BACKUP_INTENT;
    Parameters.StackFlags = SL_OPEN_TARGET_DIRECTORY;
    Parameters.Mode = Request.Irp().RequestorMode;
    Parameters.CheckParameters = false;
    const CreateResult Opened = CreateFile(Parameters);
    if (!NT_SUCCESS(Opened.Status)) {
        return Opened.Status;
    }
    *Handle = Opened.Handle;
    ObjectRef Found;
    const NTSTATUS Status = ReferenceHandle(Opened.Handle, ObjectType::File, 0, Parameters.Mode, &Found);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    *Target = std::move(Found).As<FileObject>();
    return (*Target)->Device.Get() == Request.File().Device.Get() ? STATUS_SUCCESS : STATUS_NOT_SAME_DEVICE;
}

NTSTATUS RunRename(FileRequest &Request, const void *Information, ULONG Length, PIO_STATUS_BLOCK Iosb) {
    const auto &Rename = *static_cast<const RenameInformation *>(Information);
    const KPROCESSOR_MODE Mode = Request.Irp().RequestorMode;
    HANDLE Handle = nullptr;
    Ref<FileObject> Target;
    NTSTATUS Status = OpenRenameTarget(Request, Rename, Length, &Handle, &Target);
    if (NT_SUCCESS(Status)) {
        Request.Stack().Parameters.SetFile.FileObject = Target ? &Target->Nt : nullptr;
        Request.Stack().Parameters.SetFile.ReplaceIfExists = Rename.ReplaceIfExists;
        Status = Request.RunToEnd(Iosb);
    }
    Target.Reset();
    if (Handle != nullptr) {
        static_cast<void>(CloseHandle(Handle, Mode));
    }
    return Status;
}

} // namespace
} // namespace embedded

using namespace embedded;

NTSTATUS NTAPI NtQueryInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,
                                      ULONG Length, ULONG FileInformationClass) noexcept {
    const ClassRule *Rule = nullptr;
    FileRequest Request;
    NTSTATUS Status = FindRule(QueryRules, FileInformationClass, Length, &Rule);
    if (NT_SUCCESS(Status)) {
        Status = Request.Begin(FileHandle, Rule->Access, PreviousMode(), IRP_MJ_QUERY_INFORMATION);
    }
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    if (IsAnsweredHere(Request.File(), FileInformationClass)) {
        return AnswerHere(Request, FileInformationClass, FileInformation, IoStatusBlock);
    }
    if (IsAnsweredFast(Request.File(), FileInformationClass, FileInformation, IoStatusBlock)) {
        return IoStatusBlock->Status;
    }
    if (Status = Request.UseSystemBuffer(Length, nullptr, 0, FileInformation, Length); !NT_SUCCESS(Status)) {
        return Status;
    }
    if (FileInformationClass == ClassAll) {
        auto *Bytes = static_cast<char *>(Request.Irp().AssociatedIrp.SystemBuffer);
        const ACCESS_MASK Access = Request.GrantedAccess();
        const ULONG Mode = ModeOf(Request.File().Nt);
        memcpy(Bytes + AllAccess, &Access, sizeof(Access));
        memcpy(Bytes + AllMode, &Mode, sizeof(Mode));
        memcpy(Bytes + AllAlignment, &Request.File().Nt.DeviceObject->AlignmentRequirement, sizeof(ULONG));
    }
    Request.Irp().Flags = Request.File().IsSynchronous() ? 0 : IRP_SYNCHRONOUS_API;
    Request.Stack().Parameters.QueryFile.Length = Length;
    Request.Stack().Parameters.QueryFile.FileInformationClass = FileInformationClass;
    return Request.RunToEnd(IoStatusBlock);
}

NTSTATUS NTAPI NtSetInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,
                                    ULONG Length, ULONG FileInformationClass) noexcept {
    const ClassRule *Rule = nullptr;
    FileRequest Request;
    NTSTATUS Status = FindRule(SetRules, FileInformationClass, Length, &Rule);
    if (NT_SUCCESS(Status)) {
        Status = Request.Begin(FileHandle, Rule->Access, PreviousMode(), IRP_MJ_SET_INFORMATION);
    }
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    if (FileInformationClass == ClassPosition) {
        LARGE_INTEGER Position;
        memcpy(&Position, FileInformation, sizeof(Position));
        if (!Request.File().IsSynchronous() || Position.QuadPart < 0) {
            return STATUS_INVALID_PARAMETER;
        }
        Request.File().Nt.CurrentByteOffset = Position;
        return Answer(IoStatusBlock, &Position, &Position, 0);
    }
    if (Status = Request.UseSystemBuffer(Length, FileInformation, Length, nullptr, 0); !NT_SUCCESS(Status)) {
        return Status;
    }
    Request.Irp().Flags = Request.File().IsSynchronous() ? 0 : IRP_SYNCHRONOUS_API;
    Request.Stack().Parameters.SetFile.Length = Length;
    Request.Stack().Parameters.SetFile.FileInformationClass = FileInformationClass;
    if (FileInformationClass == ClassRename || FileInformationClass == ClassLink) {
        return RunRename(Request, Request.Irp().AssociatedIrp.SystemBuffer, Length, IoStatusBlock);
    }
    return Request.RunToEnd(IoStatusBlock);
}

NTSTATUS NTAPI NtQueryVolumeInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FsInformation,
                                            ULONG Length, ULONG FsInformationClass) noexcept {
    const ClassRule *Rule = nullptr;
    FileRequest Request;
    NTSTATUS Status = FindRule(VolumeRules, FsInformationClass, Length, &Rule);
    if (NT_SUCCESS(Status)) {
        Status = Request.Begin(FileHandle, Rule->Access, PreviousMode(), IRP_MJ_QUERY_VOLUME_INFORMATION);
    }
    if (NT_SUCCESS(Status)) {
        Status = Request.UseSystemBuffer(Length, nullptr, 0, FsInformation, Length);
    }
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    Request.Irp().Flags = Request.File().IsSynchronous() ? 0 : IRP_SYNCHRONOUS_API;
    Request.Stack().Parameters.QueryVolume.Length = Length;
    Request.Stack().Parameters.QueryVolume.FsInformationClass = FsInformationClass;
    return Request.RunToEnd(IoStatusBlock);
}

NTSTATUS NTAPI NtQueryDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID,
                                    PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                                    ULONG FileInformationClass, BOOLEAN ReturnSingleEntry, PUNICODE_STRING FileName,
                                    BOOLEAN RestartScan) noexcept {
    FileRequest Request;
    NTSTATUS Status = Request.Begin(FileHandle, FILE_LIST_DIRECTORY, PreviousMode(), IRP_MJ_DIRECTORY_CONTROL,
                                    IRP_MN_QUERY_DIRECTORY);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    IO_STACK_LOCATION &Stack = Request.Stack();
    if (FileName != nullptr) {
        // A copy that lives as long as the request: the string, then its characters.
        Status = Request.UseSystemBuffer(sizeof(UNICODE_STRING) + FileName->Length, nullptr, 0, nullptr, 0);
        if (!NT_SUCCESS(Status)) {
            return Status;
        }
        auto *Pattern = static_cast<PUNICODE_STRING>(Request.Irp().AssociatedIrp.SystemBuffer);
        *Pattern = {FileName->Length, FileName->Length, reinterpret_cast<PWSTR>(Pattern + 1)};
        memcpy(Pattern->Buffer, FileName->Buffer, FileName->Length);
        Request.Irp().AssociatedIrp.SystemBuffer = nullptr;
        Request.Irp().Tail.Overlay.AuxiliaryBuffer = reinterpret_cast<PCHAR>(Pattern);
        Stack.Parameters.QueryDirectory.FileName = Pattern;
    }
    Request.Irp().UserBuffer = FileInformation;
    Stack.Flags =
        static_cast<UCHAR>((RestartScan ? SL_RESTART_SCAN : 0) | (ReturnSingleEntry ? SL_RETURN_SINGLE_ENTRY : 0));
    Stack.Parameters.QueryDirectory.Length = Length;
    Stack.Parameters.QueryDirectory.FileInformationClass = FileInformationClass;
    return Request.Run(Event, ApcRoutine, IoStatusBlock);
}

NTSTATUS NTAPI NtNotifyChangeDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID,
                                           PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                                           ULONG CompletionFilter, BOOLEAN WatchTree) noexcept {
    FileRequest Request;
    if (const NTSTATUS Status = Request.Begin(FileHandle, FILE_LIST_DIRECTORY, PreviousMode(), IRP_MJ_DIRECTORY_CONTROL,
                                              IRP_MN_NOTIFY_CHANGE_DIRECTORY);
        !NT_SUCCESS(Status)) {
        return Status;
    }
    Request.Irp().UserBuffer = Buffer;
    IO_STACK_LOCATION &Stack = Request.Stack();
    Stack.Flags = WatchTree ? SL_WATCH_TREE : 0;
    Stack.Parameters.NotifyDirectory.Length = Length;
    Stack.Parameters.NotifyDirectory.CompletionFilter = CompletionFilter;
    return Request.Run(Event, ApcRoutine, IoStatusBlock);
}
