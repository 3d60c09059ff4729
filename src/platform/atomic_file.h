// Writes a file so that readers see either the old or the new content, never
// a torn one: write a temporary file beside it, flush it to disk, rename.
#pragma once

#include <string>
#include <string_view>

namespace quorvi {

bool writeFileAtomically(const std::string& path, std::string_view contents);

}  // namespace quorvi
