#include "desktop/desktop_search.h"

#include <unicode/unistr.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <filesystem>

#include "apps/app_indexer.h"
#include "contacts/contacts_searchable_indexer.h"
#include "desktop/desktop_icons.h"
#include "fileindex/file_indexer.h"
#include "zotero/zotero_indexer.h"

namespace quorvi {

namespace {

// File hits examined per search before ranking, per result shown: the index
// answers in its own order (newest first), so the best name may not be the
// first hit; each hit costs a look at the disk (the index's stale check).
constexpr std::size_t kFileCandidatesPerResult = 2;
constexpr std::size_t kMinFileCandidates = 20, kMaxFileCandidates = 400;

constexpr double kRankBonus[] = {0.08, 0.04, 0.0, 0.0, 0.0};  // by DesktopResultKind

bool isWordStart(std::string_view text, std::size_t at) {
  if (at == 0) return true;
  unsigned char before = static_cast<unsigned char>(text[at - 1]);
  return before < 0x80 && !std::isalnum(before);
}

bool startsWordAnywhere(std::string_view text, std::string_view word) {
  for (std::size_t at = text.find(word); at != std::string_view::npos; at = text.find(word, at + 1)) {
    if (isWordStart(text, at)) return true;
  }
  return false;
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const auto& word : words) {
    if (!text.empty()) text += ' ';
    text += word;
  }
  return text;
}

std::string baseName(std::string_view path) {
  std::size_t slash = path.find_last_of('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string folderOf(std::string_view path) {
  std::size_t slash = path.find_last_of('/');
  if (slash == std::string_view::npos) return "";
  return slash == 0 ? "/" : std::string(path.substr(0, slash));
}

// 1 for now, falling towards 0 over months.
double recency(double lastUsed) {
  double days = (static_cast<double>(std::time(nullptr)) - lastUsed) / 86400.0;
  if (lastUsed <= 0 || days < 0) days = days < 0 ? 0 : 3650;
  return 1.0 / (1.0 + days / 30.0);
}

double rank(double nameScore, DesktopResultKind kind, double lastUsed) {
  // Name first, the kind second, recency last: each step is smaller than the
  // gap between name ranks (0.25).
  return std::min(1.0, nameScore * 0.85 + kRankBonus[static_cast<int>(kind)] + 0.03 * recency(lastUsed));
}

// matchText: the index's own match text of the record (the name with its
// pinyin forms), so that narrowing agrees with a fresh search; the lower-case
// name when there is none.
DesktopResult fileResult(const std::string& path, bool isFolder, const std::vector<std::string>& words,
                         double lastUsed, std::string_view matchText = {}) {
  DesktopResult result;
  result.kind = isFolder ? DesktopResultKind::folder : DesktopResultKind::file;
  result.identifier = "file:" + path;
  result.name = baseName(path);
  result.description = folderOf(path);
  result.target = path;
  std::string lowerName = DesktopSearch::lowercased(result.name);
  result.matchText = matchText.empty() ? lowerName : std::string(matchText);
  double score = DesktopSearch::nameRelevance(lowerName, words, &result.isExactMatch);
  result.relevance = rank(score, result.kind, lastUsed);
  return result;
}

DesktopResult appResult(const AppEntry& entry, const std::vector<std::string>& words) {
  DesktopResult result;
  result.kind = DesktopResultKind::application;
  result.identifier = "app:" + entry.path;
  result.name = entry.nameOfDisplay;
  result.description = entry.bundleIdentifier;
  result.target = entry.path;
  result.matchText = DesktopSearch::lowercased(entry.nameOfDisplay) + " " + entry.fmatchs;
  double score = DesktopSearch::nameRelevance(DesktopSearch::lowercased(entry.nameOfDisplay), words,
                                              &result.isExactMatch);
  result.relevance = rank(score, result.kind, entry.timestampOfLastUsed);
  return result;
}

// The words of all the terms; nothing when the terms pass the bounds.
std::vector<std::string> boundedWords(const std::vector<std::string>& terms) {
  std::vector<std::string> words;
  std::size_t bytes = 0;
  for (const auto& term : terms) {
    bytes += term.size() + 1;
    if (bytes > DesktopSearch::kMaxQueryBytes + 1) return {};
    for (auto& piece : DesktopSearch::wordsOf(term)) words.push_back(std::move(piece));
    if (words.size() > DesktopSearch::kMaxWords) return {};
  }
  return words;
}

// Reads the groups JSON, [{"library", "entries": [{entry}, ...]}, ...],
// keeping the few text fields of each entry (depth 4) and nothing else.
class ZoteroItemReader : public nlohmann::json_sax<Json> {
 public:
  std::vector<DesktopSearch::ZoteroItem> items;

  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool binary(binary_t&) override { return true; }
  bool string(string_t& value) override {
    if (depth_ != kEntryDepth) return true;
    if (key_ == "title") item_.title = value;
    else if (key_ == "key") item_.key = value;
    else if (key_ == "library") item_.library = value;
    else if (key_ == "itemType") item_.itemType = value;
    else if (key_ == "searchKeyword") keywords_ = value;
    return true;
  }
  bool key(string_t& name) override {
    if (depth_ == kEntryDepth) key_ = name;
    return true;
  }
  bool start_object(std::size_t) override {
    if (++depth_ == kEntryDepth) {
      item_ = {};
      keywords_.clear();
      key_.clear();
    }
    return true;
  }
  bool end_object() override {
    if (depth_-- == kEntryDepth && !item_.key.empty() && !item_.title.empty()) {
      item_.matchText = DesktopSearch::lowercased(item_.title + " " + keywords_);
      items.push_back(std::move(item_));
    }
    return true;
  }
  bool start_array(std::size_t) override {
    ++depth_;
    return true;
  }
  bool end_array() override {
    --depth_;
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override { return false; }

 private:
  // The top array, a group, its entries, an entry.
  static constexpr int kEntryDepth = 4;
  int depth_ = 0;
  std::string key_;
  std::string keywords_;
  DesktopSearch::ZoteroItem item_;
};

}  // namespace

std::vector<DesktopSearch::ZoteroItem> DesktopSearch::zoteroItemsOf(std::string_view groupsJSON) {
  ZoteroItemReader reader;
  Json::sax_parse(groupsJSON.begin(), groupsJSON.end(), &reader, nlohmann::detail::input_format_t::json, false);
  return std::move(reader.items);
}

DesktopSearch& DesktopSearch::shared() {
  static DesktopSearch* search = new DesktopSearch();  // never destroyed: workers may use it at exit
  return *search;
}

std::string DesktopSearch::lowercased(std::string_view text) {
  // Most names are ASCII: lowered here without ICU.
  if (std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
    std::string lower(text);
    for (char& c : lower) c = char(std::tolower(static_cast<unsigned char>(c)));
    return lower;
  }
  std::string lower;
  icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())))
      .toLower()
      .toUTF8String(lower);
  return lower;
}

