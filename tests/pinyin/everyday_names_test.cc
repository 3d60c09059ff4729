// How often the mapper gives the pinyin a person types for everyday Chinese
// file names (tests/pinyin/data/everyday_names.tsv, written by hand).
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "pinyin/pinyin_mapper.h"
#include "pinyin/utf8_text.h"
#include "pinyin_test_support.h"

namespace quorvi {
namespace {

using testing::contains;

struct EverydayName {
  std::string name;
  std::vector<std::string> syllables;  // one per Chinese character
};

std::string sourceDirectory() {
  const char* dir = std::getenv("QUORVI_SOURCE_DIR");
  return dir ? dir : QUORVI_TEST_SOURCE_DIR;
}

std::vector<EverydayName> everydayNames() {
  std::ifstream file(sourceDirectory() + "/tests/pinyin/data/everyday_names.tsv");
  std::vector<EverydayName> names;
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') continue;
    const auto tab = line.find('\t');
    if (tab == std::string::npos) continue;
    EverydayName entry{line.substr(0, tab), {}};
    std::istringstream syllables(line.substr(tab + 1));
    for (std::string syllable; syllables >> syllable;) entry.syllables.push_back(syllable);
    names.push_back(std::move(entry));
  }
  return names;
}

// What a person types: the full reading (each Chinese character replaced by
// its syllable, the rest of the name as it stands, lower case) and the
// initials (first letters of the syllables, with the capitals and digits of
// the other text). Empty strings when the reading does not fit the name.
struct TypedForms {
  std::string full;
  std::string initials;
};

TypedForms typedForms(const EverydayName& entry) {
  TypedForms typed;
  std::size_t next = 0;
  for (std::size_t offset = 0; offset < entry.name.size();) {
    Utf8Step step = decodeUtf8(entry.name, offset);
    const std::string_view character(entry.name.data() + offset, step.length);
    offset += step.length;
    if (step.valid && isChineseCodePoint(step.codePoint)) {
      if (next == entry.syllables.size()) return {};
      const std::string& syllable = entry.syllables[next++];
      typed.full += syllable;
      typed.initials += syllable.front();
      continue;
    }
    typed.full += character;
    const char c = character.size() == 1 ? character[0] : '\0';
    if ((c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) typed.initials += c;
  }
  if (next != entry.syllables.size()) return {};
  typed.full = lowercased(typed.full);
  typed.initials = lowercased(typed.initials);
  return typed;
}

TEST(EverydayNamesTest, SetIsLargeAndEveryReadingFitsItsName) {
  const auto names = everydayNames();
  EXPECT_GE(names.size(), 400u);
  for (const auto& entry : names) {
    EXPECT_FALSE(typedForms(entry).full.empty()) << entry.name << ": one syllable per Chinese character";
  }
}

TEST(EverydayNamesTest, TypedReadingsAreFound) {
  const auto names = everydayNames();
  ASSERT_FALSE(names.empty());
  std::size_t fullFound = 0, initialsFound = 0, bothFound = 0, typedFirst = 0;
  for (const auto& entry : names) {
    const TypedForms typed = typedForms(entry);
    const PinyinForms forms = PinyinMapper::shared().map(entry.name);
    const bool full = contains(forms.fullPinyins, typed.full);
    const bool initials = contains(forms.initials, typed.initials);
    fullFound += full;
    initialsFound += initials;
    bothFound += full && initials;
    typedFirst += !forms.fullPinyins.empty() && forms.fullPinyins.front() == typed.full;
    if (!full || !initials) {
      std::printf("  not found: %s  typed %s / %s, first string %s\n", entry.name.c_str(), typed.full.c_str(),
                  typed.initials.c_str(), forms.fullPinyins.empty() ? "-" : forms.fullPinyins.front().c_str());
    }
  }
  const double count = static_cast<double>(names.size());
  std::printf("%zu names: full reading found %.1f%%, initials found %.1f%%, both %.1f%%, typed reading first %.1f%%\n",
              names.size(), 100.0 * fullFound / count, 100.0 * initialsFound / count, 100.0 * bothFound / count,
              100.0 * typedFirst / count);
  EXPECT_GE(bothFound / count, 0.99);
  // The string the cut keeps when a name holds many polyphones.
  EXPECT_GE(typedFirst / count, 0.95);
}

}  // namespace
}  // namespace quorvi
