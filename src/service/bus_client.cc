#include "service/bus_client.h"

#include <systemd/sd-bus.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "common/json.h"

namespace quorvi {

std::unique_ptr<BusClient> BusClient::connect(const std::string& address, std::string* error) {
  std::string target = address;
  if (target.empty()) {
    const char* session = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    target = session ? session : "";
  }
  sd_bus* bus = nullptr;
  int r;
  if (target.empty()) {
    r = sd_bus_open_user(&bus);
  } else {
    r = sd_bus_new(&bus);
    if (r >= 0) {
      sd_bus_set_address(bus, target.c_str());
      sd_bus_set_bus_client(bus, 1);
      sd_bus_set_trusted(bus, 1);
      r = sd_bus_start(bus);
    }
  }
  if (r < 0) {
    if (error) *error = std::string("cannot connect to the bus: ") + std::strerror(-r);
    sd_bus_unref(bus);
    return nullptr;
  }
  return std::unique_ptr<BusClient>(new BusClient(bus));
}

BusClient::~BusClient() { sd_bus_flush_close_unref(bus_); }

namespace {

BusClient::CallResult finishCall(int r, sd_bus_message* reply, sd_bus_error& error, std::string_view outSignature) {
  BusClient::CallResult result;
  if (r < 0) {
    result.errorName = error.name ? error.name : "";
    result.errorMessage = error.message ? error.message : std::strerror(-r);
  } else {
    result.ok = readReplyValues(reply, outSignature, result.values) >= 0;
    if (!result.ok) result.errorName = "com.quorvi.Error.BadReply";
  }
  sd_bus_error_free(&error);
  sd_bus_message_unref(reply);
  return result;
}

}  // namespace

BusClient::CallResult BusClient::call(const MemberInfo& member, const CallArguments& arguments,
                                      std::chrono::microseconds timeout) {
  sd_bus_message* message = nullptr;
  sd_bus_message* reply = nullptr;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  std::string name(member.member);
  int r = sd_bus_message_new_method_call(bus_, &message, kBusName, kObjectPath, kInterfaceName, name.c_str());
  if (r >= 0) r = appendCallArguments(message, member.inSignature, arguments);
  if (r >= 0) r = sd_bus_call(bus_, message, uint64_t(timeout.count()), &error, &reply);
  sd_bus_message_unref(message);
  return finishCall(r, reply, error, member.outSignature);
}

bool BusClient::callNoReply(const MemberInfo& member, const CallArguments& arguments) {
  sd_bus_message* message = nullptr;
  std::string name(member.member);
  int r = sd_bus_message_new_method_call(bus_, &message, kBusName, kObjectPath, kInterfaceName, name.c_str());
  if (r >= 0) r = appendCallArguments(message, member.inSignature, arguments);
  if (r >= 0) r = sd_bus_message_set_expect_reply(message, 0);
  if (r >= 0) r = sd_bus_send(bus_, message, nullptr);
  if (r >= 0) r = sd_bus_flush(bus_);
  sd_bus_message_unref(message);
  return r >= 0;
}

BusClient::CallResult BusClient::ping(std::chrono::microseconds timeout) {
  sd_bus_message* message = nullptr;
  sd_bus_message* reply = nullptr;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  int r = sd_bus_message_new_method_call(bus_, &message, kBusName, kObjectPath, "org.freedesktop.DBus.Peer", "Ping");
  if (r >= 0) r = sd_bus_call(bus_, message, uint64_t(timeout.count()), &error, &reply);
  sd_bus_message_unref(message);
  return finishCall(r, reply, error, "");
}

bool BusClient::subscribe(const std::string& signalMember) {
  signalCounts_.emplace(signalMember, 0);
  std::string match = std::string("type='signal',interface='") + kSignalInterfaceName + "',member='" +
                      signalMember + "',path='" + kObjectPath + "'";
  auto onSignal = [](sd_bus_message* m, void* userdata, sd_bus_error*) -> int {
    auto* counts = static_cast<std::map<std::string, int>*>(userdata);
    if (const char* member = sd_bus_message_get_member(m)) ++(*counts)[member];
    return 0;
  };
  return sd_bus_add_match(bus_, nullptr, match.c_str(), onSignal, &signalCounts_) >= 0;
}

int BusClient::signalCount(const std::string& signalMember) const {
  auto it = signalCounts_.find(signalMember);
  return it == signalCounts_.end() ? 0 : it->second;
}

bool BusClient::waitForSignal(const std::string& signalMember, int seen, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (signalCount(signalMember) <= seen) {
    int r = sd_bus_process(bus_, nullptr);
    if (r < 0) return false;
    if (r > 0) continue;
    auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    sd_bus_wait(bus_, uint64_t(left.count()));
  }
  return true;
}

bool BusClient::serviceIsRunning() {
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  int r = sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                             "NameHasOwner", &error, &reply, "s", kBusName);
  int owned = 0;
  if (r >= 0) sd_bus_message_read(reply, "b", &owned);
  sd_bus_error_free(&error);
  sd_bus_message_unref(reply);
  return owned != 0;
}

bool argumentsFromWords(std::string_view signature, const std::vector<std::string>& words, CallArguments& out,
                        std::string* error) {
  auto types = splitSignature(signature);
  if (words.size() != types.size()) {
    if (error) *error = "expected " + std::to_string(types.size()) + " argument(s), got " + std::to_string(words.size());
    return false;
  }
  for (std::size_t i = 0; i < types.size(); ++i) {
    CallArgument a;
    a.type = types[i];
    const std::string& w = words[i];
    if (a.type == "s") {
      a.text = w;
    } else if (a.type == "x") {
      char* end = nullptr;
      errno = 0;
      long long v = std::strtoll(w.c_str(), &end, 10);
      if (w.empty() || *end || errno) {
        if (error) *error = "not an integer: " + w;
        return false;
      }
      a.integer = v;
    } else if (a.type == "b") {
      if (w == "true" || w == "1" || w == "yes") a.flag = true;
      else if (w == "false" || w == "0" || w == "no") a.flag = false;
      else {
        if (error) *error = "not a flag (true/false): " + w;
        return false;
      }
    } else if (a.type == "as") {
      if (w.starts_with("[")) {
        Json json = Json::parse(w, nullptr, false);
        if (!json.is_array()) {
          if (error) *error = "not a JSON array of strings: " + w;
          return false;
        }
        for (const auto& item : json) {
          if (!item.is_string()) {
            if (error) *error = "not a JSON array of strings: " + w;
            return false;
          }
          a.strings.push_back(item.get<std::string>());
        }
      } else if (!w.empty()) {
        std::stringstream stream(w);
        for (std::string item; std::getline(stream, item, ',');) a.strings.push_back(item);
      }
    } else if (a.type == "ay") {
      if (w.starts_with("@")) {
        std::ifstream in(w.substr(1), std::ios::binary);
        if (!in) {
          if (error) *error = "cannot read " + w.substr(1);
          return false;
        }
        std::stringstream bytes;
        bytes << in.rdbuf();
        a.text = bytes.str();
      } else {
        a.text = w;
      }
    }
    out.values.push_back(std::move(a));
  }
  return true;
}

}  // namespace quorvi
