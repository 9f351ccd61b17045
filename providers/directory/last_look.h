// One look at a file for the whole of an open: whoever opens a file asks first what its name leads to, by a query open
// that is closed at once, and opens it by the same path next. What was seen then is what is opened.
//
// It is kept for the thread that asked, for the path as it was asked for, for a millisecond at most, and until
// something is changed through the export. The descriptor that goes with it is one of the thread's, and names the file
// only; a thread that asks again, opens anything or ends gives it back. No locks.
#pragma once

#include <cstdint>
#include <string>

namespace providers::directory {

struct Export;
struct FileObject;
struct Looked;
struct Place;

// A query open of At has found the regular file that There shows, and File names it. What At.Path starts from has to be
// the export's root.
void NoteQuery(const Place &At, const Looked &There, FileObject &File);

// The query open is closed, by its last user: its descriptor and path are taken over when it was this thread's last.
void KeepLook(FileObject &File);

// What the thread's last query open of this very path saw, and the path of the object from the root. False when there
// is none that still holds; in any case it is gone afterwards.
bool TakeLook(const Place &At, Looked &There, std::string &FromRoot);

} // namespace providers::directory
