#include "spotlight/content_types.h"

#include <gio/gio.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <map>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "platform/paths.h"
#include "platform/safe_file.h"

namespace quorvi {

namespace {

std::string takeGString(gchar* text) {
  std::string out = text ? text : "";
  g_free(text);
  return out;
}

std::string guess(std::string_view fileName, const guchar* data, gsize size) {
  std::string name(fileName);
  gboolean uncertain = FALSE;
  gchar* type = g_content_type_guess(name.c_str(), data, size, &uncertain);
  std::string contentType = takeGString(type);
  // On this system content types are MIME types; ask GIO anyway so that a
  // platform where they differ still answers MIME.
  gchar* mime = g_content_type_get_mime_type(contentType.c_str());
  std::string out = mime ? takeGString(mime) : contentType;
  return out.empty() ? "application/octet-stream" : out;
}

const std::unordered_map<std::string, std::string>& identifiers() {
  static const auto* table = new std::unordered_map<std::string, std::string>{
      {"inode/directory", kFolderTypeIdentifier},
      {"application/octet-stream", "public.data"},
      {"application/pdf", "com.adobe.pdf"},
      {"text/plain", "public.plain-text"},
      {"text/html", "public.html"},
      {"application/xhtml+xml", "public.xhtml"},
      {"text/markdown", "net.daringfireball.markdown"},
      {"text/csv", "public.comma-separated-values-text"},
      {"text/tab-separated-values", "public.tab-separated-values-text"},
      {"application/json", "public.json"},
      {"application/xml", "public.xml"},
      {"text/xml", "public.xml"},
      {"application/rtf", "public.rtf"},
      {"text/rtf", "public.rtf"},
      {"text/x-csrc", "public.c-source"},
      {"text/x-chdr", "public.c-header"},
      {"text/x-c++src", "public.c-plus-plus-source"},
      {"text/x-c++hdr", "public.c-plus-plus-header"},
      {"text/x-objcsrc", "public.objective-c-source"},
      {"text/x-python", "public.python-script"},
      {"text/x-python3", "public.python-script"},
      {"application/x-shellscript", "public.shell-script"},
      {"text/x-perl", "public.perl-script"},
      {"application/x-perl", "public.perl-script"},
      {"application/x-ruby", "public.ruby-script"},
      {"application/x-php", "public.php-script"},
      {"application/javascript", "com.netscape.javascript-source"},
      {"text/javascript", "com.netscape.javascript-source"},
      {"text/x-java", "com.sun.java-source"},
      {"text/x-swift", "public.swift-source"},
      {"text/x-assembly", "public.assembly-source"},
      {"text/vcard", "public.vcard"},
      {"text/x-vcard", "public.vcard"},
      {"text/calendar", "com.apple.ical.ics"},
      {"image/jpeg", "public.jpeg"},
      {"image/png", "public.png"},
      {"image/gif", "com.compuserve.gif"},
      {"image/tiff", "public.tiff"},
      {"image/bmp", "com.microsoft.bmp"},
      {"image/x-icon", "com.microsoft.ico"},
      {"image/vnd.microsoft.icon", "com.microsoft.ico"},
      {"image/svg+xml", "public.svg-image"},
      {"image/webp", "org.webmproject.webp"},
      {"image/heif", "public.heif"},
      {"image/heic", "public.heic"},
      {"image/x-canon-cr2", "com.canon.cr2-raw-image"},
      {"audio/mpeg", "public.mp3"},
      {"audio/x-wav", "com.microsoft.waveform-audio"},
      {"audio/wav", "com.microsoft.waveform-audio"},
      {"audio/flac", "org.xiph.flac"},
      {"audio/mp4", "public.mpeg-4-audio"},
      {"audio/x-m4a", "com.apple.m4a-audio"},
      {"audio/aac", "public.aac-audio"},
      {"audio/x-aiff", "public.aiff-audio"},
      {"video/mp4", "public.mpeg-4"},
      {"video/mpeg", "public.mpeg"},
      {"video/quicktime", "com.apple.quicktime-movie"},
      {"video/x-msvideo", "public.avi"},
      {"video/x-matroska", "org.matroska.mkv"},
      {"application/zip", "public.zip-archive"},
      {"application/gzip", "org.gnu.gnu-zip-archive"},
      {"application/x-tar", "public.tar-archive"},
      {"application/x-bzip", "public.bzip2-archive"},
      {"application/x-bzip2", "public.bzip2-archive"},
      {"application/x-7z-compressed", "org.7-zip.7-zip-archive"},
      {"application/vnd.rar", "com.rarlab.rar-archive"},
      {"application/x-apple-diskimage", "com.apple.disk-image-udif"},
      {"application/epub+zip", "org.idpf.epub-container"},
      {"application/msword", "com.microsoft.word.doc"},
      {"application/vnd.ms-excel", "com.microsoft.excel.xls"},
      {"application/vnd.ms-powerpoint", "com.microsoft.powerpoint.ppt"},
      {"application/vnd.openxmlformats-officedocument.wordprocessingml.document",
       "org.openxmlformats.wordprocessingml.document"},
      {"application/vnd.openxmlformats-officedocument.spreadsheetml.sheet", "org.openxmlformats.spreadsheetml.sheet"},
      {"application/vnd.openxmlformats-officedocument.presentationml.presentation",
       "org.openxmlformats.presentationml.presentation"},
      {"application/vnd.oasis.opendocument.text", "org.oasis-open.opendocument.text"},
      {"application/vnd.oasis.opendocument.spreadsheet", "org.oasis-open.opendocument.spreadsheet"},
      {"application/vnd.oasis.opendocument.presentation", "org.oasis-open.opendocument.presentation"},
      {"application/x-executable", "public.unix-executable"},
      {"application/x-sharedlib", "public.unix-executable"},
      {"application/x-font-ttf", "public.truetype-ttf-font"},
      {"font/ttf", "public.truetype-ttf-font"},
      {"font/otf", "public.opentype-font"},
  };
  return *table;
}

// The comments of one MIME type's database file, by xml:lang ("" for the
// untranslated one).
std::map<std::string, std::string> commentsOf(const std::string& mimeType) {
  std::map<std::string, std::string> comments;
  if (mimeType.find("..") != std::string::npos || mimeType.find('/') == std::string::npos) return comments;
  std::vector<std::string> folders = {xdgDataHome()};
  for (const auto& dir : xdgDataDirs()) folders.push_back(dir);
  for (const auto& folder : folders) {
    auto bytes = readRegularFile(folder + "/mime/" + mimeType + ".xml", 1u << 20);
    if (!bytes) continue;
    xmlDocPtr doc = xmlReadMemory(bytes->data(), static_cast<int>(bytes->size()), nullptr, nullptr,
                                  XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    if (!doc) continue;
    xmlNodePtr root = xmlDocGetRootElement(doc);
    for (xmlNodePtr node = root ? root->children : nullptr; node; node = node->next) {
      if (node->type != XML_ELEMENT_NODE || xmlStrcmp(node->name, BAD_CAST "comment") != 0) continue;
      xmlChar* lang = xmlNodeGetLang(node);
      xmlChar* text = xmlNodeGetContent(node);
      std::string key = lang ? reinterpret_cast<const char*>(lang) : "";
      if (text && !comments.count(key)) comments[key] = reinterpret_cast<const char*>(text);
      xmlFree(lang);
      xmlFree(text);
    }
    xmlFreeDoc(doc);
    if (!comments.empty()) break;
  }
  return comments;
}

std::vector<std::string> languageCodes(SupportedLanguage language) {
  switch (language) {
    case SupportedLanguage::chinese: return {"zh_CN", "zh_Hans", "zh_SG", "zh"};
    case SupportedLanguage::traditionChinese: return {"zh_TW", "zh_Hant", "zh_HK", "zh"};
    case SupportedLanguage::english: break;
  }
  return {"en", "en_US", "en_GB"};
}

}  // namespace

std::string mimeTypeOfName(std::string_view fileName) { return guess(fileName, nullptr, 0); }

std::string mimeTypeOfFile(std::string_view fileName, std::string_view sample) {
  return guess(fileName, reinterpret_cast<const guchar*>(sample.data()), sample.size());
}

std::string typeIdentifierOfMimeType(const std::string& mimeType) {
  auto found = identifiers().find(mimeType);
  return found == identifiers().end() ? mimeType : found->second;
}

std::string contentTypeIdentifier(std::string_view path, bool isDirectory) {
  if (isDirectory) return kFolderTypeIdentifier;
  std::size_t slash = path.rfind('/');
  std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
  return typeIdentifierOfMimeType(mimeTypeOfName(name));
}

std::string mimeTypeDescription(const std::string& mimeType, SupportedLanguage language) {
  static std::mutex mutex;
  static auto* cache = new std::map<std::pair<std::string, SupportedLanguage>, std::string>;
  {
    std::lock_guard<std::mutex> lock(mutex);
    auto found = cache->find({mimeType, language});
    if (found != cache->end()) return found->second;
  }
  auto comments = commentsOf(mimeType);
  std::string description;
  for (const auto& code : languageCodes(language)) {
    auto found = comments.find(code);
    if (found != comments.end()) {
      description = found->second;
      break;
    }
  }
  if (description.empty() && comments.count("")) description = comments[""];
  if (description.empty()) description = takeGString(g_content_type_get_description(mimeType.c_str()));
  if (description.empty()) description = mimeType;
  std::lock_guard<std::mutex> lock(mutex);
  if (cache->size() < 4096) (*cache)[{mimeType, language}] = description;
  return description;
}

}  // namespace quorvi
