// The conformance list: a sound Provider passes it, and each planted fault is told.

#include <cstring>

#include "providers/conformance/conformance.h"
#include "providers/directory/directory_provider.h"
#include "providers/scripted/scripted_provider.h"
#include "tests/app/program.h"

namespace {

using providers::CheckProvider;
using namespace testing;

using Sec = RV_SECURITY_CONTEXT *;
using Table = RVIOM_FSD_TABLE;

const Table *Real; // the sound Provider's own
constexpr RVSTATUS Warning{0x00000506};

#define FAULT(...) +[](__VA_ARGS__) NTAPI -> RVSTATUS

struct Fault {
    const char *Told; // a part of the line
    void (*Plant)(Table &);
};

const Fault Faults[] = {
    {"counts as success: an error has both top bits set",
     [](Table &T) {
         T.RVFsdDeleteFile = FAULT(RVIOM_FSD * Self, Sec By, RVHANDLE Base, PCWSTR Path) {
             const RVSTATUS Status = Real->RVFsdDeleteFile(Self, By, Base, Path);
             return RvIsError(Status) ? Warning : Status;
         };
     }},
    {"RVFsdOpenDirectory handed out handle 0",
     [](Table &T) {
         T.RVFsdOpenDirectory = FAULT(RVIOM_FSD *, Sec, RVHANDLE, PCWSTR, RVHANDLE * Out) {
             *Out = 0;
             return RVSTATUS::Success;
         };
     }},
    {"an open of a missing name, answers 0xC7E70503",
     [](Table &T) {
         T.RVFsdCreateFile =
             FAULT(RVIOM_FSD * Self, Sec By, RVHANDLE Base, PCWSTR Path, ULONG Access, ULONG Share, ULONG Disposition,
                   ULONG Options, ULONG Attributes, RVHANDLE * File, ULONG * Action) {
             const RVSTATUS Status = Real->RVFsdCreateFile(Self, By, Base, Path, Access, Share, Disposition, Options,
                                                           Attributes, File, Action);
             return RvCode(Status) == 0x0506 ? RVSTATUS{0xC7E70503} : Status;
         };
     }},
    {"did not write the create action",
     [](Table &T) {
         T.RVFsdCreateFile = FAULT(RVIOM_FSD * Self, Sec By, RVHANDLE Base, PCWSTR Path, ULONG Access, ULONG Share,
                                   ULONG Disposition, ULONG Options, ULONG Attributes, RVHANDLE * File, ULONG *) {
             ULONG Lost;
             return Real->RVFsdCreateFile(Self, By, Base, Path, Access, Share, Disposition, Options, Attributes, File,
                                          &Lost);
         };
     }},
    {"RVFsdQueryPathForVolume of an unknown server succeeds",
     [](Table &T) {
         T.RVFsdQueryPathForVolume = FAULT(RVIOM_FSD *, Sec, PCWSTR Path, PWSTR Buffer) {
             memcpy(Buffer, Path, 9 * sizeof(WCHAR));
             Buffer[9] = 0;
             return RVSTATUS::Success;
         };
     }},
    {"without a terminator within 8192 bytes",
     [](Table &T) {
         T.RVFsdQueryPathForVolume = FAULT(RVIOM_FSD *, Sec, PCWSTR, PWSTR Buffer) {
             memset(Buffer, 0x41, RV_PATH_BUFFER_BYTES);
             return RVSTATUS::Success;
         };
     }},
    {"exchanged the buffer",
     [](Table &T) {
         T.RVFsdGetDFSPhysicalPath = FAULT(RVIOM_FSD *, Sec, RVHANDLE, PUNICODE_STRING, PUNICODE_STRING Out) {
             Out->Buffer = nullptr;
             return RVSTATUS::NotDistributedPath;
         };
     }},
    {"refused an open handle",
     [](Table &T) {
         T.RVFsdCloseFile = FAULT(RVIOM_FSD * Self, Sec By, RVHANDLE File) {
             Real->RVFsdCloseFile(Self, By, File);
             return RVSTATUS::InvalidHandle;
         };
     }},
    {"the driver would refuse every file that grows",
     [](Table &T) {
         T.RVFsdGetVolumeSize =
             FAULT(RVIOM_FSD * Self, Sec By, RVHANDLE Volume, ULONG64 * A, ULONG64 * B, ULONG64 * C, ULONG64 * D) {
             const RVSTATUS Status = Real->RVFsdGetVolumeSize(Self, By, Volume, A, B, C, D);
             *D = 0;
             return Status;
         };
     }},
    {"did not write the last access time",
     [](Table &T) {
         T.RVFsdGetBasicFileInformation =
             FAULT(RVIOM_FSD * Self, Sec By, RVHANDLE File, ULONG * A, LONG64 * B, LONG64 * C, LONG64 *) {
             return Real->RVFsdGetBasicFileInformation(Self, By, File, A, B, C, nullptr);
         };
     }},
    {"RVFsdReadFile wrote behind its buffer",
     [](Table &T) {
         T.RVFsdReadFile = FAULT(RVIOM_FSD * Self, Sec By, RVHANDLE File, LONG64 * Offset, ULONG64 Length, PVOID Buffer,
                                 ULONG64 * Bytes) {
             static_cast<UCHAR *>(Buffer)[Length] = 0;
             return Real->RVFsdReadFile(Self, By, File, Offset, Length, Buffer, Bytes);
         };
     }},
    {"bytes of 10 that were asked for",
     [](Table &T) {
         T.RVFsdReadFile = FAULT(RVIOM_FSD * Self, Sec By, RVHANDLE File, LONG64 * Offset, ULONG64 Length, PVOID Buffer,
                                 ULONG64 * Bytes) {
             const RVSTATUS Status = Real->RVFsdReadFile(Self, By, File, Offset, Length, Buffer, Bytes);
             *Bytes = Length + 1;
             return Status;
         };
     }},
    {"which sets the size,: 0xC7E70004",
     [](Table &T) {
         T.RVFsdWriteFile = FAULT(RVIOM_FSD * Self, Sec By, RVHANDLE File, LONG64 * Offset, ULONG64 Length,
                                  PVOID Buffer, ULONG64 * Bytes) {
             return Buffer == nullptr ? RVSTATUS::InvalidParameter
                                      : Real->RVFsdWriteFile(Self, By, File, Offset, Length, Buffer, Bytes);
         };
     }},
    {"setting a time changes the attributes",
     [](Table &T) {
         T.RVFsdSetFileInformation =
             FAULT(RVIOM_FSD * Self, Sec By, RVHANDLE File, ULONG * A, LONG64 * B, LONG64 * C, LONG64 * D) {
             ULONG Hidden = RV_ATTR_READONLY;
             return Real->RVFsdSetFileInformation(Self, By, File, A == nullptr ? &Hidden : A, B, C, D);
         };
     }},
    {"did not move its resume key on",
     [](Table &T) {
         T.RVFsdEnumerateDirectoryEx = FAULT(RVIOM_FSD * Self, Sec By, RVHANDLE Directory, PCWSTR Mask, ULONG Options,
                                             ULONG *, ULONG * Size, PVOID Buffer) {
             ULONG Key = 0;
             return Real->RVFsdEnumerateDirectoryEx(Self, By, Directory, Mask, Options, &Key, Size, Buffer);
         };
     }},
    {"which its batch does not hold",
     [](Table &T) {
         T.RVFsdEnumerateDirectory =
             FAULT(RVIOM_FSD *, Sec, RVHANDLE, PCWSTR, UCHAR, ULONG * Key, ULONG *, PVOID Buffer) {
             memset(Buffer, 0, 60);
             static_cast<UCHAR *>(Buffer)[58] = 1; // 65536 characters
             ++*Key;
             return RVSTATUS::Success;
         };
     }},
    {"RVFsdEnumerateDirectory, at its end, answers 0xC7E70006",
     [](Table &T) {
         T.RVFsdEnumerateDirectory = FAULT(RVIOM_FSD * Self, Sec By, RVHANDLE Directory, PCWSTR Mask, UCHAR Flag,
                                           ULONG * Key, ULONG * Size, PVOID Buffer) {
             const RVSTATUS Status = Real->RVFsdEnumerateDirectory(Self, By, Directory, Mask, Flag, Key, Size, Buffer);
             return RvIsError(Status) ? RVSTATUS::AccessDenied : Status;
         };
     }},
    {"RVFsdOpenDirectory of a file answers 0xC7E70506, which the driver does not take for 'not a directory'",
     [](Table &T) {
         T.RVFsdOpenDirectory = FAULT(RVIOM_FSD * Self, Sec By, RVHANDLE Base, PCWSTR Path, RVHANDLE * Out) {
             const RVSTATUS Status = Real->RVFsdOpenDirectory(Self, By, Base, Path, Out);
             return RvIsError(Status) ? RVSTATUS{0xC7E70506} : Status;
         };
     }},
    {"RVFsdUnlockFile: 0xC7E70001",
     [](Table &T) {
         T.RVFsdUnlockFile = FAULT(RVIOM_FSD *, Sec, RVHANDLE, ULONG64, ULONG64) {
             return RVSTATUS::Unsuccessful;
         };
     }},
};

class Conformance : public testing::Test {
protected:
    Conformance() {
        EXPECT_EQ(Sound_.AddExport(u"\\\\srv\\vol", Scratch_.Path(), {}), "");
        Scratch_.Write("a.txt", "a");
        Real = Sound_.Interface()->Table;
    }
    ~Conformance() override {
        Sound_.Interface()->Table = Real;
    }
    std::vector<std::string> Failures() {
        return CheckProvider(*Sound_.Interface(), u"\\srv\\vol").Failures;
    }

