// Copies of files and whole directories, in, out and across, as cp and mv ask for them.
#pragma once

#include <string>

#include "app/transfer.h"

namespace app {

// One end of a copy.
struct Place {
    bool Remote = false;
    std::u16string Path;             // of a remote one
    std::filesystem::path Local;     // of the others
    bool IsNamedAsDirectory = false; // the text ended with a separator

    // IsRemote tells what Text is.
    static Place Of(const std::string &Text);
    static Place Of(const std::string &Text, bool Remote);
    std::string Show() const;
    std::string LastName() const;
    Place Child(const std::string &Name) const;
    Kind WhatIsThere() const;
};

// Where something called like From goes that is copied to To: into it, when that is a directory. A file goes to no name
// that ends like a directory's.
Place TargetOf(const Place &From, const Place &To);

// Copies From, a file or with Recursive a directory with all below, to the name To. What fails below is told and the
// rest is copied; 0 or 1. What is wrong with From or To themselves is thrown.
int CopyTree(Session &Running, const Place &From, const Place &To, bool Recursive, const CopyOptions &Options);

// Deletes a directory with all below; what fails is told, and the rest is deleted. A link of the served directory to
// another one is never entered: what it leads to is not below. 0 or 1.
int RemoveTree(Session &Running, const std::u16string &Directory, bool Force);

} // namespace app
