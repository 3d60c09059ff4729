// The responsiveness benchmark driver: latencies of requests over the bus to
// a running quorvifind while it is idle and while it is busy, in one run.
//   - searches (#12) on an indexed tree, idle and while full rescans (#7) run;
//   - the process list (#33) and a look-up (#15), idle and while ten Zotero
//     index requests (#28, uncached) wait for the library's reads.
// Prints p50 and p99 per phase; lines starting "@" are for the run script.
//
//   responsiveness_bench --bus ADDRESS --tree DIR --library DIR [--samples N]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "service/bus_client.h"
#include "support/async_calls.h"
#include "support/test_bus.h"

namespace {

using Clock = std::chrono::steady_clock;
using quorvi::BusClient;
using quorvi::testing::AsyncCalls;
using quorvi::testing::callMember;

double percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  std::size_t index = std::min(values.size() - 1, static_cast<std::size_t>(p * (values.size() - 1) + 0.5));
  return values[index];
}

// Milliseconds one call took; negative when it failed.
double timedCall(BusClient& client, const std::string& member, const std::vector<std::string>& words) {
  auto start = Clock::now();
  auto result = callMember(client, member, words, std::chrono::seconds(120));
  double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  return result.ok ? ms : -1;
}

bool indexReady(BusClient& client) {
  auto state = callMember(client, "GetFileIndexResultDescriptionWithCompletion", {});
  return state.ok && state.values.size() == 2 && state.values[0].value && state.values[1].value &&
         state.values[1].value->starts_with("#fs ends");
}

void report(const char* label, const char* key, const std::vector<double>& ms) {
  std::printf("%-44s p50 %8.2f ms  p99 %8.2f ms  (%zu calls)\n", label, percentile(ms, 0.5), percentile(ms, 0.99),
              ms.size());
  std::printf("@%s %.3f %.3f %zu\n", key, percentile(ms, 0.5), percentile(ms, 0.99), ms.size());
  std::fflush(stdout);
}

const std::vector<std::string> kQueries = {"report", "zephyr", "budget 2019", "qqqxqqq", "报告", "notes|memo"};

}  // namespace

int main(int argc, char** argv) {
  std::string address, tree, library;
  int samples = 300;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--bus" && i + 1 < argc) address = argv[++i];
    else if (arg == "--tree" && i + 1 < argc) tree = argv[++i];
    else if (arg == "--library" && i + 1 < argc) library = argv[++i];
    else if (arg == "--samples" && i + 1 < argc) samples = std::atoi(argv[++i]);
  }
  if (address.empty() || tree.empty() || library.empty()) {
    std::fprintf(stderr, "usage: responsiveness_bench --bus ADDRESS --tree DIR --library DIR [--samples N]\n");
    return 2;
  }
  std::string error;
  auto client = BusClient::connect(address, &error);
  if (!client) {
    std::fprintf(stderr, "responsiveness: %s\n", error.c_str());
    return 1;
  }
  const std::string scopes = "[\"" + tree + "\"]";

  // The index, built once before anything is timed.
  auto scanStart = Clock::now();
  callMember(*client, "StartIndexFilesWithSearchScopes", {scopes});
  while (!indexReady(*client)) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  std::printf("first scan of %s: %.2f s\n", tree.c_str(),
              std::chrono::duration<double>(Clock::now() - scanStart).count());

  // Searches, idle.
  std::vector<double> idle, duringScan;
  for (int i = 0; i < samples; ++i) {
    double ms = timedCall(*client, "SearchFilesWithQueryMaxcountCompletion", {kQueries[i % kQueries.size()], "20"});
    if (ms >= 0) idle.push_back(ms);
  }
  report("search, idle", "search_idle", idle);

  // Searches while full rescans run (a new one starts whenever one ends).
  int rescans = 0;
  for (int i = 0; static_cast<int>(duringScan.size()) < samples && i < samples * 50; ++i) {
    if (i % 4 == 0 && indexReady(*client)) {
      callMember(*client, "StartIndexFilesWithSearchScopes", {scopes});
      ++rescans;
      // Wait until the index says it is indexing (the start runs on the main queue).
      for (int k = 0; k < 200 && indexReady(*client); ++k) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      continue;
    }
    double ms = timedCall(*client, "SearchFilesWithQueryMaxcountCompletion", {kQueries[i % kQueries.size()], "20"});
    if (ms >= 0 && !indexReady(*client)) duringScan.push_back(ms);
  }
  report("search, during a full rescan", "search_scan", duringScan);
  std::printf("(%d rescans)\n", rescans);
  while (!indexReady(*client)) std::this_thread::sleep_for(std::chrono::milliseconds(50));

  // #33 and #15, idle, then with ten #28 waiting.
  const std::string lookup = tree + "/Documents";
  auto sampleLookups = [&](std::vector<double>& processes, std::vector<double>& contains,
                           const std::atomic<bool>* stillPending) {
    for (int i = 0; static_cast<int>(processes.size()) < samples / 3; ++i) {
      double p = timedCall(*client, "GetRunningProcessesWithCompletion", {});
      double c = timedCall(*client, "ContainsFileAtCompletionHandler", {lookup});
      if (stillPending && !*stillPending) continue;  // only what overlapped the waiting requests
      if (p >= 0) processes.push_back(p);
      if (c >= 0) contains.push_back(c);
    }
  };
  std::vector<double> processesIdle, containsIdle, processesBusy, containsBusy;
  sampleLookups(processesIdle, containsIdle, nullptr);
  report("#33 process list, idle", "processes_idle", processesIdle);
  report("#15 contains, idle", "contains_idle", containsIdle);

  // A second client keeps ten uncached #28 in flight, batch after batch.
  std::atomic<bool> measuring{true}, pending{false};
  std::atomic<int> batches{0};
  std::thread zotero([&] {
    auto other = BusClient::connect(address, nullptr);
    if (!other) return;
    while (measuring) {
      AsyncCalls calls(*other);
      for (int k = 0; k < 10; ++k) calls.send("IndexZoteroAtUseCacheIfAvailableCompletion", {library, "false"});
      pending = true;
      calls.waitAll(std::chrono::seconds(300));
      pending = false;
      ++batches;
    }
  });
  while (!pending) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  sampleLookups(processesBusy, containsBusy, &pending);
  measuring = false;
  zotero.join();
  report("#33 process list, ten #28 waiting", "processes_zotero", processesBusy);
  report("#15 contains, ten #28 waiting", "contains_zotero", containsBusy);
  std::printf("(%d batches of ten #28)\n", batches.load());
  return 0;
}
