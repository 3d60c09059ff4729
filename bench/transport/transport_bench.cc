// Transport benchmark: a trivial member of quorvifind against
// org.freedesktop.DBus.Peer.Ping answered by the same service on the same
// private bus, with 1 and 8 clients, and a 10 MB reply made on a worker.
//
// usage: transport_bench [--quick]
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "support/test_bus.h"

using namespace quorvi;
using namespace quorvi::testing;
using Clock = std::chrono::steady_clock;

namespace {

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

double percentile(std::vector<double> v, double p) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[std::min(v.size() - 1, std::size_t(p * v.size()))];
}

struct Latency {
  double medianUs = 0, p99Us = 0, callsPerSecond = 0;
};

// Sequential calls on one connection.
Latency measureLatency(BusClient& client, bool ping, int calls) {
  const MemberInfo& trivial = *findMember("CheckAppIndexIsReadyWithCompletion");
  std::vector<double> samples;
  samples.reserve(calls);
  auto start = Clock::now();
  for (int i = 0; i < calls; ++i) {
    auto t0 = Clock::now();
    auto result = ping ? client.ping() : client.call(trivial, {});
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    if (!result.ok) std::fprintf(stderr, "call failed: %s\n", result.errorName.c_str());
  }
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return {median(samples), percentile(samples, 0.99), calls / seconds};
}

// Total calls per second of `clients` connections calling at once.
double measureThroughput(const TestBus& bus, bool ping, int clients, int callsEach) {
  std::vector<std::unique_ptr<BusClient>> connections;
  for (int c = 0; c < clients; ++c) connections.push_back(bus.connect());
  std::atomic<int> ready{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] {
      ready++;
      while (!go) std::this_thread::yield();
      measureLatency(*connections[c], ping, callsEach);
    });
  }
  while (ready < clients) std::this_thread::yield();
  auto start = Clock::now();
  go = true;
  for (auto& t : threads) t.join();
  return clients * callsEach / std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
  const int rounds = quick ? 2 : 5;
  const int calls = quick ? 500 : 5000;
  const int callsEach = quick ? 200 : 2000;

  TestBus bus;
  TemporaryDirectory home;
  std::string payload = home.path() + "/payload";
  home.write("payload", std::string(10'000'000, 'x'));
  home.write("helper", "#!/bin/sh\nexec cat \"$2\"\n", true);
  home.write(".config/quorvi/settings.json",
             R"({"com.quorvi.taskExecutablePath": ")" + home.path() + R"(/helper"})");
  ServiceProcess service(bus, home.path());
  if (!bus.ok() || !service.ok()) {
    std::fprintf(stderr, "could not start the bus or the service\n%s", service.output().c_str());
    return 1;
  }
  auto client = bus.connect();
  measureLatency(*client, false, 200);  // warm up both paths
  measureLatency(*client, true, 200);

  std::vector<double> memberLat, pingLat, memberP99, pingP99, member1, ping1, member8, ping8, bigReply, catAlone;
  const MemberInfo& task = *findMember("PerformQuorviTaskArgumentsCompletionHandler");
  CallArguments bigArgs;
  argumentsFromWords(task.inSignature, {"getInfo", "[\"" + payload + "\"]"}, bigArgs, nullptr);
  for (int round = 0; round < rounds; ++round) {
    auto m = measureLatency(*client, false, calls);
    auto p = measureLatency(*client, true, calls);
    memberLat.push_back(m.medianUs);
    pingLat.push_back(p.medianUs);
    memberP99.push_back(m.p99Us);
    pingP99.push_back(p.p99Us);
    member1.push_back(m.callsPerSecond);
    ping1.push_back(p.callsPerSecond);
    member8.push_back(measureThroughput(bus, false, 8, callsEach));
    ping8.push_back(measureThroughput(bus, true, 8, callsEach));

    auto t0 = Clock::now();
    auto big = client->call(task, bigArgs, std::chrono::seconds(30));
    bigReply.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
    if (!big.ok || !big.values[0].value || big.values[0].value->size() != 10'000'000) {
      std::fprintf(stderr, "10 MB reply did not arrive whole\n");
      return 1;
    }
    // The companion's own share: the same process reading the same file.
    t0 = Clock::now();
    std::string command = home.path() + "/helper getInfo " + payload + " > /dev/null";
    if (std::system(command.c_str()) != 0) return 1;
    catAlone.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
  }

  std::printf("rounds: %d (median of rounds shown)\n", rounds);
  std::printf("1 client, %d sequential calls:\n", calls);
  std::printf("  CheckAppIndexIsReady  median %.1f us  p99 %.1f us  %.0f calls/s\n", median(memberLat),
              median(memberP99), median(member1));
  std::printf("  Peer.Ping             median %.1f us  p99 %.1f us  %.0f calls/s\n", median(pingLat),
              median(pingP99), median(ping1));
  std::printf("8 clients, %d calls each:\n", callsEach);
  std::printf("  CheckAppIndexIsReady  %.0f calls/s\n", median(member8));
  std::printf("  Peer.Ping             %.0f calls/s\n", median(ping8));
  std::printf("10 MB reply from a worker (task output): %.1f ms end to end; the companion alone %.1f ms\n",
              median(bigReply), median(catAlone));
  std::printf("transport: latency %.2fx of Ping (1 client), throughput %.2fx of Ping (8 clients), "
              "10 MB reply %.0f ms (%.2fx of the 100 ms goal)\n",
              median(memberLat) / median(pingLat), median(member8) / median(ping8), median(bigReply),
              median(bigReply) / 100.0);
  return 0;
}
