// DesktopSearch: what the desktop's own search boxes (KRunner, GNOME Shell's
// overview, rofi through `quorvi rofi`) are offered: the applications, files
// and folders, Zotero items and contacts that match every one of the user's
// words, best first.
//
// It reads only what the service already holds in memory: the app index once
// it has scanned, the file index once it has records, the Zotero library the
// launcher last read (while it is cached) and the address books once a
// contact search loaded them. It never starts a scan or a read of its own, so
// a desktop query costs what a launcher query costs.
//
// Ranking: among the file index's first hits (twice as many as asked for),
// a name equal to the words comes first, then names starting with
// them, then names in which each word starts a word, then the rest (matches
// in pinyin, keywords or elsewhere in the match text). Within a rank,
// applications come before folders, folders before files, and more recently
// used before older.
//
// Searches block for as long as the file index's search takes: call them on
// a request worker, never on the bus thread. refine() and result() only read
// memory and are quick.
#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "common/json.h"

namespace quorvi {

enum class DesktopResultKind { application, folder, file, zoteroItem, contact };

struct DesktopResult {
  // Unique and self-describing: "app:" + desktop file, "file:" + path,
  // "zotero:" + item key, "contact:" + mailto:/tel: address.
  std::string identifier;
  DesktopResultKind kind = DesktopResultKind::file;
  std::string name;
  std::string description;  // the path, the library, the address
  // What opening opens: the desktop file (applications), the path (files and
  // folders) or a URI (Zotero items, contacts).
  std::string target;
  std::string iconName;
  double relevance = 0;  // 0 to 1
  bool isExactMatch = false;
  std::string matchText;  // lower case; what the words were found in
};

class DesktopSearch {
 public:
  // At most this many results of each search are kept for later questions
  // about them (metas, activation, refinement).
  static constexpr std::size_t kRememberedResults = 4096;
  // The launcher's file search refuses longer texts and more words (its
  // request bounds); a desktop query past them finds nothing.
  static constexpr std::size_t kMaxQueryBytes = 1024;
  static constexpr std::size_t kMaxWords = 32;
  // Identifiers looked at per call (previous results, metas); the rest are
  // ignored. More were never returned by one search.
  static constexpr std::size_t kMaxIdentifiers = kRememberedResults;

  static DesktopSearch& shared();

  // Everything that matches all the words (lower-cased here), best first, at
  // most `limit`. No words, or more than the bounds above, no results.
  std::vector<DesktopResult> search(const std::vector<std::string>& words, std::size_t limit);
  // The previous results (identifiers a search returned) that still match all
  // the words, in their order: a narrowing search that never consults the
  // indexes. Identifiers it does not know are dropped.
  std::vector<std::string> refine(const std::vector<std::string>& previousIdentifiers,
                                  const std::vector<std::string>& words);
  // A result returned earlier, or one rebuilt from its identifier (files and
  // folders that exist, applications of the app index); nothing otherwise.
  std::optional<DesktopResult> result(const std::string& identifier);
  // Forgets the remembered results (the host's session ended).
  void forget();

  // One item of the cached Zotero library, as desktop searches see it.
  struct ZoteroItem {
    std::string title;
    std::string key;
    std::string library;
    std::string itemType;
    std::string matchText;  // lower case: title and search keywords
  };
  // The items of the groups JSON #28 answers, read as a stream (the library
  // may be tens of megabytes; no document of it is built). Items without a
  // key or title are left out; damaged JSON gives the items before the damage.
  static std::vector<ZoteroItem> zoteroItemsOf(std::string_view groupsJSON);

  // A typed line as words: split at white space, lower-cased.
  static std::vector<std::string> wordsOf(std::string_view text);
  static std::string lowercased(std::string_view text);
  // How well a (lower-case) name matches the words: 1.0 equal to them (with
  // or without its extension), 0.75 starts with the first word, 0.5 each
  // word starts a word of the name, 0.25 otherwise. *exact tells the first case.
  static double nameRelevance(std::string_view lowerName, const std::vector<std::string>& words, bool* exact);
  // Whether every word occurs in the text.
  static bool containsAll(std::string_view text, const std::vector<std::string>& words);

 private:
  void searchApps(const std::vector<std::string>& words, std::vector<DesktopResult>& out);
  void searchFiles(const std::vector<std::string>& words, std::size_t candidates, std::vector<DesktopResult>& out);
  void searchZotero(const std::vector<std::string>& words, std::vector<DesktopResult>& out);
  void searchContacts(const std::vector<std::string>& words, std::vector<DesktopResult>& out);
  void remember(const std::vector<DesktopResult>& results);

  // The Zotero items parsed from the cached groups, kept while the same
  // bytes are cached.
  std::shared_ptr<const std::vector<ZoteroItem>> zoteroItems();

  std::mutex mutex_;  // guards the fields below
  std::unordered_map<std::string, DesktopResult> remembered_;
  std::deque<std::string> rememberedOrder_;
  std::shared_ptr<const Bytes> zoteroSource_;
  std::shared_ptr<const std::vector<ZoteroItem>> zoteroItems_;
};

}  // namespace quorvi
