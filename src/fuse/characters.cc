#include "fuse/characters.h"

#include <unicode/brkiter.h>
#include <unicode/uchar.h>
#include <unicode/unorm2.h>
#include <unicode/ustring.h>
#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/unistr.h>
#include <unicode/utext.h>

#include <algorithm>
#include <bitset>
#include <cstring>
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

// Code points of the Basic Multilingual Plane that always stand alone as a
// character: grapheme break class Other, Control or LF (not CR, which joins a
// following LF). A text made only of these breaks between every code point, so
// it needs no break iterator. Read from ICU's own property data.
const std::bitset<0x10000>& standaloneCodePoints() {
  static const auto* table = [] {
    auto* bits = new std::bitset<0x10000>();
    for (UChar32 c = 0; c < 0x10000; ++c) {
      const int32_t kind = u_getIntPropertyValue(c, UCHAR_GRAPHEME_CLUSTER_BREAK);
      if (c != '\r' && (kind == U_GCB_OTHER || kind == U_GCB_CONTROL || kind == U_GCB_LF)) bits->set(c);
    }
    return bits;
  }();
  return *table;
}

// Splits at every code point when each one stands alone; false otherwise.
bool splitAtCodePoints(const std::string& text, std::vector<uint32_t>& offsets) {
  const auto& standalone = standaloneCodePoints();
  const std::size_t size = text.size();
  for (std::size_t i = 0; i < size;) {
    const unsigned char lead = static_cast<unsigned char>(text[i]);
    uint32_t c;
    std::size_t width;
    if (lead < 0x80) {
      c = lead, width = 1;
    } else if ((lead & 0xE0) == 0xC0 && i + 1 < size) {
      c = ((lead & 0x1Fu) << 6) | (static_cast<unsigned char>(text[i + 1]) & 0x3Fu), width = 2;
    } else if ((lead & 0xF0) == 0xE0 && i + 2 < size) {
      c = ((lead & 0x0Fu) << 12) | ((static_cast<unsigned char>(text[i + 1]) & 0x3Fu) << 6) |
          (static_cast<unsigned char>(text[i + 2]) & 0x3Fu);
      width = 3;
    } else {
      return false;  // beyond the BMP (emoji, ...) or not well formed: ask ICU
    }
    if (!standalone.test(c)) return false;
    offsets.push_back(static_cast<uint32_t>(i));
    i += width;
  }
  offsets.push_back(static_cast<uint32_t>(size));
  return true;
}

// How each code point of the Basic Multilingual Plane folds on its own, for
// texts that need neither context nor composition: its lower-case form (or
// itself, when not lower-casing) if that is one code point that canonical
// composition leaves alone; 0 when the code point needs ICU's full treatment
// (final sigma, expansions, combining marks, ...). Read from ICU's own data.
struct FoldTable {
  std::vector<uint16_t> lower = std::vector<uint16_t>(0x10000, 0);
  std::vector<uint16_t> same = std::vector<uint16_t>(0x10000, 0);
};

bool composesAlone(UChar32 c) {
  return u_getIntPropertyValue(c, UCHAR_NFC_QUICK_CHECK) == UNORM_YES && u_getCombiningClass(c) == 0;
}

const FoldTable& foldTable() {
  static const auto* table = [] {
    auto* made = new FoldTable();
    for (UChar32 c = 1; c < 0x10000; ++c) {
      if (U_IS_SURROGATE(c) || !composesAlone(c)) continue;
      made->same[c] = static_cast<uint16_t>(c);
      if (c == 0x03A3) continue;  // capital sigma lower-cases by context
      const UChar source = static_cast<UChar>(c);
      UChar folded[4];
      UErrorCode status = U_ZERO_ERROR;
      const int32_t length = u_strToLower(folded, 4, &source, 1, "", &status);
      if (U_SUCCESS(status) && length == 1 && !U_IS_SURROGATE(folded[0]) && composesAlone(folded[0]))
        made->lower[c] = folded[0];
    }
    return made;
  }();
  return *table;
}

