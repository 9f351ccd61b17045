// Copies of single files: in, out, from server to server. Bytes arrive whole or not at all: what replaces a file is
// written beside it and takes its name at the end, unless it is to be written in place.
#pragma once

#include <string>

#include "app/local_file.h"
#include "app/remote_file.h"
#include "app/session.h"

namespace app {

struct CopyOptions {
    bool Force = false;    // a file that is there is replaced
    bool InPlace = false;  // by writing into it: it keeps its identity, and its old bytes are lost when that fails
    bool Preserve = false; // times and attributes too
    bool Tell = false;     // each file, when it is copied
};

// Each throws StatusError, std::runtime_error of a local file, or Interrupted; nothing new is left behind then.
void CopyIn(Session &Running, LocalFile &From, const std::u16string &To, const CopyOptions &Options);
void CopyOut(Session &Running, const std::u16string &From, const std::string &To, const CopyOptions &Options);
void CopyAcross(Session &Running, const std::u16string &From, const std::u16string &To, const CopyOptions &Options);
// To standard output.
void CopyToOutput(const std::u16string &From);

// TRUE when both hold the same bytes.
bool SameBytes(const std::u16string &One, const std::u16string &Other);

// Renames or moves within a volume.
void Rename(const std::u16string &From, const std::u16string &To, bool Replace);
// Deletes a file or an empty directory (Kind: FILE_NON_DIRECTORY_FILE, FILE_DIRECTORY_FILE); Force: a read-only one
// too, whose attributes are as they were when the deletion is refused.
void Remove(const std::u16string &Path, ULONG Kind, bool Force);
void MakeDirectory(const std::u16string &Path);

FILE_BASIC_INFORMATION Basic(RemoteFile &File);
void SetBasic(RemoteFile &File, const FILE_BASIC_INFORMATION &Record);

// What Path is; nothing when it does not open.
enum class Kind { Missing, File, Directory };
Kind KindOf(const std::u16string &Path);

} // namespace app
