#include "app/session.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include <fmt/format.h>

#include "app/text.h"
#include "kernel/linux/driver_image.h"

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace app {

namespace {

constexpr auto ServiceKey = u"\\REGISTRY\\Machine\\System\\CurrentControlSet\\Services\\RVFSD";

std::filesystem::path SampleTree() {
    if (const char *Override = getenv("RVFSD_SAMPLE")) {
        return Override;
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

std::filesystem::path MakeLogDirectory() {
    std::string Name = (std::filesystem::temp_directory_path() / "rvfsd-log-XXXXXX").string();
    if (mkdtemp(Name.data()) == nullptr) {
        throw UsageError(fmt::format("{}: cannot be made", Name));
    }
    return Name;
}

} // namespace

const std::vector<std::string> &KnownSwitches() {
    static const std::vector<std::string> Names = {"EnableDirectoryNotify", "EnableAsyncIo",
                                                   "UNCPathFilterBehavior", "FailDeleteInUseWorkaround",
                                                   "EnableDebug",           "Defer Windows DELETE Access Check",
                                                   "FsDisplayOutput",       "FsDebugLevel",
                                                   "RvioctlDbgMsg",         "DebugLogging"};
    return Names;
}

Session::Session(const SessionOptions &Options) : Exports_(Options.Exports), Log_(Options.Log) {
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
    embedded::KernelOptions Boot;
    for (const auto &[Name, Value] : SwitchesOf(Options)) {
        Boot.Registry.push_back({ServiceKey, Widen(Name), Value});
    }
    Boot.Time = embedded::ClockMode::Running;
    if (Log_) {
        LogDirectory_ = MakeLogDirectory();
        Boot.SystemVolume = LogDirectory_;
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
    if (LogDirectory_) {
        std::error_code Error;
        std::filesystem::copy_file(*LogDirectory_ / "Rvfsd.log", *Log_,
                                   std::filesystem::copy_options::overwrite_existing, Error);
        if (Error) {
            fmt::print(stderr, "{}: {}\n", Log_->string(), Error.message());
        }
        std::filesystem::remove_all(*LogDirectory_, Error);
    }
    Framework_.reset();
    Kernel_.reset();
    return Findings;
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
