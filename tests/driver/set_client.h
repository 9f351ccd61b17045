// Changes of open files and directories for tests: through the system services, and as raw requests.
#pragma once

#include "tests/support/driver_fixture.h"

namespace test {

inline constexpr Open ForChange = {.Access = DELETE | FILE_READ_DATA | FILE_WRITE_DATA | FILE_READ_ATTRIBUTES |
                                             FILE_WRITE_ATTRIBUTES | SYNCHRONIZE};
inline constexpr Open DirectoryForChange = {.Access =
                                                DELETE | FILE_LIST_DIRECTORY | FILE_WRITE_ATTRIBUTES | SYNCHRONIZE,
                                            .Options = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT};

class SetFixture : public DriverFixture {
protected:
    SetFixture() {
        Provider.AddFile(u"\\srv\\vol\\a.txt", "0123456789");
        Provider.AddDirectory(u"\\srv\\vol\\d");
    }

    template <typename T>
    NTSTATUS Set(HANDLE Handle, ULONG InfoClass, const T &Information) {
        IO_STATUS_BLOCK IoStatus = {};
        const NTSTATUS Status =
            NtSetInformationFile(Handle, &IoStatus, const_cast<T *>(&Information), sizeof(Information), InfoClass);
        EXPECT_EQ(IoStatus.Information, 0u);
        return Status;
    }
    NTSTATUS SetDisposition(HANDLE Handle, bool Delete) {
        return Set(Handle, FileDispositionInformation, static_cast<UCHAR>(Delete));
    }

    // The request as the I/O manager would send it, of Length bytes, with nothing checked on the way. Target is the
    // file object of the stack location.
    IrpBuilder Request(HANDLE Handle, ULONG InfoClass, const void *Information, ULONG Length,
                       PFILE_OBJECT Target = nullptr) {
        IrpBuilder Builder = Plain(IRP_MJ_SET_INFORMATION, FileObject(Handle));
        Builder.SystemBuffer = const_cast<void *>(Information);
        Builder.Fill = [=](PIO_STACK_LOCATION Stack) {
            Stack->Parameters.SetFile.Length = Length;
            Stack->Parameters.SetFile.FileInformationClass = InfoClass;
            Stack->Parameters.SetFile.FileObject = Target;
        };
        return Builder;
    }
    NTSTATUS Send(HANDLE Handle, ULONG InfoClass, const void *Information, ULONG Length,
                  PFILE_OBJECT Target = nullptr) {
        const IO_STATUS_BLOCK IoStatus =
            SendIrpAndWait(Device(), Request(Handle, InfoClass, Information, Length, Target));
        EXPECT_EQ(IoStatus.Information, 0u);
        return IoStatus.Status;
    }

    // Renames through the I/O manager, which opens the target's directory. Name is a path of the form \srv\vol\...,
    // or a name below Root.
    NTSTATUS Rename(HANDLE Handle, std::u16string_view Name, bool Replace = false, HANDLE Root = nullptr) {
        const std::u16string Full =
            Root != nullptr || Name[0] != u'\\' ? std::u16string(Name) : u"\\Device\\RvFsd" + std::u16string(Name);
        struct {
            UCHAR ReplaceIfExists = 0;
            HANDLE RootDirectory = nullptr;
            ULONG NameLength = 0;
            WCHAR Text[200] = {};
        } Information;
        static_assert(offsetof(decltype(Information), Text) == 20);
        Information.ReplaceIfExists = Replace;
        Information.RootDirectory = Root;
        Information.NameLength = static_cast<ULONG>(Full.size() * sizeof(WCHAR));
        memcpy(Information.Text, Full.data(), Information.NameLength);
        return Set(Handle, FileRenameInformation, Information);
    }

    // Creates a directory through the driver, which makes it without opening it.
    HANDLE CreateUnopened(std::u16string_view Path) {
        Open Creating = DirectoryForChange;
        Creating.Disposition = FILE_CREATE;
        const HANDLE Handle = MustOpen(Path, Creating);
        EXPECT_EQ(Instance(Handle)->DirHandle, 0u);
        return Handle;
    }

    std::u16string PathOf(HANDLE Handle) {
        const UNICODE_STRING &Path = Fcb(Handle)->FullPath;
        return {Path.Buffer, Path.Length / sizeof(WCHAR)};
    }
};

} // namespace test
