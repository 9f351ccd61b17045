#include "mapping/session_links.h"

#include "frame/diagnostics.h"
#include "mapping/rvpl_block.h"
#include "names/strings.h"

namespace {

constexpr ULONG LINK_ATTRIBUTES = OBJ_PERMANENT | OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE;
static_assert(LINK_ATTRIBUTES == 0x250);
constexpr ULONG NAME_BYTES = 64;
constexpr LUID SYSTEM_LOGON_ID = {0x3E7, 0};
// Of TokenElevationType.
constexpr ULONG ELEVATION_DEFAULT = 1;
constexpr ULONG ELEVATION_FULL = 2;
constexpr ULONG ELEVATION_LIMITED = 3;

static_assert(sizeof(TOKEN_STATISTICS) == 56 && sizeof(HANDLE) == 8 && sizeof(SECURITY_DESCRIPTOR) == 40);

// A kernel handle that is closed by scope.
class OwnedHandle {
public:
    OwnedHandle() = default;
    OwnedHandle(const OwnedHandle &) = delete;
    OwnedHandle &operator=(const OwnedHandle &) = delete;
    ~OwnedHandle() {
        if (Handle_ != nullptr) {
            ZwClose(Handle_);
        }
    }
    PHANDLE Out() {
        return &Handle_;
    }
    HANDLE Get() const {
        return Handle_;
    }

private:
    HANDLE Handle_ = nullptr;
};

// The caller's token, so that an impersonating thread acts for its client. *OfThread is what the thread's token
// answered.
NTSTATUS OpenCallerToken(PHANDLE Token, NTSTATUS *OfThread) {
    *OfThread = ZwOpenThreadTokenEx(NtCurrentThread(), GENERIC_READ, FALSE, OBJ_KERNEL_HANDLE, Token);
    if (*OfThread != STATUS_NO_TOKEN) {
        return *OfThread;
    }
    return ZwOpenProcessTokenEx(NtCurrentProcess(), GENERIC_READ, OBJ_KERNEL_HANDLE, Token);
}

NTSTATUS QuerySessionOf(HANDLE Token, PLUID Luid) {
    TOKEN_STATISTICS Statistics;
    ULONG Length = 0;
    const NTSTATUS Status = ZwQueryInformationToken(Token, TokenStatistics, &Statistics, sizeof(Statistics), &Length);
    if (NT_SUCCESS(Status)) {
        *Luid = Statistics.AuthenticationId;
    }
    return Status;
}

// QuerySessionOf, whose failure is told.
NTSTATUS QuerySessionAloud(HANDLE Token, PLUID Luid) {
    const NTSTATUS Status = QuerySessionOf(Token, Luid);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] GetLinkedTokenLogonSessionLUID Statistics for 0x%p failed; status 0x%08X (process "
                        "0x%p, thread 0x%p).\n",
                        Token, Status, IoGetCurrentProcess(), KeGetCurrentThread());
    }
    return Status;
}

// Full or limited into *Elevation; a token that is neither is not linked.
NTSTATUS QueryElevation(HANDLE Token, LUID Caller, PULONG Elevation) {
    ULONG Length = 0;
    *Elevation = 0;
    const NTSTATUS Status = ZwQueryInformationToken(Token, TokenElevationType, Elevation, sizeof(*Elevation), &Length);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] GetLinkedTokenLogonSessionLUID ElevationType for LUID 0x%016I64X failed; status "
                        "0x%08X (process 0x%p, thread 0x%p).\n",
                        LuidBits(Caller), Status, IoGetCurrentProcess(), KeGetCurrentThread());
        return Status;
    }
    if (*Elevation == ELEVATION_FULL || *Elevation == ELEVATION_LIMITED) {
        return STATUS_SUCCESS;
    }
    if (*Elevation != ELEVATION_DEFAULT) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] GetLinkedTokenLogonSessionLUID LUID 0x%016I64X unhandled ElevationType (0x0%X); "
                        "proceed as not linked (process 0x%p, thread 0x%p).\n",
                        LuidBits(Caller), *Elevation, IoGetCurrentProcess(), KeGetCurrentThread());
    }
    return STATUS_OBJECT_TYPE_MISMATCH;
}

