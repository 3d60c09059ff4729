#include "contacts/contact_item.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "pinyin/pinyin_mapper.h"

namespace quorvi {

namespace {

std::string_view trimmedText(std::string_view text) {
  auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  return text;
}

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
  if (text.size() < prefix.size()) return false;
  for (std::size_t i = 0; i < prefix.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(text[i])) != std::tolower(static_cast<unsigned char>(prefix[i])))
      return false;
  }
  return true;
}

std::string joined(const std::vector<std::string>& parts, std::string_view separator) {
  std::string text;
  for (const auto& part : parts) {
    if (part.empty()) continue;
    if (!text.empty()) text.append(separator);
    text.append(part);
  }
  return text;
}

// A text value: unescaped and trimmed.
std::string textValue(const VCardProperty& property) {
  return std::string(trimmedText(vcardUnescaped(property.value)));
}

// The pieces of a list value (NICKNAME, and each component of N in 4.0).
std::vector<std::string> listValues(std::string_view value) {
  std::vector<std::string> values;
  for (auto& piece : vcardComponents(value, ',')) {
    std::string_view text = trimmedText(piece);
    if (!text.empty()) values.emplace_back(text);
  }
  return values;
}

// N is family;given;additional;prefixes;suffixes, each possibly a list.
std::string nameFromStructuredName(const VCardProperty& property) {
  std::vector<std::string> parts;
  for (auto& component : vcardComponents(property.value, ';')) {
    // The components are already unescaped; a list inside one is joined by blanks.
    std::vector<std::string> words;
    std::size_t start = 0;
    while (start <= component.size()) {
      std::size_t end = component.find(',', start);
      if (end == std::string::npos) end = component.size();
      std::string_view word = trimmedText(std::string_view(component).substr(start, end - start));
      if (!word.empty()) words.emplace_back(word);
      start = end + 1;
    }
    parts.push_back(joined(words, " "));
  }
  parts.resize(5);
  const std::string &family = parts[0], &given = parts[1], &additional = parts[2], &prefix = parts[3],
                    &suffix = parts[4];
  if (PinyinMapper::containsChinese(family) || PinyinMapper::containsChinese(given)) {
    return family + given + additional;
  }
  return joined({prefix, given, additional, family, suffix}, " ");
}

std::string nameOfCard(const VCard& card, const std::vector<std::string>& nicknames) {
  if (const auto* fn = card.first("FN")) {
    std::string name = textValue(*fn);
    if (!name.empty()) return name;
  }
  if (const auto* n = card.first("N")) {
    std::string name = nameFromStructuredName(*n);
    if (!name.empty()) return name;
  }
  if (const auto* org = card.first("ORG")) {
    std::string name = joined(vcardComponents(org->value, ';'), " ");
    name = std::string(trimmedText(name));
    if (!name.empty()) return name;
  }
  return nicknames.empty() ? std::string() : nicknames.front();
}

bool isListCard(const VCard& card) {
  for (const char* name : {"KIND", "X-ADDRESSBOOKSERVER-KIND"}) {
    if (const auto* kind = card.first(name)) {
      if (startsWithIgnoringCase(trimmedText(kind->value), "group")) return true;
    }
  }
  if (const auto* list = card.first("X-EVOLUTION-LIST")) {
    if (startsWithIgnoringCase(trimmedText(list->value), "true")) return true;
  }
  return false;
}

// "tel:+1-555-0100;ext=7" -> "+1-555-0100"; "mailto:a@b" -> "a@b".
std::string contactValue(const VCardProperty& property, ContactType type) {
  std::string value = textValue(property);
  if (type == ContactType::phone && startsWithIgnoringCase(value, "tel:")) {
    value = value.substr(4);
    value = value.substr(0, value.find(';'));
  } else if (type == ContactType::email && startsWithIgnoringCase(value, "mailto:")) {
    value = value.substr(7);
  }
  return std::string(trimmedText(value));
}

