// Reading what is in a directory, and what it says of itself. No locks; every call may wait for the file system.
#pragma once

#include <ctime>
#include <string_view>

#include "providers/directory/beneath.h"

namespace providers::directory {

// Calls Each(name, type) for every entry of the directory open as Fd but "." and "..". Type is a DT_* value. Returns 0
// or an error number; what came before an error is no whole directory.
template <class Visitor>
int ReadDirectory(int Fd, Visitor Each);
int ReadDirectory(int Fd, void (*Each)(void *Context, std::string_view Name, unsigned char Type), void *Context);

// Whether the directory open as Fd was read to its end and has no entries.
bool IsEmptyDirectory(int Fd);

// Whether the directory itself finds names in any case, so that one that it does not find is not there.
bool FoldsCase(int Fd);

template <class Visitor>
int ReadDirectory(int Fd, Visitor Each) {
    return ReadDirectory(
        Fd,
        [](void *Context, std::string_view Name, unsigned char Type) {
            (*static_cast<Visitor *>(Context))(Name, Type);
        },
        static_cast<void *>(&Each));
}

} // namespace providers::directory