NTSTATUS QueryLinkedToken(HANDLE Token, LUID Caller, PHANDLE Linked) {
    ULONG Length = 0;
    const NTSTATUS Status = ZwQueryInformationToken(Token, TokenLinkedToken, Linked, sizeof(*Linked), &Length);
    if (Status == STATUS_NO_SUCH_LOGON_SESSION) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] GetLinkedTokenLogonSessionLUID LinkedToken for LUID 0x%016I64X returned "
                        "STATUS_NO_SUCH_LOGON_SESSION (process 0x%p, thread 0x%p).\n",
                        LuidBits(Caller), IoGetCurrentProcess(), KeGetCurrentThread());
    } else if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] GetLinkedTokenLogonSessionLUID LinkedToken for LUID 0x%016I64X failed; status 0x%08X "
                        "(process 0x%p, thread 0x%p).\n",
                        LuidBits(Caller), Status, IoGetCurrentProcess(), KeGetCurrentThread());
    }
    return Status;
}

// The default DACL of Token in a block of RVPL's, or NULL; what fails here is told and fails nothing else.
PTOKEN_DEFAULT_DACL QueryDefaultDacl(HANDLE Token) {
    ULONG Bytes = 0;
    NTSTATUS Status = ZwQueryInformationToken(Token, TokenDefaultDacl, nullptr, 0, &Bytes);
    RvplBlock<TOKEN_DEFAULT_DACL> Dacl;
    if (Status != STATUS_BUFFER_TOO_SMALL) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] GetLinkedTokenLogonSessionLUID TokenDefaultDacl for 0x%p failed; status 0x%08X "
                        "(process 0x%p, thread 0x%p).\n",
                        Token, Status, IoGetCurrentProcess(), KeGetCurrentThread());
    } else if (Bytes >= sizeof(TOKEN_DEFAULT_DACL)) {
        Dacl.Allocate(Bytes);
    }
    if (!Dacl) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] GetLinkedTokenLogonSessionLUID alloc for %u bytes for TokenDefaultDacl failed "
                        "(process 0x%p, thread 0x%p).\n",
                        Bytes, IoGetCurrentProcess(), KeGetCurrentThread());
        return nullptr;
    }
    ULONG Length = 0;
    Status = ZwQueryInformationToken(Token, TokenDefaultDacl, Dacl.Get(), Bytes, &Length);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] GetLinkedTokenLogonSessionLUID TokenDefaultDacl for 0x%p with %u bytes failed; status "
                        "0x%08X (process 0x%p, thread 0x%p).\n",
                        Token, Bytes, Status, IoGetCurrentProcess(), KeGetCurrentThread());
        return nullptr;
    }
    NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                    "[TWFS] GetLinkedTokenLogonSessionLUID TokenDefaultDacl for 0x%p returned in %u bytes (process "
                    "0x%p, thread 0x%p).\n",
                    Token, Bytes, IoGetCurrentProcess(), KeGetCurrentThread());
    return Dacl.Detach();
}

} // namespace

NTSTATUS GetCallerLogonSessionLuid(PLUID Luid) {
    OwnedHandle Token;
    NTSTATUS OfThread;
    const NTSTATUS Status = OpenCallerToken(Token.Out(), &OfThread);
    return NT_SUCCESS(Status) ? QuerySessionOf(Token.Get(), Luid) : Status;
}

NTSTATUS GetLinkedTokenLogonSessionLUID(HANDLE Token, PLUID LinkedLuid, PTOKEN_DEFAULT_DACL *DefaultDacl) {
    if (DefaultDacl != nullptr) {
        *DefaultDacl = nullptr;
    }
    LUID Caller = {};
    NTSTATUS Status = QuerySessionAloud(Token, &Caller);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    ULONG Elevation;
    Status = QueryElevation(Token, Caller, &Elevation);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    OwnedHandle Linked;
    Status = QueryLinkedToken(Token, Caller, Linked.Out());
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    LUID Other = {};
    Status = QuerySessionAloud(Linked.Get(), &Other);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    if (DefaultDacl != nullptr) {
        *DefaultDacl = QueryDefaultDacl(Linked.Get());
    }
    const bool Limited = Elevation == ELEVATION_LIMITED;
    NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                    "[TWFS] GetLinkedTokenLogonSessionLUID caller's LUID 0x%016I64X is %s, linked LUID 0x%016I64X is "
                    "%s.\n",
                    LuidBits(Caller), Limited ? "non-elevated" : "elevated", LuidBits(Other),
                    Limited ? "elevated" : "non-elevated");
    *LinkedLuid = Other;
    return STATUS_SUCCESS;
}

