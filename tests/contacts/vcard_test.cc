// The vCard reader on the forms address books are really written in.
#include "contacts/vcard.h"

#include <gtest/gtest.h>

namespace quorvi {
namespace {

const VCardProperty& only(const VCard& card, const std::string& name) {
  const VCardProperty* property = card.first(name);
  EXPECT_NE(property, nullptr) << name;
  static const VCardProperty none;
  return property ? *property : none;
}

TEST(VCardReader, Version30FoldingEscapesAndParameters) {
  auto cards = parseVCards(
      "BEGIN:VCARD\r\n"
      "VERSION:3.0\r\n"
      "FN:Ada Lovelace\\, Countess\r\n"
      "N:Lovelace;Ada;;Countess\\;of Lovelace;\r\n"
      "NOTE:a long note that is folded\r\n"
      "  over two lines\r\n"
      "item1.TEL;TYPE=\"cell,voice\";TYPE=pref:+44 20 7946 0000\r\n"
      "END:VCARD\r\n");
  ASSERT_EQ(cards.size(), 1u);
  const VCard& card = cards[0];
  EXPECT_EQ(card.version, "3.0");
  EXPECT_EQ(vcardUnescaped(only(card, "FN").value), "Ada Lovelace, Countess");
  auto n = vcardComponents(only(card, "N").value, ';');
  ASSERT_EQ(n.size(), 5u);
  EXPECT_EQ(n[0], "Lovelace");
  EXPECT_EQ(n[3], "Countess;of Lovelace") << "an escaped ';' is no separator";
  // 3.0 unfolding drops exactly one white-space character.
  EXPECT_EQ(only(card, "NOTE").value, "a long note that is folded over two lines");
  const VCardProperty& tel = only(card, "TEL");
  EXPECT_EQ(tel.group, "item1");
  EXPECT_TRUE(tel.hasParameter("TYPE", "voice")) << "quoted comma list";
  EXPECT_TRUE(tel.hasParameter("TYPE", "PREF"));
  EXPECT_FALSE(tel.hasParameter("TYPE", "home"));
}

TEST(VCardReader, Version21QuotedPrintableCharsetsAndBareParameters) {
  // "Müller" in ISO-8859-1, quoted-printable, with a soft line break; a
  // GB2312 name; 2.1's bare parameters.
  auto cards = parseVCards(
      "BEGIN:VCARD\n"
      "VERSION:2.1\n"
      "N;CHARSET=ISO-8859-1;ENCODING=QUOTED-PRINTABLE:M=FCller;J=\n"
      "=FCrgen\n"
      "FN;CHARSET=GB2312;QUOTED-PRINTABLE:=D5=C5=CE=B0\n"
      "NOTE;ENCODING=QUOTED-PRINTABLE:line one=0D=0Aline=\n"
      " two\n"
      "TEL;HOME;VOICE:555-0100\n"
      "END:VCARD\n");
  ASSERT_EQ(cards.size(), 1u);
  const VCard& card = cards[0];
  auto n = vcardComponents(only(card, "N").value, ';');
  ASSERT_GE(n.size(), 2u);
  EXPECT_EQ(n[0], "M\xC3\xBCller");
  EXPECT_EQ(n[1], "J\xC3\xBCrgen") << "the soft break joins the halves";
  EXPECT_EQ(only(card, "FN").value, "张伟");
  // The space that starts the line after a soft break is folding, not text.
  EXPECT_EQ(only(card, "NOTE").value, "line one\r\nlinetwo");
  const VCardProperty& tel = only(card, "TEL");
  EXPECT_TRUE(tel.hasParameter("TYPE", "HOME"));
  EXPECT_TRUE(tel.hasParameter("TYPE", "VOICE"));
  EXPECT_EQ(tel.value, "555-0100");
}

TEST(VCardReader, Version21FoldingKeepsTheSpaceAndBase64PhotoLines) {
  auto cards = parseVCards(
      "BEGIN:VCARD\r\n"
      "VERSION:2.1\r\n"
      "FN:Grace\r\n"
      " Hopper\r\n"
      "PHOTO;ENCODING=BASE64;TYPE=JPEG:/9j/4AAQSkZJRgABAQEASABIAAD\r\n"
      "AAQSkZJRgABAQEASABIAAD/2wBDAAMCAgICAgMCAgIDAwMDBAYEBAQEBAgGBgUG\r\n"
      "BwkICgoJCAkJCgwPDAoLDgsJCQ0RDQ4PEBAREAoMEhMSEBMPEBAQ\r\n"
      "\r\n"
      "TEL:+1 555 0100\r\n"
      "END:VCARD\r\n");
  ASSERT_EQ(cards.size(), 1u);
  EXPECT_EQ(only(cards[0], "FN").value, "Grace Hopper");
  const VCardProperty& photo = only(cards[0], "PHOTO");
  EXPECT_EQ(photo.value.substr(0, 10), "/9j/4AAQSk");
  EXPECT_NE(photo.value.find("CQ0RDQ4PEBAREAoMEhMSEBMPEBAQ"), std::string::npos) << "unindented data lines belong to it";
  EXPECT_EQ(only(cards[0], "TEL").value, "+1 555 0100") << "the blank line ends the data";
}

TEST(VCardReader, Version40ValuesAndCaseOfNames) {
  auto cards = parseVCards(
      "begin:vcard\n"
      "version:4.0\n"
      "fn:Émilie du Châtelet\n"
      "tel;value=uri;type=\"work,voice\":tel:+33-1-23-45-67-89;ext=12\n"
      "photo:data:image/png;base64,iVBORw0KGgo=\n"
      "end:vcard\n");
  ASSERT_EQ(cards.size(), 1u);
  EXPECT_EQ(cards[0].version, "4.0");
  EXPECT_EQ(only(cards[0], "FN").value, "Émilie du Châtelet");
  EXPECT_EQ(only(cards[0], "TEL").value, "tel:+33-1-23-45-67-89;ext=12");
  EXPECT_TRUE(only(cards[0], "TEL").hasParameter("VALUE", "uri"));
  EXPECT_EQ(only(cards[0], "PHOTO").value, "data:image/png;base64,iVBORw0KGgo=");
}

TEST(VCardReader, ManyCardsNestedAgentsGarbageAndATruncatedEnd) {
  auto cards = parseVCards(
      "some text before\n"
      "BEGIN:VCARD\nVERSION:2.1\nFN:First\n"
      "AGENT:\nBEGIN:VCARD\nVERSION:2.1\nFN:Agent Smith\nTEL:1\nEND:VCARD\n"
      "TEL:111\nthis line is no property\n;:;:\nEND:VCARD\n"
      "BEGIN:VCARD\nVERSION:3.0\nFN:Second\n"
      "BEGIN:VCARD\nVERSION:3.0\nFN:Cut short\nTEL:333");
  ASSERT_EQ(cards.size(), 2u) << "the nested card belongs to the first; the unfinished one is kept";
  EXPECT_EQ(only(cards[0], "FN").value, "First");
  EXPECT_EQ(only(cards[0], "TEL").value, "111") << "the agent's TEL is not the person's";
  EXPECT_EQ(cards[0].position, 0u);
  EXPECT_EQ(only(cards[1], "FN").value, "Second");
  EXPECT_EQ(cards[1].position, 1u);

  EXPECT_TRUE(parseVCards("").empty());
  EXPECT_TRUE(parseVCards("END:VCARD\nFN:x\n").empty());
}

TEST(VCardReader, Utf16FilesAndByteOrderMarks) {
  std::string utf8 = "\xEF\xBB\xBF" "BEGIN:VCARD\nVERSION:3.0\nFN:Zoë\nEND:VCARD\n";
  ASSERT_EQ(parseVCards(utf8).size(), 1u);
  EXPECT_EQ(parseVCards(utf8)[0].first("FN")->value, "Zoë");

  // The same card in UTF-16LE with its mark, as Windows address books export.
  std::string text = "BEGIN:VCARD\nVERSION:3.0\nFN:Zo\xC3\xAB\nEND:VCARD\n";
  std::string utf16 = "\xFF\xFE";
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    char16_t unit = c;
    if (c == 0xC3) unit = 0xEB, ++i;  // the one non-ASCII character, ë
    utf16.push_back(static_cast<char>(unit & 0xFF));
    utf16.push_back(static_cast<char>(unit >> 8));
  }
  auto cards = parseVCards(utf16);
  ASSERT_EQ(cards.size(), 1u);
  EXPECT_EQ(cards[0].first("FN")->value, "Zoë");
}

TEST(VCardValues, UnescapingAndComponents) {
  EXPECT_EQ(vcardUnescaped("a\\nb\\Nc\\,d\\;e\\\\f\\:g"), "a\nb\nc,d;e\\f:g");
  EXPECT_EQ(vcardUnescaped("C:\\temp\\x"), "C:\\temp\\x") << "unknown escapes stay";
  EXPECT_EQ(vcardUnescaped("ends with \\"), "ends with \\");
  auto nicknames = vcardComponents("Bob,Bobby\\, Jr.,", ',');
  ASSERT_EQ(nicknames.size(), 3u);
  EXPECT_EQ(nicknames[1], "Bobby, Jr.");
  EXPECT_EQ(nicknames[2], "");
  EXPECT_EQ(vcardComponents("", ';'), std::vector<std::string>{""});
}

}  // namespace
}  // namespace quorvi
