// Queries: each class of file information, and the size of the volume, as requests and beside the Provider calls that
// they cost.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include "bench/rows.h"
#include "embedded/io/io.h"
#include "embedded/io/probe.h"

namespace bench {
namespace {

struct FileClass {
    const char *Name;
    ULONG Number;
    bool WithIdentifier; // asks for the file's identifier too
};

constexpr FileClass Classes[] = {
    {"basic", FileBasicInformation, false},
    {"standard", FileStandardInformation, false},
    {"internal", FileInternalInformation, true},
    {"ea", FileEaInformation, false},
    {"name", FileNameInformation, false},
    {"position", FilePositionInformation, false},
    {"all", FileAllInformation, true},
    {"alternate_name", FileAlternateNameInformation, false},
    {"network_open", FileNetworkOpenInformation, false},
    {"attribute_tag", FileAttributeTagInformation, false},
};

constexpr ULONG AnswerBytes = 1024;

// An open file and the request that asks about it.
class Asker {
public:
    Asker() : Handle_(Open(FilePath(NeverWritten))), File_(embedded::FileObjectFromHandle(Handle_)) {
    }
    ~Asker() {
        embedded::DereferenceFileObject(File_);
        Close(Handle_);
    }
    Asker(const Asker &) = delete;
    Asker &operator=(const Asker &) = delete;

    void AskFile(ULONG InfoClass) {
        Ask(IRP_MJ_QUERY_INFORMATION, [InfoClass](PIO_STACK_LOCATION Stack) {
            Stack->Parameters.QueryFile.Length = AnswerBytes;
            Stack->Parameters.QueryFile.FileInformationClass = InfoClass;
        });
    }
    void AskVolumeSize() {
        Ask(IRP_MJ_QUERY_VOLUME_INFORMATION, [](PIO_STACK_LOCATION Stack) {
            Stack->Parameters.QueryVolume.Length = AnswerBytes;
            Stack->Parameters.QueryVolume.FsInformationClass = FileFsSizeInformation;
        });
    }

private:
    template <typename Filling>
    void Ask(UCHAR MajorFunction, Filling Fill) {
        embedded::IrpBuilder Request;
        Request.MajorFunction = MajorFunction;
        Request.FileObject = File_;
        Request.SystemBuffer = Buffer_;
        Request.Fill = Fill;
        const IO_STATUS_BLOCK Iosb = embedded::SendIrpAndWait(Device(), Request);
        if (Iosb.Status != STATUS_SUCCESS || Iosb.Information == 0) {
            Fail(fmt::format("a query failed: 0x{:08X}", static_cast<ULONG>(Iosb.Status)));
        }
    }

    HANDLE Handle_;
    PFILE_OBJECT File_;
    alignas(8) UCHAR Buffer_[AnswerBytes];
};

void FileByDriver(benchmark::State &State, ProviderKind Kind, DriverKind Driver, ULONG InfoClass) {
    Use(Kind, Driver);
    Asker File;
    for (auto _ : State) {
        File.AskFile(InfoClass);
    }
}

void VolumeByDriver(benchmark::State &State, ProviderKind Kind, DriverKind Driver) {
    Use(Kind, Driver);
    Asker File;
    for (auto _ : State) {
        File.AskVolumeSize();
    }
}

void Require(const std::string &NoDifference) {
    if (!NoDifference.empty()) {
        Fail(NoDifference);
    }
}

// What every class costs that asks for the identifier too, or does not.
void FileDirect(benchmark::State &State, ProviderKind Kind, bool WithIdentifier) {
    UseRecorded(Kind);
    {
        Asker Through;
        const DirectFile File = OpenDirect(FilePath(NeverWritten));
        for (const FileClass &One : Classes) {
            if (One.WithIdentifier == WithIdentifier) {
                Require(DifferenceBetween([&] { Through.AskFile(One.Number); },
                                          [&] { CallsOfFileQuery(File, WithIdentifier); }));
            }
        }
        CloseDirect(File);
    }
    Use(Kind);
    const DirectFile File = OpenDirect(FilePath(NeverWritten));
    for (auto _ : State) {
        CallsOfFileQuery(File, WithIdentifier);
    }
    CloseDirect(File);
}

void VolumeDirect(benchmark::State &State, ProviderKind Kind) {
    const std::u16string Path = FilePath(NeverWritten);
    UseRecorded(Kind);
    {
        Asker Through;
        Require(DifferenceBetween([&] { Through.AskVolumeSize(); }, [&] { CallsOfVolumeSize(Path); }));
    }
    Use(Kind);
    for (auto _ : State) {
        CallsOfVolumeSize(Path);
    }
}

} // namespace

void RegisterQueries(DriverKind Driver) {
    using benchmark::RegisterBenchmark;
    for (const auto &[Kind, Provider] :
         {std::pair{ProviderKind::Stub, "stub"}, {ProviderKind::Directory, "directory"}}) {
        const std::string Under = fmt::format("{}information/{}/", Prefix(Driver), Provider);
        for (const FileClass &One : Classes) {
            RegisterBenchmark((Under + One.Name).c_str(), FileByDriver, Kind, Driver, One.Number);
        }
        RegisterBenchmark((Under + "volume_size").c_str(), VolumeByDriver, Kind, Driver);
        if (Driver == DriverKind::Linked) {
            RegisterBenchmark((Under + "direct").c_str(), FileDirect, Kind, false);
            RegisterBenchmark((Under + "direct_with_identifier").c_str(), FileDirect, Kind, true);
            RegisterBenchmark((Under + "volume_size_direct").c_str(), VolumeDirect, Kind);
        }
    }
}

} // namespace bench
