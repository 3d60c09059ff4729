// The word table (pinyin/word_table.h) arranged for the mapper: at a Chinese
// character of a name it finds the longest listed word that starts there, and
// gives each of the word's characters its readings with the word's reading
// first. Built once, read-only afterwards: any number of threads may look up
// words at once without a lock.
//
// A lookup costs one bit test at a character that starts no listed word
// (most characters) and one hash probe on the first two characters
// otherwise; words are compared as UTF-8 bytes in the name, so nothing is
// decoded twice or allocated.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "pinyin/utf8_text.h"
#include "pinyin/word_table.h"

namespace quorvi {

class WordIndex {
 public:
  // The capitalised readings ("Hang") a character has outside words: its
  // polyphone table row, or an empty list for a character without one.
  using ReadingsOf = std::function<const std::vector<std::string>&(char32_t)>;

  WordIndex() = default;
  WordIndex(const std::vector<WordReading>& words, const ReadingsOf& polyphonicReadings);

  struct Match {
    std::size_t length = 0;  // characters; 0 when no word starts here
    // readings[k]: the alternatives of the word's k-th character, the
    // word's own reading first, then the character's other readings.
    const std::vector<std::string>* readings = nullptr;
  };

  // The longest word starting at text[offset], where a Chinese character
  // `first` (three UTF-8 bytes) stands. Inline: most characters start no
  // word, and the mapper asks at every one.
  Match longestWordAt(std::string_view text, std::size_t offset, char32_t first) const {
    if (startsWord_.empty()) return {};
    const std::size_t bit = first - kFirstChineseCodePoint;
    if ((startsWord_[bit / 64] >> (bit % 64) & 1) == 0) return {};
    return longestWordFrom(text, offset, first);
  }

  std::size_t size() const { return words_.size(); }

 private:
  struct Word {
    std::uint32_t length;          // characters
    std::uint32_t utf8Offset;      // into utf8_, 3 bytes per character
    std::uint32_t readingsOffset;  // into readings_, one entry per character
  };
  // The words that begin with one pair of characters: words_[begin, end),
  // longest first. key is pairKey(first, second); kNoPair marks a free slot.
  struct PairSlot {
    std::uint32_t key;
    std::uint32_t begin;
    std::uint32_t end;
  };
  static constexpr std::uint32_t kNoPair = 0xFFFFFFFF;
  static std::uint32_t pairKey(char32_t first, char32_t second);
  Match longestWordFrom(std::string_view text, std::size_t offset, char32_t first) const;
  const PairSlot* slotFor(std::uint32_t key) const;

  std::vector<std::uint64_t> startsWord_;  // one bit per code point of the range
  std::vector<PairSlot> pairSlots_;        // open addressing, a power of two long
  std::vector<Word> words_;                // sorted by their first two characters
  std::string utf8_;
  std::vector<std::vector<std::string>> readings_;
};

}  // namespace quorvi
