// Fuse: an approximate (bitap) string matcher. It scores how well a short
// pattern occurs in a longer text, allowing errors and preferring matches near
// an expected location: 0.0 is perfect, 1.0 no match. It searches one text, a
// list of texts, or a list of Fuseable records with weighted properties, and
// offers a chunked search of the two lists on a concurrent queue that reports
// once on the main queue.
//
// Positions (location, ranges) count characters, i.e. extended grapheme
// clusters. The synchronous searches keep no state beyond the settings and may
// run on any thread.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuse/fuse_pattern.h"
#include "fuse/fuseable.h"

namespace quorvi {

class DispatchQueue;
class CharacterString;

struct FuseMatch {
  double score = 1.0;
  std::vector<CharacterRange> ranges;
};

struct FuseStringResult {
  long index = 0;  // position of the text in the searched list
  double score = 1.0;
  std::vector<CharacterRange> ranges;
};

struct FusePropertyResult {
  std::string key;  // the property's name, i.e. the searched text
  double score = 1.0;
  std::vector<CharacterRange> ranges;
};

struct FuseItemResult {
  long index = 0;  // position of the item in the searched list
  double score = 1.0;
  std::vector<FusePropertyResult> results;
};

using FuseableRef = std::shared_ptr<const Fuseable>;

class Fuse {
 public:
  Fuse(long location, long distance, double threshold, long maxPatternLength, bool isCaseSensitive,
       bool tokenize);
  Fuse(const Fuse&) = delete;
  Fuse& operator=(const Fuse&) = delete;

  long location;           // expected character index of the match
  long distance;           // how far from location a match may lie before it scores 1.0
  double threshold;        // worst score still accepted
  long maxPatternLength;   // kept for callers; the search does not consult it
  bool isCaseSensitive;    // when false, pattern and text are lower-cased
  bool tokenize;           // the Fuseable search also scores each word of the pattern

  // The concurrent queue "fuse.search.queue" of the chunked searches, made on
  // first use.
  std::shared_ptr<DispatchQueue> searchQueue();

  // Absent for an empty pattern.
  std::optional<FusePattern> createPattern(std::string_view text) const;

  // Score and ranges of the pattern in the text; absent only without a pattern.
  std::optional<FuseMatch> search(const std::optional<FusePattern>& pattern, std::string_view text) const;
  std::optional<FuseMatch> search(std::string_view pattern, std::string_view text) const;
  // One record per text that matched (score below 1.0), in list order.
  std::vector<FuseStringResult> search(std::string_view pattern, const std::vector<std::string>& texts) const;
  // The weighted search: one record per item with a scored property, in list order.
  std::vector<FuseItemResult> search(std::string_view pattern, const std::vector<FuseableRef>& items) const;

  // Chunked searches: chunks of chunkSize elements run in parallel on
  // searchQueue(); completion runs once, on the main queue, with the records
  // ordered by index. A chunkSize below 1 counts as 1.
  void search(std::string_view pattern, std::vector<std::string> texts, long chunkSize,
              std::function<void(std::vector<FuseStringResult>)> completion);
  void search(std::string_view pattern, std::vector<FuseableRef> items, long chunkSize,
              std::function<void(std::vector<FuseItemResult>)> completion);
  // The same over a shared, immutable list, which is searched without a copy
  // (a null list counts as empty).
  void search(std::string_view pattern, std::shared_ptr<const std::vector<std::string>> texts, long chunkSize,
              std::function<void(std::vector<FuseStringResult>)> completion);
  void search(std::string_view pattern, std::shared_ptr<const std::vector<FuseableRef>> items, long chunkSize,
              std::function<void(std::vector<FuseItemResult>)> completion);

  // The score of a candidate with `errors` errors at character x.
  double score(long errors, long x, long patternLength) const;

 private:
  double scoreAtProximity(long errors, double proximity, long patternLength) const {
    const double accuracy = static_cast<double>(errors) / static_cast<double>(patternLength);
    if (distance == 0) return proximity == 0 ? accuracy : 1.0;
    return accuracy + proximity / static_cast<double>(distance);
  }
  // The bitap search of a folded text. The ranges of a text that scores 1.0 are
  // only worked out when rangesOfMisses is set.
  FuseMatch searchCharacters(const FusePattern& pattern, const CharacterString& text, bool rangesOfMisses) const;
  long reachOfPass(long errors, long len, double currentThreshold, long& binMax) const;
  long widestReach(long errors, long len, double currentThreshold) const;
  std::optional<FuseItemResult> searchItem(const FusePattern& pattern, const std::vector<FusePattern>& words,
                                           const Fuseable& item, long index) const;
  // The record of one text of a list, absent when it scores 1.0.
  std::optional<FuseStringResult> searchListed(const FusePattern& pattern, std::string_view text, long index) const;
  std::vector<FusePattern> wordPatterns(const FusePattern& pattern) const;
  std::unique_ptr<Fuse> copySettings() const;

  std::once_flag searchQueueOnce_;
  std::shared_ptr<DispatchQueue> searchQueue_;
};

}  // namespace quorvi
