#include <thread>

#include "embedded/io/probe.h"
#include "embedded/probe.h"
#include "embedded/ps/ps.h"
#include "embedded/rtl/counted.h"
#include "embedded/system_volume.h"
#include "io_fixture.h"
#include "tests/app/program.h"

namespace {

using namespace embedded;
using namespace iotest;

class ZwTest : public IoTest {
protected:
    static LARGE_INTEGER At(LONGLONG Offset) {
        LARGE_INTEGER Value = {.QuadPart = Offset};
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
        ULONG Options, Disposition;
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

TEST(ZwHostVolumeTest, TheSystemVolumeCanBeAHostDirectory) {
    const test::ScratchDirectory Directory;
    Kernel Running(KernelOptions{.SystemVolume = Directory.Path()});
    WriteSystemFile(u"\\Rvfsd.log", "line\n");
    EXPECT_EQ(ReadSystemFile(u"\\Rvfsd.log"), "line\n");
    EXPECT_TRUE(Directory.Has("Rvfsd.log"));
    EXPECT_EQ(DeleteSystemFile(u"\\..\\Rvfsd.log"), STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(DeleteSystemFile(u"\\Rvfsd.log"), STATUS_SUCCESS);
    EXPECT_EQ(DeleteSystemFile(u"\\Rvfsd.log"), STATUS_OBJECT_NAME_NOT_FOUND);
}

} // namespace
