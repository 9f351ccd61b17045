// One running driver: the kernel, the framework's stand-in, the directory Provider with its exports, the driver.
#pragma once

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "app/drives.h"
#include "app/journal/journal.h"
#include "app/journal/request_tap.h"
#include "embedded/io/io.h"
#include "embedded/kernel.h"
#include "embedded/loader/driver_image.h"
#include "embedded/names/logon.h"
#include "providers/directory/directory_provider.h"
#include "providers/failures/failures.h"
#include "providers/framework/framework.h"
#include "providers/recorder/recorder.h"
#include "providers/shared_library/shared_library.h"

namespace app {

struct Export {
    std::string Name;                // \\server\volume
    std::filesystem::path Directory; // what it serves; empty for a link
    std::string Target = {};         // where a link leads: \\server\volume[\directory...]
};

// A Provider from a shared library, with the text that it is made from.
struct ProviderChoice {
    std::filesystem::path Library;
    std::string Options;
};

struct SessionOptions {
    std::vector<Export> Exports;                  // empty: DefaultTree() as \\demo\files
    std::map<std::string, uint32_t> Switches;     // registry values, by name
    std::map<std::string, uint64_t> Quotas;       // by export name, bytes
    std::optional<ProviderChoice> Provider;       // instead of exports
    std::optional<std::filesystem::path> Journal; // where every request and every call of the Provider goes
    std::optional<uint32_t> TraceMask;            // the driver's lines on standard error
    std::optional<std::filesystem::path> Log;     // where the driver's log goes
    std::optional<std::filesystem::path> Image;   // the driver's image, instead of the driver that is linked in
    std::vector<std::string> Uses;                // letters that are mapped at the start, G:=\\server\volume
    std::string Logon;                            // the logon session that it begins in; empty: the first
    std::optional<std::filesystem::path> Calls;   // where a line for each of the image's kernel calls goes
    bool Verify = true;                           // the kernel verifies the driver's conduct
};

// A switch that the driver reads, with what it takes when its key has no value.
struct Switch {
    const char *Name;
    uint32_t Default;
    bool OfClient = false; // in the client's parameters key; the others are in the driver's service key
};
std::span<const Switch> KnownSwitches();

// The directory that is served when nothing else is: a copy of the sample tree, of the user's own. It is made by the
// first session that needs it, and stays.
std::filesystem::path DefaultTree();

// Loads an image as a session does. UsageError with a line for each reason when it is refused.
std::unique_ptr<embedded::DriverImage> LoadImage(const std::filesystem::path &File, embedded::CallRecording Recording);

class LogVolume;

// Calls of the image go to Sink while this lives.
class CallTrace {
public:
    explicit CallTrace(embedded::CallSink Sink) {
        embedded::SetCallSink(std::move(Sink));
    }
    ~CallTrace() {
        embedded::SetCallSink({});
    }
    CallTrace(const CallTrace &) = delete;
    CallTrace &operator=(const CallTrace &) = delete;
};

// While one lives, what the driver says without being asked is not printed: whoever makes it tells the outcome himself.
class QuietDriver {
public:
    QuietDriver() {
        ++Count;
    }
    ~QuietDriver() {
        --Count;
    }
    QuietDriver(const QuietDriver &) = delete;
    QuietDriver &operator=(const QuietDriver &) = delete;

    static inline std::atomic<int> Count{0};
};

class Session {
public:
    // Starts everything. UsageError when an export cannot be served or the log cannot be written, StatusError when the
    // driver does not start.
    explicit Session(const SessionOptions &Options);
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    // Shuts down and proves that nothing is left: the findings, one line each; empty when there are none.
    std::string Stop();

    // Who listens to requests and calls. Another one after the driver was started again.
    RequestTap &Requests() {
        return *Tap_;
    }
    // Requests and Provider calls from now on go to Sink as lines, in order; an empty sink ends that.
    void Watch(std::function<void(const std::string &)> Sink);

    const std::vector<Export> &Exports() const {
        return Exports_;
    }
    // The registry values as the driver found them at its start.
    const std::map<std::string, uint32_t> &Switches() const {
        return Switches_;
    }
    // While From gives an error, the Provider answers it: a server that is away. Not while requests are running.
    void SetFault(std::function<RVSTATUS()> From) {
        Failures_->SetFault(std::move(From));
    }
    // The local files that handles of the Provider are open for; and the directories.
    std::vector<std::filesystem::path> OpenFiles() const;
    std::vector<std::filesystem::path> OpenDirectories() const;
    // The Provider's descriptor of the open file with this identifier, while it is open; -1 when no directory serves
    // it. std::runtime_error when files of several volumes have it.
    int DescriptorOf(ULONG64 FileId) const;

    // Drive letters, and the logon session that the calling thread acts in.
    app::Drives &Drives() {
        return *Drives_;
    }

    // Turns categories of the driver's messages on or off as an administrator does: in the service key, which the
    // driver reads at its start, and so it is started again. Opens and waits must have ended before. The categories
    // that are on now. StatusError when the driver does not start.
    uint32_t Trace(uint32_t Mask, bool On);

private:
    void Start();
    void LogOn();
    // Loads the Provider that serves instead of directories; its volumes become the exports.
    void LoadProvider();
    // Hands the exports to the directory Provider. UsageError when one cannot be served.
    void Serve(const std::map<std::string, uint64_t> &Quotas);
    void OpenImage();
    std::vector<std::filesystem::path> OpenOf(std::string_view Kind) const;

    SessionOptions Options_;
    std::vector<Export> Exports_;
    std::map<std::string, uint32_t> Switches_;
    std::unique_ptr<LogVolume> Log_;
    std::ofstream Calls_;
    bool Recorded_ = false;
    std::optional<CallTrace> Tracing_;
    std::unique_ptr<embedded::DriverImage> Image_;      // null: the driver is linked in
    std::unique_ptr<providers::SharedLibrary> Library_; // null: directories are served
    std::unique_ptr<providers::DirectoryProvider> Directories_;
    std::unique_ptr<embedded::Kernel> Kernel_;
    std::unique_ptr<providers::Framework> Framework_;
    std::unique_ptr<app::Drives> Drives_;
    std::vector<DriveUse> Uses_; // mapped when the driver was stopped
    std::string Logon_;
    std::unique_ptr<providers::Failures> Failures_;
    std::unique_ptr<providers::Recorder> Recorder_;
    std::unique_ptr<RequestTap> Tap_;
    std::unique_ptr<RequestListener> Watcher_;
    std::unique_ptr<Journal> Journal_;
    bool Stopped_ = true;
};

} // namespace app
