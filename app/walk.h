// Masks in names and trees of directories, for the verbs that take more than one file.
#pragma once

#include <string>
#include <vector>

#include "app/remote_file.h"

namespace app {

OpenRequest ForListing();

// A path whose last component may be a mask (of * ? < > ").
struct MaskedPath {
    std::u16string Directory; // the whole path when nothing is masked
    std::u16string Mask = u"*";
    bool IsMasked = false;
};
// StatusError for a file whose Text ends with a separator.
MaskedPath SplitMask(const std::string &Text);

// What Text stands for: itself, or every path that its mask matches. StatusError when nothing does.
std::vector<std::u16string> Expand(const std::string &Text);

// The identifiers of the directories that a walk has come through, from the top.
using WayDown = std::vector<LONG64>;
// A link of the server may lead back to a directory that the walk is in, which then has no end. Adds Directory to Way;
// TRUE when it is on it already. A volume without identifiers cannot say.
bool LeadsBack(RemoteFile &Directory, WayDown &Way);

// The entries of a directory of a walk; none when it leads back. StatusError when it cannot be listed.
std::vector<DirectoryEntry> EntriesOn(const std::u16string &Directory, WayDown &Way);

inline bool IsDirectory(const DirectoryEntry &Entry) {
    return (Entry.Attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

} // namespace app