NTSTATUS GetLinkedLogonSessionLUID(PLUID LinkedLuid, PTOKEN_DEFAULT_DACL *DefaultDacl) {
    if (DefaultDacl != nullptr) {
        *DefaultDacl = nullptr;
    }
    OwnedHandle Token;
    NTSTATUS OfThread;
    NTSTATUS Status = OpenCallerToken(Token.Out(), &OfThread);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] GetLinkedLogonSessionLUID open token for ETHREAD 0x%p status 0x%08X.\n",
                        KeGetCurrentThread(), OfThread);
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] GetLinkedLogonSessionLUID open token for EPROCESS 0x%p status 0x%08X.\n",
                        IoGetCurrentProcess(), Status);
        return Status;
    }
    Status = GetLinkedTokenLogonSessionLUID(Token.Get(), LinkedLuid, DefaultDacl);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] GetLinkedLogonSessionLUID GetLinkedTokenLogonSessionLUID for token 0x%p status "
                        "0x%08X.\n",
                        Token.Get(), Status);
    }
    return Status;
}

// ---- One link

namespace {

// FALSE only when the link surely leads elsewhere than to Target: then it is somebody else's. Without memory to read
// where it leads, or to say where Target does, its length decides.
bool MayLeadTo(HANDLE Link, PCUNICODE_STRING Target) {
    const ULONG Room = ULONG{Target->Length} + sizeof(WCHAR);
    PoolPointer<WCHAR> Buffer(Target->Buffer != nullptr ? static_cast<PWSTR>(TwAllocBuffer(Room)) : nullptr);
    UNICODE_STRING Actual = {0, static_cast<USHORT>(Buffer && Room <= 0xFFFF ? Room : 0), Buffer.Get()};
    ULONG Length = 0;
    const NTSTATUS Status = ZwQuerySymbolicLinkObject(Link, &Actual, &Length);
    if (NT_SUCCESS(Status)) {
        return Actual.Length == Target->Length && memcmp(Actual.Buffer, Target->Buffer, Target->Length) == 0;
    }
    // The length is told with or without a terminator.
    return Status != STATUS_BUFFER_TOO_SMALL ||
           (Actual.MaximumLength == 0 && (Length == Target->Length || Length == Room));
}

NTSTATUS DeleteLink(POBJECT_ATTRIBUTES Attributes, PCUNICODE_STRING Target, PHANDLE Link) {
    NTSTATUS Status = ZwOpenSymbolicLinkObject(Link, GENERIC_READ, Attributes);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] CreateOrDeleteSymbolicLink ZwOpenSymbolicLinkObject \"%wZ\" failed; status 0x%08X.\n",
                        Attributes->ObjectName, Status);
        return Status;
    }
    if (Target != nullptr && !MayLeadTo(*Link, Target)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0, "[TWFS] CreateOrDeleteSymbolicLink \"%wZ\" leads elsewhere; it stays.\n",
                        Attributes->ObjectName);
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    Status = ZwMakeTemporaryObject(*Link);
    NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                    "[TWFS] CreateOrDeleteSymbolicLink ZwMakeTemporaryObject \"%wZ\" status 0x%08X.\n",
                    Attributes->ObjectName, Status);
    return Status;
}

template <typename... T>
void FormatName(PSTR Name, PCSTR Format, T... Values) {
    const FormatArgument Arguments[] = {MakeFormatArgument(Values)...};
    FormatBounded(Name, NAME_BYTES, Format, Arguments, sizeof...(T));
}

} // namespace

NTSTATUS CreateOrDeleteSymbolicLink(PCSTR LinkName, PUNICODE_STRING Target, BOOLEAN Create,
                                    PSECURITY_DESCRIPTOR SecurityDescriptor) {
    // Converted into the frame: a link must be deleted when there is no memory, too.
    WCHAR Text[NAME_BYTES];
    UNICODE_STRING Name = {0, sizeof(Text), Text};
    const auto Bytes = static_cast<USHORT>(strlen(LinkName));
    const ANSI_STRING Ansi = {Bytes, Bytes, const_cast<PSTR>(LinkName)};
    NTSTATUS Status = RtlAnsiStringToUnicodeString(&Name, const_cast<ANSI_STRING *>(&Ansi), FALSE);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] CreateOrDeleteSymbolicLink \"%s\" RtlAnsiStringToUnicodeString status 0x%08X.\n",
                        LinkName, Status);
        return Status;
    }
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, &Name, LINK_ATTRIBUTES, nullptr, SecurityDescriptor);
    OwnedHandle Link;
    if (!Create) {
        return DeleteLink(&Attributes, Target, Link.Out());
    }
    Status = ZwCreateSymbolicLinkObject(Link.Out(), GENERIC_READ, &Attributes, Target);
    NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                    "[TWFS] CreateOrDeleteSymbolicLink ZwCreateSymbolicLinkObject \"%wZ\" status 0x%08X.\n", &Name,
                    Status);
    return Status;
}

