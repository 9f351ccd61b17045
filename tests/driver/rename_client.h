// Renames for tests: through the I/O manager, and through a target directory that the test opened itself.
#pragma once

#include "tests/driver/set_client.h"

namespace test {

class RenameFixture : public SetFixture {
protected:
    static constexpr Open AsTarget = {
        .Access = FILE_WRITE_DATA | SYNCHRONIZE, .Options = 0, .StackFlags = SL_OPEN_TARGET_DIRECTORY};
    static constexpr Open WithoutData = {.Access = DELETE | FILE_READ_ATTRIBUTES | SYNCHRONIZE};

    // What is asked before a file is deleted to make room.
    const Calls LooksAtWhatIsReplaced = {"RVFsdGetVolumeInformation",
                                         "RVFsdGetVolumeInformation",
                                         "RVFsdGetDFSPhysicalPath",
                                         "RVFsdQueryPathForVolume",
                                         "RVFsdGetDFSPhysicalPath",
                                         "RVFsdQueryPathForVolume",
                                         "RVFsdGetFileId",
                                         "RVFsdCreateFile",
                                         "RVFsdGetFileId",
                                         "RVFsdCloseFile"};

    HANDLE OpenFile(std::u16string_view Path = u"\\srv\\vol\\a.txt") {
        return MustOpen(Path, ForChange);
    }
    HANDLE OpenDirectory(std::u16string_view Path) {
        return MustOpen(Path, DirectoryForChange);
    }
    // The target directory of a rename to Path, as the I/O manager opens it; then the calls are cleared.
    HANDLE OpenTarget(std::u16string_view Path) {
        const HANDLE Target = MustOpen(Path, AsTarget);
        Provider.ClearCalls();
        return Target;
    }
    NTSTATUS RenameThrough(HANDLE Handle, HANDLE Target, bool Replace = false) {
        const UCHAR ReplaceIfExists = Replace;
        return Send(Handle, FileRenameInformation, &ReplaceIfExists, 1, FileObject(Target));
    }
    // Opens the target, renames through it and closes it. The record has the calls of the rename alone.
    NTSTATUS RenameTo(HANDLE Handle, std::u16string_view Path, bool Replace = false) {
        const HANDLE Target = OpenTarget(Path);
        const NTSTATUS Status = RenameThrough(Handle, Target, Replace);
        Made_ = CallNames();
        Close(Target);
        return Status;
    }
    // What the last RenameTo asked of the Provider.
    const Calls &Made() const {
        return Made_;
    }

    // ... and that it was this, after the questions about what is replaced.
    void ExpectMadeAfterLooking(std::initializer_list<const char *> More) {
        Calls Expected = LooksAtWhatIsReplaced;
        Expected.insert(Expected.end(), More.begin(), More.end());
        EXPECT_EQ(Made(), Expected);
    }

    // The open names itself by Path, whole, and the Provider has it there.
    void ExpectNamed(HANDLE Handle, std::u16string_view Path) {
        EXPECT_EQ(ToUtf8(PathOf(Handle)), ToUtf8(Path));
        EXPECT_EQ(Instance(Handle)->BaseHandle, 0u);
        EXPECT_EQ(Instance(Handle)->PathLeft, Fcb(Handle)->FullPath.Buffer);
        EXPECT_EQ(Instance(Handle)->RelatedHandle, Instance(Handle)->DirHandle);
        EXPECT_TRUE(Provider.Exists(Path));
    }

private:
    Calls Made_;
};

} // namespace test
