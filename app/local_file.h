// Files of the machine that the program runs on, for the verbs that move bytes. Failures are std::runtime_error with
// the name and what the system says; waits end with Interrupted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "app/file_access.h"

namespace app {

class LocalFile {
public:
    // Takes a descriptor over; those of the standard streams stay open.
    LocalFile(int Descriptor, std::string Name) : Descriptor_(Descriptor), Name_(std::move(Name)) {
    }
    LocalFile(LocalFile &&Other) noexcept;
    LocalFile &operator=(LocalFile &&) = delete;
    ~LocalFile();

    static LocalFile OpenForReading(const std::string &Name);

    // Bytes read; 0 at the end.
    size_t Read(void *Buffer, size_t Length);
    // Writes all of it.
    void Write(const void *Buffer, size_t Length);
    // Of a regular file, otherwise -1.
    int64_t Size() const;
    // Of the last change of its bytes, in 100-ns units since 1601; 0 when it is no regular file.
    int64_t WriteTime() const;
    const std::string &Name() const {
        return Name_;
    }

protected:
    int Descriptor_;
    std::string Name_;
};

// A file to be written. One that was made for it is removed again unless it is kept; one that replaces a regular file
// is written beside that and takes its name at the end.
class LocalTarget : public LocalFile {
public:
    // Refuses a file that is there unless Replace; refuses one that is among Sources in any case. Nothing is emptied
    // before both are settled. InPlace: a file that is there is written into.
    LocalTarget(const std::string &Name, bool Replace, bool InPlace, const std::vector<std::filesystem::path> &Sources);
    ~LocalTarget();

    // The bytes are all there: closes the file, whose failure counts too, and puts it in its place. WriteTime as above;
    // 0: now.
    void Keep(int64_t WriteTime);

private:
    void OpenBeside();

    std::optional<FileAccess> Access_; // of the file that is replaced
    std::string Part_; // what is to be removed unless it is kept: Name_, or what is beside it; empty: nothing
};

// When a file or directory was last written, in 100-ns units since 1601. Throws when it cannot be told.
int64_t WriteTimeOf(const std::filesystem::path &Name);
// Sets that; a time before 1970 is no time here and changes nothing.
void SetWriteTime(const std::filesystem::path &Name, int64_t Time);

// TRUE when Name is one of Files, by whatever name.
bool IsOneOf(const std::filesystem::path &Name, const std::vector<std::filesystem::path> &Files);

} // namespace app