NTSTATUS CreateOrDeleteSymbolicLinkInCurrentSession(CHAR Letter, PUNICODE_STRING Target, BOOLEAN Create) {
    if (!Create) {
        LUID Luid = {};
        const NTSTATUS Status = GetCallerLogonSessionLuid(&Luid);
        return NT_SUCCESS(Status) ? DeleteSymbolicLinkMadeInSession(Luid, Letter, Target) : Status;
    }
    CHAR Name[NAME_BYTES];
    FormatName(Name, "\\??\\%c:", LONG{Letter});
    return CreateOrDeleteSymbolicLink(Name, Target, TRUE, nullptr);
}

NTSTATUS DeleteSymbolicLinkInSession(LUID Luid, CHAR Letter, PUNICODE_STRING Target) {
    CHAR Name[NAME_BYTES];
    FormatName(Name, "\\Sessions\\0\\DosDevices\\%08X-%08X\\%c:", Luid.HighPart, Luid.LowPart, LONG{Letter});
    return CreateOrDeleteSymbolicLink(Name, Target, FALSE, nullptr);
}

NTSTATUS DeleteSymbolicLinkMadeInSession(LUID Luid, CHAR Letter, PUNICODE_STRING Target) {
    if (!IsEqualLuid(Luid, SYSTEM_LOGON_ID)) {
        return DeleteSymbolicLinkInSession(Luid, Letter, Target);
    }
    // The system's own DOS devices are everybody's.
    CHAR Name[NAME_BYTES];
    FormatName(Name, "\\GLOBAL??\\%c:", LONG{Letter});
    return CreateOrDeleteSymbolicLink(Name, Target, FALSE, nullptr);
}

// ---- The policy of linked connections, and the linked session

namespace {

constexpr UNICODE_STRING PARAMETERS_KEY =
    ConstantString(WTEXT("\\REGISTRY\\Machine\\Software\\Veyra\\Client\\Parameters"));
constexpr UNICODE_STRING POLICY_KEY =
    ConstantString(WTEXT("\\REGISTRY\\Machine\\Software\\Microsoft\\Windows\\CurrentVersion\\Policies\\System"));
constexpr UNICODE_STRING POLICY_VALUE = ConstantString(WTEXT("EnableLinkedConnections"));
constexpr ULONG VALUE_BUFFER_BYTES = 536;

NTSTATUS QueryPolicy(HANDLE Key, PUNICODE_STRING KeyPath, PKEY_VALUE_FULL_INFORMATION Buffer, PULONG Value) {
    UNICODE_STRING Name = POLICY_VALUE;
    ULONG Length = 0;
    NTSTATUS Status = ZwQueryValueKey(Key, &Name, KeyValueFullInformation, Buffer, VALUE_BUFFER_BYTES, &Length);
    // Of any type, if it has 32 bits to read.
    if (NT_SUCCESS(Status) &&
        (Buffer->DataLength < sizeof(ULONG) || Buffer->DataOffset > VALUE_BUFFER_BYTES - sizeof(ULONG))) {
        Status = STATUS_OBJECT_TYPE_MISMATCH;
    }
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] GetEnableLinkedConnectionsConfig \"%wZ\" ZwQueryValueKey \"%wZ\" failed; status "
                        "0x%08X.\n",
                        KeyPath, &Name, Status);
        return Status;
    }
    RtlCopyMemory(Value, reinterpret_cast<PCHAR>(Buffer) + Buffer->DataOffset, sizeof(*Value));
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, "[TWFS] GetEnableLinkedConnectionsConfig \"%wZ\" read \"%wZ\" value 0x%08X.\n",
                    KeyPath, &Name, *Value);
    return STATUS_SUCCESS;
}

// A value of the driver's own key, even 0, decides alone.
bool LinkedConnectionsWanted() {
    ULONG Value = 0;
    UNICODE_STRING Key = PARAMETERS_KEY;
    if (!NT_SUCCESS(GetEnableLinkedConnectionsConfig(&Key, &Value))) {
        Key = POLICY_KEY;
        Ignore(GetEnableLinkedConnectionsConfig(&Key, &Value), "without a policy they are not wanted");
    }
    return Value != 0;
}

