// Text of documents for the content index: plain-text formats (text,
// Markdown, source code, CSV, JSON, ... everything shared-mime-info files
// under text/plain), HTML with its tags dropped (libxml2's HTML parser),
// PDF (Poppler), OpenDocument and Office Open XML documents (libzip, then
// libxml2 over the XML parts that hold the text).
//
// Files are opened through safe_file.h and read only up to a cap; the text
// kept per document is capped too. Nothing here throws or aborts on a
// broken document: it yields no text.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace quorvi {

enum class DocumentKind { none, plainText, html, pdf, openDocument, officeOpenXML };

// The kind of a file by its name (GIO's MIME guess); none for the rest.
DocumentKind documentKindOfName(std::string_view fileName);
const char* nameOfDocumentKind(DocumentKind kind);

struct ExtractionLimits {
  std::size_t textFileBytes = 16u << 20;      // plain text and HTML files read whole
  std::size_t documentFileBytes = 128u << 20; // PDF and office files
  std::size_t unpackedBytes = 64u << 20;      // one XML part inside a zip
  std::size_t textBytes = 4u << 20;           // text kept per document
  int pages = 2000;                           // PDF pages read
};

// The document's text (possibly empty), or nullopt when it cannot be read.
std::optional<std::string> extractText(const std::string& path, DocumentKind kind, const ExtractionLimits& limits);

// The same from bytes already read.
std::optional<std::string> textOfBytes(std::string_view bytes, DocumentKind kind, const ExtractionLimits& limits);
std::string textOfPlainBytes(std::string_view bytes, std::size_t limit);
std::string textOfHtml(std::string_view bytes, std::size_t limit);
std::optional<std::string> textOfPdf(std::string_view bytes, const ExtractionLimits& limits);
std::optional<std::string> textOfZippedDocument(std::string_view bytes, DocumentKind kind, const ExtractionLimits& limits);

}  // namespace quorvi
