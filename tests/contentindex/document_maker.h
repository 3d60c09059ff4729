// Documents the tests make themselves: a PDF with lines of text in a
// standard font, and zip packages (OpenDocument, Office Open XML) written
// with libzip.
#pragma once

#include <zip.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace quorvi::testing {

// A one-page PDF showing each line in Helvetica (Latin-1 text only).
inline std::string makePdf(const std::vector<std::string>& lines) {
  std::string content = "BT /F1 12 Tf 72 720 Td 14 TL\n";
  for (const auto& line : lines) {
    content += "(";
    for (char c : line) {
      if (c == '(' || c == ')' || c == '\\') content.push_back('\\');
      content.push_back(c);
    }
    content += ") Tj T*\n";
  }
  content += "ET\n";
  std::vector<std::string> objects = {
      "<< /Type /Catalog /Pages 2 0 R >>",
      "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
      "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Contents 4 0 R "
      "/Resources << /Font << /F1 5 0 R >> >> >>",
      "<< /Length " + std::to_string(content.size()) + " >>\nstream\n" + content + "endstream",
      "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica /Encoding /WinAnsiEncoding >>",
  };
  std::string pdf = "%PDF-1.4\n";
  std::vector<std::size_t> offsets;
  for (std::size_t i = 0; i < objects.size(); ++i) {
    offsets.push_back(pdf.size());
    pdf += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
  }
  std::size_t xref = pdf.size();
  pdf += "xref\n0 " + std::to_string(objects.size() + 1) + "\n0000000000 65535 f \n";
  for (std::size_t offset : offsets) {
    char entry[32];
    std::snprintf(entry, sizeof entry, "%010zu 00000 n \n", offset);
    pdf += entry;
  }
  pdf += "trailer\n<< /Size " + std::to_string(objects.size() + 1) + " /Root 1 0 R >>\nstartxref\n" +
         std::to_string(xref) + "\n%%EOF\n";
  return pdf;
}

// Writes a zip file with the entries (name, contents); false on failure.
inline bool writeZip(const std::string& path, const std::vector<std::pair<std::string, std::string>>& entries) {
  int error = 0;
  zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
  if (!archive) return false;
  for (const auto& [name, contents] : entries) {
    zip_source_t* source = zip_source_buffer(archive, contents.data(), contents.size(), 0);
    if (!source || zip_file_add(archive, name.c_str(), source, ZIP_FL_ENC_UTF_8) < 0) {
      zip_source_free(source);
      zip_discard(archive);
      return false;
    }
  }
  return zip_close(archive) == 0;
}

// An OpenDocument text whose paragraphs are the given texts.
inline bool writeOdt(const std::string& path, const std::vector<std::string>& paragraphs) {
  std::string body;
  for (const auto& p : paragraphs) body += "<text:p>" + p + "</text:p>";
  std::string content =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
      "<office:document-content xmlns:office=\"urn:oasis:names:tc:opendocument:xmlns:office:1.0\" "
      "xmlns:text=\"urn:oasis:names:tc:opendocument:xmlns:text:1.0\"><office:body><office:text>" +
      body + "</office:text></office:body></office:document-content>";
  return writeZip(path, {{"mimetype", "application/vnd.oasis.opendocument.text"}, {"content.xml", content}});
}

// A Word document; each paragraph is given as its runs (a word may be split
// over runs, as word processors do).
inline bool writeDocx(const std::string& path, const std::vector<std::vector<std::string>>& paragraphs) {
  std::string body;
  for (const auto& runs : paragraphs) {
    body += "<w:p>";
    for (const auto& run : runs) body += "<w:r><w:t xml:space=\"preserve\">" + run + "</w:t></w:r>";
    body += "</w:p>";
  }
  std::string document =
      "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>"
      "<w:document xmlns:w=\"http://schemas.openxmlformats.org/wordprocessingml/2006/main\"><w:body>" +
      body + "</w:body></w:document>";
  std::string types =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><Types "
      "xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\"/>";
  return writeZip(path, {{"[Content_Types].xml", types}, {"word/document.xml", document}});
}

}  // namespace quorvi::testing
