// Text between the shell and the kernel: paths, statuses, sizes, times.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "kernel/kernel.h"

namespace app {

// The command was not understood: exit code 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A driver or the kernel refused: exit code 1. What names the object.
struct StatusError : std::runtime_error {
    StatusError(NTSTATUS Status, const std::string &What);
    NTSTATUS Status;
};

// Strict conversions: UsageError for text that is not UTF-8; unpaired surrogates are shown as U+FFFD.
std::u16string Widen(std::string_view Text);
std::string Narrow(std::u16string_view Text);

// A remote path: \\server\volume[\...] or //server/volume[/...], kept with one leading backslash and without separators
// at its end. In a console that has changed its directory, what does not begin so is relative to that: dir\file,
// .\file; IsRemote is TRUE only of those with a backslash, for the others may be local files.
// Through a drive letter it begins with that and has no leading backslash: G:\dir\file, G: for the mapped directory.
bool IsRemote(std::string_view Path);
std::u16string RemotePath(std::string_view Path); // UsageError without server and volume
std::string UncPath(std::string_view Path);       // the same, shown, without letters: UsageError for one
// The name of a remote path for the kernel: below \??.
std::u16string KernelName(std::u16string_view Path);
// The length of its part that cannot be left: server and volume, or the letter.
size_t RootLength(std::u16string_view Path);
// What relative paths are relative to; empty: there are none.
void SetRemoteDirectory(std::u16string Directory);
const std::u16string &RemoteDirectory();
// Without its last component; and that alone.
std::u16string ParentOf(const std::u16string &Path);
std::u16string LastOf(const std::u16string &Path);
std::string ShowPath(std::u16string_view Path); // \\server\volume\...

// "STATUS_SUCCESS", or the number when it has no name.
std::string StatusName(NTSTATUS Status);
// "STATUS_SUCCESS (0x00000000)"
std::string ShowStatus(NTSTATUS Status);
// "FILE_OPENED" and so on.
std::string InformationName(ULONG_PTR Information);

// A decimal number, or a hexadecimal one after 0x, of at most Largest. UsageError otherwise.
uint64_t ParseNumber(std::string_view Text, uint64_t Largest = UINT64_MAX);
uint32_t ParseWord(std::string_view Text);
// A number of bytes, which may be written 64K, 1M, 2GiB, ...: in steps of 1024.
uint64_t ParseSize(std::string_view Text, uint64_t Largest = UINT64_MAX);
// "YYYY-MM-DD[ HH:MM[:SS]]" in local time, 100-ns units since 1601, -1 for "leave it"; empty: now. UsageError for what
// is no time, such as the 31st of February.
LONG64 ParseTime(const std::string &Text);

// The driver's message categories: "create,close,0x40", "all". UsageError that lists the names.
uint32_t ParseCategories(std::string_view Text);
// The names of the bits of Mask.
std::string ShowCategories(uint32_t Mask);

// One message on standard error, behind what standard output was given before. Never throws: when standard error cannot
// be written there is nobody left to tell.
void Complain(std::string_view Message) noexcept;

// 100-ns units since 1601 as local time; "-" for 0.
std::string ShowTime(LONG64 Time);
// "rhsda": the attribute letters, '-' where absent.
std::string ShowAttributes(ULONG Attributes);

} // namespace app
