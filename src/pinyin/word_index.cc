#include "pinyin/word_index.h"

#include <algorithm>
#include <numeric>

#include "pinyin/han_readings.h"
#include "pinyin/utf8_text.h"

namespace quorvi {

namespace {

// Every character of the table's range is three bytes in UTF-8.
constexpr std::size_t kBytesPerCharacter = 3;

// The Chinese character whose UTF-8 starts at text[offset], or 0. Decoded
// here rather than by the general decoder: this runs at many characters of
// every name, and a three-byte sequence whose value lies in the range is
// always well formed.
char32_t chineseCharacterAt(std::string_view text, std::size_t offset) {
  if (offset > text.size() || text.size() - offset < kBytesPerCharacter) return 0;
  const auto lead = static_cast<unsigned char>(text[offset]);
  const auto middle = static_cast<unsigned char>(text[offset + 1]);
  const auto last = static_cast<unsigned char>(text[offset + 2]);
  if ((lead & 0xF0) != 0xE0 || (middle & 0xC0) != 0x80 || (last & 0xC0) != 0x80) return 0;
  const char32_t c = (char32_t(lead & 0x0F) << 12) | (char32_t(middle & 0x3F) << 6) | char32_t(last & 0x3F);
  return isChineseCodePoint(c) ? c : 0;
}

std::size_t slotIndex(std::uint32_t key, std::size_t slotCount) {
  return static_cast<std::size_t>((key * 0x9E3779B1u) >> 7) & (slotCount - 1);
}

}  // namespace

std::uint32_t WordIndex::pairKey(char32_t first, char32_t second) {
  // 20,902 squared fits in 32 bits and never reaches kNoPair.
  return static_cast<std::uint32_t>((first - kFirstChineseCodePoint) * kChineseCodePointCount +
                                    (second - kFirstChineseCodePoint));
}

WordIndex::WordIndex(const std::vector<WordReading>& words, const ReadingsOf& polyphonicReadings) {
  if (words.empty()) return;
  std::vector<std::size_t> order(words.size());
  std::iota(order.begin(), order.end(), 0);
  std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    const auto& x = words[a].word;
    const auto& y = words[b].word;
    if (x[0] != y[0] || x[1] != y[1]) return pairKey(x[0], x[1]) < pairKey(y[0], y[1]);
    if (x.size() != y.size()) return x.size() > y.size();  // longest first
    return x < y;
  });

  startsWord_.assign((kChineseCodePointCount + 63) / 64, 0);
  std::vector<PairSlot> pairs;
  words_.reserve(words.size());
  for (std::size_t index : order) {
    const WordReading& entry = words[index];
    const std::uint32_t key = pairKey(entry.word[0], entry.word[1]);
    const auto position = static_cast<std::uint32_t>(words_.size());
    if (pairs.empty() || pairs.back().key != key) pairs.push_back({key, position, position});
    ++pairs.back().end;
    const std::size_t bit = entry.word[0] - kFirstChineseCodePoint;
    startsWord_[bit / 64] |= std::uint64_t{1} << (bit % 64);

    words_.push_back({static_cast<std::uint32_t>(entry.word.size()), static_cast<std::uint32_t>(utf8_.size()),
                      static_cast<std::uint32_t>(readings_.size())});
    for (std::size_t k = 0; k < entry.word.size(); ++k) {
      const char32_t character = entry.word[k];
      appendUtf8(utf8_, character);
      std::vector<std::string> alternatives{capitalizedReading(entry.syllables[k])};
      for (const auto& other : polyphonicReadings(character)) {
        if (other != alternatives.front()) alternatives.push_back(other);
      }
      readings_.push_back(std::move(alternatives));
    }
  }

  // At most half full, so probes stay short.
  std::size_t slotCount = 16;
  while (slotCount < 2 * pairs.size()) slotCount *= 2;
  pairSlots_.assign(slotCount, PairSlot{kNoPair, 0, 0});
  for (const PairSlot& pair : pairs) {
    std::size_t i = slotIndex(pair.key, slotCount);
    while (pairSlots_[i].key != kNoPair) i = (i + 1) & (slotCount - 1);
    pairSlots_[i] = pair;
  }
}

const WordIndex::PairSlot* WordIndex::slotFor(std::uint32_t key) const {
  const std::size_t mask = pairSlots_.size() - 1;
  for (std::size_t i = slotIndex(key, pairSlots_.size());; i = (i + 1) & mask) {
    if (pairSlots_[i].key == key) return &pairSlots_[i];
    if (pairSlots_[i].key == kNoPair) return nullptr;
  }
}

WordIndex::Match WordIndex::longestWordFrom(std::string_view text, std::size_t offset, char32_t first) const {
  const char32_t second = chineseCharacterAt(text, offset + kBytesPerCharacter);
  if (second == 0) return {};
  const PairSlot* pair = slotFor(pairKey(first, second));
  if (pair == nullptr) return {};
  const std::size_t available = text.size() - offset;
  const std::size_t known = 2 * kBytesPerCharacter;  // the pair is known to match
  for (std::uint32_t i = pair->begin; i < pair->end; ++i) {
    const Word& word = words_[i];
    const std::size_t bytes = word.length * kBytesPerCharacter;
    if (bytes <= available &&
        text.compare(offset + known, bytes - known, utf8_, word.utf8Offset + known, bytes - known) == 0) {
      return {word.length, &readings_[word.readingsOffset]};
    }
  }
  return {};
}

}  // namespace quorvi
