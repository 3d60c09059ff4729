#include "pinyin/han_readings.h"

#include <unicode/translit.h>
#include <unicode/unistr.h>

namespace quorvi {

HanReadings& HanReadings::shared() {
  // Never destroyed: scan threads may still read it while the process exits.
  static auto* readings = new HanReadings();
  return *readings;
}

HanReadings::HanReadings()
    : slots_(std::make_unique<std::atomic<const std::vector<std::string>*>[]>(kChineseCodePointCount)) {}

const std::vector<std::string>& HanReadings::readingsOf(char32_t character) {
  const auto* known = slots_[character - kFirstChineseCodePoint].load(std::memory_order_acquire);
  if (known != nullptr) return *known;
  return transliterate(character);
}

std::size_t HanReadings::transliteratedCount() const {
  std::lock_guard guard(transliterationLock_);
  return storage_.size();
}

const std::vector<std::string>& HanReadings::transliterate(char32_t character) {
  std::lock_guard guard(transliterationLock_);
  auto& slot = slots_[character - kFirstChineseCodePoint];
  // Another thread may have filled the slot while this one waited.
  if (const auto* known = slot.load(std::memory_order_acquire)) return *known;
  std::string reading = capitalizedReading(transliteratedText(character));
  if (reading.empty()) appendUtf8(reading, character);
  storage_.push_back({std::move(reading)});
  slot.store(&storage_.back(), std::memory_order_release);
  return storage_.back();
}

// Called with transliterationLock_ held. Han-Latin gives toned pinyin and
// Latin-ASCII strips the marks (ü becomes u); the transliterator is built on
// first need because building it takes a noticeable fraction of a second.
std::string HanReadings::transliteratedText(char32_t character) {
  if (!transliterator_ && !transliteratorFailed_) {
    UErrorCode status = U_ZERO_ERROR;
    transliterator_.reset(icu::Transliterator::createInstance(
        "Han-Latin; Latin-ASCII", UTRANS_FORWARD, status));
    if (U_FAILURE(status)) transliterator_.reset();
    transliteratorFailed_ = !transliterator_;
  }
  std::string text;
  if (!transliterator_) return text;
  icu::UnicodeString unicode(static_cast<UChar32>(character));
  transliterator_->transliterate(unicode);
  unicode.toUTF8String(text);
  return text;
}

std::string capitalizedReading(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  bool first = true;
  for (char c : text) {
    if (c == ' ') continue;
    if (c >= 'a' && c <= 'z' && first) c = static_cast<char>(c - 32);
    else if (c >= 'A' && c <= 'Z' && !first) c = static_cast<char>(c + 32);
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')) first = false;
    out.push_back(c);
  }
  return out;
}

}  // namespace quorvi
