#include "contacts/vcard.h"

#include <unicode/unistr.h>

#include <algorithm>
#include <cctype>
#include <optional>

namespace quorvi {

namespace {

char asciiUpper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

std::string upperCased(std::string_view text) {
  std::string upper(text);
  std::transform(upper.begin(), upper.end(), upper.begin(), asciiUpper);
  return upper;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (asciiUpper(a[i]) != asciiUpper(b[i])) return false;
  }
  return true;
}

bool isFoldingSpace(char c) { return c == ' ' || c == '\t'; }

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (isFoldingSpace(text.front()) || text.front() == '\r')) text.remove_prefix(1);
  while (!text.empty() && (isFoldingSpace(text.back()) || text.back() == '\r')) text.remove_suffix(1);
  return text;
}

// Bytes in the given charset as UTF-8; nullopt when ICU does not know the
// charset or the bytes do not convert.
std::optional<std::string> convertedToUtf8(std::string_view bytes, const std::string& charset) {
  icu::UnicodeString text(bytes.data(), static_cast<int32_t>(std::min<std::size_t>(bytes.size(), INT32_MAX)),
                          charset.c_str());
  if (text.isBogus()) return std::nullopt;
  std::string utf8;
  text.toUTF8String(utf8);
  return utf8;
}

// The text as UTF-8: a UTF-8 byte-order mark is dropped, UTF-16 with its
// mark is converted; anything else is taken as it is.
std::string utf8Text(std::string_view text) {
  if (text.size() >= 3 && text.substr(0, 3) == "\xEF\xBB\xBF") return std::string(text.substr(3));
  if (text.size() >= 2 && (text.substr(0, 2) == "\xFF\xFE" || text.substr(0, 2) == "\xFE\xFF")) {
    const char* charset = text[0] == '\xFF' ? "UTF-16LE" : "UTF-16BE";
    if (auto converted = convertedToUtf8(text.substr(2), charset)) return *converted;
  }
  return std::string(text);
}

std::vector<std::string_view> physicalLines(std::string_view text) {
  std::vector<std::string_view> lines;
  std::size_t start = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\n' && text[i] != '\r') continue;
    lines.push_back(text.substr(start, i - start));
    if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
    start = i + 1;
  }
  if (start < text.size()) lines.push_back(text.substr(start));
  return lines;
}

bool isNameCharacter(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_'; }

// The part of a content line before its value.
struct LineHeader {
  std::string group;
  std::string name;
  std::vector<VCardParameter> parameters;
  std::size_t valueStart = 0;
};

// 2.1 lets a parameter stand without its name: these are encodings, the
// rest are types.
void addBareParameter(std::vector<VCardParameter>& parameters, std::string_view token) {
  std::string upper = upperCased(token);
  bool isEncoding = upper == "QUOTED-PRINTABLE" || upper == "BASE64" || upper == "8BIT" || upper == "7BIT" ||
                    upper == "B";
  parameters.push_back({isEncoding ? "ENCODING" : "TYPE", {std::string(token)}});
}

// Reads "[group.]NAME *(;param[=value[,value]]) :" from the line; false when
// the line is no content line.
bool parseHeader(std::string_view line, LineHeader& header) {
  std::size_t i = 0;
  auto readName = [&] {
    std::size_t start = i;
    while (i < line.size() && isNameCharacter(line[i])) ++i;
    return line.substr(start, i - start);
  };
  std::string_view name = readName();
  if (i < line.size() && line[i] == '.') {
    header.group = std::string(name);
    ++i;
    name = readName();
  }
  if (name.empty()) return false;
  header.name = upperCased(name);

  while (i < line.size() && line[i] == ';') {
    ++i;
    std::size_t start = i;
    while (i < line.size() && line[i] != '=' && line[i] != ';' && line[i] != ':') ++i;
    std::string_view parameterName = trimmed(line.substr(start, i - start));
    if (i >= line.size() || line[i] != '=') {
      if (!parameterName.empty()) addBareParameter(header.parameters, parameterName);
      continue;
    }
    ++i;  // '='
    VCardParameter parameter{upperCased(parameterName), {}};
    for (;;) {
      std::string value;
      if (i < line.size() && line[i] == '"') {
        std::size_t close = line.find('"', i + 1);
        if (close == std::string_view::npos) return false;
        value = std::string(line.substr(i + 1, close - i - 1));
        i = close + 1;
      } else {
        std::size_t valueStart = i;
        while (i < line.size() && line[i] != ',' && line[i] != ';' && line[i] != ':') ++i;
        value = std::string(trimmed(line.substr(valueStart, i - valueStart)));
      }
      parameter.values.push_back(std::move(value));
      if (i < line.size() && line[i] == ',') {
        ++i;
        continue;
      }
      break;
    }
    header.parameters.push_back(std::move(parameter));
  }
  if (i >= line.size() || line[i] != ':') return false;
  header.valueStart = i + 1;
  return true;
}

std::string parameterValue(const std::vector<VCardParameter>& parameters, std::string_view name) {
  for (const auto& parameter : parameters) {
    if (parameter.name == name && !parameter.values.empty()) return parameter.values.front();
  }
  return {};
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = asciiUpper(c);
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// "=XX" becomes the byte XX; an "=" that starts no such pair stays.
std::string quotedPrintableDecoded(std::string_view text) {
  std::string bytes;
  bytes.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '=' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 && hexValue(text[i + 2]) >= 0) {
      bytes.push_back(static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2])));
      i += 2;
    } else {
      bytes.push_back(text[i]);
    }
  }
  return bytes;
}

