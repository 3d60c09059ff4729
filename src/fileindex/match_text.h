// The text a record is matched on: its name in lower case, then, when the
// name holds Chinese characters, every full pinyin string and every initials
// string of it; distinct members joined by single blanks. On this system the
// display name is the file name, so the name appears once.
//
// Names are bytes on Linux and need not be UTF-8. The match text is always
// valid UTF-8: each byte that is not part of a valid sequence becomes U+FFFD,
// so such a name is still found by the valid parts of it (a query over the
// bus is UTF-8 and can never hold the raw byte anyway).
#pragma once

#include <string>
#include <string_view>

namespace quorvi {

// True when the bytes are valid UTF-8.
bool isValidUtf8(std::string_view text);
// The text with every invalid byte replaced by U+FFFD.
std::string sanitizedUtf8(std::string_view text);
// Unicode lower case of UTF-8 text (ASCII done without ICU).
std::string lowercasedName(std::string_view text);
// The match text of a name (see above).
std::string matchTextOfName(std::string_view name);

}  // namespace quorvi
