#include "service/bus_server.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <systemd/sd-bus.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "common/dispatch.h"
#include "common/memory_release.h"
#include "common/notification_center.h"
#include "service/bus_values.h"
#include "service/members.h"
#include "service/request_bounds.h"
#include "service/service_provider.h"

namespace quorvi {

namespace {
int onMethodCall(sd_bus_message* message, void* userdata, sd_bus_error* error);
// Replies at least this big are followed by a release of freed memory.
constexpr std::size_t kLargeReplyBytes = std::size_t(4) << 20;
}

struct BusServer::Impl {
  Options options;
  sd_bus* bus = nullptr;
  sd_bus_slot* objectSlot = nullptr;
  sd_bus_slot* signalSlot = nullptr;
  int wakeFd = -1;
  std::atomic<bool> stopping{false};
  std::atomic<std::thread::id> busThread{};

  std::mutex queueMutex;
  std::deque<std::function<void()>> queue;
  std::vector<uint64_t> observerTokens;

  bool onBusThread() const { return busThread.load() == std::this_thread::get_id(); }

  void wake() {
    uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(wakeFd, &one, sizeof one);
  }

  void perform(std::function<void()> work) {
    if (onBusThread()) {
      work();
      return;
    }
    {
      std::lock_guard lock(queueMutex);
      queue.push_back(std::move(work));
    }
    wake();
  }

  void drainQueue() {
    std::deque<std::function<void()>> ready;
    {
      std::lock_guard lock(queueMutex);
      ready.swap(queue);
    }
    for (auto& work : ready) work();
  }

  // A reference to an incoming call that is released on the bus thread,
  // whichever thread drops the last copy.
  std::shared_ptr<sd_bus_message> keep(sd_bus_message* message) {
    sd_bus_message_ref(message);
    return std::shared_ptr<sd_bus_message>(message, [this](sd_bus_message* m) {
      perform([m] { sd_bus_message_unref(m); });
    });
  }