bool isBase64Line(std::string_view line) {
  line = trimmed(line);
  if (line.empty()) return false;
  return std::all_of(line.begin(), line.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '/' || c == '=' || isFoldingSpace(c);
  });
}

// Turns the lines of one card (between its BEGIN and END) into properties.
class CardReader {
 public:
  CardReader(const std::vector<std::string_view>& lines, VCard& card) : lines_(lines), card_(card) {}

  void read() {
    card_.version = versionOf(lines_);
    keepsFoldingSpace_ = card_.version == "2.1";
    while (next_ < lines_.size()) readProperty();
  }

 private:
  static std::string versionOf(const std::vector<std::string_view>& lines) {
    for (std::string_view line : lines) {
      if (line.size() > 8 && equalsIgnoringCase(line.substr(0, 8), "VERSION:")) {
        return std::string(trimmed(line.substr(8)));
      }
    }
    return {};
  }

  bool continues() const { return next_ < lines_.size() && !lines_[next_].empty() && isFoldingSpace(lines_[next_][0]); }

  void appendFolded(std::string& text) {
    while (continues()) {
      std::string_view line = lines_[next_++];
      text.append(keepsFoldingSpace_ ? line : line.substr(1));
    }
  }

  void readProperty() {
    std::string_view first = lines_[next_++];
    if (trimmed(first).empty() || isFoldingSpace(first[0])) return;  // blank, or a continuation of nothing

    LineHeader header;
    std::string value;
    if (parseHeader(first, header)) {
      value = std::string(first.substr(header.valueStart));
    } else {
      // The header itself may be folded.
      std::string logical(first);
      appendFolded(logical);
      header = LineHeader{};
      if (!parseHeader(logical, header)) return;
      value = logical.substr(header.valueStart);
    }

    std::string encoding = upperCased(parameterValue(header.parameters, "ENCODING"));
    if (encoding == "QUOTED-PRINTABLE") {
      readSoftBreaks(value);
      appendFolded(value);
      value = quotedPrintableDecoded(value);
    } else if (encoding == "BASE64" || encoding == "B") {
      while (continues()) value.append(trimmed(lines_[next_++]));
      // 2.1 writers also put the data on unindented lines, ended by a blank one.
      while (next_ < lines_.size() && isBase64Line(lines_[next_]) &&
             lines_[next_].find(':') == std::string_view::npos) {
        value.append(trimmed(lines_[next_++]));
      }
    } else {
      appendFolded(value);
    }

    std::string charset = parameterValue(header.parameters, "CHARSET");
    if (!charset.empty() && !equalsIgnoringCase(charset, "UTF-8") && encoding != "BASE64" && encoding != "B") {
      if (auto converted = convertedToUtf8(value, charset)) value = std::move(*converted);
    }

    card_.properties.push_back({std::move(header.group), std::move(header.name), std::move(header.parameters),
                                std::move(value)});
  }

