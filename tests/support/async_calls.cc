#include "support/async_calls.h"

#include <algorithm>

namespace quorvi::testing {

AsyncCalls::AsyncCalls(BusClient& client) : client_(client) {
  sd_bus_add_filter(client_.bus(), &filter_, &AsyncCalls::onIncoming, this);
}

AsyncCalls::~AsyncCalls() {
  for (auto& call : calls_) sd_bus_slot_unref(call->slot);
  sd_bus_slot_unref(filter_);
}

int AsyncCalls::onIncoming(sd_bus_message* message, void* userdata, sd_bus_error*) {
  auto& self = *static_cast<AsyncCalls*>(userdata);
  uint8_t type = 0;
  sd_bus_message_get_type(message, &type);
  if (type != SD_BUS_MESSAGE_METHOD_RETURN && type != SD_BUS_MESSAGE_METHOD_ERROR) return 0;
  uint64_t cookie = 0;
  if (sd_bus_message_get_reply_cookie(message, &cookie) < 0) return 0;
  auto it = self.repliesByCookie_.find(cookie);
  if (it != self.repliesByCookie_.end()) it->second++;
  return 0;  // let sd-bus go on with it
}

int AsyncCalls::onReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
  auto& call = *static_cast<Call*>(userdata);
  auto& self = *call.owner;
  Outcome& outcome = call.outcome;
  outcome.answered = true;
  outcome.answeredAt = std::chrono::steady_clock::now();
  outcome.order = self.answeredCount_++;
  if (sd_bus_message_is_method_error(reply, nullptr)) {
    const sd_bus_error* error = sd_bus_message_get_error(reply);
    outcome.errorName = error && error->name ? error->name : "error";
    return 0;
  }
  const MemberInfo* info = findMember(outcome.member);
  outcome.ok = readReplyValues(reply, info->outSignature, outcome.values) >= 0;
  return 0;
}

int AsyncCalls::send(const std::string& member, const std::vector<std::string>& words,
                     std::chrono::microseconds timeout) {
  auto call = std::make_unique<Call>();
  call->owner = this;
  call->outcome.member = member;
  call->outcome.sentAt = std::chrono::steady_clock::now();
  const MemberInfo* info = findMember(member);
  CallArguments arguments;
  sd_bus_message* message = nullptr;
  if (info && argumentsFromWords(info->inSignature, words, arguments, nullptr) &&
      sd_bus_message_new_method_call(client_.bus(), &message, kBusName, kObjectPath, kInterfaceName,
                                     std::string(info->member).c_str()) >= 0 &&
      appendCallArguments(message, info->inSignature, arguments) >= 0 &&
      sd_bus_call_async(client_.bus(), &call->slot, message, &AsyncCalls::onReply, call.get(),
                        uint64_t(timeout.count())) >= 0) {
    call->outcome.sent = true;
    sd_bus_message_get_cookie(message, &call->cookie);
    repliesByCookie_[call->cookie] = 0;
  } else {
    call->outcome.answered = true;  // nothing will come; do not wait for it
    call->outcome.errorName = "not sent";
    answeredCount_++;
  }
  sd_bus_message_unref(message);
  calls_.push_back(std::move(call));
  return static_cast<int>(calls_.size()) - 1;
}

bool AsyncCalls::processUntil(std::chrono::milliseconds timeout, const std::function<bool()>& done) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  sd_bus* bus = client_.bus();
  while (!done()) {
    int r = sd_bus_process(bus, nullptr);
    if (r < 0) return false;
    if (r > 0) continue;
    auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return done();
    sd_bus_wait(bus, uint64_t(std::min<int64_t>(left.count(), 100000)));
  }
  return true;
}

bool AsyncCalls::waitAll(std::chrono::milliseconds timeout) {
  return processUntil(timeout, [this] { return answeredCount_ == static_cast<int>(calls_.size()); });
}

bool AsyncCalls::waitFor(int index, std::chrono::milliseconds timeout) {
  return processUntil(timeout, [this, index] { return calls_[index]->outcome.answered; });
}

int AsyncCalls::mostRepliesToOneCall() const {
  int most = 0;
  for (const auto& [cookie, count] : repliesByCookie_) most = std::max(most, count);
  return most;
}

int AsyncCalls::repliesSeen() const {
  int total = 0;
  for (const auto& [cookie, count] : repliesByCookie_) total += count;
  return total;
}

}  // namespace quorvi::testing
