// vCard: reads address-book text (vCard 2.1, 3.0 and 4.0) into cards of
// properties. One file may hold many cards; a vdir holds one per file.
//
// What the reader undoes, so that callers see plain UTF-8 values:
//  - line folding: a line that begins with a space or tab continues the one
//    before (3.0/4.0 drop that one character; 2.1 keeps it, since its
//    writers fold at white space);
//  - quoted-printable (ENCODING=QUOTED-PRINTABLE, or a bare
//    QUOTED-PRINTABLE parameter in 2.1), including its "=" soft line breaks;
//  - CHARSET= of 2.1 (ISO-8859-1, GB2312, Shift_JIS, ...), converted with ICU;
//    a file written in UTF-16 (with its byte-order mark) is read as such;
//  - 2.1's bare parameters ("TEL;HOME;VOICE:") become TYPE values;
//  - 2.1 base64 data written on unindented lines up to a blank line.
// Text escapes (\, \; \n \\) are left in `value`: which separators are
// structural depends on the property, so callers split with components()
// and then unescape each piece.
//
// Anything that is not a vCard is skipped line by line; a card nested in
// another (2.1's AGENT) is skipped whole; a card cut off at the end of the
// text is kept as far as it goes. Nothing here allocates more than a small
// multiple of the input.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace quorvi {

struct VCardParameter {
  std::string name;                 // upper case: "TYPE", "ENCODING", "CHARSET", "VALUE"
  std::vector<std::string> values;  // as written, quotes removed
};

struct VCardProperty {
  std::string group;  // "item1" of "item1.TEL"; empty when none
  std::string name;   // upper case: "FN", "TEL"
  std::vector<VCardParameter> parameters;
  std::string value;  // transfer encoding and charset undone; text escapes kept

  // Whether a parameter of that name (upper case) holds that value (compared
  // without case); an empty value asks only whether the parameter is there.
  bool hasParameter(std::string_view parameterName, std::string_view parameterValue = {}) const;
};

struct VCard {
  std::string version;  // "2.1", "3.0", "4.0"; empty when the card has none
  std::vector<VCardProperty> properties;
  std::size_t position = 0;  // index of the card in its text, from 0

  // The first property of that name (upper case), or nullptr.
  const VCardProperty* first(std::string_view name) const;
};

// Every top-level card of the text, in order.
std::vector<VCard> parseVCards(std::string_view text);

// The value split at every unescaped separator (';' for the components of N
// and ADR, ',' for lists such as NICKNAME), each piece unescaped.
std::vector<std::string> vcardComponents(std::string_view value, char separator);
// The value with its text escapes undone: "\n" and "\N" become a line feed,
// "\," "\;" "\\" and "\:" their character; any other backslash stays.
std::string vcardUnescaped(std::string_view value);

}  // namespace quorvi