  void emitSignal(const std::string& member) {
    perform([this, member] {
      if (bus) sd_bus_emit_signal(bus, kObjectPath, kSignalInterfaceName, member.c_str(), "");
    });
  }
};

namespace {

#define QUORVI_MEMBER(number, member, selector, inSig, inNames, outSig, outNames, runs) \
  SD_BUS_METHOD_WITH_NAMES(#member, inSig, inNames, outSig, outNames, onMethodCall, SD_BUS_VTABLE_UNPRIVILEGED),

const sd_bus_vtable kProtocolVtable[] = {
    SD_BUS_VTABLE_START(0),
#include "service/members.def"
    SD_BUS_VTABLE_END,
};
#undef QUORVI_MEMBER

const sd_bus_vtable kSignalVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_SIGNAL("fileIndexStateDidChange", "", 0),
    SD_BUS_SIGNAL("appIndexerStateDidChange", "", 0),
    SD_BUS_VTABLE_END,
};

const MemberInfo* memberNamed(const char* name) {
  static const auto* byName = [] {
    auto* map = new std::unordered_map<std::string_view, const MemberInfo*>();
    for (const auto& info : allMembers()) (*map)[info.member] = &info;
    return map;
  }();
  auto it = byName->find(name ? name : "");
  return it == byName->end() ? nullptr : it->second;
}

void sendReply(BusServer::Impl& server, sd_bus_message* call, const MemberInfo& info,
               const std::vector<ReplyValue>& values) {
  sd_bus_message* reply = nullptr;
  int r = sd_bus_message_new_method_return(call, &reply);
  if (r >= 0) r = appendReplyValues(reply, info.outSignature, values);
  if (r < 0) {
    // Our own values did not fit the member's signature: a fault of ours, said as such.
    sd_bus_message_unref(reply);
    sd_bus_reply_method_errorf(call, "com.quorvi.Error.Internal", "reply does not match %s",
                               std::string(info.outSignature).c_str());
    return;
  }
  sd_bus_send(server.bus, reply, nullptr);
  sd_bus_message_unref(reply);
}

std::size_t byteSize(const std::vector<ReplyValue>& values) {
  std::size_t size = 0;
  for (const auto& value : values) size += value.size();
  return size;
}

void dispatch(const MemberInfo& info, CallArguments arguments, Reply reply) {
  auto& provider = ServiceProvider::shared();
  auto& a = arguments;
  switch (info.number) {
    case 1: return provider.neverReplyWithBlock(reply);
    case 2: return provider.startIndexAppsWithSearchScopes(a.strings(0), reply);
    case 3: return provider.checkAppIndexIsReadyWithCompletion(reply);
    case 4: return provider.getAppsWithCompletionHandler(reply);
    case 5: return provider.workspaceWillSleep();
    case 6: return provider.workspaceDidAwake();
    case 7: return provider.startIndexFilesWithSearchScopes(a.strings(0));
    case 8: return provider.fileIndexRemoveWithSearchScopes(a.strings(0));
    case 9: return provider.fileIndexAddWithSearchScopes(a.strings(0));
    case 10: return provider.getFileIndexResultDescriptionWithCompletion(reply);
    case 11: return provider.getRecentFilesWithSearchScopes(a.strings(0), reply);
    case 12: return provider.searchFilesWithQuery(a.text(0), a.integer(1), reply);
    case 13: return provider.searchFilesIn(a.text(0), a.text(1), a.integer(2), reply);
    case 14: return provider.searchFoldersWithQuery(a.text(0), a.integer(1), reply);
    case 15: return provider.containsFileAt(a.text(0), reply);
    case 16: return provider.getVSCodeWorkspacesWithCompletionHandler(reply);
    case 17: return provider.getAllXcodeProjectsWithCompletionHandler(reply);
    case 18: return provider.getDirectoryFiles(a.text(0), a.flag(1), reply);
    case 19: return provider.getPerformanceSnapshotWithCompletion(reply);
    case 20: return provider.exportEventLogsTo(a.text(0));
    case 21: return provider.querySpotlightByNameWithKeyword(a.text(0), a.strings(1), a.integer(2), reply);
    case 22:
      return provider.querySpotlightByNameAndContentsWithKeyword(a.text(0), a.strings(1), a.integer(2), reply);
    case 23: return provider.getRecentDocumentsWithBundleIdentifier(a.text(0), reply);
    case 24: return provider.getAppAttributesWithPath(a.text(0), reply);
    case 25: return provider.getFileAttributesWithPath(a.text(0), reply);
    case 26: return provider.readPasteboardWithFrontmostApplication(a.text(0), reply);
    case 27: return provider.ocrWithImage(a.text(0), a.integer(1), a.flag(2), reply);
    case 28: return provider.indexZoteroAt(a.text(0), a.flag(1), reply);
    case 29: return provider.getZoteroPreviewWithItemID(a.integer(0), reply);
    case 30: return provider.searchContactsWithQuery(a.text(0), a.integer(1), reply);
    case 31: return provider.performQuorviTask(a.text(0), a.strings(1));
    case 32: return provider.performQuorviTaskWithReply(a.text(0), a.strings(1), reply);
    case 33: return provider.getRunningProcessesWithCompletion(reply);
  }
}

int onMethodCall(sd_bus_message* message, void* userdata, sd_bus_error* error) {
  auto& server = *static_cast<BusServer::Impl*>(userdata);
  const MemberInfo* info = memberNamed(sd_bus_message_get_member(message));
  if (!info) return sd_bus_error_set(error, SD_BUS_ERROR_UNKNOWN_METHOD, "unknown member");

  CallArguments arguments;
  int r = readCallArguments(message, info->inSignature, arguments);
  if (r < 0) return sd_bus_error_set_errno(error, r);

  const bool expectsReply = sd_bus_message_get_expect_reply(message) > 0;
  // Past the bounds a request gets the member's failure answer here, before
  // any component or thread is involved.
  auto refused = applyRequestBounds(*info, arguments);
  if (info->runs == MemberRuns::Ack) {
    if (expectsReply) sd_bus_reply_method_return(message, "");
    if (!refused) dispatch(*info, std::move(arguments), Reply());
    return 1;
  }
  if (refused) {
    if (expectsReply) sendReply(server, message, *info, *refused);
    return 1;
  }

  auto call = server.keep(message);
  Reply reply(
      [&server, call, info](std::vector<ReplyValue> values) {
        server.perform([&server, call, info, values = std::move(values)] {
          sendReply(server, call.get(), *info, values);
          // A big reply leaves big free blocks behind (its data here, its
          // records on the worker that built it): hand them back to the
          // system soon; after any work, once the service is quiet.
          if (byteSize(values) >= kLargeReplyBytes) releaseFreedMemorySoon();
          releaseFreedMemoryWhenQuiet();
        });
      },
      expectsReply);

  if (info->runs == MemberRuns::Quick || info->runs == MemberRuns::Queued) {
    dispatch(*info, std::move(arguments), std::move(reply));
  } else {
    DispatchQueue::global().async(
        [info, arguments = std::move(arguments), reply = std::move(reply)]() mutable {
          dispatch(*info, std::move(arguments), std::move(reply));
        });
  }
  return 1;  // answered now or later, or (never-reply members) not at all
}

std::string sessionAddress(const std::string& given) {
  if (!given.empty()) return given;
  for (const char* name : {"DBUS_STARTER_ADDRESS", "DBUS_SESSION_BUS_ADDRESS"}) {
    const char* value = std::getenv(name);
    if (value && *value) return value;
  }
  return "";
}

}  // namespace

BusServer::BusServer(Options options) : impl_(std::make_unique<Impl>()) {
  impl_->options = std::move(options);
  impl_->wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

BusServer::~BusServer() {
  for (auto token : impl_->observerTokens) NotificationCenter::shared().removeObserver(token);
  if (impl_->bus) {
    sd_bus_slot_unref(impl_->objectSlot);
    sd_bus_slot_unref(impl_->signalSlot);
    sd_bus_flush_close_unref(impl_->bus);
  }
  if (impl_->wakeFd >= 0) ::close(impl_->wakeFd);
}

bool BusServer::start(std::string* error) {
  auto fail = [&](const std::string& what, int r) {
    if (error) *error = what + ": " + std::strerror(-r);
    return false;
  };
  impl_->busThread = std::this_thread::get_id();
  std::string address = sessionAddress(impl_->options.address);
  int r;
  if (address.empty()) {
    r = sd_bus_open_user(&impl_->bus);
    if (r < 0) return fail("cannot open the session bus", r);
  } else {
    // Opened from an address the bus is untrusted by default, which costs a
    // credentials round trip per call; we accept every peer anyway.
    if ((r = sd_bus_new(&impl_->bus)) < 0) return fail("sd_bus_new", r);
    sd_bus_set_address(impl_->bus, address.c_str());
    sd_bus_set_bus_client(impl_->bus, 1);
    sd_bus_set_trusted(impl_->bus, 1);
    if ((r = sd_bus_start(impl_->bus)) < 0) return fail("cannot connect to " + address, r);
  }
  // Export first, then take the name: the daemon holds an activating call
  // until the name is owned, and by then the object must answer.
  r = sd_bus_add_object_vtable(impl_->bus, &impl_->objectSlot, kObjectPath, kInterfaceName, kProtocolVtable,
                               impl_.get());
  if (r < 0) return fail("cannot export the object", r);
  r = sd_bus_add_object_vtable(impl_->bus, &impl_->signalSlot, kObjectPath, kSignalInterfaceName, kSignalVtable,
                               impl_.get());
  if (r < 0) return fail("cannot export the signals", r);
  for (auto& exporter : impl_->options.alsoExport) {
    if (!exporter(impl_->bus, *this, error)) return false;
  }
  r = sd_bus_request_name(impl_->bus, kBusName, 0);
  if (r < 0) return fail(std::string("cannot own ") + kBusName, r);

  Impl* impl = impl_.get();
  for (const char* name : {kFileIndexStateDidChange, kAppIndexerStateDidChange}) {
    std::string member = std::string(name).substr(std::strlen("com.quorvi."));
    impl_->observerTokens.push_back(NotificationCenter::shared().addObserver(
        name, [impl, member](const std::string&) {
          impl->emitSignal(member);
          releaseFreedMemoryWhenQuiet();  // a scan or an app-index update just ended or began
        }));
  }
  return true;
}

void BusServer::run() {
  Impl& s = *impl_;
  s.busThread = std::this_thread::get_id();
  while (!s.stopping) {
    s.drainQueue();
    int r = sd_bus_process(s.bus, nullptr);
    if (r < 0 || sd_bus_is_open(s.bus) <= 0) break;  // the bus went away
    if (r > 0) continue;

    int events = sd_bus_get_events(s.bus);
    if (events < 0) break;
    uint64_t timeoutUsec = UINT64_MAX;
    sd_bus_get_timeout(s.bus, &timeoutUsec);
    int timeoutMs = -1;
    if (timeoutUsec != UINT64_MAX) {
      timespec now;
      clock_gettime(CLOCK_MONOTONIC, &now);
      uint64_t nowUsec = uint64_t(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
      timeoutMs = timeoutUsec > nowUsec ? int(std::min<uint64_t>((timeoutUsec - nowUsec + 999) / 1000, 60000)) : 0;
    }
    pollfd fds[2] = {{sd_bus_get_fd(s.bus), short(events), 0}, {s.wakeFd, POLLIN, 0}};
    if (::poll(fds, 2, timeoutMs) < 0 && errno != EINTR) break;
    if (fds[1].revents & POLLIN) {
      uint64_t count;
      [[maybe_unused]] ssize_t n = ::read(s.wakeFd, &count, sizeof count);
    }
  }
  s.drainQueue();
  if (s.bus) sd_bus_flush(s.bus);
}

void BusServer::stop() {
  impl_->stopping = true;
  impl_->wake();
}

std::string BusServer::uniqueName() const {
  const char* name = nullptr;
  if (impl_->bus) sd_bus_get_unique_name(impl_->bus, &name);
  return name ? name : "";
}

void BusServer::perform(std::function<void()> work) { impl_->perform(std::move(work)); }

}  // namespace quorvi
