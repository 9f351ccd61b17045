// One look at a file for the whole of an open: whoever opens a file asks first what its name leads to, by a query open
// that is closed at once, and opens it by the same path next. What was seen then is what is opened.
// The same goes for what is not there: a name that a query open by its whole path did not find is asked for again below
// the volume, as a file and as a directory.
//
// It is kept for the thread that asked, for the path as it was asked for, for a millisecond at most, and until
// something is changed through the export. The descriptor that goes with it is one of the thread's, and names the file
// only; the thread gives it back when it asks again, opens, makes, moves or deletes anything, or ends. No locks.
#pragma once

#include <cstdint>
#include <string>

namespace providers::directory {

struct Export;
struct FileObject;
struct Looked;
struct Place;

// A query open of At is about to look: what the thread saw before is forgotten.
void BeginQuery(const Place &At);

// The query open of At that has begun has found the regular file that There shows, and File names it. What At.Path
// starts from has to be the export's root.
void NoteQuery(const Place &At, const Looked &There, FileObject &File);

// The query open of At that has begun has found nothing.
void NoteMissing(const Place &At);

// The query open is closed, by its last user: its descriptor and path are taken over when it was this thread's last.
void KeepLook(FileObject &File);

// The thread does something else than to open what it asked about.
void ForgetLook();

// What the thread's last query open of this very path saw, and the path of the object from the root. False when there
// is none that still holds; in any case it is gone afterwards.
bool TakeLook(const Place &At, Looked &There, std::string &FromRoot);

// Whether the thread's last query open by a whole path has found nothing at this very path, which is asked for below
// its volume now. False when that does not hold any more.
bool WasMissing(const Place &At);

} // namespace providers::directory
