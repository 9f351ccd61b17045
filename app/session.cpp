#include "app/session.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>

#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include "app/remote_file.h"
#include "app/text.h"
#include "embedded/base/driver_stack.h"
#include "embedded/image/symbols.h"
#include "embedded/names/logon.h"
#include "embedded/verifier/report.h"
#include "frame/status_translation.h"
#include "kernel/linux/driver_image.h"
#include "provider/framework.h"

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace app {

namespace {

constexpr auto ServiceKey = u"\\REGISTRY\\Machine\\System\\CurrentControlSet\\Services\\RVFSD";
constexpr auto ClientKey = u"\\REGISTRY\\Machine\\Software\\Veyra\\Client\\Parameters";

// Where the sample tree comes from: beside an installed program, beside the sources that the program was built in
// (build/PRESET/app), also after they were moved as a whole, or where they were.
std::filesystem::path SampleTree() {
    std::error_code Error;
    const std::filesystem::path Program = std::filesystem::read_symlink("/proc/self/exe", Error).parent_path();
    for (const char *Beside : {"../share/rvfsd/sample", "../../../app/sample"}) {
        if (std::filesystem::is_directory(Program / Beside, Error)) {
            return (Program / Beside).lexically_normal();
        }
    }
    return RVFSD_SOURCE_DIR "/app/sample";
}

std::map<std::string, uint32_t> SwitchesOf(const SessionOptions &Options) {
    std::map<std::string, uint32_t> Switches = Options.Switches;
    if (Options.TraceMask) {
        Switches.try_emplace("EnableDebug", 1);
        Switches["FsDisplayOutput"] = 1;
        Switches["FsDebugLevel"] = *Options.TraceMask;
    }
    if (Options.Log) {
        Switches.try_emplace("EnableDebug", 1);
        Switches.try_emplace("FsDebugLevel", 0xFFFFFFFF);
        Switches.try_emplace("DebugLogging", 1);
    }
    return Switches;
}

constexpr Switch Switches[] = {{"EnableDirectoryNotify", 0},
                               {"EnableAsyncIo", 0},
                               {"UNCPathFilterBehavior", 0},
                               {"FailDeleteInUseWorkaround", 1},
                               {"Defer Windows DELETE Access Check", 0},
                               {"EnableDebug", 0},
                               {"FsDisplayOutput", 0},
                               {"FsDebugLevel", 0},
                               {"RvioctlDbgMsg", 0},
                               {"DebugLogging", 0},
                               {"Enable Lazy Close", 0, true},
                               {"EnableLinkedConnections", 0, true}};

const char16_t *KeyOf(const std::string &Name) {
    const auto At = std::find_if(std::begin(Switches), std::end(Switches),
                                 [&Name](const Switch &Each) { return Each.Name == Name; });
    return At != std::end(Switches) && At->OfClient ? ClientKey : ServiceKey;
}

} // namespace

std::filesystem::path DefaultTree() {
    const char *Data = getenv("XDG_DATA_HOME");
    const char *Home = getenv("HOME");
    if (Data != nullptr && *Data == '/') {
        return std::filesystem::path(Data) / "rvfsd/demo";
    }
    if (Home != nullptr && *Home == '/') {
        return std::filesystem::path(Home) / ".local/share/rvfsd/demo";
    }
    return std::filesystem::temp_directory_path() / fmt::format("rvfsd-demo-{}", geteuid());
}

namespace {

// Copies the sample tree to where it is served from, unless it is there. Two programs may do so at once.
std::filesystem::path MakeDefaultTree() {
    const std::filesystem::path Tree = DefaultTree();
    std::error_code Error;
    if (std::filesystem::is_directory(Tree, Error)) {
        return Tree;
    }
    std::filesystem::create_directories(Tree.parent_path(), Error);
    if (Error) {
        throw UsageError(
            fmt::format("{}: {}; --export serves a directory of yours", Tree.parent_path().string(), Error.message()));
    }
    std::string Half = Tree.string() + ".XXXXXX";
    if (mkdtemp(Half.data()) == nullptr) {
        throw UsageError(fmt::format("{}: {}; --export serves a directory of yours", Half, strerror(errno)));
    }
    std::filesystem::copy(SampleTree(), Half, std::filesystem::copy_options::recursive, Error);
    std::filesystem::permissions(Half, std::filesystem::perms(0755));
    if (!Error && rename(Half.c_str(), Tree.c_str()) == 0) {
        return Tree;
    }
    const std::string Reason = Error ? Error.message() : strerror(errno);
    std::filesystem::remove_all(Half);
    if (!std::filesystem::is_directory(Tree)) {
        throw UsageError(fmt::format("{}: {}; --export serves a directory of yours", Tree.string(), Reason));
    }
    return Tree;
}

} // namespace

std::span<const Switch> KnownSwitches() {
    return Switches;
}

std::unique_ptr<embedded::DriverImage> LoadImage(const std::filesystem::path &File, embedded::CallRecording Recording) {
    embedded::ImageOptions Options;
    Options.Modules = {{"zelm.sys", "ZelmCreateInstance", reinterpret_cast<void *>(ZelmCreateInstance), 4}};
    Options.Recording = Recording;
    try {
        return std::make_unique<embedded::DriverImage>(File, std::move(Options));
    } catch (const embedded::ImageError &Refused) {
        throw UsageError(Refused.what());
    }
}

// A system volume whose Rvfsd.log is the file of the user's choice, which fills while the driver runs.
class LogVolume {
public:
    explicit LogVolume(const std::filesystem::path &File) : File_(std::filesystem::absolute(File)) {
        std::error_code Error;
        const bool Special = std::filesystem::exists(File_, Error) && !std::filesystem::is_regular_file(File_, Error);
        if (Special || !std::ofstream(File_, std::ios::trunc)) {
            throw UsageError(
                fmt::format("--log {}: {}", File.string(), Special ? "not a regular file" : strerror(errno)));
        }
        std::string Name = (std::filesystem::temp_directory_path() / "rvfsd-log-XXXXXX").string();
        if (mkdtemp(Name.data()) == nullptr) {
            throw UsageError(fmt::format("--log: {}: {}", Name, strerror(errno)));
        }
        Directory_ = Name;
        std::filesystem::create_symlink(File_, Inside());
    }
    ~LogVolume() {
        std::error_code Error;
        // DebugLogging=2 deletes the old log: what came then is a file of its own.
        if (!std::filesystem::is_symlink(Inside(), Error)) {
            std::filesystem::copy_file(Inside(), File_, std::filesystem::copy_options::overwrite_existing, Error);
            if (Error) {
                Complain(fmt::format("--log {}: {}", File_.string(), Error.message()));
            }
        }
        std::filesystem::remove_all(Directory_, Error);
    }
    LogVolume(const LogVolume &) = delete;
    LogVolume &operator=(const LogVolume &) = delete;

    const std::filesystem::path &Directory() const {
        return Directory_;
    }

private:
    std::filesystem::path Inside() const {
        return Directory_ / "Rvfsd.log";
    }

    std::filesystem::path File_;
    std::filesystem::path Directory_;
};

Session::Session(const SessionOptions &Options)
    : Options_(Options), Exports_(Options.Exports), Switches_(SwitchesOf(Options)),
      Logon_(Options.Logon.empty() ? Logons().front().Name : Options.Logon) {
    providers::DirectoryProvider::RaiseDescriptorLimit();
    if (Options.Provider) {
        LoadProvider();
    } else if (Exports_.empty()) {
        Exports_.push_back({"\\\\demo\\files", MakeDefaultTree()});
    }
    if (Options.Journal) {
        Journal_ = std::make_unique<Journal>(*Options.Journal);
    }
    if (Options.Log) {
        Log_ = std::make_unique<LogVolume>(*Options.Log);
    }
    Start();
}

void Session::Start() {
    Directories_ = std::make_unique<providers::DirectoryProvider>();
    if (Library_ == nullptr) {
        Serve(Options_.Quotas);
    }
    embedded::KernelOptions Boot;
    for (const auto &[Name, Value] : Switches_) {
        Boot.Registry.push_back({KeyOf(Name), Widen(Name), Value});
    }
    Boot.Time = embedded::ClockMode::Running;
    Boot.Verifier = Options_.Verify ? embedded::VerifierLevel::On : embedded::VerifierLevel::Off;
    if (Log_ != nullptr) {
        Boot.SystemVolume = Log_->Directory();
    }
    Boot.DebugSink = [](std::string_view Text) {
        if (QuietDriver::Count == 0) {
            fwrite(Text.data(), 1, Text.size(), stderr);
        }
    };
    if (Options_.Image) {
        OpenImage();
    } else {
        Boot.ResetDriverImage = ResetDriverImage;
    }
    Stopped_ = false;
    Kernel_ = std::make_unique<embedded::Kernel>(std::move(Boot));

    RVIOM_FSD *Served = Library_ != nullptr ? Library_->Interface() : Directories_->Interface();
    Failures_ = std::make_unique<providers::Failures>(Served);
    Framework_ = std::make_unique<providers::Framework>(Served);
    Recorder_ = std::make_unique<providers::Recorder>(Served);
    Tap_ = std::make_unique<RequestTap>(*Recorder_);
    if (Journal_ != nullptr) {
        Tap_->Add(*Journal_);
    }
    Framework_->SetTimeSource([] { return embedded::Clock::SystemTime(); });
    Framework_->SetCaller([] { return CallerContext(); });
    if (Options_.Verify) {
        Framework_->SetOperationCaller(embedded::RunProvider);
    }
    const NTSTATUS Status =
        Image_ != nullptr ? Kernel_->LoadDriver(*Image_, u"RVFSD") : Kernel_->LoadDriver(DriverEntry, u"RVFSD");
    if (!NT_SUCCESS(Status)) {
        throw StatusError(Status, "the driver did not start");
    }
    LogOn();
}

void Session::LogOn() {
    Drives_ = std::make_unique<app::Drives>(
        Image_ != nullptr ? reinterpret_cast<Drives::GetClassObject>(Image_->Export("DllGetClassObject"))
                          : DllGetClassObject,
        Logon_);
    for (const DriveUse &Each : Uses_) {
        Drives_->Act(Each.Logon);
        Drives_->Use(Each);
    }
    Drives_->Act(Logon_);
}

void Session::LoadProvider() {
    try {
        Library_ = std::make_unique<providers::SharedLibrary>(Options_.Provider->Library, Options_.Provider->Options);
    } catch (const providers::LibraryError &Refused) {
        throw UsageError(fmt::format("--provider: {}", Refused.what()));
    }
    for (const std::string &Volume : Library_->Volumes()) {
        Exports_.push_back({ShowPath(RemotePath(Volume)), {}});
    }
}

void Session::OpenImage() {
    const SessionOptions &Options = Options_;
    Image_ = LoadImage(*Options.Image, Options.Calls ? embedded::CallRecording::Traced : embedded::CallRecording::None);
    if (!Options.Calls) {
        return;
    }
    std::error_code Error;
    if (std::filesystem::equivalent(*Options.Calls, *Options.Image, Error)) {
        throw UsageError(fmt::format("--calls {}: that is the image", Options.Calls->string()));
    }
    if (!Image_->Pdb().empty() && std::filesystem::equivalent(*Options.Calls, Image_->Pdb(), Error)) {
        throw UsageError(fmt::format("--calls {}: that is the image's debug information", Options.Calls->string()));
    }
    // A driver that is started again goes on with the same record.
    Calls_.open(*Options.Calls, Recorded_ ? std::ios::app : std::ios::trunc);
    Recorded_ = true;
    if (!Calls_) {
        throw UsageError(fmt::format("--calls {}: {}", Options.Calls->string(), strerror(errno)));
    }
    // Each line is out before the call's caller goes on: a trace is wanted most when what follows ends the program.
    Tracing_.emplace([this](const std::string &Line) { Calls_ << Line << std::endl; });
}

void Session::Serve(const std::map<std::string, uint64_t> &Quotas) {
    for (const auto &Quota : Quotas) {
        const auto At =
            std::find_if(Exports_.begin(), Exports_.end(), [&](const Export &One) { return One.Name == Quota.first; });
        if (At == Exports_.end()) {
            throw UsageError(fmt::format("--quota {}: no export of that name", Quota.first));
        }
        if (!At->Target.empty()) {
            throw UsageError(fmt::format("--quota {}: a link has the quota of the export that it leads to", At->Name));
        }
    }
    std::vector<providers::ExportLink> Links;
    for (const Export &One : Exports_) {
        if (!One.Target.empty()) {
            Links.push_back({Widen(One.Name), Widen(One.Target)});
            continue;
        }
        providers::ExportOptions Serving;
        if (const auto Quota = Quotas.find(One.Name); Quota != Quotas.end()) {
            Serving.QuotaBytes = Quota->second;
        }
        const std::string Problem = Directories_->AddExport(Widen(One.Name), One.Directory, Serving);
        if (!Problem.empty()) {
            throw UsageError(Problem);
        }
    }
    if (const std::string Problem = Directories_->AddLinks(Links); !Problem.empty()) {
        throw UsageError(Problem);
    }
}

Session::~Session() {
    Stop();
    if (Journal_ != nullptr) {
        if (const std::string Problem = Journal_->Close(); !Problem.empty()) {
            Complain(Problem);
        }
    }
}

std::string Session::Stop() {
    if (Stopped_) {
        return "";
    }
    Stopped_ = true;
    Watch({});
    std::string Findings;
    if (Kernel_ != nullptr) {
        // A command that was ended in the middle leaves handles, as a process that dies does.
        Kernel_->CloseOpenHandles();
        if (Drives_ != nullptr) {
            Uses_ = Drives_->Uses();
            Logon_ = Drives_->Acting();
            Drives_.reset();
        }
        // The driver shuts down as strictly as it ran; what is left is wanted as text then, not as a stop.
        Kernel_->SendShutdown();
        embedded::SetVerifierLevel(embedded::VerifierLevel::Off);
        Findings = Kernel_->Stop();
    }
    if (Framework_ != nullptr) {
        for (const std::string &Line : Framework_->LeakReport()) {
            Findings += Line + "\n";
        }
    }
    for (const auto &Left : Directories_->ListOpenHandles()) {
        Findings += fmt::format("a {} handle of the Provider is left: {}\n", Left.Kind, Left.Path);
    }
    if (Tap_ != nullptr) {
        Tap_->RemoveAll();
    }
    // Each has put its table in front of the Provider's: the last one is the first to take it away.
    Recorder_.reset();
    Framework_.reset();
    Failures_.reset();
    Kernel_.reset();
    Tap_.reset();
    Image_.reset();
    if (Calls_.is_open()) {
        Tracing_.reset();
        Calls_.close();
        if (!Calls_) {
            Findings += "--calls: the file could not be written\n";
        }
    }
    return Findings;
}

std::vector<std::filesystem::path> Session::OpenOf(std::string_view Kind) const {
    std::vector<std::filesystem::path> Paths;
    for (const auto &Open : Directories_->ListOpenHandles()) {
        if (Open.Kind == Kind) {
            Paths.emplace_back(Open.Path);
        }
    }
    return Paths;
}

std::vector<std::filesystem::path> Session::OpenFiles() const {
    return OpenOf("file");
}

int Session::DescriptorOf(ULONG64 FileId) const {
    int Found = -1;
    struct stat Of = {};
    for (const auto &Open : Directories_->ListOpenHandles()) {
        struct stat Another = {};
        if (Open.Kind != "file" || Open.FileId != FileId || fstat(Open.Descriptor, &Another) != 0) {
            continue;
        }
        if (Found >= 0 && (Another.st_dev != Of.st_dev || Another.st_ino != Of.st_ino)) {
            throw std::runtime_error("files of two volumes, with one identifier, cannot be told apart");
        }
        Found = Open.Descriptor;
        Of = Another;
    }
    return Found;
}

std::vector<std::filesystem::path> Session::OpenDirectories() const {
    return OpenOf("directory");
}

uint32_t Session::Trace(uint32_t Mask, bool On) {
    uint32_t &Level = Switches_["FsDebugLevel"];
    Level = On ? Level | Mask : Level & ~Mask;
    const uint32_t Now = Level;
    Switches_["FsDisplayOutput"] = Now != 0 || Options_.TraceMask ? 1 : 0;
    if (uint32_t &Output = Switches_["EnableDebug"]; Now != 0 && Output == 0) {
        Output = 1;
    }
    if (const std::string Findings = Stop(); !Findings.empty()) {
        throw std::runtime_error("left behind when the driver stopped:\n" + Findings);
    }
    Start();
    return Now;
}

namespace {

// Requests and calls as lines.
class LineListener final : public RequestListener {
public:
    explicit LineListener(std::function<void(const std::string &)> Sink) : Sink_(std::move(Sink)) {
    }

private:
    void RequestCompleted(const Request &About) noexcept override {
        Tell(fmt::format("{:<24} {:<44} Information {}", About.Operation, ShowStatus(About.Status), About.Information));
    }
    void CallEnded(const providers::ProviderCall &Call) noexcept override {
        Tell("    " + Describe(Call));
    }
    void Tell(const std::string &Line) {
        const std::lock_guard Hold(Lock_);
        Sink_(Line);
    }

    std::mutex Lock_;
    const std::function<void(const std::string &)> Sink_;
};

} // namespace

void Session::Watch(std::function<void(const std::string &)> Sink) {
    if (Watcher_ != nullptr) {
        Tap_->Remove(*Watcher_);
        Watcher_.reset();
    }
    if (Sink) {
        Watcher_ = std::make_unique<LineListener>(std::move(Sink));
        Tap_->Add(*Watcher_);
    }
}

} // namespace app
