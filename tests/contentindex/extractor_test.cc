// Text extraction from the document formats the content index reads, on
// documents the tests make.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "contentindex/document_maker.h"
#include "contentindex/text_extractor.h"
#include "support/test_bus.h"

namespace quorvi::testing {
namespace {

bool holds(const std::optional<std::string>& text, const std::string& part) {
  return text && text->find(part) != std::string::npos;
}

TEST(TextExtractorTest, KindsByName) {
  for (const char* name : {"notes.txt", "README.md", "main.cpp", "data.csv", "a.json", "script.py", "Makefile", "x.log"})
    EXPECT_EQ(documentKindOfName(name), DocumentKind::plainText) << name;
  EXPECT_EQ(documentKindOfName("page.html"), DocumentKind::html);
  EXPECT_EQ(documentKindOfName("page.HTM"), DocumentKind::html);
  EXPECT_EQ(documentKindOfName("paper.pdf"), DocumentKind::pdf);
  EXPECT_EQ(documentKindOfName("letter.odt"), DocumentKind::openDocument);
  EXPECT_EQ(documentKindOfName("sheet.ods"), DocumentKind::openDocument);
  EXPECT_EQ(documentKindOfName("letter.docx"), DocumentKind::officeOpenXML);
  EXPECT_EQ(documentKindOfName("sheet.xlsx"), DocumentKind::officeOpenXML);
  EXPECT_EQ(documentKindOfName("slides.pptx"), DocumentKind::officeOpenXML);
  for (const char* name : {"photo.jpg", "icon.svg", "song.mp3", "archive.zip", "binary", "a.o"})
    EXPECT_EQ(documentKindOfName(name), DocumentKind::none) << name;
}

TEST(TextExtractorTest, PlainTextInItsEncodings) {
  EXPECT_EQ(textOfPlainBytes("\xEF\xBB\xBFhello", 100), "hello");
  EXPECT_EQ(textOfPlainBytes(std::string("\xFF\xFEh\0i\0", 6), 100), "hi");
  EXPECT_EQ(textOfPlainBytes(std::string("\xFE\xFF\0h\0i", 6), 100), "hi");
  EXPECT_EQ(textOfPlainBytes("caf\xE9 ok", 100), "caf\xEF\xBF\xBD ok");  // invalid bytes become U+FFFD
  EXPECT_EQ(textOfPlainBytes(std::string("ELF\0\0binary", 11), 100), "");
  // Cut at the cap without splitting a character.
  EXPECT_EQ(textOfPlainBytes("日本語", 4), "日");
  EXPECT_EQ(textOfPlainBytes("日本語", 6), "日本");
}

TEST(TextExtractorTest, HtmlKeepsTextDropsMarkupScriptsAndStyles) {
  std::string text = textOfHtml(
      "<html><head><title>Budget plan</title><style>p{color:red}</style></head><body>"
      "<p>First&nbsp;para</p><p>caf&eacute; <b>bold</b>word</p><script>var secret = 1;</script>"
      "<div><unclosed>tail</body>",
      1000);
  for (const char* part : {"Budget plan", "First", "para", "café", "bold", "tail"})
    EXPECT_NE(text.find(part), std::string::npos) << part << " in " << text;
  for (const char* part : {"color", "secret", "<p>", "&eacute;"})
    EXPECT_EQ(text.find(part), std::string::npos) << part << " in " << text;
  // Neighbouring paragraphs do not run together.
  EXPECT_EQ(text.find("parcafé"), std::string::npos);
}

TEST(TextExtractorTest, PdfMadeByTheTest) {
  ExtractionLimits limits;
  auto text = textOfPdf(makePdf({"Quarterly revenue grew (a lot)", "Zephyr project notes"}), limits);
  EXPECT_TRUE(holds(text, "Quarterly revenue grew (a lot)")) << text.value_or("<none>");
  EXPECT_TRUE(holds(text, "Zephyr project notes"));
  // Broken and truncated PDFs give nothing, never a crash.
  std::string pdf = makePdf({"abc"});
  EXPECT_FALSE(textOfPdf("not a pdf", limits));
  EXPECT_FALSE(holds(textOfPdf(pdf.substr(0, pdf.size() / 3), limits), "abc"));
  EXPECT_FALSE(textOfPdf(std::string(5000, '\0'), limits));
}

TEST(TextExtractorTest, OpenDocumentAndWordDocuments) {
  TemporaryDirectory dir;
  ExtractionLimits limits;
  std::string odt = dir.path() + "/letter.odt";
  ASSERT_TRUE(writeOdt(odt, {"Dear committee", "the harvest festival &amp; parade", "年度报告"}));
  auto text = extractText(odt, DocumentKind::openDocument, limits);
  EXPECT_TRUE(holds(text, "Dear committee\n")) << text.value_or("<none>");
  EXPECT_TRUE(holds(text, "harvest festival & parade"));
  EXPECT_TRUE(holds(text, "年度报告"));

  std::string docx = dir.path() + "/memo.docx";
  ASSERT_TRUE(writeDocx(docx, {{"Hel", "lo ", "world"}, {"second paragraph"}}));
  text = extractText(docx, DocumentKind::officeOpenXML, limits);
  EXPECT_TRUE(holds(text, "Hello world\nsecond paragraph")) << text.value_or("<none>");

  // A zip without the text part, or no zip at all: nothing.
  std::string empty = dir.path() + "/empty.docx";
  ASSERT_TRUE(writeZip(empty, {{"other.xml", "<a/>"}}));
  EXPECT_FALSE(extractText(empty, DocumentKind::officeOpenXML, limits));
  EXPECT_FALSE(extractText(dir.write("fake.odt", "PK not really"), DocumentKind::openDocument, limits));
}

TEST(TextExtractorTest, CapsBoundWhatIsReadAndKept) {
  TemporaryDirectory dir;
  ExtractionLimits limits;
  limits.unpackedBytes = 1000;
  std::string big = dir.path() + "/big.odt";
  ASSERT_TRUE(writeOdt(big, {std::string(5000, 'a')}));
  EXPECT_FALSE(extractText(big, DocumentKind::openDocument, limits));  // its XML part is over the cap

  limits = ExtractionLimits{};
  limits.textFileBytes = 10;
  auto text = extractText(dir.write("long.txt", "0123456789abcdef"), DocumentKind::plainText, limits);
  EXPECT_EQ(text, "0123456789");  // a long text file is read up to the cap
  limits.documentFileBytes = 100;
  EXPECT_FALSE(extractText(dir.write("big.pdf", makePdf({std::string(200, 'x')})), DocumentKind::pdf, limits));

  limits = ExtractionLimits{};
  limits.textBytes = 8;
  text = extractText(dir.write("cut.txt", "one two three"), DocumentKind::plainText, limits);
  EXPECT_EQ(text, "one two ");
}

TEST(TextExtractorTest, WhatIsNotARegularFileIsNotRead) {
  TemporaryDirectory dir;
  std::string fifo = dir.path() + "/pipe.txt";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_FALSE(extractText(fifo, DocumentKind::plainText, {}));  // returns at once: no writer is waited for
  EXPECT_FALSE(extractText(dir.path(), DocumentKind::plainText, {}));
  EXPECT_FALSE(extractText(dir.path() + "/missing.txt", DocumentKind::plainText, {}));
}

}  // namespace
}  // namespace quorvi::testing
