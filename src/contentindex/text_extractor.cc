#include "contentindex/text_extractor.h"

#include <gio/gio.h>
#include <libxml/HTMLparser.h>
#include <libxml/xmlreader.h>
#include <poppler-document.h>
#include <poppler-global.h>
#include <poppler-page.h>
#include <zip.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/safe_file.h"

namespace quorvi {

namespace {

// Cuts text at `limit` bytes without splitting a UTF-8 sequence.
void capText(std::string& text, std::size_t limit) {
  if (text.size() <= limit) return;
  std::size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  text.resize(end);
}

bool isA(const std::string& mime, const char* super) { return g_content_type_is_a(mime.c_str(), super); }

void silencePoppler() {
  static std::once_flag once;
  std::call_once(once, [] { poppler::set_debug_error_function([](const std::string&, void*) {}, nullptr); });
}

// Text of an XML part: character data in document order, with a line break
// after each paragraph-like element and a space for tabs, so that words of
// neighbouring paragraphs or cells never run together while the runs that
// split one word ("Hel" "lo") still join.
void appendXmlText(std::string_view xml, std::string& out, std::size_t limit) {
  xmlTextReaderPtr reader = xmlReaderForMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr,
                                               XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  if (!reader) return;
  static const char* kBreaks[] = {"p", "h", "si", "tc", "table-cell", "br", "line-break", "cr", "list-item"};
  while (out.size() < limit && xmlTextReaderRead(reader) == 1) {
    int type = xmlTextReaderNodeType(reader);
    if (type == XML_READER_TYPE_TEXT || type == XML_READER_TYPE_CDATA || type == XML_READER_TYPE_SIGNIFICANT_WHITESPACE) {
      if (const xmlChar* value = xmlTextReaderConstValue(reader)) out += reinterpret_cast<const char*>(value);
      continue;
    }
    const char* local = reinterpret_cast<const char*>(xmlTextReaderConstLocalName(reader));
    if (!local) continue;
    bool empty = type == XML_READER_TYPE_ELEMENT && xmlTextReaderIsEmptyElement(reader);
    if (type == XML_READER_TYPE_END_ELEMENT || empty) {
      if (std::strcmp(local, "tab") == 0 || std::strcmp(local, "s") == 0) {
        out.push_back(' ');
      } else {
        for (const char* name : kBreaks) {
          if (std::strcmp(local, name) == 0) {
            out.push_back('\n');
            break;
          }
        }
      }
    }
  }
  xmlFreeTextReader(reader);
}

struct ZipArchive {
  zip_t* archive = nullptr;
  ~ZipArchive() {
    if (archive) zip_discard(archive);
  }
};

// The named entry, unpacked, when it is at most `limit` bytes.
std::optional<std::string> readEntry(zip_t* archive, zip_int64_t index, std::size_t limit) {
  zip_stat_t info;
  zip_stat_init(&info);
  if (zip_stat_index(archive, static_cast<zip_uint64_t>(index), 0, &info) != 0) return std::nullopt;
  if (!(info.valid & ZIP_STAT_SIZE) || info.size > limit) return std::nullopt;
  zip_file_t* file = zip_fopen_index(archive, static_cast<zip_uint64_t>(index), 0);
  if (!file) return std::nullopt;
  std::string bytes(static_cast<std::size_t>(info.size), '\0');
  zip_int64_t read = zip_fread(file, bytes.data(), info.size);
  zip_fclose(file);
  // The stated size may lie; trust only what was read.
  if (read < 0) return std::nullopt;
  bytes.resize(static_cast<std::size_t>(read));
  return bytes;
}

// Entries holding the text of each kind, in reading order.
std::vector<std::string> textEntries(zip_t* archive, DocumentKind kind) {
  std::vector<std::string> names;
  if (kind == DocumentKind::openDocument) return {"content.xml"};
  zip_int64_t count = zip_get_num_entries(archive, 0);
  std::vector<std::pair<int, std::string>> slides;
  for (zip_int64_t i = 0; i < count && i < 100000; ++i) {
    const char* raw = zip_get_name(archive, static_cast<zip_uint64_t>(i), 0);
    if (!raw) continue;
    std::string name = raw;
    if (name == "word/document.xml" || name == "xl/sharedStrings.xml") {
      names.push_back(name);
    } else if (name.starts_with("ppt/slides/slide") && name.ends_with(".xml")) {
      int number = std::atoi(name.c_str() + std::strlen("ppt/slides/slide"));
      slides.emplace_back(number, name);
    } else if ((name.starts_with("word/header") || name.starts_with("word/footer") ||
                name == "word/footnotes.xml") && name.ends_with(".xml")) {
      names.push_back(name);
    }
  }
  std::sort(slides.begin(), slides.end());
  for (auto& [number, name] : slides) names.push_back(name);
  // The body first, then headers and footers.
  std::stable_sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
    return (a == "word/document.xml") > (b == "word/document.xml");
  });
  return names;
}

}  // namespace

