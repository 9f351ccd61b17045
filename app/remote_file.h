// An open file or directory of a server, through the system services. Opens, transfers and listings throw Interrupted
// instead of beginning after a signal (interrupt.h).
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "embedded/zw/zw.h"

namespace app {

struct OpenRequest {
    ACCESS_MASK Access = FILE_READ_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE;
    ULONG Share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    ULONG Disposition = FILE_OPEN;
    ULONG Options = FILE_SYNCHRONOUS_IO_NONALERT;
    ULONG Attributes = 0;
    LONG64 AllocationSize = 0;
};

// Opens Path (\server\volume\...) and says how it went; nothing is thrown.
embedded::CreateResult OpenRemote(std::u16string_view Path, const OpenRequest &Request);

class RemoteFile {
public:
    // StatusError when the open is refused.
    RemoteFile(std::u16string Path, const OpenRequest &Request);
    // Takes over what an open that succeeded gave.
    RemoteFile(std::u16string Path, const embedded::CreateResult &Opened)
        : Path_(std::move(Path)), Handle_(Opened.Handle), Information_(Opened.Information) {
    }
    RemoteFile(RemoteFile &&Other) noexcept;
    RemoteFile(const RemoteFile &) = delete;
    RemoteFile &operator=(const RemoteFile &) = delete;
    ~RemoteFile();

    const std::u16string &Path() const {
        return Path_;
    }
    HANDLE Handle() const {
        return Handle_;
    }
    ULONG_PTR CreateInformation() const {
        return Information_;
    }

    // Bytes read at Offset; 0 at the end of the file. StatusError on failure.
    size_t Read(LONG64 Offset, void *Buffer, size_t Length);
    // Writes all of it. StatusError on failure, also when nothing more can be written.
    void Write(LONG64 Offset, const void *Buffer, size_t Length);
    void Flush();

    // One class of file or volume information: the answer's bytes. Query throws on failure, Ask tells.
    struct Answer {
        NTSTATUS Status;
        ULONG_PTR Information;
        std::vector<UCHAR> Bytes; // of the asked length
    };
    Answer Ask(ULONG InfoClass, ULONG Length);
    Answer AskVolume(ULONG InfoClass, ULONG Length);
    Answer Query(ULONG InfoClass, ULONG Length);
    Answer QueryVolume(ULONG InfoClass, ULONG Length);
    void Set(ULONG InfoClass, const void *Record, ULONG Length);

    // The next entries of the directory in one buffer. STATUS_NO_MORE_FILES and STATUS_NO_SUCH_FILE end a listing.
    Answer List(ULONG InfoClass, ULONG Length, std::u16string_view Mask, bool Restart, bool Single);

    // Closes and forgets the handle; the failure of the cleanup or the close that the driver was asked for.
    NTSTATUS Close();
    // The same when something was changed; StatusError on failure.
    void End();

private:
    std::u16string Path_;
    HANDLE Handle_ = nullptr;
    ULONG_PTR Information_ = 0;
};

struct DirectoryEntry {
    std::u16string Name;
    std::u16string ShortName;
    ULONG Attributes;
    LONG64 Size;
    LONG64 LastWrite;
};

// A buffer for listings that are wanted whole.
inline constexpr ULONG LargeListing = 65536;

// The entries of a packed answer.
std::vector<DirectoryEntry> UnpackEntries(const RemoteFile::Answer &Answer, ULONG InfoClass);

// The driver answers a Provider's error as the end of a listing. CheckListing throws a StatusError when a listing of
// this thread ended so since BeginListing.
void BeginListing();
void CheckListing(const RemoteFile &Directory);

// Every entry of Directory that matches Mask, in batches of Bytes; "." and ".." left out. StatusError on failure.
std::vector<DirectoryEntry> ListDirectory(RemoteFile &Directory, std::u16string_view Mask, ULONG Bytes);

} // namespace app
