// BusServer: the service's end of the session bus (sd-bus).
//
// One thread, the one that calls run(), owns the connection and is the only
// one that touches sd-bus objects. Calls arrive there; quick members are
// answered on the spot, the rest go to the global pool. Replies made on other
// threads come back through a queue and an eventfd in the loop's poll, and
// the loop also waits for POLLOUT while output is pending, so large replies
// leave as fast as the daemon takes them.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

struct sd_bus;

namespace quorvi {

class BusServer {
 public:
  struct Options {
    // A D-Bus address; empty means the session bus ($DBUS_STARTER_ADDRESS,
    // then $DBUS_SESSION_BUS_ADDRESS, then the user bus).
    std::string address;
    // Other objects served on the same connection (desktop search hosts):
    // each is called on the bus thread once the service's own object is
    // exported and before the name is taken, so that an activating call to
    // any of them finds it there. False with a reason fails the start.
    using ObjectExporter = std::function<bool(sd_bus* bus, BusServer& server, std::string* error)>;
    std::vector<ObjectExporter> alsoExport;
  };

  explicit BusServer(Options options);
  ~BusServer();
  BusServer(const BusServer&) = delete;
  BusServer& operator=(const BusServer&) = delete;

  // Connects, exports the object and then takes the well-known name.
  // On failure returns false and says why in *error.
  bool start(std::string* error);
  // Serves the bus on the calling thread until the connection closes or
  // stop() is called.
  void run();
  // Ends run() soon; safe from any thread and from a signal handler.
  void stop();
  // The unique name the connection got from the daemon (":1.42").
  std::string uniqueName() const;

  // Runs work on the bus thread (at once when already there).
  void perform(std::function<void()> work);

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace quorvi