DocumentKind documentKindOfName(std::string_view fileName) {
  std::string name(fileName);
  gboolean uncertain = FALSE;
  gchar* type = g_content_type_guess(name.c_str(), nullptr, 0, &uncertain);
  std::string mime = type ? type : "";
  g_free(type);
  if (mime.empty() || mime == "application/octet-stream") return DocumentKind::none;
  if (mime == "application/pdf") return DocumentKind::pdf;
  if (mime.starts_with("application/vnd.oasis.opendocument.text") ||
      mime.starts_with("application/vnd.oasis.opendocument.spreadsheet") ||
      mime.starts_with("application/vnd.oasis.opendocument.presentation"))
    return DocumentKind::openDocument;
  if (mime.starts_with("application/vnd.openxmlformats-officedocument.")) return DocumentKind::officeOpenXML;
  if (isA(mime, "text/html") || mime == "application/xhtml+xml") return DocumentKind::html;
  // Images written as XML (SVG) are pictures, not documents.
  if (mime.starts_with("image/")) return DocumentKind::none;
  if (isA(mime, "text/plain")) return DocumentKind::plainText;
  return DocumentKind::none;
}

const char* nameOfDocumentKind(DocumentKind kind) {
  switch (kind) {
    case DocumentKind::none: return "none";
    case DocumentKind::plainText: return "text";
    case DocumentKind::html: return "html";
    case DocumentKind::pdf: return "pdf";
    case DocumentKind::openDocument: return "opendocument";
    case DocumentKind::officeOpenXML: return "officeopenxml";
  }
  return "none";
}

std::string textOfPlainBytes(std::string_view bytes, std::size_t limit) {
  std::string text;
  if (bytes.size() >= 2 && ((bytes[0] == '\xFF' && bytes[1] == '\xFE') || (bytes[0] == '\xFE' && bytes[1] == '\xFF'))) {
    const char* from = bytes[0] == '\xFF' ? "UTF-16LE" : "UTF-16BE";
    gsize written = 0;
    gchar* converted = g_convert(bytes.data() + 2, static_cast<gssize>((bytes.size() - 2) & ~std::size_t{1}), "UTF-8",
                                 from, nullptr, &written, nullptr);
    if (converted) {
      text.assign(converted, written);
      g_free(converted);
    }
  } else {
    if (bytes.size() >= 3 && bytes.substr(0, 3) == "\xEF\xBB\xBF") bytes.remove_prefix(3);
    // Binary data misnamed as text: a NUL in the first block says so.
    if (std::memchr(bytes.data(), 0, std::min<std::size_t>(bytes.size(), 8192))) return "";
    gchar* valid = g_utf8_make_valid(bytes.data(), static_cast<gssize>(bytes.size()));
    text = valid;
    g_free(valid);
  }
  capText(text, limit);
  return text;
}

std::string textOfHtml(std::string_view bytes, std::size_t limit) {
  std::string text;
  htmlDocPtr doc = htmlReadMemory(bytes.data(), static_cast<int>(std::min<std::size_t>(bytes.size(), INT32_MAX)),
                                  nullptr, nullptr,
                                  HTML_PARSE_RECOVER | HTML_PARSE_NOERROR | HTML_PARSE_NOWARNING | HTML_PARSE_NONET);
  if (!doc) return text;
  // Depth-first walk without recursion (documents may nest deeply).
  std::vector<xmlNodePtr> stack;
  if (xmlNodePtr root = xmlDocGetRootElement(doc)) stack.push_back(root);
  while (!stack.empty() && text.size() < limit) {
    xmlNodePtr node = stack.back();
    stack.pop_back();
    if (node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE) {
      if (node->content) {
        text += reinterpret_cast<const char*>(node->content);
        text.push_back(' ');
      }
      continue;
    }
    if (node->type != XML_ELEMENT_NODE) continue;
    const char* name = reinterpret_cast<const char*>(node->name);
    if (std::strcmp(name, "script") == 0 || std::strcmp(name, "style") == 0 || std::strcmp(name, "noscript") == 0)
      continue;
    std::vector<xmlNodePtr> children;
    for (xmlNodePtr child = node->children; child; child = child->next) children.push_back(child);
    for (auto it = children.rbegin(); it != children.rend(); ++it) stack.push_back(*it);
  }
  xmlFreeDoc(doc);
  capText(text, limit);
  return text;
}

