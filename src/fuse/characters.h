// Text as the matcher sees it: case-folded, canonically composed and split into
// characters (extended grapheme clusters). ASCII text without "\r" is the common
// case and never touches ICU: there every byte is one character.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quorvi {

// Lower-cases the text (when asked) and composes it canonically (NFC), so that
// "e" + U+0301 and U+00E9 are the same character, as a user reads them.
void foldText(std::string_view text, bool lowercase, std::string& out);

class CharacterString {
 public:
  CharacterString() = default;
  // Folds and splits the text; reuses this object's buffers.
  void assign(std::string_view text, bool lowercase);
  // Splits an already folded text.
  void assignFolded(std::string folded);

  const std::string& text() const { return text_; }
  std::size_t count() const { return singleByte_ ? text_.size() : offsets_.size() - 1; }
  // True when every character is a single ASCII byte.
  bool isSingleByte() const { return singleByte_; }
  std::string_view at(std::size_t i) const {
    if (singleByte_) return std::string_view(text_).substr(i, 1);
    return std::string_view(text_).substr(offsets_[i], offsets_[i + 1] - offsets_[i]);
  }
  // Byte offset where character i starts (the text's size for i == count()).
  std::size_t offsetOf(std::size_t i) const { return singleByte_ ? i : offsets_[i]; }
  // Index of the character that starts at the byte offset; -1 inside a character.
  long indexAtOffset(std::size_t offset) const;

 private:
  void split();
  std::string text_;
  std::vector<uint32_t> offsets_;  // character starts plus the end; unused when singleByte_
  bool singleByte_ = true;
};

// Number of characters of a text, without folding.
std::size_t characterCount(std::string_view text);

}  // namespace quorvi
