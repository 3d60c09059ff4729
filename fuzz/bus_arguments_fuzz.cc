// Bus argument decoding as the service meets it: a call to one of the 33
// members whose body holds any values of any types (a client library may send
// what it likes; the daemon only checks that the message is well formed).
// The service reads them per the member's signature, then applies the
// request bounds; reply values are read back the same way by clients. Text
// mending is checked to be idempotent.
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "service/bus_values.h"
#include "service/members.h"
#include "service/request_bounds.h"

namespace {

// A bus object that can make messages; it never sends one.
sd_bus* messageFactory() {
  static sd_bus* bus = [] {
    int fds[2];
    sd_bus* b = nullptr;
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0 || sd_bus_new(&b) < 0) std::abort();
    sd_bus_set_fd(b, fds[0], fds[0]);
    if (sd_bus_start(b) < 0) std::abort();
    return b;
  }();
  return bus;
}

struct Input {
  const uint8_t* data;
  size_t size;
  uint8_t byte() {
    if (!size) return 0;
    --size;
    return *data++;
  }
  std::string bytes(size_t most) {
    size_t n = std::min<size_t>(byte() % (most + 1), size);
    std::string out(reinterpret_cast<const char*>(data), n);
    data += n;
    size -= n;
    return out;
  }
};

// Appends values of types the input chooses; invalid text is refused by
// sd-bus and left out, as a real client's library would.
void appendValues(sd_bus_message* m, Input& in) {
  for (int count = in.byte() % 6; count > 0 && in.size; --count) {
    switch (in.byte() % 8) {
      case 0: {
        std::string s = in.bytes(64);
        sd_bus_message_append_basic(m, 's', s.c_str());
        break;
      }
      case 1: {
        int64_t x = static_cast<int64_t>(uint64_t(in.byte()) << 56 | uint64_t(in.byte()) << 8 | in.byte());
        sd_bus_message_append_basic(m, 'x', &x);
        break;
      }
      case 2: {
        int b = in.byte() & 1;
        sd_bus_message_append_basic(m, 'b', &b);
        break;
      }
      case 3: {
        if (sd_bus_message_open_container(m, 'a', "s") < 0) return;
        for (int n = in.byte() % 4; n > 0; --n) {
          std::string s = in.bytes(32);
          sd_bus_message_append_basic(m, 's', s.c_str());
        }
        sd_bus_message_close_container(m);
        break;
      }
      case 4: {
        std::string y = in.bytes(64);
        sd_bus_message_append_array(m, 'y', y.data(), y.size());
        break;
      }
      case 5: {
        int32_t i = in.byte();
        sd_bus_message_append_basic(m, 'i', &i);
        break;
      }
      case 6: {
        double d = in.byte() / 3.0;
        sd_bus_message_append_basic(m, 'd', &d);
        break;
      }
      case 7: {
        uint32_t u = in.byte();
        sd_bus_message_append_basic(m, 'u', &u);
        break;
      }
    }
  }
}

sd_bus_message* sealedCall(Input& in) {
  sd_bus_message* m = nullptr;
  if (sd_bus_message_new_method_call(messageFactory(), &m, quorvi::kBusName, quorvi::kObjectPath,
                                     quorvi::kInterfaceName, "Fuzz") < 0) {
    std::abort();
  }
  appendValues(m, in);
  if (sd_bus_message_seal(m, 1, 0) < 0 || sd_bus_message_rewind(m, 1) < 0) {
    sd_bus_message_unref(m);
    return nullptr;
  }
  return m;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace quorvi;
  Input in{data, size};
  const auto& members = allMembers();
  const MemberInfo& member = members[in.byte() % members.size()];

  if (sd_bus_message* call = sealedCall(in)) {
    CallArguments arguments;
    if (readCallArguments(call, member.inSignature, arguments) >= 0) applyRequestBounds(member, arguments);
    sd_bus_message_unref(call);
  }
  if (sd_bus_message* reply = sealedCall(in)) {
    std::vector<ReplyValue> values;
    readReplyValues(reply, member.outSignature, values);
    sd_bus_message_unref(reply);
  }
  std::string text(reinterpret_cast<const char*>(data), size);
  std::string mended = validUtf8(text);
  if (validUtf8(mended) != mended) std::abort();  // mending must leave valid text alone
  return 0;
}
