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

enum class VolumeOperation { Create, Write, Delete };

// Puts the volume into the name space as \Device\HarddiskVolume1 and \??\C:. Without a directory it is in memory.
void InitializeSystemVolume(const std::optional<std::filesystem::path> &HostDirectory);
void ResetSystemVolume() noexcept;

// The next Count operations of that kind fail with Status and change nothing.
void FailNext(VolumeOperation Operation, NTSTATUS Status, unsigned Count = 1);

// The bytes of a file of the volume ("\Rvfsd.log"), or nothing when there is no such file.
std::optional<std::string> ReadSystemFile(std::u16string_view Name);
void WriteSystemFile(std::u16string_view Name, std::string_view Bytes);

// For the file services: Name is what followed the volume's own name.
CreateResult CreateSystemFile(std::u16string_view Name, const CreateParameters &Parameters) noexcept;
IO_STATUS_BLOCK WriteSystemFileObject(Object &File, const void *Buffer, ULONG Length, LONGLONG Offset) noexcept;
NTSTATUS DeleteSystemFile(std::u16string_view Name) noexcept;

} // namespace embedded
