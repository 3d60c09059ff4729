#include "fuse/fuse_utilities.h"

#include "fuse/characters.h"

#include <cstring>

namespace quorvi {

FuseUtilities::Alphabet FuseUtilities::calculatePatternAlphabet(std::string_view pattern) {
  CharacterString characters;
  characters.assignFolded(std::string(pattern));
  std::vector<std::string> split;
  for (std::size_t i = 0; i < characters.count(); ++i) split.emplace_back(characters.at(i));
  return calculatePatternAlphabet(split);
}

FuseUtilities::Alphabet FuseUtilities::calculatePatternAlphabet(const std::vector<std::string>& characters) {
  Alphabet alphabet;
  const std::size_t len = characters.size();
  for (std::size_t i = 0; i < len; ++i) {
    const std::size_t shift = len - i - 1;
    uint64_t& bits = alphabet[characters[i]];
    if (shift < 64) bits |= uint64_t{1} << shift;
  }
  return alphabet;
}

long FuseUtilities::findLiteral(std::string_view pattern, std::string_view text, long from) {
  CharacterString characters;
  characters.assignFolded(std::string(text));
  FusePattern compiled = makeFusePattern(std::string(pattern));
  if (compiled.len == 0) return -1;
  return findLiteral(compiled, characters, from);
}

long FuseUtilities::findLiteral(const FusePattern& pattern, const CharacterString& text, long from) {
  const long count = static_cast<long>(text.count());
  if (from < 0) from = 0;
  if (from > count || pattern.len == 0) return -1;
  // memmem stays linear on any input; a byte match is then checked character by character.
  const std::string& bytes = text.text();
  std::size_t offset = text.offsetOf(static_cast<std::size_t>(from));
  while (offset + pattern.text.size() <= bytes.size()) {
    const void* found = memmem(bytes.data() + offset, bytes.size() - offset, pattern.text.data(), pattern.text.size());
    if (!found) return -1;
    offset = static_cast<std::size_t>(static_cast<const char*>(found) - bytes.data());
    if (text.isSingleByte()) return static_cast<long>(offset);
    // Only a match that starts on a character and has the same characters counts.
    const long p = text.indexAtOffset(offset);
    if (p >= 0 && p + pattern.len <= count) {
      long k = 0;
      while (k < pattern.len && text.at(static_cast<std::size_t>(p + k)) == pattern.characters[k]) ++k;
      if (k == pattern.len) return p;
    }
    ++offset;
  }
  return -1;
}

std::vector<CharacterRange> FuseUtilities::findRanges(const std::vector<uint8_t>& mask) {
  std::vector<CharacterRange> ranges;
  long start = -1;
  const long count = static_cast<long>(mask.size());
  for (long i = 0; i < count; ++i) {
    if (mask[i] && start == -1) {
      start = i;
    } else if (!mask[i] && start != -1) {
      ranges.push_back({start, i - 1});
      start = -1;
    }
  }
  if (start != -1) ranges.push_back({start, count - 1});
  return ranges;
}

}  // namespace quorvi
