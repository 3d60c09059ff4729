#include "apps/bundle_reader.h"

#include <glib.h>
#include <plist/plist.h>
#include <sys/stat.h>

#include <cstdlib>
#include <memory>

#include "platform/safe_file.h"

namespace quorvi {

namespace {

struct PlistDeleter {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using Plist = std::unique_ptr<void, PlistDeleter>;

constexpr std::size_t kPlistByteCap = 4u << 20;

Plist plistFromBytes(const std::string& bytes) {
  if (bytes.empty() || bytes.size() > kPlistByteCap) return nullptr;
  plist_t root = nullptr;
  plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
  return Plist(root);
}

Plist readPlist(const std::string& path) {
  auto bytes = readRegularFile(path, kPlistByteCap);
  return bytes ? plistFromBytes(*bytes) : nullptr;
}

std::optional<std::string> stringOf(plist_t node) {
  if (!node || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
  char* value = nullptr;
  plist_get_string_val(node, &value);
  if (!value) return std::nullopt;
  std::string text(value);
  std::free(value);
  return text;
}

std::optional<std::string> stringAt(plist_t dictionary, const char* key) {
  if (!dictionary || plist_get_node_type(dictionary) != PLIST_DICT) return std::nullopt;
  return stringOf(plist_dict_get_item(dictionary, key));
}

plist_t itemAt(plist_t dictionary, const char* key, plist_type type) {
  if (!dictionary || plist_get_node_type(dictionary) != PLIST_DICT) return nullptr;
  plist_t item = plist_dict_get_item(dictionary, key);
  return item && plist_get_node_type(item) == type ? item : nullptr;
}

bool isDirectory(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// Localization folders tried for the language, before the bundle's own
// development region.
std::vector<std::string> localizationFolders(SupportedLanguage language) {
  switch (language) {
    case SupportedLanguage::chinese:
      return {"zh-Hans", "zh_CN", "zh-CN", "zh_Hans", "zh-Hans-CN"};
    case SupportedLanguage::traditionChinese:
      return {"zh-Hant", "zh_TW", "zh-TW", "zh_Hant", "zh-HK", "zh_HK"};
    case SupportedLanguage::english:
      break;
  }
  return {"en", "English", "en_US", "en-US"};
}

std::string infoPlistPath(const std::string& bundlePath) {
  std::string contents = bundlePath + "/Contents/Info.plist";
  struct stat info;
  if (::stat(contents.c_str(), &info) == 0) return contents;
  return bundlePath + "/Info.plist";  // a flat bundle
}

std::string resourcesFolder(const std::string& bundlePath) {
  return isDirectory(bundlePath + "/Contents") ? bundlePath + "/Contents/Resources" : bundlePath;
}

std::optional<std::string> localizedDisplayName(const std::string& bundlePath, SupportedLanguage language,
                                                const std::string& developmentRegion) {
  std::vector<std::string> folders = localizationFolders(language);
  if (!developmentRegion.empty()) folders.push_back(developmentRegion);
  folders.push_back("Base");
  std::string resources = resourcesFolder(bundlePath);
  for (const auto& folder : folders) {
    auto strings = readStringsFile(resources + "/" + folder + ".lproj/InfoPlist.strings");
    if (auto found = strings.find("CFBundleDisplayName"); found != strings.end() && !found->second.empty()) {
      return found->second;
    }
  }
  return std::nullopt;
}

// --- the text form of .strings files ---

class StringsScanner {
 public:
  explicit StringsScanner(std::string_view text) : text_(text) {}

  std::map<std::string, std::string> parse() {
    std::map<std::string, std::string> values;
    for (;;) {
      skipSpaceAndComments();
      if (atEnd()) break;
      auto key = token();
      skipSpaceAndComments();
      if (!key || !consume('=')) break;
      skipSpaceAndComments();
      auto value = token();
      skipSpaceAndComments();
      if (!value || !consume(';')) break;
      values[*key] = *value;
    }
    return values;
  }

 private:
  bool atEnd() const { return at_ >= text_.size(); }
  bool consume(char c) {
    if (atEnd() || text_[at_] != c) return false;
    ++at_;
    return true;
  }
  void skipSpaceAndComments() {
    while (!atEnd()) {
      char c = text_[at_];
      if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
        ++at_;
      } else if (text_.substr(at_, 2) == "/*") {
        std::size_t end = text_.find("*/", at_ + 2);
        at_ = end == std::string_view::npos ? text_.size() : end + 2;
      } else if (text_.substr(at_, 2) == "//") {
        std::size_t end = text_.find('\n', at_);
        at_ = end == std::string_view::npos ? text_.size() : end + 1;
      } else {
        return;
      }
    }
  }
  // A quoted string with its escapes, or a bare word of letters, digits and "_.-".
  std::optional<std::string> token() {
    if (atEnd()) return std::nullopt;
    if (text_[at_] != '"') {
      std::size_t start = at_;
      while (!atEnd() && (g_ascii_isalnum(text_[at_]) || text_[at_] == '_' || text_[at_] == '.' || text_[at_] == '-')) {
        ++at_;
      }
      if (start == at_) return std::nullopt;
      return std::string(text_.substr(start, at_ - start));
    }
    ++at_;
    std::string out;
    while (!atEnd() && text_[at_] != '"') {
      char c = text_[at_++];
      if (c != '\\' || atEnd()) {
        out += c;
        continue;
      }
      char escaped = text_[at_++];
      switch (escaped) {
        case 'n': out += '\n'; break;
        case 't': out += '\t'; break;
        case 'r': out += '\r'; break;
        case 'U':
        case 'u': {
          std::size_t digits = 0;
          gunichar code = 0;
          while (digits < 4 && !atEnd() && g_ascii_isxdigit(text_[at_])) {
            code = code * 16 + g_ascii_xdigit_value(text_[at_++]);
            ++digits;
          }
          if (digits == 0 || !g_unichar_validate(code)) break;
          char utf8[8];
          out.append(utf8, g_unichar_to_utf8(code, utf8));
          break;
        }
        default: out += escaped;  // \" \\ and the rest stand for themselves
      }
    }
    if (!consume('"')) return std::nullopt;
    return out;
  }

  std::string_view text_;
  std::size_t at_ = 0;
};

// UTF-16 text (by its byte-order mark) as UTF-8; other bytes unchanged.
std::string asUtf8(const std::string& bytes) {
  auto convert = [&](const char* from, std::size_t skip) {
    gsize written = 0;
    gchar* converted = g_convert(bytes.data() + skip, gssize(bytes.size() - skip), "UTF-8", from, nullptr,
                                 &written, nullptr);
    if (!converted) return std::string();
    std::string text(converted, written);
    g_free(converted);
    return text;
  };
  if (bytes.size() >= 2 && uint8_t(bytes[0]) == 0xFF && uint8_t(bytes[1]) == 0xFE) return convert("UTF-16LE", 2);
  if (bytes.size() >= 2 && uint8_t(bytes[0]) == 0xFE && uint8_t(bytes[1]) == 0xFF) return convert("UTF-16BE", 2);
  if (bytes.size() >= 3 && bytes.compare(0, 3, "\xEF\xBB\xBF") == 0) return bytes.substr(3);
  return bytes;
}

}  // namespace

bool hasBundleSuffix(const std::string& name) {
  for (const char* suffix : kBundleSuffixes) {
    std::string_view s(suffix);
    if (name.size() > s.size() && name.ends_with(s)) return true;
  }
  return false;
}

std::string nameWithoutBundleSuffix(const std::string& name) {
  for (const char* suffix : kBundleSuffixes) {
    std::string_view s(suffix);
    if (name.size() > s.size() && name.ends_with(s)) return name.substr(0, name.size() - s.size());
  }
  return name;
}

std::optional<std::string> enclosingBundle(const std::string& path) {
  std::size_t start = 0;
  while (start < path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    if (hasBundleSuffix(path.substr(start, end - start))) return path.substr(0, end);
    start = end + 1;
  }
  return std::nullopt;
}

std::map<std::string, std::string> parseStringsText(std::string_view bytes) {
  return StringsScanner(bytes).parse();
}

std::map<std::string, std::string> readStringsFile(const std::string& path) {
  auto bytes = readRegularFile(path, kPlistByteCap);
  if (!bytes) return {};
  std::map<std::string, std::string> values;
  if (Plist root = plistFromBytes(*bytes); root && plist_get_node_type(root.get()) == PLIST_DICT) {
    plist_dict_iter iterator = nullptr;
    plist_dict_new_iter(root.get(), &iterator);
    for (;;) {
      char* key = nullptr;
      plist_t value = nullptr;
      plist_dict_next_item(root.get(), iterator, &key, &value);
      if (!key) break;
      if (auto text = stringOf(value)) values[key] = *text;
      std::free(key);
    }
    std::free(iterator);
    return values;
  }
  return parseStringsText(asUtf8(*bytes));
}

std::optional<BundleInfo> readBundle(const std::string& bundlePath, SupportedLanguage language) {
  if (!isDirectory(bundlePath)) return std::nullopt;
  BundleInfo bundle;
  bundle.path = bundlePath;
  Plist info = readPlist(infoPlistPath(bundlePath));
  plist_t root = info && plist_get_node_type(info.get()) == PLIST_DICT ? info.get() : nullptr;
  bundle.bundleIdentifier = stringAt(root, "CFBundleIdentifier").value_or("");
  bundle.version = stringAt(root, "CFBundleShortVersionString").value_or(stringAt(root, "CFBundleVersion").value_or(""));
  bundle.applicationCategory = stringAt(root, "LSApplicationCategoryType").value_or("");
  std::string folderName = bundlePath.substr(bundlePath.rfind('/') + 1);
  std::string name;
  if (root) {
    name = localizedDisplayName(bundlePath, language, stringAt(root, "CFBundleDevelopmentRegion").value_or(""))
               .value_or(stringAt(root, "CFBundleDisplayName").value_or(""));
  }
  if (name.empty()) name = folderName;
  bundle.displayName = nameWithoutBundleSuffix(name);
  if (plist_t types = itemAt(root, "CFBundleURLTypes", PLIST_ARRAY)) {
    std::vector<std::string> schemes;
    for (uint32_t i = 0; i < plist_array_get_size(types); ++i) {
      plist_t list = itemAt(plist_array_get_item(types, i), "CFBundleURLSchemes", PLIST_ARRAY);
      for (uint32_t j = 0; list && j < plist_array_get_size(list); ++j) {
        if (auto scheme = stringOf(plist_array_get_item(list, j))) schemes.push_back(*scheme);
      }
    }
    bundle.urlSchemes = std::move(schemes);
  }
  return bundle;
}

std::vector<std::string> extensionsOfAppexList(const std::string& listPath) {
  Plist root = readPlist(listPath);
  plist_t list = itemAt(root.get(), "AppExtensions", PLIST_ARRAY);
  std::string folder = listPath.substr(0, listPath.rfind('/'));
  std::vector<std::string> paths;
  for (uint32_t i = 0; list && i < plist_array_get_size(list); ++i) {
    plist_t item = plist_array_get_item(list, i);
    auto path = stringOf(item);
    if (!path) path = stringAt(item, "Path");
    if (!path || path->empty()) continue;
    paths.push_back(path->front() == '/' ? *path : folder + "/" + *path);
  }
  return paths;
}

}  // namespace quorvi