void addMatch(std::vector<std::string>& matchs, std::string text) {
  if (text.empty()) return;
  if (std::find(matchs.begin(), matchs.end(), text) != matchs.end()) return;
  matchs.push_back(std::move(text));
}

}  // namespace

std::optional<ContactType> contactTypeFromRawValue(int64_t rawValue) {
  if (rawValue == 0) return ContactType::phone;
  if (rawValue == 1) return ContactType::email;
  return std::nullopt;
}

Json ContactItem::toJson() const {
  Json object = Json::object();
  object["identifier"] = identifier;
  object["name"] = name;
  if (nickname) object["nickname"] = *nickname;
  object["contact"] = contact;
  object["contactType"] = static_cast<int64_t>(contactType);
  object["hasAvatarData"] = hasAvatarData;
  return object;
}

OptionalBytes encodeContactItems(const std::vector<const ContactItem*>& items) {
  Json array = Json::array();
  for (const ContactItem* item : items) array.push_back(item->toJson());
  return encodeJson(array);
}

std::string phoneDigits(std::string_view number) {
  std::string digits;
  for (char c : number) {
    if (c >= '0' && c <= '9') digits.push_back(c);
  }
  return digits;
}

std::string fallbackContactIdentifier(std::string_view source, std::size_t position) {
  // FNV-1a over the source and the card's position: the same card in the
  // same place keeps its identifier across loads and restarts.
  uint64_t hash = 14695981039346656037ull;
  auto mix = [&](std::string_view bytes) {
    for (unsigned char c : bytes) {
      hash ^= c;
      hash *= 1099511628211ull;
    }
  };
  mix(source);
  mix("#");
  mix(std::to_string(position));
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
  return text;
}

std::vector<ContactItem> contactItemsOfCard(const VCard& card, const std::string& fallbackIdentifier) {
  std::vector<ContactItem> items;
  if (isListCard(card)) return items;

  std::vector<std::string> nicknames;
  bool hasAvatarData = false;
  std::string identifier;
  for (const auto& property : card.properties) {
    if (property.name == "NICKNAME") {
      for (auto& nickname : listValues(property.value)) nicknames.push_back(std::move(nickname));
    } else if (property.name == "PHOTO") {
      hasAvatarData = hasAvatarData || !trimmedText(property.value).empty();
    } else if (property.name == "UID" && identifier.empty()) {
      identifier = textValue(property);
    }
  }
  if (identifier.empty()) identifier = fallbackIdentifier;
  std::string name = nameOfCard(card, nicknames);
  std::optional<std::string> nickname;
  if (!nicknames.empty()) nickname = joined(nicknames, ", ");

  // The texts every entry of the person shares.
  std::vector<std::string> personMatchs;
  addMatch(personMatchs, name);
  addMatch(personMatchs, keywordForm(name));
  for (const auto& each : nicknames) {
    addMatch(personMatchs, each);
    addMatch(personMatchs, keywordForm(each));
  }

  for (const auto& property : card.properties) {
    ContactType type;
    if (property.name == "TEL") {
      type = ContactType::phone;
    } else if (property.name == "EMAIL") {
      type = ContactType::email;
    } else {
      continue;
    }
    std::string contact = contactValue(property, type);
    if (contact.empty()) continue;
    ContactItem item;
    item.identifier = identifier;
    item.name = name;
    item.nickname = nickname;
    item.contactType = type;
    item.hasAvatarData = hasAvatarData;
    item.matchs = personMatchs;
    addMatch(item.matchs, contact);
    addMatch(item.matchs, keywordForm(contact));
    if (type == ContactType::phone) addMatch(item.matchs, phoneDigits(contact));
    item.contact = std::move(contact);
    item.cmatchs = joined(item.matchs, " ");
    items.push_back(std::move(item));
  }
  return items;
}

}  // namespace quorvi
