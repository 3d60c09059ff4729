#include "fuse/fuse_pattern.h"

#include "fuse/characters.h"
#include "fuse/fuse_utilities.h"

namespace quorvi {

uint64_t FusePattern::bitsOf(std::string_view character) const {
  if (character.size() == 1) {
    unsigned char byte = static_cast<unsigned char>(character[0]);
    if (byte < 0x80) return asciiBits[byte];
  }
  if (!hasWideCharacters) return 0;
  auto found = alphabet.find(character);
  return found == alphabet.end() ? 0 : found->second;
}

FusePattern makeFusePattern(std::string foldedText) {
  CharacterString characters;
  characters.assignFolded(std::move(foldedText));
  FusePattern pattern;
  pattern.len = static_cast<long>(characters.count());
  pattern.mask = pattern.len - 1 < 64 ? static_cast<int64_t>(uint64_t{1} << (pattern.len - 1)) : 0;
  pattern.characters.reserve(characters.count());
  for (std::size_t i = 0; i < characters.count(); ++i) pattern.characters.emplace_back(characters.at(i));
  pattern.alphabet = FuseUtilities::calculatePatternAlphabet(pattern.characters);
  for (const auto& [character, bits] : pattern.alphabet) {
    if (character.size() == 1 && static_cast<unsigned char>(character[0]) < 0x80)
      pattern.asciiBits[static_cast<unsigned char>(character[0])] = bits;
    else
      pattern.hasWideCharacters = true;
  }
  pattern.text = characters.text();
  return pattern;
}

}  // namespace quorvi
