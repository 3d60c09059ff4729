#include "fuse/characters.h"

#include <unicode/brkiter.h>
#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/unistr.h>
#include <unicode/utext.h>

#include <memory>

namespace quorvi {

namespace {

bool isAscii(std::string_view text) {
  for (unsigned char c : text)
    if (c >= 0x80) return false;
  return true;
}

// One character break iterator per thread: creating one is costly and an
// iterator is not safe to share.
icu::BreakIterator* characterIterator() {
  thread_local std::unique_ptr<icu::BreakIterator> iterator = [] {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator> made(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status)) made.reset();
    return made;
  }();
  return iterator.get();
}

}  // namespace

void foldText(std::string_view text, bool lowercase, std::string& out) {
  if (isAscii(text)) {
    out.assign(text);
    if (lowercase)
      for (char& c : out)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return;
  }
  icu::UnicodeString unicode = icu::UnicodeString::fromUTF8(
      icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
  if (lowercase) unicode.toLower(icu::Locale::getRoot());
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
  if (U_SUCCESS(status) && !nfc->isNormalized(unicode, status)) {
    status = U_ZERO_ERROR;
    icu::UnicodeString composed = nfc->normalize(unicode, status);
    if (U_SUCCESS(status)) unicode = composed;
  }
  out.clear();
  unicode.toUTF8String(out);
}

void CharacterString::assign(std::string_view text, bool lowercase) {
  foldText(text, lowercase, text_);
  split();
}

void CharacterString::assignFolded(std::string folded) {
  text_ = std::move(folded);
  split();
}

void CharacterString::split() {
  offsets_.clear();
  singleByte_ = isAscii(text_) && text_.find('\r') == std::string::npos;
  if (singleByte_) return;
  offsets_.push_back(0);
  icu::BreakIterator* iterator = characterIterator();
  // The iterator keeps a shallow copy of the UText; it is only used again after
  // the next setText, so the stale copy never reads freed text.
  UErrorCode status = U_ZERO_ERROR;
  UText* utext = utext_openUTF8(nullptr, text_.data(), static_cast<int64_t>(text_.size()), &status);
  if (iterator && U_SUCCESS(status)) {
    iterator->setText(utext, status);
    if (U_SUCCESS(status)) {
      for (int32_t end = iterator->next(); end != icu::BreakIterator::DONE; end = iterator->next())
        offsets_.push_back(static_cast<uint32_t>(end));
    }
  }
  utext_close(utext);
  // Without ICU (or on a failure) every byte stands alone rather than losing text.
  if (offsets_.back() != text_.size()) {
    offsets_.assign(1, 0);
    for (std::size_t i = 1; i <= text_.size(); ++i) offsets_.push_back(static_cast<uint32_t>(i));
  }
}

std::size_t characterCount(std::string_view text) {
  CharacterString characters;
  characters.assignFolded(std::string(text));
  return characters.count();
}

}  // namespace quorvi