std::vector<std::string> DesktopSearch::wordsOf(std::string_view text) {
  std::vector<std::string> words;
  std::string lower = lowercased(text);
  std::size_t at = 0;
  while (at < lower.size()) {
    while (at < lower.size() && std::isspace(static_cast<unsigned char>(lower[at]))) ++at;
    std::size_t end = at;
    while (end < lower.size() && !std::isspace(static_cast<unsigned char>(lower[end]))) ++end;
    if (end > at) words.push_back(lower.substr(at, end - at));
    at = end;
  }
  return words;
}

bool DesktopSearch::containsAll(std::string_view text, const std::vector<std::string>& words) {
  for (const auto& word : words) {
    if (text.find(word) == std::string_view::npos) return false;
  }
  return true;
}

double DesktopSearch::nameRelevance(std::string_view lowerName, const std::vector<std::string>& words, bool* exact) {
  if (exact) *exact = false;
  if (words.empty()) return 0;
  std::string query = joined(words);
  std::size_t dot = lowerName.find_last_of('.');
  std::string_view stem = dot == std::string_view::npos || dot == 0 ? lowerName : lowerName.substr(0, dot);
  if (lowerName == query || stem == query) {
    if (exact) *exact = true;
    return 1.0;
  }
  if (lowerName.substr(0, words[0].size()) == words[0]) return 0.75;
  bool eachStartsWord = true;
  for (const auto& word : words) eachStartsWord = eachStartsWord && startsWordAnywhere(lowerName, word);
  return eachStartsWord ? 0.5 : 0.25;
}

