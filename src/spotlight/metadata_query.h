// MetadataQuery: the query strings the launcher's metadata queries are
// written in, parsed into a tree the engine evaluates.
//
//   query      := or
//   or         := and ("||" and)*          && binds tighter than ||
//   and        := primary ("&&" primary)*
//   primary    := "(" or ")" | comparison
//   comparison := ATTRIBUTE OP value
//   OP         := "==" | "!=" | "<" | "<=" | ">" | ">="
//   value      := 'text'MODIFIERS | "text"MODIFIERS | NUMBER
//               | $time.today | $time.today(N) | $time.now | $time.now(N)
//
// Text values are patterns: "*" stands for any run of characters, a
// backslash takes the next character literally ("\'" a quote, "\*" a star).
// Modifiers follow the closing quote: c (case-insensitive), d (diacritics
// ignored), w (matches at the start of any word of the value, not only at
// its start). $time.today(N) is local midnight today plus N days;
// $time.now(N) is now plus N seconds.
//
// A string that does not follow the grammar is refused with the position and
// a reason; parsing never throws and is bounded (nesting at most 64 deep).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvi {

enum class ComparisonOperator { equal, notEqual, less, lessOrEqual, greater, greaterOrEqual };

struct QueryValue {
  enum class Kind { text, number };
  Kind kind = Kind::text;
  std::string text;    // the pattern, escapes resolved; see `literalStar`
  // Positions in `text` of stars that were escaped (taken literally).
  std::vector<std::size_t> literalStars;
  double number = 0;   // numbers, and times as seconds since 1970
  bool caseInsensitive = false;
  bool diacriticInsensitive = false;
  bool wordBased = false;

  bool isWildcardAt(std::size_t position) const;
};

struct Comparison {
  std::string attribute;
  ComparisonOperator op = ComparisonOperator::equal;
  QueryValue value;
};

struct QueryNode {
  enum class Kind { comparison, conjunction, disjunction };
  Kind kind = Kind::comparison;
  Comparison comparison;            // kind == comparison
  std::vector<QueryNode> children;  // conjunction, disjunction
};

struct QueryParseError {
  std::size_t position = 0;
  std::string reason;
  std::string description() const;
};

class MetadataQuery {
 public:
  // `now` (seconds since 1970) fixes what $time.* means; tests pass one.
  static MetadataQuery parse(std::string_view text, std::optional<double> now = std::nullopt);

  bool ok() const { return !error_; }
  const std::optional<QueryParseError>& error() const { return error_; }
  const QueryNode& root() const { return root_; }

  // The query as a disjunction of conjunctions (what the engine plans over);
  // nullopt when that form would exceed `limit` conjunctions.
  std::optional<std::vector<std::vector<Comparison>>> disjunctiveForm(std::size_t limit = 256) const;

 private:
  QueryNode root_;
  std::optional<QueryParseError> error_;
};

// A word of a keyword written for a quoted pattern value: the pattern's own
// characters (quote, backslash, star) escaped so that they match themselves.
std::string escapedQueryText(std::string_view word);

}  // namespace quorvi
