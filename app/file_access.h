// Who may do what with a local file, kept over its replacement by another.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace app {

class FileAccess {
public:
    // Of the open file, whose descriptor may be one that only names it: owner, permissions, access control list, and
    // the extended attributes that users set. Throws std::runtime_error with Name when they cannot be had.
    FileAccess(int Descriptor, const std::string &Name);

    // Gives them to another open file. All but the owner, which only some may give away, must be had:
    // std::runtime_error with Name otherwise. False when the owner or group is another now.
    bool GiveTo(int Descriptor, const std::string &Name) const;

private:
    uid_t Owner_;
    gid_t Group_;
    mode_t Permissions_;
    std::vector<std::pair<std::string, std::string>> Attributes_; // the access control list is one
};

} // namespace app