std::vector<DesktopResult> DesktopSearch::search(const std::vector<std::string>& givenWords, std::size_t limit) {
  std::vector<std::string> words = boundedWords(givenWords);
  std::vector<DesktopResult> results;
  if (words.empty() || limit == 0) return results;
  searchApps(words, results);
  searchFiles(words, std::clamp(limit * kFileCandidatesPerResult, kMinFileCandidates, kMaxFileCandidates), results);
  searchZotero(words, results);
  searchContacts(words, results);
  std::stable_sort(results.begin(), results.end(), [](const DesktopResult& a, const DesktopResult& b) {
    return a.relevance > b.relevance;
  });
  if (results.size() > limit) results.resize(limit);
  for (auto& result : results) {
    if (result.iconName.empty()) result.iconName = iconNameFor(result);
  }
  remember(results);
  return results;
}

void DesktopSearch::searchApps(const std::vector<std::string>& words, std::vector<DesktopResult>& out) {
  AppIndexer& apps = AppIndexer::shared();
  if (!apps.isReady()) return;
  AppListRef list = apps.appList();
  for (const auto& entry : list->entries) {
    std::string name = lowercased(entry.nameOfDisplay);
    if (containsAll(name + " " + entry.fmatchs, words)) out.push_back(appResult(entry, words));
  }
}

void DesktopSearch::searchFiles(const std::vector<std::string>& words, std::size_t candidates,
                                std::vector<DesktopResult>& out) {
  FileIndexer& files = FileIndexer::shared();
  if (files.isEmpty()) return;
  // Each word is one group of the index's query; a "|" would make
  // alternatives of it, which the desktop's words never mean.
  std::string query;
  for (const auto& word : words) {
    std::string plain = word;
    std::replace(plain.begin(), plain.end(), '|', ' ');
    query += plain + " ";
  }
  for (const File& file : files.searchFiles(query, int64_t(candidates))) {
    out.push_back(fileResult(file.fileRefURL.currentPath(), file.isDirectory, words, file.lastUsedTimestamp,
                             file.cmatchs.view()));
  }
}

std::shared_ptr<const std::vector<DesktopSearch::ZoteroItem>> DesktopSearch::zoteroItems() {
  std::shared_ptr<const Bytes> source = ZoteroIndexer::shared().cachedGroupsJSON();
  {
    std::lock_guard lock(mutex_);
    if (!source) {
      zoteroSource_.reset();
      zoteroItems_.reset();
      return nullptr;
    }
    if (source == zoteroSource_) return zoteroItems_;
  }
  // Parsed without the lock (a large library takes a while, and the bus
  // thread's narrowing must not wait for it); two searches meeting a new
  // library may both parse it.
  auto items = std::make_shared<const std::vector<ZoteroItem>>(zoteroItemsOf(*source));
  std::lock_guard lock(mutex_);
  zoteroSource_ = source;
  zoteroItems_ = items;
  return items;
}

