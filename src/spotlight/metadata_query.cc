#include "spotlight/metadata_query.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <ctime>

namespace quorvi {

namespace {

constexpr int kMaxDepth = 64;

double secondsNow() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

// Local midnight of the day holding `now`, plus `days` days (calendar days,
// so a change of daylight saving time keeps midnight).
double localMidnight(double now, long days) {
  std::time_t t = static_cast<std::time_t>(now);
  std::tm local{};
  localtime_r(&t, &local);
  local.tm_hour = 0;
  local.tm_min = 0;
  local.tm_sec = 0;
  local.tm_mday += static_cast<int>(std::clamp(days, -1000000L, 1000000L));
  local.tm_isdst = -1;
  return static_cast<double>(std::mktime(&local));
}

class Parser {
 public:
  Parser(std::string_view text, double now) : text_(text), now_(now) {}

  std::optional<QueryNode> parseAll() {
    auto node = parseOr(0);
    if (!node) return std::nullopt;
    skipSpace();
    if (at_ != text_.size()) return fail("unexpected text after the query");
    return node;
  }

  QueryParseError error() const { return error_; }

 private:
  std::nullopt_t fail(std::string reason) {
    if (error_.reason.empty()) error_ = {at_, std::move(reason)};
    return std::nullopt;
  }

  void skipSpace() {
    while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\t' || text_[at_] == '\n' || text_[at_] == '\r'))
      ++at_;
  }

  bool take(std::string_view token) {
    skipSpace();
    if (text_.substr(at_, token.size()) != token) return false;
    at_ += token.size();
    return true;
  }

  std::optional<QueryNode> parseOr(int depth) {
    auto first = parseAnd(depth);
    if (!first) return std::nullopt;
    QueryNode node{QueryNode::Kind::disjunction, {}, {}};
    node.children.push_back(std::move(*first));
    while (take("||")) {
      auto next = parseAnd(depth);
      if (!next) return std::nullopt;
      node.children.push_back(std::move(*next));
    }
    if (node.children.size() == 1) return std::move(node.children.front());
    return node;
  }

  std::optional<QueryNode> parseAnd(int depth) {
    auto first = parsePrimary(depth);
    if (!first) return std::nullopt;
    QueryNode node{QueryNode::Kind::conjunction, {}, {}};
    node.children.push_back(std::move(*first));
    while (take("&&")) {
      auto next = parsePrimary(depth);
      if (!next) return std::nullopt;
      node.children.push_back(std::move(*next));
    }
    if (node.children.size() == 1) return std::move(node.children.front());
    return node;
  }

  std::optional<QueryNode> parsePrimary(int depth) {
    if (depth >= kMaxDepth) return fail("parentheses nested too deep");
    if (take("(")) {
      auto inner = parseOr(depth + 1);
      if (!inner) return std::nullopt;
      if (!take(")")) return fail("expected \")\"");
      return inner;
    }
    QueryNode node;
    node.kind = QueryNode::Kind::comparison;
    if (!parseAttribute(node.comparison.attribute)) return std::nullopt;
    if (!parseOperator(node.comparison.op)) return std::nullopt;
    if (!parseValue(node.comparison.value)) return std::nullopt;
    return node;
  }

  bool parseAttribute(std::string& attribute) {
    skipSpace();
    std::size_t start = at_;
    while (at_ < text_.size() && (std::isalnum(static_cast<unsigned char>(text_[at_])) || text_[at_] == '_' ||
                                  text_[at_] == '.' || text_[at_] == ':'))
      ++at_;
    if (at_ == start) return fail("expected an attribute name"), false;
    attribute.assign(text_.substr(start, at_ - start));
    return true;
  }

  bool parseOperator(ComparisonOperator& op) {
    if (take("==")) op = ComparisonOperator::equal;
    else if (take("!=")) op = ComparisonOperator::notEqual;
    else if (take("<=")) op = ComparisonOperator::lessOrEqual;
    else if (take(">=")) op = ComparisonOperator::greaterOrEqual;
    else if (take("<")) op = ComparisonOperator::less;
    else if (take(">")) op = ComparisonOperator::greater;
    else if (take("=")) op = ComparisonOperator::equal;
    else return fail("expected a comparison operator"), false;
    return true;
  }

  bool parseValue(QueryValue& value) {
    skipSpace();
    if (at_ >= text_.size()) return fail("expected a value"), false;
    char c = text_[at_];
    if (c == '\'' || c == '"') return parseText(value, c);
    if (c == '$') return parseTime(value);
    return parseNumber(value);
  }

