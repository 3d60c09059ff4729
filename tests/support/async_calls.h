// Many calls in flight on one connection, for tests that need to see the
// order in which replies come back and whether any call was answered twice.
// Every incoming reply is also counted by the serial of the call it answers,
// below sd-bus's own matching, so a duplicate reply cannot hide.
#pragma once

#include <systemd/sd-bus.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "service/bus_client.h"

namespace quorvi::testing {

class AsyncCalls {
 public:
  struct Outcome {
    std::string member;
    bool sent = false;
    bool answered = false;  // the callback ran (a reply, an error or a timeout)
    bool ok = false;        // a method return
    std::string errorName;
    std::vector<ReplyValue> values;
    int order = -1;  // 0 for the first answer on this connection, 1 for the next, ...
    std::chrono::steady_clock::time_point sentAt, answeredAt;
  };

  explicit AsyncCalls(BusClient& client);
  ~AsyncCalls();
  AsyncCalls(const AsyncCalls&) = delete;
  AsyncCalls& operator=(const AsyncCalls&) = delete;

  // Sends the call and returns its index (outcome(index)).
  int send(const std::string& member, const std::vector<std::string>& words,
           std::chrono::microseconds timeout = std::chrono::seconds(60));
  // Processes the connection until every call sent so far is answered, or
  // the timeout passes (false).
  bool waitAll(std::chrono::milliseconds timeout);
  // Processes the connection until call `index` is answered (false on timeout).
  bool waitFor(int index, std::chrono::milliseconds timeout);

  const Outcome& outcome(int index) const { return calls_[index]->outcome; }
  std::size_t size() const { return calls_.size(); }
  int answered() const { return answeredCount_; }
  // Replies that came from the bus for calls of ours, by call: any count
  // above 1 is a duplicate.
  int mostRepliesToOneCall() const;
  int repliesSeen() const;

 private:
  struct Call {
    AsyncCalls* owner = nullptr;
    Outcome outcome;
    uint64_t cookie = 0;
    sd_bus_slot* slot = nullptr;
  };
  static int onReply(sd_bus_message* reply, void* userdata, sd_bus_error* error);
  static int onIncoming(sd_bus_message* message, void* userdata, sd_bus_error* error);
  bool processUntil(std::chrono::milliseconds timeout, const std::function<bool()>& done);

  BusClient& client_;
  sd_bus_slot* filter_ = nullptr;
  std::vector<std::unique_ptr<Call>> calls_;
  std::map<uint64_t, int> repliesByCookie_;
  int answeredCount_ = 0;
};

}  // namespace quorvi::testing