void DesktopSearch::searchZotero(const std::vector<std::string>& words, std::vector<DesktopResult>& out) {
  auto items = zoteroItems();
  if (!items) return;
  for (const auto& item : *items) {
    if (!containsAll(item.matchText, words)) continue;
    DesktopResult result;
    result.kind = DesktopResultKind::zoteroItem;
    result.identifier = "zotero:" + item.key;
    result.name = item.title;
    result.description = item.itemType.empty() ? item.library : item.itemType + " · " + item.library;
    result.target = "zotero://select/library/items/" + item.key;
    result.matchText = item.matchText;
    result.relevance = rank(nameRelevance(lowercased(item.title), words, &result.isExactMatch), result.kind, 0);
    out.push_back(std::move(result));
  }
}

void DesktopSearch::searchContacts(const std::vector<std::string>& words, std::vector<DesktopResult>& out) {
  std::shared_ptr<const ContactsSearchableIndexer::Items> items = ContactsSearchableIndexer::shared().items();
  if (!items) return;
  for (const auto& item : *items) {
    if (!containsAll(item.cmatchs, words)) continue;
    DesktopResult result;
    result.kind = DesktopResultKind::contact;
    result.target = (item.contactType == ContactType::email ? "mailto:" : "tel:") +
                    (item.contactType == ContactType::email ? item.contact : phoneDigits(item.contact));
    result.identifier = "contact:" + result.target;
    result.name = item.name;
    result.description = item.contact;
    result.matchText = item.cmatchs;
    result.relevance = rank(nameRelevance(lowercased(item.name), words, &result.isExactMatch), result.kind, 0);
    out.push_back(std::move(result));
  }
}

void DesktopSearch::remember(const std::vector<DesktopResult>& results) {
  std::lock_guard lock(mutex_);
  for (const auto& result : results) {
    auto [it, added] = remembered_.insert_or_assign(result.identifier, result);
    if (added) rememberedOrder_.push_back(result.identifier);
  }
  while (rememberedOrder_.size() > kRememberedResults) {
    remembered_.erase(rememberedOrder_.front());
    rememberedOrder_.pop_front();
  }
}

std::vector<std::string> DesktopSearch::refine(const std::vector<std::string>& previousIdentifiers,
                                               const std::vector<std::string>& givenWords) {
  std::vector<std::string> words = boundedWords(givenWords);
  std::vector<std::string> kept;
  if (words.empty()) return kept;
  std::size_t count = std::min(previousIdentifiers.size(), kMaxIdentifiers);
  std::lock_guard lock(mutex_);
  for (std::size_t i = 0; i < count; ++i) {
    const std::string& identifier = previousIdentifiers[i];
    auto it = remembered_.find(identifier);
    if (it != remembered_.end() && containsAll(it->second.matchText, words)) kept.push_back(identifier);
  }
  return kept;
}

std::optional<DesktopResult> DesktopSearch::result(const std::string& identifier) {
  {
    std::lock_guard lock(mutex_);
    auto it = remembered_.find(identifier);
    if (it != remembered_.end()) return it->second;
  }
  constexpr std::string_view kFile = "file:", kApp = "app:";
  std::string_view id = identifier;
  if (id.substr(0, kFile.size()) == kFile && id.size() > kFile.size() && id[kFile.size()] == '/') {
    std::string path(id.substr(kFile.size()));
    std::error_code error;
    if (!std::filesystem::exists(std::filesystem::symlink_status(path, error))) return std::nullopt;
    DesktopResult result = fileResult(path, std::filesystem::is_directory(path, error), {}, 0);
    result.iconName = iconNameFor(result);
    return result;
  }
  if (id.substr(0, kApp.size()) == kApp) {
    std::string path(id.substr(kApp.size()));
    for (const auto& entry : AppIndexer::shared().appList()->entries) {
      if (entry.path == path) return appResult(entry, {});
    }
  }
  return std::nullopt;
}

void DesktopSearch::forget() {
  std::lock_guard lock(mutex_);
  remembered_.clear();
  rememberedOrder_.clear();
}

}  // namespace quorvi
