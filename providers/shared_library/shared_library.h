// A Provider from a shared library (rvfsd/library.h), loaded, asked for its version, and made.
#pragma once

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "rvfsd/library.h"

namespace providers {

// Why a library is no Provider: a line for people.
struct LibraryError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class SharedLibrary {
public:
    // LibraryError when File does not load, has no entry, is of another version, or makes no Provider of Options. The
    // library stays in memory until the program ends, since threads of its own may run in it.
    SharedLibrary(const std::filesystem::path &File, const std::string &Options);
    // Drops the reference that the library gave.
    ~SharedLibrary();
    SharedLibrary(const SharedLibrary &) = delete;
    SharedLibrary &operator=(const SharedLibrary &) = delete;

    RVIOM_FSD *Interface() const {
        return Provider_;
    }
    const char *Name() const {
        return Library_->Name;
    }
    // \\server\volume, at least one.
    const std::vector<std::string> &Volumes() const {
        return Volumes_;
    }

private:
    const RVFSD_PROVIDER_LIBRARY *Library_;
    RVIOM_FSD *Provider_ = nullptr;
    std::vector<std::string> Volumes_;
};

} // namespace providers
