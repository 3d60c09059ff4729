// Stateless helpers of the approximate matcher: the bit alphabet of a pattern,
// the literal search for a pattern from a character position, and the ranges
// of a match mask. Positions are characters (extended grapheme clusters).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "fuse/fuse_pattern.h"

namespace quorvi {

class CharacterString;

class FuseUtilities {
 public:
  using Alphabet = std::map<std::string, uint64_t, std::less<>>;

  // For each character c, the OR of 1 << (len - i - 1) over every position i
  // where c occurs; shifts of 64 or more contribute nothing.
  static Alphabet calculatePatternAlphabet(std::string_view pattern);
  static Alphabet calculatePatternAlphabet(const std::vector<std::string>& characters);

  // Character index of the first occurrence of `pattern` in `text` starting at
  // or after character `from`, compared character by character (no locale, no
  // folding); -1 when there is none or `from` lies beyond the text.
  static long findLiteral(std::string_view pattern, std::string_view text, long from);
  static long findLiteral(const FusePattern& pattern, const CharacterString& text, long from);

  // The runs of non-zero entries, as closed ranges.
  static std::vector<CharacterRange> findRanges(const std::vector<uint8_t>& mask);
};

}  // namespace quorvi
