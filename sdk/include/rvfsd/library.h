// What a shared library with a Provider exports: one record, named RvfsdProvider.
//
// RVFSD_PROVIDER (rvfsd/provider.h) defines it for a class; a library in another language defines it by hand. The
// functions of this record have the platform's own calling convention, the operations of the Provider's table that of
// Windows (NTAPI).
#pragma once

#include "provider/provider_interface.h"

// Changes with the table of operations, with this record, and with what either promises.
#define RVFSD_PROVIDER_VERSION 1

struct RVFSD_PROVIDER_LIBRARY {
    ULONG Version;    // RVFSD_PROVIDER_VERSION as the library was built
    ULONG TableBytes; // sizeof(RVIOM_FSD_TABLE), likewise
    // What messages call the Provider; UTF-8.
    const char *Name;
    // Makes the Provider from the text that the user gave it (UTF-8, never null, empty without one). One reference is
    // the caller's, who drops it with slot 2. Null when it cannot be made; Problem then holds the reason, UTF-8 of less
    // than ProblemBytes with its terminator. Called once at a time.
    RVIOM_FSD *(*Create)(const char *Options, char *Problem, SIZE_T ProblemBytes);
    // The volumes that a user is offered, UTF-8, one \\server\volume a line. Valid while Provider is. At least one; the
    // Provider may know more.
    const char *(*Volumes)(RVIOM_FSD *Provider);
};

extern "C" __attribute__((visibility("default"))) const RVFSD_PROVIDER_LIBRARY RvfsdProvider;
