#include "app/mount/options.h"

#include <charconv>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include "app/text.h"

namespace app::mount {

namespace {

enum class Kind { Flag, Number, Octal, Seconds, Text, Kernel, KernelNumber, KernelText, Ignored, Refused };

constexpr unsigned SmallestRead = 4096;

struct Word {
    const char *Name;
    Kind As;
    void (*Store)(MountOptions &, double Value, const std::string &Text);
    const char *Help = nullptr; // of one that is refused, why; none for one that is ignored
};

void TakeLocalLocks(MountOptions &To, const std::string &Which) {
    if (Which != "none" && Which != "all" && Which != "flock" && Which != "posix") {
        throw UsageError(fmt::format("-o local_lock={}: expected none, all, flock or posix", Which));
    }
    To.LocalRanges = Which == "all" || Which == "posix";
    To.LocalWhole = Which == "all" || Which == "flock";
}

// The kernel would take a page for less, and the two sides would differ.
void TakeMaxRead(MountOptions &To, double Bytes) {
    if (Bytes < SmallestRead) {
        throw UsageError(fmt::format("-o max_read={}: at least {}", Bytes, SmallestRead));
    }
    To.MaxRead = static_cast<unsigned>(Bytes);
}

#define STORE(Expression)                                                                                              \
    [](MountOptions &To, [[maybe_unused]] double Value, [[maybe_unused]] const std::string &Text) { Expression; }

constexpr Word Words[] = {
    {"help", Kind::Flag, STORE(To.Help = true), "print these words and do nothing"},
    {"volume", Kind::Text, STORE(To.Volume = Text), "this export at the mount's root"},
    {"ro", Kind::Kernel, STORE(To.ReadOnly = true), "read only"},
    {"rw", Kind::Kernel, STORE(To.ReadOnly = false), "read and write"},
    {"foreground", Kind::Flag, STORE(To.Foreground = true), "do not go into the background"},
    {"debug", Kind::Flag, STORE(To.Debug = To.Foreground = true), "print the kernel's requests, in the foreground"},
    {"default_permissions", Kind::Flag, STORE(To.DefaultPermissions = true),
     "the kernel compares the modes that are shown"},
    {"no_default_permissions", Kind::Flag, STORE(To.DefaultPermissions = false),
     "all who come in may do what the program rvfsd may"},
    {"quiet", Kind::Flag, STORE(To.Quiet = true), "changes of modes and owners that cannot be kept are no errors"},
    {"nolock", Kind::Flag, STORE(To.Locks = false), "locks are refused"},
    {"local_lock", Kind::Text, STORE(TakeLocalLocks(To, Text)),
     "none, posix, flock or all: such locks hold in this mount alone"},
    {"direct_io", Kind::Flag, STORE(To.DirectIo = true), "the kernel keeps no pages"},
    {"auto_cache", Kind::Flag, STORE(To.KeepCache = true),
     "the kernel keeps a closed file's pages while size and time stay"},
    {"noauto_cache", Kind::Flag, STORE(To.KeepCache = false), "the kernel drops a closed file's pages"},
    {"verify", Kind::Flag, STORE(To.Verify = true), "the driver's conduct is verified"},
    {"uid", Kind::Number, STORE(To.User = static_cast<uid_t>(Value)), "the owner that is shown"},
    {"gid", Kind::Number, STORE(To.Group = static_cast<gid_t>(Value)), "the group that is shown"},
    {"umask", Kind::Octal, STORE(To.FileMask = To.DirectoryMask = static_cast<mode_t>(Value)),
     "bits that modes do not have"},
    {"fmask", Kind::Octal, STORE(To.FileMask = static_cast<mode_t>(Value)), "umask for files alone"},
    {"dmask", Kind::Octal, STORE(To.DirectoryMask = static_cast<mode_t>(Value)), "umask for directories alone"},
    {"entry_timeout", Kind::Seconds, STORE(To.EntryTimeout = Value), "seconds for which the kernel keeps names"},
    {"attr_timeout", Kind::Seconds, STORE(To.AttributeTimeout = Value), "seconds for which it keeps attributes"},
    {"negative_timeout", Kind::Seconds, STORE(To.NegativeTimeout = Value),
     "seconds for which it keeps that a name is not there"},
    {"readahead_kib", Kind::Number, STORE(To.ReadAheadKib = static_cast<unsigned>(Value)),
     "what the kernel reads ahead"},
    {"max_threads", Kind::Number, STORE(To.Threads = static_cast<unsigned>(Value)), "how many serve"},
    {"io_uring", Kind::Flag, STORE(To.Rings = true),
     "requests come over io_uring; refused where the kernel does not offer it"},
    {"no_io_uring", Kind::Flag, STORE(To.Rings = false), "requests come through /dev/fuse"},
    {"fault_file", Kind::Text, STORE(To.FaultFile = Text), "while this file exists, the server counts as away"},
    {"allow_other", Kind::Kernel, STORE(To.Others = true), "other users may come in"},
    {"allow_root", Kind::Refused, nullptr, "use allow_other"},
    {"auto_unmount", Kind::Refused, nullptr,
     "an empty directory would then stand for the files; unmount with fusermount3 -u"},
    {"fsname", Kind::KernelText, nullptr, "the source in the table of mounts"},
    {"subtype", Kind::KernelText, nullptr, "the type in the table of mounts, behind fuse."},
    {"max_read", Kind::KernelNumber, STORE(TakeMaxRead(To, Value)), "bytes of one read, 4096 or more"},
    {"nosuid", Kind::Kernel, nullptr, "as mount(8) says"},
    {"nodev", Kind::Kernel, nullptr, "as mount(8) says"},
    {"noexec", Kind::Kernel, nullptr, "as mount(8) says"},
    {"exec", Kind::Kernel, nullptr, "as mount(8) says"},
    {"noatime", Kind::Kernel, nullptr, "as mount(8) says"},
    {"atime", Kind::Kernel, nullptr, "as mount(8) says"},
    {"sync", Kind::Kernel, nullptr, "as mount(8) says"},
    {"async", Kind::Kernel, nullptr, "as mount(8) says"},
    {"dirsync", Kind::Kernel, nullptr, "as mount(8) says"},
    {"suid", Kind::Refused, nullptr, "the server keeps no such bits"},
    {"dev", Kind::Refused, nullptr, "the server keeps no devices"},
    {"writeback_cache", Kind::Refused, nullptr, "writes go to the server before they return"},
    {"kernel_cache", Kind::Refused, nullptr, "other clients change files too; auto_cache is on"},
    {"nonempty", Kind::Refused, nullptr, "nothing to allow: any directory can be mounted on"},
    {"remount", Kind::Refused, nullptr, "the options of a running mount stay: unmount and mount again"},
    {"mand", Kind::Refused, nullptr, "the kernel has no mandatory locks any more"},
    {"context", Kind::Refused, nullptr, "the server keeps no labels"},
    {"fscontext", Kind::Refused, nullptr, "the server keeps no labels"},
    {"defcontext", Kind::Refused, nullptr, "the server keeps no labels"},
    {"rootcontext", Kind::Refused, nullptr, "the server keeps no labels"},
    {"intr", Kind::Ignored, nullptr},
    {"auto", Kind::Ignored, nullptr},
    {"noauto", Kind::Ignored, nullptr},
    {"user", Kind::Ignored, nullptr},
    {"nouser", Kind::Ignored, nullptr},
    {"users", Kind::Ignored, nullptr},
    {"owner", Kind::Ignored, nullptr},
    {"group", Kind::Ignored, nullptr},
    {"nofail", Kind::Ignored, nullptr},
    {"_netdev", Kind::Ignored, nullptr},
    {"defaults", Kind::Ignored, nullptr},
    {"relatime", Kind::Ignored, nullptr},
    {"norelatime", Kind::Ignored, nullptr},
    {"strictatime", Kind::Ignored, nullptr},
    {"nostrictatime", Kind::Ignored, nullptr},
    {"diratime", Kind::Ignored, nullptr},
    {"nodiratime", Kind::Ignored, nullptr},
    {"lazytime", Kind::Ignored, nullptr},
    {"nolazytime", Kind::Ignored, nullptr},
    {"iversion", Kind::Ignored, nullptr},
    {"noiversion", Kind::Ignored, nullptr},
    {"silent", Kind::Ignored, nullptr},
    {"loud", Kind::Ignored, nullptr},
    {"nomand", Kind::Ignored, nullptr},
};
#undef STORE

const Word *Find(const std::string &Name) {
    for (const Word &Each : Words) {
        if (Name == Each.Name) {
            return &Each;
        }
    }
    return nullptr;
}

double ParseValue(const std::string &Text, const std::string &Name, Kind As) {
    const char *End = Text.data() + Text.size();
    double Value = -1;
    std::from_chars_result Result;
    if (As == Kind::Seconds) {
        Result = std::from_chars(Text.data(), End, Value);
    } else {
        unsigned Whole = 0;
        Result = std::from_chars(Text.data(), End, Whole, As == Kind::Octal ? 8 : 10);
        Value = Whole;
    }
    if (Result.ec != std::errc() || Result.ptr != End || !(Value >= 0) || (As == Kind::Octal && Value > 0777)) {
        throw UsageError(fmt::format("-o {}={}: expected {}", Name, Text,
                                     As == Kind::Octal     ? "an octal mask up to 777"
                                     : As == Kind::Seconds ? "seconds"
                                                           : "a number"));
    }
    return Value;
}

void Take(const std::string &One, MountOptions &Options) {
    const size_t Equals = One.find('=');
    const std::string Name = One.substr(0, Equals);
    const bool HasValue = Equals != std::string::npos;
    const std::string Text = HasValue ? One.substr(Equals + 1) : "";
    if (Name.starts_with("x-")) {
        return; // for others who read fstab
    }
    const Word *Known = Find(Name);
    if (Known == nullptr) {
        throw UsageError(fmt::format("-o {}: no such option", Name));
    }
    const bool IsText = Known->As == Kind::Text || Known->As == Kind::KernelText;
    const bool IsNumber = Known->As == Kind::Number || Known->As == Kind::KernelNumber || Known->As == Kind::Octal ||
                          Known->As == Kind::Seconds;
    const bool Wants = IsText || IsNumber;
    if (Known->As == Kind::Refused) {
        throw UsageError(fmt::format("-o {}: not offered: {}", Name, Known->Help));
    }
    if (Wants != (HasValue && !Text.empty())) {
        throw UsageError(fmt::format("-o {}: {}", One, Wants ? "needs a value" : "takes no value"));
    }
    const double Value = IsNumber ? ParseValue(Text, Name, Known->As) : 0;
    if (Known->Store != nullptr) {
        Known->Store(Options, Value, Text);
    }
    if (Known->As == Kind::Kernel || Known->As == Kind::KernelNumber || Known->As == Kind::KernelText) {
        Options.ForKernel.push_back(One);
    }
}

} // namespace

std::string MountWordsHelp() {
    std::string Out;
    std::string Ignored;
    for (const Word &Each : Words) {
        if (Each.As == Kind::Ignored) {
            Ignored += fmt::format("{}{}", Ignored.empty() ? "" : ", ", Each.Name);
            continue;
        }
        const bool Alone = Each.As == Kind::Flag || Each.As == Kind::Kernel || Each.As == Kind::Refused;
        Out += fmt::format("  {:<24}{}{}\n", fmt::format("{}{}", Each.Name, Alone ? "" : "="),
                           Each.As == Kind::Refused ? "refused: " : "", Each.Help);
    }
    return Out + "  taken and ignored: " + Ignored + ", and what begins with x-";
}

void ParseMountWords(const std::string &List, MountOptions &Options) {
    std::string One;
    for (size_t At = 0; At <= List.size(); ++At) {
        if (At < List.size() && List[At] != ',') {
            const bool Escape = List.compare(At, 2, "\\,") == 0;
            At += Escape ? 1 : 0;
            One += List[At];
        } else if (!One.empty()) {
            Take(One, Options);
            One.clear();
        }
    }
    if (Options.Threads == 0) {
        throw UsageError("-o max_threads=0: at least one");
    }
}

bool MountOptions::ComparesModes() const {
    const bool CanRefuse = Others || User != getuid() || ((FileMask | DirectoryMask) & 0700) != 0;
    return DefaultPermissions.value_or(CanRefuse);
}

MountOptions DefaultMountOptions() {
    MountOptions Options;
    Options.User = getuid();
    Options.Group = getgid();
    const mode_t Mask = umask(0);
    umask(Mask);
    Options.FileMask = Options.DirectoryMask = Mask & 0777;
    return Options;
}

} // namespace app::mount
