#include <span>
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
    using File = std::unique_ptr<void, decltype([](HANDLE Handle) { NtClose(Handle); })>;

    // Opens a file of the driver's; the test fails when it cannot.
    static File OpenFile(ULONG Options = FILE_SYNCHRONOUS_IO_NONALERT, ACCESS_MASK Access = FILE_ALL_ACCESS,
                         std::u16string_view Path = u"\\Device\\RvFsd\\srv\\vol\\f", HANDLE Root = nullptr) {
        const CreateResult Result = Open(Path, Options, Access, Root);
        EXPECT_EQ(Result.Status, STATUS_SUCCESS);
        return File(Result.Handle);
    }
    NTSTATUS Read(const File &From, LARGE_INTEGER *Offset, HANDLE Event = nullptr) {
        return NtReadFile(From.get(), Event, nullptr, nullptr, &Iosb, &Byte, 1, Offset, nullptr);
    }
    NTSTATUS Write(const File &To, LARGE_INTEGER *Offset) {
        return NtWriteFile(To.get(), nullptr, nullptr, nullptr, &Iosb, &Byte, 1, Offset, nullptr);
    }
    NTSTATUS Query(const File &Of, PVOID Out, ULONG Length, ULONG Class) {
        return NtQueryInformationFile(Of.get(), &Iosb, Out, Length, Class);
    }
    NTSTATUS Control(const File &To, ULONG Code, std::span<char> In = {}, std::span<char> Out = {}) {
        return NtFsControlFile(To.get(), nullptr, nullptr, nullptr, &Iosb, Code, In.data(),
                               static_cast<ULONG>(In.size()), Out.data(), static_cast<ULONG>(Out.size()));
    }

    char Byte = 0;
    LARGE_INTEGER Zero = {.QuadPart = 0}, One = {.QuadPart = 1};
    IO_STATUS_BLOCK Iosb{};
};

TEST_F(ZwTest, AnObjectNameOfHalfACharacterIsInvalid) {
    UNICODE_STRING Name = ToUnicodeString(u"\\Device\\RvFsd\\f");
    --Name.Length;
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, &Name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    HANDLE Handle;
    EXPECT_EQ(NtOpenFile(&Handle, FILE_READ_DATA, &Attributes, &Iosb, 0, 0), STATUS_OBJECT_NAME_INVALID);
}

