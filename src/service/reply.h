// Reply: the answer to one request, independent of the transport. It may be
// moved to and sent from any thread, later; it answers at most once (later
// sends are ignored). A Reply dropped without a send leaves the request
// unanswered: the client then sees its own timeout, which is what the two
// "never answer" operations want.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/json.h"

namespace quorvi {

using OptionalString = std::optional<std::string>;
// One value of a reply, in the order of the member's out signature.
// Optional values travel as (flag, value): "b ay" for bytes, "b s" for text.
struct ReplyValue {
  enum class Type { flag, integer, optionalBytes, optionalString };
  Type type = Type::flag;
  bool flag = false;
  int64_t integer = 0;
  std::optional<std::string> value;  // bytes or text; nullopt is nil
  // Bytes shared with their owner (a cache), sent without a copy; when set,
  // they are the value.
  std::shared_ptr<const std::string> shared;

  static ReplyValue ofFlag(bool f) { return {Type::flag, f, 0, std::nullopt, nullptr}; }
  static ReplyValue ofInteger(int64_t i) { return {Type::integer, false, i, std::nullopt, nullptr}; }
  static ReplyValue ofBytes(OptionalBytes b) { return {Type::optionalBytes, false, 0, std::move(b), nullptr}; }
  // Nil when b is null.
  static ReplyValue ofSharedBytes(std::shared_ptr<const Bytes> b) {
    return {Type::optionalBytes, false, 0, std::nullopt, std::move(b)};
  }
  static ReplyValue ofString(std::optional<std::string> s) {
    return {Type::optionalString, false, 0, std::move(s), nullptr};
  }
  // The bytes or text; nullptr for nil (and for flags and integers).
  const std::string* text() const { return shared ? shared.get() : value ? &*value : nullptr; }
  std::size_t size() const { return text() ? text()->size() : 0; }
};

class Reply {
 public:
  using Sink = std::function<void(std::vector<ReplyValue>)>;

  Reply() = default;  // a reply nobody waits for
  explicit Reply(Sink sink, bool expectsReply = true);

  // "b ay": JSON bytes or other data, nil when nullopt.
  void sendData(OptionalBytes data) const;
  // "b ay" from a JSON document; nil when it cannot be encoded.
  void sendJson(const Json& document) const;
  // "b"
  void sendFlag(bool flag) const;
  // "b ay b s": data with a text beside it (an echo or an error text).
  void sendDataAndString(OptionalBytes data, OptionalString text) const;
  // The same with data shared with its owner (nil when null).
  void sendSharedDataAndString(std::shared_ptr<const Bytes> data, OptionalString text) const;
  // "b s b ay"
  void sendStringAndData(OptionalString text, OptionalBytes data) const;
  // "b s b ay x"
  void sendStringDataAndInteger(OptionalString text, OptionalBytes data, int64_t number) const;
  // An empty method return (members without reply values).
  void sendEmpty() const;
  // Any values; the transport checks them against the member's signature.
  void send(std::vector<ReplyValue> values) const;

  // False when the caller said it expects no reply (sending is then a no-op).
  bool expectsReply() const { return state_ && state_->expectsReply; }
  bool wasSent() const { return state_ && state_->sent.load(); }

 private:
  struct State {
    Sink sink;
    bool expectsReply = true;
    std::atomic<bool> sent{false};
  };
  std::shared_ptr<State> state_;
};

}  // namespace quorvi
