// One look at a file or directory for the whole of an open: whoever opens one asks first what its name leads to, by a
// query open that is closed at once, opens the volume, may ask again, for the rights, and opens it by the same path
// next. What was seen first is what is opened. The same goes for what is not there: a name that a query open by its
// whole path did not find is asked for again below the volume, as a file and as a directory.
//
// It is kept for the thread that asked, for the path as it was asked for, for a tick of the kernel's clock, and until
// something is changed through the export. The descriptor that goes with it is one of the thread's, and names the
// object only; the thread gives it back when it asks anew, opens, makes, moves or deletes anything, closes a volume, as
// an open that fails does, or ends. No locks.
#pragma once

#include <cstdint>
#include <string>

#include <sys/stat.h>

#include "providers/directory/errno_status.h"

namespace providers::directory {

struct Export;
struct FileObject;
struct Looked;
struct Place;

// The clock that looks age by, in nanoseconds. Tests have one of their own.
extern int64_t (*LookClock)();

// A query open of At is about to look: what the thread saw before is forgotten.
void BeginQuery(const Place &At);

// The query open of At that has begun, or goes on from the thread's last one, has found the regular file that There
// shows, and File names it. What At.Path starts from has to be the export's root.
void NoteQuery(const Place &At, const Looked &There, FileObject &File);

// The query open of At that has begun has found the directory There, of that path from the root. Takes its descriptor.
void NoteDirectory(const Place &At, Looked &There, std::string FromRoot);

// The query open of At that has begun has found nothing.
void NoteMissing(const Place &At);

// The thread has opened a volume. When it has just asked what a path leads to, it opens that next: the same question,
// asked once more, belongs to the same open.
void NoteVolumeOpened();

// The thread has closed a volume: whatever it asks next does not belong to the same open.
void NoteVolumeClosed();

// The query open is closed, by its last user: its descriptor and path are taken over when it was this thread's last.
void KeepLook(FileObject &File);

// The thread does something else than to open what it asked about.
void ForgetLook();

// ReadStatus of an open that nobody else has denied, kept for the first question about the file: the driver asks it
// next. Status stays valid until the thread calls this again.
RVSTATUS ReadAndKeepStatus(FileObject &File, const struct statx *&Status);
// What that look saw, if it was the thread's last one, in the same tick, and nothing was changed or written by this
// process since; valid as long. Null when not, and for every later question.
const struct statx *TakeStatus(FileObject &File);

// What the thread's last query open of this very path saw, and the path of the object from the root. False when there
// is none that still holds; in any case it is gone afterwards. Again: for another query open, which must belong to the
// same open.
bool TakeLook(const Place &At, bool Again, Looked &There, std::string &FromRoot);

// Whether the thread's last query open by a whole path has found nothing at this very path, which is asked for below
// its volume now. False when that does not hold any more.
bool WasMissing(const Place &At);
// The same, once: the path is about to be made.
bool TakeMissing(const Place &At);
// Whether that query open has found nothing in this very directory, which is asked for by its whole path in the same
// open.
bool IsAboveMissing(const Place &At);

} // namespace providers::directory