  bool parseText(QueryValue& value, char quote) {
    ++at_;
    value.kind = QueryValue::Kind::text;
    for (;;) {
      if (at_ >= text_.size()) return fail("text without its closing quote"), false;
      char c = text_[at_++];
      if (c == quote) break;
      if (c == '\\') {
        if (at_ >= text_.size()) return fail("text without its closing quote"), false;
        char escaped = text_[at_++];
        if (escaped == '*') value.literalStars.push_back(value.text.size());
        value.text.push_back(escaped);
        continue;
      }
      value.text.push_back(c);
    }
    while (at_ < text_.size() && std::isalpha(static_cast<unsigned char>(text_[at_]))) {
      switch (text_[at_]) {
        case 'c': value.caseInsensitive = true; break;
        case 'd': value.diacriticInsensitive = true; break;
        case 'w': value.wordBased = true; break;
        default: return fail(std::string("unknown modifier \"") + text_[at_] + "\""), false;
      }
      ++at_;
    }
    return true;
  }

  bool parseTime(QueryValue& value) {
    value.kind = QueryValue::Kind::number;
    bool today;
    if (text_.substr(at_, 11) == "$time.today") {
      at_ += 11;
      today = true;
    } else if (text_.substr(at_, 9) == "$time.now") {
      at_ += 9;
      today = false;
    } else {
      return fail("unknown variable"), false;
    }
    long offset = 0;
    if (at_ < text_.size() && text_[at_] == '(') {
      ++at_;
      skipSpace();
      double number = 0;
      if (!readNumber(number)) return false;
      if (number < -1e9 || number > 1e9) return fail("time offset out of range"), false;
      offset = static_cast<long>(number);
      if (!take(")")) return fail("expected \")\""), false;
    }
    value.number = today ? localMidnight(now_, offset) : now_ + static_cast<double>(offset);
    return true;
  }

  bool readNumber(double& number) {
    std::size_t start = at_;
    if (at_ < text_.size() && (text_[at_] == '-' || text_[at_] == '+')) ++at_;
    while (at_ < text_.size() && (std::isdigit(static_cast<unsigned char>(text_[at_])) || text_[at_] == '.')) ++at_;
    std::string_view digits = text_.substr(start, at_ - start);
    if (!digits.empty() && digits.front() == '+') digits.remove_prefix(1);
    auto [end, code] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (digits.empty() || code != std::errc() || end != digits.data() + digits.size()) {
      at_ = start;
      return fail("expected a number"), false;
    }
    return true;
  }

  bool parseNumber(QueryValue& value) {
    value.kind = QueryValue::Kind::number;
    return readNumber(value.number);
  }

  std::string_view text_;
  double now_;
  std::size_t at_ = 0;
  QueryParseError error_;
};

// Conjunction lists of a node; false when more than `limit` would be needed.
bool collect(const QueryNode& node, std::size_t limit, std::vector<std::vector<Comparison>>& out) {
  switch (node.kind) {
    case QueryNode::Kind::comparison:
      out = {{node.comparison}};
      return true;
    case QueryNode::Kind::disjunction: {
      out.clear();
      for (const auto& child : node.children) {
        std::vector<std::vector<Comparison>> part;
        if (!collect(child, limit, part)) return false;
        if (out.size() + part.size() > limit) return false;
        for (auto& conjunction : part) out.push_back(std::move(conjunction));
      }
      return true;
    }
    case QueryNode::Kind::conjunction: {
      out = {{}};
      for (const auto& child : node.children) {
        std::vector<std::vector<Comparison>> part;
        if (!collect(child, limit, part)) return false;
        if (out.size() * part.size() > limit) return false;
        std::vector<std::vector<Comparison>> product;
        for (const auto& left : out) {
          for (const auto& right : part) {
            auto joined = left;
            joined.insert(joined.end(), right.begin(), right.end());
            product.push_back(std::move(joined));
          }
        }
        out = std::move(product);
      }
      return true;
    }
  }
  return false;
}

}  // namespace

bool QueryValue::isWildcardAt(std::size_t position) const {
  return position < text.size() && text[position] == '*' &&
         std::find(literalStars.begin(), literalStars.end(), position) == literalStars.end();
}

std::string QueryParseError::description() const {
  return "query parse error at " + std::to_string(position) + ": " + reason;
}

MetadataQuery MetadataQuery::parse(std::string_view text, std::optional<double> now) {
  MetadataQuery query;
  Parser parser(text, now.value_or(secondsNow()));
  auto root = parser.parseAll();
  if (root) {
    query.root_ = std::move(*root);
  } else {
    query.error_ = parser.error();
  }
  return query;
}

std::optional<std::vector<std::vector<Comparison>>> MetadataQuery::disjunctiveForm(std::size_t limit) const {
  if (error_) return std::nullopt;
  std::vector<std::vector<Comparison>> out;
  if (!collect(root_, limit, out)) return std::nullopt;
  return out;
}

std::string escapedQueryText(std::string_view word) {
  std::string out;
  for (char c : word) {
    if (c == '\\' || c == '\'' || c == '"' || c == '*') out.push_back('\\');
    out.push_back(c);
  }
  return out;
}

}  // namespace quorvi
