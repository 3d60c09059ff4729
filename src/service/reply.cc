#include "service/reply.h"

namespace quorvi {

Reply::Reply(Sink sink, bool expectsReply) : state_(std::make_shared<State>()) {
  state_->sink = std::move(sink);
  state_->expectsReply = expectsReply;
}

void Reply::send(std::vector<ReplyValue> values) const {
  if (!state_ || state_->sent.exchange(true)) return;
  if (state_->expectsReply && state_->sink) state_->sink(std::move(values));
}

void Reply::sendData(OptionalBytes data) const { send({ReplyValue::ofBytes(std::move(data))}); }

void Reply::sendJson(const Json& document) const { sendData(encodeJson(document)); }

void Reply::sendFlag(bool flag) const { send({ReplyValue::ofFlag(flag)}); }

void Reply::sendDataAndString(OptionalBytes data, OptionalString text) const {
  send({ReplyValue::ofBytes(std::move(data)), ReplyValue::ofString(std::move(text))});
}

void Reply::sendSharedDataAndString(std::shared_ptr<const Bytes> data, OptionalString text) const {
  send({ReplyValue::ofSharedBytes(std::move(data)), ReplyValue::ofString(std::move(text))});
}

void Reply::sendStringAndData(OptionalString text, OptionalBytes data) const {
  send({ReplyValue::ofString(std::move(text)), ReplyValue::ofBytes(std::move(data))});
}

void Reply::sendStringDataAndInteger(OptionalString text, OptionalBytes data, int64_t number) const {
  send({ReplyValue::ofString(std::move(text)), ReplyValue::ofBytes(std::move(data)),
        ReplyValue::ofInteger(number)});
}

void Reply::sendEmpty() const { send({}); }

}  // namespace quorvi
