// BusClient: the calling end of the bus contract, for the `quorvi` tool,
// the end-to-end tests and the benchmarks. One client is one connection and
// is used from one thread.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "service/bus_values.h"
#include "service/members.h"

struct sd_bus;

namespace quorvi {

class BusClient {
 public:
  struct CallResult {
    bool ok = false;          // a method return arrived
    std::string errorName;    // else the D-Bus error ("org.freedesktop.DBus.Error.NoReply")
    std::string errorMessage;
    std::vector<ReplyValue> values;
  };

  // Connects to the address, or to the session bus when it is empty.
  static std::unique_ptr<BusClient> connect(const std::string& address, std::string* error);
  ~BusClient();

  CallResult call(const MemberInfo& member, const CallArguments& arguments,
                  std::chrono::microseconds timeout = std::chrono::seconds(25));
  // Sends the call flagged "no reply expected" and returns once it is written.
  bool callNoReply(const MemberInfo& member, const CallArguments& arguments);
  // org.freedesktop.DBus.Peer.Ping on the service.
  CallResult ping(std::chrono::microseconds timeout = std::chrono::seconds(5));
  // Starts counting the service's signals of that member (interface com.quorvi).
  bool subscribe(const std::string& signalMember);
  // Signals of that member received so far (after subscribe).
  int signalCount(const std::string& signalMember) const;
  // Processes the connection until more than `seen` signals of that member
  // have arrived; false on timeout.
  bool waitForSignal(const std::string& signalMember, int seen, std::chrono::milliseconds timeout);
  // Whether the service's name currently has an owner.
  bool serviceIsRunning();

  sd_bus* bus() const { return bus_; }

 private:
  explicit BusClient(sd_bus* bus) : bus_(bus) {}
  sd_bus* bus_;
  std::map<std::string, int> signalCounts_;
};

// Builds call arguments from command-line words per a signature: "s" takes a
// word, "x" a decimal integer, "b" true/false/1/0, "as" a JSON array of
// strings or a comma-separated list ("" is empty), "ay" "@FILE" (its bytes)
// or text. False with a message on a malformed word.
bool argumentsFromWords(std::string_view signature, const std::vector<std::string>& words, CallArguments& out,
                        std::string* error);

}  // namespace quorvi
