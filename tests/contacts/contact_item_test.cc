// Cards into entries: names, numbers, match texts and the reply's JSON.
#include "contacts/contact_item.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace quorvi {
namespace {

std::vector<ContactItem> itemsOf(const std::string& text, const std::string& fallback = "fallback") {
  auto cards = parseVCards(text);
  EXPECT_EQ(cards.size(), 1u);
  return cards.empty() ? std::vector<ContactItem>{} : contactItemsOfCard(cards[0], fallback);
}

bool hasMatch(const ContactItem& item, const std::string& text) {
  return std::find(item.matchs.begin(), item.matchs.end(), text) != item.matchs.end();
}

TEST(ContactEntries, OnePerNumberAndAddressInCardOrder) {
  auto items = itemsOf(
      "BEGIN:VCARD\nVERSION:3.0\nUID:urn:uuid:42\nFN:Ada Lovelace\nNICKNAME:Ada,Countess\n"
      "TEL;TYPE=CELL:+44 7700 900123\nEMAIL:ada@example.org\nTEL;TYPE=HOME:020 7946 0000\n"
      "EMAIL;TYPE=work:MAILTO:Ada.Work@Example.org\nPHOTO;VALUE=uri:https://example.org/ada.jpg\n"
      "TEL:\nEND:VCARD\n");
  ASSERT_EQ(items.size(), 4u) << "an empty TEL makes no entry";
  EXPECT_EQ(items[0].contact, "+44 7700 900123");
  EXPECT_EQ(items[0].contactType, ContactType::phone);
  EXPECT_EQ(items[1].contact, "ada@example.org");
  EXPECT_EQ(items[1].contactType, ContactType::email);
  EXPECT_EQ(items[2].contact, "020 7946 0000");
  EXPECT_EQ(items[3].contact, "Ada.Work@Example.org") << "mailto: is not part of the address";
  for (const auto& item : items) {
    EXPECT_EQ(item.identifier, "urn:uuid:42");
    EXPECT_EQ(item.name, "Ada Lovelace");
    EXPECT_EQ(item.nickname, "Ada, Countess");
    EXPECT_TRUE(item.hasAvatarData);
  }
}

TEST(ContactEntries, NamesBuiltFromNWhenThereIsNoFn) {
  auto western = itemsOf("BEGIN:VCARD\nVERSION:3.0\nN:Hopper;Grace;Brewster;Rear Admiral;PhD\nTEL:1\nEND:VCARD\n");
  ASSERT_EQ(western.size(), 1u);
  EXPECT_EQ(western[0].name, "Rear Admiral Grace Brewster Hopper PhD");

  auto chinese = itemsOf("BEGIN:VCARD\nVERSION:3.0\nN:张;伟;;;\nTEL:1\nEND:VCARD\n");
  ASSERT_EQ(chinese.size(), 1u);
  EXPECT_EQ(chinese[0].name, "张伟") << "family name first, no blank";

  auto organisation = itemsOf("BEGIN:VCARD\nVERSION:4.0\nORG:Example Corp;Support\nEMAIL:help@example.com\nEND:VCARD\n");
  ASSERT_EQ(organisation.size(), 1u);
  EXPECT_EQ(organisation[0].name, "Example Corp Support");
  EXPECT_FALSE(organisation[0].nickname) << "no NICKNAME, no nickname";
  EXPECT_FALSE(organisation[0].hasAvatarData);
}

TEST(ContactEntries, MatchTextsHoldNamePinyinNicknameContactAndDigits) {
  auto items = itemsOf("BEGIN:VCARD\nVERSION:3.0\nFN:张伟\nNICKNAME:Wei\nTEL:+86 138-1234-5678\nEND:VCARD\n");
  ASSERT_EQ(items.size(), 1u);
  const ContactItem& item = items[0];
  EXPECT_TRUE(hasMatch(item, "张伟"));
  EXPECT_TRUE(hasMatch(item, "Wei"));
  EXPECT_TRUE(hasMatch(item, "+86 138-1234-5678"));
  EXPECT_TRUE(hasMatch(item, "8613812345678"));
  EXPECT_NE(item.cmatchs.find("zhangwei"), std::string::npos);
  EXPECT_NE(item.cmatchs.find("zw"), std::string::npos);
  EXPECT_NE(item.cmatchs.find("wei"), std::string::npos) << "the nickname in lower case";
  EXPECT_NE(item.cmatchs.find("13812345678"), std::string::npos);

  auto email = itemsOf("BEGIN:VCARD\nVERSION:3.0\nFN:Bo\nEMAIL:Bo.Smith@Example.COM\nEND:VCARD\n");
  ASSERT_EQ(email.size(), 1u);
  EXPECT_NE(email[0].cmatchs.find("bo.smith@example.com"), std::string::npos);
  EXPECT_EQ(phoneDigits("Bo.Smith@Example.COM"), "");
  EXPECT_EQ(email[0].cmatchs.find("  "), std::string::npos) << "no empty match text";
}

TEST(ContactEntries, IdentifierFallsBackToAStableHashOfWhereTheCardIs) {
  auto cards = parseVCards("BEGIN:VCARD\nFN:A\nTEL:1\nEND:VCARD\nBEGIN:VCARD\nFN:B\nTEL:2\nEND:VCARD\n");
  ASSERT_EQ(cards.size(), 2u);
  std::string first = fallbackContactIdentifier("/books/x.vcf", cards[0].position);
  std::string second = fallbackContactIdentifier("/books/x.vcf", cards[1].position);
  EXPECT_NE(first, second);
  EXPECT_EQ(first, fallbackContactIdentifier("/books/x.vcf", 0)) << "the same place gives the same identifier";
  EXPECT_NE(first, fallbackContactIdentifier("/books/y.vcf", 0));
  EXPECT_EQ(first.size(), 16u);
  EXPECT_EQ(contactItemsOfCard(cards[1], second)[0].identifier, second);
}

TEST(ContactEntries, GroupCardsAreNotPeople) {
  EXPECT_TRUE(itemsOf("BEGIN:VCARD\nVERSION:4.0\nKIND:group\nFN:Team\nEMAIL:team@example.com\nEND:VCARD\n").empty());
  EXPECT_TRUE(itemsOf("BEGIN:VCARD\nVERSION:3.0\nX-EVOLUTION-LIST:TRUE\nFN:List\nEMAIL:a@b.c\nEND:VCARD\n").empty());
  EXPECT_EQ(itemsOf("BEGIN:VCARD\nVERSION:4.0\nKIND:individual\nFN:Me\nEMAIL:me@b.c\nEND:VCARD\n").size(), 1u);
}

TEST(ContactJson, ExactKeysAndOrderWithoutMatchTexts) {
  ContactItem withNickname{"id1", "Ada", std::string("Countess"), "+1 555", ContactType::phone, true,
                           {"ada", "+1 555"}, "ada +1 555"};
  ContactItem withoutNickname{"id2", "张伟", std::nullopt, "zw@example.com", ContactType::email, false, {}, ""};
  OptionalBytes json = encodeContactItems({&withNickname, &withoutNickname});
  EXPECT_EQ(json,
            "[{\"identifier\":\"id1\",\"name\":\"Ada\",\"nickname\":\"Countess\",\"contact\":\"+1 555\","
            "\"contactType\":0,\"hasAvatarData\":true},"
            "{\"identifier\":\"id2\",\"name\":\"张伟\",\"contact\":\"zw@example.com\",\"contactType\":1,"
            "\"hasAvatarData\":false}]");
  ContactItem quoted{"a\"b", "line\nbreak", std::nullopt, "x", ContactType::phone, false, {}, ""};
  EXPECT_EQ(Json::parse(*encodeContactItems({&quoted}))[0]["name"], "line\nbreak");
}

TEST(ContactJson, ContactTypeRawValues) {
  EXPECT_EQ(contactTypeFromRawValue(0), ContactType::phone);
  EXPECT_EQ(contactTypeFromRawValue(1), ContactType::email);
  EXPECT_FALSE(contactTypeFromRawValue(2)) << "any other raw value is no case";
  EXPECT_FALSE(contactTypeFromRawValue(-1));
}

}  // namespace
}  // namespace quorvi
