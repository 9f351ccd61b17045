// An open file: how it comes to a descriptor later, and what its end leaves to the next open.
#include <cerrno>
#include <mutex>

#include <fcntl.h>
#include <sys/stat.h>

#include "providers/directory/last_look.h"
#include "providers/directory/state.h"

namespace providers::directory {

FileObject::~FileObject() {
    if (Node != nullptr) {
        Node->Leave(this);
        Nodes.Release(Node);
    } else if (Query != 0) {
        KeepLook(*this);
    }
}

std::string FileObject::PathNow() const {
    std::string Path;
    Node->ForEachOwner([&](const void *Owner) {
        if (Owner == this) {
            Path = MovedTo.empty() ? FromRoot : MovedTo;
        }
    });
    return Path;
}

RVSTATUS FileObject::OpenByHandle() {
    const std::lock_guard Hold(AccessMutex);
    if (!Own) {
        UniqueFd Opened(Volume->Known.Open(Handle, O_PATH));
        if (!Opened && errno == ESTALE) {
            // The file that was known has gone; one that has its number by now may be the one that was found.
            Volume->Known.Forget(FromRoot);
            struct stat Stat;
            Opened = UniqueFd(Volume->Open(Volume->RootRef, FromRoot, O_PATH | O_NOFOLLOW));
            if (Opened && (fstat(Opened.Get(), &Stat) != 0 || !S_ISREG(Stat.st_mode) || !(KeyOf(Stat) == Key))) {
                return Failure(CODE_NO_SUCH_FILE);
            }
        }
        if (!Opened) {
            return errno == ENOENT ? Failure(CODE_NO_SUCH_FILE) : StatusFromErrno(errno);
        }
        Own = std::move(Opened);
        Unopened.store(false, std::memory_order_release);
    }
    return RVSTATUS::Success;
}

} // namespace providers::directory
