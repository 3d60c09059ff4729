// The compiled form of a search pattern: its folded text, its length in
// characters (extended grapheme clusters), the bit that marks a full match and
// the bit alphabet of its characters.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace quorvi {

// A closed range of character indexes, lowerBound ... upperBound.
struct CharacterRange {
  long lowerBound = 0;
  long upperBound = 0;
  bool operator==(const CharacterRange&) const = default;
};

struct FusePattern {
  std::string text;  // lower-cased unless the matcher is case sensitive
  long len = 0;      // characters of text
  int64_t mask = 0;  // 1 << (len - 1); 0 when that shift is 64 or more
  // For each character, the OR of 1 << (len - i - 1) over its positions i.
  std::map<std::string, uint64_t, std::less<>> alphabet;

  // Derived from text for the search loops.
  std::vector<std::string> characters;   // text split into characters
  std::array<uint64_t, 128> asciiBits{};  // alphabet of the one-byte characters
  bool hasWideCharacters = false;         // some character is not one ASCII byte

  // The alphabet entry of one character, 0 when it is not in the pattern.
  uint64_t bitsOf(std::string_view character) const;
};

// Builds the pattern of an already folded, non-empty text.
FusePattern makeFusePattern(std::string foldedText);

}  // namespace quorvi
