#include "embedded/names/logon.h"

#include <fmt/format.h>

#include "embedded/names/names.h"
#include "embedded/names/probe.h"

namespace embedded {
namespace {

std::u16string DirectoryOf(LUID Id) {
    const std::string Name =
        fmt::format("\\Sessions\\0\\DosDevices\\{:08X}-{:08X}", static_cast<ULONG>(Id.HighPart), Id.LowPart);
    return {Name.begin(), Name.end()};
}

} // namespace

TokenRef LogOn(ULONG User, Elevation Kind, LUID Id) {
    TokenRef Token = NewSession(User, Kind, Id);
    LogonSession &Session = *Token->Session;
    Session.DosDevices =
        CreateSessionDirectory(DirectoryOf(Session.Id), {true, MakeAcl({{true, GENERIC_ALL, UserSid(User)},
                                                                        {true, GENERIC_ALL, AdministratorsSid},
                                                                        {true, GENERIC_ALL, SystemSid}})});
    return Token;
}

SplitLogon LogOnSplit(ULONG User, LUID ElevatedId) {
    SplitLogon Logon = {LogOn(User, Elevation::Limited), LogOn(User, Elevation::Full, ElevatedId)};
    LinkSessions(*Logon.Filtered.Get(), *Logon.Elevated.Get());
    return Logon;
}

void LogOff(const TokenObject &Token) noexcept {
    EndSession(*Token.Session);
    RemoveName(DirectoryOf(Token.Session->Id));
}

} // namespace embedded
