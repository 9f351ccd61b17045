// A Provider as a C++ class: derive from rvfsd::Provider, override what your server can do, name the class in
// RVFSD_PROVIDER, build a shared library. The page "Writing a Provider" tells what the driver relies on.
//
// Every operation may be called from any number of threads at once. Arguments are good for the call only. An exception
// that leaves an operation becomes a status (no memory, or unsuccessful), so that it never reaches the driver.
#pragma once

#include <cstring>
#include <exception>
#include <string>
#include <string_view>

#include "rvfsd/library.h"
#include "rvfsd/operations.h"
#include "rvfsd/slots.h"

namespace rvfsd {

// The functions of the exported record. What the constructor of Type throws is the reason why there is no Provider.
template <class Type>
struct LibraryOf {
    static RVIOM_FSD *Create(const char *Options, char *Problem, SIZE_T ProblemBytes) {
        std::string Reason;
        try {
            return new Type(std::string_view(Options));
        } catch (const std::exception &Error) {
            Reason = Error.what();
        } catch (...) {
            Reason = "unknown exception";
        }
        strncpy(Problem, Reason.c_str(), ProblemBytes - 1);
        Problem[ProblemBytes - 1] = 0;
        return nullptr;
    }
    static const char *Volumes(RVIOM_FSD *Self) {
        Provider &Mine = Slots::Of(Self);
        Mine.VolumeLines_.clear();
        for (const std::string &Volume : Mine.Volumes()) {
            Mine.VolumeLines_ += Volume + "\n";
        }
        return Mine.VolumeLines_.c_str();
    }
};

} // namespace rvfsd

// Exports Type, a class derived from rvfsd::Provider whose constructor takes the user's text (std::string_view) and
// throws what is wrong with it. Once in a library.
#define RVFSD_PROVIDER(Type, Name)                                                                                     \
    extern "C" const RVFSD_PROVIDER_LIBRARY RvfsdProvider = {RVFSD_PROVIDER_VERSION, sizeof(RVIOM_FSD_TABLE), Name,    \
                                                             rvfsd::LibraryOf<Type>::Create,                           \
                                                             rvfsd::LibraryOf<Type>::Volumes}
