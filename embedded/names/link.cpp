// Symbolic link objects: permanent and temporary ones, with their security, and the services that make, open and query
// them.

#include <algorithm>
#include <cstring>
#include <mutex>

#include <fmt/format.h>

#include "embedded/names/names.h"
#include "embedded/names/probe.h"
#include "embedded/names/tree.h"
#include "embedded/verifier/faults.h"
#include "embedded/verifier/rules.h"
#include "embedded/verifier/zw_rules.h"

namespace embedded {
namespace {

constexpr ACCESS_MASK DirectoryCreateObject = 0x0004;
constexpr GenericMapping LinkMapping = {0x00020001, 0x00020000, 0x00020001, SYMBOLIC_LINK_ALL_ACCESS};
constexpr GenericMapping DirectoryMapping = {0x00020003, 0x0002000C, 0x00020003, 0x000F000F};

// A caller from user mode gets what the object's security gives him; the kernel is not asked.
NTSTATUS Grant(const Security &Of, ACCESS_MASK Desired, const GenericMapping &Mapping, KPROCESSOR_MODE Mode,
               ACCESS_MASK *Granted) {
    if (Mode == KernelMode) {
        *Granted = MapGeneric(Desired, Mapping);
        return STATUS_SUCCESS;
    }
    return CheckAccess(Of, Desired, Mapping, Granted);
}

Ref<SymbolicLinkObject> MakeLink(std::u16string_view Target, Security Of, bool Permanent, bool OfDriver) {
    return Ref<SymbolicLinkObject>::Adopt(new SymbolicLinkObject(Target, std::move(Of), Permanent, OfDriver));
}

// Puts Link under Path if the caller may; the handle is opened before others can find the link.
NTSTATUS EnterWithHandle(std::u16string_view Path, SymbolicLinkObject &Link, ACCESS_MASK Desired, ULONG Attributes,
                         KPROCESSOR_MODE Mode, HANDLE *Handle) {
    Tree &In = TheTree();
    std::unique_lock Lock(In.Mutex);
    Ref<DirectoryObject> Parent;
    std::u16string_view Leaf;
    if (const NTSTATUS Status = WalkToParent(In, Path, &Parent, &Leaf); !NT_SUCCESS(Status)) {
        return Status;
    }
    ACCESS_MASK Granted = 0;
    NTSTATUS Status = Grant(Parent->Access, DirectoryCreateObject, DirectoryMapping, Mode, &Granted);
    if (NT_SUCCESS(Status)) {
        Status = Enter(*Parent.Get(), Leaf, Link);
    }
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    // Whoever makes an object has what he asks for, whatever its security says.
    Status = InsertHandle(Link, MapGeneric(Desired, LinkMapping), Attributes, Mode, Handle);
    if (!NT_SUCCESS(Status)) {
        Link.Parent = nullptr;
        Parent->Children.erase(Parent->Children.find(Leaf));
    }
    return Status;
}

NTSTATUS CreateLink(PHANDLE Handle, ACCESS_MASK Desired, const OBJECT_ATTRIBUTES &Attributes,
                    std::u16string_view Target, KPROCESSOR_MODE Mode) {
    const bool Permanent = (Attributes.Attributes & OBJ_PERMANENT) != 0;
    if (Permanent && Mode == UserMode && EffectiveToken().User != 0) {
        return STATUS_PRIVILEGE_NOT_HELD;
    }
    if (Target.empty()) {
        return STATUS_INVALID_PARAMETER;
    }
    Security Of;
    if (Attributes.SecurityDescriptor == nullptr) {
        Of = EffectiveToken().DefaultSecurity;
    } else if (const NTSTATUS Status = CaptureSecurity(Attributes.SecurityDescriptor, &Of); !NT_SUCCESS(Status)) {
        return Status;
    }
    const auto Link = MakeLink(Target, std::move(Of), Permanent, Mode == KernelMode);
    return EnterWithHandle(View(Attributes.ObjectName), *Link.Get(), Desired, Attributes.Attributes, Mode, Handle);
}

NTSTATUS OpenLink(PHANDLE Handle, ACCESS_MASK Desired, const OBJECT_ATTRIBUTES &Attributes, KPROCESSOR_MODE Mode) {
    ParsedName Parsed;
    if (const NTSTATUS Status =
            LookupName(View(Attributes.ObjectName), (Attributes.Attributes & OBJ_CASE_INSENSITIVE) != 0, &Parsed, true);
        !NT_SUCCESS(Status)) {
        return Status;
    }
    if (Parsed.Target->Type() != ObjectType::SymbolicLink) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    const auto &Link = static_cast<const SymbolicLinkObject &>(*Parsed.Target.Get());
    ACCESS_MASK Granted = 0;
    if (const NTSTATUS Status = Grant(Link.Access, Desired, LinkMapping, Mode, &Granted); !NT_SUCCESS(Status)) {
        return Status;
    }
    return InsertHandle(*Parsed.Target.Get(), Granted, Attributes.Attributes, Mode, Handle);
}

NTSTATUS QueryLink(HANDLE Handle, PUNICODE_STRING Target, PULONG ReturnedLength, KPROCESSOR_MODE Mode) {
    ObjectRef Found;
    if (const NTSTATUS Status = ReferenceHandle(Handle, ObjectType::SymbolicLink, SYMBOLIC_LINK_QUERY, Mode, &Found);
        !NT_SUCCESS(Status)) {
        return Status;
    }
    const std::u16string &Text = static_cast<const SymbolicLinkObject &>(*Found.Get()).Target;
    const size_t Bytes = Text.size() * sizeof(WCHAR);
    // The length that is told has room for a terminator, which a caller of the exact length goes without.
    if (ReturnedLength != nullptr) {
        *ReturnedLength = static_cast<ULONG>(Bytes + sizeof(WCHAR));
    }
    if (Bytes > Target->MaximumLength) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    memcpy(Target->Buffer, Text.data(), Bytes);
    Target->Length = static_cast<USHORT>(Bytes);
    if (Bytes + sizeof(WCHAR) <= Target->MaximumLength) {
        Target->Buffer[Text.size()] = 0;
    }
    return STATUS_SUCCESS;
}

NTSTATUS MakeTemporary(HANDLE Handle, KPROCESSOR_MODE Mode) {
    ObjectRef Found;
    if (const NTSTATUS Status = ReferenceHandle(Handle, ObjectType::SymbolicLink, DELETE, Mode, &Found);
        !NT_SUCCESS(Status)) {
        return Status;
    }
    std::unique_lock Lock(TheTree().Mutex);
    static_cast<SymbolicLinkObject &>(*Found.Get()).Permanent = false;
    return STATUS_SUCCESS;
}

} // namespace

void SymbolicLinkObject::OnLastHandleClosed() noexcept {
    ObjectRef Removed; // dropped after the lock
    std::unique_lock Lock(TheTree().Mutex);
    if (Permanent || Parent == nullptr || Handles() != 0) {
        return;
    }
    const auto Found = std::exchange(Parent, nullptr)->Children.extract(Name);
    Removed = std::move(Found.mapped());
    Lock.unlock();
}

NTSTATUS CreateSymbolicLink(std::u16string_view Path, std::u16string_view Target) noexcept {
    return InsertName(Path, *MakeLink(Target, {}, true, false).Get());
}

NTSTATUS QuerySymbolicLink(std::u16string_view Path, std::u16string *Target) noexcept {
    ParsedName Parsed;
    if (const NTSTATUS Status = LookupName(Path, true, &Parsed, true); !NT_SUCCESS(Status)) {
        return Status;
    }
    if (Parsed.Target->Type() != ObjectType::SymbolicLink) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    *Target = static_cast<const SymbolicLinkObject &>(*Parsed.Target.Get()).Target;
    return STATUS_SUCCESS;
}

NTSTATUS QueryNameSecurity(std::u16string_view Path, Security *Access) noexcept {
    ParsedName Parsed;
    if (const NTSTATUS Status = LookupName(Path, true, &Parsed, true); !NT_SUCCESS(Status)) {
        return Status;
    }
    switch (Parsed.Target->Type()) {
    case ObjectType::SymbolicLink:
        *Access = static_cast<const SymbolicLinkObject &>(*Parsed.Target.Get()).Access;
        return STATUS_SUCCESS;
    case ObjectType::Directory:
        *Access = static_cast<const DirectoryObject &>(*Parsed.Target.Get()).Access;
        return STATUS_SUCCESS;
    default:
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
}

namespace {

void DescribeBelow(const DirectoryObject &Directory, const std::u16string &Path, std::string *Text) {
    for (const auto &[Name, Child] : Directory.Children) {
        const std::u16string Full = Path + u"\\" + Name;
        if (Child->Type() == ObjectType::Directory) {
            DescribeBelow(static_cast<const DirectoryObject &>(*Child.Get()), Full, Text);
        } else if (Child->Type() == ObjectType::SymbolicLink &&
                   static_cast<const SymbolicLinkObject &>(*Child.Get()).OfDriver) {
            *Text += fmt::format("the link {} is left\n", std::string(Full.begin(), Full.end()));
        }
    }
}

} // namespace

std::string DescribeDriversLinks() {
    std::string Text;
    Tree &In = TheTree();
    std::shared_lock Lock(In.Mutex);
    if (In.Root) {
        DescribeBelow(*In.Root.Get(), {}, &Text);
    }
    return Text;
}

} // namespace embedded

using namespace embedded;

NTSTATUS NTAPI NtCreateSymbolicLinkObject(PHANDLE LinkHandle, ACCESS_MASK DesiredAccess,
                                          POBJECT_ATTRIBUTES ObjectAttributes, PUNICODE_STRING LinkTarget) noexcept {
    RequireIrql(IrqlRuleOf("NtCreateSymbolicLinkObject"));
    return CreateLink(LinkHandle, DesiredAccess, *ObjectAttributes, View(LinkTarget), PreviousMode());
}

NTSTATUS NTAPI NtOpenSymbolicLinkObject(PHANDLE LinkHandle, ACCESS_MASK DesiredAccess,
                                        POBJECT_ATTRIBUTES ObjectAttributes) noexcept {
    RequireIrql(IrqlRuleOf("NtOpenSymbolicLinkObject"));
    return OpenLink(LinkHandle, DesiredAccess, *ObjectAttributes, PreviousMode());
}

NTSTATUS NTAPI NtQuerySymbolicLinkObject(HANDLE LinkHandle, PUNICODE_STRING LinkTarget,
                                         PULONG ReturnedLength) noexcept {
    RequireIrql(IrqlRuleOf("NtQuerySymbolicLinkObject"));
    return QueryLink(LinkHandle, LinkTarget, ReturnedLength, PreviousMode());
}

NTSTATUS NTAPI NtMakeTemporaryObject(HANDLE Handle) noexcept {
    RequireIrql(IrqlRuleOf("NtMakeTemporaryObject"));
    return MakeTemporary(Handle, PreviousMode());
}

NTSTATUS NTAPI ZwCreateSymbolicLinkObject(PHANDLE LinkHandle, ACCESS_MASK DesiredAccess,
                                          POBJECT_ATTRIBUTES ObjectAttributes, PUNICODE_STRING LinkTarget) noexcept {
    RequireIrql(IrqlRuleOf("ZwCreateSymbolicLinkObject"));
    CheckZwPointers("ZwCreateSymbolicLinkObject", LinkHandle, ObjectAttributes, LinkTarget);
    CheckZwString(ObjectAttributes->ObjectName);
    CheckZwString(LinkTarget);
    if (ShouldFail(FaultKind::Link)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return CreateLink(LinkHandle, DesiredAccess, *ObjectAttributes, View(LinkTarget), KernelMode);
}

NTSTATUS NTAPI ZwOpenSymbolicLinkObject(PHANDLE LinkHandle, ACCESS_MASK DesiredAccess,
                                        POBJECT_ATTRIBUTES ObjectAttributes) noexcept {
    RequireIrql(IrqlRuleOf("ZwOpenSymbolicLinkObject"));
    CheckZwPointers("ZwOpenSymbolicLinkObject", LinkHandle, ObjectAttributes);
    CheckZwString(ObjectAttributes->ObjectName);
    if (ShouldFail(FaultKind::Link)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return OpenLink(LinkHandle, DesiredAccess, *ObjectAttributes, KernelMode);
}

NTSTATUS NTAPI ZwQuerySymbolicLinkObject(HANDLE LinkHandle, PUNICODE_STRING LinkTarget,
                                         PULONG ReturnedLength) noexcept {
    RequireIrql(IrqlRuleOf("ZwQuerySymbolicLinkObject"));
    CheckZwPointers("ZwQuerySymbolicLinkObject", LinkTarget, ReturnedLength);
    if (ShouldFail(FaultKind::Link)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return QueryLink(LinkHandle, LinkTarget, ReturnedLength, KernelMode);
}

NTSTATUS NTAPI ZwMakeTemporaryObject(HANDLE Handle) noexcept {
    RequireIrql(IrqlRuleOf("ZwMakeTemporaryObject"));
    if (ShouldFail(FaultKind::Link)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return MakeTemporary(Handle, KernelMode);
}
