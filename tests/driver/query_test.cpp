// Asking about open files and their volumes.

#include "embedded/io/probe.h"
#include "info/query.h"
#include "tests/support/driver_fixture.h"

namespace {

using namespace test;

constexpr RVSTATUS Warning = static_cast<RVSTATUS>(0x80000008); // translated to a warning

struct Answer {
    NTSTATUS Status;
    ULONG_PTR Information;
    std::vector<UCHAR> Bytes;

    template <typename T>
    T At(size_t Offset) const {
        T Value;
        memcpy(&Value, Bytes.data() + Offset, sizeof(T));
        return Value;
    }
    std::u16string Text(size_t Offset, size_t Length) const {
        std::u16string Found(Length / 2, u'\0');
        memcpy(Found.data(), Bytes.data() + Offset, Length);
        return Found;
    }
};

class Asking : public DriverFixture {
protected:
    // Sends the request itself, with a system buffer whose bytes beyond the answer must stay as they are.
    Answer Ask(UCHAR MajorFunction, HANDLE Handle, ULONG InfoClass, ULONG Length) {
        constexpr UCHAR Pattern = 0xA5;
        Answer Result = {STATUS_UNSUCCESSFUL, 0, std::vector<UCHAR>(Length + 64, Pattern)};
        IrpBuilder Builder = Plain(MajorFunction, FileObject(Handle));
        Builder.SystemBuffer = Result.Bytes.data();
        Builder.Fill = [=](PIO_STACK_LOCATION IrpSp) {
            IrpSp->Parameters.QueryFile.Length = Length;
            IrpSp->Parameters.QueryFile.FileInformationClass = InfoClass;
        };
        const IO_STATUS_BLOCK IoStatus = SendIrpAndWait(Device(), Builder);
        Result.Status = IoStatus.Status;
        Result.Information = IoStatus.Information;
        EXPECT_LE(Result.Information, Length);
        for (ULONG_PTR At = 0; At < Result.Information; ++At) {
            EXPECT_NE(Result.Bytes[At], Pattern) << "class " << InfoClass << ": byte " << At << " was never written";
        }
        for (size_t At = Length; At < Result.Bytes.size(); ++At) {
            EXPECT_EQ(Result.Bytes[At], Pattern) << "class " << InfoClass << ", length " << Length;
        }
        return Result;
    }
    Answer File(HANDLE Handle, ULONG InfoClass, ULONG Length = 1024) {
        return Ask(IRP_MJ_QUERY_INFORMATION, Handle, InfoClass, Length);
    }
    Answer Volume(HANDLE Handle, ULONG InfoClass, ULONG Length = 1024) {
        return Ask(IRP_MJ_QUERY_VOLUME_INFORMATION, Handle, InfoClass, Length);
    }
    HANDLE OpenEmptyFile() {
        Provider.AddFile(u"\\srv\\vol\\f", "");
        return MustOpen(u"\\srv\\vol\\f");
    }
    void SetVolume(ULONG Flags, ULONG FirstWord) {
        Provider.OnCall(Slot::GetVolumeInformation).Answer([=](Outputs &Out) {
            *Out.VolumeFlags = Flags;
            if (Out.Identifier != nullptr) {
                memset(Out.Identifier, 0, 16);
                memcpy(Out.Identifier, &FirstWord, 4);
            }
        });
    }
};

TEST_F(Asking, EveryClassAnswersEveryLengthAsItsLayoutSays) {
    Provider.AddFile(u"\\srv\\vol\\f.txt", "12345");
    Provider.AddDirectory(u"\\srv\\vol\\d");
    HANDLE AFile = MustOpen(u"\\srv\\vol\\f.txt");
    HANDLE ADirectory = MustOpen(u"\\srv\\vol\\d", AsDirectory);
    constexpr ULONG FileName = 2 * 14; // \srv\vol\f.txt
    constexpr ULONG DirectoryName = 2 * 10;
    // Where a class may be cut, after which fields; the last is the whole answer with its tail.
    const std::map<ULONG, std::vector<ULONG>> Layouts = {
        {FileBasicInformation, {0, 8, 16, 24, 32, 40}},
        {FileStandardInformation, {0, 8, 16, 20, 21, 24}},
        {FileInternalInformation, {0, 8}},
        {FileEaInformation, {0, 4}},
        {FilePositionInformation, {0, 8}},
        {FileNetworkOpenInformation, {0, 56}},
        {FileAttributeTagInformation, {0, 8}},
    };
    for (const HANDLE Handle : {AFile, ADirectory}) {
        const bool IsFile = Handle == AFile;
        const ULONG Name = IsFile ? FileName : DirectoryName;
        for (const auto &[InfoClass, Cuts] : Layouts) {
            const bool IsBasic = InfoClass == FileBasicInformation;
            const ULONG Whole = Cuts.back();
            const ULONG Fields = IsBasic ? 36 : InfoClass == FileStandardInformation ? 22 : Whole;
            for (ULONG Length = 0; Length <= Whole + 8; ++Length) {
                // With the fields but not the tail the count is overdrawn: cut, and all of the buffer is used.
                const bool Overdrawn = Length >= Fields && Length < Whole;
                const bool Succeeds = Length >= Whole || (IsBasic && IsFile && !Overdrawn);
                const ULONG Fits = *std::prev(std::ranges::upper_bound(Cuts, Length));
                EXPECT_THAT(File(Handle, InfoClass, Length),
                            Ends(Succeeds ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW, Overdrawn ? Length : Fits))
                    << "class " << InfoClass << ", length " << Length;
            }
        }
        for (ULONG Length = 0; Length <= 4 + Name + 8; ++Length) {
            const Answer Got = File(Handle, FileNameInformation, Length);
            EXPECT_THAT(Got, Ends(Length < 4 + Name ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS,
                                  Length < 4 ? 0 : std::min(Length, 4 + Name)))
                << Length;
            if (Length >= 4) {
                EXPECT_EQ(Got.At<ULONG>(0), Name);
            }
        }
        for (ULONG Length = 0; Length <= 100 + Name + 8; ++Length) {
            const Answer Got = File(Handle, FileAllInformation, Length);
            EXPECT_EQ(Got.Status, Length < 100 + Name ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS) << Length;
        }
    }
}

TEST_F(Asking, TheAllClassIsTheOtherClassesAtTheirPlaces) {
    Provider.AddFile(u"\\srv\\vol\\f.txt", "12345", RV_ATTR_READONLY);
    HANDLE Handle = MustOpen(u"\\srv\\vol\\f.txt");
    char Byte;
    ASSERT_EQ(Read(Handle, &Byte, 1, 2).Status, STATUS_SUCCESS);
    const Answer All = File(Handle, FileAllInformation);
    ASSERT_EQ(All.Status, STATUS_SUCCESS);
    const Answer Basic = File(Handle, FileBasicInformation);
    const Answer Standard = File(Handle, FileStandardInformation);
    EXPECT_EQ(memcmp(All.Bytes.data(), Basic.Bytes.data(), 36), 0);
    EXPECT_EQ(memcmp(All.Bytes.data() + 40, Standard.Bytes.data(), 22), 0);
    EXPECT_EQ(All.At<ULONG>(32), static_cast<ULONG>(FILE_ATTRIBUTE_READONLY));
    EXPECT_EQ(All.At<LONG64>(40), 5); // allocation
    EXPECT_EQ(All.At<LONG64>(48), 5); // end of file
    EXPECT_EQ(All.At<ULONG>(56), 1u); // links
    EXPECT_EQ(All.At<ULONG>(76), static_cast<ULONG>(FILE_GENERIC_READ));
    EXPECT_EQ(All.At<LONG64>(80), 3); // position
    EXPECT_EQ(All.At<ULONG>(88), static_cast<ULONG>(FILE_SYNCHRONOUS_IO_NONALERT));
    EXPECT_EQ(All.Text(100, All.At<ULONG>(96)), u"\\srv\\vol\\f.txt");
}

TEST_F(Asking, AttributesAreShownAsTheirKindAsks) {
    Provider.AddFile(u"\\srv\\vol\\f", "");
    Provider.AddDirectory(u"\\srv\\vol\\d");
    HANDLE AFile = MustOpen(u"\\srv\\vol\\f");
    HANDLE ADirectory = MustOpen(u"\\srv\\vol\\d", AsDirectory);
    const struct {
        HANDLE Handle;
        ULONG Reported, Basic, Tag;
    } Cases[] = {{AFile, 0, 0x80, 0},
                 {AFile, 0x81, 0x01, 0x81},
                 {AFile, 0x80, 0x80, 0x80},
                 {ADirectory, 0, 0x10, 0},
                 {ADirectory, 0x11, 0x11, 0x11}};
    for (const auto &Case : Cases) {
        Provider.ClearScript();
        const auto Report = [&](Outputs &Out) { *Out.Attributes = Case.Reported; };
        Provider.OnCall(Slot::GetFileInformation).Answer(Report);
        Provider.OnCall(Slot::GetDirectoryInformation).Answer(Report);
        EXPECT_EQ(File(Case.Handle, FileBasicInformation).At<ULONG>(32), Case.Basic) << Case.Reported;
        EXPECT_EQ(File(Case.Handle, FileAttributeTagInformation).At<ULONG>(0), Case.Tag) << Case.Reported;
    }
}

// Each field is told when it is written, so a cut answer shows where it was cut.
TEST_F(Asking, TheBasicClassTellsItsFieldsOneByOne) {
    StartTracing(128);
    Provider.AddFile(u"\\srv\\vol\\f", "");
    Provider.Edit([](Tree &Tree) {
        Node *File = Tree.Find(u"\\srv\\vol\\f");
        File->Creation = 0x0000000100000002;
        File->LastAccess = 0x0000000300000004;
        File->LastWrite = 0x0000000500000006;
        File->Attributes = RV_ATTR_HIDDEN;
    });
    constexpr const char *Lines[] = {" BasicInfo->CreationDate = 12\n", " BasicInfo->LastAccessTime = 34\n",
                                     " BasicInfo->LastWriteTime = 56\n", " BasicInfo->ChangeTime = 00\n",
                                     " BasicInfo->FileAttributes = 0x2\n"};
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\f");
    for (const auto &[Length, Fields] : {std::pair{0u, 0u}, {7u, 0u}, {8u, 1u}, {31u, 3u}, {32u, 4u}, {40u, 5u}}) {
        Printed.clear();
        File(Handle, FileBasicInformation, Length);
        size_t At = 0;
        for (size_t Index = 0; Index < std::size(Lines); ++Index) {
            const size_t Found = Printed.find(Lines[Index], At);
            EXPECT_EQ(Found != std::string::npos, Index < Fields) << Length << Lines[Index] << Printed;
            At = Found == std::string::npos ? At : Found;
        }
    }
}

TEST_F(Asking, AnyQueryRefreshesTheSizesAndOneThatFailsLeavesThemAndTellsZeros) {
    Provider.AddFile(u"\\srv\\vol\\f", "12345");
    HANDLE Handle = MustOpen(u"\\srv\\vol\\f");
    for (const ULONG64 Size : {3, 7}) {
        Provider.ClearScript();
        Provider.OnCall(Slot::GetFileInformation).Answer([Size](Outputs &Out) { *Out.EndOfFile = Size; });
        File(Handle, FilePositionInformation);
        EXPECT_EQ(FileSize(Handle), static_cast<LONGLONG>(Size));
    }
    Provider.ClearScript();
    Provider.OnCall(Slot::GetFileInformation).ReturnAfter(ProviderError(0x0100));
    const Answer Got = File(Handle, FileStandardInformation);
    EXPECT_EQ(Got.Status, STATUS_SUCCESS);
    EXPECT_EQ(Got.At<LONG64>(8), 0);
    EXPECT_EQ(FileSize(Handle), 7);
    EXPECT_EQ(File(Handle, FileBasicInformation).At<ULONG>(32), static_cast<ULONG>(FILE_ATTRIBUTE_NORMAL));
}

TEST_F(Asking, IdentifiersComeFromVolumesThatHaveThem) {
    const HANDLE Handle = OpenEmptyFile();
    SetVolume(0, 0);
    EXPECT_EQ(File(Handle, FileInternalInformation).Status, STATUS_SUCCESS);
    EXPECT_EQ(File(Handle, FileInternalInformation).At<ULONG64>(0), 0x00000ABA00000020u);
    Provider.ClearScript();
    SetVolume(RV_VOLUME_IDENTIFIER_VALID, 7);
    Provider.OnCall(Slot::GetFileId).Answer([](Outputs &Out) { *Out.FileId = 0x1122334455667788; });
    EXPECT_EQ(File(Handle, FileInternalInformation).At<ULONG64>(0), 0x1122334455667788u);
    Provider.ClearScript();
    SetVolume(RV_VOLUME_IDENTIFIER_VALID, 7);
    for (const auto &[Result, Status] :
         {std::pair{ProviderError(0x0006), STATUS_ACCESS_DENIED}, {Warning, STATUS_NO_DATA_DETECTED}}) {
        Provider.OnCall(Slot::GetFileId).ReturnAfter(Result).Times(1);
        const Answer Failed = File(Handle, FileInternalInformation);
        EXPECT_EQ(Failed.Status, Status);
        EXPECT_EQ(Failed.At<ULONG64>(0), 0u);
    }
}

TEST_F(Asking, AnOpenWithATrailingBackslashGetsItsNameBackWithOne) {
    Provider.AddDirectory(u"\\srv\\vol\\d");
    HANDLE Handle = MustOpen(u"\\srv\\vol\\d\\", AsDirectory);
    const Answer Got = File(Handle, FileNameInformation);
    EXPECT_EQ(Got.At<ULONG>(0), 22u);
    EXPECT_EQ(Got.Text(4, 22), u"\\srv\\vol\\d\\");
    EXPECT_THAT(File(Handle, FileAlternateNameInformation, 4 + 21), Ends(STATUS_BUFFER_OVERFLOW, 25));
}

TEST_F(Asking, WhatIsNotServedIsRefused) {
    const HANDLE Handle = OpenEmptyFile();
    for (const ULONG InfoClass : {0u, 1u, 8u, 22u, 99u, 0xFFFFFFFFu}) {
        const Answer Got = File(Handle, InfoClass);
        EXPECT_THAT(Got, Ends(STATUS_INVALID_PARAMETER, 0)) << InfoClass;
    }
    for (const ULONG InfoClass : {0u, 6u, 8u, 9u, 10u, 77u}) {
        EXPECT_THAT(Volume(Handle, InfoClass), Ends(STATUS_INVALID_INFO_CLASS, 0)) << InfoClass;
    }
    for (const UCHAR MajorFunction : {IRP_MJ_QUERY_INFORMATION, IRP_MJ_QUERY_VOLUME_INFORMATION}) {
        IrpBuilder WithoutBuffer = Plain(MajorFunction, FileObject(Handle));
        WithoutBuffer.Fill = [](PIO_STACK_LOCATION IrpSp) {
            IrpSp->Parameters.QueryFile.Length = 8;
            IrpSp->Parameters.QueryFile.FileInformationClass = 4; // served by both
        };
        EXPECT_THAT(SendIrpAndWait(Device(), WithoutBuffer), Ends(STATUS_INVALID_PARAMETER, 0));
    }
    HANDLE TheDevice = MustOpen(u"", {.Access = SYNCHRONIZE | FILE_READ_ATTRIBUTES});
    EXPECT_EQ(File(TheDevice, FileBasicInformation).Status, STATUS_INVALID_PARAMETER);
    EXPECT_THAT(Volume(TheDevice, FileFsSizeInformation), Ends(STATUS_SUCCESS, 0));
}

TEST_F(Asking, ADirectoryThatWasCreatedAndNotOpenedIsNotTakenForItsParent) {
    HANDLE Made = MustOpen(u"\\srv\\vol\\new", MakingADirectory);
    const RVHANDLE Parent = Instance(Made)->RelatedHandle;
    EXPECT_EQ(File(Made, FileBasicInformation).Status, STATUS_SUCCESS);
    EXPECT_NE(Instance(Made)->DirHandle, 0u);
    EXPECT_NE(Instance(Made)->RelatedHandle, Parent);
    Close(Made);
    HANDLE Second = MustOpen(u"\\srv\\vol\\new2", MakingADirectory);
    Provider.OnCall(Slot::OpenDirectory).Return(ProviderError(0x0006));
    EXPECT_EQ(File(Second, FileBasicInformation).Status, STATUS_ACCESS_DENIED);
}

TEST_F(Asking, ForExtendedAttributesFindsNoneAndASetIsAcceptedOnEveryKindOfOpen) {
    StartTracing(1);
    Provider.AddFile(u"\\srv\\vol\\d\\f", "");
    for (const std::u16string_view Path : {u"\\srv\\vol\\d\\f", u"\\srv\\vol\\d", u"\\srv\\vol", u""}) {
        HANDLE Open = MustOpen(Path, {.Access = FILE_READ_ATTRIBUTES | SYNCHRONIZE});
        Provider.ClearCalls();
        for (const UCHAR MajorFunction : {IRP_MJ_QUERY_EA, IRP_MJ_SET_EA, IRP_MJ_QUERY_EA}) {
            IrpBuilder Builder = Plain(MajorFunction, FileObject(Open));
            Builder.Fill = [](PIO_STACK_LOCATION IrpSp) { IrpSp->Parameters.QueryEa.Length = 64; };
            SentIrp Request = SendIrp(Device(), Builder);
            EXPECT_THAT(Request.Wait(),
                        Ends(MajorFunction == IRP_MJ_SET_EA ? STATUS_SUCCESS : STATUS_NO_EAS_ON_FILE, 0));
            EXPECT_EQ(Request.PriorityBoost(), IO_DISK_INCREMENT);
        }
        EXPECT_TRUE(CallNames().empty()) << "the Provider is not asked";
        ExpectPrintedInOrder({"<<<NtFsdQueryEa() entered\n", "<<<NtFsdSetEa() entered\n"});
        Printed.clear();
        Close(Open);
    }
}

// ---- Volumes

TEST_F(Asking, VolumeClassesAnswerEveryLengthAndNeverWriteBeyondIt) {
    const HANDLE Handle = OpenEmptyFile();
    const struct {
        ULONG InfoClass, Fixed, Variable;
    } Classes[] = {{FileFsVolumeInformation, 18, 6},     {FileFsLabelInformation, 4, 6},
                   {FileFsSizeInformation, 24, 0},       {FileFsDeviceInformation, 8, 0},
                   {FileFsAttributeInformation, 12, 10}, {FileFsFullSizeInformation, 32, 0}};
    for (const auto &Class : Classes) {
        for (ULONG Length = 0; Length <= Class.Fixed + Class.Variable + 8; ++Length) {
            const ULONG Whole = Class.Fixed + Class.Variable;
            EXPECT_THAT(Volume(Handle, Class.InfoClass, Length),
                        Ends(Length < Class.Fixed ? STATUS_INFO_LENGTH_MISMATCH
                             : Length < Whole     ? STATUS_BUFFER_OVERFLOW
                                                  : STATUS_SUCCESS,
                             Length < Class.Fixed ? 0 : std::min(Length, Whole)))
                << "class " << Class.InfoClass << ", length " << Length;
        }
    }
}

TEST_F(Asking, LabelsSerialNumbersAndSizes) {
    const HANDLE Handle = OpenEmptyFile();
    const struct {
        ULONG Flags, FirstWord, Serial, Attributes;
        LONG64 Total, Available;
    } Cases[] = {
        {0, 0x1234, 0x5C564F4C, 0x82, 100, 50},
        {RV_VOLUME_IDENTIFIER_VALID, 0x1234, 0x1234, 0x82, 100, 50},
        {RV_VOLUME_IDENTIFIER_VALID, 0, 0x5C564F4C, 0x82, 100, 50},
        {RV_VOLUME_USER_QUOTAS, 0, 0x5C564F4C, 0xA2, 20, 10},
    };
    for (const auto &Case : Cases) {
        SetVolume(Case.Flags, Case.FirstWord);
        Provider.OnCall(Slot::GetVolumeSize).Answer([](Outputs &Out) {
            *Out.VolumeLength = 100 * 4096 + 5;
            *Out.Free = 50 * 4096;
            *Out.QuotaAllowed = 20 * 4096;
            *Out.FreeAfterQuota = 10 * 4096 + 4095;
        });
        const Answer OfVolume = Volume(Handle, FileFsVolumeInformation);
        EXPECT_EQ(OfVolume.At<ULONG>(8), Case.Serial);
        EXPECT_EQ(OfVolume.Text(18, OfVolume.At<ULONG>(12)), u"VOL");
        EXPECT_EQ(Volume(Handle, FileFsAttributeInformation).At<ULONG>(0), Case.Attributes);
        const Answer Size = Volume(Handle, FileFsSizeInformation);
        EXPECT_EQ(Size.At<LONG64>(0), Case.Total);
        EXPECT_EQ(Size.At<LONG64>(8), Case.Available);
        const Answer Full = Volume(Handle, FileFsFullSizeInformation);
        EXPECT_EQ(Full.At<LONG64>(8), Case.Available);
        EXPECT_EQ(Full.At<LONG64>(16), Case.Available);
        Provider.ClearScript();
    }
}

// The physical volume answers, whatever the path is called, and the open's own volume is not asked.
TEST_F(Asking, VolumesBehindADistributedPathAnswerForIt) {
    Provider.AddFile(u"\\srv\\vol\\f", "");
    Provider.Edit([](Tree &Tree) {
        providers::Volume &Physical = Tree.AddVolume(u"\\phys\\ab");
        Physical.Length = 40 * 4096;
        Physical.Free = 30 * 4096;
        Physical.QuotaAllowed = 20 * 4096;
        Physical.FreeAfterQuota = 10 * 4096;
        Tree.AddDistributedLink(u"\\srv\\vol", u"\\phys\\ab\\deep\\down");
    });
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\f");
    for (const auto &[Flags, Total, Available] :
         {std::tuple{0u, 40, 30}, {RV_VOLUME_USER_QUOTAS + 0u, 20, 10}, {RV_VOLUME_IDENTIFIER_VALID + 0u, 40, 30}}) {
        SetVolume(Flags, 0x1234);
        Provider.ClearCalls();
        const Answer OfVolume = Volume(Handle, FileFsVolumeInformation);
        EXPECT_EQ(CallNames(), (std::vector<std::string>{"RVFsdGetDFSPhysicalPath", "RVFsdOpenVolume",
                                                         "RVFsdGetVolumeInformation", "RVFsdCloseVolume"}));
        EXPECT_NE(Provider.Calls()[1].find("\\phys\\AB\""), std::string::npos) << Provider.Calls()[1];
        EXPECT_EQ(OfVolume.At<ULONG>(8), Flags == RV_VOLUME_IDENTIFIER_VALID ? 0x1234u : 0x5C414250u);
        EXPECT_EQ(OfVolume.Text(18, OfVolume.At<ULONG>(12)), u"AB");
        const Answer Size = Volume(Handle, FileFsSizeInformation);
        EXPECT_EQ(Size.At<LONG64>(0), Total);
        EXPECT_EQ(Size.At<LONG64>(8), Available);
        Provider.ClearScript();
    }
}

TEST(SerialFromPath, TakesTheVolumesFirstLettersAndPadsWithTheServers) {
    const struct {
        const char16_t *Path;
        ULONG Serial;
    } Cases[] = {{u"\\srv\\ab", 0x5C414253},
                 {u"\\srv\\data1", 0x5C444154},
                 {u"\\srv\\data2", 0x5C444154},
                 {u"\\srv\\a", 0x5C415352},
                 {u"", 0}};
    for (const auto &Case : Cases) {
        EXPECT_EQ(NtFsdVolumeSerialFromPath(Case.Path, Case.Path), Case.Serial);
    }
}

TEST_F(Asking, AVolumeThatCannotBeReachedIsTheStatusAndTheDeviceClassAsksNobody) {
    const HANDLE Handle = OpenEmptyFile();
    const struct {
        Slot Fails;
        RVSTATUS Result;
        NTSTATUS Status;
    } Cases[] = {{Slot::QueryPathForVolume, ProviderError(RVFS_UNKNOWN_SERVER), STATUS_NO_LOGON_SERVERS},
                 {Slot::OpenVolume, ProviderError(RVFS_UNKNOWN_SERVER), STATUS_NO_LOGON_SERVERS},
                 {Slot::GetVolumeSize, ProviderError(RVFS_UNKNOWN_SERVER), STATUS_NO_LOGON_SERVERS},
                 {Slot::QueryPathForVolume, Warning, STATUS_NO_DATA_DETECTED},
                 {Slot::OpenVolume, Warning, STATUS_NO_DATA_DETECTED}};
    for (const auto &Case : Cases) {
        Provider.OnCall(Case.Fails).ReturnAfter(Case.Result);
        EXPECT_THAT(Volume(Handle, FileFsSizeInformation), Ends(Case.Status, 0));
        Provider.ClearScript();
    }
    Provider.ClearCalls();
    const Answer OfDevice = Volume(Handle, FileFsDeviceInformation);
    EXPECT_EQ(OfDevice.At<ULONG>(0), 7u);
    EXPECT_EQ(OfDevice.At<ULONG>(4), 0x30u);
    EXPECT_EQ(Provider.CountCalls(), 0u);
}

} // namespace
