// Logon sessions, tokens, and the services that open and query them.

#include <atomic>
#include <cstring>
#include <mutex>

#include "embedded/base/process.h"
#include "embedded/se/se.h"
#include "embedded/verifier/faults.h"
#include "embedded/verifier/rules.h"
#include "embedded/verifier/zw_rules.h"

namespace embedded {
namespace {

struct Sessions {
    std::mutex Mutex;
    std::vector<std::shared_ptr<LogonSession>> All;
    ULONG NextLow = 0x10001;
};

Sessions &TheSessions() {
    static Sessions &Instance = *new Sessions;
    return Instance;
}

std::atomic<ULONG> NextTokenId{1};

// The token that stands for the kernel itself, and for processes that were given none.
TokenObject &SystemToken() {
    static TokenObject &Instance = [&]() -> TokenObject & {
        auto Session = std::make_shared<LogonSession>();
        Session->Id = SystemLogonId;
        Session->User = 0;
        return *new TokenObject(std::move(Session), 0, Elevation::Default, TokenPrimary, SecurityAnonymous);
    }();
    return Instance;
}

Security DefaultSecurityOf(ULONG User, Elevation Kind) {
    // An elevated administrator's objects belong to the administrators, not to the user as everyday programs know him.
    const Sid Owner = Kind == Elevation::Full ? AdministratorsSid : UserSid(User);
    return {true, MakeAcl({{true, GENERIC_ALL, Owner}, {true, GENERIC_ALL, SystemSid}})};
}

std::shared_ptr<LogonSession> FindSession(Sessions &In, LUID Id) {
    for (const auto &Each : In.All) {
        if (Each->Id == Id) {
            return Each;
        }
    }
    return nullptr;
}

} // namespace

TokenObject::TokenObject(std::shared_ptr<LogonSession> Of, ULONG Account, Elevation How, TOKEN_TYPE Type,
                         SECURITY_IMPERSONATION_LEVEL AtLevel)
    : Object(ObjectType::Token), Session(std::move(Of)), User(Account), Kind(How), Use(Type),
      Level(AtLevel), Id{NextTokenId.fetch_add(1), 0}, DefaultSecurity(DefaultSecurityOf(Account, How)) {
}

TokenObject::~TokenObject() = default;

TokenRef NewSession(ULONG User, Elevation Kind, LUID Id) {
    Sessions &In = TheSessions();
    auto Session = std::make_shared<LogonSession>();
    std::lock_guard Lock(In.Mutex);
    Session->Id = Id == LUID{} ? LUID{In.NextLow++, 0} : Id;
    Session->User = User;
    auto Token = TokenRef::Adopt(new TokenObject(Session, User, Kind, TokenPrimary, SecurityAnonymous));
    Session->Primary = Token;
    In.All.push_back(std::move(Session));
    return Token;
}

void LinkSessions(const TokenObject &One, const TokenObject &Other) {
    std::lock_guard Lock(TheSessions().Mutex);
    One.Session->HasLinked = Other.Session->HasLinked = true;
    One.Session->Linked = Other.Session->Id;
    Other.Session->Linked = One.Session->Id;
}

void EndSession(LogonSession &Session) noexcept {
    Sessions &In = TheSessions();
    TokenRef Primary; // a token and its session hold each other until here
    std::lock_guard Lock(In.Mutex);
    Session.Live = false;
    Primary = std::exchange(Session.Primary, {});
    std::erase_if(In.All, [&](const auto &Each) { return Each.get() == &Session; });
}

TokenObject &EffectiveToken() noexcept {
    const KThread &Thread = CurrentThread();
    if (Thread.Impersonated != nullptr) {
        return *Thread.Impersonated;
    }
    return Thread.Process->Token != nullptr ? *Thread.Process->Token : SystemToken();
}

Impersonate::Impersonate(TokenRef Token, SECURITY_IMPERSONATION_LEVEL Level)
    : Token_(TokenRef::Adopt(new TokenObject(Token->Session, Token->User, Token->Kind, TokenImpersonation, Level))),
      Old_(CurrentThread().Impersonated) {
    Token_->DefaultSecurity = Token->DefaultSecurity;
    CurrentThread().Impersonated = Token_.Get();
}

Impersonate::~Impersonate() {
    CurrentThread().Impersonated = Old_;
}

void ResetSecurity() noexcept {
    std::vector<std::shared_ptr<LogonSession>> Old;
    std::vector<TokenRef> Tokens;
    Sessions &In = TheSessions();
    std::lock_guard Lock(In.Mutex);
    Old.swap(In.All);
    for (const auto &Each : Old) {
        Tokens.push_back(std::exchange(Each->Primary, {}));
    }
    In.NextLow = 0x10001;
}

namespace {

// Gives the whole value, or nothing but the length that it takes when that does not fit.
template <typename T>
NTSTATUS Give(const T &Value, PVOID To, ULONG Length, PULONG ReturnLength) {
    *ReturnLength = sizeof(T);
    if (Length < sizeof(T)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    memcpy(To, &Value, sizeof(T));
    return STATUS_SUCCESS;
}

TOKEN_STATISTICS StatisticsOf(const TokenObject &Token) {
    TOKEN_STATISTICS Statistics = {};
    Statistics.TokenId = Token.Id;
    Statistics.AuthenticationId = Token.Session->Id;
    Statistics.ExpirationTime.QuadPart = INT64_MAX;
    Statistics.TokenType = Token.Use;
    Statistics.ImpersonationLevel = Token.Level;
    Statistics.ModifiedId = Token.Id;
    return Statistics;
}

// The list behind its structure, in one block; a token without one gives a NULL list.
NTSTATUS GiveDefaultDacl(const TokenObject &Token, PVOID To, ULONG Length, PULONG ReturnLength) {
    const Security &Default = Token.DefaultSecurity;
    *ReturnLength = static_cast<ULONG>(sizeof(TOKEN_DEFAULT_DACL) + Default.Dacl.size());
    if (Length < *ReturnLength) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    auto *Information = static_cast<PTOKEN_DEFAULT_DACL>(To);
    Information->DefaultDacl = Default.HasDacl ? reinterpret_cast<PACL>(Information + 1) : nullptr;
    if (Default.HasDacl) {
        memcpy(Information + 1, Default.Dacl.data(), Default.Dacl.size());
    }
    return STATUS_SUCCESS;
}

// A new token of the linked session, that identifies and no more, as a caller without privileges gets it.
NTSTATUS GiveLinkedToken(const TokenObject &Token, PVOID To, ULONG Length, PULONG ReturnLength) {
    *ReturnLength = sizeof(HANDLE);
    if (Length < sizeof(HANDLE)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    TokenRef Primary;
    {
        Sessions &In = TheSessions();
        std::lock_guard Lock(In.Mutex);
        const auto Linked = Token.Session->HasLinked ? FindSession(In, Token.Session->Linked) : nullptr;
        if (Linked == nullptr || !Token.Session->Live) {
            return STATUS_NO_SUCH_LOGON_SESSION;
        }
        Primary = Linked->Primary;
    }
    const auto Identifying = TokenRef::Adopt(
        new TokenObject(Primary->Session, Primary->User, Primary->Kind, TokenImpersonation, SecurityIdentification));
    Identifying->DefaultSecurity = Primary->DefaultSecurity;
    return InsertHandle(*Identifying.Get(), 0x8 /* TOKEN_QUERY */, OBJ_KERNEL_HANDLE, KernelMode,
                        static_cast<HANDLE *>(To));
}

} // namespace
} // namespace embedded

using namespace embedded;

NTSTATUS NTAPI ZwOpenThreadTokenEx(HANDLE ThreadHandle, ACCESS_MASK DesiredAccess, BOOLEAN, ULONG HandleAttributes,
                                   PHANDLE TokenHandle) noexcept {
    RequireIrql(IrqlRuleOf("ZwOpenThreadTokenEx"));
    CheckZwPointers("ZwOpenThreadTokenEx", TokenHandle);
    if (ThreadHandle != NtCurrentThread()) {
        return STATUS_NOT_IMPLEMENTED; // tokens of other threads are not simulated
    }
    if (ShouldFail(FaultKind::Token)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    TokenObject *Token = CurrentThread().Impersonated;
    if (Token == nullptr) {
        return STATUS_NO_TOKEN;
    }
    if (Token->Level == SecurityAnonymous) {
        return STATUS_CANT_OPEN_ANONYMOUS;
    }
    return InsertHandle(*Token, DesiredAccess, HandleAttributes, KernelMode, TokenHandle);
}

NTSTATUS NTAPI ZwOpenProcessTokenEx(HANDLE ProcessHandle, ACCESS_MASK DesiredAccess, ULONG HandleAttributes,
                                    PHANDLE TokenHandle) noexcept {
    RequireIrql(IrqlRuleOf("ZwOpenProcessTokenEx"));
    CheckZwPointers("ZwOpenProcessTokenEx", TokenHandle);
    if (ProcessHandle != NtCurrentProcess()) {
        return STATUS_NOT_IMPLEMENTED; // tokens of other processes are not simulated
    }
    if (ShouldFail(FaultKind::Token)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    TokenObject *Token = CurrentThread().Process->Token;
    return InsertHandle(Token != nullptr ? *Token : SystemToken(), DesiredAccess, HandleAttributes, KernelMode,
                        TokenHandle);
}

NTSTATUS NTAPI ZwQueryInformationToken(HANDLE TokenHandle, TOKEN_INFORMATION_CLASS TokenInformationClass,
                                       PVOID TokenInformation, ULONG TokenInformationLength,
                                       PULONG ReturnLength) noexcept {
    RequireIrql(IrqlRuleOf("ZwQueryInformationToken"));
    CheckZwPointers("ZwQueryInformationToken", static_cast<char *>(TokenInformation), ReturnLength);
    ObjectRef Target;
    if (const NTSTATUS Status = ReferenceHandle(TokenHandle, ObjectType::Token, 0, KernelMode, &Target);
        !NT_SUCCESS(Status)) {
        return Status;
    }
    if (ShouldFail(FaultKind::Token)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const TokenObject &Token = *static_cast<TokenObject *>(Target.Get());
    switch (TokenInformationClass) {
    case TokenStatistics:
        return Give(StatisticsOf(Token), TokenInformation, TokenInformationLength, ReturnLength);
    case TokenElevationType:
        return Give(Token.Kind, TokenInformation, TokenInformationLength, ReturnLength);
    case TokenDefaultDacl:
        return GiveDefaultDacl(Token, TokenInformation, TokenInformationLength, ReturnLength);
    case TokenLinkedToken:
        return GiveLinkedToken(Token, TokenInformation, TokenInformationLength, ReturnLength);
    }
    return STATUS_INVALID_INFO_CLASS;
}
