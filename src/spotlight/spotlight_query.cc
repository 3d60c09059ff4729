#include "spotlight/spotlight_query.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

#include "common/dispatch.h"
#include "contentindex/content_indexer.h"
#include "contentindex/content_store.h"
#include "fileindex/file_indexer.h"
#include "recent/recent_files.h"
#include "spotlight/content_types.h"
#include "spotlight/file_times.h"
#include "spotlight/metadata_query.h"
#include "spotlight/name_prefilter.h"
#include "spotlight/text_pattern.h"

namespace quorvi {

namespace {

enum class Attribute { name, path, contentType, lastUsed, modification, size, textContent, none };

Attribute attributeOf(const std::string& name) {
  if (name == "kMDItemFSName" || name == "kMDItemDisplayName") return Attribute::name;
  if (name == "kMDItemPath") return Attribute::path;
  if (name == "kMDItemContentType") return Attribute::contentType;
  if (name == "kMDItemLastUsedDate") return Attribute::lastUsed;
  if (name == "kMDItemFSContentChangeDate" || name == "kMDItemContentModificationDate") return Attribute::modification;
  if (name == "kMDItemFSSize") return Attribute::size;
  if (name == "kMDItemTextContent") return Attribute::textContent;
  return Attribute::none;
}

// Cheapest first: names and kinds come with the record, times need the disk.
int costOf(Attribute attribute) {
  switch (attribute) {
    case Attribute::textContent: return 0;
    case Attribute::name: return 1;
    case Attribute::path: return 2;
    case Attribute::contentType: return 3;
    case Attribute::modification: return 4;
    case Attribute::size:
    case Attribute::lastUsed: return 5;
    case Attribute::none: return 0;
  }
  return 9;
}

struct Clause {
  Comparison comparison;
  Attribute attribute;
  std::optional<TextPattern> pattern;
};

// One conjunction, ready to run.
struct Plan {
  std::vector<Clause> clauses;  // by cost
  bool impossible = false;      // a clause on an attribute nothing has
  bool usesText = false;
  bool usesLastUsed = false;
  std::string key;              // to drop a conjunction that repeats another
};

std::string keyOf(const Comparison& c, Attribute attribute) {
  return std::to_string(static_cast<int>(attribute)) + "\x1f" + std::to_string(static_cast<int>(c.op)) + "\x1f" +
         c.value.text + "\x1f" + std::to_string(c.value.number) + "\x1f" + (c.value.caseInsensitive ? "c" : "") +
         (c.value.diacriticInsensitive ? "d" : "") + (c.value.wordBased ? "w" : "");
}

Plan planOf(const std::vector<Comparison>& conjunction) {
  Plan plan;
  std::vector<std::string> keys;
  for (const auto& comparison : conjunction) {
    Clause clause{comparison, attributeOf(comparison.attribute), std::nullopt};
    if (clause.attribute == Attribute::none) plan.impossible = true;
    if (clause.attribute == Attribute::textContent) {
      // The content index answers word (prefix) matches only.
      if (comparison.op != ComparisonOperator::equal || comparison.value.kind != QueryValue::Kind::text)
        plan.impossible = true;
      plan.usesText = true;
    }
    if (clause.attribute == Attribute::lastUsed) plan.usesLastUsed = true;
    if (comparison.value.kind == QueryValue::Kind::text) clause.pattern.emplace(comparison.value);
    keys.push_back(keyOf(comparison, clause.attribute));
    plan.clauses.push_back(std::move(clause));
  }
  std::stable_sort(plan.clauses.begin(), plan.clauses.end(),
                   [](const Clause& a, const Clause& b) { return costOf(a.attribute) < costOf(b.attribute); });
  std::sort(keys.begin(), keys.end());
  for (const auto& key : keys) plan.key += key + "\x1e";
  return plan;
}

bool compareNumbers(ComparisonOperator op, double a, double b) {
  switch (op) {
    case ComparisonOperator::equal: return a == b;
    case ComparisonOperator::notEqual: return a != b;
    case ComparisonOperator::less: return a < b;
    case ComparisonOperator::lessOrEqual: return a <= b;
    case ComparisonOperator::greater: return a > b;
    case ComparisonOperator::greaterOrEqual: return a >= b;
  }
  return false;
}

bool compareTexts(const Clause& clause, const std::string& text) {
  const Comparison& c = clause.comparison;
  if (c.value.kind != QueryValue::Kind::text) return false;
  switch (c.op) {
    case ComparisonOperator::equal: return clause.pattern->matches(text);
    case ComparisonOperator::notEqual: return !clause.pattern->matches(text);
    case ComparisonOperator::less: return text < c.value.text;
    case ComparisonOperator::lessOrEqual: return text <= c.value.text;
    case ComparisonOperator::greater: return text > c.value.text;
    case ComparisonOperator::greaterOrEqual: return text >= c.value.text;
  }
  return false;
}

std::string nameOf(const std::string& path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The type identifier by name, remembered per extension.
std::string identifierOfFileName(const std::string& name) {
  static std::mutex mutex;
  static auto* cache = new std::unordered_map<std::string, std::string>;
  std::size_t dot = name.rfind('.');
  bool byExtension = dot != std::string::npos && dot > 0 && name.size() - dot <= 16;
  std::string key = byExtension ? name.substr(dot) : name;
  {
    std::lock_guard<std::mutex> lock(mutex);
    auto found = cache->find(key);
    if (found != cache->end()) return found->second;
  }
  std::string identifier = typeIdentifierOfMimeType(mimeTypeOfName(byExtension ? "x" + key : key));
  std::lock_guard<std::mutex> lock(mutex);
  if (cache->size() > 100000) cache->clear();
  cache->emplace(key, identifier);
  return identifier;
}

// An item being considered, its attributes read as the clauses ask for them.
struct Candidate {
  std::string path;
  std::string name;
  bool isDir = false;
  std::optional<double> modification;
  std::optional<FileTimes> times;
  std::optional<std::optional<double>> lastUsed;
  std::optional<std::string> contentType;
  // Folded names per (case, diacritics) flags.
  std::optional<FoldedText> folded[4];
};

class Evaluation {
 public:
  Evaluation(const MetadataSources& sources, std::vector<std::string> scopes)
      : sources_(sources), scopes_(std::move(scopes)) {
    if (sources_.files) filter_ = sources_.files->filter();
  }

  const FileTimes& times(Candidate& candidate) const {
    if (!candidate.times) candidate.times = fileTimesOf(candidate.path);
    return *candidate.times;
  }

  std::optional<double> lastUsed(Candidate& candidate) const {
    if (!candidate.lastUsed) candidate.lastUsed = lastUsedDate(candidate.path, times(candidate), sources_.recent);
    return *candidate.lastUsed;
  }

  const std::string& contentType(Candidate& candidate) const {
    if (!candidate.contentType) {
      candidate.contentType = candidate.isDir ? std::string(kFolderTypeIdentifier) : identifierOfFileName(candidate.name);
    }
    return *candidate.contentType;
  }

  bool holds(const Clause& clause, Candidate& candidate) const {
    const Comparison& c = clause.comparison;
    switch (clause.attribute) {
      case Attribute::none: return false;
      case Attribute::textContent: return true;  // the content index chose the candidate
      case Attribute::name: {
        if (c.value.kind != QueryValue::Kind::text) return false;
        int flags = (clause.pattern->caseInsensitive() ? 1 : 0) | (clause.pattern->diacriticInsensitive() ? 2 : 0);
        auto& folded = candidate.folded[flags];
        if (!folded) folded = clause.pattern->fold(candidate.name);
        bool matches = clause.pattern->matches(*folded);
        if (c.op == ComparisonOperator::equal) return matches;
        if (c.op == ComparisonOperator::notEqual) return !matches;
        return compareTexts(clause, candidate.name);
      }
      case Attribute::path: return compareTexts(clause, candidate.path);
      case Attribute::contentType: {
        // Folders and files are told apart without asking for the type.
        if (c.value.kind == QueryValue::Kind::text && c.value.text == kFolderTypeIdentifier &&
            (c.op == ComparisonOperator::equal || c.op == ComparisonOperator::notEqual)) {
          return (c.op == ComparisonOperator::equal) == candidate.isDir;
        }
        return compareTexts(clause, contentType(candidate));
      }
      case Attribute::lastUsed: {
        if (c.value.kind != QueryValue::Kind::number) return false;
        auto used = lastUsed(candidate);
        return used && compareNumbers(c.op, *used, c.value.number);
      }
      case Attribute::modification: {
        if (c.value.kind != QueryValue::Kind::number) return false;
        double modified = candidate.modification ? *candidate.modification : times(candidate).modification;
        return compareNumbers(c.op, modified, c.value.number);
      }
      case Attribute::size: {
        if (c.value.kind != QueryValue::Kind::number || !times(candidate).exists) return false;
        return compareNumbers(c.op, static_cast<double>(times(candidate).size), c.value.number);
      }
    }
    return false;
  }

  bool inScopes(const std::string& path) const {
    if (scopes_.empty()) return true;
    for (const auto& scope : scopes_) {
      if (scope == "/" || path == scope || (path.starts_with(scope) && path.size() > scope.size() && path[scope.size()] == '/'))
        return true;
    }
    return false;
  }

  // Still on disk and not ignored by the file index's filter.
  bool admitted(Candidate& candidate) const {
    if (!times(candidate).exists) return false;
    candidate.isDir = times(candidate).isDirectory;
    return !(filter_ && filter_->isIgnored(candidate.path));
  }

  bool holdsAll(const Plan& plan, Candidate& candidate) const {
    for (const auto& clause : plan.clauses) {
      if (!holds(clause, candidate)) return false;
    }
    return true;
  }

  const MetadataSources& sources() const { return sources_; }

 private:
  const MetadataSources& sources_;
  std::vector<std::string> scopes_;
  std::shared_ptr<const Filter> filter_;
};

// Candidates of a conjunction from the file index, in index order (newest
// modification first), until `limit` (SIZE_MAX: all). A conjunction that
// reads every record's inode (a last-used date) is spread over the request
// pool, in chunks whose results keep the index order.
void collectFromIndex(const Plan& plan, const Evaluation& evaluation, std::size_t limit,
                      const std::function<bool(Candidate&)>& accept) {
  FileIndexer* files = evaluation.sources().files;
  if (!files) return;
  // Names that cannot match are skipped without reading their records
  // (see NamePrefilter).
  std::vector<const TextPattern*> patterns;
  for (const auto& clause : plan.clauses) {
    if (clause.attribute == Attribute::name && clause.comparison.op == ComparisonOperator::equal && clause.pattern)
      patterns.push_back(&*clause.pattern);
  }
  NamePrefilter prefilter(patterns);
  auto consider = [&](const FileTable& table, std::size_t row, Candidate& candidate) {
    candidate.name = table.name(row);
    candidate.isDir = table.isDirectory(row);
    candidate.modification = table.lastUsedTimestamp(row);
    // Name clauses first, before the path is built.
    for (const auto& clause : plan.clauses) {
      if (clause.attribute == Attribute::name && !evaluation.holds(clause, candidate)) return false;
    }
    candidate.path = table.path(row);
    return evaluation.inScopes(candidate.path) && evaluation.holdsAll(plan, candidate) && evaluation.admitted(candidate);
  };

  FileIndexSnapshot snapshot = files->snapshot();
  if (plan.usesLastUsed) {
    std::vector<std::pair<const FileTable*, std::size_t>> records;
    prefilter.forEachCandidate(snapshot.segments(), [&](const FileTable& table, std::size_t row) {
      records.emplace_back(&table, row);
      return true;
    });
    constexpr std::size_t kChunk = 2048;
    std::vector<std::vector<Candidate>> chunks((records.size() + kChunk - 1) / kChunk);
    concurrentPerform(chunks.size(), [&](std::size_t c) {
      std::size_t end = std::min(records.size(), (c + 1) * kChunk);
      for (std::size_t i = c * kChunk; i < end; ++i) {
        Candidate candidate;
        if (consider(*records[i].first, records[i].second, candidate)) chunks[c].push_back(std::move(candidate));
      }
    });
    std::size_t accepted = 0;
    for (auto& chunk : chunks) {
      for (auto& candidate : chunk) {
        if (accepted >= limit) return;
        if (accept(candidate)) ++accepted;
      }
    }
    return;
  }
  std::size_t accepted = 0;
  prefilter.forEachCandidate(snapshot.segments(), [&](const FileTable& table, std::size_t row) {
    Candidate candidate;
    if (!consider(table, row, candidate)) return true;
    if (accept(candidate)) ++accepted;
    return accepted < limit;
  });
}

// Candidates of a conjunction that asks for document text.
bool collectFromContent(const Plan& plan, const Evaluation& evaluation, std::size_t limit,
                        const std::function<bool(Candidate&)>& accept) {
  ContentIndexer* content = evaluation.sources().content;
  if (!content) return true;
  std::vector<std::string> terms;
  for (const auto& clause : plan.clauses) {
    if (clause.attribute != Attribute::textContent) continue;
    const QueryValue& value = clause.comparison.value;
    // Literal runs between stars; each run's words are searched as words
    // (prefixes where a star follows them).
    std::string run;
    auto flush = [&](bool starFollows) {
      std::vector<std::string> words;
      std::string word;
      for (char c : run) {
        if (c == ' ' || c == '\t' || c == '\n') {
          if (!word.empty()) words.push_back(std::move(word));
          word.clear();
        } else {
          word.push_back(c);
        }
      }
      if (!word.empty()) words.push_back(std::move(word));
      for (std::size_t i = 0; i < words.size(); ++i) {
        std::string term = ftsTermOfWord(words[i], i + 1 < words.size() || starFollows);
        if (!term.empty()) terms.push_back(term);
      }
      run.clear();
    };
    for (std::size_t i = 0; i < value.text.size(); ++i) {
      if (value.isWildcardAt(i)) {
        flush(true);
      } else {
        run.push_back(value.text[i]);
      }
    }
    flush(false);
  }
  if (terms.empty()) return true;
  std::string expression;
  for (const auto& term : terms) expression += (expression.empty() ? "" : " AND ") + term;
  return content->search(expression, limit, [&](const ContentHit& hit) {
    if (!evaluation.inScopes(hit.path)) return false;
    Candidate candidate;
    candidate.path = hit.path;
    candidate.name = nameOf(hit.path);
    candidate.modification = static_cast<double>(hit.modificationTime) / 1e9;
    if (!evaluation.admitted(candidate)) return false;
    if (!evaluation.holdsAll(plan, candidate)) return false;
    return accept(candidate);
  });
}

// Files of the recently-used list the index does not hold (outside its
// scopes, or not indexed yet), for queries on the last-used date.
void collectFromRecent(const Plan& plan, const Evaluation& evaluation, const std::function<bool(Candidate&)>& accept) {
  RecentFiles* recent = evaluation.sources().recent;
  if (!recent) return;
  for (const auto& bookmark : *recent->bookmarks()) {
    if (bookmark.path.empty() || !evaluation.inScopes(bookmark.path)) continue;
    Candidate candidate;
    candidate.path = bookmark.path;
    candidate.name = nameOf(bookmark.path);
    if (!evaluation.admitted(candidate)) continue;
    if (!evaluation.holdsAll(plan, candidate)) continue;
    accept(candidate);
  }
}

std::vector<std::string> normalizedScopes(const std::vector<std::string>& scopes) {
  std::vector<std::string> out;
  for (std::string scope : scopes) {
    while (scope.size() > 1 && scope.back() == '/') scope.pop_back();
    if (!scope.empty() && scope.front() == '/') out.push_back(std::move(scope));
  }
  return out;
}

}  // namespace

Json MetadataItem::toJson() const {
  Json json = Json::object();
  json["nameOfDisplay"] = nameOfDisplay;
  json["path"] = path;
  json["contentType"] = contentType;
  json["isDir"] = isDir;
  json["lastUsedTimestamp"] = lastUsedTimestamp;
  return json;
}

Json metadataItemsJson(const std::vector<MetadataItem>& items) {
  Json array = Json::array();
  for (const auto& item : items) array.push_back(item.toJson());
  return array;
}

MetadataSources MetadataSources::shared() {
  MetadataSources sources;
  sources.files = &FileIndexer::shared();
  sources.content = &ContentIndexer::shared();
  sources.recent = &RecentFiles::shared();
  return sources;
}

MetadataQueryResult MetadataQueryEngine::execute(const std::string& query, const std::vector<std::string>& rawScopes,
                                                 std::optional<std::size_t> maxcount, bool sortsByLastUsed) const {
  MetadataQueryResult result;
  MetadataQuery parsed = MetadataQuery::parse(query);
  auto conjunctions = parsed.disjunctiveForm();
  if (!parsed.ok() || !conjunctions) {
    result.failure = "failed to create a query";
    return result;
  }
  std::size_t limit = maxcount.value_or(std::numeric_limits<std::size_t>::max());
  if (limit == 0) return result;
  std::vector<std::string> scopes = normalizedScopes(rawScopes);
  if (!rawScopes.empty() && scopes.empty()) return result;  // only relative or empty scopes: nothing is in them
  Evaluation evaluation(sources_, scopes);

  struct Found {
    Candidate candidate;
    std::optional<double> lastUsed;
  };
  std::vector<Found> found;
  std::unordered_set<std::string> seen;
  std::unordered_set<std::string> plannedKeys;
  for (const auto& conjunction : *conjunctions) {
    if (found.size() >= limit) break;
    Plan plan = planOf(conjunction);
    if (plan.impossible || !plannedKeys.insert(plan.key).second) continue;
    std::vector<Found> part;
    auto accept = [&](Candidate& candidate) {
      if (seen.count(candidate.path)) return false;
      seen.insert(candidate.path);
      std::optional<double> used = evaluation.lastUsed(candidate);
      part.push_back({std::move(candidate), used});
      return true;
    };
    // A query on the last-used date is answered most recently used first,
    // so every candidate is looked at before the cut.
    std::size_t room = limit - found.size();
    std::size_t partLimit = plan.usesLastUsed ? std::numeric_limits<std::size_t>::max() : room;
    if (plan.usesText) {
      if (!collectFromContent(plan, evaluation, partLimit, accept)) {
        result.failure = "failed to execute a query";
        return result;
      }
    } else {
      collectFromIndex(plan, evaluation, partLimit, accept);
      if (plan.usesLastUsed) collectFromRecent(plan, evaluation, accept);
    }
    if (plan.usesLastUsed) {
      std::stable_sort(part.begin(), part.end(),
                       [](const Found& a, const Found& b) { return a.lastUsed.value_or(0) > b.lastUsed.value_or(0); });
    }
    if (part.size() > room) part.resize(room);
    for (auto& item : part) found.push_back(std::move(item));
  }

  for (auto& entry : found) {
    MetadataItem item;
    item.nameOfDisplay = entry.candidate.name;
    item.path = entry.candidate.path;
    item.contentType = evaluation.contentType(entry.candidate);
    item.isDir = item.contentType == kFolderTypeIdentifier;
    item.lastUsedTimestamp = entry.lastUsed.value_or(0);
    if (item.nameOfDisplay.empty() || item.path.empty() || item.contentType.empty()) continue;
    result.items.push_back(std::move(item));
  }
  if (sortsByLastUsed) {
    std::stable_sort(result.items.begin(), result.items.end(), [](const MetadataItem& a, const MetadataItem& b) {
      return a.lastUsedTimestamp > b.lastUsedTimestamp;
    });
  }
  return result;
}

std::string SpotlightQuery::queryString(const std::string& keyword, const std::vector<std::string>& attributes) {
  std::vector<std::string> words;
  std::size_t at = 0;
  while (at <= keyword.size()) {
    std::size_t space = keyword.find(' ', at);
    if (space == std::string::npos) space = keyword.size();
    if (space > at) words.push_back(keyword.substr(at, space - at));
    at = space + 1;
  }
  std::string query;
  for (std::size_t a = 0; a < attributes.size(); ++a) {
    if (a > 0) query += " || ";
    for (std::size_t w = 0; w < words.size(); ++w) {
      if (w > 0) query += " && ";
      query += attributes[a] + " == '" + escapedQueryText(words[w]) + "*'cdw";
    }
  }
  return query;
}

std::string SpotlightQuery::nameQueryString(const std::string& keyword) {
  return queryString(keyword, {"kMDItemFSName", "kMDItemDisplayName"});
}

std::string SpotlightQuery::contentsQueryString(const std::string& keyword) {
  return queryString(keyword, {"kMDItemTextContent", "kMDItemFinderComment"});
}

MetadataQueryResult SpotlightQuery::run(const std::string& query, const std::vector<std::string>& scopes,
                                        int64_t maxcount) const {
  if (scopes.empty()) return {{}, std::string("search scope is empty")};
  if (maxcount <= 0) return {};
  return engine_.execute(query, scopes, static_cast<std::size_t>(maxcount), true);
}

MetadataQueryResult SpotlightQuery::queryByName(const std::string& keyword, const std::vector<std::string>& scopes,
                                                int64_t maxcount) const {
  return run(nameQueryString(keyword), scopes, maxcount);
}

MetadataQueryResult SpotlightQuery::queryByNameAndContents(const std::string& keyword,
                                                           const std::vector<std::string>& scopes,
                                                           int64_t maxcount) const {
  MetadataQueryResult names = run(nameQueryString(keyword), scopes, maxcount);
  if (names.failure || maxcount <= 0 || names.items.size() >= static_cast<std::size_t>(maxcount)) return names;
  MetadataQueryResult contents = run(contentsQueryString(keyword), scopes, maxcount);
  if (contents.failure) return names;
  std::unordered_set<std::string> seen;
  for (const auto& item : names.items) seen.insert(item.path);
  for (auto& item : contents.items) {
    if (names.items.size() >= static_cast<std::size_t>(maxcount)) break;
    if (seen.insert(item.path).second) names.items.push_back(std::move(item));
  }
  return names;
}

std::optional<std::vector<MetadataItem>> SpotlightQuery::recentFiles() const {
  MetadataQueryResult result = engine_.execute(kRecentFilesQuery, {}, kRecentFilesLimit, true);
  if (result.failure) return std::nullopt;
  return std::move(result.items);
}

}  // namespace quorvi
