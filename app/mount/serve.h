// rvfsd mount: from the command line to the unmount.
#pragma once

#include "app/mount/options.h"
#include "app/session.h"

namespace app::mount {

// Goes into the background when that is wanted: the parent waits until the mount is there, or has failed, and ends with
// its exit code. To be called while there is one thread. Changes what the session is to be started with.
void Prepare(MountOptions &Options, SessionOptions &Session);

// Mounts, serves until it is unmounted or a signal ends it, and unmounts. The exit code.
int Serve(Session &Running, const MountOptions &Options);

} // namespace app::mount