    test::ScratchDirectory Scratch_;
    providers::DirectoryProvider Sound_;
};

TEST_F(Conformance, ASoundProviderPassesAndKeepsNothing) {
    EXPECT_THAT(Failures(), ElementsAre());
    EXPECT_TRUE(Sound_.ListOpenHandles().empty());
    EXPECT_THAT(std::vector<std::filesystem::path>(std::filesystem::directory_iterator(Scratch_.Path()), {}),
                ElementsAre(Scratch_.Path() / "a.txt"));
}

TEST(ScriptedConformance, TheTestsOwnProviderPassesToo) {
    providers::ScriptedProvider Scripted;
    Scripted.AddFile(u"\\srv\\vol\\a.txt", "a");
    EXPECT_THAT(CheckProvider(Scripted, u"\\srv\\vol").Failures, ElementsAre());
    EXPECT_TRUE(Scripted.OpenHandles().empty());
}

TEST_F(Conformance, EveryPlantedFaultIsTold) {
    for (const Fault &Each : Faults) {
        Table Broken = *Real;
        Each.Plant(Broken);
        Sound_.Interface()->Table = &Broken;
        EXPECT_THAT(Failures(), Contains(HasSubstr(Each.Told)));
        Sound_.Interface()->Table = Real;
    }
}

} // namespace
