// Drive letters and logon sessions: the client of the driver's mapping object.
//
// The user has four logon sessions to act in, and a stranger has one. The calling thread acts in one of them at a time.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "embedded/names/logon.h"
#include "embedded/ps/ps.h"
#include "provider/class_factory.h"

namespace app {

struct LogonName {
    const char *Name;
    const char *Who; // one line about it
};
// The first is where everything begins.
const std::vector<LogonName> &Logons();

// The identity that the Provider is shown for the calling thread.
RV_SECURITY_CONTEXT CallerContext();

// What use made, in its session.
struct DriveUse {
    char Letter;
    std::string Path; // \\server\volume...
    std::string Logon;
    uint32_t Server = 0; // the connection that use /delete --server names
    bool Linked = false; // it got a link in the other half of a split logon
};

class Drives {
public:
    using GetClassObject = RVPSTATUS(NTAPI *)(const GUID *Clsid, const GUID *Iid, PVOID *Out);

    // Logs on, after the kernel has booted; the calling thread acts in Logon. The driver's export is called when the
    // first operation wants it.
    Drives(GetClassObject Export, const std::string &Logon);
    ~Drives();
    Drives(const Drives &) = delete;
    Drives &operator=(const Drives &) = delete;

    // The calling thread acts in that session from now on. UsageError when there is none of that name.
    void Act(const std::string &Logon);
    const std::string &Acting() const {
        return Acting_;
    }

    // Each acts in the present session and throws StatusError on failure.
    void Use(const DriveUse &Wanted);
    void Delete(char Letter);
    void DeleteServer(uint32_t Server);
    // The path that a letter stands for; nothing when it stands for none.
    std::optional<std::string> Ask(char Letter);
    NTSTATUS Verify(const std::string &Path);

    // What use made and is still there, by letter and session.
    struct Listed {
        DriveUse Use;
        std::string Path; // as the driver answers it
        bool Linked;      // its link is in the linked session too
    };
    std::vector<Listed> List();

    // What use made; a driver that is started again gets it anew.
    const std::vector<DriveUse> &Uses() const {
        return Uses_;
    }

private:
    struct Logon {
        embedded::TokenRef Token;
        PEPROCESS Process;
    };
    RVFSD_MAPPING *Object();
    Logon &Find(const std::string &Name);
    // The other half of a split logon; null for a session that is none.
    const embedded::TokenObject *OtherHalf(const std::string &Logon);
    NTSTATUS Query(char Letter, QUERY_DRIVE *Answer);
    // Why Path cannot be mapped, in a status that people know: a mapping fails with the Provider's own.
    NTSTATUS Explain(NTSTATUS Status, const std::string &Path);
    // Takes what is no longer there off Uses_.
    void Forget();

    GetClassObject Export_;
    RVFSD_MAPPING *Mapping_ = nullptr;
    std::vector<Logon> Logons_; // in the order of Logons()
    std::string Acting_;
    std::vector<DriveUse> Uses_;
};

} // namespace app
