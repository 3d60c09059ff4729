// SpotlightQuery: name, name-and-contents and recent-files queries in the
// system's query strings (metadata_query.h), answered by this system's own
// metadata engine over
//  - the file index's records (names, folders, kinds, dates),
//  - the content index (kMDItemTextContent),
//  - the desktop's recently-used list (kMDItemLastUsedDate).
//
// Attributes the engine knows:
//   kMDItemFSName, kMDItemDisplayName   the file name (one and the same here)
//   kMDItemPath                         the full path
//   kMDItemContentType                  "public.folder" or the identifier of
//                                       the file's type (content_types.h)
//   kMDItemLastUsedDate                 see file_times.h
//   kMDItemFSContentChangeDate          modification time
//   kMDItemFSSize                       bytes
//   kMDItemTextContent                  words of the document's text
// Any other attribute (kMDItemFinderComment among them: Linux files carry
// no comments) has no value, and a comparison with no value is false.
//
// A query's results are ordered as the metadata index orders them: most
// recently modified first, or, for a query on the last-used date, most
// recently used first; the engine stops at maxcount. Each result exists on
// disk and is admitted by the file index's filter when it is counted.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/json.h"

namespace quorvi {

class FileIndexer;
class ContentIndexer;
class RecentFiles;

// One result, as the client receives it.
struct MetadataItem {
  std::string nameOfDisplay;
  std::string path;
  std::string contentType;
  bool isDir = false;
  double lastUsedTimestamp = 0;  // seconds since 1970; 0 when never used
  Json toJson() const;
};

Json metadataItemsJson(const std::vector<MetadataItem>& items);

// Where the engine reads from. Tests give their own; null parts answer
// nothing (no records, no document text, no recent use).
struct MetadataSources {
  FileIndexer* files = nullptr;
  ContentIndexer* content = nullptr;
  RecentFiles* recent = nullptr;
  // The shared ones of the service.
  static MetadataSources shared();
};

struct MetadataQueryResult {
  std::vector<MetadataItem> items;
  std::optional<std::string> failure;  // "search scope is empty", "failed to create a query", ...
};

class MetadataQueryEngine {
 public:
  explicit MetadataQueryEngine(MetadataSources sources) : sources_(sources) {}
  // Runs a query string within the scopes (empty: everything the sources
  // hold) up to maxcount results (nullopt: no limit), then, when asked,
  // orders them most recently used first.
  MetadataQueryResult execute(const std::string& query, const std::vector<std::string>& scopes,
                              std::optional<std::size_t> maxcount, bool sortsByLastUsed) const;

 private:
  MetadataSources sources_;
};

class SpotlightQuery {
 public:
  explicit SpotlightQuery(MetadataSources sources) : engine_(sources) {}

  static constexpr const char* kRecentFilesQuery =
      "kMDItemLastUsedDate <= $time.today(30) && kMDItemContentType != \"public.folder\"";
  static constexpr std::size_t kRecentFilesLimit = 100;

  // The query string over the attributes: each word of the keyword (split at
  // spaces, empty pieces dropped) a clause ATTR == 'word*'cdw, the clauses of
  // one attribute joined by " && ", the attributes by " || ". Characters the
  // query syntax reserves (quote, backslash, star) are escaped.
  static std::string queryString(const std::string& keyword, const std::vector<std::string>& attributes);
  static std::string nameQueryString(const std::string& keyword);
  static std::string contentsQueryString(const std::string& keyword);

  // Name query: failure "search scope is empty" when scopes is empty.
  MetadataQueryResult queryByName(const std::string& keyword, const std::vector<std::string>& scopes,
                                  int64_t maxcount) const;
  // Name matches first; when fewer than maxcount, content matches follow
  // (an item found by both once), cut to maxcount.
  MetadataQueryResult queryByNameAndContents(const std::string& keyword, const std::vector<std::string>& scopes,
                                             int64_t maxcount) const;
  // Files used lately, most recently used first, at most 100; nullopt when
  // the query cannot be made.
  std::optional<std::vector<MetadataItem>> recentFiles() const;

 private:
  MetadataQueryResult run(const std::string& query, const std::vector<std::string>& scopes, int64_t maxcount) const;
  MetadataQueryEngine engine_;
};

}  // namespace quorvi