// A descriptor with Dacl as its DACL in a block of RVPL's.
NTSTATUS MakeDescriptor(CHAR Letter, PACL Dacl, RvplBlock<SECURITY_DESCRIPTOR> *Descriptor) {
    constexpr ULONG BYTES = sizeof(SECURITY_DESCRIPTOR);
    if (!Descriptor->Allocate(BYTES)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] CreateOrDeleteSymbolicLinkInLinkedSession \"%c:\" alloc for %u bytes failed; "
                        "STATUS_INSUFFICIENT_RESOURCES.\n",
                        LONG{Letter}, BYTES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(Descriptor->Get(), BYTES);
    NTSTATUS Status = RtlCreateSecurityDescriptor(Descriptor->Get(), SECURITY_DESCRIPTOR_REVISION);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] CreateOrDeleteSymbolicLinkInLinkedSession \"%c:\" RtlCreateSecurityDescriptor failed; "
                        "status 0x%08X.\n",
                        LONG{Letter}, Status);
        return Status;
    }
    Status = RtlSetDaclSecurityDescriptor(Descriptor->Get(), TRUE, Dacl, FALSE);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] CreateOrDeleteSymbolicLinkInLinkedSession \"%c:\" RtlSetDaclSecurityDescriptor "
                        "failed; status 0x%08X.\n",
                        LONG{Letter}, Status);
    }
    return Status;
}

NTSTATUS CreateInSession(LUID Luid, CHAR Letter, PUNICODE_STRING Target, PTOKEN_DEFAULT_DACL DefaultDacl) {
    RvplBlock<SECURITY_DESCRIPTOR> Descriptor;
    // A list that is there but NULL would open the link to everybody.
    if (DefaultDacl != nullptr && DefaultDacl->DefaultDacl != nullptr) {
        const NTSTATUS Status = MakeDescriptor(Letter, DefaultDacl->DefaultDacl, &Descriptor);
        if (!NT_SUCCESS(Status)) {
            return Status;
        }
    }
    PoolPointer<CHAR> Name(static_cast<PSTR>(TwAllocBuffer(NAME_BYTES)));
    if (!Name) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] CreateOrDeleteSymbolicLinkInLinkedSession \"%c:\" alloc 64 bytes failed; "
                        "STATUS_INSUFFICIENT_RESOURCES.\n",
                        LONG{Letter});
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    FormatName(Name.Get(), "\\Sessions\\0\\DosDevices\\%08X-%08X\\%c:", Luid.HighPart, Luid.LowPart, LONG{Letter});
    return CreateOrDeleteSymbolicLink(Name.Get(), Target, TRUE, Descriptor.Get());
}

} // namespace

NTSTATUS GetEnableLinkedConnectionsConfig(PUNICODE_STRING KeyPath, PULONG Value) {
    RvplBlock<KEY_VALUE_FULL_INFORMATION> Buffer;
    if (!Buffer.Allocate(VALUE_BUFFER_BYTES)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] GetEnableLinkedConnectionsConfig \"%wZ\" alloc for %u bytes failed; "
                        "STATUS_INSUFFICIENT_RESOURCES.\n",
                        KeyPath, VALUE_BUFFER_BYTES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, KeyPath, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    OwnedHandle Key;
    const NTSTATUS Status = ZwOpenKey(Key.Out(), KEY_READ, &Attributes);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] GetEnableLinkedConnectionsConfig \"%wZ\" ZwOpenKey failed; status 0x%08X.\n", KeyPath,
                        Status);
        return Status;
    }
    return QueryPolicy(Key.Get(), KeyPath, Buffer.Get(), Value);
}

NTSTATUS CreateOrDeleteSymbolicLinkInLinkedSession(CHAR Letter, PUNICODE_STRING Target, BOOLEAN Create, PLUID Linked) {
    if (Create && !LinkedConnectionsWanted()) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] CreateOrDeleteSymbolicLinkInLinkedSession \"%c:\" EnableLinkedConnections not in "
                        "effect.\n",
                        LONG{Letter});
        return STATUS_NO_TOKEN;
    }
    LUID Luid = {};
    PTOKEN_DEFAULT_DACL DefaultDacl = nullptr;
    // A link that is deleted needs no security, and what could fail on the way to it would leave the link behind.
    const NTSTATUS Status = GetLinkedLogonSessionLUID(&Luid, Create ? &DefaultDacl : nullptr);
    const RvplBlock<TOKEN_DEFAULT_DACL> Dacl(DefaultDacl);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] CreateOrDeleteSymbolicLinkInLinkedSession \"%c:\" no linked token found; status "
                        "0x%08X.\n",
                        LONG{Letter}, Status);
        return Status;
    }
    if (Linked != nullptr) {
        *Linked = Luid;
    }
    return Create ? CreateInSession(Luid, Letter, Target, DefaultDacl)
                  : DeleteSymbolicLinkInSession(Luid, Letter, Target);
}