TEST_F(ZwTest, ARelativeOpenHasItsRootDuringTheCreateOnly) {
    const File Root = OpenFile(FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
    PFILE_OBJECT Related = nullptr, Opened = nullptr;
    Handlers[IRP_MJ_CREATE] = [&](PIRP Irp) {
        Opened = IoGetCurrentIrpStackLocation(Irp)->FileObject;
        Related = Opened->RelatedFileObject;
        EXPECT_EQ(View(&Opened->FileName), u"sub\\f");
        return Complete(Irp, STATUS_SUCCESS, FILE_OPENED);
    };
    const File Below = OpenFile(FILE_SYNCHRONOUS_IO_NONALERT, FILE_ALL_ACCESS, u"sub\\f", Root.get());
    ASSERT_NE(Related, nullptr);
    EXPECT_EQ(View(&Related->FileName), u"\\srv\\vol\\f");
    EXPECT_EQ(Opened->RelatedFileObject, nullptr);
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
    LARGE_INTEGER End = {.QuadPart = -1}; // FILE_WRITE_TO_END_OF_FILE
    EXPECT_EQ(Write(OpenFile(), &End), STATUS_SUCCESS);
    EXPECT_EQ(std::exchange(Offset, 0), -1);
    const File Append = OpenFile(FILE_SYNCHRONOUS_IO_NONALERT, FILE_APPEND_DATA | SYNCHRONIZE);
    EXPECT_EQ(Write(Append, &Zero), STATUS_SUCCESS);
    EXPECT_EQ(Offset, -1) << "a handle that may only append writes at the end";
}

TEST_F(ZwTest, AHandleWithoutTheAccessIsRefusedBeforeTheDriver) {
    const File Handle = OpenFile(FILE_SYNCHRONOUS_IO_NONALERT, FILE_READ_ATTRIBUTES | SYNCHRONIZE);
    Seen.clear();
    EXPECT_EQ(Read(Handle, &Zero), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Write(Handle, &Zero), STATUS_ACCESS_DENIED);
    EXPECT_EQ(NtFlushBuffersFile(Handle.get(), &Iosb), STATUS_ACCESS_DENIED);
    EXPECT_EQ(NtLockFile(Handle.get(), nullptr, nullptr, nullptr, &Iosb, &Zero, &One, 0, TRUE, TRUE),
              STATUS_ACCESS_DENIED);
    EXPECT_EQ(Control(Handle, FSCTL_SET_COMPRESSION), STATUS_ACCESS_DENIED);
    EXPECT_TRUE(Seen.empty());
}

TEST_F(ZwTest, AnAsynchronousReadPendsAndSignalsItsEvent) {
    PIRP Waiting = nullptr;
    Handlers[IRP_MJ_READ] = [&](PIRP Irp) {
        EXPECT_FALSE(IoIsOperationSynchronous(Irp));
        IoMarkIrpPending(Irp);
        Waiting = Irp;
        return STATUS_PENDING;
    };
    HANDLE Event;
    ASSERT_EQ(CreateEventHandle(NotificationEvent, true, &Event), STATUS_SUCCESS);
    {
        const File Handle = OpenFile(0);
        EXPECT_EQ(Read(Handle, nullptr, Event), STATUS_INVALID_PARAMETER) << "an asynchronous file has no position";
        ASSERT_EQ(Read(Handle, &Zero, Event), STATUS_PENDING);
        EXPECT_EQ(NtWaitForSingleObject(Event, FALSE, &Zero), STATUS_TIMEOUT);
    }
    EXPECT_EQ(Seen.back(), IRP_MJ_CLEANUP) << "the request keeps the file object: its close comes when it is done";
    Complete(Waiting, STATUS_SUCCESS, 1);
    EXPECT_EQ(NtWaitForSingleObject(Event, FALSE, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(Iosb.Information, 1u);
    EXPECT_EQ(Seen.back(), IRP_MJ_CLOSE);
    NtClose(Event);
}

// What a driver counts and does not write is reported: a run at once, a single byte when it is no chance any more.
TEST_F(ZwTest, AnAnswerMayNotCountBytesThatWereNotWritten) {
    size_t Written = 40, Hole = 40;
    Handlers[IRP_MJ_QUERY_INFORMATION] = [&](PIRP Irp) {
        auto *Bytes = static_cast<char *>(Irp->AssociatedIrp.SystemBuffer);
        for (size_t Index = 0; Index < Written; ++Index) {
            Bytes[Index] = Index == Hole ? Bytes[Index] : 7;
        }
        return Complete(Irp, STATUS_SUCCESS, 40);
    };
    const File Handle = OpenFile();
    const auto Ask = [&](int Times) {
        char Answer[40];
        for (; Times > 0; --Times) {
            Query(Handle, Answer, sizeof(Answer), 4);
        }
    };
    Ask(20); // all written: nobody complains
    Written = 36;
    EXPECT_DEATH(Ask(1), "STOP 0x000000C4 .0x00000000000F0006.*counts byte 36,");
    Written = 40;
    Hole = 17;
    EXPECT_DEATH(Ask(4), "STOP 0x000000C4 .0x00000000000F0006.*counts byte 17,");
}

TEST_F(ZwTest, RequestsOnASynchronousFileComeOneAtATime) {
    std::atomic<int> Inside{0}, Most{0};
    Handlers[IRP_MJ_READ] = [&](PIRP Irp) {
        Most = std::max(Most.load(), ++Inside);
        std::this_thread::yield();
        --Inside;
        return Complete(Irp, STATUS_SUCCESS, 1);
    };
    const File Handle = OpenFile();
    std::vector<std::jthread> Threads;
    for (int Thread = 0; Thread < 2; ++Thread) {
        Threads.emplace_back([&] {
            for (int Round = 0; Round < 300; ++Round) {
                char Own;
                IO_STATUS_BLOCK Block;
                LARGE_INTEGER At = {.QuadPart = 0};
                EXPECT_EQ(NtReadFile(Handle.get(), nullptr, nullptr, nullptr, &Block, &Own, 1, &At, nullptr),
                          STATUS_SUCCESS);
            }
        });
    }
    Threads.clear(); // joins them
    EXPECT_EQ(Most.load(), 1);
}

TEST_F(ZwTest, QueriesCopyBackExactlyWhatTheDriverReports) {
    NTSTATUS Answer = STATUS_SUCCESS;
    Handlers[IRP_MJ_QUERY_INFORMATION] = [&](PIRP Irp) {
        memset(Irp->AssociatedIrp.SystemBuffer, 'x', 24);
        return Complete(Irp, Answer, 10);
    };
    const File Handle = OpenFile();
    std::string Buffer;
    for (const NTSTATUS Status : {STATUS_SUCCESS, STATUS_BUFFER_OVERFLOW, STATUS_UNSUCCESSFUL}) {
        Answer = Status;
        Buffer.assign(24, '.');
        EXPECT_EQ(Query(Handle, Buffer.data(), 24, 5), Status);
        EXPECT_EQ(Buffer, NT_ERROR(Status) ? std::string(24, '.') : std::string(10, 'x') + std::string(14, '.'));
    }
    EXPECT_EQ(Query(Handle, Buffer.data(), 23, 5), STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(Query(Handle, Buffer.data(), 24, 77), STATUS_INVALID_INFO_CLASS);
}

TEST_F(ZwTest, ThePositionIsTheIoManagersOwn) {
    const File Handle = OpenFile();
    Seen.clear();
    EXPECT_EQ(NtSetInformationFile(Handle.get(), &Iosb, &One, 8, 14), STATUS_SUCCESS);
    EXPECT_EQ(Query(Handle, &Zero, 8, 14), STATUS_SUCCESS);
    EXPECT_EQ(Zero.QuadPart, 1);
    EXPECT_TRUE(Seen.empty());
}

TEST_F(ZwTest, ControlsPassTheirBuffersByTheMethodOfTheCode) {
    const File Handle = OpenFile();
    char In[8] = "1234567", Out[4] = {'.', '.', '.', '.'};
    Handlers[IRP_MJ_FILE_SYSTEM_CONTROL] = [&](PIRP Irp) {
        auto &Given = IoGetCurrentIrpStackLocation(Irp)->Parameters.FileSystemControl;
        if ((Given.FsControlCode & 3) == 3) {
            EXPECT_EQ(Given.Type3InputBuffer, In);
            EXPECT_EQ(Irp->UserBuffer, Out);
            return Complete(Irp, STATUS_SUCCESS);
        }
        EXPECT_STREQ(static_cast<char *>(Irp->AssociatedIrp.SystemBuffer), "1234567");
        memset(Irp->AssociatedIrp.SystemBuffer, 'o', 4);
        return Complete(Irp, STATUS_SUCCESS, 3);
    };
    EXPECT_EQ(Control(Handle, 0x0009003C, In, Out), STATUS_SUCCESS);
    EXPECT_EQ(std::string(Out, 4), "ooo.");
    EXPECT_EQ(Control(Handle, 0x0009003F, In, Out), STATUS_SUCCESS);
}

TEST_F(ZwTest, TheDeviceSecurityNeedsTheRightToWriteIt) {
    SECURITY_DESCRIPTOR Descriptor{};
    Descriptor.Revision = SECURITY_DESCRIPTOR_REVISION;
    const auto Set = [&](ACCESS_MASK Access) {
        const File Device = OpenFile(FILE_SYNCHRONOUS_IO_NONALERT, Access | SYNCHRONIZE, u"\\Device\\RvFsd");
        return NtSetSecurityObject(Device.get(), DACL_SECURITY_INFORMATION, &Descriptor);
    };
    EXPECT_EQ(Set(FILE_READ_DATA), STATUS_ACCESS_DENIED);
    EXPECT_EQ(DeviceSecurity(TheDevice), nullptr);
    EXPECT_EQ(Set(WRITE_DAC), STATUS_SUCCESS);
    ASSERT_NE(DeviceSecurity(TheDevice), nullptr);
    EXPECT_EQ(DeviceSecurity(TheDevice)->Dacl, nullptr);
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
