// UTF-8 text of callers becomes UTF-16.
#pragma once

#include "provider/framework.h"

// Decodes Utf8, up to its terminator or to the first byte that is no UTF-8, into String, whose terminated buffer comes
// from RVPL (freed there by the caller). *Whole, which may be NULL, tells whether the terminator was reached. Reads no
// byte behind the terminator, and writes none behind the buffer when the text changes while it is read.
//
// Forms that are longer than needed, surrogates and numbers beyond Unicode (their low 16 bits) are taken as they are: a
// zero may stand within String. RVPSTATUS::NoMemory without memory, and for text that needs more than 65,534 bytes.
RVPSTATUS UTF8ToUnicode(PUNICODE_STRING String, PCSTR Utf8, bool *Whole = nullptr);
