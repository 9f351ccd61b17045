#include "embedded/cm.h"

#include <cstring>
#include <memory>
#include <mutex>

#include "embedded/ob/ob.h"
#include "embedded/probe.h"
#include "embedded/rtl/counted.h"
#include "embedded/verifier/faults.h"
#include "embedded/verifier/rules.h"
#include "embedded/verifier/zw_rules.h"

namespace embedded {
namespace {

struct Key {
    std::u16string Name;
    std::vector<std::shared_ptr<Key>> Children;
    std::vector<std::pair<std::u16string, RegistryValue>> Values;
};

struct Registry {
    std::mutex Mutex;
    std::shared_ptr<Key> Root = std::make_shared<Key>();
};

Registry &TheRegistry() {
    static Registry &Instance = *new Registry;
    return Instance;
}

class KeyObject final : public Object {
public:
    explicit KeyObject(std::shared_ptr<Key> Of) : Object(ObjectType::Key), Target(std::move(Of)) {
    }
    const std::shared_ptr<Key> Target;
};

std::u16string_view NextComponent(std::u16string_view &Path) {
    const std::u16string_view Component = Path.substr(0, std::min(Path.find(u'\\'), Path.size()));
    Path.remove_prefix(std::min(Component.size() + 1, Path.size()));
    return Component;
}

std::shared_ptr<Key> FindChild(const Key &Parent, std::u16string_view Name) {
    for (const auto &Child : Parent.Children) {
        if (EqualNames(Child->Name, Name, true)) {
            return Child;
        }
    }
    return nullptr;
}

// The key below From of that relative path, with the registry's mutex held. Missing keys are made when Create is set.
std::shared_ptr<Key> FindKey(std::shared_ptr<Key> From, std::u16string_view Path, bool Create) {
    while (From != nullptr && !Path.empty()) {
        const std::u16string_view Component = NextComponent(Path);
        if (Component.empty()) {
            continue;
        }
        std::shared_ptr<Key> Child = FindChild(*From, Component);
        if (Child == nullptr && Create) {
            Child = std::make_shared<Key>();
            Child->Name = Component;
            From->Children.push_back(Child);
        }
        From = std::move(Child);
    }
    return From;
}

RegistryValue *FindValue(Key &In, std::u16string_view Name) {
    for (auto &[Key, Value] : In.Values) {
        if (EqualNames(Key, Name, true)) {
            return &Value;
        }
    }
    return nullptr;
}

} // namespace

void CreateRegistryKey(std::u16string_view Key) {
    Registry &In = TheRegistry();
    std::lock_guard Lock(In.Mutex);
    FindKey(In.Root, Key, true);
}

void SetRegistryValue(std::u16string_view Key, std::u16string_view Name, ULONG Type, std::span<const std::byte> Data) {
    Registry &In = TheRegistry();
    std::lock_guard Lock(In.Mutex);
    const auto Target = FindKey(In.Root, Key, true);
    RegistryValue *Value = FindValue(*Target, Name);
    if (Value == nullptr) {
        Value = &Target->Values.emplace_back(std::u16string(Name), RegistryValue{}).second;
    }
    Value->Type = Type;
    Value->Data.assign(Data.begin(), Data.end());
}

void SetRegistryDword(std::u16string_view Key, std::u16string_view Name, ULONG Value) {
    SetRegistryValue(Key, Name, REG_DWORD, std::as_bytes(std::span(&Value, 1)));
}

std::optional<RegistryValue> QueryRegistryValue(std::u16string_view Key, std::u16string_view Name) {
    Registry &In = TheRegistry();
    std::lock_guard Lock(In.Mutex);
    const auto Target = FindKey(In.Root, Key, false);
    const RegistryValue *Value = Target == nullptr ? nullptr : FindValue(*Target, Name);
    return Value == nullptr ? std::nullopt : std::optional(*Value);
}

bool DeleteRegistryValue(std::u16string_view Key, std::u16string_view Name) {
    Registry &In = TheRegistry();
    std::lock_guard Lock(In.Mutex);
    const auto Target = FindKey(In.Root, Key, false);
    return Target != nullptr &&
           std::erase_if(Target->Values, [&](const auto &Value) { return EqualNames(Value.first, Name, true); }) != 0;
}

bool DeleteRegistryKey(std::u16string_view Key) {
    while (Key.ends_with(u'\\')) {
        Key.remove_suffix(1);
    }
    const size_t Slash = Key.rfind(u'\\');
    Registry &In = TheRegistry();
    std::lock_guard Lock(In.Mutex);
    const auto Parent = Slash == Key.npos ? nullptr : FindKey(In.Root, Key.substr(0, Slash), false);
    return Parent != nullptr && std::erase_if(Parent->Children, [&](const auto &Child) {
                                    return EqualNames(Child->Name, Key.substr(Slash + 1), true);
                                }) != 0;
}

void ResetRegistry() noexcept {
    Registry &In = TheRegistry();
    std::lock_guard Lock(In.Mutex);
    In.Root = std::make_shared<Key>();
}

} // namespace embedded

