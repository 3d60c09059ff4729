#include "pinyin/word_table.h"

#include <unordered_set>

#include "pinyin/utf8_text.h"
#include "platform/paths.h"
#include "platform/safe_file.h"

namespace quorvi {

namespace {

// A pinyin syllable is at most six letters ("zhuang").
constexpr std::size_t kMaxSyllableLength = 6;

WordTableReading rejected(std::size_t lineNumber, const std::string& why) {
  WordTableReading reading;
  reading.error = "line " + std::to_string(lineNumber) + ": " + why;
  return reading;
}

// The characters of a word, or an empty string when it is not 2 to
// kMaxWordLength Chinese characters.
std::u32string wordCharacters(std::string_view text) {
  std::u32string word;
  for (std::size_t offset = 0; offset < text.size();) {
    Utf8Step step = decodeUtf8(text, offset);
    if (!step.valid || !isChineseCodePoint(step.codePoint) || word.size() == kMaxWordLength) return {};
    word.push_back(step.codePoint);
    offset += step.length;
  }
  return word.size() >= 2 ? word : std::u32string();
}

// The syllables of "yin hang" in lower case; empty when one is not 1 to 6
// ASCII letters or the spacing is not single spaces.
std::vector<std::string> syllablesOf(std::string_view text) {
  std::vector<std::string> syllables;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find(' ', start);
    if (end == std::string_view::npos) end = text.size();
    std::string syllable(text.substr(start, end - start));
    if (syllable.empty() || syllable.size() > kMaxSyllableLength) return {};
    for (auto& c : syllable) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
      if (c < 'a' || c > 'z') return {};
    }
    syllables.push_back(std::move(syllable));
    start = end + 1;
  }
  return syllables;
}

}  // namespace

WordTableReading parseWordTable(std::string_view text) {
  WordTableReading reading;
  std::unordered_set<std::u32string> seen;
  std::size_t lineNumber = 0;
  for (std::size_t lineStart = 0; lineStart < text.size();) {
    std::size_t lineEnd = text.find('\n', lineStart);
    if (lineEnd == std::string_view::npos) lineEnd = text.size();
    std::string_view line = text.substr(lineStart, lineEnd - lineStart);
    lineStart = lineEnd + 1;
    ++lineNumber;
    if (line.empty() || line.front() == '#') continue;
    const std::size_t space = line.find(' ');
    if (space == std::string_view::npos) return rejected(lineNumber, "no reading");
    std::u32string word = wordCharacters(line.substr(0, space));
    if (word.empty()) return rejected(lineNumber, "not a word of 2 to 8 Chinese characters");
    std::vector<std::string> syllables = syllablesOf(line.substr(space + 1));
    if (syllables.size() != word.size()) return rejected(lineNumber, "not one syllable of ASCII letters per character");
    if (!seen.insert(word).second) return rejected(lineNumber, "word listed twice");
    reading.words.push_back({std::move(word), std::move(syllables)});
  }
  return reading;
}

WordTableReading readWordTable(const std::string& path) {
  SafeFileFailure failure = SafeFileFailure::none;
  std::optional<std::string> text = readRegularFile(path, kSmallTextFileCap, &failure);
  if (!text) {
    WordTableReading reading;
    reading.error = (failure == SafeFileFailure::missing ? "no file " : "cannot read ") + path;
    return reading;
  }
  return parseWordTable(*text);
}

std::string defaultWordTablePath() {
  return resourceDirectory() + "/pinyin/PinyinWords.txt";
}

}  // namespace quorvi
