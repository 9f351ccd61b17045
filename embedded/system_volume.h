// The system volume: where \??\C:\ leads, for the files that drivers write themselves (a log).
//
// A host directory, or a store in memory. Opens go through ZwCreateFile with the dispositions and share modes of the
// file services reduced to what a log needs: create, open, write at an offset, delete. One mutex guards it; host files
// are written synchronously.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "kernel/kernel.h"

namespace embedded {

struct CreateParameters;
struct CreateResult;
class Object;

// Puts the volume into the name space as \Device\HarddiskVolume1 and \??\C:. Without a directory it is in memory.
void InitializeSystemVolume(const std::optional<std::filesystem::path> &HostDirectory);
void ResetSystemVolume() noexcept;

// For the file services: Name is what followed the volume's own name.
CreateResult CreateSystemFile(std::u16string_view Name, const CreateParameters &Parameters) noexcept;
IO_STATUS_BLOCK WriteSystemFileObject(Object &File, const void *Buffer, ULONG Length, LONGLONG Offset) noexcept;
NTSTATUS DeleteSystemFile(std::u16string_view Name) noexcept;

} // namespace embedded
