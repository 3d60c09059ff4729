// The transliterated reading of each Chinese character (U+4E00..U+9FA5),
// shared by the whole process. ICU's Han-to-Latin transform costs several
// microseconds per call and takes a process-wide lock, so each character is
// transliterated once, on first use, and its reading is kept for good: a
// scan that meets a character again reads it without a lock.
#pragma once

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <unicode/uversion.h>

#include "pinyin/utf8_text.h"

U_NAMESPACE_BEGIN
class Transliterator;
U_NAMESPACE_END

namespace quorvi {

class HanReadings {
 public:
  static HanReadings& shared();

  // The character's one reading as a single-element list: toneless ASCII,
  // spaces removed, capitalised ("Yin"). A character ICU cannot read (there
  // are ten in the range) reads as itself. The list lives as long as the
  // process. Precondition: isChineseCodePoint(character).
  const std::vector<std::string>& readingsOf(char32_t character);

  // How many characters have been transliterated so far.
  std::size_t transliteratedCount() const;

 private:
  HanReadings();
  const std::vector<std::string>& transliterate(char32_t character);
  std::string transliteratedText(char32_t character);

  std::unique_ptr<std::atomic<const std::vector<std::string>*>[]> slots_;
  mutable std::mutex transliterationLock_;  // guards everything below
  std::unique_ptr<icu::Transliterator> transliterator_;
  bool transliteratorFailed_ = false;
  std::deque<std::vector<std::string>> storage_;
};

// "yin hang" -> "Yinhang": spaces removed, the first ASCII letter upper case,
// the other ASCII letters lower case.
std::string capitalizedReading(std::string_view text);

}  // namespace quorvi
