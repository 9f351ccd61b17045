#include "app/session.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <unistd.h>

#include <fmt/format.h>

#include "app/text.h"
#include "embedded/verifier.h"
#include "frame/diagnostics.h"
#include "kernel/linux/driver_image.h"

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace app {

namespace {

constexpr auto ServiceKey = u"\\REGISTRY\\Machine\\System\\CurrentControlSet\\Services\\RVFSD";

// Beside the sources that the program was built in (build/PRESET/app), also after they were moved as a whole.
std::filesystem::path SampleTree() {
    if (const char *Override = getenv("RVFSD_SAMPLE")) {
        return Override;
    }
    std::error_code Error;
    const std::filesystem::path Program = std::filesystem::read_symlink("/proc/self/exe", Error);
    const std::filesystem::path Beside = Program.parent_path() / "../../../app/sample";
    return std::filesystem::is_directory(Beside, Error) ? Beside.lexically_normal() : RVFSD_SOURCE_DIR "/app/sample";
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
                               {"DebugLogging", 0}};

} // namespace

std::span<const Switch> KnownSwitches() {
    return Switches;
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

Session::Session(const SessionOptions &Options) : Exports_(Options.Exports), Switches_(SwitchesOf(Options)) {
    if (Exports_.empty()) {
        Exports_.push_back({"\\\\demo\\files", SampleTree()});
    }
    for (const Export &One : Exports_) {
        providers::ExportOptions Serving;
        if (const auto Quota = Options.Quotas.find(One.Name); Quota != Options.Quotas.end()) {
            Serving.QuotaBytes = Quota->second;
        }
        const std::string Problem = Directories_.AddExport(Widen(One.Name), One.Directory, Serving);
        if (!Problem.empty()) {
            throw UsageError(Problem);
        }
    }
    for (const auto &Quota : Options.Quotas) {
        if (std::none_of(Exports_.begin(), Exports_.end(),
                         [&](const Export &One) { return One.Name == Quota.first; })) {
            throw UsageError(fmt::format("--quota {}: no export of that name", Quota.first));
        }
    }
    embedded::KernelOptions Boot;
    for (const auto &[Name, Value] : Switches_) {
        Boot.Registry.push_back({ServiceKey, Widen(Name), Value});
    }
    Boot.Time = embedded::ClockMode::Running;
    if (Options.Log) {
        Log_ = std::make_unique<LogVolume>(*Options.Log);
        Boot.SystemVolume = Log_->Directory();
    }
    Boot.DebugSink = [](std::string_view Text) { fwrite(Text.data(), 1, Text.size(), stderr); };
    Boot.ResetDriverImage = ResetDriverImage;
    Kernel_ = std::make_unique<embedded::Kernel>(std::move(Boot));

    Served_ = Directories_.Interface();
    Recorder_ = std::make_unique<providers::Recorder>(Served_);
    Framework_ = std::make_unique<providers::Framework>(Recorder_.get());
    Framework_->SetTimeSource([] { return embedded::Clock::SystemTime(); });
    Framework_->SetCaller([] { return RV_SECURITY_CONTEXT{{geteuid(), getegid()}}; });
    const NTSTATUS Status = Kernel_->LoadDriver(DriverEntry, u"RVFSD");
    if (!NT_SUCCESS(Status)) {
        throw StatusError(Status, "the driver did not start");
    }
}

Session::~Session() {
    Stop();
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
    for (const auto &Left : Directories_.ListOpenHandles()) {
        Findings += fmt::format("a {} handle of the Provider is left: {}\n", Left.Kind, Left.Path);
    }
    Log_.reset();
    Framework_.reset();
    Kernel_.reset();
    return Findings;
}

std::vector<std::filesystem::path> Session::OpenFiles() const {
    std::vector<std::filesystem::path> Paths;
    for (const auto &Open : Directories_.ListOpenHandles()) {
        if (Open.Kind == "file") {
            Paths.emplace_back(Open.Path);
        }
    }
    return Paths;
}

uint32_t Session::Trace(uint32_t Mask, bool On) {
    g_uDebugMask = On ? g_uDebugMask | Mask : g_uDebugMask & ~Mask;
    g_uDebugFlags = On && g_uDebugFlags == 0 ? 1 : g_uDebugFlags;
    const bool Asked = Switches_.contains("FsDisplayOutput");
    g_bDisplayOutput = On || (g_bDisplayOutput && (Asked || g_uDebugMask != 0));
    g_uTraceGate = g_uDebugFlags != 0 ? g_uDebugMask : 0;
    return g_uTraceGate;
}

void Session::Tell(const std::string &Line) {
    const std::lock_guard Hold(WatchLock_);
    if (Watcher_) {
        Watcher_(Line);
    }
}

void Session::OnRequest(const embedded::CompletedRequest &Request) {
    Tell(fmt::format("{:<24} {:<44} Information {}", embedded::MajorFunctionName(Request.MajorFunction),
                     ShowStatus(Request.Status), Request.Information));
}

void Session::Watch(std::function<void(const std::string &)> Sink) {
    const bool On = static_cast<bool>(Sink);
    {
        const std::lock_guard Hold(WatchLock_);
        Watcher_ = std::move(Sink);
    }
    if (On) {
        embedded::SetIoObserver([this](const embedded::CompletedRequest &Request) { OnRequest(Request); });
        Recorder_->SetSink([this](const std::string &Line) { Tell("    " + Line); });
    } else {
        embedded::SetIoObserver({});
        if (Recorder_ != nullptr) {
            Recorder_->SetSink({});
        }
    }
}

} // namespace app
