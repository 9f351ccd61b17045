// Names for entries that differ from another of their directory only in case.
//
// Each of them is listed with a mark, "~" and six digits before the extension, that is made from the entry's own bytes.
// So it keeps naming that entry whatever becomes of the others, and of the entry itself: when it goes, the name names
// nothing. Without the mark an entry is named by its exact spelling.
#pragma once

#include <string>
#include <string_view>

namespace providers::directory {

// The marked name of an entry. At most 255 units.
std::u16string MarkedName(std::string_view Native);

// The mark of an entry alone.
std::u16string MarkOf(std::string_view Native);

// Splits a name that may be marked: Plain becomes the folded name without the mark, Mark the mark, folded. False for a
// name that is not marked.
bool SplitMarked(std::u16string_view Name, std::u16string &Plain, std::u16string &Mark);

// Whether Native is the entry with this mark and a name that, without it, is Plain or was cut to it.
bool HasMarkedName(std::string_view Native, std::u16string_view Plain, std::u16string_view Mark);

} // namespace providers::directory