// Folds a text of well-formed one- to three-byte code points that all fold on
// their own; false (out unspecified) when any does not.
bool foldSimply(std::string_view text, bool lowercase, std::string& out) {
  const std::vector<uint16_t>& map = lowercase ? foldTable().lower : foldTable().same;
  out.clear();
  const std::size_t size = text.size();
  auto continuation = [&](std::size_t at) {
    return at < size && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80;
  };
  for (std::size_t i = 0; i < size;) {
    const unsigned char lead = static_cast<unsigned char>(text[i]);
    uint32_t c;
    if (lead < 0x80) {
      out.push_back(static_cast<char>(lowercase && static_cast<unsigned>(lead - 'A') < 26u ? lead + 32 : lead));
      ++i;
      continue;
    }
    if (lead >= 0xC2 && lead <= 0xDF && continuation(i + 1)) {
      c = ((lead & 0x1Fu) << 6) | (static_cast<unsigned char>(text[i + 1]) & 0x3Fu);
      i += 2;
    } else if ((lead & 0xF0) == 0xE0 && continuation(i + 1) && continuation(i + 2)) {
      c = ((lead & 0x0Fu) << 12) | ((static_cast<unsigned char>(text[i + 1]) & 0x3Fu) << 6) |
          (static_cast<unsigned char>(text[i + 2]) & 0x3Fu);
      if (c < 0x800 || U_IS_SURROGATE(c)) return false;
      i += 3;
    } else {
      return false;
    }
    const uint32_t folded = map[c];
    if (folded == 0) return false;
    if (folded < 0x80) {  // the Kelvin sign, for one, folds to ASCII
      out.push_back(static_cast<char>(folded));
      continue;
    }
    if (folded < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (folded >> 6)));
    } else {
      out.push_back(static_cast<char>(0xE0 | (folded >> 12)));
      out.push_back(static_cast<char>(0x80 | ((folded >> 6) & 0x3F)));
    }
    out.push_back(static_cast<char>(0x80 | (folded & 0x3F)));
  }
  return true;
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
  if (foldSimply(text, lowercase, out)) return;
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
  // ASCII, the common case, in one pass: copy, lower-case, look for CR; eight
  // bytes at a time.
  constexpr uint64_t kOnes = 0x0101010101010101ull, kHigh = 0x8080808080808080ull;
  text_.resize(text.size());
  const char* in = text.data();
  char* out = text_.data();
  const std::size_t size = text.size();
  uint64_t seen = 0, carriageReturns = 0;
  std::size_t i = 0;
  for (; i + 8 <= size; i += 8) {
    uint64_t word;
    std::memcpy(&word, in + i, 8);
    seen |= word;
    const uint64_t cr = word ^ (kOnes * '\r');
    carriageReturns |= (cr - kOnes) & ~cr & kHigh;
    if (lowercase) {
      const uint64_t low7 = word & ~kHigh;
      const uint64_t atLeastA = low7 + kOnes * (0x80 - 'A');
      const uint64_t beyondZ = low7 + kOnes * (0x7F - 'Z');
      word |= (atLeastA & ~beyondZ & ~word & kHigh) >> 2;
    }
    std::memcpy(out + i, &word, 8);
  }
  for (; i < size; ++i) {
    const unsigned char c = static_cast<unsigned char>(in[i]);
    seen |= c;
    carriageReturns |= c == '\r';
    out[i] = static_cast<char>(lowercase && static_cast<unsigned>(c - 'A') < 26u ? c + 32 : c);
  }
  const bool ascii = (seen & kHigh) == 0;
  const bool carriageReturn = carriageReturns != 0;
  if (ascii && !carriageReturn) {
    singleByte_ = true;
    offsets_.clear();
    return;
  }
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
  if (splitAtCodePoints(text_, offsets_)) return;
  offsets_.assign(1, 0);
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

long CharacterString::indexAtOffset(std::size_t offset) const {
  if (singleByte_) return offset <= text_.size() ? static_cast<long>(offset) : -1;
  auto found = std::lower_bound(offsets_.begin(), offsets_.end(), static_cast<uint32_t>(offset));
  if (found == offsets_.end() || *found != offset) return -1;
  return static_cast<long>(found - offsets_.begin());
}

std::size_t characterCount(std::string_view text) {
  CharacterString characters;
  characters.assignFolded(std::string(text));
  return characters.count();
}

}  // namespace quorvi
