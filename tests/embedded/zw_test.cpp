#include "embedded/zw.h"

#include <thread>

#include "embedded/ps.h"
#include "embedded/system_volume.h"
#include "io_fixture.h"

namespace {

using namespace embedded;
using namespace iotest;

class ZwTest : public IoTest {
protected:
    static LARGE_INTEGER At(LONGLONG Offset) {
        LARGE_INTEGER Value;
        Value.QuadPart = Offset;
        return Value;
    }
    // Opens a file of the driver's; the test fails when it cannot.
    static HANDLE OpenFile(ULONG Options = FILE_SYNCHRONOUS_IO_NONALERT, ACCESS_MASK Access = FILE_ALL_ACCESS) {
        const CreateResult Result = Open(u"\\Device\\RvFsd\\srv\\vol\\f", Options, Access);
        EXPECT_EQ(Result.Status, STATUS_SUCCESS);
        return Result.Handle;
    }
    IO_STATUS_BLOCK Iosb{};
};

TEST_F(ZwTest, AnObjectNameOfHalfACharacterIsInvalid) {
    UNICODE_STRING Name = ToUnicodeString(u"\\Device\\RvFsd\\f");
    --Name.Length;
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, &Name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    HANDLE Handle;
    IO_STATUS_BLOCK Iosb;
    EXPECT_EQ(NtOpenFile(&Handle, FILE_READ_DATA, &Attributes, &Iosb, 0, 0), STATUS_OBJECT_NAME_INVALID);
}

TEST_F(ZwTest, AnOpenReachesTheDriverWithNameFlagsAndAccess) {
    std::u16string Name;
    ULONG Options = 0, FileFlags = 0, IrpFlags = 0;
    ACCESS_MASK Access = 0;
    LONGLONG Allocation = 0;
    Handlers[IRP_MJ_CREATE] = [&](PIRP Irp) {
        const auto &Stack = *IoGetCurrentIrpStackLocation(Irp);
        Name = View(&Stack.FileObject->FileName);
        Options = Stack.Parameters.Create.Options;
        Access = Stack.Parameters.Create.SecurityContext->DesiredAccess;
        FileFlags = Stack.FileObject->Flags;
        IrpFlags = Irp->Flags;
        Allocation = Irp->Overlay.AllocationSize.QuadPart;
        EXPECT_EQ(Irp->RequestorMode, UserMode);
        EXPECT_TRUE(IoIsOperationSynchronous(Irp));
        return Complete(Irp, STATUS_SUCCESS, FILE_CREATED);
    };
    UNICODE_STRING Path = ToUnicodeString(u"\\device\\RVFSD\\srv\\vol\\a.txt");
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, &Path, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    HANDLE Handle = nullptr;
    LARGE_INTEGER Size = At(4096);
    ASSERT_EQ(NtCreateFile(&Handle, GENERIC_READ | SYNCHRONIZE, &Attributes, &Iosb, &Size, FILE_ATTRIBUTE_NORMAL,
                           FILE_SHARE_READ, FILE_OPEN_IF, FILE_SYNCHRONOUS_IO_ALERT | FILE_WRITE_THROUGH, nullptr, 0),
              STATUS_SUCCESS);
    EXPECT_EQ(Name, u"\\srv\\vol\\a.txt");
    EXPECT_EQ(Options, (ULONG{FILE_OPEN_IF} << 24) | FILE_SYNCHRONOUS_IO_ALERT | FILE_WRITE_THROUGH);
    EXPECT_EQ(Access, ULONG{FILE_GENERIC_READ});
    EXPECT_EQ(FileFlags, ULONG{FO_SYNCHRONOUS_IO | FO_ALERTABLE_IO | FO_WRITE_THROUGH});
    EXPECT_EQ(IrpFlags, ULONG{IRP_CREATE_OPERATION | IRP_SYNCHRONOUS_API});
    EXPECT_EQ(Allocation, 4096);
    EXPECT_EQ(Iosb.Information, ULONG_PTR{FILE_CREATED});
    EXPECT_EQ(NtClose(Handle), STATUS_SUCCESS);
    EXPECT_EQ(Seen, (std::vector<UCHAR>{IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
}

TEST_F(ZwTest, AFailedOpenIsNeitherCleanedUpNorClosed) {
    Handlers[IRP_MJ_CREATE] = [](PIRP Irp) { return Complete(Irp, STATUS_OBJECT_NAME_NOT_FOUND, FILE_DOES_NOT_EXIST); };
    const CreateResult Result = Open(u"\\Device\\RvFsd\\srv\\vol\\x");
    EXPECT_EQ(Result.Status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Result.Information, ULONG_PTR{FILE_DOES_NOT_EXIST});
    EXPECT_EQ(Seen, (std::vector<UCHAR>{IRP_MJ_CREATE}));
}

TEST_F(ZwTest, ARelativeOpenHasItsRootDuringTheCreateOnly) {
    const HANDLE Root = OpenFile(FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
    PFILE_OBJECT Related = nullptr, Opened = nullptr;
    Handlers[IRP_MJ_CREATE] = [&](PIRP Irp) {
        Opened = IoGetCurrentIrpStackLocation(Irp)->FileObject;
        Related = Opened->RelatedFileObject;
        EXPECT_EQ(View(&Opened->FileName), u"sub\\f");
        return Complete(Irp, STATUS_SUCCESS, FILE_OPENED);
    };
    const CreateResult Result = Open(u"sub\\f", FILE_SYNCHRONOUS_IO_NONALERT, FILE_ALL_ACCESS, Root);
    ASSERT_EQ(Result.Status, STATUS_SUCCESS);
    ASSERT_NE(Related, nullptr);
    EXPECT_EQ(View(&Related->FileName), u"\\srv\\vol\\f");
    EXPECT_EQ(Opened->RelatedFileObject, nullptr);
    NtClose(Result.Handle);
    NtClose(Root);
}

TEST_F(ZwTest, BadArgumentsStopAtTheIoManagerUnlessTheChecksAreOff) {
    struct {
        ULONG Options;
        ULONG Disposition;
        ACCESS_MASK Access;
    } const Cases[] = {
        {0, 6, FILE_READ_DATA},
        {FILE_SYNCHRONOUS_IO_NONALERT, FILE_OPEN, FILE_READ_DATA},
        {FILE_SYNCHRONOUS_IO_NONALERT | FILE_SYNCHRONOUS_IO_ALERT, FILE_OPEN, SYNCHRONIZE},
        {FILE_DELETE_ON_CLOSE, FILE_OPEN, FILE_READ_DATA},
        {FILE_DIRECTORY_FILE | FILE_NON_DIRECTORY_FILE, FILE_OPEN, FILE_READ_DATA},
        {FILE_DIRECTORY_FILE, FILE_SUPERSEDE, FILE_READ_DATA},
        {FILE_NO_INTERMEDIATE_BUFFERING, FILE_OPEN, FILE_APPEND_DATA},
        {0x01000000, FILE_OPEN, FILE_READ_DATA},
    };
    UNICODE_STRING Path = ToUnicodeString(u"\\Device\\RvFsd\\srv\\vol\\x");
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, &Path, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    for (const auto &Case : Cases) {
        CreateParameters Parameters;
        Parameters.ObjectAttributes = &Attributes;
        Parameters.DesiredAccess = Case.Access;
        Parameters.Options = Case.Options;
        Parameters.Disposition = Case.Disposition;
        Seen.clear();
        EXPECT_EQ(CreateFile(Parameters).Status, STATUS_INVALID_PARAMETER) << Case.Options;
        EXPECT_TRUE(Seen.empty());
        Parameters.CheckParameters = false;
        const CreateResult Result = CreateFile(Parameters);
        EXPECT_EQ(Result.Status, STATUS_SUCCESS) << Case.Options;
        NtClose(Result.Handle);
    }
}

TEST_F(ZwTest, ReadsGoWhereTheCallerSays) {
    struct Call {
        LONGLONG Offset;
        ULONG Length;
        ULONG Key;
        PVOID Buffer;
    };
    std::vector<Call> Calls;
    Handlers[IRP_MJ_READ] = [&](PIRP Irp) {
        auto &Stack = *IoGetCurrentIrpStackLocation(Irp);
        Calls.push_back({Stack.Parameters.Read.ByteOffset.QuadPart, Stack.Parameters.Read.Length,
                         Stack.Parameters.Read.Key, Irp->UserBuffer});
        Stack.FileObject->CurrentByteOffset.QuadPart = Stack.Parameters.Read.ByteOffset.QuadPart + 10;
        return Complete(Irp, STATUS_SUCCESS, 10);
    };
    const HANDLE Handle = OpenFile();
    char Buffer[16];
    LARGE_INTEGER Offset = At(100), Pointer;
    Pointer.LowPart = FILE_USE_FILE_POINTER_POSITION;
    Pointer.HighPart = -1;
    ULONG Key = 5;
    EXPECT_EQ(NtReadFile(Handle, nullptr, nullptr, nullptr, &Iosb, Buffer, 16, &Offset, &Key), STATUS_SUCCESS);
    EXPECT_EQ(Iosb.Information, 10u);
    EXPECT_EQ(NtReadFile(Handle, nullptr, nullptr, nullptr, &Iosb, Buffer, 8, nullptr, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(NtReadFile(Handle, nullptr, nullptr, nullptr, &Iosb, Buffer, 4, &Pointer, nullptr), STATUS_SUCCESS);
    ASSERT_EQ(Calls.size(), 3u);
    EXPECT_EQ(Calls[0].Offset, 100);
    EXPECT_EQ(Calls[0].Length, 16u);
    EXPECT_EQ(Calls[0].Key, 5u);
    EXPECT_EQ(Calls[0].Buffer, Buffer);
    EXPECT_EQ(Calls[1].Offset, 110);
    EXPECT_EQ(Calls[2].Offset, 120);
    LARGE_INTEGER Negative = At(-5);
    EXPECT_EQ(NtReadFile(Handle, nullptr, nullptr, nullptr, &Iosb, Buffer, 4, &Negative, nullptr),
              STATUS_INVALID_PARAMETER);
    NtClose(Handle);
}

TEST_F(ZwTest, WritesAtTheEndKeepTheirMarker) {
    LONGLONG Offset = 0;
    Handlers[IRP_MJ_WRITE] = [&](PIRP Irp) {
        Offset = IoGetCurrentIrpStackLocation(Irp)->Parameters.Write.ByteOffset.QuadPart;
        return Complete(Irp, STATUS_SUCCESS, 1);
    };
    const HANDLE Handle = OpenFile();
    LARGE_INTEGER End;
    End.LowPart = FILE_WRITE_TO_END_OF_FILE;
    End.HighPart = -1;
    EXPECT_EQ(NtWriteFile(Handle, nullptr, nullptr, nullptr, &Iosb, &End, 1, &End, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(Offset, -1);
    NtClose(Handle);

    const HANDLE Append = OpenFile(FILE_SYNCHRONOUS_IO_NONALERT, FILE_APPEND_DATA | SYNCHRONIZE);
    LARGE_INTEGER Start = At(0);
    Offset = 0;
    EXPECT_EQ(NtWriteFile(Append, nullptr, nullptr, nullptr, &Iosb, &End, 1, &Start, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(Offset, -1) << "a handle that may only append writes at the end";
    NtClose(Append);
}

TEST_F(ZwTest, AHandleWithoutTheAccessIsRefusedBeforeTheDriver) {
    const HANDLE Handle = OpenFile(FILE_SYNCHRONOUS_IO_NONALERT, FILE_READ_ATTRIBUTES | SYNCHRONIZE);
    char Byte = 0;
    LARGE_INTEGER Zero = At(0), One = At(1);
    Seen.clear();
    EXPECT_EQ(NtReadFile(Handle, nullptr, nullptr, nullptr, &Iosb, &Byte, 1, &Zero, nullptr), STATUS_ACCESS_DENIED);
    EXPECT_EQ(NtWriteFile(Handle, nullptr, nullptr, nullptr, &Iosb, &Byte, 1, &Zero, nullptr), STATUS_ACCESS_DENIED);
    EXPECT_EQ(NtFlushBuffersFile(Handle, &Iosb), STATUS_ACCESS_DENIED);
    EXPECT_EQ(NtLockFile(Handle, nullptr, nullptr, nullptr, &Iosb, &Zero, &One, 0, TRUE, TRUE), STATUS_ACCESS_DENIED);
    EXPECT_EQ(NtFsControlFile(Handle, nullptr, nullptr, nullptr, &Iosb, FSCTL_SET_COMPRESSION, nullptr, 0, nullptr, 0),
              STATUS_ACCESS_DENIED);
    EXPECT_TRUE(Seen.empty());
    NtClose(Handle);
}

TEST_F(ZwTest, LocksCarryRangeKeyAndFlags) {
    const HANDLE Handle = OpenFile();
    Handlers[IRP_MJ_LOCK_CONTROL] = [](PIRP Irp) {
        const auto &Stack = *IoGetCurrentIrpStackLocation(Irp);
        EXPECT_EQ(Stack.Parameters.LockControl.ByteOffset.QuadPart, 7);
        EXPECT_EQ(Stack.Parameters.LockControl.Length->QuadPart, 9);
        EXPECT_EQ(Stack.Parameters.LockControl.Key, 3u);
        EXPECT_EQ(Stack.Flags, Stack.MinorFunction == IRP_MN_LOCK ? SL_FAIL_IMMEDIATELY | SL_EXCLUSIVE_LOCK : 0);
        EXPECT_TRUE(Stack.FileObject->LockOperation);
        return Complete(Irp, STATUS_SUCCESS);
    };
    LARGE_INTEGER Offset = At(7), Length = At(9);
    EXPECT_EQ(NtLockFile(Handle, nullptr, nullptr, nullptr, &Iosb, &Offset, &Length, 3, TRUE, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(NtUnlockFile(Handle, &Iosb, &Offset, &Length, 3), STATUS_SUCCESS);
    NtClose(Handle);
}

TEST_F(ZwTest, APendedReadOfASynchronousFileIsWaitedFor) {
    PIRP Waiting = nullptr;
    KEVENT Arrived;
    KeInitializeEvent(&Arrived, NotificationEvent, FALSE);
    Handlers[IRP_MJ_READ] = [&](PIRP Irp) {
        IoMarkIrpPending(Irp);
        Waiting = Irp;
        KeSetEvent(&Arrived, 0, FALSE);
        return STATUS_PENDING;
    };
    const HANDLE Handle = OpenFile();
    std::thread Server([&] {
        KeWaitForSingleObject(&Arrived, Executive, KernelMode, FALSE, nullptr);
        Complete(Waiting, STATUS_END_OF_FILE);
    });
    char Byte;
    LARGE_INTEGER Zero = At(0);
    Iosb.Status = 77;
    EXPECT_EQ(NtReadFile(Handle, nullptr, nullptr, nullptr, &Iosb, &Byte, 1, &Zero, nullptr), STATUS_END_OF_FILE);
    EXPECT_EQ(Iosb.Status, 77) << "a failure is told by the return alone";
    Server.join();
    NtClose(Handle);
}

TEST_F(ZwTest, AnAsynchronousReadPendsAndSignalsItsEvent) {
    PIRP Waiting = nullptr;
    Handlers[IRP_MJ_READ] = [&](PIRP Irp) {
        EXPECT_FALSE(IoIsOperationSynchronous(Irp));
        IoMarkIrpPending(Irp);
        Waiting = Irp;
        return STATUS_PENDING;
    };
    const HANDLE Handle = OpenFile(0);
    HANDLE Event;
    ASSERT_EQ(CreateEventHandle(NotificationEvent, true, &Event), STATUS_SUCCESS);
    char Byte;
    LARGE_INTEGER Zero = At(0);
    EXPECT_EQ(NtReadFile(Handle, Event, nullptr, nullptr, &Iosb, &Byte, 1, nullptr, nullptr), STATUS_INVALID_PARAMETER)
        << "an asynchronous file has no position";
    ASSERT_EQ(NtReadFile(Handle, Event, nullptr, nullptr, &Iosb, &Byte, 1, &Zero, nullptr), STATUS_PENDING);
    LARGE_INTEGER Now = At(0);
    EXPECT_EQ(NtWaitForSingleObject(Event, FALSE, &Now), STATUS_TIMEOUT);
    NtClose(Handle); // the request keeps the file object: cleanup now, close when it is done
    EXPECT_EQ(Seen.back(), IRP_MJ_CLEANUP);
    Complete(Waiting, STATUS_SUCCESS, 1);
    EXPECT_EQ(NtWaitForSingleObject(Event, FALSE, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(Iosb.Information, 1u);
    EXPECT_EQ(Seen.back(), IRP_MJ_CLOSE);
    NtClose(Event);
}

// What a driver counts and does not write is reported: a run at once, a single byte when it is no chance any more.
TEST_F(ZwTest, AnAnswerMayNotCountBytesThatWereNotWritten) {
    size_t Written = 40;
    size_t Hole = 40;
    Handlers[IRP_MJ_QUERY_INFORMATION] = [&](PIRP Irp) {
        auto *Bytes = static_cast<char *>(Irp->AssociatedIrp.SystemBuffer);
        for (size_t Index = 0; Index < Written; ++Index) {
            Bytes[Index] = Index == Hole ? Bytes[Index] : 7;
        }
        return Complete(Irp, STATUS_SUCCESS, 40);
    };
    const HANDLE Handle = OpenFile();
    const auto Ask = [&](int Times) {
        char Answer[40];
        for (; Times > 0; --Times) {
            NtQueryInformationFile(Handle, &Iosb, Answer, sizeof(Answer), 4);
        }
    };
    Ask(20); // all written: nobody complains
    Written = 36;
    EXPECT_DEATH(Ask(1), "STOP 0x000000C4 .0x00000000000F0006.*counts byte 36,");
    Written = 40;
    Hole = 17;
    EXPECT_DEATH(Ask(4), "STOP 0x000000C4 .0x00000000000F0006.*counts byte 17,");
    NtClose(Handle);
}

TEST_F(ZwTest, RequestsOnASynchronousFileComeOneAtATime) {
    std::atomic<int> Inside{0}, Most{0};
    Handlers[IRP_MJ_READ] = [&](PIRP Irp) {
        Most = std::max(Most.load(), ++Inside);
        std::this_thread::yield();
        --Inside;
        return Complete(Irp, STATUS_SUCCESS, 1);
    };
    const HANDLE Handle = OpenFile();
    auto Read = [&] {
        for (int Round = 0; Round < 300; ++Round) {
            char Byte;
            IO_STATUS_BLOCK Block;
            LARGE_INTEGER Zero = At(0);
            EXPECT_EQ(NtReadFile(Handle, nullptr, nullptr, nullptr, &Block, &Byte, 1, &Zero, nullptr), STATUS_SUCCESS);
        }
    };
    std::thread First(Read), Second(Read);
    First.join();
    Second.join();
    EXPECT_EQ(Most.load(), 1);
    NtClose(Handle);
}

TEST_F(ZwTest, QueriesCopyBackExactlyWhatTheDriverReports) {
    NTSTATUS Answer = STATUS_SUCCESS;
    Handlers[IRP_MJ_QUERY_INFORMATION] = [&](PIRP Irp) {
        memset(Irp->AssociatedIrp.SystemBuffer, 'x', 24);
        return Complete(Irp, Answer, 10);
    };
    const HANDLE Handle = OpenFile();
    for (const NTSTATUS Status : {STATUS_SUCCESS, STATUS_BUFFER_OVERFLOW, STATUS_UNSUCCESSFUL}) {
        Answer = Status;
        std::string Buffer(24, '.');
        EXPECT_EQ(NtQueryInformationFile(Handle, &Iosb, Buffer.data(), 24, 5), Status);
        EXPECT_EQ(Buffer, NT_ERROR(Status) ? std::string(24, '.') : std::string(10, 'x') + std::string(14, '.'));
    }
    char Buffer[24];
    EXPECT_EQ(NtQueryInformationFile(Handle, &Iosb, Buffer, 23, 5), STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(NtQueryInformationFile(Handle, &Iosb, Buffer, 24, 77), STATUS_INVALID_INFO_CLASS);
    NtClose(Handle);
}

TEST_F(ZwTest, ThePositionIsTheIoManagersOwn) {
    const HANDLE Handle = OpenFile();
    Seen.clear();
    LARGE_INTEGER Position = At(42), Read = At(0);
    EXPECT_EQ(NtSetInformationFile(Handle, &Iosb, &Position, 8, 14), STATUS_SUCCESS);
    EXPECT_EQ(NtQueryInformationFile(Handle, &Iosb, &Read, 8, 14), STATUS_SUCCESS);
    EXPECT_EQ(Read.QuadPart, 42);
    EXPECT_TRUE(Seen.empty());
    NtClose(Handle);
}

TEST_F(ZwTest, ARenameToAnotherDirectoryOpensItFirst) {
    const HANDLE Handle = OpenFile();
    struct {
        BOOLEAN Replace;
        HANDLE Root;
        ULONG Length;
        WCHAR Name[40];
    } Rename{};
    const std::u16string_view Name = u"\\Device\\RvFsd\\srv\\vol\\d\\new";
    Rename.Replace = TRUE;
    Rename.Length = static_cast<ULONG>(Name.size() * 2);
    memcpy(Rename.Name, Name.data(), Rename.Length);
    UCHAR StackFlags = 0;
    Handlers[IRP_MJ_CREATE] = [&](PIRP Irp) {
        StackFlags = IoGetCurrentIrpStackLocation(Irp)->Flags;
        return Complete(Irp, STATUS_SUCCESS, FILE_EXISTS);
    };
    Handlers[IRP_MJ_SET_INFORMATION] = [&](PIRP Irp) {
        const auto &SetFile = IoGetCurrentIrpStackLocation(Irp)->Parameters.SetFile;
        EXPECT_TRUE(SetFile.ReplaceIfExists);
        EXPECT_EQ(View(&SetFile.FileObject->FileName), u"\\srv\\vol\\d\\new");
        return Complete(Irp, STATUS_SUCCESS);
    };
    EXPECT_EQ(NtSetInformationFile(Handle, &Iosb, &Rename, sizeof(Rename), 10), STATUS_SUCCESS);
    EXPECT_EQ(StackFlags, SL_OPEN_TARGET_DIRECTORY);
    NtClose(Handle);
}

TEST_F(ZwTest, ControlsPassTheirBuffersByTheMethodOfTheCode) {
    const HANDLE Handle = OpenFile();
    char In[8] = "1234567", Out[4] = {'.', '.', '.', '.'};
    Handlers[IRP_MJ_FILE_SYSTEM_CONTROL] = [&](PIRP Irp) {
        auto &Control = IoGetCurrentIrpStackLocation(Irp)->Parameters.FileSystemControl;
        if ((Control.FsControlCode & 3) == 3) {
            EXPECT_EQ(Control.Type3InputBuffer, In);
            EXPECT_EQ(Irp->UserBuffer, Out);
            return Complete(Irp, STATUS_SUCCESS);
        }
        EXPECT_STREQ(static_cast<char *>(Irp->AssociatedIrp.SystemBuffer), "1234567");
        memset(Irp->AssociatedIrp.SystemBuffer, 'o', 4);
        return Complete(Irp, STATUS_SUCCESS, 3);
    };
    EXPECT_EQ(NtFsControlFile(Handle, nullptr, nullptr, nullptr, &Iosb, 0x0009003C, In, 8, Out, 4), STATUS_SUCCESS);
    EXPECT_EQ(std::string(Out, 4), "ooo.");
    EXPECT_EQ(NtFsControlFile(Handle, nullptr, nullptr, nullptr, &Iosb, 0x0009003F, In, 8, Out, 4), STATUS_SUCCESS);
    NtClose(Handle);
}

TEST_F(ZwTest, TheDeviceSecurityNeedsTheRightToWriteIt) {
    SECURITY_DESCRIPTOR Descriptor{};
    Descriptor.Revision = SECURITY_DESCRIPTOR_REVISION;
    const HANDLE Weak = Open(u"\\Device\\RvFsd", FILE_SYNCHRONOUS_IO_NONALERT, FILE_READ_DATA | SYNCHRONIZE).Handle;
    EXPECT_EQ(NtSetSecurityObject(Weak, DACL_SECURITY_INFORMATION, &Descriptor), STATUS_ACCESS_DENIED);
    EXPECT_EQ(DeviceSecurity(TheDevice), nullptr);
    NtClose(Weak);
    const HANDLE Strong = Open(u"\\Device\\RvFsd", FILE_SYNCHRONOUS_IO_NONALERT, WRITE_DAC | SYNCHRONIZE).Handle;
    EXPECT_EQ(NtSetSecurityObject(Strong, DACL_SECURITY_INFORMATION, &Descriptor), STATUS_SUCCESS);
    ASSERT_NE(DeviceSecurity(TheDevice), nullptr);
    EXPECT_EQ(DeviceSecurity(TheDevice)->Dacl, nullptr);
    NtClose(Strong);
}

TEST_F(ZwTest, TheLogFileLivesOnTheSystemVolume) {
    UNICODE_STRING Name = ToUnicodeString(u"\\??\\C:\\Rvfsd.log");
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, &Name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    auto Create = [&](ULONG Disposition, HANDLE *Handle) {
        return ZwCreateFile(Handle, FILE_WRITE_DATA, &Attributes, &Iosb, nullptr, FILE_ATTRIBUTE_NORMAL, 0, Disposition,
                            0, nullptr, 0);
    };
    HANDLE Handle = nullptr;
    EXPECT_EQ(Create(FILE_OPEN, &Handle), STATUS_OBJECT_NAME_NOT_FOUND);
    FailNext(VolumeOperation::Create, STATUS_ACCESS_DENIED);
    EXPECT_EQ(Create(FILE_CREATE, &Handle), STATUS_ACCESS_DENIED);
    ASSERT_EQ(Create(FILE_CREATE, &Handle), STATUS_SUCCESS);
    char Text[] = "hello";
    LARGE_INTEGER Offset = At(2);
    EXPECT_EQ(ZwWriteFile(Handle, nullptr, nullptr, nullptr, &Iosb, Text, 5, &Offset, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(Iosb.Information, 5u);
    FailNext(VolumeOperation::Write, STATUS_DISK_FULL);
    EXPECT_EQ(ZwWriteFile(Handle, nullptr, nullptr, nullptr, &Iosb, Text, 5, &Offset, nullptr), STATUS_DISK_FULL);
    EXPECT_EQ(ReadSystemFile(u"\\RVFSD.LOG"), std::string("\0\0hello", 7));
    EXPECT_EQ(ZwClose(Handle), STATUS_SUCCESS);
    EXPECT_EQ(Create(FILE_CREATE, &Handle), STATUS_OBJECT_NAME_COLLISION);
    FailNext(VolumeOperation::Delete, STATUS_CANNOT_DELETE);
    EXPECT_EQ(ZwDeleteFile(&Attributes), STATUS_CANNOT_DELETE);
    EXPECT_EQ(ZwDeleteFile(&Attributes), STATUS_SUCCESS);
    EXPECT_EQ(ZwDeleteFile(&Attributes), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(ZwTest, TheTimeOfDayComesFromTheClock) {
    SYSTEM_TIMEOFDAY_INFORMATION Information{};
    ULONG Length = 0;
    EXPECT_EQ(ZwQuerySystemInformation(SystemTimeOfDayInformation, &Information, sizeof(Information), &Length),
              STATUS_SUCCESS);
    EXPECT_EQ(Information.CurrentTime.QuadPart, DefaultStartTime);
    EXPECT_EQ(Length, sizeof(Information));
    EXPECT_EQ(ZwQuerySystemInformation(static_cast<SYSTEM_INFORMATION_CLASS>(2), &Information, 4, nullptr),
              STATUS_INVALID_INFO_CLASS);
    EXPECT_EQ(ZwQuerySystemInformation(SystemTimeOfDayInformation, &Information, sizeof(Information) + 1, nullptr),
              STATUS_INFO_LENGTH_MISMATCH);
}

TEST(ZwHostVolumeTest, TheSystemVolumeCanBeAHostDirectory) {
    const auto Directory = std::filesystem::temp_directory_path() / "rvfsd-system-volume-test";
    std::filesystem::remove_all(Directory);
    std::filesystem::create_directories(Directory);
    {
        KernelOptions Options;
        Options.SystemVolume = Directory;
        Kernel Running(Options);
        WriteSystemFile(u"\\Rvfsd.log", "line\n");
        EXPECT_EQ(ReadSystemFile(u"\\Rvfsd.log"), "line\n");
        EXPECT_TRUE(std::filesystem::exists(Directory / "Rvfsd.log"));
        EXPECT_EQ(DeleteSystemFile(u"\\..\\Rvfsd.log"), STATUS_OBJECT_NAME_INVALID);
        EXPECT_EQ(DeleteSystemFile(u"\\Rvfsd.log"), STATUS_SUCCESS);
        EXPECT_EQ(DeleteSystemFile(u"\\Rvfsd.log"), STATUS_OBJECT_NAME_NOT_FOUND);
    }
    std::filesystem::remove_all(Directory);
}

} // namespace