  // A quoted-printable value ending in "=" goes on in the next line; one
  // space or tab that starts that line is folding, not content.
  void readSoftBreaks(std::string& value) {
    while (!value.empty() && value.back() == '=' && next_ < lines_.size()) {
      value.pop_back();
      std::string_view line = lines_[next_++];
      if (!line.empty() && isFoldingSpace(line[0])) line.remove_prefix(1);
      value.append(line);
    }
  }

  const std::vector<std::string_view>& lines_;
  VCard& card_;
  std::size_t next_ = 0;
  bool keepsFoldingSpace_ = false;
};

bool isMarker(std::string_view line, std::string_view marker) { return equalsIgnoringCase(trimmed(line), marker); }

}  // namespace

bool VCardProperty::hasParameter(std::string_view parameterName, std::string_view parameterValue) const {
  for (const auto& parameter : parameters) {
    if (parameter.name != parameterName) continue;
    if (parameterValue.empty()) return true;
    for (std::string_view value : parameter.values) {
      // TYPE="home,voice" (4.0) lists its values inside one quoted value.
      std::size_t start = 0;
      while (start <= value.size()) {
        std::size_t end = value.find(',', start);
        if (end == std::string_view::npos) end = value.size();
        if (equalsIgnoringCase(trimmed(value.substr(start, end - start)), parameterValue)) return true;
        start = end + 1;
      }
    }
  }
  return false;
}

const VCardProperty* VCard::first(std::string_view name) const {
  for (const auto& property : properties) {
    if (property.name == name) return &property;
  }
  return nullptr;
}

std::vector<VCard> parseVCards(std::string_view input) {
  std::string text = utf8Text(input);
  std::vector<std::string_view> lines = physicalLines(text);
  std::vector<VCard> cards;
  std::vector<std::string_view> cardLines;
  std::size_t depth = 0;
  auto finishCard = [&] {
    VCard card;
    card.position = cards.size();
    CardReader(cardLines, card).read();
    cards.push_back(std::move(card));
    cardLines.clear();
  };
  for (std::string_view line : lines) {
    if (isMarker(line, "BEGIN:VCARD")) {
      ++depth;
      continue;
    }
    if (depth == 0) continue;
    if (isMarker(line, "END:VCARD")) {
      if (--depth == 0) finishCard();
      continue;
    }
    if (depth == 1) cardLines.push_back(line);
  }
  if (depth > 0) finishCard();
  return cards;
}

std::string vcardUnescaped(std::string_view value) {
  std::string text;
  text.reserve(value.size());
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '\\' || i + 1 >= value.size()) {
      text.push_back(value[i]);
      continue;
    }
    char next = value[i + 1];
    if (next == 'n' || next == 'N') {
      text.push_back('\n');
    } else if (next == ',' || next == ';' || next == '\\' || next == ':') {
      text.push_back(next);
    } else {
      text.push_back('\\');
      text.push_back(next);
    }
    ++i;
  }
  return text;
}

std::vector<std::string> vcardComponents(std::string_view value, char separator) {
  std::vector<std::string> components;
  std::size_t start = 0;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] == '\\') {
      ++i;  // the escaped character is never a separator
    } else if (value[i] == separator) {
      components.push_back(vcardUnescaped(value.substr(start, i - start)));
      start = i + 1;
    }
  }
  components.push_back(vcardUnescaped(value.substr(std::min(start, value.size()))));
  return components;
}

}  // namespace quorvi
