#include "providers/shared_library/shared_library.h"

#include <algorithm>
#include <cstring>
#include <sstream>

#include <dlfcn.h>

#include <fmt/format.h>

#include "providers/slots.h"

namespace providers {

namespace {

const RVFSD_PROVIDER_LIBRARY *Load(const std::filesystem::path &File) {
    // A bare name is a file of this directory, as everywhere in this program; never one of the linker's path.
    void *Loaded = dlopen(std::filesystem::absolute(File).c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (Loaded == nullptr) {
        throw LibraryError(fmt::format("{} does not load: {}", File.string(), dlerror()));
    }
    const auto *Library = static_cast<const RVFSD_PROVIDER_LIBRARY *>(dlsym(Loaded, "RvfsdProvider"));
    if (Library == nullptr) {
        throw LibraryError(fmt::format("{} is no Provider: it has no RvfsdProvider", File.string()));
    }
    if (Library->Version != RVFSD_PROVIDER_VERSION) {
        throw LibraryError(fmt::format("{} speaks version {} of the Provider interface, this program version {}",
                                       File.string(), Library->Version, RVFSD_PROVIDER_VERSION));
    }
    if (Library->TableBytes != sizeof(RVIOM_FSD_TABLE) || Library->Name == nullptr || Library->Create == nullptr ||
        Library->Volumes == nullptr) {
        throw LibraryError(fmt::format("{}: its RvfsdProvider is incomplete", File.string()));
    }
    return Library;
}

// The first operation that is missing, or null.
const char *MissingOperation(const RVIOM_FSD_TABLE &Table) {
#define REQUIRE(Name)                                                                                                  \
    if (Table.Name == nullptr) {                                                                                       \
        return #Name;                                                                                                  \
    }
    REQUIRE(Release)
#define REQUIRE_OPERATION(Number, Name) REQUIRE(RVFsd##Name)
    RVFSD_PROVIDER_OPERATIONS(REQUIRE_OPERATION)
#undef REQUIRE_OPERATION
#undef REQUIRE
    return nullptr;
}

bool NamesVolume(const std::string &Line) {
    return Line.starts_with("\\\\") && std::count(Line.begin(), Line.end(), '\\') == 3 && Line[2] != '\\' &&
           Line.back() != '\\';
}

} // namespace

SharedLibrary::SharedLibrary(const std::filesystem::path &File, const std::string &Options) : Library_(Load(File)) {
    char Problem[1024] = {};
    Provider_ = Library_->Create(Options.c_str(), Problem, sizeof(Problem));
    Problem[sizeof(Problem) - 1] = 0;
    if (Provider_ == nullptr) {
        throw LibraryError(fmt::format("{}: {}", Name(),
                                       Problem[0] != 0 ? Problem
                                                       : "it could not be made, and says no "
                                                         "reason"));
    }
    if (const char *Missing = Provider_->Table == nullptr ? "a table" : MissingOperation(*Provider_->Table)) {
        throw LibraryError(fmt::format("{}: its Provider has no {}", File.string(), Missing));
    }
    const char *Lines = Library_->Volumes(Provider_);
    std::istringstream Listed(Lines != nullptr ? Lines : "");
    std::string Fault;
    for (std::string Line; Fault.empty() && std::getline(Listed, Line);) {
        if (NamesVolume(Line)) {
            Volumes_.push_back(Line);
        } else {
            Fault = fmt::format("it offers '{}', which is no \\\\server\\volume", Line);
        }
    }
    if (Fault.empty() && Volumes_.empty()) {
        Fault = "it offers no volume";
    }
    if (!Fault.empty()) {
        Provider_->Table->Release(Provider_);
        throw LibraryError(fmt::format("{}: {}", Name(), Fault));
    }
}

SharedLibrary::~SharedLibrary() {
    Provider_->Table->Release(Provider_);
}

} // namespace providers
