// Writes a synthetic Zotero library of a given size: Zotero's table layout,
// current field numbering, items shaped like real libraries (about 7.6 field
// rows per regular item, 2.8 per attachment, notes without fields), nested
// collections, two group libraries, a trash, and some Chinese titles.
// The same size always gives the same file.
#pragma once

#include <cstddef>
#include <string>

namespace quorvi::bench {

// Creates folder/zotero.sqlite with itemCount items (replacing any file there).
// False on failure, with a line on standard error.
bool generateZoteroLibrary(const std::string& folder, std::size_t itemCount);

}  // namespace quorvi::bench
