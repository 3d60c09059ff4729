// ContactItem: one entry of the contacts index, a person's phone number or
// e-mail address, with the texts a query is matched against. A person with
// two numbers and an address is three entries.
//
// JSON (the reply of searchContactsWithQuery): an object with exactly the
// keys "identifier", "name", "nickname" (left out when absent), "contact",
// "contactType" (0 phone, 1 e-mail) and "hasAvatarData", in that order.
// `matchs` is never written.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/json.h"
#include "contacts/vcard.h"

namespace quorvi {

enum class ContactType : int64_t { phone = 0, email = 1 };

// The case of a raw value; nullopt for any other number.
std::optional<ContactType> contactTypeFromRawValue(int64_t rawValue);

struct ContactItem {
  std::string identifier;
  std::string name;
  std::optional<std::string> nickname;
  std::string contact;
  ContactType contactType = ContactType::phone;
  bool hasAvatarData = false;
  // The texts a query is matched against: the name, its lower-case and
  // pinyin forms, the nickname, the contact and, for a number, its digits.
  std::vector<std::string> matchs;
  // `matchs` joined by blanks: what the keyword search runs over (a query
  // term never holds a blank, so no term matches across two texts).
  std::string cmatchs;

  Json toJson() const;
};

// The items as a JSON array (the bytes the reply carries); nil when they
// cannot be encoded.
OptionalBytes encodeContactItems(const std::vector<const ContactItem*>& items);

// The entries of one card: one per TEL and per EMAIL, in the card's order.
// The identifier is the card's UID, else `fallbackIdentifier`. The name is
// FN, else built from N (family name first, without a blank, when it is
// Chinese), else ORG, else the first nickname. Lists (KIND:group and the
// like) have no entries.
std::vector<ContactItem> contactItemsOfCard(const VCard& card, const std::string& fallbackIdentifier);

// A stable identifier for a card without UID: a hash of where it was read.
std::string fallbackContactIdentifier(std::string_view source, std::size_t position);

// The digits of a phone number alone ("+86 138-1234-5678" -> "8613812345678").
std::string phoneDigits(std::string_view number);

}  // namespace quorvi
