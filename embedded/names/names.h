// The name space: directories and symbolic links.
//
// Owns the name tree, guarded by one shared mutex, held for look-ups only, never across a driver call.
#pragma once

#include <string>
#include <string_view>

#include "embedded/ob/ob.h"
#include "embedded/rtl/counted.h"
#include "embedded/se/se.h"

namespace embedded {

struct ParsedName {
    ObjectRef Target;
    // What follows the target's own name, with its leading backslash; empty when the path names the target itself.
    // Points into Path or into Buffer.
    std::u16string_view Remaining;
    std::u16string Buffer;
};

// Walks Path from the root and follows symbolic links. Ends at the first object that is neither a directory nor a
// link; only devices and their like accept a remaining name. STATUS_OBJECT_PATH_SYNTAX_BAD without a leading
// backslash, STATUS_OBJECT_PATH_NOT_FOUND, STATUS_OBJECT_NAME_NOT_FOUND, STATUS_NAME_TOO_LONG for links in a circle,
// STATUS_OBJECT_TYPE_MISMATCH when a name goes on below an object that has nothing below it. Path must outlive
// Parsed. Reference counts the target. With OpenLink a link that ends the path is itself the target.
//
// \?? is the calling thread's: what its logon session's directory does not have is looked for in \GLOBAL??. SYSTEM has
// the global directory alone.
NTSTATUS LookupName(std::u16string_view Path, bool CaseInsensitive, ParsedName *Parsed, bool OpenLink = false) noexcept;

// Puts Target (referenced by the tree) under Path, whose parent directory must exist. STATUS_OBJECT_NAME_COLLISION
// when the name is taken.
NTSTATUS InsertName(std::u16string_view Path, Object &Target) noexcept;
// Takes the object of that name out of the tree; false when there is none.
bool RemoveName(std::u16string_view Path) noexcept;
// Makes a directory and those above it.
NTSTATUS CreateDirectory(std::u16string_view Path) noexcept;
// The directory that \?? means in a new logon session, with a link to the global one in it; null when its name is
// taken.
ObjectRef CreateSessionDirectory(std::u16string_view Path, Security Access) noexcept;
// Makes a permanent symbolic link of the kernel's own, which everybody may open; errors as InsertName.
NTSTATUS CreateSymbolicLink(std::u16string_view Path, std::u16string_view Target) noexcept;
// The target of the link of that name, or STATUS_OBJECT_NAME_NOT_FOUND / STATUS_OBJECT_TYPE_MISMATCH.
NTSTATUS QuerySymbolicLink(std::u16string_view Path, std::u16string *Target) noexcept;

// The links that drivers made and left, one line each.
std::string DescribeDriversLinks();

inline constexpr std::u16string_view GlobalDosDevices = u"\\GLOBAL??";

// Builds the tree of a fresh kernel (\Device, \GLOBAL??, \DosDevices -> \??, \Sessions\0\DosDevices).
void InitializeNameSpace();
// Empties the tree.
void ResetNameSpace() noexcept;

} // namespace embedded

// ---- Nt services for callers of the kernel ------------------------------------------------------------------

// Symbolic link objects. OBJ_PERMANENT is SYSTEM's privilege; what a link's security does not give is denied.
NTKERNELAPI NTSTATUS NTAPI NtCreateSymbolicLinkObject(PHANDLE LinkHandle, ACCESS_MASK DesiredAccess,
                                                      POBJECT_ATTRIBUTES ObjectAttributes,
                                                      PUNICODE_STRING LinkTarget) noexcept;
NTKERNELAPI NTSTATUS NTAPI NtOpenSymbolicLinkObject(PHANDLE LinkHandle, ACCESS_MASK DesiredAccess,
                                                    POBJECT_ATTRIBUTES ObjectAttributes) noexcept;
NTKERNELAPI NTSTATUS NTAPI NtQuerySymbolicLinkObject(HANDLE LinkHandle, PUNICODE_STRING LinkTarget,
                                                     PULONG ReturnedLength) noexcept;
NTKERNELAPI NTSTATUS NTAPI NtMakeTemporaryObject(HANDLE Handle) noexcept;
