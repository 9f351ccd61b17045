// A Provider that serves local directories as volumes.
//
// The application makes one DirectoryProvider, adds its exports and hands Interface() to the component framework; it
// keeps the object until every interface reference is released and no handle is open. Calls through the interface may
// come from any number of threads at once; AddExport may be called at any time.
//
// Names are matched ignoring case and kept as they are (names.h, name_cache.h); nothing outside an exported directory
// is ever reached (beneath.h). The calls act with the rights of the process.
//
// A volume may be a link to a directory of an export: a distributed path, which the physical-path operation resolves.
// What is below is the same as through the export; so are its quota, its identifiers and its options.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "provider/provider_interface.h"

namespace providers {

struct ExportOptions {
    bool ReadOnly = false;
    uint64_t QuotaBytes = 0;      // 0 = no quota; counts the sizes of the files below the directory
    bool EnforceLocks = true;     // byte-range locks forbid reads and writes through other handles
    bool UseOpenat2 = true;       // false: component by component, every symbolic link refused
    bool UseNotifications = true; // false: cached names are checked against the directories' time stamps
};

// A volume that is a directory of another.
struct ExportLink {
    std::u16string Name;   // \\server\volume
    std::u16string Target; // \\server\volume[\directory...] of an export or of another link
};

class DirectoryProvider {
public:
    DirectoryProvider();
    DirectoryProvider(const DirectoryProvider &) = delete;
    DirectoryProvider &operator=(const DirectoryProvider &) = delete;
    // No call may be under way. Handles still open are closed.
    ~DirectoryProvider();

    // Serves Directory as \Server\Volume. Returns an empty text, or why it cannot be served, as one line to be printed.
    [[nodiscard]] std::string AddExport(std::u16string_view Server, std::u16string_view Volume,
                                        const std::filesystem::path &Directory, const ExportOptions &Options = {});
    // The same for a name of the form \\server\volume or \server\volume.
    [[nodiscard]] std::string AddExport(std::u16string_view UncName, const std::filesystem::path &Directory,
                                        const ExportOptions &Options = {});
    // Adds links, all or none, in whatever order they name each other. Returns as AddExport: a link is refused whose
    // name is taken, whose target is not below an export, is no directory there, is relative, or leads back to the
    // link.
    [[nodiscard]] std::string AddLinks(const std::vector<ExportLink> &Links);

    // The Provider's interface with one more reference, which the taker gives back through its release operation.
    RVIOM_FSD *Interface();

    // A handle that is open, of any kind.
    struct OpenHandle {
        RVHANDLE Handle;
        std::string Kind; // "volume", "directory" or "file"
        std::string Path; // in the local file system, as it was when the handle was opened
        ULONG64 FileId;   // as slot 16 answers it
        int Descriptor;   // the Provider's own, while the handle is open; it may be one that only names the object
    };
    std::vector<OpenHandle> ListOpenHandles() const;

    // Raises the process's limit of descriptors as far as it may: every open file needs one. A program calls it when it
    // starts. Returns the limit.
    static size_t RaiseDescriptorLimit();

    struct ExportInfo {
        std::u16string Server;
        std::u16string Volume;
        std::filesystem::path Directory;
        ExportOptions Options;
        size_t DirectoryScans; // how often a directory had to be read for its names
    };
    std::vector<ExportInfo> Exports() const;

    struct State;

private:
    std::unique_ptr<State> State_;
};

} // namespace providers