using namespace embedded;

NTSTATUS NTAPI ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes) noexcept {
    RequireIrql(IrqlRuleOf("ZwOpenKey"));
    CheckZwPointers("ZwOpenKey", KeyHandle, ObjectAttributes);
    CheckZwString(ObjectAttributes->ObjectName);
    if (ShouldFail(FaultKind::Registry)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const std::u16string_view Path = View(ObjectAttributes->ObjectName);
    ObjectRef Root;
    if (ObjectAttributes->RootDirectory != nullptr) {
        const NTSTATUS Status = ReferenceHandle(ObjectAttributes->RootDirectory, ObjectType::Key, 0, KernelMode, &Root);
        if (!NT_SUCCESS(Status)) {
            return Status;
        }
    } else if (!Path.starts_with(u'\\')) {
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    std::shared_ptr<Key> Target;
    {
        Registry &In = TheRegistry();
        std::lock_guard Lock(In.Mutex);
        Target = FindKey(Root ? static_cast<KeyObject *>(Root.Get())->Target : In.Root, Path, false);
    }
    if (Target == nullptr) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    const auto Opened = Ref<KeyObject>::Adopt(new KeyObject(std::move(Target)));
    return InsertHandle(*Opened.Get(), DesiredAccess, ObjectAttributes->Attributes, KernelMode, KeyHandle);
}

namespace {

// The first Bytes of the value's data; one without data has no address to copy from.
void CopyData(const RegistryValue &Value, UCHAR *To, ULONG Bytes) {
    if (Bytes != 0) {
        memcpy(To, Value.Data.data(), Bytes);
    }
}

// The fixed part always, of the data what fits.
NTSTATUS FillPartial(const RegistryValue &Value, PVOID Buffer, ULONG Length, PULONG ResultLength) {
    constexpr ULONG Fixed = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);
    const auto DataLength = static_cast<ULONG>(Value.Data.size());
    *ResultLength = Fixed + DataLength;
    if (Length < Fixed) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    auto *Information = static_cast<PKEY_VALUE_PARTIAL_INFORMATION>(Buffer);
    Information->TitleIndex = 0;
    Information->Type = Value.Type;
    Information->DataLength = DataLength;
    CopyData(Value, Information->Data, std::min(DataLength, Length - Fixed));
    return Length < Fixed + DataLength ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

// Fixed part, name, then the data at an 8-byte boundary; name and data only when both fit.
NTSTATUS FillFull(const RegistryValue &Value, std::u16string_view Name, PVOID Buffer, ULONG Length,
                  PULONG ResultLength) {
    constexpr ULONG Fixed = FIELD_OFFSET(KEY_VALUE_FULL_INFORMATION, Name);
    const auto NameLength = static_cast<ULONG>(Name.size() * sizeof(WCHAR));
    const auto DataLength = static_cast<ULONG>(Value.Data.size());
    const ULONG DataOffset = (Fixed + NameLength + 7) & ~7u;
    *ResultLength = DataOffset + DataLength;
    if (Length < Fixed) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    auto *Information = static_cast<PKEY_VALUE_FULL_INFORMATION>(Buffer);
    Information->TitleIndex = 0;
    Information->Type = Value.Type;
    Information->DataOffset = DataOffset;
    Information->DataLength = DataLength;
    Information->NameLength = NameLength;
    if (Length < DataOffset + DataLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    memcpy(Information->Name, Name.data(), NameLength);
    CopyData(Value, static_cast<UCHAR *>(Buffer) + DataOffset, DataLength);
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS NTAPI ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                               KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass, PVOID KeyValueInformation,
                               ULONG Length, PULONG ResultLength) noexcept {
    RequireIrql(IrqlRuleOf("ZwQueryValueKey"));
    CheckZwPointers("ZwQueryValueKey", ValueName, static_cast<char *>(KeyValueInformation), ResultLength);
    CheckZwString(ValueName);
    if (ShouldFail(FaultKind::Registry)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ObjectRef Target;
    if (const NTSTATUS Status = ReferenceHandle(KeyHandle, ObjectType::Key, 0, KernelMode, &Target);
        !NT_SUCCESS(Status)) {
        return Status;
    }
    if (KeyValueInformationClass != KeyValuePartialInformation && KeyValueInformationClass != KeyValueFullInformation) {
        return STATUS_NOT_IMPLEMENTED; // the third class is not simulated
    }
    Registry &In = TheRegistry();
    std::lock_guard Lock(In.Mutex);
    const RegistryValue *Value = FindValue(*static_cast<KeyObject *>(Target.Get())->Target, View(ValueName));
    if (Value == nullptr) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    return KeyValueInformationClass == KeyValuePartialInformation
               ? FillPartial(*Value, KeyValueInformation, Length, ResultLength)
               : FillFull(*Value, View(ValueName), KeyValueInformation, Length, ResultLength);
}
