#include "bench/world.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

#include "embedded/kernel.h"
#include "embedded/loader/driver_image.h"
#include "embedded/verifier/report.h"
#include "kernel/linux/driver_image.h"
#include "provider/framework.h"
#include "providers/directory/directory_provider.h"
#include "providers/framework/framework.h"
#include "providers/recorder/recorder.h"
#include "providers/scripted/scripted_provider.h"
#include "providers/stub/stub_provider.h"

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
extern "C" NTSTATUS NTAPI DriverEntryTrace(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
extern "C" NTSTATUS NTAPI DriverEntryNoTrace(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace bench {
namespace {

constexpr const char16_t *ServiceKey = u"\\REGISTRY\\Machine\\System\\CurrentControlSet\\Services\\RVFSD";
constexpr ULONG MaskOfNoMessage = 0x40000000;
constexpr unsigned NativeFiles = 64;
constexpr unsigned PathUnits = 70;
constexpr std::u16string_view ListedName = u"listed";

UNICODE_STRING Counted(std::u16string_view Text) {
    const auto Bytes = static_cast<USHORT>(Text.size() * sizeof(WCHAR));
    return {Bytes, Bytes, const_cast<PWSTR>(Text.data())};
}

// The name below the volume: two directories and a file, 70 characters with \srv\vol in front.
std::string RelativeName(unsigned Index) {
    const std::string Directories = "documents/quarterly reports/";
    const std::string Number = fmt::format("{:08}.txt", Index);
    const size_t Given = std::string("\\srv\\vol\\").size() + Directories.size() + Number.size();
    return Directories + std::string(PathUnits - Given, 'n') + Number;
}

std::string ListedFile(unsigned Index) {
    return fmt::format("a file of the listing {:06}.txt", Index);
}

// Files in memory, gone with the program.
class NativeTree {
public:
    NativeTree() : Root_(fmt::format("/dev/shm/rvfsd-bench-{}", getpid())) {
        std::filesystem::create_directories((Root_ / RelativeName(0)).parent_path());
        for (unsigned Index = 0; Index < NativeFiles; ++Index) {
            std::ofstream(Root_ / RelativeName(Index)) << std::string(TransferBytes, 'x');
        }
        LetRest();
    }
    ~NativeTree() {
        std::error_code Ignored;
        std::filesystem::remove_all(Root_, Ignored);
    }
    NativeTree(const NativeTree &) = delete;
    NativeTree &operator=(const NativeTree &) = delete;

    const std::filesystem::path &Root() const {
        return Root_;
    }
    void MakeListed() {
        const std::filesystem::path Directory = Root_ / std::u16string(ListedName);
        if (std::filesystem::create_directory(Directory)) {
            for (unsigned Index = 0; Index < ListedEntries; ++Index) {
                std::ofstream(Directory / ListedFile(Index));
            }
            LetRest();
        }
    }

private:
    // What changed in the last two seconds, the Provider asks for each time.
    static void LetRest() {
        std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    }

    std::filesystem::path Root_;
};

NativeTree &Tree() {
    static NativeTree Instance;
    return Instance;
}

std::string &ImageFile() {
    static std::string Name;
    return Name;
}

std::unique_ptr<embedded::DriverImage> MapImage() {
    embedded::ImageOptions Options;
    Options.Modules = {{"zelm.sys", "ZelmCreateInstance", reinterpret_cast<void *>(ZelmCreateInstance), 4}};
    try {
        return std::make_unique<embedded::DriverImage>(ImageFile(), std::move(Options));
    } catch (const embedded::ImageError &Refused) {
        Fail(Refused.what());
    }
}

PDRIVER_INITIALIZE EntryOf(DriverKind Driver) {
    switch (Driver) {
    case DriverKind::Linked:
    case DriverKind::Async:
        return DriverEntry;
    case DriverKind::TraceBuiltOut:
        return DriverEntryNoTrace;
    default:
        return DriverEntryTrace;
    }
}

std::unique_ptr<providers::ScriptedProvider> MakeScripted() {
    auto Made = std::make_unique<providers::ScriptedProvider>();
    Made->SetRecording(false);
    const std::u16string Directory = u"\\srv\\vol\\" + std::u16string(ListedName) + u"\\";
    for (unsigned Index = 0; Index < ListedEntries; ++Index) {
        const std::string Name = ListedFile(Index);
        Made->AddFile(Directory + std::u16string(Name.begin(), Name.end()));
    }
    return Made;
}

struct World : providers::CallSink {
    World(ProviderKind Kind, DriverKind Driver, bool Recorded)
        : Kind(Kind), Driver(Driver), Recorded(Recorded), Recorder(MakeProvider()) {
        if (Recorded) {
            Recorder.SetSink(this);
        }
        embedded::KernelOptions Options;
        Options.Time = embedded::ClockMode::Running;
        Options.Verifier = embedded::VerifierLevel::Off;
        Options.DebugSink = [](std::string_view) {};
        if (Driver == DriverKind::Image) {
            Image = MapImage();
        } else {
            Options.ResetDriverImage = ResetDriverImage;
        }
        if (Driver == DriverKind::TraceNoMatch) {
            Options.Registry = {{ServiceKey, u"EnableDebug", 1}, {ServiceKey, u"FsDebugLevel", MaskOfNoMessage}};
        }
        if (Driver == DriverKind::Async) {
            Options.Registry = {{ServiceKey, u"EnableAsyncIo", 1}};
        }
        Kernel = std::make_unique<embedded::Kernel>(std::move(Options));
        Framework = std::make_unique<providers::Framework>(Target);
        const NTSTATUS Status =
            Image != nullptr ? Kernel->LoadDriver(*Image, u"RVFSD") : Kernel->LoadDriver(EntryOf(Driver), u"RVFSD");
        if (!NT_SUCCESS(Status)) {
            Fail(fmt::format("the driver did not start: 0x{:08X}", static_cast<ULONG>(Status)));
        }
    }
    ~World() override {
        if (const std::string Left = Kernel->Stop(); !Left.empty()) {
            Fail("left behind:\n" + Left);
        }
    }

    void CallBegan(const providers::ProviderCall &) noexcept override {
    }
    void CallEnded(const providers::ProviderCall &Call) noexcept override {
        Calls += std::string(Call.Operation) + "\n";
    }

    RVIOM_FSD *MakeProvider() {
        if (Kind == ProviderKind::Stub) {
            Stub =
                std::make_unique<providers::StubProvider>(providers::StubOptions{.EntriesPerDirectory = ListedEntries});
            return Target = Stub.get();
        }
        if (Kind == ProviderKind::Scripted) {
            Scripted = MakeScripted();
            return Target = Scripted.get();
        }
        Directory = std::make_unique<providers::DirectoryProvider>();
        if (const std::string Why = Directory->AddExport(u"srv", u"vol", Tree().Root()); !Why.empty()) {
            Fail(Why);
        }
        return Target = Directory->Interface();
    }

    const ProviderKind Kind;
    const DriverKind Driver;
    const bool Recorded;
    std::string Calls;
    std::unique_ptr<embedded::DriverImage> Image; // outlives the kernel
    std::unique_ptr<providers::StubProvider> Stub;
    std::unique_ptr<providers::ScriptedProvider> Scripted;
    std::unique_ptr<providers::DirectoryProvider> Directory;
    RVIOM_FSD *Target = nullptr;
    providers::Recorder Recorder;
    std::unique_ptr<providers::Framework> Framework;
    std::unique_ptr<embedded::Kernel> Kernel;
    RV_SECURITY_CONTEXT Caller = providers::Framework::DefaultCaller;
};

std::unique_ptr<World> Current;

} // namespace

void Fail(std::string_view What) {
    fmt::print(stderr, "rvfsd_bench: {}\n", What);
    std::exit(1);
}

void SetImage(const std::string &File) {
    ImageFile() = File;
}

void Use(ProviderKind Kind, DriverKind Driver) {
    if (Current != nullptr && Current->Kind == Kind && Current->Driver == Driver && !Current->Recorded) {
        return;
    }
    EmptyTable(); // its files are open in the world that ends
    StopWorld();
    Current = std::make_unique<World>(Kind, Driver, false);
}

void UseRecorded(ProviderKind Kind) {
    EmptyTable();
    StopWorld();
    Current = std::make_unique<World>(Kind, DriverKind::Linked, true);
}

std::string TakeRecordedCalls() {
    return std::exchange(Current->Calls, {});
}

void StopWorld() {
    Current.reset();
}

RVIOM_FSD *Provider() {
    return Current->Target;
}

PDEVICE_OBJECT Device() {
    return Current->Kernel->Device();
}

RV_SECURITY_CONTEXT *Security() {
    return &Current->Caller;
}

std::u16string FilePath(unsigned Index) {
    std::string Name = RelativeName(Index);
    std::u16string Path = u"\\srv\\vol\\";
    for (const char Each : Name) {
        Path += Each == '/' ? u'\\' : static_cast<char16_t>(Each);
    }
    return Path;
}

std::string NativePath(unsigned Index) {
    return (Tree().Root() / RelativeName(Index)).string();
}

std::u16string ListedDirectory() {
    if (Current->Kind == ProviderKind::Directory) {
        Tree().MakeListed();
    }
    return u"\\srv\\vol\\" + std::u16string(ListedName);
}

std::string NativeListedDirectory() {
    Tree().MakeListed();
    return (Tree().Root() / std::u16string(ListedName)).string();
}

namespace {

HANDLE OpenAs(std::u16string_view Path, ACCESS_MASK Access, ULONG Options) {
    static const std::u16string DevicePrefix = u"\\Device\\RvFsd";
    thread_local std::u16string Name;
    Name.assign(DevicePrefix).append(Path);
    UNICODE_STRING ObjectName = Counted(Name);
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, &ObjectName, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    HANDLE Handle = nullptr;
    IO_STATUS_BLOCK Iosb;
    const NTSTATUS Status =
        NtCreateFile(&Handle, Access | SYNCHRONIZE, &Attributes, &Iosb, nullptr, 0,
                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN, Options, nullptr, 0);
    if (!NT_SUCCESS(Status)) {
        Fail(fmt::format("an open failed: 0x{:08X}", static_cast<ULONG>(Status)));
    }
    return Handle;
}

} // namespace

HANDLE Open(std::u16string_view Path) {
    return OpenAs(Path, FILE_READ_DATA | FILE_WRITE_DATA, FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
}

HANDLE OpenToRename(std::u16string_view Path, bool Directory) {
    return Directory ? OpenAs(Path, FILE_LIST_DIRECTORY | DELETE, FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT)
                     : OpenAs(Path, FILE_READ_DATA | FILE_WRITE_DATA | DELETE,
                              FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
}

HANDLE OpenDirectory(std::u16string_view Path) {
    return OpenAs(Path, FILE_LIST_DIRECTORY, FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
}

HANDLE OpenAsynchronous(std::u16string_view Path) {
    return OpenAs(Path, FILE_READ_DATA, FILE_NON_DIRECTORY_FILE);
}

void Close(HANDLE Handle) {
    if (const NTSTATUS Status = NtClose(Handle); !NT_SUCCESS(Status)) {
        Fail(fmt::format("a close failed: 0x{:08X}", static_cast<ULONG>(Status)));
    }
}

} // namespace bench