std::optional<std::string> textOfPdf(std::string_view bytes, const ExtractionLimits& limits) {
  silencePoppler();
  if (bytes.size() > static_cast<std::size_t>(INT32_MAX)) return std::nullopt;
  std::unique_ptr<poppler::document> document(
      poppler::document::load_from_raw_data(bytes.data(), static_cast<int>(bytes.size())));
  if (!document || document->is_locked()) return std::nullopt;
  std::string text;
  int pages = std::min(document->pages(), limits.pages);
  for (int i = 0; i < pages && text.size() < limits.textBytes; ++i) {
    std::unique_ptr<poppler::page> page(document->create_page(i));
    if (!page) continue;
    poppler::byte_array utf8 = page->text().to_utf8();
    text.append(utf8.begin(), utf8.end());
    text.push_back('\n');
  }
  capText(text, limits.textBytes);
  return text;
}

std::optional<std::string> textOfZippedDocument(std::string_view bytes, DocumentKind kind, const ExtractionLimits& limits) {
  zip_error_t error;
  zip_error_init(&error);
  zip_source_t* source = zip_source_buffer_create(bytes.data(), bytes.size(), 0, &error);
  if (!source) {
    zip_error_fini(&error);
    return std::nullopt;
  }
  ZipArchive zip;
  zip.archive = zip_open_from_source(source, ZIP_RDONLY, &error);
  zip_error_fini(&error);
  if (!zip.archive) {
    zip_source_free(source);
    return std::nullopt;
  }
  std::vector<std::string> entries = textEntries(zip.archive, kind);
  bool found = false;
  std::string text;
  for (const auto& name : entries) {
    zip_int64_t index = zip_name_locate(zip.archive, name.c_str(), 0);
    if (index < 0) continue;
    auto xml = readEntry(zip.archive, index, limits.unpackedBytes);
    if (!xml) continue;
    found = true;
    appendXmlText(*xml, text, limits.textBytes);
    text.push_back('\n');
    if (text.size() >= limits.textBytes) break;
  }
  if (!found) return std::nullopt;
  capText(text, limits.textBytes);
  return text;
}

std::optional<std::string> textOfBytes(std::string_view bytes, DocumentKind kind, const ExtractionLimits& limits) {
  switch (kind) {
    case DocumentKind::none: return std::nullopt;
    case DocumentKind::plainText: return textOfPlainBytes(bytes, limits.textBytes);
    case DocumentKind::html: return textOfHtml(bytes, limits.textBytes);
    case DocumentKind::pdf: return textOfPdf(bytes, limits);
    case DocumentKind::openDocument:
    case DocumentKind::officeOpenXML: return textOfZippedDocument(bytes, kind, limits);
  }
  return std::nullopt;
}

// The first `limit` bytes of a plain-text file (a long log is still found by
// its beginning).
std::optional<std::string> readPrefix(const std::string& path, std::size_t limit) {
  int fd = openRegularFile(path);
  if (fd < 0) return std::nullopt;
  std::string bytes;
  char buffer[65536];
  while (bytes.size() < limit) {
    ssize_t n = ::read(fd, buffer, std::min(sizeof buffer, limit - bytes.size()));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ::close(fd);
      return std::nullopt;
    }
    if (n == 0) break;
    bytes.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return bytes;
}

std::optional<std::string> extractText(const std::string& path, DocumentKind kind, const ExtractionLimits& limits) {
  if (kind == DocumentKind::none) return std::nullopt;
  auto bytes = kind == DocumentKind::plainText ? readPrefix(path, limits.textFileBytes)
                                               : readRegularFile(path, kind == DocumentKind::html
                                                                           ? limits.textFileBytes
                                                                           : limits.documentFileBytes);
  if (!bytes) return std::nullopt;
  return textOfBytes(*bytes, kind, limits);
}

}  // namespace quorvi
