// The requests that the mount makes: one open object of the server, through the kernel's services. Every call returns
// an errno, 0 for success; none throws but for want of memory.
//
// Handles are opened for synchronous use, and share everything: the mount keeps POSIX's rules, not the share modes.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "embedded/zw/zw.h"

namespace app::mount {

// What a query tells of a file or directory. Times in units of 100 ns since 1601.
struct Facts {
    LONG64 Creation = 0;
    LONG64 LastAccess = 0;
    LONG64 LastWrite = 0;
    LONG64 Size = 0;
    ULONG Attributes = 0;

    bool IsDirectory() const {
        return (Attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    }
    bool IsReadOnly() const {
        return (Attributes & FILE_ATTRIBUTE_READONLY) != 0;
    }
};

struct Space {
    ULONG64 UnitBytes = 0;
    ULONG64 Total = 0; // in units, as the others
    ULONG64 Free = 0;
    ULONG64 Available = 0;
};

class Remote {
public:
    struct Asked {
        ACCESS_MASK Access = FILE_READ_ATTRIBUTES;
        ULONG Disposition = FILE_OPEN;
        ULONG Options = 0;
        ULONG Attributes = 0;
    };

    Remote() = default;
    Remote(Remote &&Other) noexcept : Handle_(std::exchange(Other.Handle_, nullptr)), Access_(Other.Access_) {
    }
    Remote &operator=(Remote &&Other) noexcept {
        std::swap(Handle_, Other.Handle_);
        std::swap(Access_, Other.Access_);
        return *this;
    }
    ~Remote();

    // Opens Path, \server\volume\...; SYNCHRONIZE is added to what is asked for.
    [[nodiscard]] int Open(const std::u16string &Path, const Asked &What);
    explicit operator bool() const {
        return Handle_ != nullptr;
    }
    bool Has(ACCESS_MASK Access) const {
        return (Access_ & Access) == Access;
    }
    // Closes; the failure that the cleanup or the close of the driver was completed with.
    int Close();

    // A query that the server did not answer comes as zeros: that is EIO, or what the server says when it is asked
    // again.
    int Query(Facts *Found);
    int Read(ULONG64 Offset, void *Buffer, size_t Length, size_t *Done);
    // Writes all of it; at the end of the file with AtEnd. A part that was written before an error counts.
    int Write(ULONG64 Offset, const void *Buffer, size_t Length, bool AtEnd, size_t *Done);
    int Flush();
    int SetSize(ULONG64 Size);
    // Times that are 0 stay; attributes too.
    int SetBasic(LONG64 LastAccess, LONG64 LastWrite, ULONG Attributes);
    int SetReadOnly(const Facts &Now, bool ReadOnly);
    int SetDelete(bool Delete);
    int Rename(const std::u16string &NewPath, bool Replace);
    // Fails at once with EAGAIN where somebody else has the range.
    int Lock(ULONG64 Offset, ULONG64 Length, bool Exclusive);
    int Unlock(ULONG64 Offset, ULONG64 Length);
    int QuerySpace(Space *Found);
    // Every entry but "." and "..", in the server's order. A listing that the server broke off is an error.
    int List(const std::function<void(std::u16string_view Name, const Facts &Entry)> &Each);

private:
    HANDLE Handle_ = nullptr;
    ACCESS_MASK Access_ = 0;
};

} // namespace app::mount
